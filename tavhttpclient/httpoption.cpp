// tavHTTPSetOption: what the host puts into a session before it is sent.
#include "tavhttpclient/httpoption.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"

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

static uint32_t _as_switch(uint32_t value) {
    return value != 0 ? 1 : 0;
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

// Appends a complete entry; an incomplete one is dropped, so that no form goes out without a part.
static uint32_t _finish_form_entry(http_options* options, upload_item* item, bool complete) {
    if (!complete) {
        free_upload_item(item);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    list_append(&options->form_list, &item->link);
    return TAV_HTTP_ERROR_CODE_OK;
}

// ------------------------------------------------------------------------------ list options

static uint32_t _add_header(http_options* options, va_list arguments) {
    const char* name = va_arg(arguments, const char*);
    const char* format = va_arg(arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    text_buffer value = {};
    header_entry* entry = (header_entry*)calloc(1, sizeof(header_entry));
    if (entry == nullptr || !_format_value(&value, format, arguments)) {
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

static uint32_t _add_form_field(http_options* options, va_list arguments) {
    const char* name = va_arg(arguments, const char*);
    const char* format = va_arg(arguments, const char*);
    if (is_empty_text(name)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }

    upload_item* item = _new_form_entry(name);
    bool complete = item != nullptr && _format_value(&item->form_value, format, arguments);
    return _finish_form_entry(options, item, complete);
}

static uint32_t _add_form_file(http_options* options, va_list arguments) {
    const char* name = va_arg(arguments, const char*);
    const char* path = va_arg(arguments, const char*);
    const char* announced = va_arg(arguments, const char*);
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

static uint32_t _add_form_data(http_options* options, va_list arguments) {
    const char* name = va_arg(arguments, const char*);
    const void* bytes = va_arg(arguments, const void*);
    int32_t length = va_arg(arguments, int32_t);
    const char* announced = va_arg(arguments, const char*);
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

static uint32_t _append_body(http_options* options, va_list arguments) {
    const void* bytes = va_arg(arguments, const void*);
    uint32_t count = va_arg(arguments, uint32_t);
    return text_buffer_append(&options->body, bytes, count) ? TAV_HTTP_ERROR_CODE_OK
                                                            : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

// Ids 190 to 195.
static uint32_t _set_body_option(http_options* options, uint32_t option, va_list arguments) {
    switch (option) {
    case TAV_HTTP_OPTION_ADD_HEADER:
        return _add_header(options, arguments);
    case TAV_HTTP_OPTION_ADD_FORM_FIELD:
        return _add_form_field(options, arguments);
    case TAV_HTTP_OPTION_ADD_FORM_FILE:
        return _add_form_file(options, arguments);
    case TAV_HTTP_OPTION_APPEND_BODY:
        return _append_body(options, arguments);
    case TAV_HTTP_OPTION_UPLOAD_FILE:
        return _replace_text(&options->upload_file, va_arg(arguments, const char*));
    case TAV_HTTP_OPTION_ADD_FORM_DATA:
        return _add_form_data(options, arguments);
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
}

// ---------------------------------------------------------------------------- single options

// Ids 1 to 5.
static uint32_t _set_flow_option(http_options* options, uint32_t option, va_list arguments) {
    switch (option) {
    case TAV_HTTP_OPTION_NO_REDIRECT:
        options->no_redirect = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_2:
        options->option_2 = va_arg(arguments, uint32_t);
        break;
    case TAV_HTTP_OPTION_CONNECT_TIMEOUT:
        options->connect_timeout = va_arg(arguments, int32_t);
        break;
    case TAV_HTTP_OPTION_IO_TIMEOUT:
        options->io_timeout = va_arg(arguments, int32_t);
        break;
    case TAV_HTTP_OPTION_SESSION_TIMEOUT:
        options->session_timeout = va_arg(arguments, int32_t);
        break;
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _set_download_file(http_options* options, const char* path) {
    uint32_t result = _replace_or_clear(&options->download_file, path);
    options->download_to_file = options->download_file != nullptr ? 1 : 0;
    return result;
}

static uint32_t _set_cookie_text(http_options* options, const char* text) {
    if (is_empty_text(text)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    options->cookie.length = 0;
    return text_buffer_append_format(&options->cookie, "%s", text)
               ? TAV_HTTP_ERROR_CODE_OK
               : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

static uint32_t _connection_mode(uint32_t value) {
    return value == 1 || value == 2 ? value : 0;
}

// The ids from 101 to 117 whose value is a text.
static uint32_t _set_head_text(http_options* options, uint32_t option, va_list arguments) {
    const char* text = va_arg(arguments, const char*);
    switch (option) {
    case TAV_HTTP_OPTION_DOWNLOAD_FILE:
        return _set_download_file(options, text);
    case TAV_HTTP_OPTION_IF_NONE_MATCH:
        return _replace_or_clear(&options->if_none_match, text);
    case TAV_HTTP_OPTION_COOKIE:
        return _set_cookie_text(options, text);
    case TAV_HTTP_OPTION_ACCEPT:
        return _replace_text(&options->accept, text);
    case TAV_HTTP_OPTION_USER_AGENT:
        return _replace_or_clear(&options->user_agent, text);
    case TAV_HTTP_OPTION_TLS_HOST_NAME:
        return _replace_or_clear(&options->tls_host_name, text);
    case TAV_HTTP_OPTION_HOST:
        return _replace_or_clear(&options->host, text);
    case TAV_HTTP_OPTION_CACHE_CONTROL:
        return _replace_or_clear(&options->cache_control, text);
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
}

// Ids 101 to 117.
static uint32_t _set_head_option(http_options* options, uint32_t option, va_list arguments) {
    switch (option) {
    case TAV_HTTP_OPTION_DOWNLOAD_TO_FILE:
        string_replace(&options->download_file, nullptr);
        options->download_to_file = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_RANGE:
        options->range_start = va_arg(arguments, int64_t);
        options->range_end = va_arg(arguments, int64_t);
        break;
    case TAV_HTTP_OPTION_IF_MODIFIED_SINCE:
        options->if_modified_since = va_arg(arguments, int64_t);
        break;
    case TAV_HTTP_OPTION_CONNECTION:
        options->connection = _connection_mode(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_NO_COOKIE_STORE:
        options->no_cookie_store = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_NO_COMPRESSION:
        options->no_compression = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_RESUME:
        options->resume = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_BODY_MD5:
        options->body_md5 = _as_switch(va_arg(arguments, uint32_t));
        break;
    case TAV_HTTP_OPTION_KEEP_ERROR_BODY:
        options->keep_error_body = _as_switch(va_arg(arguments, uint32_t));
        break;
    default:
        return _set_head_text(options, option, arguments);
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static int32_t _checked_priority(int32_t priority) {
    bool known = priority == TAV_HTTP_PRIORITY_LOW || priority == TAV_HTTP_PRIORITY_NORMAL ||
                 priority == TAV_HTTP_PRIORITY_HIGH;
    return LOG_ASSERT_IN("tavHTTPSetOption", known) ? priority : TAV_HTTP_PRIORITY_NORMAL;
}

// Without memory the old proxy stays: a session must not go past the one it was given.
static uint32_t _set_proxy(http_options* options, const proxy_info* proxy) {
    proxy_info* copy = copy_proxy_info(proxy);
    if (proxy != nullptr && copy == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    free_proxy_info(options->proxy);
    options->proxy = copy;
    return TAV_HTTP_ERROR_CODE_OK;
}

// Ids 201 to 207.
static uint32_t _set_queue_option(http_options* options, uint32_t option, va_list arguments) {
    switch (option) {
    case TAV_HTTP_OPTION_PRIORITY:
        options->priority = _checked_priority(va_arg(arguments, int32_t));
        break;
    case TAV_HTTP_OPTION_NO_REUSE:
        options->no_reuse = va_arg(arguments, uint32_t);
        break;
    case TAV_HTTP_OPTION_PROXY:
        return _set_proxy(options, va_arg(arguments, const proxy_info*));
    case TAV_HTTP_OPTION_QUEUE_FIFO:
        options->queue_fifo = va_arg(arguments, uint32_t);
        break;
    case TAV_HTTP_OPTION_KEEP_ALIVE:
        options->keep_connection = va_arg(arguments, uint32_t);
        options->keep_alive_timeout = va_arg(arguments, int32_t);
        options->keep_alive_max = va_arg(arguments, int32_t);
        break;
    case TAV_HTTP_OPTION_HIDE_URL:
        options->hide_url = va_arg(arguments, uint32_t);
        break;
    case TAV_HTTP_OPTION_KEEP_UNDECODED_BODY:
        // Hosts rely on the second value, so it is taken in every case.
        options->keep_undecoded_body = va_arg(arguments, uint32_t);
        options->no_cookie_store = _as_switch(va_arg(arguments, uint32_t));
        break;
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// Ids 901 to 909.
static uint32_t _set_callback(http_session* session, uint32_t option, va_list arguments) {
    switch (option) {
    case TAV_HTTP_OPTION_CONNECTING_CALLBACK:
        session->connecting_cb = va_arg(arguments, connecting_callback);
        break;
    case TAV_HTTP_OPTION_CONNECTED_CALLBACK:
        session->connected_cb = va_arg(arguments, connected_callback);
        break;
    case TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK:
        session->download_start_cb = va_arg(arguments, download_start_callback);
        break;
    case TAV_HTTP_OPTION_REDIRECT_CALLBACK:
        session->redirect_cb = va_arg(arguments, redirect_callback);
        break;
    case TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK:
        session->download_data_cb = va_arg(arguments, download_data_callback);
        break;
    case TAV_HTTP_OPTION_COMPLETE_CALLBACK:
        session->complete_cb = va_arg(arguments, complete_callback);
        break;
    case TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK:
        session->upload_progress_cb = va_arg(arguments, upload_progress_callback);
        break;
    case TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK:
        session->response_header_cb = va_arg(arguments, response_header_callback);
        break;
    default:
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// The list is used up by exactly one group.
static uint32_t _set_option(http_session* session, uint32_t option, va_list arguments) {
    http_options* options = session->options;
    if (option >= TAV_HTTP_OPTION_CONNECTING_CALLBACK) {
        return _set_callback(session, option, arguments);
    }
    if (option >= TAV_HTTP_OPTION_PRIORITY) {
        return _set_queue_option(options, option, arguments);
    }
    if (option >= TAV_HTTP_OPTION_ADD_HEADER) {
        return _set_body_option(options, option, arguments);
    }
    if (option >= TAV_HTTP_OPTION_DOWNLOAD_FILE && option <= TAV_HTTP_OPTION_CACHE_CONTROL) {
        return _set_head_option(options, option, arguments);
    }
    return _set_flow_option(options, option, arguments);
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
    uint32_t result = _set_option(session, option, arguments);
    va_end(arguments);
    return result;
}
