// Steps on the worker pool: a step runs on a thread of libuv's pool, and its second half on the
// loop thread.
//
// The same as uv_queue_work, but for the way a step is handed over. Putting a thread to sleep and
// waking it again costs many times what a step takes. So a worker that has run a step looks for
// the next one for a moment before it goes back to the pool, and the loop thread looks for the
// result for a moment before it sleeps in its poll. A moment is about twice as long as it takes to
// wake a worker, which is measured: longer would cost more than it can save.
#ifndef TAVHTTPCLIENT_WORKER_H
#define TAVHTTPCLIENT_WORKER_H

#include <uv.h>

#include "tavhttpclient/list.h"

struct event_loop;
struct worker_step;
typedef void (*worker_function)(worker_step* step);
typedef void (*after_worker_function)(worker_step* step, int status);

// Memory of the caller, until its after-function is called. `data` is the caller's own.
struct worker_step {
    list_link link;
    void* data;
    worker_function work;
    after_worker_function after;
    worker_step* next;
    int status;
};
LIST_ENTRY_CHECK(worker_step);

// Runs `work(step)` on a worker thread and then `after(step, status)` on the loop thread, never
// from inside this call. Steps begin in the order in which they are queued, and none waits for one
// that blocks while the pool has a thread left and the loop thread goes on. The status is 0, or
// libuv's error when the pool refused the step: `work` was not called then. Loop thread. Result: 0,
// or libuv's error and nothing will be called.
int queue_worker_step(worker_step* step, worker_function work, after_worker_function after);

// What the loop thread does before it sleeps, for a caller that may hold it up instead: sends each
// waiting step a worker of its own.
void send_missing_workers(void);

// Any thread. False: the loop thread is awake and looks at its queues again before it sleeps.
bool loop_thread_sleeps(void);

// The module starts and ends with the loop; loop thread. False: out of memory or handles.
bool init_workers(event_loop* owner);
// Runs the loop until the pool has given back every worker, then closes the handles.
void uninit_workers(void);

#endif
