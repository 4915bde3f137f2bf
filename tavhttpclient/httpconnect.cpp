// A connection for a session:
//
//   http_connect_start -> (pooled: _on_async_notify_connection_result)
//     -> _on_async_start_connect
//     -> _direct_connect_result | _http_proxy_connect_result | _sock5_proxy_connect_result
//     -> _on_tcp_connected -> (_on_https_connect_result) -> _notify_connection_result
//     -> connect_callback
//
// A record that is closed while libuv or a worker still has something of it stays in memory, marked
// `closed`, until the last such completion has released it.
#include "tavhttpclient/httpconnect.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "platform/win_time.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/httpproxyconnect.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/netbasehttp.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/sock5proxyconnect.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhelper.h"

// What a URL says about the server. The texts are owned.
struct connect_target {
    char* scheme;
    char* host;
    uint16_t port;
    int32_t is_https;
};

static volatile LONG _last_conn_id = 1;
// Every connection that has not been closed.
static list_link _open_connections = {&_open_connections, &_open_connections};

// ---------------------------------------------------------------------------------- life time

// A worker may be inside the TLS state until the last hold is released, so it goes with the memory.
static void _free_connection(http_connection* conn) {
    tls_ops* ops = get_tls_ops();
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

// Takes back a hold of an operation that has not started, which nothing can have closed meanwhile.
static void _unhold(http_connection* conn) {
    --conn->pending;
}

bool http_connect_is_cancelled(const http_connection* conn) {
    const http_session* session = conn->owner != nullptr ? conn->owner : conn->holder;
    return conn->closed != 0 || (session != nullptr && session_is_cancelled(session));
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

void http_connect_close_all(void) {
    release_connection_pool();
    while (!list_empty(&_open_connections)) {
        char* link = (char*)_open_connections.next;
        http_connection* conn = (http_connection*)(link - offsetof(http_connection, open_link));
        if (conn->holder != nullptr) {
            conn->holder->connection = nullptr;
        }
        http_connection_destroy(conn);
    }
}

// -------------------------------------------------------------------------------- early end

static http_connection* _connection_of(const http_session* session) {
    for (list_link* link = _open_connections.next; link != &_open_connections; link = link->next) {
        http_connection* conn =
            (http_connection*)((char*)link - offsetof(http_connection, open_link));
        if (conn->owner == session || conn->holder == session) {
            return conn;
        }
    }
    return nullptr;
}

// The time-outs of the plain transport serve the handshakes and records of TLS too.
void abort_network_step(http_session* session) {
    http_connection* conn = session != nullptr ? _connection_of(session) : nullptr;
    if (conn == nullptr) {
        return;
    }
    if (conn->abort_step != nullptr) {
        conn->abort_step(conn->step);
    }
    expire_uv_timer(conn->send_timer);
    expire_uv_timer(conn->recv_timer);
}

void http_connection_set_step(http_connection* conn, void (*abort_step)(void* step), void* step) {
    if (conn != nullptr) {
        conn->abort_step = abort_step;
        conn->step = step;
    }
}

// ------------------------------------------------------------------------------------ result

// The one exit of every establishment. A failure destroys the record.
static void _notify_connection_result(http_connection* conn, uint32_t code) {
    if (!LOG_ASSERT(conn != nullptr)) {
        return;
    }
    http_session* owner = conn->owner;
    http_connect_cb callback = conn->connect_callback;
    struct sockaddr_storage peer_addr = conn->peer_addr;
    LOG_DETAIL("_notify_connection_result, id=%u, error_code=%d, callback=0x%p", conn->id,
               (int)code, (void*)callback);
    conn->owner = nullptr;
    conn->connect_callback = nullptr;
    if (code == TAV_HTTP_ERROR_CODE_OK) {
        conn->send = conn->is_https != 0 ? https_send : http_send;
        conn->recv = conn->is_https != 0 ? https_recv : http_recv;
    } else {
        http_connection_destroy(conn);
        conn = nullptr;
    }
    if (callback != nullptr) {
        callback(conn, owner, &peer_addr, code);
    }
}

// Loop thread. From http_connect_start with a pooled connection.
static void _on_async_notify_connection_result(void* argument) {
    http_connection* conn = (http_connection*)argument;
    if (!LOG_ASSERT(conn != nullptr) || !http_connection_release(conn)) {
        return;
    }
    _notify_connection_result(conn, TAV_HTTP_ERROR_CODE_OK);
}

// Loop thread. From _on_tcp_connected, through the TLS module; next _notify_connection_result.
static void _on_https_connect_result(http_connection* conn, http_session* owner,
                                     const struct sockaddr_storage* peer_addr, uint32_t code) {
    (void)owner;
    (void)peer_addr;
    _notify_connection_result(conn, code);
}

static void _on_tcp_connected(http_connection* conn) {
    tls_ops* ops = get_tls_ops();
    uint32_t err = TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS;
    if (conn->is_https == 0) {
        _notify_connection_result(conn, TAV_HTTP_ERROR_CODE_OK);
        return;
    }
    if (ops != nullptr && ops->https_connect != nullptr) {
        err = ops->https_connect(conn, _on_https_connect_result);
    }
    if (err != 0) {
        _notify_connection_result(conn, err);
    }
}

// Loop thread. From _start_direct; next _on_tcp_connected.
static void _direct_connect_result(uint32_t status, uv_tcp_t* tcp,
                                   const struct sockaddr_storage* addr, void* user_data) {
    http_connection* conn = (http_connection*)user_data;
    http_connection_set_step(conn, nullptr, nullptr);
    if (!http_connection_release(conn)) {
        close_uv_tcp(&tcp);
        return;
    }
    if (addr != nullptr) {
        conn->peer_addr = *addr;
    }
    if (status != TAV_HTTP_ERROR_CODE_OK) {
        LOG_INFO("_direct_connect_result, failed, status=%d", (int)status);
        _notify_connection_result(conn, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    if (!LOG_ASSERT(tcp != nullptr)) {
        LOG_INFO("_direct_connect_result, socket is NULL, status=%d", (int)status);
        _notify_connection_result(conn, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    conn->stream = tcp;
    _on_tcp_connected(conn);
}

// Takes the tunnel's handle over; false when the proxy did not bring one.
static bool _take_proxy_result(http_connection* conn, const char* function, uint32_t status,
                               uv_tcp_t* tcp) {
    if (status != TAV_HTTP_ERROR_CODE_OK) {
        if (!LOG_ASSERT_IN(function, tcp == nullptr)) {
            close_uv_tcp(&tcp);
        }
        free_proxy_info(conn->proxy);
        conn->proxy = nullptr;
        return false;
    }
    if (!LOG_ASSERT_IN(function, conn->stream == nullptr)) {
        close_uv_tcp(&conn->stream);
    }
    conn->stream = tcp;
    return LOG_ASSERT_IN(function, tcp != nullptr);
}

// Loop thread. From both proxy results; next _on_tcp_connected.
static void _on_proxy_result(http_connection* conn, const char* function, uint32_t status,
                             uv_tcp_t* tcp) {
    http_connection_set_step(conn, nullptr, nullptr);
    if (!http_connection_release(conn)) {
        close_uv_tcp(&tcp);
        return;
    }
    if (_take_proxy_result(conn, function, status, tcp)) {
        _on_tcp_connected(conn);
        return;
    }
    if (status == TAV_HTTP_ERROR_CODE_OK) {
        status = TAV_HTTP_ERROR_CODE_FAIL_CONNECT;  // Success without a handle is none.
    }
    _notify_connection_result(conn, status);
}

// Loop thread. From _start_proxy.
static void _http_proxy_connect_result(uint32_t status, uv_tcp_t* tcp,
                                       const struct sockaddr_storage* address, proxy_info* proxy,
                                       http_connection* conn) {
    (void)address;
    (void)proxy;
    if (status != TAV_HTTP_ERROR_CODE_OK && conn->closed == 0) {
        LOG_INFO("_http_proxy_connect_result, failed, result=%d", (int)status);
    }
    _on_proxy_result(conn, "_http_proxy_connect_result", status, tcp);
}

// Loop thread. From _start_proxy.
static void _sock5_proxy_connect_result(uint32_t status, uv_tcp_t* tcp,
                                        const struct sockaddr_storage* address, proxy_info* proxy,
                                        http_connection* conn) {
    (void)address;
    (void)proxy;
    if (status != TAV_HTTP_ERROR_CODE_OK && conn->closed == 0) {
        LOG_INFO("_sock5_proxy_connect_result, failed, result=%d", (int)status);
    }
    _on_proxy_result(conn, "_sock5_proxy_connect_result", status, tcp);
}

// ------------------------------------------------------------------------------------- start

static bool _is_connect_cancelled(void* user_data) {
    return http_connect_is_cancelled((const http_connection*)user_data);
}

static uint32_t _start_direct(http_connection* conn, int32_t budget) {
    if (conn->is_https != 0 && get_tls_ops() == nullptr) {
        LOG_INFO("_on_async_start_connect, not support https, url=%s", conn->host);
        return TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS;
    }
    http_connection_hold(conn);
    http_connection_set_step(conn, uv_connect_abort, conn);
    uint32_t err = uv_connect_timeout(conn->host, conn->port, budget, conn, _direct_connect_result,
                                      _is_connect_cancelled);
    if (err != 0) {
        _unhold(conn);
        LOG_INFO("_on_async_start_connect, _start_dns failed.");
    }
    return err;
}

// The proxy is asked for the URL's server for http as for https.
static uint32_t _start_proxy(http_connection* conn, int32_t budget) {
    uint32_t err = 0;
    http_connection_hold(conn);
    if (is_valid_http_proxy(conn->proxy)) {
        err = http_proxy_connect(conn->host, conn->port, conn->proxy, conn, budget,
                                 _http_proxy_connect_result);
        if (err != 0) {
            LOG_ERROR("_on_async_start_connect, http_proxy_connect failed, err=%d.", (int)err);
        }
    } else if (is_valid_sock5_proxy(conn->proxy)) {
        err = sock5_proxy_connect(conn->host, conn->port, conn->proxy, conn, budget,
                                  _sock5_proxy_connect_result);
        if (err != 0) {
            LOG_ERROR("_on_async_start_connect, sock5_proxy_connect failed, err=%d.", (int)err);
        }
    } else {
        _unhold(conn);
        LOG_INFO("_on_async_start_connect, invalid proxy info, proxy-type=%d.",
                 (int)conn->proxy->type);
        return TAV_HTTP_ERROR_CODE_INVALID_PROXY;
    }
    if (err != 0) {
        _unhold(conn);
    }
    return err;
}

// Loop thread. From http_connect_start; next the result of the direct connect or of the proxy.
static void _on_async_start_connect(void* argument) {
    http_connection* conn = (http_connection*)argument;
    if (!LOG_ASSERT(conn != nullptr)) {
        LOG_ERROR("_on_async_start_connect, conn is NULL.");
        return;
    }
    if (!http_connection_release(conn)) {
        return;
    }
    int32_t budget = conn->connect_timeout > 0 ? conn->connect_timeout : DEFAULT_CONNECT_TIMEOUT;
    bool by_proxy = conn->proxy != nullptr && conn->proxy->type != TAV_HTTP_PROXY_NONE;
    uint32_t err = by_proxy ? _start_proxy(conn, budget) : _start_direct(conn, budget);
    if (err != 0) {
        _notify_connection_result(conn, err);
    }
}

static bool _analyze_target(const char* url, connect_target* target) {
    memset(target, 0, sizeof(*target));
    if (url == nullptr || url[0] == '\0' ||
        !analyze_url(url, &target->scheme, &target->host, &target->port, nullptr, nullptr)) {
        return false;
    }
    target->is_https = target->scheme != nullptr && _stricmp(target->scheme, "https") == 0 ? 1 : 0;
    return target->host != nullptr && target->host[0] != '\0';
}

static void _free_target(connect_target* target) {
    free(target->scheme);
    free(target->host);
    memset(target, 0, sizeof(*target));
}

static uint32_t _start_pooled(http_connection* conn, connect_target* target, http_session* owner,
                              const char* shown_url) {
    LOG_ASSERT_IN("http_connect_start", conn->is_https == target->is_https);
    LOG_ASSERT_IN("http_connect_start", conn->port == target->port);
    LOG_ASSERT_IN("http_connect_start", _stricmp(conn->host, target->host) == 0);
    LOG_ASSERT_IN("http_connect_start", conn->scheme != nullptr && target->scheme != nullptr &&
                                            _stricmp(conn->scheme, target->scheme) == 0);
    _free_target(target);
    conn->owner = owner;
    conn->connect_callback = _on_http_connect_result;
    LOG_INFO("http_connect_start, use pooled connection, conn-id=%d, url=%s, reuse=%d",
             (int)conn->id, shown_url, (int)conn->reuse_count);
    http_connection_hold(conn);
    if (!async_run(_on_async_notify_connection_result, conn)) {
        _unhold(conn);
        LOG_ERROR("http_connect_start, async_run _on_async_notify_connection_result fail.");
        http_connection_destroy(conn);
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// New record that takes the target's texts over; null without memory, the texts then still the
// caller's.
static http_connection* _new_connection(connect_target* target, const proxy_info* proxy,
                                        const char* expected_cname) {
    http_connection* conn = (http_connection*)calloc(1, sizeof(http_connection));
    if (conn == nullptr) {
        return nullptr;
    }
    if (expected_cname != nullptr && expected_cname[0] != '\0') {
        conn->expected_cname = string_dup(expected_cname);
    } else {
        expected_cname = nullptr;
    }
    conn->proxy = copy_proxy_info(proxy);
    // Without its copy the connection would pass by the proxy, or skip the name check.
    if ((proxy != nullptr && conn->proxy == nullptr) ||
        (expected_cname != nullptr && conn->expected_cname == nullptr)) {
        _free_connection(conn);
        return nullptr;
    }
    list_append(&_open_connections, &conn->open_link);
    conn->id = next_id(&_last_conn_id);
    conn->port = target->port;
    conn->host = target->host;
    conn->scheme = target->scheme;
    conn->is_https = target->is_https;
    memset(target, 0, sizeof(*target));
    return conn;
}

static void _log_start(const http_connection* conn, const char* shown_url) {
    const proxy_info* proxy = conn->proxy;
    const char* proxy_host = proxy != nullptr && proxy->host != nullptr ? proxy->host : "(null)";
    LOG_INFO("http_connect_start, conn-id=%u, url=%s, proxy-type=%d, proxy-host=%s:%d", conn->id,
             shown_url, proxy != nullptr ? (int)proxy->type : 0, proxy_host,
             proxy != nullptr ? (int)proxy->port : 0);
}

static uint32_t _start_new(http_connection* conn, http_session* owner, int32_t connect_timeout,
                           const char* shown_url) {
    conn->owner = owner;
    conn->connect_timeout = connect_timeout;
    conn->connect_callback = _on_http_connect_result;
    http_connection_hold(conn);
    if (!async_run(_on_async_start_connect, conn)) {
        _unhold(conn);
        LOG_INFO("http_connect_start, async_run fail, conn-id=%d, url=%s", (int)conn->id,
                 shown_url);
        http_connection_destroy(conn);
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    _log_start(conn, shown_url);
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t http_connect_start(const char* url, const proxy_info* proxy, http_session* owner,
                            int32_t connect_timeout, bool no_pool, bool hide_url,
                            const char* expected_cname, int32_t session_timeout) {
    connect_target target;
    const char* shown_url = hide_url ? "*" : (url != nullptr ? url : "(null)");
    http_connection* conn = nullptr;
    (void)session_timeout;
    if (!_analyze_target(url, &target)) {
        LOG_INFO("http_connect_start, analyze_url fail, url=%s", shown_url);
        _free_target(&target);
        return TAV_HTTP_ERROR_CODE_INVALID_URL;
    }
    if (!no_pool) {
        conn = get_connection_from_pool(target.is_https, target.host, target.port);
    }
    if (conn != nullptr) {
        return _start_pooled(conn, &target, owner, shown_url);
    }
    conn = _new_connection(&target, proxy, expected_cname);
    if (conn == nullptr) {
        _free_target(&target);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    return _start_new(conn, owner, connect_timeout, shown_url);
}
