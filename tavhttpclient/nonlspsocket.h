// Sockets on the system's own TCP/IP provider, past layered ones. Loop thread only.
#ifndef TAVHTTPCLIENT_NONLSPSOCKET_H
#define TAVHTTPCLIENT_NONLSPSOCKET_H

#include <uv.h>

#include "platform/win_socket.h"

// Initialises `handle` with a socket of its own (TCP_NODELAY), bound to port 0 of the any-address.
//
// family   AF_INET or AF_INET6.
// Returns  0; -1 for bad arguments; else libuv's code, the socket closed again. `initialised` tells
//          whether uv_tcp_init succeeded: the handle must then be given up through uv_close, also
//          after a failure; otherwise its memory is simply freed.
int32_t uv_client_tcp_init(uv_loop_t* loop, uv_tcp_t* handle, int32_t family, bool* initialised);

// INVALID_SOCKET when every way failed.
SOCKET CreateNonLSPSocket(int32_t family);
// New listing of the catalogue's IPv4 entries, a line each; may be empty.
char* LogWSAProtocols(void);

#endif
