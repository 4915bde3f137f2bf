// The library frame. See httpinit.h.
#include "tavhttpclient/httpinit.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/hostcall.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/statistics.h"
#include "tavhttpclient/taskmgr.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/transport.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"
#include "tavhttpclient/worker.h"

// ------------------------------------------------------------------------------- the modules

// Loop thread, at its start. A task manager that cannot be made leaves the library without it, but
// the rest is needed by every session.
static bool _init_loop_modules(void) {
    if (!init_workers()) {
        return false;
    }
    set_before_host_call(send_missing_workers);
    register_tls_ops();
    if (!init_session_stats() || !init_global_settings() || !init_cookie_store()) {
        return false;
    }
    init_default_task_mgr();
    return true;
}

// How long the end of the loop waits for lookups that hang in the system. Steps on workers are
// always waited for.
enum {
    HUNG_LOOKUPS_MS = 200
};

// Before the poll as well as behind it: the poll must not go to sleep over the lookups.
static void _on_grace_over(uv_timer_t* timer) {
    *(bool*)timer->data = true;
    uv_stop(timer->loop);
}

// Only lookups that hang are left behind.
static void _drain_handles(void) {
    bool grace_over = false;
    uv_timer_t* grace = new_uv_timer(get_uv_loop(), &grace_over);
    if (arm_uv_timer(grace, _on_grace_over, HUNG_LOOKUPS_MS) == 0) {
        uv_unref((uv_handle_t*)grace);  // It is not waited for.
    } else {
        grace_over = true;
    }
    int32_t hung_lookups = uv_connect_abandon_lookups();
    while (is_loop_busy() && !(grace_over && hung_lookups > 0)) {
        run_loop_turn();
        hung_lookups = uv_connect_abandon_lookups();
    }
    close_uv_timer(&grace);
    run_loop_turn();
}

// Loop thread, when the task manager has ended. Ends the sessions that run without it (sent while
// it stopped) and closes whatever is still open: idle connections, connections of sessions that
// the host has not closed.
static void _drain_loop_modules(void) {
    cancel_sessions_in_flight();
    while (any_session_in_flight()) {
        run_loop_turn();
    }
    http_connect_close_all();
    _drain_handles();
    uninit_workers();
    set_before_host_call(nullptr);
}

// Loop thread, at its end; harmless for what a failed start has not made.
static void _uninit_loop_modules(void) {
    free_spare_recv_buffers();
    tls_ops* tls = get_tls_ops();
    if (tls != nullptr && tls->tls_uninit != nullptr) {
        tls->tls_uninit();
    }
    uninit_session_stats();
    uninit_global_settings();
    uninit_cookie_store();
}

static const loop_modules library_modules = {_init_loop_modules, workers_before_sleep,
                                             start_stop_default_task_mgr, _drain_loop_modules,
                                             _uninit_loop_modules};

// ------------------------------------------------------------------------ start-up and shut-down

// Starts minus shut-downs. Plain: the host serialises the two.
static int32_t startup_count = 0;

uint32_t tavHTTPStartup(void) {
    startup_count++;
    if (startup_count == 1 && !run_event_loop(&library_modules)) {
        return TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t tavHTTPShutdown(void) {
    startup_count--;
    LOG_ASSERT(startup_count >= 0);
    if (startup_count == 0) {
        stop_event_loop();
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t tavHTTPSetLogCallback(log_callback callback) {
    set_log_callback(callback);
    return TAV_HTTP_ERROR_CODE_OK;
}

// --------------------------------------------------------------------------- download directory

// Copy of a directory with every backslash as '/' and a '/' at its end.
static char* _normalised_directory(const char* directory) {
    size_t length = strlen(directory);
    char* copy = (char*)malloc(length + 2);
    if (copy == nullptr) {
        return nullptr;
    }
    for (size_t i = 0; i < length; i++) {
        copy[i] = directory[i] == '\\' ? '/' : directory[i];
    }
    if (length == 0 || copy[length - 1] != '/') {
        copy[length++] = '/';
    }
    copy[length] = '\0';
    return copy;
}

uint32_t set_custom_download_directory(const char* directory) {
    if (!LOG_ASSERT(has_global_settings())) {
        return TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
    }
    char* copy = nullptr;
    uint32_t code = TAV_HTTP_ERROR_CODE_OK;
    if (!is_empty_text(directory)) {
        // Without the lock: what this logs may bring the host back into the settings.
        if (!tavhttp_mkdir(directory)) {
            code = TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY;
        } else if ((copy = _normalised_directory(directory)) == nullptr) {
            code = TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
        }
    }
    bool stored = store_download_directory(copy);
    return LOG_ASSERT(stored) ? code : (uint32_t)TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
}

uint32_t tavHTTPSetDownloadDirectory(const char* directory) {
    return set_custom_download_directory(directory);
}
