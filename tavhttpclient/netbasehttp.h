// The plain transport: one write and one read at a time, each with a time-out. Loop thread only.
#ifndef TAVHTTPCLIENT_NETBASEHTTP_H
#define TAVHTTPCLIENT_NETBASEHTTP_H

#include "tavhttpclient/transport.h"

// See http_send_op and http_recv_op.
uint32_t http_send(http_connection* conn, void* user, const char* data, int32_t length,
                   int32_t timeout, http_send_cb callback);
// A peer's orderly close is status 0 with nread 0.
uint32_t http_recv(http_connection* conn, void* user, char* buffer, uint32_t size, int32_t timeout,
                   http_recv_cb callback);

#endif
