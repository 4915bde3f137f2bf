// The SOCKS5 handshake: method, user name and password, CONNECT. Each message is one write, and
// each reply must arrive whole in one read.
//
// sock5_proxy_connect -> _on_start_connect -> _on_connect_result
//   -> _step1_auth_method_negotiation -> _step1_send_result -> _step1_recv_result
//   -> (_step2_verify_userpwd -> _step2_verify_userpwd_send_result
//         -> _step2_verify_userpwd_recv_result)
//   -> _step3_request_cmd -> _step3_send_result -> _step3_recv_result
//   -> _notify_connect_result -> callback
#include "tavhttpclient/sock5proxyconnect.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/transport.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"
#include "tavhttpclient/uvread.h"

enum {
    SOCKS_VERSION = 5,
    SOCKS_METHOD_NONE = 0,
    SOCKS_METHOD_USER_PASSWORD = 2,
    SOCKS_CONNECT = 1,
    SOCKS_ADDRESS_IPV4 = 1,
    SOCKS_ADDRESS_NAME = 3,
    SOCKS_ADDRESS_IPV6 = 4,
    SOCKS_IPV4_REPLY_LENGTH = 10,
    SOCKS_IPV6_REPLY_LENGTH = 22,
    USER_PASSWORD_VERSION = 1,
    USER_PASSWORD_MESSAGE_MAX = 513
};

// One per call.
struct sock5_ctx {
    char* host;  // the target
    uint16_t port;
    proxy_info* proxy;  // the caller's
    http_connection* user;
    int32_t timeout;  // ms, to reach the proxy
    proxy_connect_cb callback;
    uv_tcp_t* tcp;  // owned until handed out
    struct sockaddr_storage peer_address;
    struct sockaddr_storage bound_address;  // what the proxy says, the port in host order; unread
    text_buffer send_buffer;                // must outlive the write
    text_buffer recv_buffer;
    uv_io_ctx* io;
    uint8_t method;  // the one that was offered
};

bool is_valid_sock5_proxy(const proxy_info* proxy) {
    return proxy != nullptr && proxy->type == TAV_HTTP_PROXY_SOCKS5 &&
           !is_empty_text(proxy->host) && proxy->port != 0;
}

// ---------------------------------------------------------------------------------- the result

static void _free_sock5_ctx(sock5_ctx* ctx) {
    free(ctx->host);
    close_uv_tcp(&ctx->tcp);
    uv_io_ctx_free(ctx->io);
    text_buffer_release(&ctx->send_buffer);
    text_buffer_release(&ctx->recv_buffer);
    free(ctx);
}

// Ends the handshake: the record is gone afterwards. No write is pending here, since every step
// waits for its write before anything else can end it.
static void _notify_connect_result(sock5_ctx* ctx, uint32_t code) {
    if (!LOG_ASSERT(ctx != nullptr)) {
        return;
    }
    proxy_connect_cb callback = ctx->callback;
    http_connection* user = ctx->user;
    proxy_info* proxy = ctx->proxy;
    struct sockaddr_storage address = ctx->peer_address;
    uv_tcp_t* tcp = nullptr;
    if (code == 0) {
        tcp = ctx->tcp;
        ctx->tcp = nullptr;
    }
    _free_sock5_ctx(ctx);
    if (LOG_ASSERT(callback != nullptr)) {
        callback(code, tcp, &address, proxy, user);
    }
}

// ------------------------------------------------------------------------------------- messages

static bool _append_byte(text_buffer* buffer, size_t value) {
    uint8_t byte = (uint8_t)(value & 0xff);
    return text_buffer_append(buffer, &byte, 1);
}

// A length byte, which wraps for long texts, and all bytes of the text.
static bool _append_counted(text_buffer* buffer, const char* text) {
    size_t length = text != nullptr ? strlen(text) : 0;
    return _append_byte(buffer, length) && text_buffer_append(buffer, text, (uint32_t)length);
}

static bool _is_cancelled(void* user_data) {
    const http_connection* user = ((sock5_ctx*)user_data)->user;
    return user != nullptr && http_connection_is_cancelled(user);
}

static int _write_message(sock5_ctx* ctx, uv_write_cb callback) {
    uv_buf_t bytes = uv_buf_init(ctx->send_buffer.data, (unsigned int)ctx->send_buffer.length);
    if (_is_cancelled(ctx)) {
        return UV_ECANCELED;
    }
    ctx->io->write_req->data = ctx;
    return uv_write(ctx->io->write_req, (uv_stream_t*)ctx->tcp, &bytes, 1, callback);
}

// An abort has closed the handle, also when the bytes were out already.
static int _write_status(const sock5_ctx* ctx, int status) {
    return ctx->tcp == nullptr ? UV_ECANCELED : status;
}

static uint32_t _read_reply(sock5_ctx* ctx, uv_io_recv_cb callback) {
    ctx->io->owner = ctx;
    return uv_recv_timeout((uv_stream_t*)ctx->tcp, ctx->io, &ctx->recv_buffer, callback);
}

// The second half of steps 1 and 2: the message is out, or was not taken.
static void _start_reply(uv_write_t* request, int status, const char* function,
                         uv_io_recv_cb callback) {
    sock5_ctx* ctx = (sock5_ctx*)request->data;
    status = _write_status(ctx, status);
    if (status < 0) {
        LOG_ERROR("%s, failed, status=%d", function, status);
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
        return;
    }
    uint32_t err = _read_reply(ctx, callback);
    if (err != 0) {
        LOG_ERROR("%s, uv_recv_timeout failed. ret=%d", function, (int32_t)err);
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV);
    }
}

// ---------------------------------------------------------------------- step 3: the destination

// Keeps the address of a successful reply; false for a reply without a whole one.
static bool _keep_bound_address(const uint8_t* reply, int32_t length,
                                struct sockaddr_storage* address) {
    uint16_t port = 0;
    if (reply[3] == SOCKS_ADDRESS_IPV4 && length == SOCKS_IPV4_REPLY_LENGTH) {
        struct sockaddr_in* bound = (struct sockaddr_in*)address;
        memcpy(&port, reply + 8, sizeof(port));
        bound->sin_family = AF_INET;
        memcpy(&bound->sin_addr, reply + 4, 4);
        bound->sin_port = ntohs(port);
        return true;
    }
    if (reply[3] == SOCKS_ADDRESS_IPV6 && length == SOCKS_IPV6_REPLY_LENGTH) {
        struct sockaddr_in6* bound = (struct sockaddr_in6*)address;
        memcpy(&port, reply + 20, sizeof(port));
        bound->sin6_family = AF_INET6;
        memcpy(&bound->sin6_addr, reply + 4, 16);
        bound->sin6_port = ntohs(port);
        return true;
    }
    return false;
}

bool sock5_accept_connect_reply(const uint8_t* reply, int32_t length,
                                struct sockaddr_storage* bound_address) {
    if (length < 4) {
        LOG_ERROR("_step3_recv_result, invalid length, length=%d", length);
    } else if (reply[0] != SOCKS_VERSION) {
        LOG_ERROR("_step3_recv_result, invalid version, ver=%d", reply[0]);
    } else if (reply[1] != 0) {
        LOG_ERROR("_step3_recv_result, svr reply fail, ver=%d", (int8_t)reply[1]);
    } else if (reply[2] != 0) {
        LOG_ERROR("_step3_recv_result, resv not zero, resv=%d", reply[2]);
    } else if (!_keep_bound_address(reply, length, bound_address)) {
        LOG_ERROR("_step3_recv_result, invalid address type, atype=%d", reply[3]);
    } else {
        return true;
    }
    return false;
}

// Loop thread. From _step3_send_result; next _notify_connect_result.
static void _step3_recv_result(uint32_t status, uv_io_ctx* io, text_buffer* buffer) {
    sock5_ctx* ctx = (sock5_ctx*)io->owner;
    uint32_t err = 0;
    if (status != 0) {
        LOG_ERROR("_step3_recv_result failed, result=%d", (int32_t)status);
        err = status;
    } else if (buffer->length == 0) {
        LOG_ERROR("_step3_recv_result, length=%d", buffer->length);
        err = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV;
    } else if (!sock5_accept_connect_reply((const uint8_t*)buffer->data, buffer->length,
                                           &ctx->bound_address)) {
        err = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
    }
    _notify_connect_result(ctx, err);
}

// Loop thread. From _step3_request_cmd; next _step3_recv_result.
static void _step3_send_result(uv_write_t* request, int status) {
    sock5_ctx* ctx = (sock5_ctx*)request->data;
    status = _write_status(ctx, status);
    if (status < 0) {
        LOG_ERROR("_step3_send_result, failed, status=%d, %s", status, uv_strerror(status));
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
        return;
    }
    uint32_t err = _read_reply(ctx, _step3_recv_result);
    if (err != 0) {
        LOG_ERROR("_step3_send_result, uv_recv_timeout, failed, err=%d.", (int32_t)err);
        _notify_connect_result(ctx, err);
    }
}

static bool _append_target(text_buffer* buffer, const char* host, uint16_t port) {
    struct sockaddr_in address4;
    struct sockaddr_in6 address6;
    bool ok = false;
    if (uv_ip4_addr(host, port, &address4) == 0) {
        ok = _append_byte(buffer, SOCKS_ADDRESS_IPV4) &&
             text_buffer_append(buffer, &address4.sin_addr, 4);
    } else if (uv_ip6_addr(host, port, &address6) == 0) {
        ok = _append_byte(buffer, SOCKS_ADDRESS_IPV6) &&
             text_buffer_append(buffer, &address6.sin6_addr, 16);
    } else {
        ok = _append_byte(buffer, SOCKS_ADDRESS_NAME) && _append_counted(buffer, host);
    }
    return ok && _append_byte(buffer, (size_t)port >> 8) && _append_byte(buffer, port);
}

static void _step3_request_cmd(sock5_ctx* ctx) {
    text_buffer* message = &ctx->send_buffer;
    message->length = 0;
    if (!_append_byte(message, SOCKS_VERSION) || !_append_byte(message, SOCKS_CONNECT) ||
        !_append_byte(message, 0) || !_append_target(message, ctx->host, ctx->port)) {
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY);
        return;
    }
    int err = _write_message(ctx, _step3_send_result);
    if (err != 0) {
        LOG_ERROR("_step3_request_cmd, uv_write failed, err=%d, %s.", err, uv_strerror(err));
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
    }
}

// ---------------------------------------------------------------- step 2: user name and password

// Loop thread. From _step2_verify_userpwd_send_result; next _step3_request_cmd.
static void _step2_verify_userpwd_recv_result(uint32_t status, uv_io_ctx* io, text_buffer* buffer) {
    sock5_ctx* ctx = (sock5_ctx*)io->owner;
    if (status != 0) {
        LOG_ERROR("_step2_verify_userpwd_recv_result, failed, result=%d", (int32_t)status);
        _notify_connect_result(ctx, status);
        return;
    }
    if (buffer->length != 2) {
        LOG_ERROR("_step2_verify_userpwd_recv_result, invalid length, reply_length=%d",
                  buffer->length);
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY);
        return;
    }
    // Proxies disagree on the first byte of this reply; only the second one counts.
    if (buffer->data[1] != 0) {
        LOG_ERROR("_step2_verify_userpwd_recv_result, failed, reply_status=%d",
                  (uint8_t)buffer->data[1]);
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY);
        return;
    }
    _step3_request_cmd(ctx);
}

// Loop thread. From _step2_verify_userpwd; next _step2_verify_userpwd_recv_result.
static void _step2_verify_userpwd_send_result(uv_write_t* request, int status) {
    _start_reply(request, status, "_step2_verify_userpwd_send_result",
                 _step2_verify_userpwd_recv_result);
}

static void _step2_verify_userpwd(sock5_ctx* ctx) {
    text_buffer* message = &ctx->send_buffer;
    text_buffer_reserve(message, USER_PASSWORD_MESSAGE_MAX);
    LOG_ASSERT(message->capacity >= USER_PASSWORD_MESSAGE_MAX);
    message->length = 0;
    if (!_append_byte(message, USER_PASSWORD_VERSION) ||
        !_append_counted(message, ctx->proxy->user_name) ||
        !_append_counted(message, ctx->proxy->password)) {
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY);
        return;
    }
    int ret = _write_message(ctx, _step2_verify_userpwd_send_result);
    if (ret != 0) {
        LOG_ERROR("_step2_verify_userpwd, uv_write failed, ret=%d, %s.", ret, uv_strerror(ret));
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
    }
}

// --------------------------------------------------------------------------- step 1: the method

uint32_t sock5_judge_method_reply(const uint8_t* reply, int32_t length, uint8_t offered) {
    if (length == 0) {
        LOG_ERROR("_step1_recv_result, connection closed, result=%d.", 0);
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    if (length != 2) {
        LOG_ERROR("_step1_recv_result, length is invalid, length=%d.", length);
        return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
    }
    uint8_t version = reply[0];
    uint8_t method = reply[1];
    if (version != SOCKS_VERSION || method != offered) {
        LOG_ERROR("_step1_recv_result, method nego failed, ver=%d, reply_method=%d, "
                  "accept_method=%d",
                  version, method, offered);
        return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
    }
    if (!LOG_ASSERT(method == SOCKS_METHOD_NONE || method == SOCKS_METHOD_USER_PASSWORD)) {
        LOG_ERROR("_step1_recv_result, method nego failed, ver=%d, method=%d, method=%d", version,
                  method, offered);
        return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
    }
    return 0;
}

// Loop thread. From _step1_send_result; next _step2_verify_userpwd or _step3_request_cmd.
static void _step1_recv_result(uint32_t status, uv_io_ctx* io, text_buffer* buffer) {
    sock5_ctx* ctx = (sock5_ctx*)io->owner;
    uint32_t err = status;
    if (status != 0) {
        LOG_ERROR("_step1_recv_result, failed, result=%d", (int32_t)status);
    } else {
        err = sock5_judge_method_reply((const uint8_t*)buffer->data, buffer->length, ctx->method);
    }
    if (err != 0) {
        _notify_connect_result(ctx, err);
    } else if (ctx->method == SOCKS_METHOD_USER_PASSWORD) {
        _step2_verify_userpwd(ctx);
    } else {
        _step3_request_cmd(ctx);
    }
}

// Loop thread. From _step1_auth_method_negotiation; next _step1_recv_result.
static void _step1_send_result(uv_write_t* request, int status) {
    _start_reply(request, status, "_step1_send_result", _step1_recv_result);
}

static void _step1_auth_method_negotiation(sock5_ctx* ctx) {
    bool has_user = !is_empty_text(ctx->proxy->user_name);
    // One method only: a proxy that wants another refuses at once instead of after a guess.
    ctx->method = has_user ? SOCKS_METHOD_USER_PASSWORD : SOCKS_METHOD_NONE;
    if (!_append_byte(&ctx->send_buffer, SOCKS_VERSION) || !_append_byte(&ctx->send_buffer, 1) ||
        !_append_byte(&ctx->send_buffer, ctx->method)) {
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY);
        return;
    }
    int ret = _write_message(ctx, _step1_send_result);
    if (ret != 0) {
        LOG_ERROR("_step1_auth_method_negotiation, uv_write failed, ret=%d, %s.", ret,
                  uv_strerror(ret));
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
    }
}

// ----------------------------------------------------------------------------------- the start

// Loop thread. From uv_connect_timeout; next _step1_send_result.
static void _on_connect_result(uint32_t status, uv_tcp_t* tcp,
                               const struct sockaddr_storage* address, void* user_data) {
    sock5_ctx* ctx = (sock5_ctx*)user_data;
    ctx->tcp = tcp;
    if (address != nullptr) {
        ctx->peer_address = *address;
    }
    if (status != 0) {
        LOG_ERROR("_on_connect_result, failed, result=%d, host=%s:%d, timeout=%d.", (int32_t)status,
                  ctx->proxy->host, ctx->proxy->port, ctx->timeout);
        _notify_connect_result(ctx, status);
    } else if (!LOG_ASSERT(tcp != nullptr)) {
        _notify_connect_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
    } else {
        _step1_auth_method_negotiation(ctx);
    }
}

static void _abort_handshake(void* step) {
    sock5_ctx* ctx = (sock5_ctx*)step;
    if (ctx->tcp == nullptr) {
        uv_connect_abort(ctx);
    } else if (ctx->io->recv_callback == nullptr) {
        close_uv_tcp(&ctx->tcp);  // Cancels the write.
    } else {
        uv_recv_abort(ctx->io);
    }
}

// Loop thread. From sock5_proxy_connect; next _on_connect_result.
static void _on_start_connect(void* argument) {
    sock5_ctx* ctx = (sock5_ctx*)argument;
    uint32_t err = uv_connect_timeout(ctx->proxy->host, ctx->proxy->port, ctx->timeout, ctx,
                                      _on_connect_result, _is_cancelled);
    if (err != 0) {
        LOG_ERROR("_on_start_connect, uv_connect_timeout fail, host=%s:%d.", ctx->proxy->host,
                  ctx->proxy->port);
        _notify_connect_result(ctx, err);
    }
}

static sock5_ctx* _new_sock5_ctx(const char* host) {
    sock5_ctx* ctx = (sock5_ctx*)calloc(1, sizeof(sock5_ctx));
    if (ctx == nullptr) {
        return nullptr;
    }
    ctx->host = string_dup(host);
    ctx->io = uv_io_ctx_new();
    if (ctx->host == nullptr || ctx->io == nullptr) {
        _free_sock5_ctx(ctx);
        return nullptr;
    }
    return ctx;
}

uint32_t sock5_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                             http_connection* user, int32_t timeout, proxy_connect_cb callback) {
    if (!LOG_ASSERT(!is_empty_text(host) && port != 0 && proxy != nullptr && callback != nullptr)) {
        LOG_ERROR("sock5_proxy_connect, invalid args.");
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    if (!LOG_ASSERT(is_valid_sock5_proxy(proxy))) {
        LOG_ERROR("sock5_proxy_connect, invalid proxy.");
        return TAV_HTTP_ERROR_CODE_INVALID_PROXY;
    }
    sock5_ctx* ctx = _new_sock5_ctx(host);
    if (ctx == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    if (!async_run(_on_start_connect, ctx)) {
        LOG_ERROR("http_proxy_connect, async_run failed.");
        _free_sock5_ctx(ctx);
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    LOG_DETAIL("sock5_proxy_connect, target=%s:%d proxy=%s:%d", host, port, proxy->host,
               proxy->port);
    // The queued call runs on a later turn, so the rest can be filled in now.
    ctx->port = port;
    ctx->user = user;
    ctx->timeout = timeout;
    ctx->callback = callback;
    ctx->proxy = proxy;
    http_connection_set_step(user, _abort_handshake, ctx);
    return 0;
}

const proxy_kind sock5_proxy_kind = {TAV_HTTP_PROXY_SOCKS5, "sock5_proxy_connect",
                                     "_sock5_proxy_connect_result", is_valid_sock5_proxy,
                                     sock5_proxy_connect};
