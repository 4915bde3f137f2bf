// How a session ends.
//
// _on_recv_finish -> complete | _start_retry | _async_notify_redirect -> _start_redirect
// _notify_download_complete -> _work_notify_download_complete (host told)
//   -> _after_work_notify_download_complete (task released, flight ended)
#include "tavhttpclient/httpsession_finish.h"

#include <stdlib.h>

#include "platform/win_time.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpinit.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

enum {
    MAX_RETRY_COUNT = 1,
    MAX_REDIRECT_COUNT = 10
};

static const uint32_t DEFAULT_KEEPALIVE_TIMEOUT = 10000;  // ms

enum {
    CONNECTION_MODE_KEEP_ALIVE = 1
};

// The completion on its way through the worker pool. The task and its hook are taken out of the
// session before the host is told.
struct complete_work {
    worker_step req;
    http_session* session;
    void* task;
    void (*release_hook)(void* task);
};

// ------------------------------------------------------------------------------------- completion

static uint32_t _elapsed(const perf_pair* pair, uint32_t now) {
    if (pair->start == 0) {
        return 0;
    }
    return (pair->end != 0 ? (uint32_t)pair->end : now) - (uint32_t)pair->start;
}

static void _log_perf(const http_session* session) {
    const perf_times* perf = session->perf;
    if (perf == nullptr) {
        return;
    }
    uint32_t now = GetTickCount();
    LOG_INFO("perf stat: id=%d, url=%s, total=%u ms, start=%u ms, queue=%u ms, connect=%u ms, "
             "send=%u ms, recv=%u ms",
             (int32_t)session->id, session_log_url(session, session->request->url),
             now - (uint32_t)perf->start.end,
             (uint32_t)perf->start.end - (uint32_t)perf->start.start, _elapsed(&perf->queue, now),
             _elapsed(&perf->connect, now), _elapsed(&perf->send, now), _elapsed(&perf->recv, now));
}

// Worker thread, or the loop thread when the pool takes no work. Tells the host, last of all.
static void _internal_notify_download_complete(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("_notify_download_complete, session is null.");
        return;
    }
    LOG_ASSERT(session->result >= 0);
    uint32_t result = (uint32_t)session->result;
    LOG_INFO("download result, id=%u, err=0x%x(%d) %s, status-code=%d, url=%s", session->id, result,
             session->result, error_code_name(result),
             session->response != nullptr ? (int32_t)session->response->status_code : 0,
             session_log_url(session, session->request->url));
    _log_perf(session);

    complete_callback callback = session->complete_cb;
    session->complete_cb = nullptr;
    if (callback != nullptr && session_may_call_host(session)) {
        callback(session, session->user_data, result);
    }
}

// Takes the task's release out of the session: the host may close it inside its callback.
static void _take_release(http_session* session, void** task, void (**hook)(void* task)) {
    *task = session->task;
    *hook = session->task_release_hook;
    session->task = nullptr;
    session->task_release_hook = nullptr;
}

// Worker thread. From _notify_download_complete; next _after_work_notify_download_complete.
static void _work_notify_download_complete(worker_step* req) {
    complete_work* work = (complete_work*)req->data;
    _take_release(work->session, &work->task, &work->release_hook);
    _internal_notify_download_complete(work->session);
}

static void _end_flight(http_session* session, void* task, void (*release_hook)(void* task)) {
    end_session_flight(session);
    if (release_hook != nullptr) {
        release_hook(task);
    }
}

// On the loop thread, when the worker pool takes no work.
static void _notify_complete_directly(http_session* session) {
    LOG_ERROR("_async_notify_download_complete, uv_queue_work failed, id=%u, result=%d",
              session->id, session->result);
    void* task;
    void (*release_hook)(void* task);
    _take_release(session, &task, &release_hook);
    _internal_notify_download_complete(session);
    _end_flight(session, task, release_hook);
}

// Loop thread. From _work_notify_download_complete; the session's last step.
static void _after_work_notify_download_complete(worker_step* req, int status) {
    complete_work* work = (complete_work*)req->data;
    if (!LOG_ASSERT(status == 0)) {
        _notify_complete_directly(work->session);
    } else {
        _end_flight(work->session, work->task, work->release_hook);
    }
    free(work);
}

static bool _queue_complete_notification(http_session* session) {
    uv_loop_t* loop = get_uv_loop();
    complete_work* work = (complete_work*)calloc(1, sizeof(complete_work));
    if (loop == nullptr || work == nullptr) {
        free(work);
        return false;
    }
    work->session = session;
    work->req.data = work;
    if (queue_worker_step(&work->req, _work_notify_download_complete,
                          _after_work_notify_download_complete) != 0) {
        free(work);
        return false;
    }
    return true;
}

static uint32_t _first_positive(int32_t option, int32_t response, uint32_t fallback) {
    if (option > 0) {
        return (uint32_t)option;
    }
    return response != 0 ? (uint32_t)response : fallback;
}

// Gives a connection that may be used again to the pool.
static void _hand_back_connection(http_session* session) {
    const http_response* response = session->response;
    bool keep_alive =
        response != nullptr && response->connection_mode == CONNECTION_MODE_KEEP_ALIVE;
    if (!keep_alive) {
        LOG_INFO("_notify_download_complete, connection is not keep-alive, sid=%d",
                 (int32_t)session->id);
    }
    http_connection* connection = session->connection;
    const http_options* options = session->options;
    if (connection == nullptr || !(options->keep_connection != 0 || keep_alive)) {
        return;
    }
    connection->keepalive_timeout = _first_positive(
        options->keep_alive_timeout, response != nullptr ? response->keep_alive_timeout : 0,
        DEFAULT_KEEPALIVE_TIMEOUT);
    connection->max_reuse =
        _first_positive(options->keep_alive_max, response != nullptr ? response->keep_alive_max : 0,
                        config_keep_alive_max_requests());
    session->connection = nullptr;
    connection->holder = nullptr;
    if (!add_connection_to_pool(connection)) {
        http_connect_close(connection);
    }
}

// Loop thread. The one way in which a sent session ends; next the host, on a worker thread.
void _notify_download_complete(http_session* session, uint32_t code) {
    if (!LOG_ASSERT(session != nullptr)) {
        return;
    }
    log_session_stats();
    session->completing = 1;
    disarm_session_timer(session);
    if (code == TAV_HTTP_ERROR_CODE_CANCEL &&
        session->flags.load(std::memory_order_relaxed).timed_out != 0) {
        code = TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT;
    }
    session->result = (int32_t)code;
    count_session_ended();
    if (session->task_finish_hook != nullptr) {
        session->task_finish_hook(session->task);
        session->task_finish_hook = nullptr;
    }
    if (code == TAV_HTTP_ERROR_CODE_OK || code == TAV_HTTP_ERROR_CODE_NOT_MODIFIED) {
        _hand_back_connection(session);
    }
    if (!LOG_ASSERT(_queue_complete_notification(session))) {
        _notify_complete_directly(session);
    }
}

// ------------------------------------------------------------------------------------------ retry

// Frees what belongs to the attempt that is over.
static void _drop_attempt(http_session* session) {
    free_http_response(session->response);
    session->response = nullptr;
    close_session_connection(session);
}

void _start_retry(http_session* session, uint32_t code) {
    session->retry_count++;
    if (session->retry_count > MAX_RETRY_COUNT) {
        LOG_INFO("_start_retry, too many retry, notify fail, retry count=%d/%d",
                 session->retry_count, MAX_RETRY_COUNT);
        _notify_download_complete(session, code);
        return;
    }
    LOG_INFO("_start_retry, session id=%d, error=%d, retry-count=%d", (int32_t)session->id,
             (int32_t)code, session->retry_count);
    _drop_attempt(session);
    _on_async_start_connect(session);
}

// --------------------------------------------------------------------------------------- redirect

// New text: the location, with the current URL's fragment when it has none of its own; null when
// either is no URL.
static char* _make_redirect_url(const char* current, const char* location) {
    url_info current_info;
    url_info location_info;
    if (!parse_url_info(current, &current_info) || !parse_url_info(location, &location_info)) {
        return nullptr;
    }
    if (location_info.fragment.length != 0 || current_info.fragment.length == 0) {
        return string_dup(location);
    }
    return string_format("%s#%.*s", location, (int)current_info.fragment.length,
                         current_info.fragment.data);
}

// Loop thread. From _on_recv_finish or _after_work_notify_redirect; next _on_async_start_connect.
static void _start_redirect(http_session* session) {
    http_request* request = session->request;
    const char* location = session->response->location;
    char* url = _make_redirect_url(request->url, location);
    if (url == nullptr) {
        LOG_INFO("_start_redirect, invalid redirect url, url=%s, location=%s",
                 session_log_url(session, request->url), session_log_url(session, location));
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE);
        return;
    }
    LOG_INFO("_start_redirect, url=%s, referer=%s", session_log_url(session, url),
             session_log_url(session, request->url));
    free(request->referer);
    request->referer = request->url;
    request->url = url;
    request->redirect_count++;
    _drop_attempt(session);
    _on_async_start_connect(session);
}

// Worker thread. From _async_notify_redirect; next _after_work_notify_redirect.
static void _work_notify_redirect(worker_step* work) {
    http_session* session = (http_session*)work->data;
    if (session == nullptr) {
        LOG_ERROR("_work_notify_redirect, session is null.");
        return;
    }
    if (session->redirect_cb == nullptr || !session_may_call_host(session)) {
        return;
    }
    char* url = _make_redirect_url(session->request->url, session->response->location);
    // Null without memory, or for a location that is no URL; the next step ends the session then.
    if (url != nullptr) {
        session->redirect_cb(session, session->user_data, url, session->request->url);
    }
    free(url);
}

// Loop thread. From _work_notify_redirect; next _start_redirect.
static void _after_work_notify_redirect(worker_step* work, int status) {
    http_session* session = (http_session*)work->data;
    if (!LOG_ASSERT(status >= 0)) {
        LOG_ERROR("_after_work_notify_download_complete, failed, status=%d", status);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
        return;
    }
    _start_redirect(session);
}

// Loop thread. From _on_recv_finish; lets the host see a redirect before it is followed.
static void _async_notify_redirect(http_session* session) {
    if (!LOG_ASSERT_IN("_notify_redirect", session != nullptr)) {
        LOG_ERROR("_async_notify_redirect, session is NULL.");
        return;
    }
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT_IN("_notify_redirect", loop != nullptr)) {
        LOG_ERROR("_async_notify_redirect, loop is NULL, id=%d.", (int32_t)session->id);
        return;
    }
    session->work_req.data = session;
    if (session->redirect_cb == nullptr) {
        _start_redirect(session);
        return;
    }
    if (!LOG_ASSERT(queue_worker_step(&session->work_req, _work_notify_redirect,
                                      _after_work_notify_redirect) == 0)) {
        LOG_ERROR("_async_notify_redirect, uv_queue_work failed, id=%d", (int32_t)session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    }
}

static void _follow_redirect(http_session* session) {
    if (session->options->no_redirect != 0) {
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
        return;
    }
    if (session->request->redirect_count > MAX_REDIRECT_COUNT) {
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT);
        return;
    }
    const char* location = session->response->location;
    if (location == nullptr || location[0] == '\0') {
        LOG_INFO("_on_recv_finish, redirect without location set, notify error, id=%d",
                 (int32_t)session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
        return;
    }
    if (session->redirect_cb != nullptr) {
        _async_notify_redirect(session);
    } else {
        _start_redirect(session);
    }
}

// --------------------------------------------------------------------------------------- judgement

static void _finish_ok(http_session* session) {
    const http_response* response = session->response;
    if (session->request->method != TAV_HTTP_METHOD_HEAD && response->content_length != 0 &&
        response->content_length != response->recv_body_bytes) {
        LOG_ERROR("_on_recv_finish, invalid content length, url=%s, length=%u, recv_size=%u",
                  session_log_url(session, session->request->url),
                  (uint32_t)response->content_length, (uint32_t)response->recv_body_bytes);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH);
        return;
    }
    _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
}

// The file has nothing that the server could continue: once more, from the start.
static void _finish_range_not_satisfiable(http_session* session) {
    LOG_INFO("_on_recv_finish, status_code == HTTP_STATUS_REQUEST_RANGE_NOT_SATISFIABLE, try again "
             "without range, id=%d",
             (int32_t)session->id);
    const http_options* options = session->options;
    if (options->resume != 0 && options->download_file != nullptr &&
        options->download_file[0] != '\0') {
        int32_t err = tavhttp_remove(options->download_file);
        if (err != 0) {
            // An errno number with libuv's text for it: the pair has always been logged like this.
            char text[64];
            LOG_INFO("_on_recv_finish, HTTP_STATUS_REQUEST_RANGE_NOT_SATISFIABLE, uv_fs_unlink "
                     "fail, ret=%d, %s",
                     err, uv_strerror_r(err, text, sizeof(text)));
        }
    }
    _start_retry(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
}

// Loop thread. From _on_http_recv_response_result, when the response has been received whole.
void _on_recv_finish(http_session* session) {
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_INFO("_on_recv_finish, cancel, id=%d", (int32_t)id);
        return;
    }
    uint32_t status_code = session->response->status_code;
    if (is_redirect_status(status_code)) {
        _follow_redirect(session);
        return;
    }
    switch (status_code) {
    case HTTP_STATUS_OK:
        _finish_ok(session);
        break;
    case HTTP_STATUS_PARTIAL_CONTENT:
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
        break;
    case HTTP_STATUS_NOT_MODIFIED:
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_NOT_MODIFIED);
        break;
    case HTTP_STATUS_RANGE_NOT_SATISFIABLE:
        _finish_range_not_satisfiable(session);
        break;
    default:
        LOG_INFO("_on_recv_finish, default error handler, id=%u, status_code=%d", id,
                 (int32_t)status_code);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
        break;
    }
}
