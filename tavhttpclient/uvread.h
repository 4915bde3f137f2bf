// Reads of one chunk with a time-out. Loop thread only.
#ifndef TAVHTTPCLIENT_UVREAD_H
#define TAVHTTPCLIENT_UVREAD_H

#include <stdint.h>
#include <uv.h>

struct text_buffer;
struct uv_io_ctx;

// status 0 with an empty buffer: the peer closed.
typedef void (*uv_io_recv_cb)(uint32_t status, uv_io_ctx* ctx, text_buffer* buffer);

// Owned by its user.
struct uv_io_ctx {
    void* owner;  // the user's own pointer
    uv_io_recv_cb recv_callback;
    uv_stream_t* stream;
    text_buffer* buffer;    // owned by the user
    uv_write_t* write_req;  // for the user's own writes
    uv_timer_t* timer;      // made on first use
};

uv_io_ctx* uv_io_ctx_new(void);
// Null is allowed. No read may be pending on a stream that lives on.
void uv_io_ctx_free(uv_io_ctx* ctx);

// Reads one chunk into `buffer`, at most 30 seconds. Sets stream->data.
// Returns 0: `callback` is called once, later; any other code: it is not.
uint32_t uv_recv_timeout(uv_stream_t* stream, uv_io_ctx* ctx, text_buffer* buffer,
                         uv_io_recv_cb callback);
// Ends the wait of a pending read as its time-out would; the callback follows on a later turn.
void uv_recv_abort(uv_io_ctx* ctx);

#endif
