// From the bytes of one response to the fields of http_response.
//
// parse_response_message -> http_parser_execute -> on_message_begin -> on_status
//   -> on_header_field, on_header_value -> _flush_pending_header -> _handle_response_header
//   -> on_headers_complete -> on_body -> on_message_complete
//
// One parser serves all chunks of a response, so a name, a value or a body piece may arrive cut at
// any byte. Everything here runs on the worker thread of the parse work.
#include "tavhttpclient/message_parser.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/response_record.h"

// Values of response_parser.header_state.
enum {
    HEADER_IDLE = 0,
    HEADER_NAME = 1,
    HEADER_VALUE = 2
};

// An encoding of bodies: its name, its value in http_response.content_encoding, its decoder.
struct encoding {
    const char* name;
    uint32_t value;
    bool (*decode)(content_decoder* decoder, const void* data, uint32_t length,
                   text_buffer* output);
};

enum {
    ENCODING_IDENTITY = 0
};

static const encoding encodings[] = {
    {"gzip", 1, decompress_gzip},
    {"deflate", 2, decompress_deflate},
};

// A callback's result that ends the parse; 1 has another meaning behind the head.
enum {
    STOP_PARSER = -1
};

// Headers whose values are kept beside the list of all lines.
enum {
    HEADER_CONNECTION = 8,
    HEADER_CONTENT_DISPOSITION = 10,
    HEADER_CONTENT_ENCODING = 11,
    HEADER_CONTENT_LENGTH = 14,
    HEADER_CONTENT_RANGE = 17,
    HEADER_TRANSFER_ENCODING = 18,
    HEADER_CONTENT_TYPE = 19,
    HEADER_ETAG = 24,
    HEADER_LAST_MODIFIED = 31,
    HEADER_LOCATION = 32,
    HEADER_SERVER = 40,
    HEADER_SET_COOKIE = 41,
    HEADER_UNKNOWN = -1
};

struct known_header {
    const char* name;
    uint32_t length;
    int32_t kind;
};

static const known_header known_response_headers[] = {
    {"ETag", 4, HEADER_ETAG},
    {"Server", 6, HEADER_SERVER},
    {"Location", 8, HEADER_LOCATION},
    {"Connection", 10, HEADER_CONNECTION},
    {"Set-Cookie", 10, HEADER_SET_COOKIE},
    {"Content-Type", 12, HEADER_CONTENT_TYPE},
    {"Content-Range", 13, HEADER_CONTENT_RANGE},
    {"Last-Modified", 13, HEADER_LAST_MODIFIED},
    {"Content-Length", 14, HEADER_CONTENT_LENGTH},
    {"Content-Encoding", 16, HEADER_CONTENT_ENCODING},
    {"Transfer-Encoding", 17, HEADER_TRANSFER_ENCODING},
    {"Content-Disposition", 19, HEADER_CONTENT_DISPOSITION},
};

static const char* _printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

// ------------------------------------------------------------------------ effects of one header

static int32_t _find_known_header(const char* name) {
    size_t length = strlen(name);
    for (const known_header& known : known_response_headers) {
        if (known.length == length && _strnicmp(known.name, name, length) == 0) {
            return known.kind;
        }
    }
    return HEADER_UNKNOWN;
}

// Hands the pending texts over to the list; they stay valid as long as the response does. False
// without memory: a head that lost a line must not pass as whole.
static bool _append_header(response_parser* parser, http_response* response) {
    if (response->header_list == nullptr || parser->pending_name[0] == 0) {
        return true;
    }
    response_header* header = (response_header*)calloc(1, sizeof(response_header));
    if (header == nullptr) {
        return false;
    }
    header->name = parser->pending_name;
    header->value = parser->pending_value;
    parser->pending_name = nullptr;
    parser->pending_value = nullptr;
    list_append(response->header_list, &header->link);
    return true;
}

// For headers that should come once; the last one wins.
static void _store_single_value(char** field, const char* value) {
    LOG_ASSERT_IN("_handle_response_header", *field == nullptr);
    string_replace(field, value);
}

static void _handle_content_encoding(http_response* response, const char* value) {
    for (const encoding& known : encodings) {
        if (_stricmp(value, known.name) == 0) {
            response->content_encoding = known.value;
        }
    }
}

static void _handle_content_length(const response_parser* parser, http_response* response) {
    // All bits set is the parser's way to say that it knows none.
    uint64_t length = parser->parser.content_length;
    response->content_length = length == UINT64_MAX ? 0 : length;
}

static uint32_t _handle_content_range(http_response* response, const char* value) {
    int64_t first = 0;
    int64_t last = 0;
    int64_t complete = 0;
    if (!parse_content_range(value, -1, &first, &last, &complete)) {
        return 1;
    }
    response->range_start = first;
    response->range_end = last;
    response->range_total = complete;
    return 0;
}

static void _handle_connection(http_response* response, const char* value) {
    char* text = string_dup(value);
    if (text == nullptr) {
        return;
    }
    int32_t keep_alive = 0;
    int32_t timeout = 0;
    int32_t max = 0;
    parse_connection_value(text, &keep_alive, &timeout, &max);
    free(text);

    response->connection_mode =
        keep_alive != 0 ? CONNECTION_MODE_KEEP_ALIVE : CONNECTION_MODE_CLOSE;
    if (keep_alive != 0) {
        response->keep_alive_timeout = timeout;
        response->keep_alive_max = max;
    }
}

static void _handle_last_modified(http_response* response, const char* value) {
    int64_t time = 0;
    bool parsed = parse_http_date(value, (int32_t)strlen(value), &time);
    response->last_modified = parsed ? time : 0;
}

static void _handle_location(http_response* response, const char* value) {
    const char* current = response->request_url;
    char* location = nullptr;
    if (is_absolute_url(value)) {
        location = string_dup(value);
    } else if (strncmp(value, "//", 2) == 0) {
        location = make_scheme_relative_url(current, value);
    } else {
        location = resolve_relative_url(current, value);
    }
    LOG_ASSERT_IN("_handle_response_header", response->location == nullptr);
    free(response->location);
    response->location = location;
}

static void _handle_set_cookie(http_response* response, const char* value) {
    text_buffer* list = &response->set_cookie;
    int32_t length = (int32_t)strlen(value);
    int32_t needed = list->length + length + 2;
    // Room for all of it first, since a list that lost its end could not be walked; and for more,
    // since a server may send thousands.
    if (needed <= list->capacity || text_buffer_reserve(list, 2 * needed)) {
        if (list->length > 0) {
            text_buffer_set_length(list, list->length - 1);
        }
        text_buffer_append(list, value, (uint32_t)length);
        text_buffer_append(list, "\0", 2);
    }
    if (response->request_url != nullptr) {
        set_cookie_by_http_header(response->request_url, value);
    }
}

static void _handle_transfer_encoding(http_response* response, const char* value) {
    string_replace(&response->transfer_encoding, value);
    // Only the length counts: the framing is the parser's business.
    response->chunked = strlen(value) == strlen("chunked") ? 1 : 0;
}

// 1 for a Content-Range that cannot be read, else 0.
static uint32_t _handle_response_header(const response_parser* parser, http_response* response,
                                        const char* name, const char* value) {
    switch (_find_known_header(name)) {
    case HEADER_CONNECTION:
        _handle_connection(response, value);
        break;
    case HEADER_CONTENT_DISPOSITION:
        _store_single_value(&response->content_disposition, value);
        break;
    case HEADER_CONTENT_ENCODING:
        _handle_content_encoding(response, value);
        break;
    case HEADER_CONTENT_LENGTH:
        _handle_content_length(parser, response);
        break;
    case HEADER_CONTENT_RANGE:
        return _handle_content_range(response, value);
    case HEADER_TRANSFER_ENCODING:
        _handle_transfer_encoding(response, value);
        break;
    case HEADER_CONTENT_TYPE:
        _store_single_value(&response->content_type, value);
        break;
    case HEADER_ETAG:
        _store_single_value(&response->etag, value);
        break;
    case HEADER_LAST_MODIFIED:
        _handle_last_modified(response, value);
        break;
    case HEADER_LOCATION:
        _handle_location(response, value);
        break;
    case HEADER_SERVER:
        string_replace(&response->server, value);
        break;
    case HEADER_SET_COOKIE:
        _handle_set_cookie(response, value);
        break;
    default:
        break;
    }
    return 0;
}

// ------------------------------------------------------------------- collecting names and values

static void _discard_pending_header(response_parser* parser) {
    free(parser->pending_name);
    free(parser->pending_value);
    parser->pending_name = nullptr;
    parser->pending_value = nullptr;
    parser->header_state = HEADER_IDLE;
}

// False without memory.
static bool _flush_pending_header(response_parser* parser, http_response* response) {
    const char* name = parser->pending_name;
    const char* value = parser->pending_value;
    bool ok = name != nullptr && value != nullptr && _append_header(parser, response);
    if (ok) {
        _handle_response_header(parser, response, name, value);
    }
    _discard_pending_header(parser);
    return ok;
}

// These two return what the parser's callbacks return: anything but 0 ends the parse, which is what
// must happen when memory for a piece of the head is missing.
static int _begin_piece(char** text, const char* piece, size_t length) {
    *text = string_dup_n(piece, (int32_t)length);
    return *text != nullptr ? 0 : STOP_PARSER;
}

static int _append_piece(char** text, const char* piece, size_t length) {
    char* joined = string_format("%s%.*s", *text != nullptr ? *text : "", (int)length, piece);
    free(*text);
    *text = joined;
    return joined != nullptr ? 0 : STOP_PARSER;
}

// ----------------------------------------------------------------------- the parser's callbacks

static http_response* _response_of(http_parser* state) {
    return (http_response*)state->data;
}

// False: the response is refused.
static bool _count_header_bytes(http_response* response, size_t count) {
    response_parser* parser = response->parser;
    if (count <= MAX_HEADER_BYTES - parser->header_bytes) {
        parser->header_bytes += (uint32_t)count;
        return true;
    }
    LOG_INFO("parse_response_message, too many header bytes, id=%u, limit=%d", response->session_id,
             MAX_HEADER_BYTES);
    return false;
}

static int on_nothing(http_parser* state) {
    (void)state;
    return 0;
}

static int on_message_begin(http_parser* state) {
    http_response* response = _response_of(state);
    if (!_count_header_bytes(response, MIN_LINE_BYTES)) {
        return STOP_PARSER;
    }
    response->recv_state = RECV_BEGUN;
    if (response->header_list == nullptr) {
        response->header_list = (list_link*)calloc(1, sizeof(list_link));
        if (response->header_list != nullptr) {
            list_init(response->header_list);
        }
    }
    if (response->header_list == nullptr) {
        return STOP_PARSER;
    }
    // The trailer of a message before this one may have left a header behind.
    _discard_pending_header(response->parser);
    return 0;
}

static int on_status(http_parser* state, const char* piece, size_t length) {
    http_response* response = _response_of(state);
    if (!_count_header_bytes(response, length)) {
        return STOP_PARSER;
    }
    response->status_code = state->status_code;
    free(response->status_text);
    return _begin_piece(&response->status_text, piece, length);
}

static int _begin_name(response_parser* parser, const char* piece, size_t length) {
    _discard_pending_header(parser);
    parser->header_state = HEADER_NAME;
    return _begin_piece(&parser->pending_name, piece, length);
}

static int on_header_field(http_parser* state, const char* piece, size_t length) {
    http_response* response = _response_of(state);
    response_parser* parser = response->parser;
    if (!_count_header_bytes(response, length)) {
        return STOP_PARSER;
    }
    switch (parser->header_state) {
    case HEADER_IDLE:
        return _begin_name(parser, piece, length);
    case HEADER_NAME:
        return _append_piece(&parser->pending_name, piece, length);
    case HEADER_VALUE:
        return _flush_pending_header(parser, response) ? _begin_name(parser, piece, length)
                                                       : STOP_PARSER;
    default:
        LOG_INFO("on_header_field, invalid state, name=%s, value=%s, state=%d",
                 _printable(parser->pending_name), _printable(parser->pending_value),
                 (int32_t)parser->header_state);
        _discard_pending_header(parser);
        break;
    }
    return 0;
}

static int on_header_value(http_parser* state, const char* piece, size_t length) {
    http_response* response = _response_of(state);
    response_parser* parser = response->parser;
    bool is_new_line = parser->header_state != HEADER_VALUE;
    if (!_count_header_bytes(response, length + (is_new_line ? MIN_LINE_BYTES : 0))) {
        return STOP_PARSER;
    }
    switch (parser->header_state) {
    case HEADER_IDLE:
        _discard_pending_header(parser);
        break;
    case HEADER_NAME:
        parser->header_state = HEADER_VALUE;
        return _begin_piece(&parser->pending_value, piece, length);
    case HEADER_VALUE:
        return _append_piece(&parser->pending_value, piece, length);
    default:
        LOG_INFO("on_header_value, invalid state, name=%s, value=%s, state=%d",
                 _printable(parser->pending_name), _printable(parser->pending_value),
                 (int32_t)parser->header_state);
        _discard_pending_header(parser);
        break;
    }
    return 0;
}

static int on_headers_complete(http_parser* state) {
    http_response* response = _response_of(state);
    response_parser* parser = response->parser;
    if (parser->header_state == HEADER_VALUE) {
        if (!_flush_pending_header(parser, response)) {
            return STOP_PARSER;
        }
    } else {
        LOG_INFO("on_headers_complete, invalid state, name=%s, value=%s, state=%d",
                 _printable(parser->pending_name), _printable(parser->pending_value),
                 (int32_t)parser->header_state);
    }
    _discard_pending_header(parser);
    response->recv_state = RECV_HEADERS_DONE;
    return 0;
}

static uint32_t _append_raw_body(http_response* response, const char* piece, uint32_t length) {
    if (!text_buffer_append(&response->body_chunk, piece, length)) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    response->body_bytes += length;
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _append_decoded_body(http_response* response, const encoding* known,
                                     const char* piece, uint32_t length) {
    text_buffer* chunk = &response->body_chunk;
    int32_t before = chunk->length;
    if (known->decode(&response->decoder, piece, length, chunk)) {
        response->body_bytes += (uint64_t)(chunk->length - before);
        return TAV_HTTP_ERROR_CODE_OK;
    }
    // What a failing piece decoded to is in no count; the raw piece takes its place.
    text_buffer_set_length(chunk, before);
    if (response->keep_undecoded_body != 0) {
        return _append_raw_body(response, piece, length);
    }
    return TAV_HTTP_ERROR_CODE_FAIL_DECODE_CONTENT;
}

// Anything but 0 stops the parser.
static int on_body(http_parser* state, const char* piece, size_t length) {
    http_response* response = _response_of(state);
    response->recv_body_bytes += length;
    if (response->content_encoding == ENCODING_IDENTITY) {
        return (int)_append_raw_body(response, piece, (uint32_t)length);
    }
    for (const encoding& known : encodings) {
        if (known.value == response->content_encoding) {
            return (int)_append_decoded_body(response, &known, piece, (uint32_t)length);
        }
    }
    return TAV_HTTP_ERROR_CODE_CONTENT_ENCODING_NOT_SUPPORT;
}

static bool _is_over(const http_response* response) {
    return response->recv_state == RECV_COMPLETE && response->status_code / 100 != 1;
}

// The end of an interim response is followed by the next head. Behind the final one the parser is
// held, so that nothing more reaches the response.
static int on_message_complete(http_parser* state) {
    http_response* response = _response_of(state);
    response->recv_state = RECV_COMPLETE;
    if (_is_over(response)) {
        http_parser_pause(state, 1);
    }
    return 0;
}

static int on_surplus_message(http_parser* state) {
    _response_of(state)->has_surplus = 1;
    return 0;
}

// ------------------------------------------------------------------------------------ entry points

// In the order of the parser's record: message begin, URL, status, header field, header value,
// headers complete, body, message complete, chunk header, chunk complete.
static const http_parser_settings response_settings = {
    on_message_begin,    nullptr, on_status,           on_header_field, on_header_value,
    on_headers_complete, on_body, on_message_complete, on_nothing,      on_nothing,
};

// The bytes behind the final response belong to none. They must be those of HTTP messages all the
// same.
static const http_parser_settings surplus_settings = {
    on_surplus_message,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// Up to the blank line; when the chunk ends before it, all but the last three bytes.
static void _log_response_head(const char* data, uint32_t count) {
    uint32_t length = 0;
    while (length + 4 <= count && memcmp(data + length, "\r\n\r\n", 4) != 0) {
        length++;
    }
    LOG_INFO("rsp-header: %.*s\n", (int)length, data);
}

static bool _start_parser(http_response* response, const char* data, uint32_t count) {
    response->recv_state = RECV_NONE;
    response->parser = (response_parser*)calloc(1, sizeof(response_parser));
    if (response->parser == nullptr) {
        return false;
    }
    http_parser_init(&response->parser->parser, HTTP_RESPONSE);
    _log_response_head(data, count);
    return true;
}

bool parse_response_message(http_response* response, const char* data, uint32_t count) {
    if (response == nullptr || data == nullptr || count == 0) {
        return false;
    }
    if (response->parser == nullptr && !_start_parser(response, data, count)) {
        return false;
    }
    http_parser* state = &response->parser->parser;
    state->data = response;
    size_t consumed = 0;
    if (!_is_over(response)) {
        consumed = http_parser_execute(state, &response_settings, data, count);
    }
    if (HTTP_PARSER_ERRNO(state) == HPE_PAUSED) {
        http_parser_pause(state, 0);
    }
    if (_is_over(response) && consumed < count) {
        consumed +=
            http_parser_execute(state, &surplus_settings, data + consumed, count - consumed);
    }
    // A body callback that refuses the last bytes of a chunk stops a parser that has used them all.
    return consumed == count && HTTP_PARSER_ERRNO(state) == HPE_OK;
}

void free_response_parser(response_parser* parser) {
    if (parser == nullptr) {
        return;
    }
    _discard_pending_header(parser);
    free(parser);
}
