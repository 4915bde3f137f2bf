// The session record, and the few calls that the layers below the session make.
//
// Everything below the session includes this header and nothing more of it. All records that the
// session points to are their own modules' affair; who reads one includes its header.
#ifndef TAVHTTPCLIENT_SESSION_RECORD_H
#define TAVHTTPCLIENT_SESSION_RECORD_H

#include <stdint.h>
#include <uv.h>

#include <atomic>

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/worker.h"

struct http_connection;
struct http_options;
struct http_request;
struct http_response;
struct perf_times;

// The two flags that the host may write at any time, stored together in one atomic store; aligned
// so that the store is one instruction.
struct alignas(2) session_flags {
    uint8_t cancel;
    uint8_t timed_out;  // set, together with cancel, by the session time-out only
};
static_assert(sizeof(session_flags) == 2 && std::atomic<session_flags>::is_always_lock_free,
              "both flags are stored at once");

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
    uv_timer_t* timer;         // session time-out; null when not armed
    int32_t running_priority;  // unread
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
    list_link flight_link;        // in the list of sessions in flight
};

// ---------------------------------------------------------------------------------- any thread

inline bool session_is_cancelled(const http_session* session) {
    return session->flags.load(std::memory_order_relaxed).cancel != 0;
}

inline void session_set_flags(http_session* session, uint8_t cancel, uint8_t timed_out) {
    session->flags.store(session_flags{cancel, timed_out}, std::memory_order_relaxed);
}

// False once the host has closed the session: no callback may be started then.
inline bool session_may_call_host(const http_session* session) {
    return session->closed.load(std::memory_order_acquire) == 0;
}

// --------------------------------------------------------------------------------- loop thread

// The time-out of one send or receive in ms; always positive.
int32_t _get_io_timeout(http_session* session);

// Starts a queued session. Called by the task manager.
void start_http_session(http_session* session);

// Ends a session that was sent: statistics, hand-back of the connection, task hooks, host.
void _notify_download_complete(http_session* session, uint32_t code);

// Result handlers. The layer that runs the step installs the handler in its record, and calls it
// once, on a later turn. `connection` is the session's from here on, null on failure;
// `peer_address` is valid during the call.
void _on_http_connect_result(http_connection* connection, http_session* session,
                             const struct sockaddr_storage* peer_address, uint32_t code);
void _on_http_send_request_result(http_session* session, uint32_t code);
void _on_http_recv_response_result(http_session* session, uint32_t code);

#endif
