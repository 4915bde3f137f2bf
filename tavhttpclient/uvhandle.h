// libuv handles on the heap: one way to make, arm and close them. Loop thread only.
#ifndef TAVHTTPCLIENT_UVHANDLE_H
#define TAVHTTPCLIENT_UVHANDLE_H

#include <stdint.h>
#include <uv.h>

// The close callback of every heap-allocated libuv handle: frees the handle's memory.
void free_handle_on_close(uv_handle_t* handle);

// A timer on the loop, its data set, not armed; null when it cannot be made. Armed by
// arm_uv_timer only, closed by close_uv_timer.
uv_timer_t* new_uv_timer(uv_loop_t* loop, void* data);

// Calls on_timeout(timer) once, `timeout` ms from now or a little later: what has arrived in that
// time is always delivered first, also when a callback has held the loop thread up beyond it. Arms
// an armed timer anew. Returns 0, or libuv's error and it is not armed; null gives UV_ENOMEM.
int arm_uv_timer(uv_timer_t* timer, uv_timer_cb on_timeout, uint64_t timeout);
// Ends the time of an armed timer now; what is not armed stays so. Null is allowed.
void expire_uv_timer(uv_timer_t* timer);
// Null is allowed.
void stop_uv_timer(uv_timer_t* timer);
// Stops and closes the timer and clears the field; null is allowed.
void close_uv_timer(uv_timer_t** timer);

// Closes a heap-allocated TCP handle and clears the field; null is allowed.
void close_uv_tcp(uv_tcp_t** tcp);

#endif
