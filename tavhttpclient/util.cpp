// Texts, HTTP dates, Base64 and the readers of a few response header values. The text buffer and
// the URLs have their own files.
#include "tavhttpclient/util.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uv.h>

#include <atomic>
#include <mutex>

#include "platform/win_file.h"
#include "platform/win_socket.h"

enum {
    ADDRESS_TEXT_SIZE = 64,
    INT64_TEXT_SIZE = 21
};

// ------------------------------------------------------------------------------------- texts

char* string_dup(const char* text) {
    return string_dup_n(text, -1);
}

char* string_dup_n(const char* text, int32_t count) {
    if (text == nullptr) {
        return nullptr;
    }
    size_t length = count < 0 ? strlen(text) : strnlen(text, (size_t)count);
    char* copy = (char*)malloc(length + 1);
    if (copy != nullptr) {
        memcpy(copy, text, length);
        copy[length] = 0;
    }
    return copy;
}

void string_replace(char** field, const char* text) {
    if (field == nullptr) {
        return;
    }
    // `text` may point into the old value.
    char* copy = string_dup(text);
    free(*field);
    *field = copy;
}

static bool _is_blank(char character) {
    return character == ' ' || character == '\t';
}

char* trim_string(const char* text, int32_t length) {
    if (!LOG_ASSERT(text != nullptr)) {
        return nullptr;
    }
    const char* end = text + (length < 1 ? strlen(text) : strnlen(text, (size_t)length));
    while (text < end && _is_blank(*text)) {
        ++text;
    }
    while (end > text && _is_blank(end[-1])) {
        --end;
    }
    size_t size = (size_t)(end - text);
    char* trimmed = (char*)malloc(size + 1);
    if (trimmed != nullptr) {
        memcpy(trimmed, text, size);
        trimmed[size] = 0;
    }
    return trimmed;
}

void lower_ascii(char* text) {
    for (; *text != 0; ++text) {
        if (*text >= 'A' && *text <= 'Z') {
            *text = (char)(*text + ('a' - 'A'));
        }
    }
}

int32_t string_printf_bounded(char* array, int32_t size, const char* format, ...) {
    if (array == nullptr || size < 1) {
        return 0;
    }
    array[0] = 0;
    if (format == nullptr) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    int32_t result = vsnprintf(array, (size_t)size, format, arguments);
    va_end(arguments);
    array[size - 1] = 0;
    return result;
}

char* int64_to_text(int64_t value, char* array) {
    if (value >= 0) {
        return uint64_to_text((uint64_t)value, array);
    }
    array[0] = '-';
    uint64_to_text(0 - (uint64_t)value, array + 1);
    return array;
}

char* uint64_to_text(uint64_t value, char* array) {
    char digits[INT64_TEXT_SIZE];
    char* first = digits + INT64_TEXT_SIZE - 1;
    *first = 0;
    do {
        *--first = (char)('0' + value % 10);
        value /= 10;
    } while (value != 0);
    memcpy(array, first, (size_t)(digits + INT64_TEXT_SIZE - first));
    return array;
}

// Index in `names`, three letters each, or -1. Case matters.
static int _find_name(const char* const* names, int count, const char* name) {
    for (int index = 0; index < count; ++index) {
        if (strcmp(names[index], name) == 0) {
            return index;
        }
    }
    return -1;
}

// ------------------------------------------------------------------------------------- dates

static const char* const weekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A date as it stands in the text, before anything is checked.
struct date_fields {
    char weekday[4];
    char month[4];
    int day, year, hour, minute, second;
};

// Widths keep the numbers within an int. "GMT" at the end is not verified: only conversions count.
static bool _scan_date(const char* text, date_fields* date) {
    memset(date, 0, sizeof(*date));
    int count = sscanf(text, "%3s,%9d%3s%9d%9d:%9d:%9dGMT", date->weekday, &date->day, date->month,
                       &date->year, &date->hour, &date->minute, &date->second);
    if (count == 7) {
        return true;
    }
    memset(date, 0, sizeof(*date));
    count = sscanf(text, "%3s,%9d-%3s-%9d%9d:%9d:%9dGMT", date->weekday, &date->day, date->month,
                   &date->year, &date->hour, &date->minute, &date->second);
    return count == 7;
}

static bool _is_within(int value, int highest) {
    return value >= 0 && value <= highest;
}

static bool _check_date(const date_fields* date, struct tm* time) {
    memset(time, 0, sizeof(*time));
    time->tm_wday = _find_name(weekdays, 7, date->weekday);
    time->tm_mon = _find_name(months, 12, date->month);
    if (time->tm_wday < 0 || time->tm_mon < 0 || date->year < 1900) {
        return false;
    }
    if (!_is_within(date->day, 31) || !_is_within(date->hour, 23) ||
        !_is_within(date->minute, 59) || !_is_within(date->second, 59)) {
        return false;
    }
    time->tm_year = date->year - 1900;
    time->tm_mday = date->day;
    time->tm_hour = date->hour;
    time->tm_min = date->minute;
    time->tm_sec = date->second;
    return true;
}

bool parse_http_date(const char* text, int32_t length, int64_t* output) {
    if (output == nullptr) {
        return false;
    }
    *output = 0;
    char* copy = string_dup_n(text, length);
    if (copy == nullptr) {
        return false;
    }
    date_fields date;
    struct tm time;
    bool ok = _scan_date(copy, &date) && _check_date(&date, &time);
    free(copy);
    int64_t seconds = ok ? utc_tm_to_time(&time) : -1;
    if (seconds == -1) {
        return false;
    }
    *output = seconds;
    return true;
}

// Seconds of a local broken-down time, one thread at a time: the call reads the zone anew each time
// and keeps it in the C library's own records.
static int64_t _mktime(struct tm* time) {
    static std::mutex lock;
    lock.lock();
    int64_t seconds = _mktime64(time);
    lock.unlock();
    return seconds;
}

// What mktime is off by, because it takes every time for local time.
static int64_t _zone_offset(void) {
    // Threads that compute it at once store the same value. While it is 0 it is computed anew, so
    // a machine on UTC follows a change of its zone.
    static std::atomic<int64_t> cached;
    int64_t offset = cached.load(std::memory_order_relaxed);
    if (offset != 0) {
        return offset;
    }
    __time64_t now = _time64(nullptr);
    const struct tm* shared = _gmtime64(&now);
    if (shared == nullptr) {
        return 0;
    }
    struct tm utc = *shared;
    offset = now - _mktime(&utc);
    cached.store(offset, std::memory_order_relaxed);
    return offset;
}

int64_t utc_tm_to_time(struct tm* time) {
    if (time == nullptr) {
        return -1;
    }
    int64_t local = _mktime(time);
    return local != -1 ? local + _zone_offset() : -1;
}

char* tm_struct_to_http_gmt_time(const struct tm* time) {
    if (!LOG_ASSERT(time != nullptr)) {
        return nullptr;
    }
    const int32_t size = 32;
    char* text = (char*)calloc((size_t)size, 1);
    if (text == nullptr || !_is_within(time->tm_wday, 6) || !_is_within(time->tm_mon, 11) ||
        time->tm_year > 9999 - 1900) {
        free(text);
        return nullptr;
    }
    string_printf_bounded(text, size - 1, "%s, %02d %s %04d %02d:%02d:%02d GMT",
                          weekdays[time->tm_wday], time->tm_mday, months[time->tm_mon],
                          time->tm_year + 1900, time->tm_hour, time->tm_min, time->tm_sec);
    return text;
}

char* time_to_http_gmt_time(int64_t seconds) {
    __time64_t value = seconds;
    const struct tm* time = _gmtime64(&value);
    return time != nullptr ? tm_struct_to_http_gmt_time(time) : nullptr;
}

// ------------------------------------------------------------------------------------ Base64

// One group of one to three bytes.
static void _encode_group(const uint8_t* bytes, uint32_t count, char* group) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    uint32_t value = (uint32_t)bytes[0] << 16;
    value |= count > 1 ? (uint32_t)bytes[1] << 8 : 0;
    value |= count > 2 ? bytes[2] : 0;
    group[0] = alphabet[value >> 18];
    group[1] = alphabet[(value >> 12) & 0x3F];
    group[2] = count > 1 ? alphabet[(value >> 6) & 0x3F] : '=';
    group[3] = count > 2 ? alphabet[value & 0x3F] : '=';
}

bool base64_encode(const void* bytes, uint32_t count, char** output, uint32_t* output_length) {
    if (output != nullptr) {
        *output = nullptr;
    }
    if (output_length != nullptr) {
        *output_length = 0;
    }
    if (bytes == nullptr || output == nullptr) {
        return false;
    }
    size_t total = count != 0 ? count : strlen((const char*)bytes);
    if (total > INT32_MAX / 2) {
        return false;
    }
    size_t length = (total + 2) / 3 * 4;
    char* text = (char*)malloc(length + 1);
    if (text == nullptr) {
        return false;
    }
    const uint8_t* input = (const uint8_t*)bytes;
    char* group = text;
    for (size_t at = 0; at < total; at += 3, group += 4) {
        size_t left = total - at;
        _encode_group(input + at, left < 3 ? (uint32_t)left : 3, group);
    }
    *group = 0;
    *output = text;
    if (output_length != nullptr) {
        *output_length = (uint32_t)length;
    }
    return true;
}

// --------------------------------------------------------------------- header value readers

static void _store_number(int64_t* output, int64_t value) {
    if (output != nullptr) {
        *output = value;
    }
}

// "<first>-<last>/<complete>" somewhere in a zero-terminated text. Each mark must have something
// behind it, so "bytes */1000" is refused for its missing dash.
static bool _scan_content_range(const char* text, int64_t* first, int64_t* last,
                                int64_t* complete) {
    const char* digit = text + strcspn(text, "0123456789");
    const char* dash = strchr(digit, '-');
    const char* slash = dash != nullptr ? strchr(dash, '/') : nullptr;
    if (slash == nullptr || slash[1] == 0) {
        return false;
    }
    _store_number(first, _atoi64(digit));
    _store_number(last, _atoi64(dash + 1));
    _store_number(complete, _atoi64(slash + 1));
    return true;
}

bool parse_content_range(const char* text, int32_t length, int64_t* first, int64_t* last,
                         int64_t* complete) {
    _store_number(first, 0);
    _store_number(last, 0);
    _store_number(complete, 0);
    // The copy ends the text where the range ends.
    char* copy = string_dup_n(text, length);
    bool ok = copy != nullptr && _scan_content_range(copy, first, last, complete);
    free(copy);
    return ok;
}

// The number after the first '=' behind `name`, 0 without one; numbers of any size are bounded.
static int32_t _read_parameter(const char* text, const char* name) {
    const char* found = strstr(text, name);
    const char* equals = found != nullptr ? strchr(found, '=') : nullptr;
    int64_t value = equals != nullptr ? _atoi64(equals + 1) : 0;
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : (int32_t)value;
}

void parse_connection_value(char* text, int32_t* keep_alive, int32_t* timeout, int32_t* max) {
    *keep_alive = 0;
    *timeout = 0;
    *max = 0;
    if (text == nullptr) {
        return;
    }
    lower_ascii(text);
    if (strstr(text, "keep-alive") == nullptr) {
        return;
    }
    *keep_alive = 1;
    *timeout = _read_parameter(text, "timeout");
    *max = _read_parameter(text, "max");
}

bool is_redirect_status(uint32_t status_code) {
    return status_code == 301 || status_code == 302 || status_code == 303 || status_code == 307;
}

uint32_t next_id(volatile LONG* last_id) {
    uint32_t id = 0;
    while (id == 0) {
        id = (uint32_t)InterlockedExchangeAdd(last_id, 1) + 1;
    }
    return id;
}

void sockaddr_to_text(const struct sockaddr* address, char* text) {
    if (text == nullptr) {
        return;
    }
    text[0] = 0;
    if (address == nullptr) {
        return;
    }
    if (address->sa_family == AF_INET) {
        uv_ip4_name((const struct sockaddr_in*)address, text, ADDRESS_TEXT_SIZE);
    } else if (address->sa_family == AF_INET6) {
        uv_ip6_name((const struct sockaddr_in6*)address, text, ADDRESS_TEXT_SIZE);
    }
}
