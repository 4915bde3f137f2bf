// Receiving a response, writing its body to memory or to a file, and settling the file.
//
// http_recv_response -> recv -> _work_parse_response -> _work_write_body -> (recv again | finish)
//   -> close, rename or delete the file -> on_recv_result
#ifndef TAVHTTPCLIENT_HTTPRESPONSE_H
#define TAVHTTPCLIENT_HTTPRESPONSE_H

#include "tavhttpclient/response_record.h"

// New record for the response to the session's request; null without memory. The session's URL must
// stay as it is while the response is received.
http_response* new_http_response(http_session* session);

// Frees a response with all it owns; null is allowed. Loop thread (an open file is closed
// asynchronously there, at once elsewhere).
void free_http_response(http_response* response);

// Receives the response to the request just sent: frees the session's old response, makes a new
// one and starts. Loop thread.
//
// Returns 0: the session's on_recv_result is called once, later; any other code: it is not.
uint32_t http_recv_response(http_session* session);

// Frees the receive buffers that are kept for the next responses. Loop thread, at its end.
void free_spare_recv_buffers(void);

#endif
