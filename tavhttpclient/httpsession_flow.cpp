// The flow of one transfer, from the task manager to the response.
//
// _on_async_add_task -> (task manager) -> start_http_session -> _on_async_start_connect
//   -> connecting_callback -> http_connect_start -> _on_http_connect_result -> connected_callback
//   -> http_send_request -> _on_http_send_request_result -> http_recv_response
//   -> _on_http_recv_response_result
#include <string.h>

#include "platform/win_text.h"
#include "platform/win_time.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession_steps.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/taskmgr.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"

enum {
    DEFAULT_IO_TIMEOUT = 30000  // ms
};

// ------------------------------------------------------------------------------- cancel, time-outs

void disarm_session_timer(http_session* session) {
    if (session->timer != nullptr) {
        session->timer->data = nullptr;
        close_uv_timer(&session->timer);
    }
}

bool _check_session_cancel_and_notify(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        return false;
    }
    if (!session_is_cancelled(session)) {
        return false;
    }
    LOG_INFO("_check_session_cancel_and_notify, session canceled, id=%u.", session->id);
    close_session_connection(session);
    _notify_download_complete(session, TAV_HTTP_ERROR_CODE_CANCEL);
    return true;
}

// Loop thread. The session ends at its next cancel check: its network step has a time-out of its
// own, which is no longer than this one.
static void _on_session_timeout(uv_timer_t* timer) {
    http_session* session = (http_session*)timer->data;
    timer->data = nullptr;
    close_uv_timer(&timer);
    if (session == nullptr) {
        LOG_INFO("_on_session_timeout, session is NULL.");
        return;
    }
    session->timer = nullptr;
    LOG_INFO("_on_session_timeout, id=%u, url=%s.", session->id,
             session_log_url(session, session->request->url));
    session_set_flags(session, 1, 1);
}

int32_t _get_io_timeout(http_session* session) {
    const http_options* options = session->options;
    int32_t timeout = options->io_timeout >= 1 ? options->io_timeout : DEFAULT_IO_TIMEOUT;
    if (options->session_timeout >= 1 && options->session_timeout < timeout) {
        timeout = options->session_timeout;
    }
    return timeout;
}

// 0 lets the connection layer use its default.
static int32_t _get_connect_timeout(const http_session* session) {
    const http_options* options = session->options;
    int32_t timeout = options->connect_timeout > 0 ? options->connect_timeout : 0;
    if (options->session_timeout > 0 && (timeout == 0 || timeout > options->session_timeout)) {
        timeout = options->session_timeout;
    }
    return timeout;
}

// ------------------------------------------------------------------------------------------ start

// Loop thread. From tavHTTPSendRequest; next start_http_session, when the task manager allows.
void _on_async_add_task(void* argument) {
    http_session* session = (http_session*)argument;
    start_session_flight(session);
    session->perf->queue.start = GetTickCount();
    if (!add_task_default(session)) {
        LOG_INFO("_on_async_add_task, add_download_task_default failed, id=%d",
                 (int32_t)session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
    }
}

static void _start_session_timer(http_session* session) {
    uv_loop_t* loop = get_uv_loop();
    if (session->options->session_timeout <= 0 || loop == nullptr) {
        return;
    }
    session->timer = new_uv_timer(loop, session);
    if (arm_uv_timer(session->timer, _on_session_timeout,
                     (uint64_t)session->options->session_timeout) != 0) {
        disarm_session_timer(session);
    }
}

static void _on_async_start_connect_call(void* session) {
    _on_async_start_connect((http_session*)session);
}

// Loop thread. From the task manager; next _on_async_start_connect.
void start_http_session(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_INFO("start_http_session, session is NULL.");
        return;
    }
    _start_session_timer(session);
    LOG_INFO("start_http_session, id=%u, url=%s.", session->id,
             session_log_url(session, session->request->url));
    session->perf->queue.end = GetTickCount();
    count_session_started();
    if (!async_run(_on_async_start_connect_call, session)) {
        LOG_INFO("start_http_session, async_run failed, sid=%d.", (int32_t)session->id);
        _on_async_start_connect(session);
    }
}

// ---------------------------------------------------------------------------------------- connect

// The worker pool takes no work for a call into the host; `step` is where that was wanted.
static void _fail_host_call(http_session* session, const char* step) {
    LOG_ERROR("%s, uv_queue_work failed, id=%u", step, session->id);
    _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
}

// Calls the host in `work` on a worker thread, then `after`; `after` at once when the host has not
// asked to be called.
static void _call_host(http_session* session, bool wanted, const char* step, worker_function work,
                       after_worker_function after) {
    if (get_uv_loop() == nullptr) {
        LOG_ERROR("%s, get_uv_loop failed, id=%u", step, session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
        return;
    }
    session->work_req.data = session;
    if (!wanted) {
        after(&session->work_req, 0);
    } else if (queue_worker_step(&session->work_req, work, after) != 0) {
        _fail_host_call(session, step);
    }
}

// Worker thread. From _on_async_connect; next _after_work_notify_connecting.
static void _work_notify_connecting(worker_step* work) {
    http_session* session = (http_session*)work->data;
    if (session->connecting_cb != nullptr && session_may_call_host(session)) {
        session->connecting_cb(session, session->user_data, session->request->url);
    }
}

// Loop thread. From _work_notify_connecting; next _on_http_connect_result.
static void _after_work_notify_connecting(worker_step* work, int status) {
    http_session* session = (http_session*)work->data;
    if (status != 0) {
        _fail_host_call(session, "_on_async_connect");
        return;
    }
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_INFO("_after_work_notify_connecting, canceled, id=%d.", (int32_t)id);
        return;
    }
    const http_options* options = session->options;
    uint32_t err = http_connect_start(session->request->url, options->proxy, session,
                                      _get_connect_timeout(session), options->no_reuse != 0,
                                      options->hide_url != 0, options->tls_host_name,
                                      options->session_timeout);
    if (err != 0) {
        LOG_ERROR("_on_async_connect, fail to http_connect_start, id=%u, err=%d.", id,
                  (int32_t)err);
        _notify_download_complete(session, err);
        return;
    }
    session->perf->connect.start = GetTickCount();
}

// Loop thread. From _on_async_start_connect; next _after_work_notify_connecting.
static void _on_async_connect(http_session* session) {
    _call_host(session, session->connecting_cb != nullptr, "_on_async_connect",
               _work_notify_connecting, _after_work_notify_connecting);
}

static bool _is_http_url(const char* url) {
    return url != nullptr &&
           (_strnicmp(url, "http://", 7) == 0 || _strnicmp(url, "https://", 8) == 0);
}

// Loop thread. From start_http_session, a retry or a redirect; next _on_async_connect.
void _on_async_start_connect(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("_on_async_connect, session is NULL.");
        return;
    }
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_INFO("_on_async_start_connect, cancel, id=%d", (int32_t)id);
        return;
    }
    uint32_t method = session->options->method;
    if (method < TAV_HTTP_METHOD_GET || method > TAV_HTTP_METHOD_OPTIONS) {
        LOG_INFO("_on_async_start_connect, invalid method, id=%d, method=%d", (int32_t)id,
                 (int32_t)method);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT);
        return;
    }
    if (!_is_http_url(session->request->url)) {
        LOG_INFO("_on_async_start_connect, invalid url, id=%d", (int32_t)id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_INVALID_URL);
        return;
    }
    if (!LOG_ASSERT(session->connection == nullptr)) {
        close_session_connection(session);
    }
    _on_async_connect(session);
}

// Worker thread. From _on_http_connect_result; next _after_work_notify_connected.
static void _work_notify_connected(worker_step* work) {
    http_session* session = (http_session*)work->data;
    char address[64];
    sockaddr_to_text((const struct sockaddr*)&session->connection->peer_addr, address);
    if (session->connected_cb != nullptr && session_may_call_host(session)) {
        session->connected_cb(session, session->user_data, address);
    }
}

// Loop thread. From _work_notify_connected; next _on_http_send_request_result.
static void _after_work_notify_connected(worker_step* work, int status) {
    http_session* session = (http_session*)work->data;
    if (status != 0) {
        _fail_host_call(session, "_on_http_connect_result");
        return;
    }
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_INFO("_after_work_notify_connected, canceled, id=%u, err=%d", id,
                 TAV_HTTP_ERROR_CODE_CANCEL);
        return;
    }
    uint32_t err = http_send_request(session);
    session->perf->send.start = GetTickCount();
    if (err != 0) {
        LOG_INFO("_after_work_notify_connected, http_send_request failed, id=%u, err=%d", id,
                 (int32_t)err);
        _notify_download_complete(session, err);
    }
}

// Loop thread. From http_connect_start; next _after_work_notify_connected.
void _on_http_connect_result(http_connection* connection, http_session* session,
                             const struct sockaddr_storage* peer_address, uint32_t code) {
    if (!LOG_ASSERT_IN("_on_connect_result", session != nullptr)) {
        http_connect_close(connection);
        return;
    }
    memcpy(&session->peer_address, peer_address, sizeof(session->peer_address));
    session->perf->connect.end = GetTickCount();
    uint32_t time = (uint32_t)(session->perf->connect.end - session->perf->connect.start);
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        // Not adopted, so nobody else would close it.
        http_connect_close(connection);
        LOG_INFO("_on_http_connect_result, canceled. id=%u, err=%d.", id, (int32_t)code);
        return;
    }
    if (code != 0) {
        LOG_INFO("_on_http_connect_result, connect failed. id=%u, err=%d, time=%u ms.", id,
                 (int32_t)code, time);
        _notify_download_complete(session, code);
        return;
    }
    LOG_INFO("_on_http_connect_result, connect success. id=%u, time=%u ms.", id, time);
    session->connection = connection;
    connection->holder = session;
    _call_host(session, session->connected_cb != nullptr, "_on_http_connect_result",
               _work_notify_connected, _after_work_notify_connected);
}

// --------------------------------------------------------------------------------- send, receive

// Loop thread. From http_send_request; next _on_http_recv_response_result.
void _on_http_send_request_result(http_session* session, uint32_t code) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("_on_http_send_request_result, session is NULL, err=%d.", (int32_t)code);
        return;
    }
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_ERROR("_on_http_send_request_result, canceled, id=%u, err=%d.", id, (int32_t)code);
        return;
    }
    if (code != 0) {
        LOG_ERROR("_on_http_send_request_result, failed, id=%u, err=%d.", id, (int32_t)code);
        // A failed send on a reused connection is retried like a failed receive.
        _on_http_recv_response_result(session, code);
        return;
    }
    session->perf->send.end = GetTickCount();
    uint32_t err = http_recv_response(session);
    if (err != 0) {
        LOG_ERROR("_on_http_send_request_result, _init_download_target failed, id=%u, err=%d.", id,
                  (int32_t)err);
        _notify_download_complete(session, err);
        return;
    }
    session->perf->recv.start = GetTickCount();
}

// Loop thread. From http_recv_response or a failed send; next _on_recv_finish or _start_retry.
void _on_http_recv_response_result(http_session* session, uint32_t code) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("_on_http_recv_response_result, session is NULL.");
        return;
    }
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_ERROR("_on_http_recv_response_result, canceled, id=%u, err=%d.", id, (int32_t)code);
        return;
    }
    if (code == 0) {
        session->perf->recv.end = GetTickCount();
        _on_recv_finish(session);
        return;
    }
    const http_connection* connection = session->connection;
    if (connection != nullptr && connection->reuse_count == 0) {
        LOG_INFO("_on_http_recv_response_result, fail, id=%d, err=%d", (int32_t)id, (int32_t)code);
        _notify_download_complete(session, code);
        return;
    }
    LOG_ERROR("_on_http_recv_response_result, fail, retry, id=%d, err=%d, reuse-count=%d",
              (int32_t)id, (int32_t)code,
              connection != nullptr ? (int32_t)connection->reuse_count : -1);
    session->options->no_reuse = 1;
    _start_retry(session, code);
}
