// Runs a piece of a test on the library's loop thread and waits for its end.
#ifndef TESTS_SUPPORT_ON_LOOP_H
#define TESTS_SUPPORT_ON_LOOP_H

#include <functional>
#include <future>

#include "tavhttpclient/loop.h"

struct loop_errand {
    std::function<void()> action;
    std::promise<void> done;
};

inline void run_loop_errand(void* argument) {
    auto* errand = static_cast<loop_errand*>(argument);
    errand->action();
    errand->done.set_value();
}

// False when the library does not run.
inline bool on_loop(std::function<void()> action) {
    loop_errand errand{std::move(action), {}};
    std::future<void> done = errand.done.get_future();
    if (!async_run_safe(run_loop_errand, &errand)) {
        return false;
    }
    done.wait();
    return true;
}

#endif
