// One session of the soak: what it does, what must come of it, and the check of what came.
#ifndef TESTS_SOAK_SOAK_JOBS_H
#define TESTS_SOAK_SOAK_JOBS_H

#include "tavhttpclient/tavhttpclient.h"
#include "tests/soak/soak_bodies.h"
#include "tests/soak/soak_servers.h"

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <vector>

enum class job_kind {
    get_memory,
    get_chunked,
    get_zip,
    get_until_close,
    get_data_callback,
    get_file,
    get_chosen_file,
    get_range,
    get_resumed,
    head,
    options,
    redirect,
    post_bytes,
    post_file,
    post_form,
    https_get,
    https_post,
    http_proxy,
    socks_proxy,
    peer_get,
    peer_file,
    peer_range,
    peer_https,
    peer_http_proxy,
    peer_socks_proxy,
    cancelled,
    closed_in_flight,
    timed_out,
    bad_server,
    count
};

constexpr std::size_t kind_count = static_cast<std::size_t>(job_kind::count);

const char* kind_name(job_kind kind);

// What became of the sessions of one kind. All of them together are every send.
struct kind_totals {
    std::atomic<std::uint64_t> sent{0};  // accepted by the library
    std::atomic<std::uint64_t> completed{0};
    std::atomic<std::uint64_t> closed{0};   // in flight, and so not reported
    std::atomic<std::uint64_t> dropped{0};  // by a stop, and so not reported
    std::atomic<std::uint64_t> bytes{0};    // of checked bodies
    std::atomic<std::uint64_t> violations{0};
};

// What the jobs of a run share. Lives through all rounds.
struct soak_run {
    soak_peers peers;
    std::string directory;  // for downloaded files
    std::array<kind_totals, kind_count> totals;
    std::atomic<std::uint64_t> refused{0};  // sends while the library was stopped
    std::atomic<std::uint64_t> next_job{0};
    // A stop has begun: sessions may end with the cancel code.
    std::atomic<bool> stopping{false};

    void violation(job_kind kind, const std::string& text);

  private:
    std::mutex mutex_;
    int printed_ = 0;
};

using soak_clock = std::chrono::steady_clock;

// Told when a job's completion has been called; from a thread of the library.
class job_owner {
  public:
    virtual void job_ended() = 0;

  protected:
    ~job_owner() = default;
};

// Lives until the library has stopped, since callbacks may still use it until then.
struct soak_job {
    soak_run* run = nullptr;
    job_owner* owner = nullptr;
    job_kind kind = job_kind::get_memory;
    std::uint64_t number = 0;
    http_session* session = nullptr;

    bool must_fail = false;  // misbehaving servers
    bool may_be_cancelled = false;
    std::uint32_t failure = 0;           // the one code it may fail with; 0: any
    const std::string* bytes = nullptr;  // the body to get; null: `receipt`
    std::size_t from = 0;                // of them, for ranges
    std::size_t length = std::string::npos;
    std::string receipt;
    bool no_body = false;
    std::string file;         // whole downloads end here, or not at all
    bool keeps_part = false;  // resumed: a part may stay
    soak_clock::time_point act_at = soak_clock::time_point::max();  // to cancel, or to close
    bool acted = false;
    bool closes_inside = false;  // its completion closes it
    bool left_open = false;      // that close came behind the end of the loop

    bool sent = false;
    bool closed = false;  // by the host's thread
    std::atomic<std::uint32_t> data_crc{0};
    std::atomic<std::uint64_t> data_bytes{0};
    std::atomic<int> ends{0};
    std::atomic<std::uint32_t> code{0};
};

// Opens and prepares a session of a random kind; it is not sent yet.
void prepare_job(soak_job& job, soak_run& run, soak_servers& servers, std::mt19937& random);

// Checks what came of a session that has been reported, and removes its files.
void check_job(soak_job& job);

// Checks, and removes, the file of a session that cannot be asked any more.
void check_left_file(const soak_job& job);

#endif
