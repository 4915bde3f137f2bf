// What must not grow from round to round: descriptors, the heap, resident memory.
#ifndef TESTS_SOAK_SOAK_WATCH_H
#define TESTS_SOAK_SOAK_WATCH_H

#include <cstddef>
#include <string>
#include <vector>

struct soak_sample {
    std::size_t descriptors = 0;
    std::size_t heap_kb = 0;  // 0 under a sanitizer, which has its own heap
    std::size_t resident_kb = 0;
};

// Taken between two rounds, when nothing of the library or of the servers is left.
soak_sample take_sample();

// The complaints about a whole run; empty when there are none. The first round is not counted: it
// makes what stays for the life of the process.
std::vector<std::string> judge_samples(const std::vector<soak_sample>& samples);

// True when the program was built with a sanitizer.
bool is_sanitized();

#endif
