// Sessions, as the frame sees them: made and freed, and cancelled at the end of the loop.
#ifndef TAVHTTPCLIENT_HTTPSESSION_H
#define TAVHTTPCLIENT_HTTPSESSION_H

#include "tavhttpclient/session_record.h"

http_session* http_session_new(void);
// Releases the session, or marks it for release at its last step when it is in flight. Loop thread.
void http_session_free(http_session* session);

// For the end of the loop, on the loop thread: cancels everything in flight, which then ends
// without waiting for the network; whether there is any.
void cancel_sessions_in_flight(void);
bool any_session_in_flight(void);

#endif
