// A tunnel through an HTTP proxy: CONNECT, with Basic authentication. Loop thread only.
#ifndef TAVHTTPCLIENT_HTTPPROXYCONNECT_H
#define TAVHTTPCLIENT_HTTPPROXYCONNECT_H

#include "tavhttpclient/proxyconnect.h"

// The operations of http_proxy_kind.
bool is_valid_http_proxy(const proxy_info* proxy);
uint32_t http_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                            http_connection* user, int32_t timeout, proxy_connect_cb callback);

// Reads the status code of a reply; 0 and false when these bytes do not hold one.
bool _parse_proxy_status_code(const char* bytes, int32_t count, int32_t* output);
// The code that a reply to CONNECT ends the exchange with; 0: the tunnel stands.
uint32_t judge_proxy_reply(const char* reply, int32_t count);

#endif
