// Windows calls of a thread that waits without sleeping: on Windows the system's header, elsewhere
// stand-ins.
#ifndef PLATFORM_WIN_THREAD_H
#define PLATFORM_WIN_THREAD_H

#include "platform/win_time.h"

#if defined(_WIN32)
// The library's code stays in the process from now on, whoever unloads it: libuv's pool and the
// callbacks that it has installed do so too. Its clean-up at the end of the process is left out.
void platform_keep_loaded(void);
#else
#include <sched.h>

// libuv is a library of its own here, which ends its pool when it is unloaded.
inline void platform_keep_loaded(void) {
}

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
#endif
