#include "trace.h"

#include <sstream>

#include "progress.h"
#include "queries.h"
#include "session_options.h"
#include "text.h"

static void trace_lines(const transfer& item, const char* mark, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = printable(trim(line));
        if (!line.empty()) {
            print_line(item.label + ": " + mark + " " + line);
        }
    }
}

void trace_connection(const transfer& item, const std::string& address) {
    if (item.args->verbose) {
        trace_lines(item, "*", "connected" + (address.empty() ? "" : " to " + address));
    }
}

void trace_request(const transfer& item, const char* data, size_t length) {
    if (item.args->verbose) {
        std::string text(data, length);
        trace_lines(item, ">", without_secrets(text.substr(0, text.find("\r\n\r\n"))));
    }
}

void trace_response(const transfer& item, http_session* session) {
    if (item.args->verbose) {
        trace_lines(item, "<",
                    "HTTP " + std::to_string(query_status(session)) + " " +
                        query_text(session, tav_http_get_status_text) + "\r\n" +
                        query_raw_headers(session));
    }
}

std::string without_secrets(const std::string& text) {
    std::string result;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(start, end - start);
        size_t colon = line.find(':');
        if (colon != std::string::npos && is_secret_header(line.substr(0, colon))) {
            line.replace(colon + 1, line.find_last_not_of("\r\n") - colon, " (not shown)");
        }
        result += line;
        start = end;
    }
    return result;
}
