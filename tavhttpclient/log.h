// Logging and assertions: every diagnostic line of the library, from any thread, goes to the one
// callback that the host installed.
//
// The texts are a contract, the names of functions in them included: hosts filter by them. A line
// keeps its text when the function that writes it is renamed or split.
#ifndef TAVHTTPCLIENT_LOG_H
#define TAVHTTPCLIENT_LOG_H

#include <stdint.h>

#include "tavhttpclient/tavhttpclient.h"

enum {
    LOG_LEVEL_ERROR = 1000,
    LOG_LEVEL_INFO = 2000,
    LOG_LEVEL_DETAIL = 3000
};

static const char LOG_TAG[] = "tavhttp";

#if defined(__GNUC__)
#define LOG_PRINTF(format_index, first_argument)                                                   \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define LOG_PRINTF(format_index, first_argument)
#endif

// Formats one line and hands it to the host's log callback, if one is installed.
//
// level   1000 errors and failed assertions, 2000 information, 3000 detail; passed on unchanged.
// tag     null reaches the callback as "".
// line    source line of the call site; accepted and not used.
// format  null counts as "".
// Thread  any, several at once; the callback runs inside the call.
void write_log(int32_t level, const char* tag, uint32_t line, const char* format, ...)
    LOG_PRINTF(4, 5);

// Stores the receiver of log lines; null turns logging off. Any thread.
void set_log_callback(log_callback callback);

// Constant name of a code; "TAV_HTTP_ERROR_CODE_UNKNOWN" for any value without one. Any thread.
const char* error_code_name(uint32_t code);

// Logs "assert fail, ..." at level 1000. Call it through LOG_ASSERT.
void log_assert_fail(const char* file, const char* function, uint32_t line);

#define LOG_ERROR(...) write_log(LOG_LEVEL_ERROR, LOG_TAG, __LINE__, __VA_ARGS__)
#define LOG_INFO(...) write_log(LOG_LEVEL_INFO, LOG_TAG, __LINE__, __VA_ARGS__)
#define LOG_DETAIL(...) write_log(LOG_LEVEL_DETAIL, LOG_TAG, __LINE__, __VA_ARGS__)

// True when the condition holds; otherwise logs the failed assertion and is false. Never stops the
// program and is never compiled out: the code behind it handles the bad case itself.
#define LOG_ASSERT(condition)                                                                      \
    ((condition) ? true : (log_assert_fail(__FILE__, __func__, __LINE__), false))

// The same under another function's name, where the log has always used that name.
#define LOG_ASSERT_IN(function, condition)                                                         \
    ((condition) ? true : (log_assert_fail(__FILE__, function, __LINE__), false))

#endif
