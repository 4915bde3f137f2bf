// soak: many sessions of every kind at once, for as long as one likes. The library is started and
// stopped in between, gently or in the middle of everything.
//
//   soak [--seconds N] [--threads N] [--seed N]
//        [--root DIR --http URL [--https URL] [--http-proxy PORT] [--socks-proxy PORT]]
//
// Checked are: every body, by checksum; that each session that was sent is reported exactly once
// (or closed, or dropped by a stop); that no partial file has its final name; that no assertion
// fails; that descriptors and memory do not grow. The exit code is 1 when anything is wrong.
#include "tests/soak/soak_jobs.h"
#include "tests/soak/soak_watch.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <set>
#include <thread>

namespace {

using seconds = std::chrono::duration<double>;

struct arguments {
    double seconds = 10;
    unsigned threads = 4;
    unsigned seed = 1;
    soak_peers peers;
};

constexpr std::size_t jobs_per_thread = 16;
// Far behind every time-out: a session that takes longer has been forgotten.
constexpr std::chrono::seconds patience{120};

// ------------------------------------------------------------------------------- failed assertions

std::mutex assertions_mutex;
std::set<std::string> assertions;

// What a send or an open beside a stop may meet, and the end of a session with one of the TLS
// engine's negative codes.
bool is_allowed_assertion(const std::string& text) {
    for (const char* function : {"_add_http_task", "add_task_default", "get_default_proxy_copy",
                                 "_internal_notify_download_complete"}) {
        if (text.find(std::string("function=") + function + ",") != std::string::npos) {
            return true;
        }
    }
    return false;
}

void watch_log(std::int32_t, const char*, const char* text) {
    if (std::strncmp(text, "assert fail", 11) == 0 && !is_allowed_assertion(text)) {
        std::lock_guard<std::mutex> guard(assertions_mutex);
        assertions.insert(text);
    }
}

// ------------------------------------------------------------------------------------ one host

// A thread of the host with its sessions of one round.
class soak_host final : public job_owner {
  public:
    soak_host(soak_run& run, soak_servers& servers, unsigned seed)
        : run_(run), servers_(servers), random_(seed) {
    }

    // Keeps sending until `stopping`, then waits for what is under way, or until `stopped`.
    void play(const std::atomic<bool>& stopping, const std::atomic<bool>& stopped) {
        auto end = soak_clock::time_point::max();
        while (!stopping || !under_way_.empty()) {
            while (!stopping && under_way_.size() < jobs_per_thread && start_one()) {
            }
            wait_a_moment();
            look_after(stopped);
            if (stopping && end == soak_clock::time_point::max()) {
                end = soak_clock::now() + patience;
            }
            if (soak_clock::now() > end) {
                break;
            }
        }
        for (soak_job* job : under_way_) {
            run_.violation(job->kind, "never reported");
        }
    }

    void job_ended() override {
        std::lock_guard<std::mutex> guard(mutex_);
        news_ = true;
        changed_.notify_one();
    }

    // After the library's stop: every send has its one end. Hands out what is still to be closed.
    void settle(bool may_drop, std::vector<http_session*>& unclosed) {
        for (soak_job& job : jobs_) {
            if (job.ends > (job.sent ? 1 : 0)) {
                run_.violation(job.kind, std::to_string(job.ends) + " completions");
            }
            if (job.sent) {
                account(job, may_drop);
            }
            check_left_file(job);
            if (job.left_open) {
                unclosed.push_back(job.session);
            }
        }
        unclosed.insert(unclosed.end(), unclosed_.begin(), unclosed_.end());
    }

  private:
    // False when the library takes nothing at present.
    bool start_one() {
        jobs_.emplace_back();
        soak_job& job = jobs_.back();
        job.owner = this;
        prepare_job(job, run_, servers_, random_);
        job.sent = tavHTTPSendRequest(job.session) == 0;
        if (job.sent) {
            under_way_.push_back(&job);
            return true;
        }
        run_.refused++;
        close(job);
        return false;
    }

    void wait_a_moment() {
        auto until = soak_clock::now() + std::chrono::milliseconds(50);
        for (soak_job* job : under_way_) {
            if (!job->acted && job->act_at < until) {
                until = job->act_at;
            }
        }
        std::unique_lock<std::mutex> guard(mutex_);
        changed_.wait_until(guard, until, [this] { return news_; });
        news_ = false;
    }

    void look_after(const std::atomic<bool>& stopped) {
        bool is_over = stopped;  // before the jobs: a completion comes before the end of a stop
        auto now = soak_clock::now();
        std::vector<soak_job*> rest;
        for (soak_job* job : under_way_) {
            if (job->ends > 0) {
                finish(*job);
            } else if (is_over) {
                close(*job);
            } else if (job->acted || job->act_at > now) {
                rest.push_back(job);
            } else if (!act(*job)) {
                rest.push_back(job);
            }
        }
        under_way_ = std::move(rest);
    }

    // True when that was its end.
    bool act(soak_job& job) {
        job.acted = true;
        if (job.kind == job_kind::closed_in_flight) {
            close(job);
            return true;
        }
        tavHTTPCancelRequest(job.session);
        return false;
    }

    void finish(soak_job& job) {
        if (!job.closes_inside) {
            check_job(job);
            close(job);
        }
    }

    void close(soak_job& job) {
        job.closed = true;
        if (tavHTTPClose(job.session) == 0) {
            unclosed_.push_back(job.session);
        }
    }

    void account(soak_job& job, bool may_drop) {
        kind_totals& totals = run_.totals[static_cast<std::size_t>(job.kind)];
        totals.sent++;
        if (job.ends > 0) {
            totals.completed++;
        } else if (job.kind == job_kind::closed_in_flight && job.acted) {
            totals.closed++;
        } else {
            totals.dropped++;
            if (!may_drop) {
                run_.violation(job.kind, "sent, and never reported");
            }
        }
    }

    soak_run& run_;
    soak_servers& servers_;
    std::mt19937 random_;
    std::deque<soak_job> jobs_;  // all of the round: callbacks hold their addresses
    std::vector<soak_job*> under_way_;
    std::vector<http_session*> unclosed_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    bool news_ = false;
};

// ------------------------------------------------------------------------------------ one round

void start_library(unsigned times) {
    for (unsigned i = 0; i < times; i++) {
        EXPECT_EQ(0u, tavHTTPStartup());
    }
}

void stop_library(unsigned times) {
    for (unsigned i = 0; i < times; i++) {
        tavHTTPShutdown();
    }
}

void pause_for(double duration) {
    std::this_thread::sleep_for(seconds(duration));
}

// Every other round ends in the middle of everything.
void play_round(soak_run& run, const arguments& given, unsigned round, double duration) {
    bool gently = round % 2 == 0;
    unsigned times = 1 + round % 3 / 2;
    std::atomic<bool> stopping{false}, stopped{false};
    soak_servers servers;
    run.stopping = false;
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 3 + round % 7);
    start_library(times);
    tavHTTPSetDownloadDirectory("chosen");

    std::vector<std::unique_ptr<soak_host>> hosts;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < given.threads; i++) {
        hosts.push_back(
            std::make_unique<soak_host>(run, servers, given.seed * 7919 + round * 101 + i));
        soak_host* host = hosts.back().get();
        threads.emplace_back([host, &stopping, &stopped] { host->play(stopping, stopped); });
    }
    pause_for(duration);
    if (!gently) {
        run.stopping = true;
        stop_library(times);
        stopped = true;
        pause_for(0.02);  // sends and closes without a library
    }
    stopping = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (gently) {
        run.stopping = true;
        stop_library(times);
    }

    std::vector<http_session*> unclosed;
    for (auto& host : hosts) {
        host->settle(!gently, unclosed);
    }
    start_library(1);
    for (http_session* session : unclosed) {
        if (tavHTTPClose(session) == 0) {
            run.violation(job_kind::closed_in_flight, "cannot be closed after the next start");
        }
    }
    stop_library(1);
}

// ------------------------------------------------------------------------------------- the run

bool read_arguments(int count, char** values, arguments* given) {
    for (int i = 1; i < count; i += 2) {
        std::string name = values[i];
        if (i + 1 == count) {
            return false;
        }
        const char* value = values[i + 1];
        auto number = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
        if (name == "--seconds") {
            given->seconds = std::strtod(value, nullptr);
        } else if (name == "--threads") {
            given->threads = number;
        } else if (name == "--seed") {
            given->seed = number;
        } else if (name == "--root") {
            given->peers.root = value;
        } else if (name == "--http") {
            given->peers.http = value;
        } else if (name == "--https") {
            given->peers.https = value;
        } else if (name == "--http-proxy") {
            given->peers.http_proxy = static_cast<std::uint16_t>(number);
        } else if (name == "--socks-proxy") {
            given->peers.socks_proxy = static_cast<std::uint16_t>(number);
        } else {
            return false;
        }
    }
    return given->seconds > 0 && given->threads > 0;
}

// Sessions by the thousand leave connections behind that end only with the library.
void allow_many_descriptors() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max < 65536 ? limit.rlim_max : 65536;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Everything that the sessions left behind must be gone; the library's own choice of files may
// keep parts of cancelled ones.
void check_directory(soak_run& run) {
    for (const auto& entry : std::filesystem::directory_iterator(run.directory)) {
        run.violation(job_kind::get_file, "left behind: " + entry.path().filename().string());
        std::error_code ignored;
        std::filesystem::remove(entry.path(), ignored);
    }
}

std::uint64_t print_table(const soak_run& run) {
    std::uint64_t all[6] = {};
    std::printf("%-22s %9s %9s %8s %8s %9s %10s\n", "session", "sent", "reported", "closed",
                "dropped", "MB", "violations");
    for (std::size_t i = 0; i < kind_count; i++) {
        const kind_totals& now = run.totals[i];
        const std::uint64_t row[6] = {now.sent,    now.completed, now.closed,
                                      now.dropped, now.bytes,     now.violations};
        for (std::size_t column = 0; column < 6; column++) {
            all[column] += row[column];
        }
        std::printf("%-22s %9" PRIu64 " %9" PRIu64 " %8" PRIu64 " %8" PRIu64 " %9.1f %10" PRIu64
                    "\n",
                    kind_name(static_cast<job_kind>(i)), row[0], row[1], row[2], row[3],
                    static_cast<double>(row[4]) / 1e6, row[5]);
    }
    std::printf("%-22s %9" PRIu64 " %9" PRIu64 " %8" PRIu64 " %8" PRIu64 " %9.1f %10" PRIu64 "\n",
                "all", all[0], all[1], all[2], all[3], static_cast<double>(all[4]) / 1e6, all[5]);
    return all[0] > 0 ? all[5] : 1;
}

bool report(const soak_run& run, const std::vector<soak_sample>& samples) {
    bool good = print_table(run) == 0;
    const soak_sample& first = samples[samples.size() > 1 ? 1 : 0];
    const soak_sample& last = samples.back();
    std::printf("%zu rounds, %" PRIu64 " sends refused while the library was stopped\n",
                samples.size(), run.refused.load());
    std::printf("descriptors %zu -> %zu, heap %zu -> %zu KB, resident %zu -> %zu KB\n",
                first.descriptors, last.descriptors, first.heap_kb, last.heap_kb, first.resident_kb,
                last.resident_kb);
    for (const std::string& text : judge_samples(samples)) {
        std::printf("VIOLATION, %s\n", text.c_str());
        good = false;
    }
    for (const std::string& text : assertions) {
        std::printf("VIOLATION, %s\n", text.c_str());
        good = false;
    }
    std::printf("%s\n", good ? "No violations." : "There were violations.");
    return good;
}

}  // namespace

int main(int count, char** values) {
    arguments given;
    if (!read_arguments(count, values, &given)) {
        std::fprintf(stderr, "usage: soak [--seconds N] [--threads N] [--seed N] [--root DIR\n"
                             "    --http URL [--https URL] [--http-proxy PORT] "
                             "[--socks-proxy PORT]]\n");
        return 2;
    }
    allow_many_descriptors();
    work_dir directory;
    soak_run run;
    run.peers = given.peers;
    run.directory = directory.path() + "/got";
    std::filesystem::create_directory(run.directory);
    if (run.peers.root.empty()) {
        run.peers.root = directory.path() + "/root";
        std::filesystem::create_directory(run.peers.root);
    }
    write_peer_files(run.peers);
    tavHTTPSetLogCallback(watch_log);

    double duration = std::min(5.0, std::max(0.5, given.seconds / 30));
    auto end = soak_clock::now() + seconds(given.seconds);
    std::vector<soak_sample> samples;
    for (unsigned round = 0; round < 3 || soak_clock::now() < end; round++) {
        play_round(run, given, round, duration);
        check_directory(run);
        samples.push_back(take_sample());
    }
    tavHTTPSetLogCallback(nullptr);
    return report(run, samples) ? 0 : 1;
}
