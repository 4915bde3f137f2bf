// The comparison of this library with a peer: the same transfers, described once and carried out by
// either side. Each side is a pair of functions; one process runs one case on one side.
#ifndef BENCH_COMPARE_H
#define BENCH_COMPARE_H

#include <cstdint>
#include <string>

enum class body_sink {
    memory,
    callback,
    file
};

// `count` transfers of one kind, `in_flight` of them at any moment.
struct bench_plan {
    std::string url;
    std::string upload;         // body of a POST; empty: GET
    std::string upload_file;    // the same from a file
    std::string download_file;  // for body_sink::file
    body_sink sink = body_sink::memory;
    bool fresh = false;  // a connection for every transfer
    bool decode = false;
    std::uint64_t count = 1;
    int in_flight = 1;
    std::uint64_t expected_bytes = 0;  // of every body, decoded
};

// `count` sessions that wait behind running ones.
struct queue_plan {
    std::string url;
    std::string slow_url;  // its response does not end
    std::uint64_t count = 1000;
    std::uint64_t expected_bytes = 0;
};

struct queue_result {
    double queue_seconds = 0;  // from the first send until all are queued
    double run_seconds = 0;    // from their release until the last has completed
    double queued_bytes = 0;   // growth of the process
};

// Failures end the process with a message.
[[noreturn]] void fail(const std::string& message);
double now_seconds();
double resident_bytes();

void start_ours();
void run_ours(const bench_plan& plan);
queue_result queue_ours(const queue_plan& plan);
void stop_ours();

void start_curl();
void run_curl(const bench_plan& plan);
queue_result queue_curl(const queue_plan& plan);
void stop_curl();

// Both sides let this many transfers run while others wait.
constexpr int queue_running = 9;

#endif
