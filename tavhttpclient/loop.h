// The loop thread: its start, its orderly stop, and the ways to run a call on it.
//
// Start   tavHTTPStartup -> run_event_loop -> _run_loop -> loop_thread -> modules -> uv_run
// Stop    tavHTTPShutdown -> stop_event_loop -> _on_async_stop_loop -> uninit_flow_start
//         -> task manager stops -> _stop_task_mgr_callback -> _uninit_flow_finish -> uv_stop
//         -> drain: what is still in flight ends, what is still open is closed -> thread ends
#ifndef TAVHTTPCLIENT_LOOP_H
#define TAVHTTPCLIENT_LOOP_H

#include <uv.h>

#include <atomic>

#include "tavhttpclient/list.h"

typedef void (*loop_function)(void* argument);

struct event_loop;

// What a stop carries through the task manager.
struct stop_context {
    event_loop* loop;
    void (*finish)(event_loop* loop);
};

// One per running loop; written by the loop thread, except `queue` and
// `has_calls` (any thread, under queue_mutex).
struct event_loop {
    uv_loop_t* loop;
    uv_thread_t thread;
    uv_thread_t thread_id;                // the loop thread's own uv_thread_self()
    uv_sem_t* start_sem;                  // during the start handshake only
    std::atomic<uv_async_t*> stop_async;  // wakes the loop for the stop; null once that has begun
    uv_async_t* run_async;                // wakes the loop to run `queue`
    uv_mutex_t queue_mutex;
    uint8_t has_mutex;               // queue_mutex was made
    list_link queue;                 // queued_call entries, newest at the front
    std::atomic<uint8_t> has_calls;  // in `queue`, to be looked at without the mutex
    list_link deferred;  // async_call entries made since the turn's poll began; loop thread only
    list_link due;       // async_call entries to run behind the turn's poll
    uv_idle_t idle;      // both active while calls wait: a poll with nothing to report returns
    uv_check_t check;
    uint8_t stopping;
    uint8_t start_failed;  // the loop thread could not set itself up and has ended
    stop_context stop;     // part of the record, so that a stop cannot fail for want of memory
};

// Starts the loop thread and waits until it runs. True when it runs already. Host thread.
bool run_event_loop(void);
// Stops the loop thread and waits for its end. Host thread; refused on the loop thread.
void stop_event_loop(void);

// The libuv loop. Loop thread only: elsewhere null (and a failed assertion).
uv_loop_t* get_uv_loop(void);
// Any thread.
bool is_loop_thread(void);

// Runs `function(argument)` on a later turn of the loop, once if and only if it returns true.
// Loop thread.
bool async_run(loop_function function, void* argument);

// Runs `function(argument)` on the loop thread, in the order of the calls. Any thread. False: not
// queued, the caller still owns `argument`. A call that is still queued when the stop empties the
// queue is dropped.
bool async_run_safe(loop_function function, void* argument);
// The same, but a dropped call runs `on_drop(argument)` on the loop thread instead, and `accepted`
// is 1 before either can run, if and only if this returns true.
bool async_run_safe_or_drop(loop_function function, void* argument, loop_function on_drop,
                            std::atomic<uint8_t>* accepted);

// Runs the calls that async_run_safe queued so far. Loop thread.
void run_queued_calls(event_loop* loop);
inline bool has_queued_calls(const event_loop* loop) {
    return loop->has_calls.load() != 0;
}
// Calls that async_run deferred wait for the next turn.
inline bool has_deferred_calls(const event_loop* loop) {
    return !list_empty(&loop->deferred) || !list_empty(&loop->due);
}

// The end of a stop: called by the task manager, with the context that the stop gave it, on the
// loop thread once no task is left.
void _stop_task_mgr_callback(void* argument);

#endif
