// The CONNECT exchange with an HTTP proxy. Only the reply's status counts, and it must be in the
// first read.
//
// http_proxy_connect -> _basic_auth_start -> _basic_auth_on_connect_result -> _start_basic_auth
//   -> _send_request_result -> _start_recv -> (_on_recv_result | _on_recv_timeout)
//   -> _basic_auth_finish -> _basic_auth_result -> _notify_http_proxy_connect_result -> callback
#include "tavhttpclient/httpproxyconnect.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/transport.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"

enum {
    PROXY_REPLY_TIMEOUT = 30000,
    LOGGED_REPLY_BYTES = 300
};

// One per call.
struct http_proxy_ctx {
    char* host;  // the target
    uint16_t port;
    proxy_info* proxy;  // the caller's
    http_connection* user;
    int32_t timeout;  // ms, to reach the proxy
    proxy_connect_cb callback;
};

typedef void (*basic_auth_result_cb)(uint32_t code, http_proxy_ctx* ctx, uv_tcp_t* tcp,
                                     const struct sockaddr_storage* address);

// One per exchange.
struct basic_auth_ctx {
    http_proxy_ctx* owner;
    basic_auth_result_cb result_step;
    uv_tcp_t* tcp;  // owned until handed out
    struct sockaddr_storage peer_address;
    uv_write_t write_req;
    uv_timer_t* timer;  // made on first use
    text_buffer receive_buffer;
    text_buffer request;  // must outlive the write
};

bool is_valid_http_proxy(const proxy_info* proxy) {
    return proxy != nullptr && proxy->type == TAV_HTTP_PROXY_HTTP && !is_empty_text(proxy->host) &&
           proxy->port != 0;
}

// ---------------------------------------------------------------------------------- the result

static void _free_http_proxy_ctx(http_proxy_ctx* ctx) {
    free(ctx->host);
    free(ctx);
}

static void _notify_http_proxy_connect_result(http_proxy_ctx* ctx, uint32_t code, uv_tcp_t* tcp,
                                              const struct sockaddr_storage* address) {
    proxy_connect_cb callback = ctx->callback;
    proxy_info* proxy = ctx->proxy;
    http_connection* user = ctx->user;
    _free_http_proxy_ctx(ctx);

    if (code != 0) {
        callback(code, nullptr, nullptr, proxy, user);
        return;
    }
    LOG_ASSERT(tcp != nullptr && address != nullptr);
    callback(0, tcp, address, proxy, user);
}

static void _basic_auth_result(uint32_t code, http_proxy_ctx* ctx, uv_tcp_t* tcp,
                               const struct sockaddr_storage* address) {
    uint32_t result = code;
    if (code != 0) {
        LOG_ERROR("_basic_auth_result, failed, result=%d", (int32_t)code);
    } else if (!LOG_ASSERT(tcp != nullptr)) {
        LOG_ERROR("_basic_auth_result, socket is NULL, result=%d", (int32_t)code);
        result = TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    _notify_http_proxy_connect_result(ctx, result, tcp, address);
}

static void _free_basic_auth_ctx(basic_auth_ctx* auth) {
    close_uv_tcp(&auth->tcp);
    close_uv_timer(&auth->timer);
    text_buffer_release(&auth->receive_buffer);
    text_buffer_release(&auth->request);
    free(auth);
}

// Ends the exchange: the record is gone afterwards. No write is pending here, since the reply is
// only waited for once the request is out.
static void _basic_auth_finish(basic_auth_ctx* auth, uint32_t code) {
    basic_auth_result_cb result_step = auth->result_step;
    http_proxy_ctx* owner = auth->owner;
    struct sockaddr_storage address = auth->peer_address;
    uv_tcp_t* tcp = nullptr;

    auth->result_step = nullptr;
    if (code == 0) {
        tcp = auth->tcp;
        auth->tcp = nullptr;
    }
    _free_basic_auth_ctx(auth);
    if (LOG_ASSERT(result_step != nullptr)) {
        result_step(code, owner, tcp, code == 0 ? &address : nullptr);
    }
}

// ----------------------------------------------------------------------------------- the reply

bool _parse_proxy_status_code(const char* bytes, int32_t count, int32_t* output) {
    int32_t space = 0;
    *output = 0;
    while (space < count && bytes[space] != ' ') {
        if (bytes[space] == '\n') {
            return false;
        }
        space++;
    }
    // Three digits and one byte more, so that a longer number cut short is not taken for a status.
    if (count - space - 1 < 4) {
        return false;
    }
    char digits[4] = {bytes[space + 1], bytes[space + 2], bytes[space + 3], '\0'};
    *output = atoi(digits);
    return true;
}

uint32_t judge_proxy_reply(const char* reply, int32_t count) {
    int32_t status_code = 0;
    _parse_proxy_status_code(reply, count, &status_code);
    if (status_code == 200) {
        return 0;
    }
    int32_t logged = count < LOGGED_REPLY_BYTES ? count : LOGGED_REPLY_BYTES;
    LOG_ERROR("_on_recv_result, svr return failed, status_code=%d content=%.*s", status_code,
              logged, reply);
    if (status_code == 401 || status_code == 407) {
        return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
    }
    return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT;
}

static void _stop_recv(basic_auth_ctx* auth) {
    uv_read_stop((uv_stream_t*)auth->tcp);
    if (auth->timer != nullptr) {
        uv_timer_stop(auth->timer);
    }
}

// Loop thread. From _start_recv; next _basic_auth_finish.
static void _on_recv_result(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    basic_auth_ctx* auth = (basic_auth_ctx*)stream->data;
    (void)buffer;
    _stop_recv(auth);
    if (count <= 0) {
        LOG_ERROR("_on_recv_result, failed, status=%d.", (int32_t)count);
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV);
        return;
    }
    auth->receive_buffer.length = (int32_t)count;
    _basic_auth_finish(auth, judge_proxy_reply(auth->receive_buffer.data, (int32_t)count));
}

// Loop thread. From _start_recv; next _basic_auth_finish.
static void _on_recv_timeout(uv_timer_t* timer) {
    basic_auth_ctx* auth = (basic_auth_ctx*)timer->data;
    _stop_recv(auth);
    LOG_ERROR("_on_recv_timeout, timeout");
    _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV);
}

static void _basic_auth_alloc(uv_handle_t* handle, size_t suggested, uv_buf_t* buffer) {
    text_buffer* storage = &((basic_auth_ctx*)handle->data)->receive_buffer;
    if (!text_buffer_reserve(storage, (int32_t)suggested)) {
        *buffer = uv_buf_init(nullptr, 0);  // The read then ends with an error.
        return;
    }
    *buffer = uv_buf_init(storage->data, (unsigned int)storage->capacity);
}

static void _start_recv(basic_auth_ctx* auth) {
    uv_loop_t* loop = get_uv_loop();
    if (loop == nullptr) {
        LOG_ERROR("_start_recv, loop is NULL.");
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
        return;
    }
    auth->tcp->data = auth;
    int ret = uv_read_start((uv_stream_t*)auth->tcp, _basic_auth_alloc, _on_recv_result);
    if (ret != 0) {
        LOG_ERROR("_start_recv, uv_read_start failed, ret=%d, %s.", ret, uv_strerror(ret));
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV);
        return;
    }
    if (auth->timer == nullptr) {
        auth->timer = new_uv_timer(loop, auth);
    }
    ret = arm_uv_timer(auth->timer, _on_recv_timeout, PROXY_REPLY_TIMEOUT);
    if (ret != 0) {
        LOG_ERROR("_start_recv, uv_timer_start failed, ret=%d, %s.", ret, uv_strerror(ret));
    }
}

// --------------------------------------------------------------------------------- the request

static bool _append_authorisation(const proxy_info* proxy, text_buffer* output) {
    if (is_empty_text(proxy->user_name)) {
        return true;
    }
    text_buffer credentials = {};
    char* encoded = nullptr;
    uint32_t encoded_length = 0;
    const char* password = proxy->password != nullptr ? proxy->password : "";
    bool ok =
        text_buffer_init(&credentials, 128) &&
        text_buffer_append_format(&credentials, "%s:%s", proxy->user_name, password) &&
        base64_encode(credentials.data, (uint32_t)credentials.length, &encoded, &encoded_length) &&
        text_buffer_append_format(output, "Proxy-Authorization: Basic %s\r\n", encoded);
    free(encoded);
    text_buffer_release(&credentials);
    return ok;
}

static bool _basic_auth_build_request(const basic_auth_ctx* auth, text_buffer* output) {
    if (!LOG_ASSERT(auth != nullptr && output != nullptr && auth->owner != nullptr)) {
        return false;
    }
    const http_proxy_ctx* ctx = auth->owner;
    text_buffer authorisation = {};
    bool ok =
        text_buffer_init(&authorisation, 128) &&
        text_buffer_append_format(&authorisation, "%s", "") &&
        _append_authorisation(ctx->proxy, &authorisation) &&
        text_buffer_append_format(output,
                                  "CONNECT %s:%d HTTP/1.1\r\n"
                                  "Host: %s:%d\r\n"
                                  "%s"
                                  "Accept: */*\r\n"
                                  "Proxy-Connection: Keep-Alive\r\n"
                                  "Content-length: 0\r\n"
                                  "\r\n",
                                  ctx->host, ctx->port, ctx->host, ctx->port, authorisation.data);
    text_buffer_release(&authorisation);
    return ok;
}

// Loop thread. From _start_basic_auth; next _start_recv.
static void _send_request_result(uv_write_t* request, int status) {
    basic_auth_ctx* auth = (basic_auth_ctx*)request->data;
    request->data = nullptr;
    text_buffer_release(&auth->request);
    if (auth->tcp == nullptr) {
        status = UV_ECANCELED;  // Closed by an abort, also when the bytes were out already.
    }
    if (status < 0) {
        LOG_ERROR("_send_request_result, status=%d", status);
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
        return;
    }
    _start_recv(auth);
}

static void _start_basic_auth(basic_auth_ctx* auth) {
    if (!text_buffer_init(&auth->request, 512) ||
        !_basic_auth_build_request(auth, &auth->request)) {
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY);
        return;
    }
    uv_buf_t bytes = uv_buf_init(auth->request.data, (unsigned int)auth->request.length);
    auth->write_req.data = auth;
    int ret = uv_write(&auth->write_req, (uv_stream_t*)auth->tcp, &bytes, 1, _send_request_result);
    if (ret != 0) {
        auth->write_req.data = nullptr;
        LOG_ERROR("_start_basic_auth, uv_write failed, ret=%d, %s", ret, uv_strerror(ret));
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND);
    }
}

// Loop thread. From uv_connect_timeout; next _send_request_result.
static void _basic_auth_on_connect_result(uint32_t status, uv_tcp_t* tcp,
                                          const struct sockaddr_storage* address, void* user_data) {
    basic_auth_ctx* auth = (basic_auth_ctx*)user_data;
    auth->tcp = tcp;
    if (status != 0) {
        LOG_ASSERT(tcp == nullptr);
        LOG_ERROR("_basic_auth_on_connect_result, failed, result=%d", (int32_t)status);
        _basic_auth_finish(auth, status);
        return;
    }
    if (!LOG_ASSERT(tcp != nullptr)) {
        _basic_auth_finish(auth, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
        return;
    }
    if (address != nullptr) {
        auth->peer_address = *address;
    }
    _start_basic_auth(auth);
}

// ----------------------------------------------------------------------------------- the start

static bool _basic_auth_is_cancelled(void* user_data) {
    const http_connection* user = ((basic_auth_ctx*)user_data)->owner->user;
    return user != nullptr && http_connection_is_cancelled(user);
}

static void _abort_basic_auth(void* step) {
    basic_auth_ctx* auth = (basic_auth_ctx*)step;
    if (auth->tcp == nullptr) {
        uv_connect_abort(auth);
    } else if (auth->write_req.data != nullptr) {
        close_uv_tcp(&auth->tcp);
    } else {
        expire_uv_timer(auth->timer);
    }
}

// A failure to start is returned, not reported: nothing calls back inside the starting call.
static uint32_t _basic_auth_start(http_proxy_ctx* ctx) {
    basic_auth_ctx* auth = (basic_auth_ctx*)calloc(1, sizeof(basic_auth_ctx));
    if (auth == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    auth->owner = ctx;
    auth->result_step = _basic_auth_result;
    http_connection_set_step(ctx->user, _abort_basic_auth, auth);
    uint32_t err = uv_connect_timeout(ctx->proxy->host, ctx->proxy->port, ctx->timeout, auth,
                                      _basic_auth_on_connect_result, _basic_auth_is_cancelled);
    if (err != 0) {
        LOG_ERROR("_basic_auth_start, uv_connect_timeout failed, result=%d", (int32_t)err);
        LOG_ERROR("_basic_auth_result, failed, result=%d", (int32_t)err);
        _free_basic_auth_ctx(auth);
    }
    return err;
}

static http_proxy_ctx* _new_http_proxy_ctx(const char* host, uint16_t port, proxy_info* proxy) {
    http_proxy_ctx* ctx = (http_proxy_ctx*)calloc(1, sizeof(http_proxy_ctx));
    if (ctx == nullptr) {
        return nullptr;
    }
    ctx->port = port;
    ctx->proxy = proxy;
    ctx->host = string_dup(host);
    if (ctx->host == nullptr) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

uint32_t http_proxy_connect(const char* host, uint16_t port, proxy_info* proxy,
                            http_connection* user, int32_t timeout, proxy_connect_cb callback) {
    if (!LOG_ASSERT(!is_empty_text(host) && callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    if (!LOG_ASSERT(is_valid_http_proxy(proxy))) {
        return TAV_HTTP_ERROR_CODE_INVALID_PROXY;
    }
    http_proxy_ctx* ctx = _new_http_proxy_ctx(host, port, proxy);
    if (ctx == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    ctx->user = user;
    ctx->timeout = timeout;
    ctx->callback = callback;
    uint32_t err = _basic_auth_start(ctx);
    if (err != 0) {
        _free_http_proxy_ctx(ctx);
    }
    return err;
}

const proxy_kind http_proxy_kind = {TAV_HTTP_PROXY_HTTP, "http_proxy_connect",
                                    "_http_proxy_connect_result", is_valid_http_proxy,
                                    http_proxy_connect};
