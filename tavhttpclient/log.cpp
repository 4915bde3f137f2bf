#include "tavhttpclient/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

#include "tavhttpclient/hostcall.h"

enum {
    SHORT_LINE_SIZE = 512
};

// Read once per line and without a lock: a line goes either to the old or to the new receiver.
static std::atomic<log_callback> installed_callback(nullptr);

void set_log_callback(log_callback callback) {
    installed_callback.store(callback, std::memory_order_relaxed);
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

    char short_text[SHORT_LINE_SIZE];
    char* long_text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(short_text, sizeof(short_text), format, arguments);
    va_end(arguments);
    if (length >= SHORT_LINE_SIZE) {
        size_t size = (size_t)length + 1;
        long_text = (char*)malloc(size);
        va_start(arguments, format);
        length = long_text != nullptr ? vsnprintf(long_text, size, format, arguments) : -1;
        va_end(arguments);
    }
    const char* text = long_text != nullptr ? long_text : short_text;
    callback(level, tag, length >= 0 ? text : "");
    free(long_text);
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
