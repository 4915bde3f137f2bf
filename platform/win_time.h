// Windows time and atomic calls under their own names. On Windows: <windows.h>.
#ifndef PLATFORM_WIN_TIME_H
#define PLATFORM_WIN_TIME_H

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
