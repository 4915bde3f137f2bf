// Receiving a response and settling its file.
//
// http_recv_response -> _start_recv_response -> _on_recv_response_result
//   -> _work_parse_response -> _after_work_parse_response
//   -> _work_write_body -> _after_work_write_body -> _on_write_body_finish
//   -> _start_recv_response again, or _notify_recv_response_result
//   -> _rename_response_file -> _on_delete_origin_file -> _on_rename_file
//      | _start_delete_temp_file -> _on_delete_temp_file_result
//   -> _finish_recv_response -> on_recv_result
#include "tavhttpclient/httpresponse.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httpresponse_body.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/message_parser.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/transport.h"

enum {
    RECV_BUFFER_SIZE = 32768,
    MAX_SPARE_BUFFERS = 8
};

static uint32_t _start_recv_response(http_session* session);
static void _on_write_body_finish(http_session* session);
static void _notify_recv_response_result(http_session* session, uint32_t err);
static void _finish_recv_response(http_session* session);

// ---------------------------------------------------------------------------------- the record

http_response* new_http_response(http_session* session) {
    http_response* response = (http_response*)calloc(1, sizeof(http_response));
    if (response == nullptr) {
        return nullptr;
    }
    response->session = session;
    response->session_id = session->id;
    response->request_url = session->request->url;
    response->keep_undecoded_body = session->options->keep_undecoded_body != 0 ? 1 : 0;
    return response;
}

static void _free_header_list(http_response* response) {
    if (response->header_list == nullptr) {
        return;
    }
    while (!list_empty(response->header_list)) {
        response_header* header = (response_header*)list_take_first(response->header_list);
        free(header->name);
        free(header->value);
        free(header);
    }
    free(response->header_list);
}

static void _close_file_of_freed_response(FILE* file) {
    // Off the loop thread, and when the worker pool takes no work, it is closed here.
    if (!is_loop_thread() || !tavhttp_async_close(file)) {
        tavhttp_fclose(file);
    }
}

static void _free_response_texts(http_response* response) {
    free(response->status_text);
    free(response->content_type);
    free(response->content_disposition);
    free(response->transfer_encoding);
    free(response->location);
    free(response->server);
    free(response->etag);
    free(response->file_path);
    free(response->temp_path);
}

void free_http_response(http_response* response) {
    if (response == nullptr) {
        return;
    }
    _free_response_texts(response);
    _free_header_list(response);
    text_buffer_release(&response->set_cookie);
    text_buffer_release(&response->recv_buffer);
    text_buffer_release(&response->body_chunk);
    text_buffer_release(&response->memory_body);
    free_body_md5(response);
    release_content_decoder(&response->decoder);
    free_response_parser(response->parser);
    if (response->recv_file_id != nullptr) {
        _close_file_of_freed_response(response->recv_file_id);
    }
    free(response);
}

// -------------------------------------------------------------------------- receive buffers

// Loop thread. A buffer is needed from the first read of a response to its end, so that a few serve
// all; a completed session that the host keeps has none.
static text_buffer spare_buffers[MAX_SPARE_BUFFERS];
static int32_t spare_count = 0;

static bool _take_recv_buffer(text_buffer* buffer) {
    if (buffer->data == nullptr && spare_count > 0) {
        *buffer = spare_buffers[--spare_count];
    }
    return text_buffer_reserve(buffer, RECV_BUFFER_SIZE);
}

static void _give_back_recv_buffer(text_buffer* buffer) {
    if (buffer->data == nullptr || spare_count == MAX_SPARE_BUFFERS) {
        text_buffer_release(buffer);
        return;
    }
    spare_buffers[spare_count++] = *buffer;
    memset(buffer, 0, sizeof(*buffer));
}

void free_spare_recv_buffers(void) {
    while (spare_count > 0) {
        text_buffer_release(&spare_buffers[--spare_count]);
    }
}

// ---------------------------------------------------------------------------------- receiving

// Loop thread. Every step of this file asks before it uses a result; true: the session was told and
// may be gone.
static bool _check_cancel_and_notify(http_session* session) {
    if (session == nullptr) {
        LOG_ERROR("_check_cancel_and_notify, session is NULL.");
        LOG_ASSERT(session != nullptr);
        return true;
    }
    if (!session_is_cancelled(session)) {
        return false;
    }
    _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_CANCEL);
    return true;
}

uint32_t http_recv_response(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    free_http_response(session->response);
    session->response = new_http_response(session);
    if (session->response == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    session->on_recv_result = _on_http_recv_response_result;

    uint32_t err = _start_recv_response(session);
    if (err != 0) {
        session->on_recv_result = nullptr;
        LOG_INFO("http_recv_response, _start_recv_response failed, id=%d, err=%d", session->id,
                 (int32_t)err);
    }
    return err;
}

// The peer has closed: what is known so far decides whether the response is complete.
static void _close_ended_connection(http_session* session) {
    LOG_INFO("_on_recv_response, read==0, connection closed, id=%u", session->id);
    http_connect_close(session->connection);
    session->connection = nullptr;
}

static void _work_parse_response(worker_step* req);
static void _after_work_parse_response(worker_step* req, int status);

static bool _start_parse_response_work(http_session* session) {
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        return false;
    }
    worker_step* work = &session->response->parse_work;
    work->data = session;
    return queue_worker_step(work, _work_parse_response, _after_work_parse_response) == 0;
}

// Loop thread. From _start_recv_response; next _work_parse_response.
static void _on_recv_response_result(http_connection* conn, void* user, uint32_t status, char* data,
                                     int32_t nread) {
    (void)conn;
    http_session* session = (http_session*)user;
    uint32_t id = session != nullptr ? session->id : 0;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_on_recv_response_result, canceled, id=%u", id);
        return;
    }
    if (status != 0) {
        LOG_INFO("_on_recv_response_result, failed, id=%u, result=%d", id, (int32_t)status);
        _notify_recv_response_result(session, status);
        return;
    }
    text_buffer* buffer = &session->response->recv_buffer;
    if (!LOG_ASSERT(data == buffer->data) || !LOG_ASSERT(nread >= 0 && nread <= buffer->capacity)) {
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
        return;
    }
    text_buffer_set_length(buffer, nread);
    if (nread == 0) {
        _close_ended_connection(session);
    }
    if (!_start_parse_response_work(session)) {
        LOG_INFO("_on_recv_response, _start_parse_response_work failed, id=%u", id);
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE);
    }
}

static uint32_t _start_recv_response(http_session* session) {
    http_connection* conn = session->connection;
    if (!LOG_ASSERT(conn != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    text_buffer* buffer = &session->response->recv_buffer;
    if (!_take_recv_buffer(buffer)) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    return conn->recv(conn, session, buffer->data, (uint32_t)buffer->capacity,
                      _get_io_timeout(session), _on_recv_response_result);
}

// ------------------------------------------------------------------------------------ parsing

static void _report_response_header(http_session* session) {
    const http_response* response = session->response;
    if (response->recv_state != RECV_HEADERS_DONE && response->recv_state != RECV_COMPLETE) {
        return;
    }
    if (is_redirect_status(response->status_code)) {
        return;
    }
    response_header_callback callback = session->response_header_cb;
    session->response_header_cb = nullptr;
    if (callback != nullptr && session_may_call_host(session)) {
        callback(session, session->user_data);
    }
}

// Worker thread. From _on_recv_response_result; next _after_work_parse_response.
static void _work_parse_response(worker_step* req) {
    http_session* session = (http_session*)req->data;
    http_response* response = session->response;
    const text_buffer* buffer = &response->recv_buffer;
    if (buffer->length == 0) {
        return;
    }
    if (!parse_response_message(response, buffer->data, (uint32_t)buffer->length)) {
        response->recv_state = RECV_ERROR;
    }
    _report_response_header(session);
}

// Nobody sees the bodies of these responses.
static bool _is_body_skipped(const http_session* session) {
    uint32_t status = session->response->status_code;
    if (is_redirect_status(status) && session->options->no_redirect == 0) {
        return true;
    }
    return status == HTTP_STATUS_NOT_MODIFIED || status == HTTP_STATUS_RANGE_NOT_SATISFIABLE;
}

static void _work_write_body(worker_step* req);
static void _after_work_write_body(worker_step* req, int status);

static uint32_t _start_write_body(http_session* session) {
    uv_loop_t* loop = get_uv_loop();
    if (loop == nullptr) {
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    session->work_result = TAV_HTTP_ERROR_CODE_OK;
    session->work_req.data = session;
    int ret = queue_worker_step(&session->work_req, _work_write_body, _after_work_write_body);
    return ret == 0 ? TAV_HTTP_ERROR_CODE_OK : TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK;
}

// Loop thread. From _work_parse_response; next _work_write_body, or _on_write_body_finish when the
// body is skipped.
static void _after_work_parse_response(worker_step* req, int status) {
    http_session* session = (http_session*)req->data;
    uint32_t id = session->id;
    if (status != 0) {
        LOG_ERROR("_after_work_parse_response, id=%u, error=%d", id, status);
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE);
        return;
    }
    session->response->known_length = session->response->content_length;
    if (_check_cancel_and_notify(session)) {
        LOG_INFO("_after_work_parse_response, canceled, id=%u", id);
        return;
    }
    if (session->response->recv_state == RECV_ERROR) {
        LOG_INFO("_after_work_parse_response, recv state error, id=%u", id);
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE);
        return;
    }
    if (_is_body_skipped(session)) {
        // Discarded as it comes, or a long one would pile up.
        text_buffer_set_length(&session->response->body_chunk, 0);
        _on_write_body_finish(session);
        return;
    }
    uint32_t err = _start_write_body(session);
    if (err != 0) {
        LOG_INFO("_after_work_parse_response, _start_write_body failed, id=%u, err=%d", id,
                 (int32_t)err);
        _notify_recv_response_result(session, err);
    }
}

// ------------------------------------------------------------------------------------ writing

// Worker thread. From _after_work_parse_response; next _after_work_write_body.
static void _work_write_body(worker_step* req) {
    http_session* session = (http_session*)req->data;
    session->work_result = write_response_body(session);
}

// Loop thread. From _work_write_body; next _on_write_body_finish.
static void _after_work_write_body(worker_step* req, int status) {
    http_session* session = (http_session*)req->data;
    if (_check_cancel_and_notify(session)) {
        return;
    }
    if (status != 0) {
        LOG_INFO("_after_work_write_body, id=%d, status=%d", session->id, status);
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
        return;
    }
    if (session->work_result != 0) {
        LOG_INFO("_after_work_write_body, work fail, id=%d, result=%d", session->id,
                 (int32_t)session->work_result);
        _notify_recv_response_result(session, session->work_result);
        return;
    }
    _on_write_body_finish(session);
}

// A head that answers HEAD announces a body that never comes.
static void _finish_head_response(http_session* session) {
    http_response* response = session->response;
    if (!is_redirect_status(response->status_code)) {
        LOG_ASSERT_IN("_on_write_body_finish", response->body_chunk.length == 0);
        LOG_ASSERT_IN("_on_write_body_finish", response->recv_body_bytes == 0);
    }
    // The rest of a body that came all the same would be taken for the next response.
    response->has_surplus |= response->recv_body_bytes != 0 ? 1 : 0;
    response->recv_body_bytes = 0;
    text_buffer_set_length(&response->body_chunk, 0);
    _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_OK);
}

static void _finish_complete_response(http_session* session) {
    http_response* response = session->response;
    if (!is_redirect_status(response->status_code) &&
        response->status_code != HTTP_STATUS_RANGE_NOT_SATISFIABLE) {
        LOG_ASSERT_IN("_on_write_body_finish", response->body_chunk.length == 0);
    }
    text_buffer_set_length(&response->body_chunk, 0);
    _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_OK);
}

// The connection ended before the parser saw the end: complete only when the close is what delimits
// the body.
static void _finish_closed_response(http_session* session) {
    const http_response* response = session->response;
    if (!is_redirect_status(response->status_code)) {
        LOG_ASSERT_IN("_on_write_body_finish", response->body_chunk.length == 0);
    }
    char received[32];
    uint64_to_text(response->recv_body_bytes, received);
    if (response->recv_state == RECV_HEADERS_DONE && response->content_length == 0 &&
        response->chunked == 0) {
        LOG_INFO("_on_write_body_finish, connection closed, recving body and content-length is 0, "
                 "consider it as finished, id=%u, recv-len=%s",
                 session->id, received);
        _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_OK);
        return;
    }
    char announced[32];
    uint64_to_text(response->content_length, announced);
    LOG_INFO("_on_write_body_finish, connection closed, connection is broken before finishing "
             "receiving, id=%u, recv-state=%d, status-code=%d, content-length=%s, recv-len=%s",
             session->id, (int32_t)response->recv_state, (int32_t)response->status_code, announced,
             received);
    _notify_recv_response_result(session, TAV_HTTP_ERROR_CODE_FAIL_RECV);
}

// Loop thread. From _after_work_write_body or _after_work_parse_response; next
// _start_recv_response, or _notify_recv_response_result when nothing more is to come.
static void _on_write_body_finish(http_session* session) {
    const http_response* response = session->response;
    if (session->request->method == TAV_HTTP_METHOD_HEAD &&
        response->recv_state == RECV_HEADERS_DONE) {
        _finish_head_response(session);
        return;
    }
    if (response->recv_state == RECV_COMPLETE) {
        _finish_complete_response(session);
        return;
    }
    if (session->connection == nullptr) {
        _finish_closed_response(session);
        return;
    }
    uint32_t err = _start_recv_response(session);
    if (err != 0) {
        LOG_INFO("_on_write_body_finish, _start_recv_response failed, id=%u, err=%d", session->id,
                 (int32_t)err);
        _notify_recv_response_result(session, err);
    }
}

// --------------------------------------------------------------------------- settling the file

static bool _is_in_place(const http_response* response) {
    return strcmp(response->file_path, response->temp_path) == 0;
}

// A later transfer can go on where a resumed or ranged one stopped.
static bool _is_partial_file_kept(const http_session* session) {
    const http_response* response = session->response;
    const http_request* request = session->request;
    bool partial =
        session->options->resume != 0 || request->range_start != 0 || request->range_end != 0;
    if (!partial || !_is_in_place(response)) {
        return false;
    }
    return session_is_cancelled(session) || response->status_code == HTTP_STATUS_OK ||
           response->status_code == HTTP_STATUS_PARTIAL_CONTENT;
}

// Loop thread. From _start_delete_temp_file; next _finish_recv_response.
static void _on_delete_temp_file_result(uv_fs_t* req) {
    http_session* session = (http_session*)req->data;
    int32_t result = (int32_t)req->result;
    uv_fs_req_cleanup(req);
    if (result < 0) {
        LOG_INFO("_on_delete_temp_file_result, fail, id=%d, result=%d", session->id, result);
    }
    _finish_recv_response(session);
}

static int _start_unlink(http_session* session, const char* path, uv_fs_cb callback) {
    int ret = tavhttp_start_unlink(&session->response->fs_req, path, callback);
    if (ret < 0) {
        LOG_ERROR("_rename_response_file, uv_fs_unlink fail, id=%d, ret=%d", session->id, ret);
    }
    return ret;
}

static void _start_delete_temp_file(http_session* session) {
    const char* path = session->response->temp_path;
    if (_start_unlink(session, path, _on_delete_temp_file_result) < 0) {
        tavhttp_remove(path);  // Without libuv it is done here.
        _finish_recv_response(session);
    }
}

// Loop thread. From _on_delete_origin_file; next _finish_recv_response, or
// _on_delete_temp_file_result when the file could not be moved.
static void _on_rename_file(uv_fs_t* req) {
    http_session* session = (http_session*)req->data;
    http_response* response = session->response;
    int32_t result = (int32_t)req->result;
    uv_fs_req_cleanup(req);
    if (result < 0) {
        LOG_ERROR("_on_rename_file, fail, id=%d, result=%d, %s->%s", session->id, result,
                  response->temp_path, response->file_path);
        response->result = TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
        _start_delete_temp_file(session);
        return;
    }
    _finish_recv_response(session);
}

// Loop thread. From _rename_response_file, whether or not there was an old file; next
// _on_rename_file, or _on_delete_temp_file_result when the move cannot begin.
static void _on_delete_origin_file(uv_fs_t* req) {
    http_session* session = (http_session*)req->data;
    http_response* response = session->response;
    uv_fs_req_cleanup(req);

    int ret = tavhttp_start_rename(req, response->temp_path, response->file_path, _on_rename_file);
    if (ret < 0) {
        LOG_ERROR("_on_delete_origin_file, uv_fs_rename fail, id=%d, ret=%d", session->id, ret);
        response->result = TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
        _start_delete_temp_file(session);
    }
}

// Loop thread. From _notify_recv_response_result; next _on_delete_origin_file,
// _on_delete_temp_file_result or _finish_recv_response.
static void _rename_response_file(http_session* session) {
    http_response* response = session->response;
    response->fs_req.data = session;
    if (response->result != 0) {
        if (!_is_partial_file_kept(session)) {
            _start_delete_temp_file(session);
            return;
        }
        LOG_INFO("_rename_response_file, resume fail, do not delete the file, sid=%d, error=%d",
                 session->id, (int32_t)response->result);
    } else if (!_is_in_place(response)) {
        if (_start_unlink(session, response->file_path, _on_delete_origin_file) == 0) {
            return;
        }
        response->result = TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
        _start_delete_temp_file(session);
        return;
    }
    _finish_recv_response(session);
}

static void _close_left_file(http_session* session) {
    http_response* response = session->response;
    LOG_INFO("_notify_recv_response_result, response->recv_file_id != 0, id=%d", session->id);
    FILE* file = response->recv_file_id;
    response->recv_file_id = nullptr;
    // The last bytes leave the stream here; without them the file must not pass as complete.
    if (tavhttp_fclose(file) != 0 && response->result == 0) {
        response->result = TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
    }
}

// Loop thread. The one way out of every step above; next _rename_response_file when there is a
// file, else _finish_recv_response.
static void _notify_recv_response_result(http_session* session, uint32_t err) {
    http_response* response = session->response;
    const http_options* options = session->options;
    response->result = err;
    if (err == 0 && options->body_md5 != 0 && !finish_body_md5(response)) {
        response->result = TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    if (response->recv_file_id != nullptr) {
        _close_left_file(session);
    }
    if (response->file_path == nullptr) {
        _finish_recv_response(session);
        return;
    }
    LOG_ASSERT(options->download_to_file != 0 || options->download_file != nullptr);
    if (!LOG_ASSERT(response->temp_path != nullptr)) {
        _finish_recv_response(session);
        return;
    }
    _rename_response_file(session);
}

// Loop thread. The session may be gone when its handler returns.
static void _finish_recv_response(http_session* session) {
    void (*handler)(http_session*, uint32_t) = session->on_recv_result;
    uint32_t result = session->response->result;
    session->on_recv_result = nullptr;
    _give_back_recv_buffer(&session->response->recv_buffer);
    if (handler != nullptr) {
        handler(session, result);
    }
}
