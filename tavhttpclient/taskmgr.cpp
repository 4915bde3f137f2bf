// The task manager.
//
// add_task_default -> _add_http_task -> _insert_task_to_mgr -> (async_run) _schedule_task
//   -> _run_cancel_one_task_in_queue -> start_http_session ... the session ends ...
//   -> _on_before_download_complete_callback -> (host told)
//   -> _on_after_download_complete_callback -> _schedule_task
#include "tavhttpclient/taskmgr.h"

#include <stdlib.h>

#include "platform/win_time.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/response_record.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/uvhandle.h"

enum {
    LARGE_DOWNLOAD_BYTES = 2000000,
    TIMER_PERIOD = 1000  // ms
};

// Set at loop start, cleared when the stop begins. Loop thread only.
static task_mgr* default_task_mgr = nullptr;

// --------------------------------------------------------------------------------------- lists

static void _init_list(task_list* list) {
    list_init(&list->head);
    list->count = 0;
}

static int32_t list_count(const task_list* list) {
    return list->count;
}

static void _unlink_task(http_task* task) {
    task->list->count--;
    list_unlink(&task->link);
}

static void _append_task(task_list* list, http_task* task) {
    list_append(&list->head, &task->link);
    task->list = list;
    list->count++;
}

static void _insert_task_front(task_list* list, http_task* task) {
    list_insert_front(&list->head, &task->link);
    task->list = list;
    list->count++;
}

static bool _is_kind_idle(const task_kind* kind) {
    return list_count(&kind->queues[QUEUE_HIGH]) == 0 &&
           list_count(&kind->queues[QUEUE_NORMAL]) == 0 &&
           list_count(&kind->queues[QUEUE_LOW]) == 0 && list_count(&kind->running) == 0;
}

static bool _is_task_mgr_idle(const task_mgr* mgr) {
    return _is_kind_idle(&mgr->kinds[KIND_UPLOAD]) && _is_kind_idle(&mgr->kinds[KIND_DOWNLOAD]);
}

// ------------------------------------------------------------------------------------ scheduling

// Moves `task` from its queue to the running list and starts its session.
static void _run_task(http_task* task, task_list* running, bool cancel) {
    http_session* session = task->session;
    _unlink_task(task);
    if (cancel) {
        session_set_flags(session, 1, 0);
    }
    // Listed first: the session may end, and its task with it, before a later turn of the loop.
    _append_task(running, task);
    start_http_session(session);
}

static void _run_cancel_one_task_in_queue(task_list* queue, task_list* running, bool cancel) {
    if (!LOG_ASSERT(queue != nullptr && running != nullptr)) {
        return;
    }
    if (!list_empty(&queue->head)) {
        _run_task((http_task*)queue->head.next, running, cancel);
    }
}

static void _run_tasks(task_list* queue, task_list* running, int32_t limit) {
    while (list_count(queue) > 0 && list_count(running) < limit) {
        _run_cancel_one_task_in_queue(queue, running, false);
    }
}

// High priority whatever runs; low priority only when nothing of normal priority waits.
static void _schedule_kind(task_kind* kind, int32_t limit) {
    _run_tasks(&kind->queues[QUEUE_HIGH], &kind->running, INT32_MAX);
    _run_tasks(&kind->queues[QUEUE_NORMAL], &kind->running, limit);
    if (list_count(&kind->queues[QUEUE_NORMAL]) == 0) {
        _run_tasks(&kind->queues[QUEUE_LOW], &kind->running, limit);
    }
}

static void _schedule_task(task_mgr* mgr) {
    task_kind* download = &mgr->kinds[KIND_DOWNLOAD];
    task_kind* upload = &mgr->kinds[KIND_UPLOAD];
    LOG_INFO("_schedule_task:\nmax-running-count=%d\n"
             "download: running=%d, high=%d, normal=%d, low=%d\n"
             "upload: running=%d, high=%d, normal=%d, low=%d",
             mgr->max_running_count, list_count(&download->running),
             list_count(&download->queues[QUEUE_HIGH]), list_count(&download->queues[QUEUE_NORMAL]),
             list_count(&download->queues[QUEUE_LOW]), list_count(&upload->running),
             list_count(&upload->queues[QUEUE_HIGH]), list_count(&upload->queues[QUEUE_NORMAL]),
             list_count(&upload->queues[QUEUE_LOW]));
    _schedule_kind(download, mgr->max_running_count);
    _schedule_kind(upload, mgr->max_running_count);
}

// Loop thread. From _add_http_task, on a later turn. The manager may have stopped and gone by now.
static void _on_async_schedule_task(void* argument) {
    if (default_task_mgr != nullptr && default_task_mgr == argument) {
        _schedule_task(default_task_mgr);
    }
}

// ----------------------------------------------------------------------------- running priority

static int32_t _normal_or_higher(const http_session* session) {
    int32_t priority = session->options->priority;
    return priority > TASK_PRIORITY_NORMAL ? priority : TASK_PRIORITY_NORMAL;
}

static void _reset_running_priorities(task_list* running) {
    for (list_link* entry = running->head.next; entry != &running->head; entry = entry->next) {
        http_session* session = ((http_task*)entry)->session;
        if (session != nullptr) {
            session->running_priority = _normal_or_higher(session);
        }
    }
}

// True when the session counts as favoured.
static bool _adjust_session_priority(http_session* session) {
    if (session->options->priority >= TASK_PRIORITY_HIGH) {
        session->running_priority = session->options->priority;
        return true;
    }
    if (session->response != nullptr && session->response->known_length > LARGE_DOWNLOAD_BYTES) {
        session->running_priority = TASK_PRIORITY_LOW;
        return false;
    }
    session->running_priority = TASK_PRIORITY_NORMAL;
    return true;
}

static void _adjust_task_priority(task_list* running, int32_t limit) {
    LOG_ASSERT(is_loop_thread());
    if (running == nullptr || list_count(running) == 0) {
        return;
    }
    if (list_count(running) < limit) {
        _reset_running_priorities(running);
        return;
    }
    bool any_favoured = false;
    for (list_link* entry = running->head.next; entry != &running->head; entry = entry->next) {
        http_session* session = ((http_task*)entry)->session;
        if (session != nullptr && _adjust_session_priority(session)) {
            any_favoured = true;
        }
    }
    if (!any_favoured) {
        _reset_running_priorities(running);
    }
}

static void _on_task_mgr_timer(uv_timer_t* timer);

static bool _arm_timer(task_mgr* mgr) {
    int result = arm_uv_timer(mgr->timer, _on_task_mgr_timer, TIMER_PERIOD);
    if (result != 0) {
        LOG_ERROR("start_task_mgr, uv_timer_start failed, ret=%d, %s.", result,
                  uv_strerror(result));
    }
    return result == 0;
}

// Loop thread, once a second.
static void _on_task_mgr_timer(uv_timer_t* timer) {
    task_mgr* mgr = (task_mgr*)timer->data;
    if (mgr->started == 0 || mgr->stopping != 0) {
        return;
    }
    mgr->max_running_count = (int32_t)config_max_running_count();
    _adjust_task_priority(&mgr->kinds[KIND_DOWNLOAD].running, mgr->max_running_count);
    _arm_timer(mgr);
}

// ------------------------------------------------------------------------------ creation, start

task_mgr* create_task_mgr(void) {
    task_mgr* mgr = (task_mgr*)calloc(1, sizeof(task_mgr));
    if (mgr == nullptr) {
        return nullptr;
    }
    mgr->max_running_count = (int32_t)config_max_running_count();
    for (task_kind& kind : mgr->kinds) {
        for (task_list& queue : kind.queues) {
            _init_list(&queue);
        }
        _init_list(&kind.running);
    }
    return mgr;
}

static bool _start_timer(task_mgr* mgr, uv_loop_t* loop) {
    mgr->timer = new_uv_timer(loop, mgr);
    if (mgr->timer == nullptr) {
        LOG_ERROR("start_task_mgr, uv_timer_init failed, ret=%d, %s.", UV_ENOMEM,
                  uv_strerror(UV_ENOMEM));
        return false;
    }
    if (!_arm_timer(mgr)) {
        close_uv_timer(&mgr->timer);
        return false;
    }
    return true;
}

bool _start_task_mgr(task_mgr* mgr) {
    if (mgr == nullptr || mgr->stopping != 0) {
        return false;
    }
    if (mgr->started != 0) {
        return true;
    }
    if (!LOG_ASSERT(mgr->timer == nullptr)) {
        close_uv_timer(&mgr->timer);
    }
    uv_loop_t* loop = get_uv_loop();
    if (loop == nullptr) {
        LOG_ERROR("start_task_mgr, get_uv_loop failed.");
        return false;
    }
    if (!_start_timer(mgr, loop)) {
        return false;
    }
    mgr->started = 1;
    return true;
}

bool init_default_task_mgr(void) {
    if (default_task_mgr != nullptr) {
        return true;
    }
    task_mgr* mgr = create_task_mgr();
    if (!_start_task_mgr(mgr)) {
        free(mgr);
        return false;
    }
    default_task_mgr = mgr;
    return true;
}

// ------------------------------------------------------------------------------- adding a session

static void _insert_task_to_mgr(task_mgr* mgr, http_task* task) {
    LOG_ASSERT(is_loop_thread());
    const http_options* options = task->session->options;
    bool upload = options->method == TAV_HTTP_METHOD_POST;
    task->kind = &mgr->kinds[upload ? KIND_UPLOAD : KIND_DOWNLOAD];
    task_list* queue = &task->kind->queues[QUEUE_NORMAL];
    if (task->priority == TASK_PRIORITY_HIGH) {
        queue = &task->kind->queues[QUEUE_HIGH];
    } else if (task->priority == TASK_PRIORITY_LOW) {
        queue = &task->kind->queues[QUEUE_LOW];
    }
    if (options->queue_fifo != 0) {
        _append_task(queue, task);
    } else {
        _insert_task_front(queue, task);
    }
}

// Called by the session just before it reports its completion: the host may release it meanwhile.
static void _on_before_download_complete_callback(void* argument) {
    http_task* task = (http_task*)argument;
    if (LOG_ASSERT(task != nullptr)) {
        task->session = nullptr;
    }
}

static void _on_after_download_complete_callback(void* argument);

static bool _add_http_task(int32_t priority, http_session* session) {
    LOG_ASSERT(is_loop_thread());
    if (!LOG_ASSERT(session != nullptr)) {
        return false;
    }
    task_mgr* mgr = default_task_mgr;
    if (!LOG_ASSERT(mgr != nullptr)) {
        LOG_ERROR("add_download_task, task_mgr is NULL, start session without task mgr, sid=%d.",
                  (int32_t)session->id);
        start_http_session(session);
        return true;
    }
    if (mgr->started == 0 || mgr->stopping != 0) {
        return false;
    }
    http_task* task = (http_task*)calloc(1, sizeof(http_task));
    if (task == nullptr) {
        return false;
    }
    list_init(&task->link);
    task->mgr = mgr;
    task->priority = priority;
    task->session = session;
    task->add_time = GetTickCount();
    session->task = task;
    session->task_finish_hook = _on_before_download_complete_callback;
    session->task_release_hook = _on_after_download_complete_callback;
    _insert_task_to_mgr(mgr, task);
    // On a later turn, so that several sends in a row are all queued before any of them starts.
    if (!async_run(_on_async_schedule_task, mgr)) {
        _schedule_task(mgr);  // Nothing else might ever start it.
    }
    return true;
}

bool add_task_default(http_session* session) {
    if (!LOG_ASSERT(session != nullptr)) {
        LOG_ERROR("add_task_default, session is NULL.");
        return false;
    }
    http_options* options = session->options;
    if (options->priority != TASK_PRIORITY_LOW && options->priority != TASK_PRIORITY_NORMAL &&
        options->priority != TASK_PRIORITY_HIGH) {
        options->priority = TASK_PRIORITY_NORMAL;
    }
    session->running_priority = options->priority;
    bool added = _add_http_task(options->priority, session);
    if (!LOG_ASSERT(added)) {
        LOG_ERROR("add_task_default, _add_http_task failed, sid=%d.", (int32_t)session->id);
        // Neither queued nor started: the host is told rather than left waiting.
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
    }
    return true;
}

void expedite_cancelled_task(void* argument) {
    http_task* task = (http_task*)argument;
    if (task != nullptr && task->session != nullptr && task->list != &task->kind->running) {
        _run_task(task, &task->kind->running, true);
    }
}

// ----------------------------------------------------------------------------------------- stop

// Loop thread. From _start_stop_task_mgr or the last completion; ends the manager.
static void _on_task_mgr_stopped(void* argument) {
    task_mgr* mgr = (task_mgr*)argument;
    task_stop_request* request = mgr->stop_request;
    LOG_INFO("task mgr, stop ok, tick=%d ms", (int32_t)(GetTickCount() - request->start_time));
    if (request->callback != nullptr) {
        request->callback(request->argument);
        request->callback = nullptr;
        request->argument = nullptr;
    }
    close_uv_timer(&mgr->timer);
    free(mgr);
}

static void _finish_stop(task_mgr* mgr) {
    bool deferred = async_run(_on_task_mgr_stopped, mgr);
    if (!LOG_ASSERT(deferred)) {
        _on_task_mgr_stopped(mgr);
    }
}

// Loop thread. From the session, after the host was told.
static void _on_after_download_complete_callback(void* argument) {
    LOG_ASSERT(is_loop_thread());
    http_task* task = (http_task*)argument;
    if (!LOG_ASSERT(task != nullptr) || !LOG_ASSERT(task->mgr != nullptr)) {
        return;
    }
    task_mgr* mgr = task->mgr;
    _unlink_task(task);
    free(task);

    if (mgr->started != 0) {
        _schedule_task(mgr);
        return;
    }
    if (!LOG_ASSERT(mgr->stopping != 0) || !LOG_ASSERT(mgr->stop_request != nullptr)) {
        return;
    }
    if (mgr->cancelling != 0) {
        return;
    }
    if (!_is_task_mgr_idle(mgr)) {
        LOG_INFO("task mgr, stopping, download_alive=%d, upload_alive=%d",
                 list_count(&mgr->kinds[KIND_DOWNLOAD].running),
                 list_count(&mgr->kinds[KIND_UPLOAD].running));
        return;
    }
    _finish_stop(mgr);
}

static void _cancel_all_running_task(task_list* running) {
    for (list_link* entry = running->head.next; entry != &running->head; entry = entry->next) {
        http_session* session = ((http_task*)entry)->session;
        if (session != nullptr) {
            session_set_flags(session, 1, 0);
            abort_network_step(session);
        }
    }
}

static void _cancel_all_pending_task(task_list* queue, task_list* running) {
    while (list_count(queue) > 0) {
        _run_cancel_one_task_in_queue(queue, running, true);
    }
}

static void _cancel_kind(task_kind* kind) {
    _cancel_all_running_task(&kind->running);
    for (task_list& queue : kind->queues) {
        _cancel_all_pending_task(&queue, &kind->running);
    }
}

static bool _start_stop_task_mgr(task_mgr* mgr, void* argument) {
    if (mgr == nullptr) {
        return false;
    }
    if (mgr->stopping != 0 || mgr->started == 0) {
        return true;
    }
    mgr->started = 0;
    mgr->stopping = 1;
    mgr->stop_request = &mgr->stop_storage;
    mgr->stop_request->argument = argument;
    mgr->stop_request->callback = _stop_task_mgr_callback;
    mgr->stop_request->start_time = GetTickCount();
    LOG_ASSERT(is_loop_thread());
    close_uv_timer(&mgr->timer);
    mgr->cancelling = 1;
    _cancel_kind(&mgr->kinds[KIND_UPLOAD]);
    _cancel_kind(&mgr->kinds[KIND_DOWNLOAD]);
    mgr->cancelling = 0;
    if (_is_task_mgr_idle(mgr)) {
        LOG_INFO("_start_stop_task_mgr, idle, notify result.");
        _finish_stop(mgr);
    }
    return true;
}

bool start_stop_default_task_mgr(void* argument) {
    task_mgr* mgr = default_task_mgr;
    default_task_mgr = nullptr;
    bool begun = _start_stop_task_mgr(mgr, argument);
    return LOG_ASSERT(begun);
}
