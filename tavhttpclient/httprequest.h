// The request record, and sending it: its head and its body items.
//
// http_send_request -> _work_init_upload_data (worker: items, head)
//   -> head -> for each item: part header -> content chunks -> tailer -> on_send_result
#ifndef TAVHTTPCLIENT_HTTPREQUEST_H
#define TAVHTTPCLIENT_HTTPREQUEST_H

#include "tavhttpclient/request_record.h"

http_request* new_http_request(http_session* session);
// Null is allowed.
void free_http_request(http_request* request);

// Sends the session's request over its connection. Loop thread.
//
// Returns 0: the session's on_send_result is called once, later; any other code: it is not.
uint32_t http_send_request(http_session* session);

#endif
