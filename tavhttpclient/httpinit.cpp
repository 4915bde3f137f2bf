// The library frame. See httpinit.h.
#include "tavhttpclient/httpinit.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/tavhttpclient.h"

// ------------------------------------------------------------------------ start-up and shut-down

// Starts minus shut-downs. Plain: the host serialises the two.
static int32_t startup_count = 0;

uint32_t tavHTTPStartup(void) {
    startup_count++;
    if (startup_count == 1 && !run_event_loop()) {
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
    if (directory != nullptr && directory[0] != '\0') {
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
