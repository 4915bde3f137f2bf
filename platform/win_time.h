// Windows time and atomic calls under their own names. On Windows: <windows.h>.
#ifndef PLATFORM_WIN_TIME_H
#define PLATFORM_WIN_TIME_H

#include <stdint.h>

typedef uint32_t DWORD;
typedef int32_t LONG;
typedef int32_t BOOL;
typedef union {
    int64_t QuadPart;
} LARGE_INTEGER;

// Milliseconds of a monotonic clock, modulo 2^32; never 0.
DWORD GetTickCount(void);
BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
// Adds atomically; returns the old value.
LONG InterlockedExchangeAdd(volatile LONG* target, LONG value);

#endif
