// Windows time and atomic calls under their own names: on Windows the system's header, elsewhere
// stand-ins.
#ifndef PLATFORM_WIN_TIME_H
#define PLATFORM_WIN_TIME_H

#if defined(_WIN32)
#include <winsock2.h>  // never behind <windows.h>, which would bring its predecessor

#include <windows.h>
#else

#include <stdint.h>

typedef uint32_t DWORD;
typedef uint64_t ULONGLONG;
typedef int32_t LONG;
typedef int32_t BOOL;
typedef union {
    int64_t QuadPart;
} LARGE_INTEGER;

// Milliseconds of a monotonic clock; never 0. The first is modulo 2^32.
DWORD GetTickCount(void);
ULONGLONG GetTickCount64(void);
BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
// Adds atomically; returns the old value.
LONG InterlockedExchangeAdd(volatile LONG* target, LONG value);

#endif
#endif
