// The loop thread. See loop.h for the chains of start and stop.
#include "tavhttpclient/loop.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "platform/win_socket.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/taskmgr.h"
#include "tavhttpclient/uvhelper.h"
#include "tavhttpclient/worker.h"

// A call that async_run deferred.
struct async_call {
    list_link link;
    void* argument;
    loop_function function;
};
LIST_ENTRY_CHECK(async_call);

// A call that async_run_safe queued.
struct queued_call {
    list_link link;
    void* argument;
    loop_function function;
    loop_function on_drop;
    std::atomic<uint8_t>* accepted;  // 1 while the call is queued and ever after; null: nobody asks
};
LIST_ENTRY_CHECK(queued_call);

// Lock order: loop_lock (read) before queue_mutex. The lock is made once and never destroyed, since
// an export on a host thread may come at any moment of a stop.
static uv_once_t loop_lock_once = UV_ONCE_INIT;
static uv_rwlock_t loop_lock;
static std::atomic<uint8_t> loop_lock_made(0);

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

static void _init_loop_lock(void) {
    loop_lock_made = uv_rwlock_init(&loop_lock) == 0 ? 1 : 0;
}

// False: there is no lock, and so no loop.
static bool _have_loop_lock(void) {
    uv_once(&loop_lock_once, _init_loop_lock);
    return loop_lock_made != 0;
}

static void _free_async_on_close(uv_handle_t* handle) {
    free(handle);
}

// --------------------------------------------------------------------------- calls on the loop

static bool _is_own_thread(const event_loop* loop) {
    uv_thread_t self = uv_thread_self();
    return uv_thread_equal(&self, &loop->thread_id) != 0;
}

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
    if (own_loop != nullptr) {
        return true;
    }
    if (!_have_loop_lock()) {
        return false;
    }
    uv_rwlock_rdlock(&loop_lock);
    event_loop* loop = current_loop.load(std::memory_order_relaxed);
    bool own = loop != nullptr && _is_own_thread(loop);
    uv_rwlock_rdunlock(&loop_lock);
    return own;
}

static void _move_calls(list_link* from, list_link* to) {
    while (list_link* entry = list_take_first(from)) {
        list_append(to, entry);
    }
}

// Loop thread, before the poll. What is deferred from here on waits for the next turn.
static void _on_calls_idle(uv_idle_t* idle) {
    event_loop* loop = (event_loop*)idle->data;
    _move_calls(&loop->deferred, &loop->due);
}

// Loop thread, behind the poll. From async_run, by way of _on_calls_idle.
static void _on_calls_check(uv_check_t* check) {
    event_loop* loop = (event_loop*)check->data;
    while (list_link* entry = list_take_first(&loop->due)) {
        async_call* call = (async_call*)entry;
        loop_function function = call->function;
        void* argument = call->argument;
        free(call);
        function(argument);
    }
    if (list_empty(&loop->deferred)) {
        uv_idle_stop(&loop->idle);
        uv_check_stop(&loop->check);
    }
}

// Neither call can fail.
static void _init_calls(event_loop* loop) {
    list_init(&loop->deferred);
    list_init(&loop->due);
    uv_idle_init(loop->loop, &loop->idle);
    uv_check_init(loop->loop, &loop->check);
    loop->idle.data = loop;
    loop->check.data = loop;
}

// Calls that are left belong to a loop that did not come to its end; nobody runs them any more.
static void _close_calls(event_loop* loop) {
    _move_calls(&loop->deferred, &loop->due);
    while (list_link* entry = list_take_first(&loop->due)) {
        free(entry);
    }
    uv_close((uv_handle_t*)&loop->idle, nullptr);
    uv_close((uv_handle_t*)&loop->check, nullptr);
    uv_run(loop->loop, UV_RUN_NOWAIT);
}

bool async_run(loop_function function, void* argument) {
    LOG_ASSERT(is_loop_thread());
    event_loop* loop = own_loop;
    if (loop == nullptr) {
        return false;
    }
    async_call* call = (async_call*)calloc(1, sizeof(async_call));
    if (call == nullptr) {
        return false;
    }
    call->argument = argument;
    call->function = function;
    list_append(&loop->deferred, &call->link);
    // Harmless on handles that are active already.
    uv_idle_start(&loop->idle, _on_calls_idle);
    uv_check_start(&loop->check, _on_calls_check);
    return true;
}

static void _set_accepted(queued_call* call, uint8_t value) {
    if (call->accepted != nullptr) {
        call->accepted->store(value, std::memory_order_release);
    }
}

// Takes the call back; false when the loop thread has it already.
static bool _unqueue_call(event_loop* loop, queued_call* call) {
    bool queued = false;
    uv_mutex_lock(&loop->queue_mutex);
    for (list_link* link = loop->queue.next; link != &loop->queue && !queued; link = link->next) {
        queued = link == &call->link;
    }
    if (queued) {
        list_unlink(&call->link);
        _set_accepted(call, 0);
    }
    uv_mutex_unlock(&loop->queue_mutex);
    return queued;
}

// Under loop_lock (read).
static bool _queue_call(event_loop* loop, queued_call* call) {
    uv_mutex_lock(&loop->queue_mutex);
    _set_accepted(call, 1);
    list_insert_front(&loop->queue, &call->link);
    loop->has_calls.store(1);
    uv_mutex_unlock(&loop->queue_mutex);
    if (!loop_thread_sleeps()) {
        return true;
    }
    // Without its own wake-up the call may still have been served by an earlier one.
    return uv_async_send(loop->run_async) == 0 || !_unqueue_call(loop, call);
}

bool async_run_safe_or_drop(loop_function function, void* argument, loop_function on_drop,
                            std::atomic<uint8_t>* accepted) {
    if (current_loop.load(std::memory_order_acquire) == nullptr) {
        return false;
    }
    queued_call* call = (queued_call*)calloc(1, sizeof(queued_call));
    if (call == nullptr) {
        return false;
    }
    call->argument = argument;
    call->function = function;
    call->on_drop = on_drop;
    call->accepted = accepted;

    // A loop that was there has its lock.
    uv_rwlock_rdlock(&loop_lock);
    event_loop* loop = current_loop.load(std::memory_order_relaxed);
    bool queued = loop != nullptr && _queue_call(loop, call);
    uv_rwlock_rdunlock(&loop_lock);
    if (!queued) {
        free(call);
    }
    return queued;
}

bool async_run_safe(loop_function function, void* argument) {
    return async_run_safe_or_drop(function, argument, nullptr, nullptr);
}

// Loop thread. From async_run_safe; one wake-up may serve many calls.
void run_queued_calls(event_loop* loop) {
    if (!has_queued_calls(loop)) {
        return;
    }
    list_link calls;
    list_init(&calls);

    uv_mutex_lock(&loop->queue_mutex);
    // The queue has its newest call at the front; moving one by one turns it to oldest first.
    while (list_link* entry = list_take_first(&loop->queue)) {
        list_insert_front(&calls, entry);
    }
    loop->has_calls.store(0);
    uv_mutex_unlock(&loop->queue_mutex);

    while (list_link* entry = list_take_first(&calls)) {
        queued_call* call = (queued_call*)entry;
        call->function(call->argument);
        free(call);
    }
}

static void _on_async_run_safe(uv_async_t* async) {
    run_queued_calls((event_loop*)async->data);
}

// ------------------------------------------------------------------------------------ the stop

// Loop thread. From _stop_task_mgr_callback; ends uv_run in loop_thread.
static void _uninit_flow_finish(event_loop* loop) {
    LOG_INFO("_uninit_flow_finish, we will stop the loop now");
    uv_stop(loop->loop);
}

// Frees the calls that are still queued. No producer can reach the queue any more.
static void _drop_queued_calls(event_loop* loop) {
    loop->has_calls.store(0);
    list_link calls;
    list_init(&calls);
    while (list_link* entry = list_take_first(&loop->queue)) {
        list_insert_front(&calls, entry);
    }
    while (list_link* entry = list_take_first(&calls)) {
        queued_call* call = (queued_call*)entry;
        if (call->on_drop != nullptr) {
            call->on_drop(call->argument);
        }
        free(call);
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
        _drop_queued_calls(loop);
        uv_close((uv_handle_t*)loop->run_async, _free_async_on_close);
        loop->run_async = nullptr;
        uv_mutex_destroy(&loop->queue_mutex);
        memset(&loop->queue_mutex, 0, sizeof(loop->queue_mutex));
    }
    context->finish(context->loop);
}

// Loop thread. From _on_async_stop_loop; next the task manager's stop.
static void uninit_flow_start(event_loop* loop) {
    LOG_INFO("uninit_flow_start");
    stop_context* context = &loop->stop;
    context->loop = loop;
    context->finish = _uninit_flow_finish;
    if (!start_stop_default_task_mgr(context)) {
        // Without a task manager there is nothing to wait for.
        _stop_task_mgr_callback(context);
    }
}

// Loop thread. From stop_event_loop; next uninit_flow_start.
static void _on_async_stop_loop(uv_async_t* async) {
    event_loop* loop = (event_loop*)async->data;
    LOG_ASSERT(async == loop->stop_async.load(std::memory_order_relaxed));
    uv_close((uv_handle_t*)async, _free_async_on_close);
    loop->stop_async.store(nullptr, std::memory_order_relaxed);
    uninit_flow_start(loop);
}

// --------------------------------------------------------------------------- the loop's thread

// Loop thread, at its start. A module that cannot be made leaves the library without it, but the
// settings and the cookie store are needed by every session.
static bool _init_loop_modules(void) {
    register_tls_ops();
    if (!init_session_stats() || !init_global_settings() || !init_cookie_store()) {
        return false;
    }
    init_default_task_mgr();
    return true;
}

static void _uninit_loop_modules(void) {
    free_spare_recv_buffers();
    tls_ops* tls = get_tls_ops();
    if (tls != nullptr && tls->tls_uninit != nullptr) {
        tls->tls_uninit();  // Harmless when a failed start has not initialised it.
    }
    uninit_session_stats();
    uninit_global_settings();
    uninit_cookie_store();
}

static uv_async_t* _new_async(event_loop* loop, uv_async_cb callback) {
    uv_async_t* async = (uv_async_t*)calloc(1, sizeof(uv_async_t));
    if (async == nullptr || uv_async_init(loop->loop, async, callback) != 0) {
        free(async);
        return nullptr;
    }
    async->data = loop;
    return async;
}

static bool _init_loop(event_loop* loop) {
    loop->loop = uv_loop_new();
    if (loop->loop == nullptr) {
        return false;
    }
    loop->loop->data = nullptr;
    _init_calls(loop);
    uv_async_t* stop_async = _new_async(loop, _on_async_stop_loop);
    loop->stop_async.store(stop_async, std::memory_order_relaxed);
    loop->run_async = _new_async(loop, _on_async_run_safe);
    list_init(&loop->queue);
    loop->has_mutex = uv_mutex_init(&loop->queue_mutex) == 0 ? 1 : 0;
    return stop_async != nullptr && loop->run_async != nullptr && loop->has_mutex != 0 &&
           init_workers(loop);
}

// What a failed start leaves; a stop has released all of it.
static void _release_failed_start(event_loop* loop) {
    uv_async_t* stop_async = loop->stop_async.exchange(nullptr, std::memory_order_relaxed);
    if (stop_async != nullptr) {
        uv_close((uv_handle_t*)stop_async, _free_async_on_close);
    }
    if (loop->run_async != nullptr) {
        uv_close((uv_handle_t*)loop->run_async, _free_async_on_close);
        loop->run_async = nullptr;
    }
    if (loop->start_failed != 0 && loop->has_mutex != 0) {
        uv_mutex_destroy(&loop->queue_mutex);
    }
}

static void _count_open_handle(uv_handle_t* handle, void* argument) {
    (void)handle;
    (*(int32_t*)argument)++;
}

static int32_t _open_handles(uv_loop_t* loop) {
    int32_t count = 0;
    uv_walk(loop, _count_open_handle, &count);
    return count;
}

// How long the end of the loop waits for handles when a lookup hangs, in turns of one millisecond.
// Steps on workers are always waited for.
enum {
    ABANDON_TURNS = 200
};

// Loop thread, after uv_run has been stopped. Ends the sessions that run without the task manager
// (sent while it stopped) and closes whatever is still open: idle connections, connections of
// sessions that the host has not closed. Only lookups that hang in the system are left behind.
static void _drain_loop(event_loop* record) {
    uv_loop_t* loop = record->loop;
    cancel_sessions_in_flight();
    while (any_session_in_flight()) {
        uv_run(loop, UV_RUN_ONCE);
    }
    http_connect_close_all();
    int32_t hung_lookups = uv_connect_abandon_lookups();
    for (int32_t turn = 0; uv_loop_alive(loop) != 0 && turn < ABANDON_TURNS; turn++) {
        if (hung_lookups == 0) {
            uv_run(loop, UV_RUN_ONCE);
            turn = 0;
            continue;
        }
        uv_run(loop, UV_RUN_NOWAIT);
        hung_lookups = uv_connect_abandon_lookups();
        uv_sleep(1);
    }
    uninit_workers();
    _close_calls(record);
    LOG_ASSERT(_open_handles(loop) == 0);
}

// Entry of the loop thread.
static void loop_thread(void* argument) {
    event_loop* loop = (event_loop*)argument;
    loop->thread_id = uv_thread_self();
    own_loop = loop;
    platform_ignore_broken_pipe();

    bool ready = _init_loop(loop) && _init_loop_modules();
    loop->start_failed = ready ? 0 : 1;
    uv_sem_post(loop->start_sem);

    int result = 0;
    if (ready) {
        result = uv_run(loop->loop, UV_RUN_DEFAULT);
    }
    if (loop->loop != nullptr) {
        _release_failed_start(loop);
        _drain_loop(loop);
    }
    _uninit_loop_modules();
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
    uv_sem_t* semaphore = (uv_sem_t*)calloc(1, sizeof(uv_sem_t));
    if (semaphore == nullptr || uv_sem_init(semaphore, 0) != 0) {
        free(semaphore);
        return false;
    }
    loop->start_sem = semaphore;
    bool running = uv_thread_create(&loop->thread, loop_thread, loop) == 0;
    if (running) {
        uv_sem_wait(semaphore);
    }
    uv_sem_destroy(semaphore);
    free(semaphore);
    loop->start_sem = nullptr;

    if (running && loop->start_failed != 0) {
        uv_thread_join(&loop->thread);
        _delete_loop(loop->loop);
        running = false;
    }
    return running;
}

bool run_event_loop(void) {
    if (!_have_loop_lock()) {
        _init_loop_lock();  // Once more: starts never run two at a time.
    }
    if (!_have_loop_lock()) {
        LOG_INFO("run_event_loop, _run_loop failed.");
        return false;
    }
    _reap_abandoned_loops();
    if (current_loop.load(std::memory_order_acquire) != nullptr) {
        return true;
    }
    event_loop* loop = (event_loop*)calloc(1, sizeof(event_loop));
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
    // The loop thread clears the field as soon as it is awake.
    while (uv_async_send(loop->stop_async.load(std::memory_order_relaxed)) != 0) {
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
