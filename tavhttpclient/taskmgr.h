// The task manager: which sessions run. Two kinds (downloads and uploads), three priorities and a
// limit of running sessions per kind. Loop thread only.
#ifndef TAVHTTPCLIENT_TASKMGR_H
#define TAVHTTPCLIENT_TASKMGR_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"

enum {
    TASK_PRIORITY_LOW = TAV_HTTP_PRIORITY_LOW,
    TASK_PRIORITY_NORMAL = TAV_HTTP_PRIORITY_NORMAL,
    TASK_PRIORITY_HIGH = TAV_HTTP_PRIORITY_HIGH
};

// The queues of one kind, in the order in which they are served.
enum {
    QUEUE_HIGH,
    QUEUE_NORMAL,
    QUEUE_LOW,
    QUEUE_COUNT
};

enum {
    KIND_UPLOAD,
    KIND_DOWNLOAD,
    KIND_COUNT
};

struct task_mgr;

// A list that knows its length, so that nothing has to walk a long queue.
struct task_list {
    list_link head;
    int32_t count;
};

struct task_kind {
    task_list queues[QUEUE_COUNT];
    task_list running;
};

// One queued or running session.
struct http_task {
    list_link link;
    task_mgr* mgr;
    int32_t priority;
    http_session* session;  // null once its completion is being reported
    uint32_t add_time;      // tick count, ms; unread
    task_kind* kind;
    task_list* list;  // where `link` is
};
LIST_ENTRY_CHECK(http_task);

struct task_stop_request {
    void* argument;
    void (*callback)(void* argument);
    uint32_t start_time;  // tick count, ms
};

struct task_mgr {
    int32_t max_running_count;  // per kind
    task_kind kinds[KIND_COUNT];
    uint8_t started;
    uint8_t stopping;
    uint8_t cancelling;  // the stop is still going through the lists: nothing may end it yet
    uv_timer_t* timer;   // one second
    task_stop_request* stop_request;  // points to stop_storage while a stop is under way
    task_stop_request stop_storage;   // in the record: a stop must not fail for want of memory
};

// Creates and starts the default manager if there is none. False: the library runs without one.
bool init_default_task_mgr(void);

task_mgr* create_task_mgr(void);
bool _start_task_mgr(task_mgr* mgr);

// Queues a session that has been sent. False only for null.
bool add_task_default(http_session* session);

// Starts the pending task of a closed or cancelled session at once, out of its turn, with the
// cancel flag set, so that it is over soon. Does nothing for a running task or null.
void expedite_cancelled_task(void* task);

// Takes the default manager away and stops it: everything queued or running is cancelled, and
// _stop_task_mgr_callback(argument) is called once all of it has ended. False: there is no manager,
// nothing will be called.
bool start_stop_default_task_mgr(void* argument);

#endif
