// The plain transport, and the table through which the TLS transport is reached. Loop thread only.
#ifndef TAVHTTPCLIENT_NETBASEHTTP_H
#define TAVHTTPCLIENT_NETBASEHTTP_H

#include "tavhttpclient/httpconnect.h"

// See http_send_op and http_recv_op. One send and one receive at most may be pending.
uint32_t http_send(http_connection* conn, void* user, const char* data, int32_t length,
                   int32_t timeout, http_send_cb callback);
// A peer's orderly close is status 0 with nread 0.
uint32_t http_recv(http_connection* conn, void* user, char* buffer, uint32_t size, int32_t timeout,
                   http_recv_cb callback);

// The operations of a TLS module.
struct tls_ops {
    void (*tls_init)(void);
    void (*tls_uninit)(void);
    void (*free_tls_state)(tls_state* state);
    uint32_t (*https_connect)(http_connection* conn, http_connect_cb callback);
    http_send_op https_send;
    http_recv_op https_recv;
};

// The registered table; null: the library has no TLS.
tls_ops* get_tls_ops(void);
void set_tls_ops(tls_ops* ops);
// Fills and initialises the table, if the library was built with TLS. Loop start.
void register_tls_ops(void);

// Through the table; TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS without one.
uint32_t https_send(http_connection* conn, void* user, const char* data, int32_t length,
                    int32_t timeout, http_send_cb callback);
uint32_t https_recv(http_connection* conn, void* user, char* buffer, uint32_t size, int32_t timeout,
                    http_recv_cb callback);

#endif
