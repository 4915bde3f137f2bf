// What the files of the session call in each other. Loop thread only.
#ifndef TAVHTTPCLIENT_HTTPSESSION_STEPS_H
#define TAVHTTPCLIENT_HTTPSESSION_STEPS_H

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

// "*" when the session hides its URL, else `url`. For log lines.
const char* session_log_url(const http_session* session, const char* url);

// In httpsession.cpp.

// Closes the session's connection; it is never given back to the pool.
void close_session_connection(http_session* session);
// Between these two the session's steps are under way, and a close waits for the last of them. The
// session may be gone behind the second.
void start_session_flight(http_session* session);
void end_session_flight(http_session* session);

// In httpsession_flow.cpp.

// First step of a session that was sent.
void _on_async_add_task(void* session);
// Checks method and URL, then connects: the entry of a start, a retry and a redirect.
void _on_async_start_connect(http_session* session);
// True when the session was cancelled: its connection is closed and it has been completed; it may
// be gone.
bool _check_session_cancel_and_notify(http_session* session);
void disarm_session_timer(http_session* session);

// In httpsession_decide.cpp.

// Judges the status of a response that has been received whole.
void _on_recv_finish(http_session* session);
// Sends the session through a new attempt, once in its life; else completes with `code`.
void _start_retry(http_session* session, uint32_t code);

#endif
