// How a session ends: the decision after a response, redirect, retry, completion. Loop thread only.
#ifndef TAVHTTPCLIENT_HTTPSESSION_FINISH_H
#define TAVHTTPCLIENT_HTTPSESSION_FINISH_H

#include "tavhttpclient/httpsession.h"

// In httpsession.cpp.

// True when the session was cancelled: its connection is closed and it has been completed; it may
// be gone.
bool _check_session_cancel_and_notify(http_session* session);
// Checks method and URL, then connects: the entry of a start, a retry and a redirect.
void _on_async_start_connect(http_session* session);
void close_session_connection(http_session* session);
void disarm_session_timer(http_session* session);
// The last step has come back: a close that waited for it is carried out. The session may be gone.
void end_session_flight(http_session* session);

inline http_session* session_of_flight_link(list_link* link) {
    return (http_session*)((char*)link - offsetof(http_session, flight_link));
}

// In httpsession_finish.cpp.

// Judges the status of a response that has been received whole.
void _on_recv_finish(http_session* session);
// Sends the session through a new attempt, once in its life; else completes with `code`.
void _start_retry(http_session* session, uint32_t code);

#endif
