// The request head, and what of the body its lengths depend on. Built anew by every send.
//
// _build_request_header: request line -> fixed lines -> range -> conditions -> cookies
//   -> host's lines -> body lines
#include "tavhttpclient/httprequest_head.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/upload_item.h"

enum {
    HEAD_CAPACITY = 512,
    BOUNDARY_LENGTH = 23,
    BOUNDARY_ALPHABET_SIZE = 64
};

static const char DEFAULT_USER_AGENT[] = "Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)";

// 63 characters; the last index gives the terminating zero, which ends a boundary early.
static const char boundary_alphabet[BOUNDARY_ALPHABET_SIZE] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0";

static uint32_t _session_id(const http_request* request) {
    return request->session != nullptr ? request->session->id : 0;
}

// ------------------------------------------------------------------------------ the fixed lines

// The path and the host that the lines name are those of the URL at this moment: redirects replace
// it between two builds.
static bool _refresh_url_parts(http_request* request) {
    free(request->host);
    free(request->path);
    free(request->target);
    request->host = nullptr;
    request->path = nullptr;
    request->target = nullptr;
    return analyze_url(request->url, nullptr, &request->host, nullptr, &request->path,
                       &request->target);
}

static const char* _method_word(uint32_t method) {
    switch (method) {
    case TAV_HTTP_METHOD_POST:
        return "POST";
    case TAV_HTTP_METHOD_HEAD:
        return "HEAD";
    case TAV_HTTP_METHOD_OPTIONS:
        return "OPTIONS";
    default:
        return "GET";
    }
}

// The configured method is written, not the effective one: an empty POST stays a POST to the
// server.
static bool _add_first_lines(const http_request* request, const http_options* options,
                             text_buffer* header) {
    bool own_host = request->redirect_count == 0 && !is_empty_text(options->host);
    return text_buffer_append_format(header, "%s %s %s\r\n", _method_word(options->method),
                                     request->target, "HTTP/1.1") &&
           text_buffer_append_format(header, "Host: %s\r\n",
                                     own_host ? options->host : request->host) &&
           text_buffer_append_format(header, "Accept: %s\r\n",
                                     is_empty_text(options->accept) ? "*/*" : options->accept) &&
           text_buffer_append_format(header, "User-Agent: %s\r\n",
                                     is_empty_text(options->user_agent) ? DEFAULT_USER_AGENT
                                                                        : options->user_agent) &&
           text_buffer_append_format(header, "Connection: %s\r\n",
                                     options->connection == 2 ? "Close" : "Keep-Alive") &&
           text_buffer_append_format(header, "Cache-Control: %s\r\n",
                                     options->cache_control != nullptr ? options->cache_control
                                                                       : "no-cache");
}

// Pieces of a file can only be joined when they are not compressed.
static bool _add_accept_encoding(const http_options* options, text_buffer* header) {
    bool compressed = options->range_start == 0 && options->range_end == 0 &&
                      options->resume == 0 && options->no_compression == 0;
    return text_buffer_append_format(header, "Accept-Encoding: %s\r\n",
                                     compressed ? "gzip, deflate" : "identity");
}

// ------------------------------------------------------------------------------ range

bool _add_header_field_range(text_buffer* buffer, int64_t start, int64_t end) {
    if (!LOG_ASSERT(buffer != nullptr)) {
        return false;
    }
    char first[24] = "";
    char last[24] = "";
    if (start >= 0 && end == -1) {
        int64_to_text(start, first);
    } else if (end < 0) {
        uint64_to_text(0 - (uint64_t)end, last);  // Holds for the smallest number too.
    } else {
        if (!LOG_ASSERT(start >= 0)) {
            return false;
        }
        int64_to_text(start, first);
        int64_to_text(end, last);
    }
    return text_buffer_append_format(buffer, "Range: bytes=%s-%s\r\n", first, last);
}

// A download that resumes asks for what lies behind the end of its file, whatever range was set.
static void _choose_range(http_request* request, const http_options* options) {
    request->range_start = 0;
    request->range_end = 0;
    if (options->resume == 0 || is_empty_text(options->download_file)) {
        request->range_start = options->range_start;
        request->range_end = options->range_end;
        return;
    }

    int64_t size = 0;
    if (tavhttp_file_size(options->download_file, &size) == 0 && size != 0) {
        char text[24];
        request->range_start = size;
        request->range_end = -1;
        LOG_INFO("_build_request_header, resume downloading, range=%s-", int64_to_text(size, text));
    }
}

static bool _add_range(http_request* request, const http_options* options, text_buffer* header) {
    _choose_range(request, options);
    if (request->range_start == 0 && request->range_end == 0) {
        return true;
    }
    if (!_add_header_field_range(header, request->range_start, request->range_end)) {
        char first[24];
        char last[24];
        LOG_ERROR("_build_request_header, invalid range value, range=%s-%s",
                  int64_to_text(request->range_start, first),
                  int64_to_text(request->range_end, last));
        return false;
    }
    return true;
}

// ------------------------------------------------------------------ conditions, cookies, own lines

static bool _add_conditions(const http_options* options, text_buffer* header) {
    if (options->if_modified_since != 0) {
        char* date = time_to_http_gmt_time(options->if_modified_since);
        bool ok =
            date == nullptr || text_buffer_append_format(header, "If-Modified-Since: %s\r\n", date);
        free(date);
        if (!ok) {
            return false;
        }
    }
    return options->if_none_match == nullptr ||
           text_buffer_append_format(header, "If-None-Match: %s\r\n", options->if_none_match);
}

static bool _add_cookies(const http_request* request, const http_options* options,
                         text_buffer* header) {
    const char* own = options->cookie.length > 0 ? options->cookie.data : nullptr;
    char* stored = nullptr;
    if (options->no_cookie_store == 0) {
        get_cookie(request->url, &stored);
    }
    char* merged = merge_cookie_text(own, stored);
    bool ok = merged != nullptr &&
              (merged[0] == '\0' || text_buffer_append_format(header, "Cookie: %s\r\n", merged));
    free(stored);
    free(merged);
    return ok;
}

static bool _add_own_lines(const http_options* options, text_buffer* header,
                           bool* has_content_type) {
    const list_link* head = &options->header_list;
    for (const list_link* link = head->next; link != head; link = link->next) {
        const header_entry* entry = (const header_entry*)link;
        if (!text_buffer_append_format(header, "%s: %s\r\n", entry->name, entry->value)) {
            return false;
        }
        if (_stricmp(entry->name, "Content-Type") == 0) {
            *has_content_type = true;
        }
    }
    return true;
}

// ------------------------------------------------------------------------------ body lines

static bool _add_content_length(text_buffer* header, int64_t length) {
    char text[24];
    return text_buffer_append_format(header, "Content-Length: %s\r\n", int64_to_text(length, text));
}

static bool _add_raw_body_lines(const http_request* request, bool has_content_type,
                                text_buffer* header, int64_t* length) {
    if (list_empty(&request->upload_item_list)) {
        return false;
    }
    const upload_item* item = (const upload_item*)request->upload_item_list.next;
    if (item->kind == UPLOAD_ITEM_DATA && item->data != nullptr) {
        *length = item->data->length;
    } else if (item->kind == UPLOAD_ITEM_FILE) {
        *length = item->file_size;
    } else {
        return false;
    }
    return (has_content_type ||
            text_buffer_append_format(header, "Content-Type: application/octet-stream\r\n")) &&
           _add_content_length(header, *length);
}

static bool _append_form_pair(text_buffer* form, const upload_item* item) {
    if (item->data == nullptr || item->data->data == nullptr) {
        return false;
    }
    char* name = url_char_escape(item->name);
    char* value = url_char_escape(item->data->data);
    bool ok = name != nullptr && value != nullptr &&
              text_buffer_append_format(form, form->length == 0 ? "%s=%s" : "&%s=%s", name, value);
    free(name);
    free(value);
    return ok;
}

// The fields become one text, and one item of that text takes their place.
static bool _add_form_body_lines(http_request* request, text_buffer* header, int64_t* length) {
    if (list_empty(&request->upload_item_list)) {
        return false;
    }
    request->form_body.length = 0;
    while (!list_empty(&request->upload_item_list)) {
        upload_item* field = (upload_item*)list_take_first(&request->upload_item_list);
        bool ok = _append_form_pair(&request->form_body, field);
        free_upload_item(field);
        if (!ok) {
            return false;
        }
    }

    upload_item* item = (upload_item*)calloc(1, sizeof(upload_item));
    if (item == nullptr) {
        return false;
    }
    item->kind = UPLOAD_ITEM_DATA;
    item->data = &request->form_body;
    list_append(&request->upload_item_list, &item->link);
    *length = request->form_body.length;
    return text_buffer_append_format(
               header, "Content-Type: application/x-www-form-urlencoded; charset=UTF-8\r\n") &&
           _add_content_length(header, *length);
}

static bool _fill_file_part_header(upload_item* item, const char* boundary, const char* file_name) {
    const char* announced =
        LOG_ASSERT_IN("_build_request_header", file_name != nullptr) ? file_name : "";
    return text_buffer_append_format(
        &item->part_header,
        "--%s\r\nContent-Disposition: form-data; name=\"%s\"; filename=\"%s\"\r\n"
        "Content-Type: application/octet-stream\r\n"
        "Content-Transfer-Encoding: binary\r\n\r\n",
        boundary, item->name, announced);
}

static bool _fill_part_header(upload_item* item, const char* boundary) {
    switch (item->kind) {
    case UPLOAD_ITEM_FORM_FIELD:
        return text_buffer_append_format(
            &item->part_header, "--%s\r\nContent-Disposition: form-data; name=\"%s\"\r\n\r\n",
            boundary, item->name);
    case UPLOAD_ITEM_FORM_FILE:
        return _fill_file_part_header(item, boundary, item->file_name);
    case UPLOAD_ITEM_FORM_DATA:
        return _fill_file_part_header(item, boundary, item->data_file_name);
    default:
        LOG_INFO("_build_request_header, unknown upload item type, type=%d", (int)item->kind);
        LOG_ASSERT_IN("_build_request_header", false);
        return false;
    }
}

// Content bytes of one part; an entry without storage has none.
static int64_t _part_content_length(const upload_item* item) {
    if (item->kind == UPLOAD_ITEM_FORM_FILE) {
        return item->file_size;
    }
    return item->data != nullptr ? item->data->length : 0;
}

static bool _fill_parts(http_request* request, int64_t* length) {
    int64_t total = 0;
    list_link* head = &request->upload_item_list;
    for (list_link* link = head->next; link != head; link = link->next) {
        upload_item* item = (upload_item*)link;
        item->part_header.length = 0;
        item->part_tailer.length = 0;
        if (!_fill_part_header(item, request->boundary) ||
            !text_buffer_append_format(&item->part_tailer, "\r\n")) {
            return false;
        }
        total += item->part_header.length + item->part_tailer.length + _part_content_length(item);
    }

    upload_item* last = (upload_item*)head->prev;
    *length = total + (int64_t)strlen(request->boundary) + 6;  // "--", "--" and the line's end
    return text_buffer_append_format(&last->part_tailer, "--%s--\r\n", request->boundary);
}

static bool _add_multipart_lines(http_request* request, text_buffer* header, int64_t* length) {
    if (list_empty(&request->upload_item_list)) {
        return false;
    }
    if (request->boundary == nullptr) {
        request->boundary = make_boundary();
    }
    return request->boundary != nullptr && _fill_parts(request, length) &&
           text_buffer_append_format(header, "Content-Type: multipart/form-data; boundary=%s\r\n",
                                     request->boundary) &&
           _add_content_length(header, *length);
}

static bool _add_body_lines(http_request* request, bool has_content_type, text_buffer* header,
                            int64_t* length) {
    switch (request->body_kind) {
    case BODY_RAW:
        return _add_raw_body_lines(request, has_content_type, header, length);
    case BODY_FORM_URLENCODED:
        return _add_form_body_lines(request, header, length);
    case BODY_MULTIPART:
        return _add_multipart_lines(request, header, length);
    default:
        return text_buffer_append_format(header, "Content-Type: application/octet-stream\r\n") &&
               _add_content_length(header, 0);
    }
}

// ------------------------------------------------------------------------------ the head

bool _build_request_header(http_request* request, http_options* options, text_buffer* header) {
    if (!LOG_ASSERT(request != nullptr && options != nullptr && header != nullptr)) {
        return false;
    }
    if (!text_buffer_reserve(header, HEAD_CAPACITY)) {
        return false;
    }
    header->length = 0;
    bool has_content_type = false;
    if (!_refresh_url_parts(request) || !_add_first_lines(request, options, header) ||
        !_add_accept_encoding(options, header) || !_add_range(request, options, header) ||
        !_add_conditions(options, header) || !_add_cookies(request, options, header) ||
        !_add_own_lines(options, header, &has_content_type)) {
        return false;
    }

    int64_t content_length = 0;
    if (options->method == TAV_HTTP_METHOD_POST &&
        !_add_body_lines(request, has_content_type, header, &content_length)) {
        return false;
    }
    if (!text_buffer_append_format(header, "\r\n")) {
        return false;
    }
    request->total_bytes = header->length + content_length;
    LOG_DETAIL("req header, id=%d \n%.*s", (int)_session_id(request), (int)header->length,
               header->data);
    return true;
}

char* make_boundary(void) {
    char* boundary = (char*)malloc(BOUNDARY_LENGTH + 1);
    if (boundary == nullptr) {
        return nullptr;
    }
    memcpy(boundary, "tav", 3);
    for (int i = 3; i < BOUNDARY_LENGTH; i++) {
        boundary[i] = boundary_alphabet[rand() % BOUNDARY_ALPHABET_SIZE];
    }
    boundary[BOUNDARY_LENGTH] = '\0';
    return boundary;
}
