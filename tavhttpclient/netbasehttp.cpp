// One write and one read at a time over a connected TCP handle, each with a time-out:
//
//   http_send -> (_on_send_timeout closes the stream) -> _on_send_result -> send_callback
//   http_recv -> _on_recv_alloc -> _on_recv_result | _on_recv_timeout -> _notify_recv_result
//     -> recv_callback
#include "tavhttpclient/netbasehttp.h"

#include <string.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/uvhandle.h"

// Starts the timer of one direction, made on first use; it lives as long as the connection.
static bool _start_io_timer(uv_timer_t** timer, uv_loop_t* loop, http_connection* conn,
                            uv_timer_cb on_timeout, int32_t timeout) {
    if (*timer == nullptr) {
        *timer = new_uv_timer(loop, conn);
    }
    return arm_uv_timer(*timer, on_timeout, (uint64_t)timeout) == 0;
}

// -------------------------------------------------------------------------------------- send

static uint32_t _send_status(const http_connection* conn, int status) {
    if (conn->stream == nullptr) {
        LOG_INFO("_on_send_result, timeout, conn-id=%u, status=%d", conn->id, status);
        return TAV_HTTP_ERROR_CODE_SEND_TIMEOUT;
    }
    if (status < 0) {
        LOG_INFO("_on_send_result, failed, conn-id=%u, status=%d", conn->id, status);
        return TAV_HTTP_ERROR_CODE_FAIL_SEND;
    }
    count_sent_bytes(conn->send_buf.len);
    return TAV_HTTP_ERROR_CODE_OK;
}

// Loop thread. From http_send; next the caller's callback.
static void _on_send_result(uv_write_t* request, int status) {
    http_connection* conn = (http_connection*)request->data;
    request->data = nullptr;
    if (!http_connection_release(conn)) {
        return;  // Closed while the write was pending; the record may be gone.
    }
    if (conn->send_timer != nullptr && uv_timer_stop(conn->send_timer) != 0) {
        LOG_ERROR("_on_send_result, uv_timer_stop failed, conn-id=%d", (int)conn->id);
    }
    http_send_cb callback = conn->send_callback;
    void* user = conn->send_user;
    conn->send_callback = nullptr;
    conn->send_user = nullptr;
    uint32_t code = _send_status(conn, status);
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, user, code);
    }
}

// Loop thread, timer. From http_send; the close cancels the write, next _on_send_result.
static void _on_send_timeout(uv_timer_t* timer) {
    http_connection* conn = (http_connection*)timer->data;
    if (!LOG_ASSERT(conn != nullptr)) {
        return;
    }
    int stopped = uv_timer_stop(timer);
    if (!LOG_ASSERT(stopped == 0)) {
        LOG_ERROR("_on_send_timeout, uv_timer_stop failed, conn-id=%d", (int)conn->id);
    }
    LOG_INFO("_uv_write_timeout, conn-id=%u", conn->id);
    close_uv_tcp(&conn->stream);
}

// Hands the one buffer to libuv; false when there is no stream any more or libuv refuses.
static bool _start_write(http_connection* conn, const char* data, int32_t length) {
    if (conn->stream == nullptr) {
        return false;
    }
    conn->send_buf = uv_buf_init((char*)data, (unsigned int)length);
    memset(&conn->write_req, 0, sizeof(conn->write_req));
    conn->write_req.data = conn;
    if (uv_write(&conn->write_req, (uv_stream_t*)conn->stream, &conn->send_buf, 1,
                 _on_send_result) != 0) {
        conn->write_req.data = nullptr;
        return false;
    }
    http_connection_hold(conn);
    return true;
}

uint32_t http_send(http_connection* conn, void* user, const char* data, int32_t length,
                   int32_t timeout, http_send_cb callback) {
    if (!LOG_ASSERT(conn != nullptr && data != nullptr && length > 0 && callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    // The request inside the record may not be reused while libuv still has it.
    if (!LOG_ASSERT(conn->write_req.data == nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    conn->send_user = user;
    conn->send_callback = callback;
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    if (!_start_write(conn, data, length)) {
        LOG_ERROR("http_send: uv_write fail, conn-id=%u", conn->id);
        return TAV_HTTP_ERROR_CODE_FAIL_SEND;
    }
    if (timeout > 0 && !_start_io_timer(&conn->send_timer, loop, conn, _on_send_timeout, timeout)) {
        LOG_ERROR("http_send: uv_timer_start fail, conn-id=%u", conn->id);
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// ----------------------------------------------------------------------------------- receive

// The one exit of a receive.
static void _notify_recv_result(http_connection* conn, uint32_t status) {
    void* user = conn->recv_user;
    http_recv_cb callback = conn->recv_callback;
    char* buffer = conn->recv_buf;
    int32_t nread = conn->recv_len;
    conn->recv_user = nullptr;
    conn->recv_callback = nullptr;
    conn->recv_buf = nullptr;
    conn->recv_len = 0;
    conn->recv_buf_size = 0;
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, user, status, buffer, nread);
    }
}

static void _on_recv_alloc(uv_handle_t* handle, size_t suggested, uv_buf_t* offer) {
    http_connection* conn = (http_connection*)handle->data;
    (void)suggested;
    *offer = conn != nullptr ? uv_buf_init(conn->recv_buf, conn->recv_buf_size)
                             : uv_buf_init(nullptr, 0);
}

// Loop thread. From http_recv; next _notify_recv_result.
static void _on_recv_result(uv_stream_t* stream, ssize_t nread, const uv_buf_t* offer) {
    http_connection* conn = (http_connection*)stream->data;
    (void)offer;
    if (!LOG_ASSERT(conn != nullptr)) {
        return;
    }
    if (conn->recv_timer != nullptr) {
        uv_timer_stop(conn->recv_timer);
    }
    uv_read_stop(stream);
    if (nread < 0 && nread != UV_EOF) {
        LOG_INFO("_on_recv_response, failed, conn-id=%u, read=%d", conn->id, (int)nread);
        _notify_recv_result(conn, TAV_HTTP_ERROR_CODE_FAIL_RECV);
        return;
    }
    if (nread == UV_EOF) {
        LOG_INFO("_on_recv_response, remote close the connection, conn-id=%u, read=%d", conn->id,
                 (int)nread);
        nread = 0;
    } else if (nread == 0) {
        LOG_INFO("_on_recv_response, nread==0, conn-id=%u", conn->id);
    }
    count_received_bytes((uint64_t)nread);
    conn->recv_len = (int32_t)nread;
    _notify_recv_result(conn, TAV_HTTP_ERROR_CODE_OK);
}

// Loop thread, timer. From http_recv; next _notify_recv_result. The stream stays usable.
static void _on_recv_timeout(uv_timer_t* timer) {
    http_connection* conn = (http_connection*)timer->data;
    if (!LOG_ASSERT(conn != nullptr)) {
        return;
    }
    uv_timer_stop(timer);
    // A send time-out may have closed the stream under the pending read.
    if (conn->stream != nullptr) {
        uv_read_stop((uv_stream_t*)conn->stream);
    }
    LOG_INFO("_on_recv_timeout, conn-id=%u, host=%s", conn->id,
             conn->host != nullptr ? conn->host : "");
    _notify_recv_result(conn, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT);
}

static bool _start_read(http_connection* conn) {
    if (conn->stream == nullptr) {
        return false;
    }
    conn->stream->data = conn;
    return uv_read_start((uv_stream_t*)conn->stream, _on_recv_alloc, _on_recv_result) == 0;
}

uint32_t http_recv(http_connection* conn, void* user, char* buffer, uint32_t size, int32_t timeout,
                   http_recv_cb callback) {
    if (!LOG_ASSERT(conn != nullptr && callback != nullptr && buffer != nullptr && size != 0)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    conn->recv_len = 0;
    conn->recv_user = user;
    conn->recv_callback = callback;
    conn->recv_buf = buffer;
    conn->recv_buf_size = size;
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    if (!_start_read(conn)) {
        LOG_INFO("_real_start_recv, uv_read_start failed, conn-id=%d", (int)conn->id);
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    if (timeout > 0 && !_start_io_timer(&conn->recv_timer, loop, conn, _on_recv_timeout, timeout)) {
        LOG_INFO("_real_start_recv, uv_timer_start failed, conn-id=%d", (int)conn->id);
    }
    return TAV_HTTP_ERROR_CODE_OK;
}
