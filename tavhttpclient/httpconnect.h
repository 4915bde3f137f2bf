// A connected http_connection for a URL: from the pool, directly, or through a proxy, with TLS for
// https. Loop thread only.
//
// http_connect_start -> _on_async_start_connect -> (direct | HTTP proxy | SOCKS5 proxy)
//   -> _on_tcp_connected -> (TLS handshake) -> _notify_connection_result -> connect_callback
#ifndef TAVHTTPCLIENT_HTTPCONNECT_H
#define TAVHTTPCLIENT_HTTPCONNECT_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"

struct http_connection;
struct tls_state;

// `conn` is owned by the callee on success and null on failure; `peer_addr` is valid during the
// call.
typedef void (*http_connect_cb)(http_connection* conn, http_session* owner,
                                const struct sockaddr_storage* peer_addr, uint32_t code);
typedef void (*http_send_cb)(http_connection* conn, void* user, uint32_t status);
typedef void (*http_recv_cb)(http_connection* conn, void* user, uint32_t status, char* data,
                             int32_t nread);

// Transport operations. 0: the callback follows on a later turn; any other code: it does not.
// `data` and `buffer` must stay valid until the callback. `timeout` in ms, 0 or less: none.
typedef uint32_t (*http_send_op)(http_connection* conn, void* user, const char* data,
                                 int32_t length, int32_t timeout, http_send_cb callback);
typedef uint32_t (*http_recv_op)(http_connection* conn, void* user, char* buffer, uint32_t size,
                                 int32_t timeout, http_recv_cb callback);

enum {
    DEFAULT_CONNECT_TIMEOUT = 15000  // ms
};

struct http_connection {
    uint32_t id;
    uv_tcp_t* stream;  // owned; null until connected, and again after a send time-out
    struct sockaddr_storage peer_addr;  // zero behind a proxy
    char* scheme;
    char* host;
    uint16_t port;
    proxy_info* proxy;  // own copy, or null
    int32_t is_https;
    int32_t connect_timeout;     // ms; 0 or less: the default
    tls_state* tls;              // made at the handshake
    char* expected_cname;        // null: no check
    uint32_t keepalive_timeout;  // ms the connection may stay idle in the pool
    uint32_t max_reuse;          // 0: no limit
    uint32_t reuse_count;        // how often it was taken from the pool
    http_send_op send;           // installed when the connection is reported
    http_recv_op recv;

    // Plain transport.
    uv_write_t write_req;
    uv_buf_t send_buf;
    uv_timer_t* send_timer;
    uv_timer_t* recv_timer;
    char* recv_buf;
    int32_t recv_len;
    uint32_t recv_buf_size;

    http_session* owner;  // who asked for it; cleared when the result is reported
    void* send_user;
    void* recv_user;
    http_connect_cb connect_callback;
    http_send_cb send_callback;
    http_recv_cb recv_callback;

    // Ends the pending step of the establishment early; null: none that can be. Its module sets it.
    void (*abort_step)(void* step);
    void* step;

    // Life time.
    http_session* holder;  // session whose `connection` points here, or null
    int32_t pending;       // operations of libuv whose completion will touch this record
    uint8_t closed;        // destroyed but for `pending`; nothing may be reported any more
    list_link open_link;   // in the list of all connections of the loop
};

// Gets a connection for `url`. Loop thread.
//
// proxy            copied; null or type 0: direct.
// connect_timeout  ms for resolution and connect together; 0 or less: 15000.
// no_pool          true: always a new connection.
// expected_cname   null or empty: the certificate is not looked at.
// session_timeout  accepted, not used.
// Returns 0: _on_http_connect_result is called once, on a later turn; any other code: it is not.
uint32_t http_connect_start(const char* url, const proxy_info* proxy, http_session* owner,
                            int32_t connect_timeout, bool no_pool, bool hide_url,
                            const char* expected_cname, int32_t session_timeout);

// Closes and destroys. False for null or off the loop thread. Nothing is reported any more; the
// record itself lives on until the last pending completion has come back.
bool http_connect_close(http_connection* conn);

// http_connect_close without its thread check and log line. For the end of the loop, when the loop
// no longer answers for its thread.
void http_connection_destroy(http_connection* conn);

// Ends the pending network step of a cancelled session at once: a lookup, connect attempts, the
// handshake with a proxy, a TLS handshake, a send or a receive. The step's result comes on a later
// turn as after its time-out, with the same lines, and the session goes on from there as it does
// when it was cancelled. A session without a pending network step goes on by itself. Loop thread.
//
// session  its cancel flag is set.
void abort_network_step(http_session* session);

// True when the connection is closed, or its session has been cancelled.
bool http_connect_is_cancelled(const http_connection* conn);

// What ends the establishment's pending step from now on. Null: no connection, nothing happens.
void http_connection_set_step(http_connection* conn, void (*abort_step)(void* step), void* step);

// Each operation whose completion will touch the record holds it meanwhile. The completion begins
// with http_connection_release: false means that the connection was closed in between; the record
// may be gone and must not be touched.
void http_connection_hold(http_connection* conn);
bool http_connection_release(http_connection* conn);

// Closes every connection that still exists, pooled or held by a session. End of the loop.
void http_connect_close_all(void);

#endif
