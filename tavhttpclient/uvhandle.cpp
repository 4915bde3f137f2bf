// Handles, and the timers behind every time-out:
//
//   arm_uv_timer -> _on_timer_due, until the poll has had its chances -> on_timeout
#include "tavhttpclient/uvhandle.h"

#include <stdlib.h>

// How often the loop polls between the end of a time-out and its report. Timers run before the
// poll: after a callback that took long they would be served before the bytes that are there. The
// second poll is for systems where the first one only collects what the next turn delivers, the
// third because timers run behind a poll that has slept too.
enum {
    POLL_CHANCES = 3
};

// What new_uv_timer makes.
struct heap_timer {
    uv_timer_t handle;  // first, so that it is closed and freed like any other handle
    uv_timer_cb on_timeout;
    int32_t chances;  // polls still to come before on_timeout
};

void free_handle_on_close(uv_handle_t* handle) {
    free(handle);
}

uv_timer_t* new_uv_timer(uv_loop_t* loop, void* data) {
    heap_timer* timer = (heap_timer*)calloc(1, sizeof(heap_timer));
    if (timer == nullptr) {
        return nullptr;
    }
    if (uv_timer_init(loop, &timer->handle) != 0) {
        free(timer);
        return nullptr;
    }
    timer->handle.data = data;
    return &timer->handle;
}

// Loop thread. From arm_uv_timer; next on_timeout.
static void _on_timer_due(uv_timer_t* handle) {
    heap_timer* timer = (heap_timer*)handle;
    // The loop's time moves only with its turns, so a millisecond from it is behind the next poll.
    if (timer->chances-- > 0 && uv_timer_start(handle, _on_timer_due, 1, 0) == 0) {
        return;
    }
    timer->on_timeout(handle);
}

// The loop reads the clock once a turn, but libuv counts from that reading: a callback that has
// held the thread up would eat from the time-outs that are armed behind it.
static uint64_t _time_since_turn(const uv_loop_t* loop) {
    uint64_t now = uv_hrtime() / 1000000;
    uint64_t turn = uv_now(loop);
    return now > turn ? now - turn : 0;
}

int arm_uv_timer(uv_timer_t* handle, uv_timer_cb on_timeout, uint64_t timeout) {
    if (handle == nullptr) {
        return UV_ENOMEM;
    }
    heap_timer* timer = (heap_timer*)handle;
    timer->on_timeout = on_timeout;
    timer->chances = POLL_CHANCES;
    return uv_timer_start(handle, _on_timer_due, timeout + _time_since_turn(handle->loop), 0);
}

void expire_uv_timer(uv_timer_t* handle) {
    if (handle != nullptr && uv_is_active((uv_handle_t*)handle) != 0) {
        arm_uv_timer(handle, ((heap_timer*)handle)->on_timeout, 0);
    }
}

void stop_uv_timer(uv_timer_t* timer) {
    if (timer != nullptr) {
        uv_timer_stop(timer);
    }
}

void close_uv_timer(uv_timer_t** timer) {
    if (*timer == nullptr) {
        return;
    }
    uv_timer_stop(*timer);
    uv_close((uv_handle_t*)*timer, free_handle_on_close);
    *timer = nullptr;
}

void close_uv_tcp(uv_tcp_t** tcp) {
    if (*tcp == nullptr) {
        return;
    }
    uv_close((uv_handle_t*)*tcp, free_handle_on_close);
    *tcp = nullptr;
}
