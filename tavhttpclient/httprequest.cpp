// The request record, and sending it piece by piece over the session's connection. One send or one
// file read of a session is under way at any moment; each is started by the end of the last one.
//
// http_send_request -> _work_init_upload_data (worker) -> _after_work_init_upload_data
//   -> _on_send_request_header_result
//   -> each item: _start_send_upload_item -> _on_send_form_header_callback
//        -> _send_upload_item_content -> [_on_read_request_data_result]
//        -> _on_send_upload_item_content_result -> (content again)
//        -> _send_form_item_tailer -> _on_send_form_item_tailer_result -> _finish_upload_item
//   -> _notify_send_request_result -> on_send_result
//
// The session may be gone when _notify_send_request_result returns; nothing follows it.
#include "tavhttpclient/httprequest.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_file.h"
#include "tavhttpclient/hostcall.h"
#include "tavhttpclient/httprequest_items.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/transport.h"
#include "tavhttpclient/upload_item.h"

enum {
    UPLOAD_CHUNK_SIZE = 16384
};

// One preparation on the worker pool; `work.data` is the session.
struct init_upload_work {
    worker_step work;
    uint32_t result;
};

static void _start_send_upload_item(http_session* session);
static void _on_send_form_header_callback(http_connection* conn, void* user, uint32_t status);
static void _send_upload_item_content(http_session* session);
static void _send_form_item_tailer(http_session* session);
static void _finish_upload_item(http_session* session);

// ------------------------------------------------------------------------------ records

static void _free_upload_items(http_request* request) {
    list_link* head = &request->upload_item_list;
    list_link* link = head->next;
    while (link != head) {
        upload_item* item = (upload_item*)link;
        link = link->next;
        free_upload_item(item);
    }
    list_init(head);
}

http_request* new_http_request(http_session* session) {
    http_request* request = (http_request*)calloc(1, sizeof(http_request));
    if (request == nullptr) {
        return nullptr;
    }
    request->session = session;
    list_init(&request->upload_item_list);
    return request;
}

void free_http_request(http_request* request) {
    if (request == nullptr) {
        return;
    }
    _free_upload_items(request);
    free(request->url);
    free(request->referer);
    free(request->host);
    free(request->path);
    free(request->target);
    free(request->boundary);
    text_buffer_release(&request->header);
    text_buffer_release(&request->read_buffer);
    text_buffer_release(&request->form_body);
    free(request);
}

// Nothing of an earlier attempt stays but the boundary.
static void _reset_http_request(http_request* request) {
    request->method = 0;
    request->header.length = 0;
    request->form_body.length = 0;
    request->body_kind = BODY_NONE;
    _free_upload_items(request);
    request->item_offset = 0;
    request->read_buffer.length = 0;
    memset(&request->read_req, 0, sizeof(request->read_req));
    request->sent_bytes = 0;
    request->total_bytes = 0;
}

static upload_item* _first_item(http_request* request) {
    if (list_empty(&request->upload_item_list)) {
        return nullptr;
    }
    return (upload_item*)request->upload_item_list.next;
}

// ------------------------------------------------------------------------ shared by all steps

static void _notify_send_request_result(http_session* session, uint32_t code) {
    if (!LOG_ASSERT(session != nullptr)) {
        return;
    }
    void (*callback)(http_session*, uint32_t) = session->on_send_result;
    session->on_send_result = nullptr;
    if (callback != nullptr) {
        callback(session, code);
    }
}

// True: the step stops. The owner was told and may have freed the session.
static bool _check_cancel_and_notify(http_session* session) {
    if (session == nullptr) {
        LOG_ERROR("_check_cancel_and_notify, session is NULL.");
        LOG_ASSERT(session != nullptr);
        return true;
    }
    if (!session_is_cancelled(session)) {
        return false;
    }
    _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_CANCEL);
    return true;
}

// Tells the host, then hands one piece to the transport. `bytes` must stay valid until `callback`.
static uint32_t _http_request_send_data(http_session* session, const char* bytes, int32_t count,
                                        http_send_cb callback) {
    http_request* request = session->request;
    http_connection* conn = session->connection;
    if (!LOG_ASSERT(conn != nullptr && conn->send != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_SEND;
    }
    if (session->upload_progress_cb != nullptr && session_may_call_host(session)) {
        before_host_call();
        session->upload_progress_cb(session, session->user_data, (uint64_t)request->sent_bytes,
                                    bytes, (uint32_t)count, (uint64_t)request->total_bytes);
    }
    request->sent_bytes += count;
    return conn->send(conn, session, bytes, count, _get_io_timeout(session), callback);
}

// ------------------------------------------------------------------------------ preparation

// Worker thread. From _start_init_upload_data; next _after_work_init_upload_data.
static void _work_init_upload_data(worker_step* req) {
    init_upload_work* work = (init_upload_work*)req;
    work->result = http_request_prepare((http_session*)req->data);
}

// Loop thread. After the head; next _start_send_upload_item, or the result without a body.
static void _on_send_request_header_result(http_connection* conn, void* user, uint32_t status) {
    http_session* session = (http_session*)user;
    if (!LOG_ASSERT(conn != nullptr && session != nullptr)) {
        return;
    }
    uint32_t id = session->id;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_send_request_header_result, cancel, id=%d", (int)id);
        return;
    }
    if (status != 0) {
        LOG_INFO("_on_send_request_header_result, send failed, id=%u, err=%d", id, (int)status);
        _notify_send_request_result(session, status);
        return;
    }
    switch (session->request->method) {
    case TAV_HTTP_METHOD_POST:
        _start_send_upload_item(session);
        break;
    case TAV_HTTP_METHOD_GET:
    case TAV_HTTP_METHOD_HEAD:
    case TAV_HTTP_METHOD_OPTIONS:
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_OK);
        break;
    default:
        LOG_ASSERT(false);
        LOG_INFO("_on_send_request_header_result, invalid http method, id=%u, method=%d", id,
                 (int)session->request->method);
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_INVALID_ARG);
        break;
    }
}

// Loop thread. From _work_init_upload_data; next _on_send_request_header_result.
static void _after_work_init_upload_data(worker_step* req, int status) {
    init_upload_work* work = (init_upload_work*)req;
    http_session* session = (http_session*)req->data;
    uint32_t err = work->result;
    uint32_t id = session->id;
    free(work);

    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_open_upload_file, cancel, id=%d", (int)id);
        return;
    }
    if (status != 0 || err != 0) {
        LOG_INFO("_after_work_init_upload_data, failed, id=%u, result=%d, status=%d.", id, (int)err,
                 status);
        err = err != 0 ? err : (uint32_t)TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK;
        _notify_send_request_result(session, err);
        return;
    }
    text_buffer* header = &session->request->header;
    err = _http_request_send_data(session, header->data, header->length,
                                  _on_send_request_header_result);
    if (err != 0) {
        LOG_INFO("_after_work_init_upload_data, _http_request_send_data failed, id=%d, result=%d",
                 (int)id, (int)err);
        _notify_send_request_result(session, err);
    }
}

// Loop thread. Next _work_init_upload_data.
static uint32_t _start_init_upload_data(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        LOG_INFO("_start_init_upload_data, loop is null, id=%d.", (int)session->id);
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    init_upload_work* work = (init_upload_work*)calloc(1, sizeof(init_upload_work));
    if (work == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    work->work.data = session;
    int ret = queue_worker_step(&work->work, _work_init_upload_data, _after_work_init_upload_data);
    if (!LOG_ASSERT(ret == 0)) {
        LOG_INFO("_start_init_upload_data, uv_queue_work failed, id=%d.", (int)session->id);
        free(work);
        return TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t http_send_request(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    _reset_http_request(session->request);
    session->on_send_result = _on_http_send_request_result;
    uint32_t err = _start_init_upload_data(session);
    if (err != 0) {
        LOG_INFO("http_send_request, _start_init_upload_data failed, id=%u, err=%d", session->id,
                 (int)err);
        session->on_send_result = nullptr;
    }
    return err;
}

// ------------------------------------------------------------------------------ part header

// Loop thread. From _start_send_upload_item; next _on_send_form_header_callback.
static void _start_send_upload_item_header(http_session* session) {
    text_buffer* part = &_first_item(session->request)->part_header;
    if (part->data == nullptr || part->length < 1) {
        _on_send_form_header_callback(session->connection, session, 0);
        return;
    }
    uint32_t err =
        _http_request_send_data(session, part->data, part->length, _on_send_form_header_callback);
    if (err != 0) {
        LOG_INFO("_start_send_upload_item_header, _http_request_send_data failed, id=%d, err=%d",
                 (int)session->id, (int)err);
        _notify_send_request_result(session, err);
    }
}

// Loop thread. After the head, or after an item; next _start_send_upload_item_header.
static void _start_send_upload_item(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("_start_send_upload_item, session is NULL.");
        return;
    }
    http_request* request = session->request;
    if (!LOG_ASSERT(!list_empty(&request->upload_item_list))) {
        LOG_ERROR("_start_send_upload_item, upload_item_list is empty, id=%d.", (int)session->id);
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
        return;
    }
    request->item_offset = 0;
    request->read_buffer.length = 0;
    _start_send_upload_item_header(session);
}

// Loop thread. After the part header; next _send_upload_item_content.
static void _on_send_form_header_callback(http_connection* conn, void* user, uint32_t status) {
    (void)conn;
    http_session* session = (http_session*)user;
    if (session == nullptr) {
        LOG_INFO("_on_send_form_header_callback, session is null, result=%d", (int)status);
        return;
    }
    uint32_t id = session->id;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_send_form_header_callback, canceled, id=%d", (int)id);
        return;
    }
    if (status != 0) {
        LOG_INFO("_on_send_form_header_callback, failed, result=%d", (int)status);
        _notify_send_request_result(session, status);
        return;
    }
    _send_upload_item_content(session);
}

// ------------------------------------------------------------------------------ content

// Loop thread. After one piece of content; next _send_upload_item_content.
static void _on_send_upload_item_content_result(http_connection* conn, void* user,
                                                uint32_t status) {
    (void)conn;
    http_session* session = (http_session*)user;
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_INFO("_on_send_upload_item_content_result, session is null, result=%d.", (int)status);
        return;
    }
    uint32_t id = session->id;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_send_upload_item_content_result, canceled, id=%d", (int)id);
        return;
    }
    if (status != 0) {
        LOG_INFO("_on_send_upload_item_content_result, failed, id=%d, result=%d", (int)id,
                 (int)status);
        _notify_send_request_result(session, status);
        return;
    }
    _send_upload_item_content(session);
}

// Loop thread. From _work_read_file; next _on_send_upload_item_content_result.
static void _on_read_request_data_result(worker_step* step, int status) {
    http_session* session = (http_session*)step->data;
    uv_fs_t* req = &session->request->read_req;
    int result = status != 0 ? status : (int)req->result;
    uint32_t id = session->id;
    uv_fs_req_cleanup(req);

    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_read_request_data_result, cancel, id=%u", id);
        return;
    }
    if (result <= 0) {
        LOG_INFO("_on_read_request_data_result, read failed, id=%d, result=%d", (int)id, result);
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE);
        return;
    }
    // What was read counts, not what was asked for: after a short read the rest is asked for again,
    // so that a file that has shrunk ends in an error instead of a body that is too short.
    http_request* request = session->request;
    request->read_buffer.length = result;
    request->item_offset += result;
    uint32_t err = _http_request_send_data(session, request->read_buffer.data, result,
                                           _on_send_upload_item_content_result);
    if (err != 0) {
        LOG_INFO("_on_read_upload_file_result, _http_request_send_data failed, id=%d, result=%d",
                 (int)id, result);
        _notify_send_request_result(session, err);
    }
}

static int32_t _chunk_size(int64_t remaining) {
    return remaining < UPLOAD_CHUNK_SIZE ? (int32_t)remaining : UPLOAD_CHUNK_SIZE;
}

// Worker thread. From _start_read_file; next _on_read_request_data_result.
static void _work_read_file(worker_step* step) {
    http_session* session = (http_session*)step->data;
    http_request* request = session->request;
    const upload_item* item = _first_item(request);
    int32_t count = _chunk_size(item->file_size - request->item_offset);
    uv_buf_t buffer = uv_buf_init(request->read_buffer.data, (unsigned)count);
    int ret = uv_fs_read(nullptr, &request->read_req, _fileno(item->file), &buffer, 1,
                         request->item_offset, nullptr);
    request->read_req.result = ret;  // Some failures are only returned.
}

// Starts the read of the next chunk. Never more than was announced, even if the file has grown:
// the surplus would be taken for the beginning of the next request.
static uint32_t _start_read_file(http_session* session, upload_item* item) {
    http_request* request = session->request;
    int32_t count = _chunk_size(item->file_size - request->item_offset);
    if (!text_buffer_reserve(&request->read_buffer, count)) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    request->read_buffer.length = 0;
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT_IN("_send_upload_item_content", loop != nullptr)) {
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    memset(&request->read_req, 0, sizeof(request->read_req));
    request->read_step.data = session;
    int ret = queue_worker_step(&request->read_step, _work_read_file, _on_read_request_data_result);
    if (ret < 0) {
        LOG_INFO("_send_upload_item_content, uv_fs_read failed, id=%d", (int)session->id);
        return TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// Loop thread. From _send_upload_item_content; next _on_read_request_data_result.
static void _read_file_content(http_session* session, upload_item* item) {
    if (item->file == nullptr || session->request->item_offset >= item->file_size) {
        _send_form_item_tailer(session);
        return;
    }
    uint32_t err = _start_read_file(session, item);
    if (err != 0) {
        _notify_send_request_result(session, err);
    }
}

// Loop thread. From _send_upload_item_content; next _on_send_upload_item_content_result.
static void _send_memory_content(http_session* session, const upload_item* item) {
    http_request* request = session->request;
    if (item->data == nullptr || request->item_offset >= item->data->length) {
        _send_form_item_tailer(session);
        return;
    }
    int32_t count = _chunk_size(item->data->length - request->item_offset);
    uint32_t err = _http_request_send_data(session, item->data->data + request->item_offset, count,
                                           _on_send_upload_item_content_result);
    if (err != 0) {
        LOG_INFO("_send_upload_item_content, _http_request_send_data fail, id=%d, ret=%d",
                 (int)session->id, (int)err);
        _notify_send_request_result(session, err);
        return;
    }
    request->item_offset += count;
}

// Loop thread. After the part header and after each piece; next another piece, or the tailer.
static void _send_upload_item_content(http_session* session) {
    upload_item* item = _first_item(session->request);
    uint32_t kind = item != nullptr ? item->kind : 0;
    if (item != nullptr && (kind & UPLOAD_ITEM_MEMORY_BIT) != 0) {
        _send_memory_content(session, item);
    } else if (item != nullptr && (kind & UPLOAD_ITEM_FILE_BIT) != 0) {
        _read_file_content(session, item);
    } else {
        LOG_ASSERT((kind & (UPLOAD_ITEM_MEMORY_BIT | UPLOAD_ITEM_FILE_BIT)) != 0);
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA);
    }
}

// ------------------------------------------------------------------------------ tailer

// Loop thread. After the tailer; next _finish_upload_item.
static void _on_send_form_item_tailer_result(http_connection* conn, void* user, uint32_t status) {
    (void)conn;
    http_session* session = (http_session*)user;
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_INFO("_on_send_form_item_tailer_result, session is null, result=%d.", (int)status);
        return;
    }
    uint32_t id = session->id;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_send_form_item_tailer_result, canceled, id=%d", (int)id);
        return;
    }
    if (status != 0) {
        LOG_INFO("_on_send_form_item_tailer_result, failed, result=%d", (int)status);
        _notify_send_request_result(session, status);
        return;
    }
    _finish_upload_item(session);
}

// Loop thread. After the content; next _on_send_form_item_tailer_result.
static void _send_form_item_tailer(http_session* session) {
    text_buffer* part = &_first_item(session->request)->part_tailer;
    if (part->data == nullptr || part->length <= 0) {
        _finish_upload_item(session);
        return;
    }
    uint32_t err = _http_request_send_data(session, part->data, part->length,
                                           _on_send_form_item_tailer_result);
    if (err != 0) {
        LOG_INFO("_send_form_item_tailer, _http_request_send_data failed, id=%d, result=%d",
                 (int)session->id, (int)err);
        _notify_send_request_result(session, err);
    }
}

// Loop thread. After the last piece of an item; next the next item, or the result.
static void _finish_upload_item(http_session* session) {
    http_request* request = session->request;
    free_upload_item((upload_item*)list_take_first(&request->upload_item_list));
    if (list_empty(&request->upload_item_list)) {
        _notify_send_request_result(session, TAV_HTTP_ERROR_CODE_OK);
    } else {
        _start_send_upload_item(session);
    }
}
