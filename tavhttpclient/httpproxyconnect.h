// A tunnel through an HTTP proxy: CONNECT, with Basic authentication. Loop thread only.
#ifndef TAVHTTPCLIENT_HTTPPROXYCONNECT_H
#define TAVHTTPCLIENT_HTTPPROXYCONNECT_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/tavhttpclient.h"

// Status 0: a connected tunnel, owned by the callee. Else `tcp` is null. Shared with SOCKS5.
typedef void (*proxy_connect_cb)(uint32_t status, uv_tcp_t* tcp,
                                 const struct sockaddr_storage* address, proxy_info* proxy,
                                 http_connection* user);

// True for type 1 with a host and a port.
bool is_valid_http_proxy(const proxy_info* proxy);

// Reaches the proxy within `timeout` ms and asks it for host:port.
//
// proxy    must outlive the exchange.
// Returns  0: `callback` is called once, later; any other code: it is not.
uint32_t http_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                            http_connection* user, int32_t timeout, proxy_connect_cb callback);

// Reads the status code of a reply; 0 and false when these bytes do not hold one.
bool _parse_proxy_status_code(const char* bytes, int32_t count, int32_t* output);
// The code that a reply to CONNECT ends the exchange with; 0: the tunnel stands.
uint32_t judge_proxy_reply(const char* reply, int32_t count);

#endif
