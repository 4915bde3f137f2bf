// A tunnel through a SOCKS5 proxy, with user name and password. Loop thread only.
#ifndef TAVHTTPCLIENT_SOCK5PROXYCONNECT_H
#define TAVHTTPCLIENT_SOCK5PROXYCONNECT_H

#include "tavhttpclient/proxyconnect.h"

// The operations of sock5_proxy_kind. Names are resolved by the proxy.
bool is_valid_sock5_proxy(const proxy_info* proxy);
uint32_t sock5_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                             http_connection* user, int32_t timeout, proxy_connect_cb callback);

// The code that the reply to a greeting with one `offered` method ends the handshake with; 0: the
// method is agreed.
uint32_t sock5_judge_method_reply(const uint8_t* reply, int32_t length, uint8_t offered);
// True when the reply to CONNECT grants it; keeps the address that it names, the port in host
// order.
bool sock5_accept_connect_reply(const uint8_t* reply, int32_t length,
                                struct sockaddr_storage* bound_address);

#endif
