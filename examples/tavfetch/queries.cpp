#include "queries.h"

#include <cstdio>

std::string query_text(http_session* session, uint32_t (*get)(http_session*, const char**)) {
    const char* text = nullptr;
    return get(session, &text) != 0 || text == nullptr ? "" : text;
}

std::string query_header(http_session* session, const char* name) {
    int32_t length = 0;
    if (tav_http_get_header(session, name, nullptr, &length) != 0 || length < 1) {
        return "";
    }
    std::string value((size_t)length, '\0');
    tav_http_get_header(session, name, &value[0], &length);
    value.resize((size_t)length - 1);
    return value;
}

std::string query_raw_headers(http_session* session) {
    int32_t length = 0;
    if (tav_http_get_raw_headers(session, nullptr, &length) != 0) {
        return "";
    }
    std::string text((size_t)length, '\0');
    tav_http_get_raw_headers(session, &text[0], &length);
    text.resize((size_t)length - 1);
    // The library puts a blank on each side of the colon; servers, and those who search, do not.
    for (size_t line = 0; line < text.size(); line = text.find('\n', line) + 1) {
        size_t colon = text.find(" : ", line);
        if (colon < text.find('\n', line)) {
            text.erase(colon, 1);
        }
    }
    return text;
}

uint32_t query_status(http_session* session) {
    uint32_t status = 0;
    tav_http_get_status_code(session, &status);
    return status;
}

std::string query_md5(http_session* session) {
    unsigned char digest[16];
    if (tav_http_get_body_md5(session, digest) != 0) {
        return "";
    }
    std::string text;
    for (unsigned char byte : digest) {
        char two[3];
        snprintf(two, sizeof(two), "%02x", byte);
        text += two;
    }
    return text;
}

std::string query_memory_body(http_session* session) {
    const char* body = nullptr;
    int32_t length = 0;
    tav_http_get_memory_body(session, &body, &length);
    return body == nullptr ? "" : std::string(body, (size_t)length);
}

std::string query_validator(http_session* session) {
    std::string etag = query_header(session, "ETag");
    return !etag.empty() && etag[0] == '"' ? etag : query_header(session, "Last-Modified");
}
