// The loop thread. See loop.h for the chains of start, turn and stop.
#include "tavhttpclient/loop.h"

#include <stdlib.h>

#include <atomic>

#include "platform/win_socket.h"
#include "platform/win_thread.h"
#include "tavhttpclient/log.h"

enum {
    SPINS = 64,          // checks before a spinning thread gives way to others
    BATCHES_A_TURN = 64  // of calls, so that the network gets its turn
};

// What a stop carries through the task manager.
struct stop_context {
    event_loop* loop;
    void (*finish)(event_loop* loop);
};

// One per running loop. The loop thread's own, but for the inbox.
struct event_loop {
    uv_loop_t* loop;
    const loop_modules* modules;
    uv_thread_t thread;
    uv_thread_t thread_id;  // unread
    uv_sem_t* start_sem;    // during the start handshake only
    uv_async_t stop_async;  // wakes the loop for the stop
    uv_async_t run_async;   // wakes the loop for the inbox
    uv_prepare_t prepare;   // decides whether the poll sleeps
    uv_idle_t idle;         // active: it does not

    uv_mutex_t queue_mutex;  // guards the inbox:
    list_link queue;         // loop_call entries, oldest first
    uint8_t sleeps;          // the loop thread waits in its poll, or is about to

    std::atomic<uint8_t> has_calls;  // in `queue`; also read without the mutex

    uint64_t spin_until;   // uv_hrtime; 0: it would not pay
    uint8_t deferred;      // a call that async_run queued waits for the next poll
    uint8_t stopping;      // unread
    uint8_t ended;         // no further turn, but for the drain
    uint8_t start_failed;  // the loop thread could not set itself up and has ended
    stop_context stop;     // part of the record, so that a stop cannot fail for want of memory
};

// A call that async_run or async_run_safe queued.
struct queued_call {
    loop_call call;
    void* argument;
    loop_function function;
    loop_function on_discard;
};

// Lock order: loop_lock (read) before queue_mutex. The lock is made by the first start that can and
// never destroyed, since an export on a host thread may come at any moment of a stop.
static uv_rwlock_t loop_lock;
static bool has_loop_lock = false;

// The running loop. Cleared, under loop_lock, when the stop has ended the task manager.
static std::atomic<event_loop*> current_loop(nullptr);

// The loop thread's own record: it stays usable there while the loop drains after the stop.
static thread_local event_loop* own_loop = nullptr;

// Loops that ended while a name lookup was still running in the system; freed by a later start or
// stop. Host thread of tavHTTPStartup and tavHTTPShutdown only.
struct abandoned_loop {
    list_link link;
    uv_loop_t* loop;
};
LIST_ENTRY_CHECK(abandoned_loop);
static list_link abandoned_loops = {&abandoned_loops, &abandoned_loops};

uv_loop_t* get_uv_loop(void) {
    if (own_loop != nullptr) {
        return own_loop->loop;
    }
    if (current_loop.load(std::memory_order_acquire) == nullptr) {
        return nullptr;
    }
    // Every other thread is the wrong one: the loop's own has its record.
    LOG_ASSERT(own_loop != nullptr);
    return nullptr;
}

bool is_loop_thread(void) {
    return own_loop != nullptr;
}

event_loop* get_event_loop(void) {
    return own_loop;
}

// ------------------------------------------------------------------------------------ the inbox

void lock_spinning(uv_mutex_t* mutex) {
    for (int i = 0; i < SPINS; i++) {
        if (uv_mutex_trylock(mutex) == 0) {
            return;
        }
        YieldProcessor();
    }
    uv_mutex_lock(mutex);
}

// Under the mutex.
static void _append_call(event_loop* loop, loop_call* call) {
    list_append(&loop->queue, &call->link);
    loop->has_calls.store(1, std::memory_order_relaxed);
}

void append_loop_call(event_loop* loop, loop_call* call) {
    lock_spinning(&loop->queue_mutex);
    _append_call(loop, call);
    uv_mutex_unlock(&loop->queue_mutex);
}

// `accepted` (or null) becomes 1 together with the call. Woken before there is something to see: a
// call that was seen could not be taken back.
static bool _post_call(event_loop* loop, loop_call* call, std::atomic<uint8_t>* accepted) {
    lock_spinning(&loop->queue_mutex);
    bool awake = loop->sleeps == 0 || uv_async_send(&loop->run_async) == 0;
    if (awake) {
        loop->sleeps = 0;
        if (accepted != nullptr) {
            accepted->store(1, std::memory_order_release);
        }
        _append_call(loop, call);
    }
    uv_mutex_unlock(&loop->queue_mutex);
    return awake;
}

bool post_loop_call(event_loop* loop, loop_call* call) {
    return _post_call(loop, call, nullptr);
}

static void _take_calls(event_loop* loop, list_link* calls) {
    list_init(calls);
    if (loop->has_calls.load(std::memory_order_relaxed) == 0) {
        return;
    }
    lock_spinning(&loop->queue_mutex);
    list_move_all(&loop->queue, calls);
    loop->has_calls.store(0, std::memory_order_relaxed);
    uv_mutex_unlock(&loop->queue_mutex);
}

static void _run_calls(event_loop* loop) {
    list_link calls;
    _take_calls(loop, &calls);
    while (list_link* entry = list_take_first(&calls)) {
        loop_call* call = (loop_call*)entry;
        call->run(call);
    }
}

static void _run_queued_call(loop_call* call) {
    queued_call own = *(queued_call*)call;
    free(call);
    own.function(own.argument);
}

static void _discard_queued_call(loop_call* call) {
    queued_call own = *(queued_call*)call;
    free(call);
    if (own.on_discard != nullptr) {
        own.on_discard(own.argument);
    }
}

static queued_call* _new_call(loop_function function, void* argument) {
    queued_call* call = (queued_call*)calloc(1, sizeof(queued_call));
    if (call != nullptr) {
        call->call.run = _run_queued_call;
        call->argument = argument;
        call->function = function;
    }
    return call;
}

bool async_run(loop_function function, void* argument) {
    LOG_ASSERT(is_loop_thread());
    event_loop* loop = own_loop;
    queued_call* call = loop != nullptr ? _new_call(function, argument) : nullptr;
    if (call == nullptr) {
        return false;
    }
    loop->deferred = 1;
    append_loop_call(loop, &call->call);
    return true;
}

bool async_run_safe_or_discard(loop_function function, void* argument, loop_function on_discard,
                               std::atomic<uint8_t>* accepted) {
    if (current_loop.load(std::memory_order_acquire) == nullptr) {
        return false;
    }
    queued_call* call = _new_call(function, argument);
    if (call == nullptr) {
        return false;
    }
    call->call.discard = _discard_queued_call;
    call->on_discard = on_discard;

    // A loop that was there has its lock.
    uv_rwlock_rdlock(&loop_lock);
    event_loop* loop = current_loop.load(std::memory_order_relaxed);
    bool queued = loop != nullptr && _post_call(loop, &call->call, accepted);
    uv_rwlock_rdunlock(&loop_lock);
    if (!queued) {
        free(call);
    }
    return queued;
}

bool async_run_safe(loop_function function, void* argument) {
    return async_run_safe_or_discard(function, argument, nullptr, nullptr);
}

// ------------------------------------------------------------------------------------- the turn

void spin_loop_until(uint64_t time) {
    own_loop->spin_until = time;
}

// True: there are calls. Without waiting for them when it would not pay.
static bool _spin_for_calls(const event_loop* loop) {
    if (loop->spin_until == 0) {
        return false;
    }
    for (int i = 0; i < SPINS; i++) {
        if (loop->has_calls.load(std::memory_order_relaxed) != 0) {
            return true;
        }
        YieldProcessor();
    }
    SwitchToThread();
    return false;
}

// The one decision about sleep. True: the inbox is empty, and who posts a call wakes the loop.
static bool _goes_to_sleep(event_loop* loop) {
    if (loop->spin_until != 0 && uv_hrtime() < loop->spin_until) {
        return false;
    }
    loop->spin_until = 0;
    loop->modules->before_sleep();
    lock_spinning(&loop->queue_mutex);
    bool sleeps = list_empty(&loop->queue);
    loop->sleeps = sleeps ? 1 : 0;
    uv_mutex_unlock(&loop->queue_mutex);
    return sleeps;
}

static void _on_idle(uv_idle_t* idle) {
    (void)idle;
}

// Loop thread, right before the poll, so that it does not sleep over what a timer has queued.
static void _on_prepare(uv_prepare_t* prepare) {
    event_loop* loop = (event_loop*)prepare->data;
    if (_goes_to_sleep(loop)) {
        uv_idle_stop(&loop->idle);
    } else {
        uv_idle_start(&loop->idle, _on_idle);
    }
}

static void _wake_up(event_loop* loop) {
    lock_spinning(&loop->queue_mutex);
    loop->sleeps = 0;
    uv_mutex_unlock(&loop->queue_mutex);
}

static int _run_turn(event_loop* loop) {
    int result = uv_run(loop->loop, UV_RUN_ONCE);
    _wake_up(loop);
    loop->deferred = 0;
    int batches = 0;
    do {
        _run_calls(loop);
        batches++;
    } while (batches < BATCHES_A_TURN && loop->deferred == 0 && _spin_for_calls(loop));
    return result;
}

void run_loop_turn(void) {
    _run_turn(own_loop);
}

bool is_loop_busy(void) {
    return uv_loop_alive(own_loop->loop) != 0 ||
           own_loop->has_calls.load(std::memory_order_relaxed) != 0;
}

static void _on_async_run_safe(uv_async_t* async) {
    (void)async;  // Behind the poll comes the inbox.
}

// ------------------------------------------------------------------------------------ the stop

// Loop thread. From _stop_task_mgr_callback; ends the turns in loop_thread.
static void _uninit_flow_finish(event_loop* loop) {
    LOG_INFO("_uninit_flow_finish, we will stop the loop now");
    loop->ended = 1;
}

// Takes the calls of other threads out of the inbox. No host thread can reach it any more.
static void _discard_calls(event_loop* loop) {
    list_link calls;
    _take_calls(loop, &calls);
    while (list_link* entry = list_take_first(&calls)) {
        loop_call* call = (loop_call*)entry;
        if (call->discard != nullptr) {
            call->discard(call);
        } else {
            append_loop_call(loop, call);
        }
    }
}

// Loop thread. From the task manager, when its last task has ended; next _uninit_flow_finish.
void _stop_task_mgr_callback(void* argument) {
    stop_context* context = (stop_context*)argument;
    LOG_INFO("_stop_task_mgr_callback");

    uv_rwlock_wrlock(&loop_lock);
    event_loop* loop = current_loop.exchange(nullptr, std::memory_order_acq_rel);
    uv_rwlock_wrunlock(&loop_lock);

    if (LOG_ASSERT(loop != nullptr)) {
        _discard_calls(loop);
    }
    context->finish(context->loop);
}

// Loop thread. From _on_async_stop_loop; next the task manager's stop.
static void uninit_flow_start(event_loop* loop) {
    LOG_INFO("uninit_flow_start");
    stop_context* context = &loop->stop;
    context->loop = loop;
    context->finish = _uninit_flow_finish;
    if (!loop->modules->begin_stop(context)) {
        _stop_task_mgr_callback(context);
    }
}

// A handle of the record, if it was made.
static void _close_own(void* own) {
    uv_handle_t* handle = (uv_handle_t*)own;
    if (handle->data != nullptr) {
        handle->data = nullptr;
        uv_close(handle, nullptr);
    }
}

// Loop thread. From stop_event_loop; next uninit_flow_start.
static void _on_async_stop_loop(uv_async_t* async) {
    event_loop* loop = (event_loop*)async->data;
    LOG_ASSERT(async == &loop->stop_async);
    _close_own(async);
    uninit_flow_start(loop);
}

// --------------------------------------------------------------------------- the loop's thread

static bool _init_async(event_loop* loop, uv_async_t* async, uv_async_cb callback) {
    bool made = uv_async_init(loop->loop, async, callback) == 0;
    async->data = made ? loop : nullptr;
    return made;
}

static bool _init_loop(event_loop* loop) {
    list_init(&loop->queue);
    if (uv_mutex_init(&loop->queue_mutex) != 0) {
        return false;
    }
    loop->loop = uv_loop_new();
    if (loop->loop == nullptr) {
        uv_mutex_destroy(&loop->queue_mutex);
        return false;
    }
    loop->loop->data = nullptr;
    if (!_init_async(loop, &loop->stop_async, _on_async_stop_loop) ||
        !_init_async(loop, &loop->run_async, _on_async_run_safe)) {
        return false;
    }
    // These cannot fail.
    uv_prepare_init(loop->loop, &loop->prepare);
    uv_idle_init(loop->loop, &loop->idle);
    loop->prepare.data = loop;
    loop->idle.data = loop;
    uv_prepare_start(&loop->prepare, _on_prepare);
    // None is a sign of work.
    uv_unref((uv_handle_t*)&loop->run_async);
    uv_unref((uv_handle_t*)&loop->prepare);
    uv_unref((uv_handle_t*)&loop->idle);
    return true;
}

static void _count_open_handle(uv_handle_t* handle, void* argument) {
    (void)handle;
    (*(int32_t*)argument)++;
}

static void _drain_loop(event_loop* loop) {
    _close_own(&loop->stop_async);
    loop->modules->drain();
    _close_own(&loop->run_async);
    _close_own(&loop->prepare);
    _close_own(&loop->idle);
    uv_run(loop->loop, UV_RUN_NOWAIT);
    int32_t open_handles = 0;
    uv_walk(loop->loop, _count_open_handle, &open_handles);
    LOG_ASSERT(open_handles == 0);
    uv_mutex_destroy(&loop->queue_mutex);
}

// Entry of the loop thread.
static void loop_thread(void* argument) {
    event_loop* loop = (event_loop*)argument;
    loop->thread_id = uv_thread_self();
    own_loop = loop;
    platform_ignore_broken_pipe();
    platform_fill_standard_descriptors();
    platform_keep_loaded();

    bool ready = _init_loop(loop) && loop->modules->init();
    loop->start_failed = ready ? 0 : 1;
    uv_sem_post(loop->start_sem);

    int result = 0;
    while (ready && loop->ended == 0) {
        result = _run_turn(loop);
    }
    if (loop->loop != nullptr) {
        _drain_loop(loop);
    }
    loop->modules->uninit();
    LOG_INFO("loop_thread, thread exits, ret=%d.", result);
    own_loop = nullptr;
}

// ------------------------------------------------------------------------------ start and stop

// Host thread. Frees what an earlier loop left behind, as far as its lookups have ended.
static void _reap_abandoned_loops(void) {
    list_link* entry = abandoned_loops.next;
    while (entry != &abandoned_loops) {
        abandoned_loop* abandoned = (abandoned_loop*)entry;
        entry = entry->next;
        uv_run(abandoned->loop, UV_RUN_NOWAIT);
        if (uv_loop_alive(abandoned->loop) == 0) {
            list_unlink(&abandoned->link);
            uv_loop_delete(abandoned->loop);
            free(abandoned);
        }
    }
}

// Host thread, the loop thread having ended.
static void _delete_loop(uv_loop_t* loop) {
    if (loop == nullptr) {
        return;
    }
    if (uv_loop_alive(loop) == 0) {
        uv_loop_delete(loop);
        return;
    }
    abandoned_loop* abandoned = (abandoned_loop*)calloc(1, sizeof(abandoned_loop));
    if (abandoned != nullptr) {
        abandoned->loop = loop;
        list_append(&abandoned_loops, &abandoned->link);
    }
}

// Host thread. Waits for the loop thread to be ready, or to have failed.
static bool _run_loop(event_loop* loop) {
    uv_sem_t semaphore;
    if (uv_sem_init(&semaphore, 0) != 0) {
        return false;
    }
    loop->start_sem = &semaphore;
    bool running = uv_thread_create(&loop->thread, loop_thread, loop) == 0;
    if (running) {
        uv_sem_wait(&semaphore);
    }
    uv_sem_destroy(&semaphore);
    loop->start_sem = nullptr;

    if (running && loop->start_failed != 0) {
        uv_thread_join(&loop->thread);
        _delete_loop(loop->loop);
        running = false;
    }
    return running;
}

bool run_event_loop(const loop_modules* modules) {
    _reap_abandoned_loops();
    if (current_loop.load(std::memory_order_acquire) != nullptr) {
        return true;
    }
    has_loop_lock = has_loop_lock || uv_rwlock_init(&loop_lock) == 0;
    event_loop* loop = has_loop_lock ? (event_loop*)calloc(1, sizeof(event_loop)) : nullptr;
    if (loop != nullptr) {
        loop->modules = modules;
    }
    // Published only when it runs: no other thread can reach a half-made loop.
    if (loop == nullptr || !_run_loop(loop)) {
        LOG_INFO("run_event_loop, _run_loop failed.");
        free(loop);
        return false;
    }
    uv_rwlock_wrlock(&loop_lock);
    current_loop.store(loop, std::memory_order_release);
    uv_rwlock_wrunlock(&loop_lock);
    return true;
}

static void _stop_loop_thread(void) {
    event_loop* loop = current_loop.load(std::memory_order_acquire);
    if (loop == nullptr) {
        return;
    }
    loop->stopping = 1;
    while (uv_async_send(&loop->stop_async) != 0) {
        uv_sleep(1);  // Unheard, the stop would be waited for without end.
    }
    uv_thread_join(&loop->thread);
    _delete_loop(loop->loop);
    free(loop);
    _reap_abandoned_loops();
}

void stop_event_loop(void) {
    LOG_INFO("stop_event_loop start");
    if (!LOG_ASSERT(!is_loop_thread())) {
        return;
    }
    _stop_loop_thread();
    LOG_INFO("stop_event_loop ok.");
}
