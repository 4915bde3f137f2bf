// The library frame: start-up, shut-down, error-code names and the process-wide settings.
#include "tavhttpclient/httpinit.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/util.h"

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

const char* error_code_name(uint32_t code) {
    switch (code) {
#define NAME_OF_CODE(name, value)                                                                  \
    case value:                                                                                    \
        return #name;
        TAV_HTTP_ERROR_CODE_MAP(NAME_OF_CODE)
#undef NAME_OF_CODE
    default:
        return "TAV_HTTP_ERROR_CODE_UNKNOWN";
    }
}

// ------------------------------------------------------------------------- configuration numbers

static const uint32_t DEFAULT_MAX_RUNNING_COUNT = 6;
static const uint32_t LEAST_MAX_RUNNING_COUNT = 3;
static const uint32_t MOST_MAX_RUNNING_COUNT = 9;

// They live as long as the process; a restart does not reset them.
static std::atomic<uint32_t> max_running_count(DEFAULT_MAX_RUNNING_COUNT);
static std::atomic<uint32_t> keep_alive_max_requests(0);

uint32_t config_max_running_count(void) {
    return max_running_count.load(std::memory_order_relaxed);
}

uint32_t config_keep_alive_max_requests(void) {
    return keep_alive_max_requests.load(std::memory_order_relaxed);
}

static uint32_t _clamp_running_count(uint32_t value) {
    if (value == 0) {
        return DEFAULT_MAX_RUNNING_COUNT;
    }
    if (value < LEAST_MAX_RUNNING_COUNT) {
        return LEAST_MAX_RUNNING_COUNT;
    }
    return value > MOST_MAX_RUNNING_COUNT ? MOST_MAX_RUNNING_COUNT : value;
}

int32_t tavHTTPSetConfig(int32_t key, uint32_t value) {
    switch (key) {
    case TAV_HTTP_CONFIG_MAX_RUNNING_COUNT:
        max_running_count.store(_clamp_running_count(value), std::memory_order_relaxed);
        return 0;
    case TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS:
        keep_alive_max_requests.store(value, std::memory_order_relaxed);
        return 0;
    default:
        return -1;
    }
}

// ------------------------------------------------------------------------------- settings record

// The lock is made once and outlives every record: an export on a host thread may come while the
// loop thread takes the record away.
static uv_once_t settings_once = UV_ONCE_INIT;
static uv_rwlock_t settings_lock;
static global_settings* settings = nullptr;

static void _init_settings_lock(void) {
    while (uv_rwlock_init(&settings_lock) != 0) {
        uv_sleep(1);  // Every export needs it, before a start too, and none can tell of its lack.
    }
}

static uv_rwlock_t* _settings_lock(void) {
    uv_once(&settings_once, _init_settings_lock);
    return &settings_lock;
}

bool init_global_settings(void) {
    uv_rwlock_t* lock = _settings_lock();
    global_settings* record = (global_settings*)calloc(1, sizeof(global_settings));
    if (record == nullptr) {
        return false;
    }
    record->lock = lock;
    uv_rwlock_wrlock(lock);
    settings = record;
    uv_rwlock_wrunlock(lock);
    return true;
}

void uninit_global_settings(void) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_wrlock(lock);
    global_settings* record = settings;
    settings = nullptr;
    uv_rwlock_wrunlock(lock);

    if (record != nullptr) {
        free(record->download_directory);
        free_proxy_info(record->default_proxy);
        free(record);
    }
}

static bool _is_copy_lost(const char* text, const char* copy) {
    return text != nullptr && copy == nullptr;
}

proxy_info* copy_proxy_info(const proxy_info* proxy) {
    if (proxy == nullptr) {
        return nullptr;
    }
    proxy_info* copy = (proxy_info*)calloc(1, sizeof(proxy_info));
    if (copy == nullptr) {
        return nullptr;
    }
    copy->type = proxy->type;
    copy->host = string_dup(proxy->host);
    copy->port = proxy->port;
    copy->user_name = string_dup(proxy->user_name);
    copy->password = string_dup(proxy->password);
    copy->extra = string_dup(proxy->extra);
    // Half a proxy would connect elsewhere, or without its credentials.
    if (_is_copy_lost(proxy->host, copy->host) ||
        _is_copy_lost(proxy->user_name, copy->user_name) ||
        _is_copy_lost(proxy->password, copy->password) ||
        _is_copy_lost(proxy->extra, copy->extra)) {
        free_proxy_info(copy);
        return nullptr;
    }
    return copy;
}

void free_proxy_info(proxy_info* proxy) {
    if (proxy == nullptr) {
        return;
    }
    free(proxy->host);
    free(proxy->user_name);
    free(proxy->password);
    free(proxy->extra);
    free(proxy);
}

uint32_t set_default_proxy(const proxy_info* proxy) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_wrlock(lock);
    global_settings* record = settings;
    uint32_t code = TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
    if (record != nullptr) {
        // Copied before the old one goes: the caller may hand in a record that shares its texts.
        proxy_info* copy = copy_proxy_info(proxy);
        code = TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
        if (proxy == nullptr || copy != nullptr) {
            free_proxy_info(record->default_proxy);
            record->default_proxy = copy;
            code = TAV_HTTP_ERROR_CODE_OK;
        }
    }
    uv_rwlock_wrunlock(lock);
    LOG_ASSERT(record != nullptr);
    return code;
}

bool copy_default_proxy(proxy_info** copy) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_rdlock(lock);
    global_settings* record = settings;
    const proxy_info* proxy = record != nullptr ? record->default_proxy : nullptr;
    *copy = copy_proxy_info(proxy);
    bool copied = proxy == nullptr || *copy != nullptr;
    uv_rwlock_rdunlock(lock);
    LOG_ASSERT_IN("get_default_proxy_copy", record != nullptr);
    return copied;
}

proxy_info* get_default_proxy_copy(void) {
    proxy_info* copy = nullptr;
    copy_default_proxy(&copy);
    return copy;
}

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

static bool _is_started(void) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_rdlock(lock);
    bool started = settings != nullptr;
    uv_rwlock_rdunlock(lock);
    return started;
}

// Takes over `directory`, null included. False when the library has stopped meanwhile.
static bool _store_download_directory(char* directory) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_wrlock(lock);
    global_settings* record = settings;
    char* old = directory;
    if (record != nullptr) {
        old = record->download_directory;
        record->download_directory = directory;
    }
    uv_rwlock_wrunlock(lock);
    free(old);
    return LOG_ASSERT_IN("set_custom_download_directory", record != nullptr);
}

uint32_t set_custom_download_directory(const char* directory) {
    if (!LOG_ASSERT(_is_started())) {
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
    return _store_download_directory(copy) ? code : (uint32_t)TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
}

char* get_custom_download_directory(void) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_rdlock(lock);
    global_settings* record = settings;
    char* copy = record != nullptr ? string_dup(record->download_directory) : nullptr;
    uv_rwlock_rdunlock(lock);
    LOG_ASSERT(record != nullptr);
    return copy;
}

bool get_use_third_lsp(void) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_rdlock(lock);
    bool use = settings != nullptr && settings->use_third_lsp != 0;
    uv_rwlock_rdunlock(lock);
    return use;
}

// ----------------------------------------------------------------------------- settings exports

uint32_t tavHTTPSetDefaultProxy(const proxy_info* proxy) {
    LOG_INFO("tavHTTPSetDefaultProxy, type=%d, host=%s, port=%d",
             proxy != nullptr ? (int32_t)proxy->type : 0,
             proxy != nullptr && proxy->host != nullptr ? proxy->host : "(null)",
             proxy != nullptr ? proxy->port : 0);
    return set_default_proxy(proxy);
}

uint32_t tavHTTPSetDownloadDirectory(const char* directory) {
    return set_custom_download_directory(directory);
}

uint32_t tavHTTPGetDownloadDirectory(char* buffer, int32_t* length) {
    if (buffer == nullptr || length == nullptr) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    char* directory = get_custom_download_directory();
    const char* text = directory != nullptr ? directory : "";
    int32_t needed = (int32_t)strlen(text) + 1;
    if (*length >= needed) {
        memcpy(buffer, text, (size_t)needed);
    }
    *length = needed;
    free(directory);
    // The same code after a successful copy: the host learns success from the length.
    return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
}

uint32_t tavHTTPSetUseThirdLSP(uint8_t use) {
    uv_rwlock_t* lock = _settings_lock();
    uv_rwlock_wrlock(lock);
    bool started = settings != nullptr;
    if (started) {
        settings->use_third_lsp = use;
    }
    uv_rwlock_wrunlock(lock);
    return started ? TAV_HTTP_ERROR_CODE_OK : TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
}
