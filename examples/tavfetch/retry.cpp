#include "retry.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "errors.h"
#include "text.h"

static const int64_t FIRST_DELAY_MS = 1000;
static const int64_t LONGEST_DELAY_MS = 60000;

// A server that asks for more is not waited for.
static const int64_t LONGEST_ASKED_MS = 3600000;

// Seconds since an epoch of its own: only the difference of two is meaningful.
static bool parse_date(const std::string& text, time_t* result) {
    std::tm fields{};
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    stream >> std::get_time(&fields, "%a, %d %b %Y %H:%M:%S");
    if (stream.fail()) {
        return false;
    }
    *result = mktime(&fields);
    return true;
}

// "120" or a date; -1 when there is none.
static int64_t asked_delay(const transfer_result& result) {
    long long seconds = 0;
    if (parse_number(result.retry_after, &seconds)) {
        return std::min<long long>(seconds, INT32_MAX) * 1000;
    }
    time_t then = 0, now = 0;
    // The server's own clock: this one may be another.
    if (!parse_date(result.retry_after, &then) || !parse_date(result.date, &now)) {
        return -1;
    }
    return std::max<int64_t>((int64_t)difftime(then, now), 0) * 1000;
}

// A server that is busy or has a broken moment.
static bool is_passing_status(uint32_t status) {
    static const uint32_t passing[] = {408, 429, 500, 502, 503, 504};
    return std::find(std::begin(passing), std::end(passing), status) != std::end(passing);
}

static bool may_pass(const transfer& item, const transfer_result& result) {
    if (!result.failure.text.empty() || is_success(result) ||
        result.code == TAV_HTTP_ERROR_CODE_CANCEL) {
        return false;
    }
    bool is_refused = result.code == TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR;
    // What was posted may have been taken; only these say that it was not.
    if (is_post(*item.args)) {
        return result.code == TAV_HTTP_ERROR_CODE_FAIL_CONNECT ||
               (is_refused && (result.status == 429 || result.status == 503));
    }
    if (is_refused) {
        return is_passing_status(result.status);
    }
    int exit_code = exit_code_of(result.code, result.in_handshake);
    return exit_code == EXIT_NETWORK || exit_code == EXIT_TIMEOUT ||
           result.code == TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH ||
           result.code == TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE;
}

bool choose_retry(const transfer& item, const transfer_result& result,
                  std::chrono::milliseconds* delay) {
    if (item.retries >= item.args->retries || !may_pass(item, result)) {
        return false;
    }
    int64_t asked = asked_delay(result);
    int64_t own = item.args->retry_delay > 0
                      ? item.args->retry_delay
                      : std::min(FIRST_DELAY_MS << std::min(item.retries, 6), LONGEST_DELAY_MS);
    *delay = std::chrono::milliseconds(asked >= 0 ? asked : own);
    return asked <= LONGEST_ASKED_MS;
}
