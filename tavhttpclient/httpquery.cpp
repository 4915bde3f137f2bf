// tavHTTPQueryInfo: what the host reads from a session when it is over.
//
// It takes no lock: results are read when no step runs.
#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/session_record.h"

enum {
    RAW_HEADERS_CAPACITY = 512,
    // Returned by query 24 when the buffer is too small for all values; it has no name.
    QUERY_BUFFER_TOO_SMALL = 0x20007
};

// ----------------------------------------------------------------------- queries for headers

// The next header line of that name behind `from`, ignoring case; null at the end.
static response_header* _next_header(http_response* response, list_link* from, const char* name) {
    for (list_link* link = from->next; link != response->header_list; link = link->next) {
        response_header* header = (response_header*)link;
        if (header->name != nullptr && _stricmp(header->name, name) == 0) {
            return header;
        }
    }
    return nullptr;
}

// Whatever the length says: a buffer that is given has room for the zero.
static void _store_empty_text(char* buffer) {
    if (buffer != nullptr) {
        buffer[0] = '\0';
    }
}

static uint32_t _header_not_found(int32_t* length) {
    *length = 0;
    return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
}

// Query 10. A buffer that is too small is no error here: the length tells.
static uint32_t _query_raw_headers(http_response* response, char* buffer, int32_t* length) {
    _store_empty_text(buffer);
    if (length == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    text_buffer text = {};
    bool ok = text_buffer_init(&text, RAW_HEADERS_CAPACITY);
    list_link* head = response->header_list;
    for (list_link* link = head != nullptr ? head->next : head; link != head; link = link->next) {
        response_header* header = (response_header*)link;
        ok = ok && text_buffer_append_format(&text, "%s : %s\r\n",
                                             header->name != nullptr ? header->name : "",
                                             header->value != nullptr ? header->value : "");
    }
    ok = ok && text_buffer_append_format(&text, "\r\n");
    if (!ok) {
        text_buffer_release(&text);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }

    int32_t needed = text.length + 1;
    if (buffer != nullptr && *length >= needed) {
        memcpy(buffer, text.data, (size_t)needed);
    }
    *length = needed;
    text_buffer_release(&text);
    return TAV_HTTP_ERROR_CODE_OK;
}

// Query 19.
static uint32_t _query_header(http_response* response, const char* name, char* buffer,
                              int32_t* length) {
    _store_empty_text(buffer);
    if (is_empty_text(name) || length == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    response_header* header = nullptr;
    if (response->header_list != nullptr) {
        header = _next_header(response, response->header_list, name);
    }
    if (header == nullptr || header->value == nullptr) {
        return _header_not_found(length);
    }
    int32_t needed = (int32_t)strlen(header->value) + 1;
    if (buffer != nullptr && *length >= needed) {
        memcpy(buffer, header->value, (size_t)needed);
    }
    *length = needed;
    return TAV_HTTP_ERROR_CODE_OK;
}

// Query 24. Values that do not fit are left out, but counted; a shorter one behind a value that did
// not fit does not fit either, since the running total only grows.
static uint32_t _query_header_all(http_response* response, const char* name, char* buffer,
                                  int32_t* length) {
    _store_empty_text(buffer);
    if (is_empty_text(name) || length == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    int32_t given = *length;
    int32_t total = 0;
    bool found = false;
    list_link* link = response->header_list;
    while (link != nullptr) {
        response_header* header = _next_header(response, link, name);
        if (header == nullptr) {
            break;
        }
        found = true;
        link = &header->link;
        int32_t count = header->value != nullptr ? (int32_t)strlen(header->value) : 0;
        if (count == 0) {
            continue;
        }
        if (buffer != nullptr && total + count + 1 <= given) {
            memcpy(buffer + total, header->value, (size_t)count + 1);
        }
        total += count + 1;
    }
    if (!found) {
        return _header_not_found(length);
    }
    if (buffer != nullptr && total + 1 <= given) {
        buffer[total] = '\0';
    }
    *length = total + 1;
    return given < total + 1 ? (uint32_t)QUERY_BUFFER_TOO_SMALL : (uint32_t)TAV_HTTP_ERROR_CODE_OK;
}

// ------------------------------------------------------------------------------ other queries

static uint32_t _put_uint32(void* output, uint32_t value) {
    if (output != nullptr) {
        *(uint32_t*)output = value;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _put_int64(void* output, int64_t value) {
    if (output != nullptr) {
        *(int64_t*)output = value;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _put_uint64(void* output, uint64_t value) {
    if (output != nullptr) {
        *(uint64_t*)output = value;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _put_text(void* output, const char* value) {
    if (output != nullptr) {
        *(const char**)output = value;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _query_memory_body(http_response* response, void* out1, void* out2) {
    if (out2 != nullptr) {
        *(int32_t*)out2 = response->memory_body.length;
    }
    return _put_text(out1, response->memory_body.data);
}

static uint32_t _query_md5(http_response* response, void* output) {
    if (output == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    memcpy(output, response->md5_digest, MD5_DIGEST_SIZE);
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _query_response(http_response* response, uint32_t query, void* out1, void* out2,
                                int32_t* length) {
    switch (query) {
    case TAV_HTTP_QUERY_STATUS_CODE:
        return _put_uint32(out1, response->status_code);
    case TAV_HTTP_QUERY_STATUS_TEXT:
        return _put_text(out1, response->status_text);
    case TAV_HTTP_QUERY_MEMORY_BODY:
        return _query_memory_body(response, out1, out2);
    case TAV_HTTP_QUERY_FILE_PATH:
        return _put_text(out1, response->file_path);
    case TAV_HTTP_QUERY_7:
        return _put_int64(out1, response->unset_time);
    case TAV_HTTP_QUERY_SET_COOKIE:
        return _put_text(out1, response->set_cookie.data);
    case TAV_HTTP_QUERY_RAW_HEADERS:
        return _query_raw_headers(response, (char*)out1, (int32_t*)out2);
    case TAV_HTTP_QUERY_CONTENT_LENGTH:
        return _put_uint64(out1, response->content_length);
    case TAV_HTTP_QUERY_RANGE_START:
        return _put_int64(out1, response->range_start);
    case TAV_HTTP_QUERY_RANGE_END:
        return _put_int64(out1, response->range_end);
    case TAV_HTTP_QUERY_RANGE_TOTAL:
        return _put_int64(out1, response->range_total);
    case TAV_HTTP_QUERY_LAST_MODIFIED:
        return _put_int64(out1, response->last_modified);
    case TAV_HTTP_QUERY_ETAG:
        return _put_text(out1, response->etag);
    case TAV_HTTP_QUERY_HEADER:
        return _query_header(response, (const char*)out1, (char*)out2, length);
    case TAV_HTTP_QUERY_BODY_BYTES:
        return _put_uint64(out1, response->body_bytes);
    case TAV_HTTP_QUERY_CONTENT_ENCODING:
        return _put_uint32(out1, response->content_encoding);
    case TAV_HTTP_QUERY_BODY_MD5:
        return _query_md5(response, out1);
    case TAV_HTTP_QUERY_HEADER_ALL:
        return _query_header_all(response, (const char*)out1, (char*)out2, length);
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
}

// Ids 3, 4 and 12.
static uint32_t _query_options(const http_options* options, uint32_t query, void* out1) {
    if (options == nullptr) {
        return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
    }
    if (query == TAV_HTTP_QUERY_URL) {
        return _put_text(out1, options->url);
    }
    return _put_int64(out1, query == TAV_HTTP_QUERY_OPTION_RANGE_START ? options->range_start
                                                                       : options->range_end);
}

static uint32_t _query_peer_address(const http_session* session, void* output) {
    if (output == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    sockaddr_to_text((const struct sockaddr*)&session->peer_address, (char*)output);
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t tavHTTPQueryInfo(http_session* session, uint32_t query, void* out1, void* out2,
                          int32_t* length) {
    if (session == nullptr || query < TAV_HTTP_QUERY_STATUS_CODE ||
        query > TAV_HTTP_QUERY_HEADER_ALL || query == 9) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    switch (query) {
    case TAV_HTTP_QUERY_OPTION_RANGE_START:
    case TAV_HTTP_QUERY_OPTION_RANGE_END:
    case TAV_HTTP_QUERY_URL:
        return _query_options(session->options, query, out1);
    case TAV_HTTP_QUERY_CURRENT_URL:
        if (session->request == nullptr) {
            return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
        }
        return _put_text(out1, session->request->url);
    case TAV_HTTP_QUERY_PEER_ADDRESS:
        return _query_peer_address(session, out1);
    default:
        break;
    }
    if (session->response == nullptr) {
        return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
    }
    return _query_response(session->response, query, out1, out2, length);
}
