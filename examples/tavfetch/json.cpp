// The outcome as a line of JSON.
#include <cmath>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "report.h"

using nlohmann::ordered_json;

static ordered_json text_or_null(const std::string& text) {
    return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

static ordered_json seconds_or_null(double seconds) {
    return seconds < 0 ? ordered_json(nullptr) : ordered_json(std::round(seconds * 1000) / 1000);
}

std::string json_line(const transfer& item, const transfer_result& result) {
    bool ok = is_success(result);
    bool has_code = result.failure.text.empty();
    uint32_t code = result.verdict == VERDICT_COMPLETE ? 0 : result.code;
    ordered_json line;
    line["url"] = item.url;
    line["final_url"] = text_or_null(result.final_url);
    line["ok"] = ok;
    line["status"] = result.status;
    line["bytes"] = result.bytes;
    line["resumed_from"] = result.resumed_from;
    line["retries"] = item.retries;
    line["connect_seconds"] = seconds_or_null(result.connect_seconds);
    line["first_byte_seconds"] = seconds_or_null(result.first_byte_seconds);
    line["total_seconds"] = seconds_or_null(result.total_seconds);
    line["peer"] = text_or_null(result.peer);
    line["file"] = text_or_null(result.file);
    line["md5"] = text_or_null(result.md5);
    line["code"] = has_code ? ordered_json(code) : ordered_json(nullptr);
    line["error"] = has_code ? ordered_json(code_name(code)) : ordered_json(nullptr);
    line["message"] = text_or_null(ok ? "" : explain_failure(result));
    // Servers send any bytes; JSON is UTF-8.
    return line.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}
