// One measurement: compare ours|curl CASE BASE-URL COUNT WORK-DIRECTORY
//
// Prints "key=value" lines; scripts/bench starts it, round after round, and makes the table.
#include "bench/compare.h"

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

void fail(const std::string& message) {
    std::fprintf(stderr, "compare: %s\n", message.c_str());
    std::_Exit(1);
}

double now_seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double resident_bytes() {
    std::ifstream file("/proc/self/statm");
    double total = 0;
    double resident = 0;
    file >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

namespace {

struct side_functions {
    void (*start)();
    void (*run)(const bench_plan&);
    queue_result (*queue)(const queue_plan&);
    void (*stop)();
};

const std::map<std::string, side_functions> sides{
    {"ours", {start_ours, run_ours, queue_ours, stop_ours}},
    {"curl", {start_curl, run_curl, queue_curl, stop_curl}},
};

double processor_seconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Not getrusage's figure, which still knows the process that started this one.
double peak_mib() {
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::strtod(line.c_str() + 6, nullptr) / 1024;
        }
    }
    return 0;
}

// For the cases on one large body COUNT is its size in MiB.
bench_plan make_plan(const std::string& name, const std::string& base, std::uint64_t count,
                     const std::string& work) {
    bench_plan plan;
    std::uint64_t large = count << 20;
    plan.url = base + "/small.bin";
    plan.count = count;
    plan.expected_bytes = 1024;
    auto one_large = [&](const char* path, std::uint64_t expected) {
        plan.url = base + path;
        plan.count = 1;
        plan.expected_bytes = expected;
    };
    if (name == "get-1") {
        // As it is.
    } else if (name == "get-6") {
        plan.in_flight = 6;
    } else if (name == "get-32") {
        plan.in_flight = 32;
    } else if (name == "post-1") {
        plan.url = base + "/sink";
        plan.upload.assign(1024, 'u');
        plan.expected_bytes = 2;
    } else if (name == "fresh-1") {
        plan.fresh = true;
    } else if (name == "down-memory") {
        one_large("/large.bin", large);
    } else if (name == "down-callback") {
        one_large("/large.bin", large);
        plan.sink = body_sink::callback;
    } else if (name == "down-file") {
        one_large("/large.bin", large);
        plan.sink = body_sink::file;
        plan.download_file = work + "/downloaded.bin";
    } else if (name == "down-gzip") {
        one_large("/zip/text", large);
        plan.decode = true;
        plan.sink = body_sink::callback;
    } else if (name == "upload-file") {
        one_large("/sink", 2);
        plan.upload_file = work + "/www/large.bin";
    } else {
        fail("no case " + name);
    }
    return plan;
}

void measure_transfers(const side_functions& side, const bench_plan& plan) {
    // Loads what is made once: the libraries' tables, the pages of their code, a connection.
    bench_plan warm_up = plan;
    warm_up.url = plan.url.substr(0, plan.url.find('/', 8)) + "/small.bin";
    warm_up.upload.clear();
    warm_up.upload_file.clear();
    warm_up.sink = body_sink::memory;
    warm_up.count = static_cast<std::uint64_t>(plan.in_flight);
    warm_up.expected_bytes = 1024;
    side.run(warm_up);

    double processor = processor_seconds();
    double begin = now_seconds();
    side.run(plan);
    std::printf("seconds=%.6f\n", now_seconds() - begin);
    std::printf("processor=%.6f\n", processor_seconds() - processor);
}

void measure_queue(const side_functions& side, const std::string& base, std::uint64_t count) {
    queue_plan plan;
    plan.url = base + "/small.bin";
    plan.slow_url = base + "/slow/large.bin";
    plan.count = count;
    plan.expected_bytes = 1024;
    double processor = processor_seconds();
    queue_result result = side.queue(plan);
    std::printf("seconds=%.6f\n", result.run_seconds);
    std::printf("processor=%.6f\n", processor_seconds() - processor);
    std::printf("queue_seconds=%.6f\n", result.queue_seconds);
    std::printf("queued_bytes=%.0f\n", result.queued_bytes);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6 || sides.count(argv[1]) == 0) {
        fail("usage: compare ours|curl CASE BASE-URL COUNT WORK-DIRECTORY");
    }
    const side_functions& side = sides.at(argv[1]);
    std::string name = argv[2];
    std::uint64_t count = std::strtoull(argv[4], nullptr, 10);
    side.start();
    if (name == "queue") {
        measure_queue(side, argv[3], count);
    } else {
        measure_transfers(side, make_plan(name, argv[3], count, argv[5]));
    }
    side.stop();
    std::printf("peak=%.3f\n", peak_mib());
    return 0;
}
