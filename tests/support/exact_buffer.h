// Inputs from heap blocks of their exact size, so that a read behind the end is caught.
#ifndef TESTS_SUPPORT_EXACT_BUFFER_H
#define TESTS_SUPPORT_EXACT_BUFFER_H

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

struct free_memory {
    void operator()(void* memory) const {
        std::free(memory);
    }
};

using heap_text = std::unique_ptr<char, free_memory>;

// The bytes alone.
inline heap_text exact_bytes(const std::string& bytes) {
    heap_text copy(static_cast<char*>(std::malloc(bytes.empty() ? 1 : bytes.size())));
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

// The bytes and one zero.
inline heap_text exact_text(const std::string& text) {
    return exact_bytes(std::string(text.c_str(), text.size() + 1));
}

// Takes a heap result; null becomes "(null)".
inline std::string take(char* text) {
    heap_text owned(text);
    return text != nullptr ? text : "(null)";
}

#endif
