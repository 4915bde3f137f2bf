#include "queries.h"

#include <cstdio>

std::string query_text(http_session* session, uint32_t query) {
    const char* text = nullptr;
    if (tavHTTPQueryInfo(session, query, &text, nullptr, nullptr) != 0 || text == nullptr) {
        return "";
    }
    return text;
}

std::string query_header(http_session* session, const char* name) {
    int32_t length = 0;
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, (void*)name, nullptr, &length) != 0 ||
        length < 1) {
        return "";
    }
    std::string value((size_t)length, '\0');
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, (void*)name, &value[0], &length);
    value.resize((size_t)length - 1);
    return value;
}

std::string query_raw_headers(http_session* session) {
    int32_t length = 0;
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, nullptr, &length, nullptr) != 0) {
        return "";
    }
    std::string text((size_t)length, '\0');
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, &text[0], &length, nullptr);
    text.resize((size_t)length - 1);
    return text;
}

uint32_t query_status(http_session* session) {
    uint32_t status = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_STATUS_CODE, &status, nullptr, nullptr);
    return status;
}

std::string query_md5(http_session* session) {
    unsigned char digest[16];
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr) != 0) {
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
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, nullptr);
    return body == nullptr ? "" : std::string(body, (size_t)length);
}

std::string query_validator(http_session* session) {
    std::string etag = query_header(session, "ETag");
    return !etag.empty() && etag[0] == '"' ? etag : query_header(session, "Last-Modified");
}
