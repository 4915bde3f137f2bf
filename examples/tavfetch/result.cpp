#include "result.h"

#include <filesystem>

#include "errors.h"
#include "queries.h"
#include "url.h"

namespace fs = std::filesystem;

static const int32_t IO_TIMEOUT = 30000;  // the library's default

bool is_success(const transfer_result& result) {
    return result.failure.text.empty() &&
           (result.verdict == VERDICT_COMPLETE ||
            (result.verdict == VERDICT_NONE && exit_code_of(result.code, false) == EXIT_OK));
}

int exit_code_of(const transfer_result& result) {
    if (is_success(result)) {
        return EXIT_OK;
    }
    return result.failure.text.empty() ? exit_code_of(result.code, result.in_handshake)
                                       : result.failure.exit_code;
}

std::string explain_failure(const transfer_result& result) {
    if (!result.failure.text.empty()) {
        return result.failure.text;
    }
    return explain_code(result.code, result.status, result.status_text, result.in_handshake) +
           " (" + code_name(result.code) + ")";
}

// Why tavfetch stopped the session, as a failure of its own or as a code of the library.
static void explain_verdict(transfer_result* result, int32_t io_timeout) {
    switch (result->verdict) {
    case VERDICT_BROKEN:
        result->verdict = VERDICT_NONE;
        result->is_broken = true;
        result->code = result->silent_milliseconds >= io_timeout ? TAV_HTTP_ERROR_CODE_RECV_TIMEOUT
                                                                 : TAV_HTTP_ERROR_CODE_FAIL_RECV;
        break;
    case VERDICT_REFUSED:
        result->verdict = VERDICT_NONE;
        result->code = TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR;
        break;
    case VERDICT_RANGE_IGNORED:
        result->failure = {EXIT_SERVER, "the server ignored --range and sent the whole resource; "
                                        "nothing was written"};
        break;
    case VERDICT_CHANGED:
        result->failure = {EXIT_SERVER, "the resource changed between two attempts, and its "
                                        "beginning is written already"};
        break;
    case VERDICT_OUTPUT_CLOSED:
        result->failure = {EXIT_FILE, "the output could not be written"};
        break;
    case VERDICT_NO_TEXT:
        result->failure = {EXIT_FILE, "the body is no text and would spoil the terminal; name a "
                                      "file with -o, or send it through a pipe"};
        break;
    default:
        break;
    }
}

static double seconds_between(time_point from, time_point to) {
    return to == time_point() ? -1 : std::chrono::duration<double>(to - from).count();
}

// A file of the library's choosing cannot be resumed under its name, and holds the error page when
// the server refused: it goes with the failure.
static std::string left_file(const transfer& item, http_session* session, uint32_t code) {
    std::error_code ignored;
    std::string path = query_text(session, tav_http_get_file_path);
    if (path.empty()) {
        return "";
    }
    if (code != 0 && item.target.kind == TARGET_AUTO_FILE) {
        fs::remove(fs::u8path(path), ignored);
    }
    return fs::exists(fs::u8path(path), ignored) ? path : "";
}

static void read_session(const transfer& item, http_session* session, transfer_result* result) {
    char peer[64] = "";
    tav_http_get_peer_address(session, peer);
    tav_http_get_body_bytes(session, &result->bytes);
    tav_http_get_last_modified(session, &result->last_modified);
    result->peer = peer;
    result->status = query_status(session);
    result->status_text = query_text(session, tav_http_get_status_text);
    result->final_url = shown_url(query_text(session, tav_http_get_current_url));
    result->location = shown_url(query_header(session, "Location"));
    result->retry_after = query_header(session, "Retry-After");
    result->date = query_header(session, "Date");
    result->disposition = query_header(session, "Content-Disposition");
    result->file = left_file(item, session, result->code);
    if (item.target.kind == TARGET_NONE) {
        result->headers = query_raw_headers(session);
    }
    if (item.target.kind == TARGET_MEMORY && result->code == 0) {
        result->body = query_memory_body(session);
    }
    if (item.args->md5 && result->code == 0 && !item.args->head) {
        result->md5 = query_md5(session);
    }
}

// What the callbacks left in the transfer.
static void read_transfer(transfer* item, transfer_result* result) {
    std::lock_guard<std::mutex> guard(item->lock);
    result->verdict = result->code == TAV_HTTP_ERROR_CODE_CANCEL ? item->verdict : VERDICT_NONE;
    result->in_handshake = item->connecting_https;
    // A file that is longer than the resource has been fetched anew.
    result->resumed_from = item->resume_from > 0 ? item->body_start : 0;
    result->position = item->progress.received;
    result->validator = item->received_validator;
    result->silent_milliseconds =
        1000 * seconds_between(item->last_byte, std::chrono::steady_clock::now());
    result->connect_seconds = seconds_between(item->started, item->connected);
    result->first_byte_seconds = seconds_between(item->started, item->first_byte);
    result->total_seconds = seconds_between(item->started, std::chrono::steady_clock::now());
}

transfer_result finish_transfer(transfer* item, uint32_t code) {
    transfer_result result;
    result.code = code;
    read_transfer(item, &result);
    result.failure = item->failure;
    if (item->session != nullptr) {
        read_session(*item, item->session, &result);
        if (result.verdict == VERDICT_COMPLETE) {
            result.resumed_from = item->resume_from;
            result.bytes = 0;  // those of the page that said so
        }
        // The result of a close says whether the release was handed over; there is nothing to do
        // about it when it was not.
        tavHTTPClose(item->session);
        item->session = nullptr;
    }
    explain_verdict(&result, item->args->io_timeout > 0 ? item->args->io_timeout : IO_TIMEOUT);
    return result;
}

transfer_result interrupted_result(transfer* item) {
    transfer_result result;
    result.code = TAV_HTTP_ERROR_CODE_CANCEL;
    read_transfer(item, &result);
    result.verdict = VERDICT_NONE;
    return result;
}

// "" when the body has no such digest.
static std::string received_digest(const transfer& item, const transfer_result& result) {
    const std::string& algorithm = item.args->checksum->algorithm;
    if (item.target.kind == TARGET_MEMORY) {
        checksum sum = begin_checksum(algorithm);
        add_to_checksum(sum, result.body.data(), result.body.size());
        return finish_checksum(sum);
    }
    if (item.target.kind == TARGET_STREAM) {
        return finish_checksum(item.stream_sum);
    }
    return checksum_of_file(algorithm,
                            item.target.kind == TARGET_FILE ? item.target.working : result.file);
}

static void check_digest(const transfer& item, transfer_result* result) {
    if (!item.args->checksum || result->code == TAV_HTTP_ERROR_CODE_NOT_MODIFIED) {
        return;
    }
    std::string digest = received_digest(item, *result);
    if (digest != item.args->checksum->digest) {
        result->failure = {EXIT_CHECKSUM, "the " + item.args->checksum->algorithm + " is " +
                                              digest + ", not the one of --checksum"};
        result->body.clear();
    }
}

static void settle_file(transfer* item, transfer_result* result) {
    transfer_target* target = &item->target;
    if (item->args->remote_time && result->last_modified > 0) {
        set_file_time(target->working, result->last_modified);
    }
    std::string name =
        item->args->content_disposition ? name_of_disposition(result->disposition) : "";
    std::string complaint = settle_target(target, name);
    if (complaint.empty()) {
        result->file = target->path;
    } else {
        result->failure = {EXIT_FILE, complaint};
    }
}

void settle_transfer(transfer* item, transfer_result* result) {
    transfer_target* target = &item->target;
    std::error_code ignored;
    if (is_success(*result)) {
        check_digest(*item, result);
    }
    if (target->kind == TARGET_FILE) {
        result->file.clear();
        if (is_success(*result) && fs::exists(fs::u8path(target->working), ignored)) {
            settle_file(item, result);
        }
        // In place there may be a part that another run goes on with.
        if (target->folder.empty() && fs::exists(fs::u8path(target->path), ignored)) {
            result->file = target->path;
        }
    } else if (target->kind == TARGET_AUTO_FILE && !is_success(*result)) {
        fs::remove(fs::u8path(result->file), ignored);
        result->file.clear();
    }
    if (!close_target(target) && is_success(*result)) {
        result->failure = {EXIT_FILE, "the output could not be written"};
    }
}
