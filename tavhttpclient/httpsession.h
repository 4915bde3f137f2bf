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

#include "tavhttpclient/session_record.h"

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

http_session* http_session_new(void);
// Releases the session, or marks it for release at its last step when it is in flight. Loop thread.
void http_session_free(http_session* session);

// "*" when the session hides its URL, else `url`. For log lines.
const char* session_log_url(const http_session* session, const char* url);

// For the end of the loop, on the loop thread: cancels everything in flight; how many there are.
void cancel_sessions_in_flight(void);
int32_t count_sessions_in_flight(void);

#endif
