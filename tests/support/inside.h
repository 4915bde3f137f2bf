// What tests of the library's inside need: the loop thread, and memory as the library counts it.
#ifndef TESTS_SUPPORT_INSIDE_H
#define TESTS_SUPPORT_INSIDE_H

#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "support/fakes.h"
#include "tavhttpclient/loop.h"

// Runs a piece of a test on the library's loop thread and waits for its end. False when the library
// does not run.
inline bool on_loop(std::function<void()> action) {
    struct errand {
        std::function<void()> action;
        std::promise<void> done;
    } own{std::move(action), {}};
    std::future<void> done = own.done.get_future();
    auto run = [](void* argument) {
        static_cast<errand*>(argument)->action();
        static_cast<errand*>(argument)->done.set_value();
    };
    if (!async_run_safe(run, &own)) {
        return false;
    }
    done.wait();
    return true;
}

struct free_memory {
    void operator()(char* memory) const {
        free_block(memory);
    }
};
using heap_text = std::unique_ptr<char, free_memory>;

// Inputs from heap blocks of their exact size, so that a read behind the end is caught: the bytes
// alone, and the bytes with one zero.
inline heap_text exact_bytes(const std::string& bytes) {
    heap_text copy(static_cast<char*>(new_block(bytes.empty() ? 1 : bytes.size())));
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

inline heap_text exact_text(const std::string& text) {
    return exact_bytes(std::string(text.c_str(), text.size() + 1));
}

// Takes a heap result of the library; null becomes "(null)".
inline std::string take(char* text) {
    heap_text owned(text);
    return text != nullptr ? text : "(null)";
}

#endif
