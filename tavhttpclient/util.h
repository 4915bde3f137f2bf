// Utilities without state: the growable text buffer, URL analysis and escaping, copies of texts,
// HTTP dates, Base64, and the readers of a few response header values.
//
// Heap results belong to the caller and are freed with free(). All functions may run on any thread.
#ifndef TAVHTTPCLIENT_UTIL_H
#define TAVHTTPCLIENT_UTIL_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include "platform/win_time.h"
#include "tavhttpclient/log.h"

struct sockaddr;

// ------------------------------------------------------------------------------- text buffer

// A growable byte buffer; an all-zero record is a valid empty one. It holds bytes: only a formatted
// append leaves a zero just behind `length`. Used by one thread at a time.
struct text_buffer {
    char* data;        // heap storage, owned until text_buffer_release; null: nothing allocated
    int32_t length;    // bytes in use
    int32_t capacity;  // bytes allocated at `data`
};

// All return false for a null record. A growth that fails returns false and leaves the contents
// unchanged.
bool text_buffer_init(text_buffer* buffer, uint32_t capacity);
void text_buffer_release(text_buffer* buffer);
// Grows the storage to exactly `wanted` bytes when it is smaller.
bool text_buffer_reserve(text_buffer* buffer, int32_t wanted);
// Sets the length, growing the storage to exactly that when needed; new bytes are not cleared.
bool text_buffer_set_length(text_buffer* buffer, int32_t length);
// Null bytes or count 0 succeed and change nothing. Growth doubles the needed size.
bool text_buffer_append(text_buffer* buffer, const void* bytes, uint32_t count);
bool text_buffer_assign(text_buffer* buffer, const void* bytes, uint32_t count);
bool text_buffer_append_format(text_buffer* buffer, const char* format, ...) LOG_PRINTF(2, 3);
// `arguments` is consumed.
bool text_buffer_append_vformat(text_buffer* buffer, const char* format, va_list arguments);
// New text; null for a null format or without memory.
char* string_format(const char* format, ...) LOG_PRINTF(1, 2);

// -------------------------------------------------------------------------------------- URLs

// A piece of an analysed text: null and 0 when the piece is absent. Owns nothing.
struct text_view {
    const char* data;
    uint32_t length;
};

// The pieces of a URL; the views are valid while the analysed text is.
struct url_info {
    text_view scheme;
    text_view user;
    text_view password;
    text_view host;      // without brackets
    text_view port;      // digits as text
    text_view path;      // begins with '/'
    text_view query;     // without '?'
    text_view fragment;  // without '#'
};

// Splits `url`; `info` is zeroed first in every case.
bool parse_url_info(const char* url, url_info* info);

// Splits `url` into new texts; outputs may be null. `port` gets the number or the scheme's default;
// `path` is "/" when absent; `target` is the path with the query. Outputs are untouched on failure.
bool analyze_url(const char* url, char** scheme, char** host, uint16_t* port, char** path,
                 char** target);

// True for a text with a scheme of 1 to 15 characters, "://" and at least one more character.
bool is_absolute_url(const char* text);
// New URL of `current`'s scheme and a `location` that begins with "//"; null on failure.
char* make_scheme_relative_url(const char* current, const char* location);
// New URL of a relative `location` as seen from `current`; null on failure.
char* resolve_relative_url(const char* current, const char* location);
// New text with every byte but A-Z a-z 0-9 - . _ ~ as %XX; null without memory or for null.
char* url_char_escape(const char* text);

// Splits [begin, end) at the first `separator`. Without one the first part is the whole range. A
// part that would be empty at either end is null. `found` may be null. False for a null range.
bool split_at_char(const char* begin, const char* end, char separator, const char** first_begin,
                   const char** first_end, const char** second_begin, const char** second_end,
                   bool* found);

// ------------------------------------------------------------------------------------- texts

// True for null and for a text without characters.
inline bool is_empty_text(const char* text) {
    return text == nullptr || text[0] == '\0';
}

// Copies; null for null. A negative count copies all.
char* string_dup(const char* text);
char* string_dup_n(const char* text, int32_t count);
// Frees `*field` and stores a copy of `text` there (null for null). The way options are replaced.
void string_replace(char** field, const char* text);
// Copy without leading and trailing spaces and tabs; length below 1 means the whole text.
char* trim_string(const char* text, int32_t length);
// Lower-cases the letters A to Z in place, under every locale.
void lower_ascii(char* text);
// Formats into `array` of `size` bytes and always terminates it; returns the full length needed.
int32_t string_printf_bounded(char* array, int32_t size, const char* format, ...) LOG_PRINTF(3, 4);
// Decimal text of `value` in `array` of at least 21 bytes; returns `array`.
char* int64_to_text(int64_t value, char* array);
char* uint64_to_text(uint64_t value, char* array);

// ------------------------------------------------------------------------- dates and encoding

// Reads "Sun, 06 Nov 1994 08:49:37 GMT" (or with dashes in the date) as seconds since 1970 UTC.
bool parse_http_date(const char* text, int32_t length, int64_t* output);
// Seconds since 1970 of a UTC broken-down time, or -1.
int64_t utc_tm_to_time(struct tm* time);
// New text such as "Sun, 06 Nov 1994 08:49:37 GMT".
char* tm_struct_to_http_gmt_time(const struct tm* time);
char* time_to_http_gmt_time(int64_t seconds);

// New Base64 text; count 0 means that `bytes` is a zero-terminated text.
bool base64_encode(const void* bytes, uint32_t count, char** output, uint32_t* output_length);

// ----------------------------------------------------------------------- header value readers

// Reads "bytes 0-99/1000"; a negative length means up to the zero; outputs may be null.
bool parse_content_range(const char* text, int32_t length, int64_t* first, int64_t* last,
                         int64_t* complete);
// Reads a Connection value; lower-cases `text` in place.
void parse_connection_value(char* text, int32_t* keep_alive, int32_t* timeout, int32_t* max);
// 301, 302, 303 and 307; 308 is deliberately absent.
bool is_redirect_status(uint32_t status_code);

// The next number of a counter that starts at 1: 2 is the first, and 0 is skipped. Any thread.
uint32_t next_id(volatile LONG* last_id);

// Writes the IP text without port into `text` of 64 bytes; empty for other families.
void sockaddr_to_text(const struct sockaddr* address, char* text);

#endif
