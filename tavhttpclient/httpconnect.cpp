// A connection for a session:
//
//   http_connect_start -> (pooled: _on_async_notify_connection_result)
//     -> _on_async_start_connect
//     -> _direct_connect_result | _on_proxy_result
//     -> _on_tcp_connected -> (_on_https_connect_result) -> _notify_connection_result
//     -> connect_callback
#include "tavhttpclient/httpconnect.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_text.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/netbasehttp.h"
#include "tavhttpclient/proxyconnect.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"

// What a URL says about the server. The texts are owned.
struct connect_target {
    char* scheme;
    char* host;
    uint16_t port;
    int32_t is_https;
};

// -------------------------------------------------------------------------------------- ends

void abort_network_step(http_session* session) {
    http_connection* conn = session != nullptr ? http_connection_of(session) : nullptr;
    if (conn != nullptr) {
        http_connection_abort(conn);
    }
}

void http_connect_close_all(void) {
    release_connection_pool();
    http_connection_destroy_all();
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

static const proxy_kind* const proxy_kinds[] = {&http_proxy_kind, &sock5_proxy_kind};

static const proxy_kind* _find_proxy_kind(uint32_t type) {
    for (const proxy_kind* kind : proxy_kinds) {
        if (kind->type == type) {
            return kind;
        }
    }
    return nullptr;
}

static void _on_proxy_failed(http_connection* conn, const proxy_kind* kind, uint32_t status,
                             uv_tcp_t* tcp) {
    if (!LOG_ASSERT_IN(kind->result_name, tcp == nullptr)) {
        close_uv_tcp(&tcp);
    }
    free_proxy_info(conn->proxy);
    conn->proxy = nullptr;
    LOG_INFO("%s, failed, result=%d", kind->result_name, (int)status);
    _notify_connection_result(conn, status);
}

// Loop thread. From _start_proxy; next _on_tcp_connected.
static void _on_proxy_result(uint32_t status, uv_tcp_t* tcp, const struct sockaddr_storage* address,
                             proxy_info* proxy, http_connection* conn) {
    (void)address;
    http_connection_set_step(conn, nullptr, nullptr);
    if (!http_connection_release(conn)) {
        close_uv_tcp(&tcp);
        return;
    }
    const proxy_kind* kind = _find_proxy_kind(proxy->type);
    if (status != TAV_HTTP_ERROR_CODE_OK) {
        _on_proxy_failed(conn, kind, status, tcp);
        return;
    }
    if (!LOG_ASSERT_IN(kind->result_name, conn->stream == nullptr)) {
        close_uv_tcp(&conn->stream);
    }
    conn->stream = tcp;
    if (!LOG_ASSERT_IN(kind->result_name, tcp != nullptr)) {
        _notify_connection_result(conn, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    _on_tcp_connected(conn);
}

// ------------------------------------------------------------------------------------- start

static bool _is_connect_cancelled(void* user_data) {
    return http_connection_is_cancelled((const http_connection*)user_data);
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
        http_connection_unhold(conn);
        LOG_INFO("_on_async_start_connect, _start_dns failed.");
    }
    return err;
}

// The proxy is asked for the URL's server for http as for https.
static uint32_t _start_proxy(http_connection* conn, int32_t budget) {
    const proxy_kind* kind = _find_proxy_kind(conn->proxy->type);
    if (kind == nullptr || !kind->valid(conn->proxy)) {
        LOG_INFO("_on_async_start_connect, invalid proxy info, proxy-type=%d.",
                 (int)conn->proxy->type);
        return TAV_HTTP_ERROR_CODE_INVALID_PROXY;
    }
    http_connection_hold(conn);
    uint32_t err =
        kind->connect(conn->host, conn->port, conn->proxy, conn, budget, _on_proxy_result);
    if (err != 0) {
        http_connection_unhold(conn);
        LOG_ERROR("_on_async_start_connect, %s failed, err=%d.", kind->name, (int)err);
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
    if (is_empty_text(url) ||
        !analyze_url(url, &target->scheme, &target->host, &target->port, nullptr, nullptr)) {
        return false;
    }
    target->is_https = target->scheme != nullptr && _stricmp(target->scheme, "https") == 0 ? 1 : 0;
    return !is_empty_text(target->host);
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
        http_connection_unhold(conn);
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
    if (!is_empty_text(expected_cname)) {
        conn->expected_cname = string_dup(expected_cname);
    } else {
        expected_cname = nullptr;
    }
    conn->proxy = copy_proxy_info(proxy);
    // Without its copy the connection would pass by the proxy, or skip the name check.
    if ((proxy != nullptr && conn->proxy == nullptr) ||
        (expected_cname != nullptr && conn->expected_cname == nullptr)) {
        free(conn->expected_cname);
        free_proxy_info(conn->proxy);
        free(conn);
        return nullptr;
    }
    http_connection_open(conn);
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
        http_connection_unhold(conn);
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
