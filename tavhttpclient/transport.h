// The connection record, and what a transport is: the operations that the plain and the TLS
// transport both implement, and the life of the record under them. Loop thread only.
#ifndef TAVHTTPCLIENT_TRANSPORT_H
#define TAVHTTPCLIENT_TRANSPORT_H

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
// `data` and `buffer` must stay valid until the callback. `timeout` in ms, 0 or less: none. One
// send and one receive at most may be pending.
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
    int32_t connect_timeout;                    // ms; 0 or less: the default
    tls_state* tls;                             // made at the handshake
    bool (*has_unread)(http_connection* conn);  // set with `tls`: data lies behind the last receive
    char* expected_cname;                       // null: no check
    uint32_t keepalive_timeout;                 // ms the connection may stay idle in the pool
    uint32_t max_reuse;                         // 0: no limit
    uint32_t reuse_count;                       // how often it was taken from the pool
    http_send_op send;                          // installed when the connection is reported
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

    // Ends the pending step of the establishment early; null: none that can be.
    void (*abort_step)(void* step);
    void* step;

    // Life time.
    http_session* holder;  // session whose `connection` points here, or null
    int32_t pending;       // operations of libuv whose completion will touch this record
    uint8_t closed;        // destroyed but for `pending`; nothing may be reported any more
    list_link open_link;   // in the list of all connections of the loop
};

// ---------------------------------------------------------------------------------- life time

// Gives a new record its id and a place among the open connections.
void http_connection_open(http_connection* conn);

// Closes and destroys. False for null or off the loop thread. Nothing is reported any more; the
// record itself lives on until the last pending completion has come back.
bool http_connect_close(http_connection* conn);
// http_connect_close without its thread check and log line.
void http_connection_destroy(http_connection* conn);
// Destroys every open connection, also one that a session holds. End of the loop.
void http_connection_destroy_all(void);

// Each operation whose completion will touch the record holds it meanwhile. The completion begins
// with http_connection_release: false means that the connection was closed in between; the record
// may be gone and must not be touched. An operation that could not be started takes its hold back.
void http_connection_hold(http_connection* conn);
bool http_connection_release(http_connection* conn);
void http_connection_unhold(http_connection* conn);

// The open connection that a session waits for or holds; null without one.
http_connection* http_connection_of(const http_session* session);
// True when the connection is closed, or its session has been cancelled.
bool http_connection_is_cancelled(const http_connection* conn);

// What ends the establishment's pending step from now on. Null: no connection, nothing happens.
void http_connection_set_step(http_connection* conn, void (*abort_step)(void* step), void* step);
// Ends the pending step of an establishment, a send or a receive as its time-out would: its result
// comes on a later turn.
void http_connection_abort(http_connection* conn);

// True when the peer of an idle connection has sent something that nobody asked for. An orderly end
// is nothing; nor are the tickets and new keys of TLS.
bool http_connection_has_unread(http_connection* conn);
// Takes what waits on the socket of an idle connection, at most `size` bytes; 0: nothing does;
// negative: it cannot be read.
int32_t http_connection_take_waiting(const http_connection* conn, char* buffer, int32_t size);

// ---------------------------------------------------------------------------------------- TLS

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
