// What a kind of proxy is for the connection layer. Loop thread only.
#ifndef TAVHTTPCLIENT_PROXYCONNECT_H
#define TAVHTTPCLIENT_PROXYCONNECT_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/tavhttpclient.h"

struct http_connection;

// Status 0: a connected tunnel, owned by the callee. Else `tcp` is null.
typedef void (*proxy_connect_cb)(uint32_t status, uv_tcp_t* tcp,
                                 const struct sockaddr_storage* address, proxy_info* proxy,
                                 http_connection* user);

struct proxy_kind {
    uint32_t type;            // TAV_HTTP_PROXY_...
    const char* name;         // of `connect`, in log lines
    const char* result_name;  // of its result, likewise

    // True for its type with a host and a port.
    bool (*valid)(const proxy_info* proxy);

    // Reaches the proxy within `timeout` ms and asks it for host:port.
    //
    // proxy    must outlive the exchange.
    // user     may be null; its cancel ends the exchange, and it is told how to abort it.
    // Returns  0: `callback` is called once, later; any other code: it is not.
    uint32_t (*connect)(const char* host, uint16_t port, proxy_info* proxy, http_connection* user,
                        int32_t timeout, proxy_connect_cb callback);
};

extern const proxy_kind http_proxy_kind;
extern const proxy_kind sock5_proxy_kind;

#endif
