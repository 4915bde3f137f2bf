// The life of a connection record, and the way to the TLS module.
//
// A record that is closed while libuv or a worker still has something of it stays in memory, marked
// `closed`, until the last such completion has released it.
#include "tavhttpclient/transport.h"

#include <stddef.h>
#include <stdlib.h>

#include "platform/win_socket.h"
#include "platform/win_time.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"

// The first connection of a process gets 2.
static volatile LONG last_conn_id = 1;

// Every connection that has not been closed.
static list_link open_connections = {&open_connections, &open_connections};

static tls_ops* registered_tls_ops = nullptr;

// ---------------------------------------------------------------------------------- life time

static http_connection* _connection_of_link(list_link* link) {
    return (http_connection*)((char*)link - offsetof(http_connection, open_link));
}

void http_connection_open(http_connection* conn) {
    conn->id = next_id(&last_conn_id);
    list_append(&open_connections, &conn->open_link);
}

// A worker may be inside the TLS state until the last hold is released, so it goes with the memory.
static void _free_connection(http_connection* conn) {
    const tls_ops* ops = registered_tls_ops;
    if (conn->tls != nullptr && ops != nullptr && ops->free_tls_state != nullptr) {
        ops->free_tls_state(conn->tls);
    }
    free(conn->expected_cname);
    free(conn->host);
    free(conn->scheme);
    free_proxy_info(conn->proxy);
    free(conn);
}

void http_connection_destroy(http_connection* conn) {
    conn->closed = 1;
    list_unlink(&conn->open_link);
    conn->connect_callback = nullptr;
    conn->send_callback = nullptr;
    conn->recv_callback = nullptr;
    conn->owner = nullptr;
    conn->holder = nullptr;
    conn->send_user = nullptr;
    conn->recv_user = nullptr;
    close_uv_tcp(&conn->stream);
    close_uv_timer(&conn->send_timer);
    close_uv_timer(&conn->recv_timer);
    if (conn->pending == 0) {
        _free_connection(conn);
    }
}

bool http_connect_close(http_connection* conn) {
    if (!LOG_ASSERT(is_loop_thread())) {
        LOG_ERROR("http_connect_close, invalid calling thread.");
        return false;
    }
    if (conn == nullptr) {
        return false;
    }
    LOG_DETAIL("http_connect_close, id=%d", (int)conn->id);
    http_connection_destroy(conn);
    return true;
}

void http_connection_destroy_all(void) {
    while (!list_empty(&open_connections)) {
        http_connection* conn = _connection_of_link(open_connections.next);
        if (conn->holder != nullptr) {
            conn->holder->connection = nullptr;
        }
        http_connection_destroy(conn);
    }
}

void http_connection_hold(http_connection* conn) {
    ++conn->pending;
}

bool http_connection_release(http_connection* conn) {
    --conn->pending;
    if (conn->closed == 0) {
        return true;
    }
    if (conn->pending == 0) {
        _free_connection(conn);
    }
    return false;
}

// Nothing can have closed the connection since its hold.
void http_connection_unhold(http_connection* conn) {
    --conn->pending;
}

http_connection* http_connection_of(const http_session* session) {
    for (list_link* link = open_connections.next; link != &open_connections; link = link->next) {
        http_connection* conn = _connection_of_link(link);
        if (conn->owner == session || conn->holder == session) {
            return conn;
        }
    }
    return nullptr;
}

bool http_connection_is_cancelled(const http_connection* conn) {
    const http_session* session = conn->owner != nullptr ? conn->owner : conn->holder;
    return conn->closed != 0 || (session != nullptr && session_is_cancelled(session));
}

void http_connection_set_step(http_connection* conn, void (*abort_step)(void* step), void* step) {
    if (conn != nullptr) {
        conn->abort_step = abort_step;
        conn->step = step;
    }
}

// The time-outs of the plain transport serve the handshakes and records of TLS too.
void http_connection_abort(http_connection* conn) {
    if (conn->abort_step != nullptr) {
        conn->abort_step(conn->step);
    }
    expire_uv_timer(conn->send_timer);
    expire_uv_timer(conn->recv_timer);
}

// The connection's socket; false: there is none, or nothing waits on it.
static bool _find_waiting(const http_connection* conn, SOCKET* output) {
    uv_os_fd_t descriptor;
    u_long waiting = 0;
    if (conn->stream == nullptr || uv_fileno((const uv_handle_t*)conn->stream, &descriptor) != 0) {
        return false;
    }
    *output = (SOCKET)(intptr_t)descriptor;
    return ioctlsocket(*output, FIONREAD, &waiting) == 0 && waiting != 0;
}

bool http_connection_has_unread(http_connection* conn) {
    SOCKET descriptor;
    return conn->has_unread != nullptr ? conn->has_unread(conn) : _find_waiting(conn, &descriptor);
}

int32_t http_connection_take_waiting(const http_connection* conn, char* buffer, int32_t size) {
    SOCKET descriptor;
    return _find_waiting(conn, &descriptor) ? (int32_t)recv(descriptor, buffer, (uint32_t)size, 0)
                                            : 0;
}

// ---------------------------------------------------------------------------------------- TLS

tls_ops* get_tls_ops(void) {
    return registered_tls_ops;
}

void set_tls_ops(tls_ops* ops) {
    registered_tls_ops = ops;
}

uint32_t https_send(http_connection* conn, void* user, const char* data, int32_t length,
                    int32_t timeout, http_send_cb callback) {
    if (registered_tls_ops == nullptr || registered_tls_ops->https_send == nullptr) {
        return TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS;
    }
    return registered_tls_ops->https_send(conn, user, data, length, timeout, callback);
}

uint32_t https_recv(http_connection* conn, void* user, char* buffer, uint32_t size, int32_t timeout,
                    http_recv_cb callback) {
    if (registered_tls_ops == nullptr || registered_tls_ops->https_recv == nullptr) {
        return TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS;
    }
    return registered_tls_ops->https_recv(conn, user, buffer, size, timeout, callback);
}
