// Time stamps from the monotonic clock, and the atomic addition behind the id counters.
#include "platform/win_time.h"

#include <time.h>

ULONGLONG GetTickCount64(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    ULONGLONG ticks = (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
    return ticks != 0 ? ticks : 1;
}

DWORD GetTickCount(void) {
    DWORD ticks = (DWORD)GetTickCount64();
    // Callers keep 0 for "no time stamp yet"; the wrap after 49 days must not look like that.
    return ticks != 0 ? ticks : 1;
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
    struct timespec now;
    if (count == nullptr || clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return 0;
    }
    count->QuadPart = (int64_t)now.tv_sec * 1000000000 + (int64_t)now.tv_nsec;
    return 1;
}

LONG InterlockedExchangeAdd(volatile LONG* target, LONG value) {
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
