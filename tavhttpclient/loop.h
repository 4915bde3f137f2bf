// The loop thread: its start, its turns, its orderly stop, and the ways to run a call on it.
//
// Start   tavHTTPStartup -> run_event_loop -> _run_loop -> loop_thread -> modules -> turns
// Turn    the poll (network, timers, ends of the pool's work), then what is in the inbox
// Stop    tavHTTPShutdown -> stop_event_loop -> _on_async_stop_loop -> uninit_flow_start
//         -> task manager stops -> _stop_task_mgr_callback -> _uninit_flow_finish
//         -> drain: what is still in flight ends, what is still open is closed -> thread ends
//
// There is one inbox, for calls of other threads, deferred calls and the results of worker steps;
// one place that decides whether the poll may sleep; and one handle that wakes it.
#ifndef TAVHTTPCLIENT_LOOP_H
#define TAVHTTPCLIENT_LOOP_H

#include <stdint.h>
#include <uv.h>

#include <atomic>

#include "tavhttpclient/list.h"

typedef void (*loop_function)(void* argument);

struct event_loop;

// What lives exactly as long as the loop. All run on the loop thread.
struct loop_modules {
    bool (*init)(void);          // false: the start has failed; uninit is called all the same
    void (*before_sleep)(void);  // before each poll that may sleep
    // Begins the stop and passes `context` to _stop_task_mgr_callback when it is complete. False:
    // there is nothing to stop.
    bool (*begin_stop)(void* context);
    void (*drain)(void);  // ends what is left, with run_loop_turn
    void (*uninit)(void);
};

// Starts the loop thread and waits until it runs. True when it runs already. `modules` is not
// copied. Host thread.
bool run_event_loop(const loop_modules* modules);
// Stops the loop thread and waits for its end. Host thread; refused on the loop thread.
void stop_event_loop(void);
// The end of a stop: called with the context of `begin_stop`, on the loop thread, once no task is
// left.
void _stop_task_mgr_callback(void* argument);

// The libuv loop. Loop thread only: elsewhere null (and a failed assertion).
uv_loop_t* get_uv_loop(void);
// Any thread.
bool is_loop_thread(void);

// Runs `function(argument)` on a later turn of the loop, once if and only if it returns true.
// Loop thread.
bool async_run(loop_function function, void* argument);

// Runs `function(argument)` on the loop thread, in the order of the calls. Any thread. False: not
// queued, the caller still owns `argument`. A call that is still queued when the stop empties the
// queue is discarded.
bool async_run_safe(loop_function function, void* argument);
// The same, but for a call that is discarded `on_discard(argument)` runs on the loop thread, and
// `accepted` is 1 before either can run, if and only if this returns true.
bool async_run_safe_or_discard(loop_function function, void* argument, loop_function on_discard,
                               std::atomic<uint8_t>* accepted);

// A call in memory of the caller's own, which the loop touches no more once it calls a function.
struct loop_call {
    list_link link;
    void (*run)(loop_call* call);
    void (*discard)(loop_call* call);  // by a stop, instead of `run`; null: it runs all the same
};
LIST_ENTRY_CHECK(loop_call);

// The loop of the calling thread; null off the loop thread.
event_loop* get_event_loop(void);
// Puts a call into the inbox of a loop that cannot end before it has run. Any thread. False: the
// loop thread could not be woken, and the call is not in the inbox.
bool post_loop_call(event_loop* loop, loop_call* call);
// The same for a caller who knows that the loop thread is awake, or will be woken.
void append_loop_call(event_loop* loop, loop_call* call);
// Until then (uv_hrtime) the loop thread spins for the inbox before it sleeps; 0: it does not. The
// last call counts. Loop thread.
void spin_loop_until(uint64_t time);

// For the drain. Loop thread.
void run_loop_turn(void);
// Something is open, in flight or in the inbox.
bool is_loop_busy(void);

// Takes a mutex that is never held for more than some instructions: whoever finds it taken has it
// sooner by asking again than by going to sleep.
void lock_spinning(uv_mutex_t* mutex);

#endif
