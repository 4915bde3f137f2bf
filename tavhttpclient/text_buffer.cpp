// The growable byte buffer under every text that the library composes.
//
// Lengths and capacities are signed 32-bit numbers; a size beyond them counts as a failed growth.
// Three growth rules are in use on purpose: byte appends take twice the total needed, formatted
// appends double the capacity, and those with an argument list make room for two of the result.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/util.h"

enum {
    FIRST_FORMAT_CAPACITY = 1024,
    STRING_FORMAT_CAPACITY = 512
};

bool text_buffer_init(text_buffer* buffer, uint32_t capacity) {
    if (buffer == nullptr) {
        return false;
    }
    memset(buffer, 0, sizeof(*buffer));
    if (capacity == 0) {
        return true;
    }
    // The capacity stays 0 without storage, so that a later append tries again.
    return capacity <= INT32_MAX && text_buffer_reserve(buffer, (int32_t)capacity);
}

void text_buffer_release(text_buffer* buffer) {
    if (buffer != nullptr) {
        free(buffer->data);
        memset(buffer, 0, sizeof(*buffer));
    }
}

bool text_buffer_reserve(text_buffer* buffer, int32_t wanted) {
    if (buffer == nullptr) {
        return false;
    }
    if (wanted <= buffer->capacity) {
        return true;
    }
    char* data = (char*)realloc(buffer->data, (size_t)wanted);
    if (data == nullptr) {
        return false;
    }
    buffer->data = data;
    buffer->capacity = wanted;
    return true;
}

bool text_buffer_set_length(text_buffer* buffer, int32_t length) {
    if (buffer == nullptr || length < 0 || !text_buffer_reserve(buffer, length)) {
        return false;
    }
    buffer->length = length;
    return true;
}

bool text_buffer_append(text_buffer* buffer, const void* bytes, uint32_t count) {
    if (buffer == nullptr) {
        return false;
    }
    if (bytes == nullptr || count == 0) {
        return true;
    }
    int64_t needed = (int64_t)buffer->length + count;
    if (needed > buffer->capacity) {
        int64_t wanted = 2 * needed <= INT32_MAX ? 2 * needed : INT32_MAX;
        if (needed > INT32_MAX || !text_buffer_reserve(buffer, (int32_t)wanted)) {
            return false;
        }
    }
    memcpy(buffer->data + buffer->length, bytes, count);
    buffer->length = (int32_t)needed;
    return true;
}

bool text_buffer_assign(text_buffer* buffer, const void* bytes, uint32_t count) {
    if (buffer == nullptr) {
        return false;
    }
    int32_t old_length = buffer->length;
    buffer->length = 0;
    if (!text_buffer_append(buffer, bytes, count)) {
        buffer->length = old_length;
        return false;
    }
    return true;
}

// The formats are checked where they are written; what arrives here is never a literal.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif

// Formats into the free room; returns the length that the text needs, or a negative number. The
// arguments can be used again.
static int _format_into_room(text_buffer* buffer, const char* format, va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    int result = vsnprintf(buffer->data + buffer->length,
                           (size_t)(buffer->capacity - buffer->length), format, copy);
    va_end(copy);
    return result;
}

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// A pass that did not fit has written over the zero behind the contents.
static bool _fail_format(text_buffer* buffer) {
    if (buffer->capacity > buffer->length) {
        buffer->data[buffer->length] = 0;
    }
    return false;
}

// `by_result`: how much the capacity grows when the text does not fit; see the top of the file.
static bool _append_formatted(text_buffer* buffer, const char* format, va_list arguments,
                              bool by_result) {
    if (buffer == nullptr || format == nullptr) {
        return false;
    }
    if ((buffer->data == nullptr || buffer->capacity == 0) &&
        !text_buffer_init(buffer, FIRST_FORMAT_CAPACITY)) {
        return false;
    }
    for (;;) {
        int result = _format_into_room(buffer, format, arguments);
        if (result < 0) {
            return _fail_format(buffer);  // More room would not help.
        }
        if (result < buffer->capacity - buffer->length) {
            buffer->length += result;
            return true;
        }
        int64_t wanted = 2 * ((int64_t)buffer->capacity + (by_result ? result : 0));
        if (wanted > INT32_MAX || !text_buffer_reserve(buffer, (int32_t)wanted)) {
            return _fail_format(buffer);
        }
    }
}

bool text_buffer_append_format(text_buffer* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    bool ok = _append_formatted(buffer, format, arguments, false);
    va_end(arguments);
    return ok;
}

bool text_buffer_append_vformat(text_buffer* buffer, const char* format, va_list arguments) {
    return _append_formatted(buffer, format, arguments, true);
}

char* string_format(const char* format, ...) {
    if (format == nullptr) {
        return nullptr;
    }
    text_buffer buffer;
    text_buffer_init(&buffer, STRING_FORMAT_CAPACITY);
    va_list arguments;
    va_start(arguments, format);
    bool ok = text_buffer_append_vformat(&buffer, format, arguments);
    va_end(arguments);
    if (!ok) {
        text_buffer_release(&buffer);
        return nullptr;
    }
    return buffer.data;
}
