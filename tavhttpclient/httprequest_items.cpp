// The body items of a request. They are made anew on a worker thread by every send, because files
// are opened and sized here.
//
// http_request_prepare -> _prepare_post -> _append_form_entries | _append_memory_item |
//   _append_file_item -> _build_request_header
#include "tavhttpclient/httprequest_items.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest_head.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/upload_item.h"

static uint32_t _open_upload_file(const char* path, FILE** file, int64_t* size) {
    int32_t err = tavhttp_fopen(path, "rb", file);
    if (err == 0) {
        err = tavhttp_fsize(*file, size);
        if (err != 0) {
            tavhttp_fclose(*file);
            *file = nullptr;
        }
    }
    if (err != 0) {
        LOG_INFO("_work_init_upload_data, _sync_open_file failed, file=%s, err=%d, %s.", path, err,
                 strerror(err));
        return TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// New item at the end of the list, with a copy of `name` (may be null); null without memory.
static upload_item* _append_item(http_request* request, uint32_t kind, const char* name) {
    upload_item* item = (upload_item*)calloc(1, sizeof(upload_item));
    if (item == nullptr) {
        return nullptr;
    }
    item->kind = kind;
    item->name = string_dup(name);
    list_append(&request->upload_item_list, &item->link);
    return name == nullptr || item->name != nullptr ? item : nullptr;
}

static uint32_t _append_memory_item(http_request* request, uint32_t kind, const char* name,
                                    text_buffer* data, const char* announced) {
    upload_item* item = _append_item(request, kind, name);
    if (item == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    item->data = data;
    item->data_file_name = string_dup(announced);
    return announced == nullptr || item->data_file_name != nullptr
               ? TAV_HTTP_ERROR_CODE_OK
               : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

// An empty path gives a part without content.
static uint32_t _append_file_item(http_request* request, uint32_t kind, const char* name,
                                  const char* path, const char* announced) {
    upload_item* item = _append_item(request, kind, name);
    if (item == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    item->file_name = string_dup(announced);
    if (announced != nullptr && item->file_name == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    if (is_empty_text(path)) {
        return TAV_HTTP_ERROR_CODE_OK;
    }
    return _open_upload_file(path, &item->file, &item->file_size);
}

// A single entry that is no plain text makes the whole form multipart.
static uint32_t _append_form_entry(http_request* request, upload_item* entry) {
    if (!LOG_ASSERT_IN("_work_init_upload_data", !is_empty_text(entry->name))) {
        LOG_INFO("_work_init_upload_data, invalid form data, name is NULL.");
        return TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA;
    }
    if (entry->form_value.data != nullptr) {
        return _append_memory_item(request, UPLOAD_ITEM_FORM_FIELD, entry->name, &entry->form_value,
                                   nullptr);
    }
    if (entry->form_path != nullptr) {
        request->body_kind = BODY_MULTIPART;
        return _append_file_item(request, UPLOAD_ITEM_FORM_FILE, entry->name, entry->form_path,
                                 entry->file_name);
    }
    if (!LOG_ASSERT_IN("_work_init_upload_data", entry->form_data.data != nullptr)) {
        LOG_INFO("_work_init_upload_data, invalid form data, value is NULL.");
        return TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA;
    }
    request->body_kind = BODY_MULTIPART;
    return _append_memory_item(request, UPLOAD_ITEM_FORM_DATA, entry->name, &entry->form_data,
                               entry->data_file_name);
}

static uint32_t _append_form_entries(http_request* request, http_options* options) {
    request->body_kind = BODY_FORM_URLENCODED;
    list_link* head = &options->form_list;
    for (list_link* link = head->next; link != head; link = link->next) {
        uint32_t err = _append_form_entry(request, (upload_item*)link);
        if (err != 0) {
            return err;
        }
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

static uint32_t _prepare_post(http_session* session) {
    http_request* request = session->request;
    http_options* options = session->options;
    request->method = TAV_HTTP_METHOD_POST;
    request->body_kind = BODY_NONE;
    if (!list_empty(&options->form_list)) {
        return _append_form_entries(request, options);
    }
    if (options->body.data != nullptr && options->body.length > 0) {
        request->body_kind = BODY_RAW;
        return _append_memory_item(request, UPLOAD_ITEM_DATA, nullptr, &options->body, nullptr);
    }
    if (!is_empty_text(options->upload_file)) {
        request->body_kind = BODY_RAW;
        return _append_file_item(request, UPLOAD_ITEM_FILE, nullptr, options->upload_file, nullptr);
    }
    LOG_INFO("_work_init_upload_data, no data to upload, change method to 'get', id=%d",
             (int)session->id);
    request->method = TAV_HTTP_METHOD_GET;
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t http_request_prepare(http_session* session) {
    http_request* request = session->request;
    http_options* options = session->options;
    uint32_t err = TAV_HTTP_ERROR_CODE_OK;
    switch (options->method) {
    case TAV_HTTP_METHOD_GET:
    case TAV_HTTP_METHOD_HEAD:
    case TAV_HTTP_METHOD_OPTIONS:
        request->method = options->method;
        break;
    case TAV_HTTP_METHOD_POST:
        err = _prepare_post(session);
        break;
    default:
        LOG_INFO("_work_init_upload_data, invalid method, id=%d, method=%d", (int)session->id,
                 (int)options->method);
        return TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT;
    }
    if (err == 0 && !_build_request_header(request, options, &request->header)) {
        LOG_INFO("_work_init_upload_data, _build_request_header failed, id=%d, method=%d",
                 (int)session->id, (int)options->method);
        err = TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER;
    }
    return err;
}
