// What a session tells about its response. In callbacks and after the last one.
#ifndef EXAMPLES_TAVFETCH_QUERIES_H
#define EXAMPLES_TAVFETCH_QUERIES_H

#include <string>

#include "tavhttpclient/tavhttpclient_typed.h"

// What one of the getters of texts says, such as tav_http_get_status_text; empty without a value.
std::string query_text(http_session* session, uint32_t (*get)(http_session*, const char**));

// The first value of a response header; empty when there is none.
std::string query_header(http_session* session, const char* name);

// All response headers, a line each, as "name: value\r\n".
std::string query_raw_headers(http_session* session);

// 0 without a response.
uint32_t query_status(http_session* session);

// In hexadecimal; empty when it was not computed.
std::string query_md5(http_session* session);

std::string query_memory_body(http_session* session);

// The strong ETag of the response, else its Last-Modified; empty when it has neither.
std::string query_validator(http_session* session);

#endif
