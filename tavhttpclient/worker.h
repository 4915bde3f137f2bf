// Steps on the worker pool: a step runs on a thread of libuv's pool, and its second half on the
// loop thread.
//
// The same as uv_queue_work, but for the way a step is handed over. Putting a thread to sleep and
// waking it again costs many times what a step takes. So one item of work for the pool runs not one
// step but a batch, one after the other, as long as there are any; and while it pays, a worker that
// has run the last spins for the next before it goes back to the pool, and the loop thread for the
// result before it sleeps in its poll.
#ifndef TAVHTTPCLIENT_WORKER_H
#define TAVHTTPCLIENT_WORKER_H

#include <uv.h>

#include "tavhttpclient/loop.h"

struct worker_step;
typedef void (*worker_function)(worker_step* step);
typedef void (*after_worker_function)(worker_step* step, int status);

// Memory of the caller, until its after-function is called. `data` is the caller's own.
struct worker_step {
    loop_call call;  // waits for a worker, then brings the result
    void* data;
    worker_function work;
    after_worker_function after;
};

// Runs `work(step)` on a worker thread and then `after(step, 0)` on the loop thread, never from
// inside this call. Steps begin in the order in which they are queued, and none waits for one that
// blocks while the pool has a thread left. Loop thread. Result: 0, or libuv's error and nothing
// will be called.
int queue_worker_step(worker_step* step, worker_function work, after_worker_function after);

// For the loop thread, when it may be away for long: sends every waiting step a worker, so that
// none depends on this thread.
void send_missing_workers(void);
// The same before the loop thread sleeps.
void workers_before_sleep(void);

// The module starts and ends with the loop; loop thread. False: out of memory.
bool init_workers(void);
// Runs the loop until the pool has given back every worker.
void uninit_workers(void);

#endif
