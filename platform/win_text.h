// Windows text calls under their own names: on Windows the system's headers, elsewhere stand-ins.
#ifndef PLATFORM_WIN_TEXT_H
#define PLATFORM_WIN_TEXT_H

#include "platform/win_time.h"

#if defined(_WIN32)
#include <stdlib.h>
#include <string.h>
#else

#include <stdint.h>
#include <wchar.h>

// One UTF-16 code unit; here wchar_t is wider and half of it stays empty.
typedef wchar_t WCHAR;
typedef uint32_t UINT;

#define CP_UTF8 65001

// As documented for Windows, for CP_UTF8 only: `length` -1 means zero-terminated (the zero is
// converted too); an output size of 0 asks for the size. Invalid input becomes U+FFFD.
int MultiByteToWideChar(UINT code_page, DWORD flags, const char* text, int length, WCHAR* output,
                        int output_size);
int WideCharToMultiByte(UINT code_page, DWORD flags, const WCHAR* text, int length, char* output,
                        int output_size, const char* default_char, BOOL* used_default);

// Directory for temporary files with a separator at its end; returns its length, 0 on failure.
DWORD GetTempPathW(DWORD size, WCHAR* output);

int _stricmp(const char* first, const char* second);
int _strnicmp(const char* first, const char* second, size_t count);
int64_t _atoi64(const char* text);

#endif
#endif
