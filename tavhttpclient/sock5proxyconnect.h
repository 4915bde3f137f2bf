// A tunnel through a SOCKS5 proxy, with user name and password. Loop thread only.
#ifndef TAVHTTPCLIENT_SOCK5PROXYCONNECT_H
#define TAVHTTPCLIENT_SOCK5PROXYCONNECT_H

#include "tavhttpclient/httpproxyconnect.h"

// True for type 2 with a host and a port.
bool is_valid_sock5_proxy(const proxy_info* proxy);

// As http_proxy_connect. Names are resolved by the proxy.
uint32_t sock5_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                             http_connection* user, int32_t timeout, proxy_connect_cb callback);

#endif
