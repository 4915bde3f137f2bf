// Conversions between UTF-8 and UTF-16 with the system's treatment of broken input, the directory
// for temporary files, and a few text calls that other runtime libraries spell differently.
#include "platform/win_text.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

static const uint32_t REPLACEMENT_POINT = 0xFFFD;

// Reads one code point; returns the bytes consumed. A broken sequence is consumed as far as it was
// a valid beginning, and reads as one replacement character.
static int _decode_utf8(const uint8_t* text, const uint8_t* end, uint32_t* point) {
    uint8_t lead = text[0];
    uint8_t low = 0x80;
    uint8_t high = 0xBF;
    int count;
    if (lead < 0x80) {
        *point = lead;
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        count = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        count = 3;
        // No over-long forms, and no surrogates in UTF-8.
        low = lead == 0xE0 ? 0xA0 : low;
        high = lead == 0xED ? 0x9F : high;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        count = 4;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high;
    } else {
        *point = REPLACEMENT_POINT;
        return 1;
    }
    *point = lead & (0x7Fu >> count);
    for (int index = 1; index < count; ++index) {
        if (text + index >= end || text[index] < low || text[index] > high) {
            *point = REPLACEMENT_POINT;
            return index;
        }
        *point = (*point << 6) | (text[index] & 0x3Fu);
        low = 0x80;
        high = 0xBF;
    }
    return count;
}

static int _encode_utf16(uint32_t point, WCHAR* units) {
    if (point < 0x10000) {
        units[0] = (WCHAR)point;
        return 1;
    }
    units[0] = (WCHAR)(0xD800 + ((point - 0x10000) >> 10));
    units[1] = (WCHAR)(0xDC00 + ((point - 0x10000) & 0x3FF));
    return 2;
}

static uint32_t _unit(WCHAR unit) {
    return (uint32_t)unit;
}

// Reads one code point; returns the units consumed. A surrogate without its partner reads as the
// replacement character, as does a unit that does not fit in 16 bits.
static int _decode_utf16(const WCHAR* text, const WCHAR* end, uint32_t* point) {
    uint32_t unit = _unit(text[0]);
    *point = unit;
    if (unit >= 0xD800 && unit <= 0xDBFF && text + 1 < end) {
        uint32_t next = _unit(text[1]);
        if (next >= 0xDC00 && next <= 0xDFFF) {
            *point = 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00);
            return 2;
        }
    }
    if (unit > 0xFFFF || (unit >= 0xD800 && unit <= 0xDFFF)) {
        *point = REPLACEMENT_POINT;
    }
    return 1;
}

static int _encode_utf8(uint32_t point, char* bytes) {
    static const uint8_t leads[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
    int count = point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
    for (int index = count - 1; index > 0; --index) {
        bytes[index] = (char)(0x80 | (point & 0x3F));
        point >>= 6;
    }
    bytes[0] = (char)(leads[count] | point);
    return count;
}

// What both conversions refuse.
static bool _check_arguments(UINT code_page, DWORD flags, const void* text, const void* output,
                             int output_size) {
    return code_page == CP_UTF8 && flags == 0 && text != nullptr && output_size >= 0 &&
           (output != nullptr || output_size == 0);
}

int MultiByteToWideChar(UINT code_page, DWORD flags, const char* text, int length, WCHAR* output,
                        int output_size) {
    if (!_check_arguments(code_page, flags, text, output, output_size)) {
        return 0;
    }
    size_t size = length < 0 ? strlen(text) + 1 : (size_t)length;
    if (size > INT_MAX) {
        return 0;
    }
    const uint8_t* at = (const uint8_t*)text;
    const uint8_t* end = at + size;
    int written = 0;
    while (at < end) {
        uint32_t point;
        WCHAR units[2];
        at += _decode_utf8(at, end, &point);
        int count = _encode_utf16(point, units);
        if (output_size != 0) {
            if (count > output_size - written) {
                return 0;
            }
            memcpy(output + written, units, (size_t)count * sizeof(WCHAR));
        }
        written += count;  // Never more units than bytes, so it cannot pass `size`.
    }
    return written;
}

int WideCharToMultiByte(UINT code_page, DWORD flags, const WCHAR* text, int length, char* output,
                        int output_size, const char* default_char, BOOL* used_default) {
    // For UTF-8 the system refuses a default character and the question whether it was used.
    if (!_check_arguments(code_page, flags, text, output, output_size) || default_char != nullptr ||
        used_default != nullptr) {
        return 0;
    }
    size_t size = length < 0 ? wcslen(text) + 1 : (size_t)length;
    // A unit becomes three bytes at most, and the result must be an int.
    if (size > INT_MAX / 3) {
        return 0;
    }
    const WCHAR* at = text;
    const WCHAR* end = text + size;
    int written = 0;
    while (at < end) {
        uint32_t point;
        char bytes[4];
        at += _decode_utf16(at, end, &point);
        int count = _encode_utf8(point, bytes);
        if (output_size != 0) {
            if (count > output_size - written) {
                return 0;
            }
            memcpy(output + written, bytes, (size_t)count);
        }
        written += count;
    }
    return written;
}

DWORD GetTempPathW(DWORD size, WCHAR* output) {
    // A relative directory would move with the host's current directory.
    const char* directory = getenv("TMPDIR");
    if (directory == nullptr || directory[0] != '/') {
        directory = "/tmp/";
    }
    int needed = MultiByteToWideChar(CP_UTF8, 0, directory, -1, nullptr, 0);
    if (needed <= 0 || needed == INT_MAX) {
        return 0;
    }
    bool add_separator = directory[strlen(directory) - 1] != '/';
    DWORD total = (DWORD)needed + (add_separator ? 1u : 0u);
    if (output == nullptr || size < total) {
        return total;
    }
    MultiByteToWideChar(CP_UTF8, 0, directory, -1, output, needed);
    if (add_separator) {
        output[needed - 1] = L'/';
        output[needed] = 0;
    }
    return total - 1;
}

// ASCII only: header names and values must compare alike under every locale of the host.
static int _lower(char character) {
    uint8_t value = (uint8_t)character;
    return value >= 'A' && value <= 'Z' ? value + ('a' - 'A') : value;
}

int _strnicmp(const char* first, const char* second, size_t count) {
    for (size_t index = 0; index < count; ++index) {
        int difference = _lower(first[index]) - _lower(second[index]);
        if (difference != 0 || first[index] == 0) {
            return difference;
        }
    }
    return 0;
}

int _stricmp(const char* first, const char* second) {
    return _strnicmp(first, second, SIZE_MAX);
}

int64_t _atoi64(const char* text) {
    return text != nullptr ? (int64_t)strtoll(text, nullptr, 10) : 0;
}
