// Windows calls of a thread that waits without sleeping. On Windows: <windows.h>.
#ifndef PLATFORM_WIN_THREAD_H
#define PLATFORM_WIN_THREAD_H

#include <sched.h>

#include "platform/win_time.h"

// Tells the processor that this thread spins.
inline void YieldProcessor(void) {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// Gives the processor to another thread that could run. Not 0, whether or not there was one.
inline BOOL SwitchToThread(void) {
    return sched_yield() == 0;
}

#endif
