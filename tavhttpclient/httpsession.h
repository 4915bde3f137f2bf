// The session record and the flow of one transfer.
//
// tavHTTPSendRequest -> _on_async_add_task -> (task manager) -> start_http_session
//   -> _on_async_start_connect -> connecting_callback -> http_connect_start
//   -> _on_http_connect_result -> connected_callback -> http_send_request
//   -> _on_http_send_request_result -> http_recv_response -> _on_http_recv_response_result
//   -> _on_recv_finish -> redirect | retry | _notify_download_complete -> complete_callback
#ifndef TAVHTTPCLIENT_HTTPSESSION_H
#define TAVHTTPCLIENT_HTTPSESSION_H

#include <stdint.h>
#include <uv.h>

#include <atomic>

#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/worker.h"

// Start and end of a phase, tick counts in ms; start 0: never began, end 0: not ended.
struct perf_pair {
    uint64_t start;
    uint64_t end;
};

struct perf_times {
    perf_pair start;  // tavHTTPOpen to tavHTTPSendRequest
    perf_pair queue;  // waiting in the task manager
    perf_pair connect;
    perf_pair send;
    perf_pair recv;
};

// The two flags that the host may write at any time, stored together in one atomic store; aligned
// so that the store is one instruction.
struct alignas(2) session_flags {
    uint8_t cancel;
    uint8_t timed_out;  // set, together with cancel, by the session time-out only
};
static_assert(sizeof(session_flags) == 2 && std::atomic<session_flags>::is_always_lock_free,
              "both flags are stored at once");

// Bytes per second over the last seconds: bucket i serves the seconds that are i modulo 5.
struct rate_bucket {
    uint64_t second;
    uint64_t bytes;
};

struct rate_ring {
    rate_bucket buckets[5];
};

// Figures since the loop started. Loop thread only.
struct session_stats {
    uint64_t sent_total;
    uint64_t recv_total;
    rate_ring sent_rate;
    rate_ring recv_rate;
    int32_t alive;
    int32_t max_alive;
    uint64_t total;
};

// Written by the host until it is sent, then by the loop thread and by one worker step at a time.
struct http_session {
    uint32_t id;
    http_options* options;
    http_request* request;
    http_response* response;
    http_connection* connection;  // null when there is none
    void* user_data;
    void* task;  // the task manager's record
    int32_t retry_count;
    int32_t result;  // final code; -1 until completion
    std::atomic<session_flags> flags;
    uv_timer_t* timer;  // session time-out; null when not armed
    int32_t running_priority;
    struct sockaddr_storage peer_address;
    perf_times* perf;
    worker_step work_req;  // its data is the session
    uint32_t work_result;  // of the last worker step of a send or receive
    void (*on_send_result)(http_session* session, uint32_t code);
    void (*on_recv_result)(http_session* session, uint32_t code);
    void (*task_finish_hook)(void* task);
    void (*task_release_hook)(void* task);
    connecting_callback connecting_cb;
    connected_callback connected_cb;
    upload_progress_callback upload_progress_cb;
    response_header_callback response_header_cb;
    download_start_callback download_start_cb;
    download_data_callback download_data_cb;
    redirect_callback redirect_cb;
    complete_callback complete_cb;

    // How a close in flight is made safe.
    std::atomic<uint8_t> sent;    // tavHTTPSendRequest has been accepted
    std::atomic<uint8_t> closed;  // tavHTTPClose was called: no host callback is started any more
    uint8_t in_flight;            // loop thread: between _on_async_add_task and the last step
    uint8_t completing;           // loop thread: the completion is on its way
    uint8_t close_requested;      // loop thread: release when no longer in flight
    list_link flight_link;        // in the loop's list of sessions in flight
};

// The figures of the running loop, or null. Loop thread.
session_stats* get_session_stats(void);
bool init_session_stats(void);
void uninit_session_stats(void);

void rate_ring_add(rate_ring* ring, uint64_t count);
float rate_ring_rate(const rate_ring* ring);

http_session* http_session_new(void);
// Releases the session, or marks it for release at its last step when it is in flight. Loop thread.
void http_session_free(http_session* session);

// Called by the task manager when the session may run.
void start_http_session(http_session* session);
// Ends a session that was sent: statistics, hand-back of the connection, task hooks, host.
void _notify_download_complete(http_session* session, uint32_t code);

// The time-out of one send or receive in ms; always positive.
int32_t _get_io_timeout(http_session* session);

// Handlers of the layers below.
void _on_http_connect_result(http_connection* connection, http_session* session,
                             const struct sockaddr_storage* peer_address, uint32_t code);
void _on_http_send_request_result(http_session* session, uint32_t code);
void _on_http_recv_response_result(http_session* session, uint32_t code);

inline bool session_is_cancelled(const http_session* session) {
    return session->flags.load(std::memory_order_relaxed).cancel != 0;
}

inline void session_set_flags(http_session* session, uint8_t cancel, uint8_t timed_out) {
    session->flags.store(session_flags{cancel, timed_out}, std::memory_order_relaxed);
}

// False once the host has closed the session: no callback may be started then. Any thread.
inline bool session_may_call_host(const http_session* session) {
    return session->closed.load(std::memory_order_acquire) == 0;
}

// "*" when the session hides its URL, else `url`. For log lines.
inline const char* session_log_url(const http_session* session, const char* url) {
    return session->options != nullptr && session->options->hide_url != 0 ? "*" : url;
}

// For the end of the loop, on the loop thread: cancels everything in flight; how many there are.
void cancel_sessions_in_flight(void);
int32_t count_sessions_in_flight(void);

#endif
