// tavHTTPSetOption: what the host puts into a session before it is sent.
#include "tavhttpclient/httpoption.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/upload_item.h"

enum {
    FORMATTED_VALUE_CAPACITY = 128
};

// ----------------------------------------------------------------------------- option record

http_options* new_http_options(void) {
    http_options* options = (http_options*)calloc(1, sizeof(http_options));
    if (options == nullptr) {
        return nullptr;
    }
    options->priority = TAV_HTTP_PRIORITY_NORMAL;
    list_init(&options->header_list);
    list_init(&options->form_list);
    return options;
}

static void _free_header_entry(header_entry* entry) {
    free(entry->name);
    free(entry->value);
    free(entry);
}

static void _free_lists(http_options* options) {
    list_link* link = options->header_list.next;
    while (link != &options->header_list) {
        header_entry* entry = (header_entry*)link;
        link = link->next;
        _free_header_entry(entry);
    }
    link = options->form_list.next;
    while (link != &options->form_list) {
        upload_item* entry = (upload_item*)link;
        link = link->next;
        free_upload_item(entry);
    }
}

void free_http_options(http_options* options) {
    if (options == nullptr) {
        return;
    }
    free(options->url);
    free_proxy_info(options->proxy);
    free(options->if_none_match);
    free(options->accept);
    free(options->user_agent);
    free(options->host);
    free(options->cache_control);
    free(options->download_file);
    free(options->tls_host_name);
    free(options->upload_file);
    text_buffer_release(&options->cookie);
    text_buffer_release(&options->body);
    _free_lists(options);
    free(options);
}

// ----------------------------------------------------------------------------- small setters

static uint32_t _replace_text(char** field, const char* text) {
    string_replace(field, text);
    return text == nullptr || *field != nullptr ? TAV_HTTP_ERROR_CODE_OK
                                                : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

// For texts of which an empty one means the same as none.
static uint32_t _replace_or_clear(char** field, const char* text) {
    return _replace_text(field, is_empty_text(text) ? nullptr : text);
}

// A null format leaves an empty, terminated text: its storage marks a form field as such.
static bool _format_value(text_buffer* value, const char* format, va_list arguments) {
    return text_buffer_init(value, FORMATTED_VALUE_CAPACITY) &&
           (format != nullptr ? text_buffer_append_vformat(value, format, arguments)
                              : text_buffer_append_format(value, "%s", ""));
}

// The part of a path behind its last separator or drive colon.
static const char* _base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; p++) {
        if (*p == '/' || *p == '\\' || *p == ':') {
            base = p + 1;
        }
    }
    return base;
}

// New entry with a copy of `name`; null without memory.
static upload_item* _new_form_entry(const char* name) {
    upload_item* item = (upload_item*)calloc(1, sizeof(upload_item));
    if (item == nullptr) {
        return nullptr;
    }
    list_init(&item->link);
    item->name = string_dup(name);
    if (item->name == nullptr) {
        free(item);
        return nullptr;
    }
    return item;
}

// Appends a complete entry; an incomplete one is freed, so that no form goes out without a part.
static uint32_t _finish_form_entry(http_options* options, upload_item* item, bool complete) {
    if (!complete) {
        free_upload_item(item);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    list_append(&options->form_list, &item->link);
    return TAV_HTTP_ERROR_CODE_OK;
}

// ------------------------------------------------------------- options with more to them

static uint32_t _add_header(http_options* options, va_list* arguments) {
    const char* name = va_arg(*arguments, const char*);
    const char* format = va_arg(*arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    text_buffer value = {};
    header_entry* entry = (header_entry*)calloc(1, sizeof(header_entry));
    if (entry == nullptr || !_format_value(&value, format, *arguments)) {
        free(entry);
        text_buffer_release(&value);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    entry->name = string_dup(name);
    entry->value = string_dup(value.data);
    entry->enabled = 1;
    text_buffer_release(&value);
    if (entry->name == nullptr || entry->value == nullptr) {
        _free_header_entry(entry);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    list_append(&options->header_list, &entry->link);
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _add_form_field(http_options* options, va_list* arguments) {
    const char* name = va_arg(*arguments, const char*);
    const char* format = va_arg(*arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    upload_item* item = _new_form_entry(name);
    bool complete = item != nullptr && _format_value(&item->form_value, format, *arguments);
    return _finish_form_entry(options, item, complete);
}

static uint32_t _add_form_file(http_options* options, va_list* arguments) {
    const char* name = va_arg(*arguments, const char*);
    const char* path = va_arg(*arguments, const char*);
    const char* announced = va_arg(*arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    path = path != nullptr ? path : "";
    upload_item* item = _new_form_entry(name);
    bool complete = false;
    if (item != nullptr) {
        item->form_path = string_dup(path);
        item->file_name = string_dup(is_empty_text(announced) ? _base_name(path) : announced);
        complete = item->form_path != nullptr && item->file_name != nullptr;
    }
    return _finish_form_entry(options, item, complete);
}

static uint32_t _add_form_data(http_options* options, va_list* arguments) {
    const char* name = va_arg(*arguments, const char*);
    const void* bytes = va_arg(*arguments, const void*);
    int32_t length = va_arg(*arguments, int32_t);
    const char* announced = va_arg(*arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    uint32_t count = bytes != nullptr && length > 0 ? (uint32_t)length : 0;
    upload_item* item = _new_form_entry(name);
    bool complete = false;
    if (item != nullptr) {
        item->data_file_name = string_dup(announced != nullptr ? announced : "");
        // Empty data has storage too: without it the entry would count as one without a value.
        complete =
            item->data_file_name != nullptr && text_buffer_init(&item->form_data, count + 1) &&
            item->form_data.data != nullptr && text_buffer_append(&item->form_data, bytes, count);
    }
    return _finish_form_entry(options, item, complete);
}

static uint32_t _append_body(http_options* options, va_list* arguments) {
    const void* bytes = va_arg(*arguments, const void*);
    uint32_t count = va_arg(*arguments, uint32_t);
    return text_buffer_append(&options->body, bytes, count) ? TAV_HTTP_ERROR_CODE_OK
                                                            : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

static uint32_t _set_download_file(http_options* options, va_list* arguments) {
    uint32_t result = _replace_or_clear(&options->download_file, va_arg(*arguments, const char*));
    options->download_to_file = options->download_file != nullptr ? 1 : 0;
    return result;
}

static uint32_t _set_download_to_file(http_options* options, va_list* arguments) {
    string_replace(&options->download_file, nullptr);
    options->download_to_file = va_arg(*arguments, uint32_t) != 0 ? 1 : 0;
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _set_cookie_text(http_options* options, va_list* arguments) {
    const char* text = va_arg(*arguments, const char*);
    if (is_empty_text(text)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    options->cookie.length = 0;
    return text_buffer_append_format(&options->cookie, "%s", text)
               ? TAV_HTTP_ERROR_CODE_OK
               : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

static uint32_t _set_priority(http_options* options, va_list* arguments) {
    int32_t priority = va_arg(*arguments, int32_t);
    bool known = priority == TAV_HTTP_PRIORITY_LOW || priority == TAV_HTTP_PRIORITY_NORMAL ||
                 priority == TAV_HTTP_PRIORITY_HIGH;
    options->priority =
        LOG_ASSERT_IN("tavHTTPSetOption", known) ? priority : TAV_HTTP_PRIORITY_NORMAL;
    return TAV_HTTP_ERROR_CODE_OK;
}

// Without memory the old proxy stays: a session must not go past the one it was given.
static uint32_t _set_proxy(http_options* options, va_list* arguments) {
    const proxy_info* proxy = va_arg(*arguments, const proxy_info*);
    proxy_info* copy = copy_proxy_info(proxy);
    if (proxy != nullptr && copy == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    free_proxy_info(options->proxy);
    options->proxy = copy;
    return TAV_HTTP_ERROR_CODE_OK;
}

struct option_setter {
    uint32_t id;
    uint32_t (*set)(http_options* options, va_list* arguments);
};

static const option_setter option_setters[] = {
    {TAV_HTTP_OPTION_DOWNLOAD_FILE, _set_download_file},
    {TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, _set_download_to_file},
    {TAV_HTTP_OPTION_COOKIE, _set_cookie_text},
    {TAV_HTTP_OPTION_ADD_HEADER, _add_header},
    {TAV_HTTP_OPTION_ADD_FORM_FIELD, _add_form_field},
    {TAV_HTTP_OPTION_ADD_FORM_FILE, _add_form_file},
    {TAV_HTTP_OPTION_APPEND_BODY, _append_body},
    {TAV_HTTP_OPTION_ADD_FORM_DATA, _add_form_data},
    {TAV_HTTP_OPTION_PRIORITY, _set_priority},
    {TAV_HTTP_OPTION_PROXY, _set_proxy},
};

// ------------------------------------------------------------ options that are stored as they are

enum option_kind {
    OPTION_NUMBER,         // 32 bits, signed or not
    OPTION_SWITCH,         // 32 bits, stored as 0 or 1
    OPTION_LONG,           // 64 bits
    OPTION_TEXT,           // copied; null: none
    OPTION_NONEMPTY_TEXT,  // copied; null or empty: none
    OPTION_CALLBACK        // stored in the session
};

// An id with several values has one row for each, in their order.
struct option_row {
    uint32_t id;
    option_kind kind;
    size_t place;    // in the options; a callback's: in the session
    uint32_t limit;  // a greater number counts as 0; 0: none
};

#define IN_OPTIONS(field) offsetof(http_options, field)
#define IN_SESSION(field) offsetof(http_session, field)

static const option_row option_rows[] = {
    {TAV_HTTP_OPTION_NO_REDIRECT, OPTION_SWITCH, IN_OPTIONS(no_redirect), 0},
    {TAV_HTTP_OPTION_2, OPTION_NUMBER, IN_OPTIONS(option_2), 0},
    {TAV_HTTP_OPTION_CONNECT_TIMEOUT, OPTION_NUMBER, IN_OPTIONS(connect_timeout), 0},
    {TAV_HTTP_OPTION_IO_TIMEOUT, OPTION_NUMBER, IN_OPTIONS(io_timeout), 0},
    {TAV_HTTP_OPTION_SESSION_TIMEOUT, OPTION_NUMBER, IN_OPTIONS(session_timeout), 0},
    {TAV_HTTP_OPTION_RANGE, OPTION_LONG, IN_OPTIONS(range_start), 0},
    {TAV_HTTP_OPTION_RANGE, OPTION_LONG, IN_OPTIONS(range_end), 0},
    {TAV_HTTP_OPTION_IF_MODIFIED_SINCE, OPTION_LONG, IN_OPTIONS(if_modified_since), 0},
    {TAV_HTTP_OPTION_IF_NONE_MATCH, OPTION_NONEMPTY_TEXT, IN_OPTIONS(if_none_match), 0},
    {TAV_HTTP_OPTION_ACCEPT, OPTION_TEXT, IN_OPTIONS(accept), 0},
    {TAV_HTTP_OPTION_USER_AGENT, OPTION_NONEMPTY_TEXT, IN_OPTIONS(user_agent), 0},
    {TAV_HTTP_OPTION_CONNECTION, OPTION_NUMBER, IN_OPTIONS(connection), 2},
    {TAV_HTTP_OPTION_NO_COOKIE_STORE, OPTION_SWITCH, IN_OPTIONS(no_cookie_store), 0},
    {TAV_HTTP_OPTION_NO_COMPRESSION, OPTION_SWITCH, IN_OPTIONS(no_compression), 0},
    {TAV_HTTP_OPTION_RESUME, OPTION_SWITCH, IN_OPTIONS(resume), 0},
    {TAV_HTTP_OPTION_BODY_MD5, OPTION_SWITCH, IN_OPTIONS(body_md5), 0},
    {TAV_HTTP_OPTION_KEEP_ERROR_BODY, OPTION_SWITCH, IN_OPTIONS(keep_error_body), 0},
    {TAV_HTTP_OPTION_TLS_HOST_NAME, OPTION_NONEMPTY_TEXT, IN_OPTIONS(tls_host_name), 0},
    {TAV_HTTP_OPTION_HOST, OPTION_NONEMPTY_TEXT, IN_OPTIONS(host), 0},
    {TAV_HTTP_OPTION_CACHE_CONTROL, OPTION_NONEMPTY_TEXT, IN_OPTIONS(cache_control), 0},
    {TAV_HTTP_OPTION_UPLOAD_FILE, OPTION_TEXT, IN_OPTIONS(upload_file), 0},
    {TAV_HTTP_OPTION_NO_REUSE, OPTION_NUMBER, IN_OPTIONS(no_reuse), 0},
    {TAV_HTTP_OPTION_QUEUE_FIFO, OPTION_NUMBER, IN_OPTIONS(queue_fifo), 0},
    {TAV_HTTP_OPTION_KEEP_ALIVE, OPTION_NUMBER, IN_OPTIONS(keep_connection), 0},
    {TAV_HTTP_OPTION_KEEP_ALIVE, OPTION_NUMBER, IN_OPTIONS(keep_alive_timeout), 0},
    {TAV_HTTP_OPTION_KEEP_ALIVE, OPTION_NUMBER, IN_OPTIONS(keep_alive_max), 0},
    {TAV_HTTP_OPTION_HIDE_URL, OPTION_NUMBER, IN_OPTIONS(hide_url), 0},
    {TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, OPTION_NUMBER, IN_OPTIONS(keep_undecoded_body), 0},
    // Hosts rely on the second value.
    {TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, OPTION_SWITCH, IN_OPTIONS(no_cookie_store), 0},
    {TAV_HTTP_OPTION_CONNECTING_CALLBACK, OPTION_CALLBACK, IN_SESSION(connecting_cb), 0},
    {TAV_HTTP_OPTION_CONNECTED_CALLBACK, OPTION_CALLBACK, IN_SESSION(connected_cb), 0},
    {TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, OPTION_CALLBACK, IN_SESSION(download_start_cb), 0},
    {TAV_HTTP_OPTION_REDIRECT_CALLBACK, OPTION_CALLBACK, IN_SESSION(redirect_cb), 0},
    {TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, OPTION_CALLBACK, IN_SESSION(download_data_cb), 0},
    {TAV_HTTP_OPTION_COMPLETE_CALLBACK, OPTION_CALLBACK, IN_SESSION(complete_cb), 0},
    {TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, OPTION_CALLBACK, IN_SESSION(upload_progress_cb), 0},
    {TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, OPTION_CALLBACK, IN_SESSION(response_header_cb), 0},
};

#undef IN_OPTIONS
#undef IN_SESSION

static uint32_t _store_value(http_session* session, const option_row* row, va_list* arguments) {
    char* place = (char*)session->options + row->place;
    uint32_t number = 0;
    switch (row->kind) {
    case OPTION_NUMBER:
        number = va_arg(*arguments, uint32_t);
        *(uint32_t*)place = row->limit != 0 && number > row->limit ? 0 : number;
        break;
    case OPTION_SWITCH:
        *(uint32_t*)place = va_arg(*arguments, uint32_t) != 0 ? 1 : 0;
        break;
    case OPTION_LONG:
        *(int64_t*)place = va_arg(*arguments, int64_t);
        break;
    case OPTION_TEXT:
        return _replace_text((char**)place, va_arg(*arguments, const char*));
    case OPTION_NONEMPTY_TEXT:
        return _replace_or_clear((char**)place, va_arg(*arguments, const char*));
    case OPTION_CALLBACK:
        // Pointers to functions have one size, whatever the functions' types.
        void (*callback)(void) = va_arg(*arguments, void (*)(void));
        memcpy((char*)session + row->place, &callback, sizeof(callback));
        break;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _set_option(http_session* session, uint32_t option, va_list* arguments) {
    for (const option_setter& setter : option_setters) {
        if (setter.id == option) {
            return setter.set(session->options, arguments);
        }
    }
    uint32_t result = TAV_HTTP_ERROR_CODE_INVALID_ARG;
    for (const option_row& row : option_rows) {
        if (row.id == option) {
            result = _store_value(session, &row, arguments);
        }
    }
    return result;
}

uint32_t tavHTTPSetOption(http_session* session, uint32_t option, ...) {
    if (session == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    if (session->options == nullptr) {
        session->options = new_http_options();
        if (session->options == nullptr) {
            return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
        }
        session->options->session = session;
    }

    va_list arguments;
    va_start(arguments, option);
    uint32_t result = _set_option(session, option, &arguments);
    va_end(arguments);
    return result;
}
