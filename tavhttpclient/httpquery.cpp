// tavHTTPQueryInfo: what the host reads from a session when it is over.
//
// It takes no lock: results are read when no step runs.
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/response_record.h"
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

static uint32_t _query_memory_body(http_response* response, void* out1, void* out2) {
    if (out2 != nullptr) {
        *(int32_t*)out2 = response->memory_body.length;
    }
    if (out1 != nullptr) {
        *(const char**)out1 = response->memory_body.data;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _query_md5(http_response* response, void* output) {
    if (output == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    memcpy(output, response->md5_digest, MD5_DIGEST_SIZE);
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _query_peer_address(const http_session* session, void* output) {
    if (output == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    sockaddr_to_text((const struct sockaddr*)&session->peer_address, (char*)output);
    return TAV_HTTP_ERROR_CODE_OK;
}

// The queries that copy one field, of `size` bytes, to out1.
struct query_row {
    uint32_t id;
    size_t record;  // where the session has its pointer to the record
    size_t place;   // in the record
    size_t size;
};

#define FIELD(member, record, field)                                                               \
    offsetof(http_session, member), offsetof(record, field), sizeof(((record*)nullptr)->field)
#define IN_OPTIONS(field) FIELD(options, http_options, field)
#define IN_REQUEST(field) FIELD(request, http_request, field)
#define IN_RESPONSE(field) FIELD(response, http_response, field)

static const query_row query_rows[] = {
    {TAV_HTTP_QUERY_STATUS_CODE, IN_RESPONSE(status_code)},
    {TAV_HTTP_QUERY_STATUS_TEXT, IN_RESPONSE(status_text)},
    {TAV_HTTP_QUERY_OPTION_RANGE_START, IN_OPTIONS(range_start)},
    {TAV_HTTP_QUERY_OPTION_RANGE_END, IN_OPTIONS(range_end)},
    {TAV_HTTP_QUERY_FILE_PATH, IN_RESPONSE(file_path)},
    {TAV_HTTP_QUERY_7, IN_RESPONSE(unset_time)},
    {TAV_HTTP_QUERY_SET_COOKIE, IN_RESPONSE(set_cookie.data)},
    {TAV_HTTP_QUERY_CONTENT_LENGTH, IN_RESPONSE(content_length)},
    {TAV_HTTP_QUERY_URL, IN_OPTIONS(url)},
    {TAV_HTTP_QUERY_CURRENT_URL, IN_REQUEST(url)},
    {TAV_HTTP_QUERY_RANGE_START, IN_RESPONSE(range_start)},
    {TAV_HTTP_QUERY_RANGE_END, IN_RESPONSE(range_end)},
    {TAV_HTTP_QUERY_RANGE_TOTAL, IN_RESPONSE(range_total)},
    {TAV_HTTP_QUERY_LAST_MODIFIED, IN_RESPONSE(last_modified)},
    {TAV_HTTP_QUERY_ETAG, IN_RESPONSE(etag)},
    {TAV_HTTP_QUERY_BODY_BYTES, IN_RESPONSE(body_bytes)},
    {TAV_HTTP_QUERY_CONTENT_ENCODING, IN_RESPONSE(content_encoding)},
};

static uint32_t _query_field(const http_session* session, const query_row* row, void* output) {
    const char* record = nullptr;
    memcpy(&record, (const char*)session + row->record, sizeof(record));
    if (record == nullptr) {
        return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
    }
    if (output != nullptr) {
        memcpy(output, record + row->place, row->size);
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _query_response(http_response* response, uint32_t query, void* out1, void* out2,
                                int32_t* length) {
    switch (query) {
    case TAV_HTTP_QUERY_MEMORY_BODY:
        return _query_memory_body(response, out1, out2);
    case TAV_HTTP_QUERY_RAW_HEADERS:
        return _query_raw_headers(response, (char*)out1, (int32_t*)out2);
    case TAV_HTTP_QUERY_HEADER:
        return _query_header(response, (const char*)out1, (char*)out2, length);
    case TAV_HTTP_QUERY_BODY_MD5:
        return _query_md5(response, out1);
    default:
        return _query_header_all(response, (const char*)out1, (char*)out2, length);
    }
}

uint32_t tavHTTPQueryInfo(http_session* session, uint32_t query, void* out1, void* out2,
                          int32_t* length) {
    if (session == nullptr || query < TAV_HTTP_QUERY_STATUS_CODE ||
        query > TAV_HTTP_QUERY_HEADER_ALL || query == 9) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    if (query == TAV_HTTP_QUERY_PEER_ADDRESS) {
        return _query_peer_address(session, out1);
    }
    for (const query_row& row : query_rows) {
        if (row.id == query) {
            return _query_field(session, &row, out1);
        }
    }
    if (session->response == nullptr) {
        return TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE;
    }
    return _query_response(session->response, query, out1, out2, length);
}
