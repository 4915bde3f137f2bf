// Two operations on top of libuv: resolve and connect within a time budget, and read one chunk with
// a time-out. Loop thread only.
#ifndef TAVHTTPCLIENT_UVHELPER_H
#define TAVHTTPCLIENT_UVHELPER_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"

// status     0, or an error code.
// tcp        on success the connected handle, owned by the callee (uv_close with
//            free_handle_on_close); else null.
// addr       valid during the call; null after a resolution time-out.
typedef void (*uv_connect_timeout_cb)(uint32_t status, uv_tcp_t* tcp,
                                      const struct sockaddr_storage* addr, void* user_data);

// True when nobody waits for the result any more: the operation goes no further then.
typedef bool (*uv_connect_cancel_probe)(void* user_data);

// Resolves `host` and connects over IPv4 and IPv6 at once.
//
// timeout  ms for both together; 0 or less: none.
// probe    may be null. Asked before the resolution, before the connect, and now and then while an
//          attempt that could not even be started keeps the operation from ending; once true the
//          operation ends with FAIL_CONNECT.
// Returns  0: `callback` is called once, on a later turn; any other code: it is not.
uint32_t uv_connect_timeout(const char* host, uint16_t port, int32_t timeout, void* user_data,
                            uv_connect_timeout_cb callback, uv_connect_cancel_probe probe);

// Ends the pending operation of `user_data`, whose probe is true from now on, as its time-outs
// would: the callback follows on a later turn. Without such an operation nothing happens.
void uv_connect_abort(void* user_data);

// Lookups whose result nobody waits for any more but that the system has not given up yet.
// uv_connect_abandon_lookups cancels those that have not begun and closes the handles of the
// others, so that the loop can end; returns how many requests stay. End of the loop.
int32_t uv_connect_abandon_lookups(void);

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

// Ends the wait of a pending read as its time-out would; the callback follows on a later turn.
void uv_recv_abort(uv_io_ctx* ctx);

// Reads one chunk into `buffer`, at most 30 seconds. Sets stream->data.
// Returns 0: `callback` is called once, later; any other code: it is not.
uint32_t uv_recv_timeout(uv_stream_t* stream, uv_io_ctx* ctx, text_buffer* buffer,
                         uv_io_recv_cb callback);

#endif
