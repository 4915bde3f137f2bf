// Steps on the worker pool. See worker.h.
//
// queue_worker_step -> _work_visit (runs steps while there are any) -> _hand_back
//   -> _on_check | _after_work_visit -> _run_results -> the step's after-function
#include "tavhttpclient/worker.h"

#include <stdlib.h>

#include <atomic>

#include "platform/win_thread.h"
#include "tavhttpclient/loop.h"

enum {
    SPINS = 64,          // between two looks at the clock
    BATCHES_A_TURN = 64  // of results, so that the network gets its turn
};

// Times in nanoseconds.
static const uint32_t FIRST_WAKE_NS = 20 * 1000;  // until it is measured
static const uint32_t MAX_WAKE_NS = 100 * 1000;
static const uint64_t VISIT_NS = 2 * 1000 * 1000;  // then other users of the pool get their turn

// A worker's stay with the steps: one item of work for the pool.
struct worker_visit {
    uv_work_t request;
    uint64_t sent_at;
};

struct worker_queue {
    event_loop* owner;
    uv_loop_t* loop;

    uv_mutex_t mutex;   // guards these:
    list_link waiting;  // steps that no worker has taken
    int32_t waiting_count;
    int32_t free_workers;  // on their way, or about to take a step
    uint32_t taken;        // steps so far
    bool someone_looks;    // one worker is enough for that

    std::atomic<uint32_t> wake_ns;      // moving average of what it takes until a worker begins
    std::atomic<int32_t> waiting_hint;  // about waiting_count, to be looked at without the mutex
    std::atomic<worker_step*> results;  // steps that have run, newest first
    std::atomic<uint8_t> loop_sleeps;   // whoever hands something over has to wake it

    uv_async_t wake;  // keeps the loop alive while steps are in flight
    uv_prepare_t prepare;
    uv_check_t check;
    uv_idle_t idle;  // active: the poll returns at once

    // Loop thread.
    int32_t in_flight;  // steps
    int32_t workers;    // visits
    bool one_processor;
    bool looks;  // for results, until:
    bool ready;
    uint64_t look_until;
    uint64_t stalled_at;  // since when no step was taken
    uint32_t taken_then;
};

static worker_queue queue;

// The mutex is held for some instructions: whoever finds it taken has it sooner by asking again
// than by going to sleep.
static void _lock(void) {
    int tries = queue.one_processor ? 1 : SPINS;
    for (int i = 0; i < tries; i++) {
        if (uv_mutex_trylock(&queue.mutex) == 0) {
            return;
        }
        YieldProcessor();
    }
    uv_mutex_lock(&queue.mutex);
}

static void _unlock(void) {
    uv_mutex_unlock(&queue.mutex);
}

// ----------------------------------------------------------------------------- worker threads

// Under the mutex.
static worker_step* _take_step(void) {
    worker_step* step = (worker_step*)list_take_first(&queue.waiting);
    if (step != nullptr) {
        queue.taken++;
        queue.free_workers--;
        queue.waiting_count--;
        queue.waiting_hint.fetch_sub(1, std::memory_order_relaxed);
    }
    return step;
}

// False when none came in time.
static bool _look_for_step(uint64_t until) {
    do {
        for (int i = 0; i < SPINS; i++) {
            if (queue.waiting_hint.load(std::memory_order_relaxed) > 0) {
                return true;
            }
            YieldProcessor();
        }
        SwitchToThread();
    } while (uv_hrtime() < until);
    return false;
}

// What a thread spends on looking before it sleeps. With a single processor it would only keep the
// other side from working.
static uint64_t _looking_time(void) {
    return queue.one_processor ? 0 : 2 * (uint64_t)queue.wake_ns.load(std::memory_order_relaxed);
}

// Null: the worker is no longer counted as free, and has to go.
static worker_step* _next_step(bool was_busy) {
    _lock();
    queue.free_workers += was_busy ? 1 : 0;
    worker_step* step = _take_step();
    if (step == nullptr && was_busy && !queue.someone_looks && !queue.one_processor) {
        uint64_t until = uv_hrtime() + _looking_time();
        bool found = true;
        queue.someone_looks = true;
        while (step == nullptr && found) {
            _unlock();
            found = _look_for_step(until);
            _lock();
            step = _take_step();
        }
        queue.someone_looks = false;
    }
    queue.free_workers -= step == nullptr ? 1 : 0;
    _unlock();
    return step;
}

// False when the loop thread could not be woken. It is woken by the end of the visit then.
static bool _hand_back(worker_step* step) {
    step->next = queue.results.load(std::memory_order_relaxed);
    while (!queue.results.compare_exchange_weak(step->next, step)) {
    }
    if (queue.loop_sleeps.load() == 0 || queue.loop_sleeps.exchange(0) == 0) {
        return true;
    }
    return uv_async_send(&queue.wake) == 0;
}

static void _measure_wake(uint64_t took) {
    uint32_t sample = took < MAX_WAKE_NS ? (uint32_t)took : MAX_WAKE_NS;
    uint32_t average = queue.wake_ns.load(std::memory_order_relaxed);
    queue.wake_ns.store((7 * average + sample) / 8, std::memory_order_relaxed);
}

// Worker thread. From _send_worker; next _after_work_visit.
static void _work_visit(uv_work_t* request) {
    uint64_t began = uv_hrtime();
    _measure_wake(began - ((worker_visit*)request)->sent_at);
    worker_step* step = _next_step(false);
    while (step != nullptr) {
        step->work(step);
        if (!_hand_back(step) || uv_hrtime() - began > VISIT_NS) {
            return;
        }
        step = _next_step(true);
    }
}

// -------------------------------------------------------------------------------- loop thread

static void _after_work_visit(uv_work_t* request, int status);

// Sends a worker; 0, or the pool's error.
static int _begin_visit(worker_visit* visit) {
    _lock();
    queue.free_workers++;
    _unlock();
    visit->sent_at = uv_hrtime();
    int ret = uv_queue_work(queue.loop, &visit->request, _work_visit, _after_work_visit);
    if (ret != 0) {
        _lock();
        queue.free_workers--;
        _unlock();
    }
    return ret;
}

static int _send_worker(void) {
    worker_visit* visit = (worker_visit*)calloc(1, sizeof(worker_visit));
    int ret = visit != nullptr ? _begin_visit(visit) : UV_ENOMEM;
    if (ret != 0) {
        free(visit);
        return ret;
    }
    queue.workers++;
    return 0;
}

static void _take_back(worker_step* step) {
    _lock();
    list_unlink(&step->link);
    queue.waiting_count--;
    _unlock();
    queue.waiting_hint.fetch_sub(1, std::memory_order_relaxed);
}

int queue_worker_step(worker_step* step, worker_function work, after_worker_function after) {
    step->work = work;
    step->after = after;
    step->status = 0;
    _lock();
    list_append(&queue.waiting, &step->link);
    queue.waiting_count++;
    _unlock();
    // Behind the lock: a worker that looks asks for it at once.
    queue.waiting_hint.fetch_add(1, std::memory_order_relaxed);
    // With a worker at hand the step is seen to; _send_missing_workers does the rest.
    int ret = queue.workers == 0 ? _send_worker() : 0;
    if (ret != 0) {
        _take_back(step);
        return ret;
    }
    if (queue.in_flight++ == 0) {
        uv_ref((uv_handle_t*)&queue.wake);
    }
    queue.look_until = uv_hrtime() + _looking_time();
    return 0;
}

// The steps that nobody will run.
static void _refuse_waiting(int status) {
    list_link refused;
    list_init(&refused);
    _lock();
    while (list_link* entry = list_take_first(&queue.waiting)) {
        list_append(&refused, entry);
    }
    queue.waiting_hint.fetch_sub(queue.waiting_count, std::memory_order_relaxed);
    queue.waiting_count = 0;
    _unlock();
    while (list_link* entry = list_take_first(&refused)) {
        worker_step* step = (worker_step*)entry;
        step->status = status;
        _hand_back(step);
    }
}

// More workers, when those that are there do not take the steps in about the time that a new one
// needs to come. Before the loop thread sleeps each step needs one: another may block for long.
static void _send_missing_workers(bool before_sleep) {
    if (queue.waiting_hint.load(std::memory_order_relaxed) == 0) {
        return;
    }
    uint64_t now = uv_hrtime();
    _lock();
    int32_t missing = queue.waiting_count - queue.free_workers;
    bool stalled = queue.taken == queue.taken_then && now - queue.stalled_at > queue.wake_ns.load();
    if (stalled || queue.taken != queue.taken_then) {
        queue.stalled_at = now;
    }
    queue.taken_then = queue.taken;
    _unlock();
    if (!before_sleep) {
        missing = missing > 0 && stalled ? 1 : 0;
    }
    while (missing > 0 && _send_worker() == 0) {
        missing--;
    }
}

void send_missing_workers(void) {
    _send_missing_workers(true);
}

static bool _run_results(void) {
    // Only looking leaves the workers' cache line alone.
    if (queue.results.load(std::memory_order_relaxed) == nullptr) {
        return false;
    }
    worker_step* newest = queue.results.exchange(nullptr);
    worker_step* oldest = nullptr;
    while (newest != nullptr) {
        worker_step* step = newest;
        newest = step->next;
        step->next = oldest;
        oldest = step;
    }
    while (oldest != nullptr) {
        worker_step* step = oldest;
        oldest = step->next;
        if (--queue.in_flight == 0) {
            uv_unref((uv_handle_t*)&queue.wake);
        }
        step->after(step, step->status);
    }
    return true;
}

// Loop thread. From _work_visit.
static void _after_work_visit(uv_work_t* request, int status) {
    (void)status;
    worker_visit* visit = (worker_visit*)request;
    bool needed = queue.workers == 1 && queue.waiting_hint.load(std::memory_order_relaxed) > 0;
    // The last worker does not leave while a step waits: its visit begins anew.
    int ret = needed ? _begin_visit(visit) : 0;
    if (!needed || ret != 0) {
        queue.workers--;
        free(visit);
    }
    if (ret != 0) {
        _refuse_waiting(ret);
    }
    _run_results();
}

bool loop_thread_sleeps(void) {
    return queue.loop_sleeps.load() != 0;
}

static void _on_idle(uv_idle_t* idle) {
    (void)idle;
}

// Before the poll: shall it wait? Whoever hands something over after the flag is set wakes the
// loop, and what was handed over before is seen here.
static void _on_prepare(uv_prepare_t* prepare) {
    (void)prepare;
    queue.looks = queue.in_flight > 0 && uv_hrtime() < queue.look_until;
    _send_missing_workers(!queue.looks);
    bool waits = !queue.looks;
    if (waits) {
        queue.loop_sleeps.store(1);
        waits = queue.results.load() == nullptr && !has_queued_calls(queue.owner);
    }
    if (waits) {
        uv_idle_stop(&queue.idle);
    } else {
        queue.loop_sleeps.store(0);
        uv_idle_start(&queue.idle, _on_idle);
    }
}

// Behind the poll.
static void _on_check(uv_check_t* check) {
    (void)check;
    queue.loop_sleeps.store(0);
    run_queued_calls(queue.owner);
    int spins = queue.looks ? SPINS : 1;
    int batches = 0;
    for (int i = 0; i < spins && queue.in_flight > 0 && batches < BATCHES_A_TURN; i++) {
        if (_run_results()) {
            queue.look_until = uv_hrtime() + _looking_time();
            spins = queue.one_processor ? 1 : SPINS;
            batches++;
            i = 0;
        }
        // Both are for the next turn.
        if (has_deferred_calls(queue.owner) || has_queued_calls(queue.owner)) {
            return;
        }
        YieldProcessor();
    }
    if (spins == SPINS && queue.in_flight > 0) {
        SwitchToThread();
    }
}

static void _on_wake(uv_async_t* wake) {
    (void)wake;  // _on_check does the work.
}

static void _reset_queue(event_loop* owner) {
    queue.owner = owner;
    queue.loop = owner->loop;
    list_init(&queue.waiting);
    queue.waiting_count = 0;
    queue.waiting_hint.store(0);
    queue.free_workers = 0;
    queue.taken = 0;
    queue.taken_then = 0;
    queue.stalled_at = 0;
    queue.look_until = 0;
    queue.results.store(nullptr);
    queue.loop_sleeps.store(1);
    queue.wake_ns.store(FIRST_WAKE_NS);
    queue.in_flight = 0;
    queue.workers = 0;
    queue.one_processor = uv_available_parallelism() == 1;
}

bool init_workers(event_loop* owner) {
    uv_loop_t* loop = owner->loop;
    _reset_queue(owner);
    if (uv_mutex_init(&queue.mutex) != 0) {
        return false;
    }
    if (uv_async_init(loop, &queue.wake, _on_wake) != 0) {
        uv_mutex_destroy(&queue.mutex);
        return false;
    }
    // These cannot fail.
    uv_prepare_init(loop, &queue.prepare);
    uv_check_init(loop, &queue.check);
    uv_idle_init(loop, &queue.idle);
    uv_prepare_start(&queue.prepare, _on_prepare);
    uv_check_start(&queue.check, _on_check);
    uv_unref((uv_handle_t*)&queue.wake);
    uv_unref((uv_handle_t*)&queue.prepare);
    uv_unref((uv_handle_t*)&queue.check);
    uv_unref((uv_handle_t*)&queue.idle);
    queue.ready = true;
    return true;
}

void uninit_workers(void) {
    if (!queue.ready) {
        return;
    }
    while (queue.workers > 0) {
        uv_run(queue.loop, UV_RUN_ONCE);
    }
    queue.ready = false;
    uv_close((uv_handle_t*)&queue.wake, nullptr);
    uv_close((uv_handle_t*)&queue.prepare, nullptr);
    uv_close((uv_handle_t*)&queue.check, nullptr);
    uv_close((uv_handle_t*)&queue.idle, nullptr);
    uv_mutex_destroy(&queue.mutex);
}
