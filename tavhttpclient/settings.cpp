// The process-wide settings. See settings.h.
#include "tavhttpclient/settings.h"

#include <stdlib.h>
#include <string.h>
#include <uv.h>

#include <atomic>

#include "tavhttpclient/log.h"
#include "tavhttpclient/util.h"

// Settings that live from loop start to loop end.
struct global_settings {
    char* download_directory;   // normalised, ends with '/'; null: none
    proxy_info* default_proxy;  // own copy; null: none
    uint8_t use_third_lsp;      // 1: sockets through the layered providers
};

// Made by the first start that can, and never destroyed: an export on a host thread may come while
// the loop thread takes the record away. Without it there is no record either.
static uv_rwlock_t settings_lock;
static std::atomic<uint8_t> has_settings_lock(0);
static global_settings* settings = nullptr;  // under the lock

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

bool init_global_settings(void) {
    if (has_settings_lock.load(std::memory_order_relaxed) == 0) {
        if (uv_rwlock_init(&settings_lock) != 0) {
            return false;
        }
        has_settings_lock.store(1, std::memory_order_release);
    }
    global_settings* record = (global_settings*)calloc(1, sizeof(global_settings));
    if (record == nullptr) {
        return false;
    }
    uv_rwlock_wrlock(&settings_lock);
    settings = record;
    uv_rwlock_wrunlock(&settings_lock);
    return true;
}

// The record, locked; null, and nothing is locked, when the library does not run.
static global_settings* _lock_to_write(void) {
    if (has_settings_lock.load(std::memory_order_acquire) == 0) {
        return nullptr;
    }
    uv_rwlock_wrlock(&settings_lock);
    if (settings == nullptr) {
        uv_rwlock_wrunlock(&settings_lock);
        return nullptr;
    }
    return settings;
}

static const global_settings* _lock_to_read(void) {
    if (has_settings_lock.load(std::memory_order_acquire) == 0) {
        return nullptr;
    }
    uv_rwlock_rdlock(&settings_lock);
    if (settings == nullptr) {
        uv_rwlock_rdunlock(&settings_lock);
        return nullptr;
    }
    return settings;
}

void uninit_global_settings(void) {
    global_settings* record = _lock_to_write();
    if (record == nullptr) {
        return;
    }
    settings = nullptr;
    uv_rwlock_wrunlock(&settings_lock);
    free(record->download_directory);
    free_proxy_info(record->default_proxy);
    free(record);
}

bool has_global_settings(void) {
    bool exists = _lock_to_read() != nullptr;
    if (exists) {
        uv_rwlock_rdunlock(&settings_lock);
    }
    return exists;
}

// -------------------------------------------------------------------------------- default proxy

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
    global_settings* record = _lock_to_write();
    if (!LOG_ASSERT(record != nullptr)) {
        return TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
    }
    // Copied before the old one goes: the caller may hand in a record that shares its texts.
    proxy_info* copy = copy_proxy_info(proxy);
    bool copied = proxy == nullptr || copy != nullptr;
    if (copied) {
        free_proxy_info(record->default_proxy);
        record->default_proxy = copy;
    }
    uv_rwlock_wrunlock(&settings_lock);
    return copied ? TAV_HTTP_ERROR_CODE_OK : TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

bool copy_default_proxy(proxy_info** copy) {
    *copy = nullptr;
    const global_settings* record = _lock_to_read();
    if (!LOG_ASSERT_IN("get_default_proxy_copy", record != nullptr)) {
        return true;
    }
    *copy = copy_proxy_info(record->default_proxy);
    bool copied = record->default_proxy == nullptr || *copy != nullptr;
    uv_rwlock_rdunlock(&settings_lock);
    return copied;
}

proxy_info* get_default_proxy_copy(void) {
    proxy_info* copy = nullptr;
    copy_default_proxy(&copy);
    return copy;
}

uint32_t tavHTTPSetDefaultProxy(const proxy_info* proxy) {
    LOG_INFO("tavHTTPSetDefaultProxy, type=%d, host=%s, port=%d",
             proxy != nullptr ? (int32_t)proxy->type : 0,
             proxy != nullptr && proxy->host != nullptr ? proxy->host : "(null)",
             proxy != nullptr ? proxy->port : 0);
    return set_default_proxy(proxy);
}

// --------------------------------------------------------------------------- download directory

bool store_download_directory(char* directory) {
    global_settings* record = _lock_to_write();
    if (record == nullptr) {
        free(directory);
        return false;
    }
    char* old = record->download_directory;
    record->download_directory = directory;
    uv_rwlock_wrunlock(&settings_lock);
    free(old);
    return true;
}

char* get_custom_download_directory(void) {
    const global_settings* record = _lock_to_read();
    if (!LOG_ASSERT(record != nullptr)) {
        return nullptr;
    }
    char* copy = string_dup(record->download_directory);
    uv_rwlock_rdunlock(&settings_lock);
    return copy;
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

// ----------------------------------------------------------------------------- layered providers

bool get_use_third_lsp(void) {
    const global_settings* record = _lock_to_read();
    if (record == nullptr) {
        return false;
    }
    bool use = record->use_third_lsp != 0;
    uv_rwlock_rdunlock(&settings_lock);
    return use;
}

uint32_t tavHTTPSetUseThirdLSP(uint8_t use) {
    global_settings* record = _lock_to_write();
    if (record == nullptr) {
        return TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;
    }
    record->use_third_lsp = use;
    uv_rwlock_wrunlock(&settings_lock);
    return TAV_HTTP_ERROR_CODE_OK;
}
