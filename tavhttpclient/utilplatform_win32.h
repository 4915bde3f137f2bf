// Conversions between the library's UTF-8 texts and the system's UTF-16 ones.
#ifndef TAVHTTPCLIENT_UTILPLATFORM_WIN32_H
#define TAVHTTPCLIENT_UTILPLATFORM_WIN32_H

#include "platform/win_text.h"

// New zero-terminated UTF-16 text, freed by the caller; null for null or without memory.
WCHAR* utf8_to_wide(const char* text);
// New zero-terminated UTF-8 text, freed by the caller; null for null or without memory.
char* wide_to_utf8(const WCHAR* text);

#endif
