// Steps on the worker pool. See worker.h.
//
// queue_worker_step -> _work_batch (runs steps while there are any) -> _hand_back -> the loop's
// inbox -> _run_result -> the step's after-function
#include "tavhttpclient/worker.h"

#include <stdlib.h>

#include <atomic>

#include "platform/win_thread.h"

enum {
    SPINS = 64  // checks between two readings of the clock
};

// What is counted as saved by spinning, and as lost; about in the relation of the processor times.
enum {
    GAIN_OF_STEP = 1,
    GAIN_OF_SHORT_PAUSE = 4,
    LOSS_OF_LONG_PAUSE = 8,
    PAID_ENOUGH = 16,
    PAID_MOST = 32
};

// Times in nanoseconds.
static const uint64_t SPIN_NS = 60 * 1000;         // about what it takes to wake a thread, twice
static const uint64_t BATCH_NS = 2 * 1000 * 1000;  // then other users of the pool get their turn

struct worker_queue {
    event_loop* loop;

    uv_mutex_t mutex;  // guards these:
    list_link waiting;
    std::atomic<int32_t> waiting_count;  // also read without the mutex
    int32_t free_workers;                // sure to come for a step: on their way, or spinning
    uint64_t came_at;                    // when a worker last came for a step, or one began to wait
    bool someone_spins;                  // one is enough

    std::atomic<uint8_t> spins;  // spinning has paid lately

    // Loop thread.
    bool ready;
    bool one_processor;  // to spin would only keep the other side from working
    int32_t in_flight;   // steps
    int32_t batches;     // items of work for the pool
    int32_t paid;        // how much spinning has paid lately
    uint64_t paused_at;  // when the loop thread went to sleep with no step under way; 0: it did not
};

static worker_queue queue;

static void _lock(void) {
    lock_spinning(&queue.mutex);
}

static void _unlock(void) {
    uv_mutex_unlock(&queue.mutex);
}

static bool _spinning_pays(void) {
    return queue.spins.load(std::memory_order_relaxed) != 0;
}

// ----------------------------------------------------------------------------- worker threads

// Under the mutex.
static worker_step* _take_step(void) {
    worker_step* step = (worker_step*)list_take_first(&queue.waiting);
    if (step != nullptr) {
        queue.waiting_count.fetch_sub(1, std::memory_order_relaxed);
    }
    return step;
}

static void _spin_for_step(void) {
    uint64_t until = uv_hrtime() + SPIN_NS;
    do {
        for (int i = 0; i < SPINS; i++) {
            if (queue.waiting_count.load(std::memory_order_relaxed) > 0) {
                return;
            }
            YieldProcessor();
        }
        SwitchToThread();
    } while (uv_hrtime() < until);
}

// The next step of a free worker. Null: it is not counted as free any more, and has to go. Under
// the mutex, which is released meanwhile.
static worker_step* _next_step(void) {
    worker_step* step = _take_step();
    if (step == nullptr && !queue.someone_spins && _spinning_pays()) {
        queue.someone_spins = true;
        _unlock();
        _spin_for_step();
        _lock();
        queue.someone_spins = false;
        step = _take_step();
    }
    queue.free_workers--;
    return step;
}

// Wakes the loop thread.
static void _hand_back(worker_step* step) {
    while (!post_loop_call(queue.loop, &step->call)) {
        uv_sleep(1);  // Unheard, the result would be waited for without end.
    }
}

static worker_step* _come_for_step(uint64_t now, int32_t became_free) {
    _lock();
    queue.came_at = now;
    queue.free_workers += became_free;
    worker_step* step = _next_step();
    _unlock();
    return step;
}

// Worker thread. From _send_worker; next _after_work_batch.
static void _work_batch(uv_work_t* request) {
    (void)request;
    uint64_t began = uv_hrtime();
    worker_step* step = _come_for_step(began, 0);
    while (step != nullptr) {
        step->work(step);
        uint64_t now = uv_hrtime();
        bool idle = !_spinning_pays() && queue.waiting_count.load(std::memory_order_relaxed) == 0;
        if (idle || now - began > BATCH_NS) {
            append_loop_call(queue.loop, &step->call);  // The end of the batch wakes the loop.
            return;
        }
        _hand_back(step);
        step = _come_for_step(now, 1);
    }
}

// -------------------------------------------------------------------------------- loop thread

static void _after_work_batch(uv_work_t* request, int status);

static void _add_free_workers(int32_t count) {
    _lock();
    queue.free_workers += count;
    _unlock();
}

// 0, or the pool's error.
static int _send_worker(void) {
    uv_work_t* request = (uv_work_t*)calloc(1, sizeof(uv_work_t));
    if (request == nullptr) {
        return UV_ENOMEM;
    }
    _add_free_workers(1);
    int ret = uv_queue_work(get_uv_loop(), request, _work_batch, _after_work_batch);
    if (ret != 0) {
        _add_free_workers(-1);
        free(request);
        return ret;
    }
    queue.batches++;
    return 0;
}

// Spinning pays when the next step comes before it is over. A step that follows on another's result
// would have been caught; a pause that the outside makes tells more.
static void _note_step(uint64_t now) {
    int32_t gain = GAIN_OF_STEP;
    if (queue.paused_at != 0) {
        gain = now - queue.paused_at < SPIN_NS ? GAIN_OF_SHORT_PAUSE : -LOSS_OF_LONG_PAUSE;
        queue.paused_at = 0;
    }
    int32_t paid = queue.paid + gain;
    queue.paid = paid < 0 ? 0 : (paid > PAID_MOST ? (int32_t)PAID_MOST : paid);
    bool spins = queue.paid >= PAID_ENOUGH && !queue.one_processor;
    queue.spins.store(spins ? 1 : 0, std::memory_order_relaxed);
}

static void _run_result(loop_call* call) {
    worker_step* step = (worker_step*)call;
    if (--queue.in_flight == 0) {
        spin_loop_until(0);
    }
    step->after(step, 0);
}

// True: one more worker, since those that are there do not come for the steps. The rest is done
// before the loop thread sleeps.
static bool _append_step(worker_step* step, uint64_t now) {
    _lock();
    if (list_empty(&queue.waiting)) {
        queue.came_at = now;
    }
    list_append(&queue.waiting, &step->call.link);
    int32_t count = queue.waiting_count.fetch_add(1, std::memory_order_relaxed) + 1;
    bool stalled = count > queue.free_workers && now - queue.came_at > SPIN_NS;
    _unlock();
    return stalled || queue.batches == 0;
}

static void _remove_step(worker_step* step) {
    _lock();
    list_unlink(&step->call.link);
    queue.waiting_count.fetch_sub(1, std::memory_order_relaxed);
    _unlock();
}

int queue_worker_step(worker_step* step, worker_function work, after_worker_function after) {
    uint64_t now = uv_hrtime();
    step->call.run = _run_result;
    step->call.discard = nullptr;
    step->work = work;
    step->after = after;
    int ret = _append_step(step, now) ? _send_worker() : 0;
    if (ret != 0 && queue.batches == 0) {
        _remove_step(step);
        return ret;
    }
    _note_step(now);
    queue.in_flight++;
    spin_loop_until(_spinning_pays() ? now + SPIN_NS : 0);
    return 0;
}

void send_missing_workers(void) {
    if (queue.waiting_count.load(std::memory_order_relaxed) == 0) {
        return;
    }
    _lock();
    int32_t missing = queue.waiting_count.load(std::memory_order_relaxed) - queue.free_workers;
    _unlock();
    while (missing > 0 && _send_worker() == 0) {
        missing--;
    }
}

// Loop thread. From _work_batch.
static void _after_work_batch(uv_work_t* request, int status) {
    (void)status;
    free(request);
    if (--queue.batches == 0) {
        send_missing_workers();
    }
}

void workers_before_sleep(void) {
    send_missing_workers();
    // With a step under way the next is late for another reason; unless the result was spun for.
    if (queue.paused_at == 0 && (queue.in_flight == 0 || _spinning_pays())) {
        queue.paused_at = uv_hrtime();
    }
}

bool init_workers(void) {
    if (uv_mutex_init(&queue.mutex) != 0) {
        return false;
    }
    queue.loop = get_event_loop();
    list_init(&queue.waiting);
    queue.waiting_count.store(0, std::memory_order_relaxed);
    queue.free_workers = 0;
    queue.came_at = 0;
    queue.someone_spins = false;
    queue.one_processor = uv_available_parallelism() == 1;
    queue.spins.store(queue.one_processor ? 0 : 1, std::memory_order_relaxed);
    queue.in_flight = 0;
    queue.batches = 0;
    queue.paid = PAID_ENOUGH;
    queue.paused_at = 0;
    queue.ready = true;
    return true;
}

void uninit_workers(void) {
    if (!queue.ready) {
        return;
    }
    while (queue.batches > 0) {
        run_loop_turn();
    }
    queue.ready = false;
    uv_mutex_destroy(&queue.mutex);
}
