// Text conversions in two calls each: the first asks for the size.
#include "tavhttpclient/utilplatform_win32.h"

#include <stdlib.h>

WCHAR* utf8_to_wide(const char* text) {
    int size = text != nullptr ? MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0) : 0;
    WCHAR* wide = size > 0 ? (WCHAR*)calloc((size_t)size, sizeof(WCHAR)) : nullptr;
    if (wide != nullptr) {
        MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, size);
    }
    return wide;
}

char* wide_to_utf8(const WCHAR* text) {
    int size = text != nullptr
                   ? WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr)
                   : 0;
    char* narrow = size > 0 ? (char*)calloc((size_t)size, 1) : nullptr;
    if (narrow != nullptr) {
        WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow, size, nullptr, nullptr);
    }
    return narrow;
}
