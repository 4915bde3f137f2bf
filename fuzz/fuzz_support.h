// What the fuzz targets share: taking an input apart, and an end to the run when something that
// always holds does not.
#ifndef FUZZ_FUZZ_SUPPORT_H
#define FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "tavhttpclient/tavhttpclient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#define FUZZ_CHECK(condition) ((condition) ? (void)0 : fuzz_fail(#condition, __FILE__, __LINE__))

[[noreturn]] inline void fuzz_fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: %s does not hold\n", file, line, condition);
    std::abort();
}

struct free_block {
    void operator()(char* block) const {
        std::free(block);
    }
};

using heap_block = std::unique_ptr<char, free_block>;

// A block of exactly these bytes, so that a read behind them is caught.
inline heap_block exact_block(const char* data, size_t size) {
    heap_block block(static_cast<char*>(std::malloc(size > 0 ? size : 1)));
    std::memcpy(block.get(), data, size);
    return block;
}

// The same with a zero behind them.
inline heap_block exact_text(const std::string& text) {
    return exact_block(text.c_str(), text.size() + 1);
}

// Reads an input from its front; behind the end there are zeros and empty texts.
class fuzz_input {
  public:
    fuzz_input(const uint8_t* data, size_t size)
        : at_(reinterpret_cast<const char*>(data)), end_(at_ + size) {
    }

    uint8_t byte() {
        return at_ < end_ ? static_cast<uint8_t>(*at_++) : 0;
    }
    // Up to the next line break, which is skipped; without zeros.
    std::string line() {
        const char* stop = at_;
        while (stop < end_ && *stop != '\n') {
            stop++;
        }
        std::string text(at_, stop);
        at_ = stop < end_ ? stop + 1 : stop;
        return text.substr(0, text.find('\0'));
    }
    bool empty() const {
        return at_ == end_;
    }
    const char* rest() const {
        return at_;
    }
    size_t rest_size() const {
        return static_cast<size_t>(end_ - at_);
    }

  private:
    const char* at_;
    const char* end_;
};

// A heap text of the library, freed; null becomes empty.
inline std::string take_text(char* text) {
    heap_block owned(text);
    return text != nullptr ? text : "";
}

// Reads every log line to its end.
inline void fuzz_log(int32_t, const char* tag, const char* text) {
    FUZZ_CHECK(std::strlen(tag) > 0 && std::strlen(text) < 100000000);
}

// Once per process.
inline bool fuzz_start() {
    setenv("TZ", "UTC0", 1);
    tavHTTPSetLogCallback(fuzz_log);
    return true;
}

#endif
