// The life of a session: opened, sent, cancelled and closed by the host, released on the loop
// thread.
#include "tavhttpclient/httpsession.h"

#include <stdlib.h>

#include "platform/win_time.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession_steps.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/taskmgr.h"
#include "tavhttpclient/util.h"

// The first session of a process gets 2.
static volatile LONG last_session_id = 1;

// Sessions between _on_async_add_task and their last step. Loop thread only.
static list_link sessions_in_flight = {&sessions_in_flight, &sessions_in_flight};

static http_session* _session_of_flight_link(list_link* link) {
    return (http_session*)((char*)link - offsetof(http_session, flight_link));
}

void start_session_flight(http_session* session) {
    session->in_flight = 1;
    list_append(&sessions_in_flight, &session->flight_link);
}

void cancel_sessions_in_flight(void) {
    for (list_link* link = sessions_in_flight.next; link != &sessions_in_flight;
         link = link->next) {
        http_session* session = _session_of_flight_link(link);
        session_set_flags(session, 1, 0);
        abort_network_step(session);
    }
}

bool any_session_in_flight(void) {
    return !list_empty(&sessions_in_flight);
}

// ---------------------------------------------------------------------------- creation and release

const char* session_log_url(const http_session* session, const char* url) {
    return session->options != nullptr && session->options->hide_url != 0 ? "*" : url;
}

http_session* http_session_new(void) {
    http_session* session = (http_session*)calloc(1, sizeof(http_session));
    perf_times* perf = (perf_times*)calloc(1, sizeof(perf_times));
    if (session == nullptr || perf == nullptr) {
        free(session);
        free(perf);
        return nullptr;
    }
    session->id = next_id(&last_session_id);
    session->result = -1;
    session->perf = perf;
    perf->start.start = GetTickCount();
    list_init(&session->flight_link);
    return session;
}

void close_session_connection(http_session* session) {
    http_connection* connection = session->connection;
    session->connection = nullptr;
    if (connection != nullptr) {
        connection->holder = nullptr;
        http_connect_close(connection);
    }
}

static void _release_session(http_session* session) {
    session->user_data = nullptr;
    session->complete_cb = nullptr;
    close_session_connection(session);
    free_http_request(session->request);
    free_http_response(session->response);
    // Last of the three: upload items point into the options.
    free_http_options(session->options);
    disarm_session_timer(session);
    free(session->perf);
    free(session);
}

void http_session_free(http_session* session) {
    if (session->in_flight == 0) {
        _release_session(session);
        return;
    }
    // Steps of it are pending: end it soon, tell the host nothing, release it at its last step. It
    // waits neither for its turn nor for the network, but for workers and for the host.
    session->close_requested = 1;
    session_set_flags(session, 1, 0);
    if (session->completing == 0) {
        abort_network_step(session);
        expedite_cancelled_task(session->task);
    }
}

void end_session_flight(http_session* session) {
    list_unlink(&session->flight_link);
    session->in_flight = 0;
    if (session->close_requested != 0) {
        _release_session(session);
    }
}

static void _on_async_free_session(void* session) {
    http_session_free((http_session*)session);
}

// ----------------------------------------------------------------------------------------- exports

// False without memory: the session must not go past its proxy.
static bool _copy_proxy(http_options* options, const proxy_info* proxy) {
    if (proxy == nullptr) {
        return copy_default_proxy(&options->proxy);
    }
    options->proxy = copy_proxy_info(proxy);
    return options->proxy != nullptr;
}

http_session* tavHTTPOpen(uint32_t method, const char* url, const proxy_info* proxy,
                          void* user_data, complete_callback callback) {
    if (callback == nullptr) {
        return nullptr;
    }
    http_session* session = http_session_new();
    if (session == nullptr) {
        return nullptr;
    }
    session->user_data = user_data;
    session->complete_cb = callback;
    session->options = new_http_options();
    session->request = new_http_request(session);
    if (session->options == nullptr || session->request == nullptr) {
        _release_session(session);
        return nullptr;
    }
    session->options->session = session;
    session->options->method = method;
    session->options->url = string_dup(url);
    if (!_copy_proxy(session->options, proxy) ||
        (url != nullptr && session->options->url == nullptr)) {
        _release_session(session);
        return nullptr;
    }
    return session;
}

uint32_t tavHTTPSendRequest(http_session* session) {
    if (session == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    if (session->sent.exchange(1, std::memory_order_acq_rel) != 0) {
        // The loop thread owns the records of a session that was sent.
        LOG_ERROR("tavHTTPSendRequest, already sent, id=%u.", session->id);
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    string_replace(&session->request->url, session->options->url);
    session->perf->start.end = GetTickCount();
    LOG_INFO("tavHTTPSendRequest, id=%u, method=%d, url=%s", session->id,
             (int32_t)session->options->method, session_log_url(session, session->options->url));
    uint32_t id = session->id;
    if (!async_run_safe(_on_async_add_task, session)) {
        session->sent.store(0, std::memory_order_release);
        LOG_ERROR("tavHTTPSendRequest, fail to async_run_safe, id=%u.", id);
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t tavHTTPCancelRequest(http_session* session) {
    if (session == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    session_set_flags(session, 1, 0);
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t tavHTTPClose(http_session* session) {
    if (session == nullptr) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    // `closed` is set with the hand-over, behind which the session may be gone, and not at all
    // without it: a session that is kept still has its completion to come.
    bool accepted = async_run_safe_or_discard(_on_async_free_session, session,
                                              _on_async_free_session, &session->closed);
    // The wrong way round, as hosts know it.
    return accepted ? TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC : TAV_HTTP_ERROR_CODE_OK;
}
