#include "tests/soak/soak_watch.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SOAK_SANITIZED 1
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SOAK_SANITIZED 1
#endif

namespace {

// What a run may add without being called a leak. The threads' caches of the C library count as
// heap in use; scripts/soak turns them off, and the count is exact.
std::size_t heap_slack_kb() {
    return std::getenv("GLIBC_TUNABLES") != nullptr ? 64 : 1024;
}

constexpr std::size_t resident_slack_kb = 32 * 1024;

// Not with opendir: libuv closes sockets behind the thread sanitizer's back, which then takes the
// descriptor's next use on this thread for a race.
std::size_t count_descriptors() {
    auto is_number = [](const dirent* entry) { return entry->d_name[0] != '.' ? 1 : 0; };
    dirent** entries = nullptr;
    int count = scandir("/proc/self/fd", &entries, is_number, nullptr);
    for (int i = 0; i < count; i++) {
        free(entries[i]);
    }
    free(entries);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

std::size_t resident_kb() {
    std::size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// The least value among some samples: a leak raises it, a peak does not.
std::size_t least(const std::vector<soak_sample>& samples, std::size_t from, std::size_t to,
                  std::size_t soak_sample::*field) {
    std::size_t value = samples[from].*field;
    for (std::size_t i = from; i < to; i++) {
        value = std::min(value, samples[i].*field);
    }
    return value;
}

}  // namespace

bool is_sanitized() {
#if defined(SOAK_SANITIZED)
    return true;
#else
    return false;
#endif
}

soak_sample take_sample() {
    soak_sample sample;
    malloc_trim(0);
    sample.descriptors = count_descriptors();
    sample.heap_kb = mallinfo2().uordblks / 1024;
    sample.resident_kb = resident_kb();
    return sample;
}

std::vector<std::string> judge_samples(const std::vector<soak_sample>& samples) {
    std::vector<std::string> complaints;
    if (samples.size() < 3) {
        return complaints;
    }
    std::size_t part = std::max<std::size_t>(1, (samples.size() - 1) / 3);
    struct {
        const char* name;
        std::size_t soak_sample::*field;
        std::size_t slack;
        bool judged;
    } rows[] = {
        {"descriptors", &soak_sample::descriptors, 0, true},
        {"KB of heap", &soak_sample::heap_kb, heap_slack_kb(), !is_sanitized()},
        {"KB resident", &soak_sample::resident_kb, resident_slack_kb, !is_sanitized()},
    };
    for (const auto& row : rows) {
        std::size_t first = least(samples, 1, 1 + part, row.field);
        std::size_t last = least(samples, samples.size() - part, samples.size(), row.field);
        if (row.judged && last > first + row.slack) {
            complaints.push_back(std::string(row.name) + " grew from " + std::to_string(first) +
                                 " to " + std::to_string(last));
        }
    }
    return complaints;
}
