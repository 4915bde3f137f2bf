#include "tavhttpclient/log.h"

#include <stdarg.h>
#include <stdio.h>

#include <atomic>

#include "tavhttpclient/hostcall.h"
#include "tavhttpclient/util.h"

enum {
    SHORT_LINE_SIZE = 512
};

// Read once per line and without a lock: a line goes either to the old or to the new receiver.
static std::atomic<log_callback> installed_callback(nullptr);

void set_log_callback(log_callback callback) {
    installed_callback.store(callback, std::memory_order_relaxed);
}

static void _write_long_line(log_callback callback, int32_t level, const char* tag,
                             const char* format, va_list arguments) {
    text_buffer text;
    text_buffer_init(&text, 2 * SHORT_LINE_SIZE);
    bool formatted = text_buffer_append_vformat(&text, format, arguments);
    callback(level, tag, formatted ? text.data : "");
    text_buffer_release(&text);
}

// Most lines are short and never touch the heap; without a receiver nothing is formatted at all.
void write_log(int32_t level, const char* tag, uint32_t line, const char* format, ...) {
    (void)line;
    log_callback callback = installed_callback.load(std::memory_order_relaxed);
    if (callback == nullptr) {
        return;
    }
    before_host_call();
    tag = tag != nullptr ? tag : "";
    format = format != nullptr ? format : "";

    char text[SHORT_LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length < SHORT_LINE_SIZE) {
        callback(level, tag, length >= 0 ? text : "");
        return;
    }
    va_start(arguments, format);
    _write_long_line(callback, level, tag, format, arguments);
    va_end(arguments);
}

void log_assert_fail(const char* file, const char* function, uint32_t line) {
    write_log(LOG_LEVEL_ERROR, LOG_TAG, line, "assert fail, file=%s, function=%s, line=%d", file,
              function, (int32_t)line);
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
