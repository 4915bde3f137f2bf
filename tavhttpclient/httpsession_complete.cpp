// How a sent session ends: its connection goes back to the pool, the host is told, its task is
// released.
//
// _notify_download_complete -> _work_notify_download_complete (host told)
//   -> _after_work_notify_download_complete (flight ended, task released)
#include <stdlib.h>

#include "platform/win_time.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/hostcall.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httpsession_steps.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/response_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/transport.h"

// The completion on its way through the worker pool. The task and its hook are taken out of the
// session before the host is told.
struct complete_work {
    worker_step req;
    http_session* session;
    void* task;
    void (*release_hook)(void* task);
};

// --------------------------------------------------------------------------------------- hand-back

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
    bool is_spoilt = response != nullptr && response->has_surplus != 0;
    if (connection == nullptr || is_spoilt || !(options->keep_connection != 0 || keep_alive)) {
        return;
    }
    // 0 stands for the default of the pool.
    connection->keepalive_timeout = _first_positive(
        options->keep_alive_timeout, response != nullptr ? response->keep_alive_timeout : 0, 0);
    connection->max_reuse =
        _first_positive(options->keep_alive_max, response != nullptr ? response->keep_alive_max : 0,
                        config_keep_alive_max_requests());
    session->connection = nullptr;
    connection->holder = nullptr;
    if (!add_connection_to_pool(connection)) {
        http_connect_close(connection);
    }
}

// -------------------------------------------------------------------------------- the host is told

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
        before_host_call();
        callback(session, session->user_data, result);
    }
}

// Tells the host. The host may close the session meanwhile: what belongs to its task is taken out
// before.
static void _complete(complete_work* work) {
    http_session* session = work->session;
    work->task = session->task;
    work->release_hook = session->task_release_hook;
    session->task = nullptr;
    session->task_release_hook = nullptr;
    _internal_notify_download_complete(session);
}

// Loop thread, when the host has been told.
static void _end_flight(const complete_work* work) {
    end_session_flight(work->session);
    if (work->release_hook != nullptr) {
        work->release_hook(work->task);
    }
}

// Loop thread, when the worker pool takes no work.
static void _complete_directly(http_session* session) {
    LOG_ERROR("_async_notify_download_complete, uv_queue_work failed, id=%u, result=%d",
              session->id, session->result);
    complete_work work = {};
    work.session = session;
    _complete(&work);
    _end_flight(&work);
}

// Worker thread. From _notify_download_complete; next _after_work_notify_download_complete.
static void _work_notify_download_complete(worker_step* req) {
    _complete((complete_work*)req->data);
}

// Loop thread. From _work_notify_download_complete; the session's last step.
static void _after_work_notify_download_complete(worker_step* req, int status) {
    complete_work* work = (complete_work*)req->data;
    if (LOG_ASSERT(status == 0)) {
        _end_flight(work);
    } else {
        _complete_directly(work->session);
    }
    free(work);
}

static bool _queue_complete_notification(http_session* session) {
    complete_work* work = (complete_work*)calloc(1, sizeof(complete_work));
    if (work == nullptr) {
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
    bool queued = _queue_complete_notification(session);
    if (!LOG_ASSERT(queued)) {
        _complete_directly(session);
    }
}
