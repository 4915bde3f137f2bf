#include "tavhttpclient/log.h"

#include <stdarg.h>

#include <atomic>

#include "tavhttpclient/util.h"

// Read once per line and without a lock: a line goes either to the old or to the new receiver.
static std::atomic<log_callback> installed_callback(nullptr);

void set_log_callback(log_callback callback) {
    installed_callback.store(callback, std::memory_order_relaxed);
}

void write_log(int32_t level, const char* tag, uint32_t line, const char* format, ...) {
    (void)line;
    text_buffer text;
    text_buffer_init(&text, 128);

    va_list arguments;
    va_start(arguments, format);
    bool formatted = text_buffer_append_vformat(&text, format != nullptr ? format : "", arguments);
    va_end(arguments);

    log_callback callback = installed_callback.load(std::memory_order_relaxed);
    if (callback != nullptr) {
        callback(level, tag != nullptr ? tag : "", formatted ? text.data : "");
    }
    text_buffer_release(&text);
}

bool log_assert_fail(const char* file, const char* function, uint32_t line) {
    write_log(LOG_LEVEL_ERROR, LOG_TAG, line, "assert fail, file=%s, function=%s, line=%d", file,
              function, (int32_t)line);
    return false;
}
