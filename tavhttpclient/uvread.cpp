// uv_recv_timeout -> _uv_recv_alloc -> _uv_recv_result | _uv_recv_timeout -> recv_callback
#include "tavhttpclient/uvread.h"

#include <stdlib.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"

enum {
    RECV_CHUNK = 32768,
    RECV_TIMEOUT = 30000  // ms
};

uv_io_ctx* uv_io_ctx_new(void) {
    uv_io_ctx* ctx = (uv_io_ctx*)calloc(1, sizeof(uv_io_ctx));
    if (ctx == nullptr) {
        return nullptr;
    }
    ctx->write_req = (uv_write_t*)calloc(1, sizeof(uv_write_t));
    if (ctx->write_req == nullptr) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

void uv_io_ctx_free(uv_io_ctx* ctx) {
    if (ctx == nullptr) {
        return;
    }
    ctx->owner = nullptr;
    ctx->recv_callback = nullptr;
    ctx->stream = nullptr;
    ctx->buffer = nullptr;
    free(ctx->write_req);
    close_uv_timer(&ctx->timer);
    free(ctx);
}

void uv_recv_abort(uv_io_ctx* ctx) {
    expire_uv_timer(ctx->timer);
}

static void _report_recv(uv_io_ctx* ctx, uint32_t status) {
    uv_io_recv_cb callback = ctx->recv_callback;
    ctx->recv_callback = nullptr;
    if (callback != nullptr) {
        callback(status, ctx, ctx->buffer);
    }
}

static void _uv_recv_alloc(uv_handle_t* handle, size_t suggested, uv_buf_t* offer) {
    uv_io_ctx* ctx = (uv_io_ctx*)handle->data;
    (void)suggested;
    *offer = uv_buf_init(nullptr, 0);
    if (ctx->buffer == nullptr || !text_buffer_reserve(ctx->buffer, RECV_CHUNK)) {
        return;
    }
    ctx->buffer->length = 0;
    *offer = uv_buf_init(ctx->buffer->data, (unsigned int)ctx->buffer->capacity);
}

// Loop thread. From uv_recv_timeout; next the caller's callback.
static void _uv_recv_result(uv_stream_t* stream, ssize_t nread, const uv_buf_t* offer) {
    uv_io_ctx* ctx = (uv_io_ctx*)stream->data;
    uint32_t status = TAV_HTTP_ERROR_CODE_OK;
    (void)offer;
    uv_read_stop(stream);
    stop_uv_timer(ctx->timer);
    if (ctx->buffer != nullptr) {
        ctx->buffer->length = nread > 0 ? (int32_t)nread : 0;
    }
    if (nread == UV_EOF) {
        LOG_INFO("_uv_recv_result, remote close the connection, nread=%d", (int)nread);
    } else if (nread < 0) {
        LOG_INFO("_uv_recv_result, failed, status=%d", (int)nread);
        status = TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    _report_recv(ctx, status);
}

// Loop thread, timer. From uv_recv_timeout; next the caller's callback.
static void _uv_recv_timeout(uv_timer_t* timer) {
    uv_io_ctx* ctx = (uv_io_ctx*)timer->data;
    LOG_INFO("_uv_recv_timeout");
    if (ctx->stream != nullptr) {
        uv_read_stop(ctx->stream);
    }
    uv_timer_stop(timer);
    _report_recv(ctx, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT);
}

uint32_t uv_recv_timeout(uv_stream_t* stream, uv_io_ctx* ctx, text_buffer* buffer,
                         uv_io_recv_cb callback) {
    if (!LOG_ASSERT(stream != nullptr && ctx != nullptr && buffer != nullptr &&
                    callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        LOG_ERROR("uv_recv_timeout, get_uv_loop failed.");
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    stream->data = ctx;
    if (uv_read_start(stream, _uv_recv_alloc, _uv_recv_result) != 0) {
        LOG_INFO("uv_recv_timeout, uv_read_start failed.");
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    if (ctx->timer == nullptr) {
        ctx->timer = new_uv_timer(loop, ctx);
        if (ctx->timer == nullptr) {
            LOG_ERROR("uv_recv_timeout, uv_timer_init failed.");
        }
    }
    if (ctx->timer != nullptr && arm_uv_timer(ctx->timer, _uv_recv_timeout, RECV_TIMEOUT) != 0) {
        LOG_INFO("uv_recv_timeout, uv_timer_start failed.");
    }
    ctx->buffer = buffer;
    ctx->recv_callback = callback;
    ctx->stream = stream;
    return TAV_HTTP_ERROR_CODE_OK;
}
