// The table's rows at random, many at once, for as long as one likes: left alone, cancelled and
// closed at any moment, timed out, from several threads of a host, while the library is started and
// stopped in between, gently or in the middle of everything. scripts/soak runs it beside servers of
// other makers.
//
//   test_soak [--seconds N] [--threads N] [--seed N] [--peer BODY-FILE URL]... [--proxy TYPE
//   PORT]...
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <random>

#include "support/transfers.h"

namespace {

using seconds = std::chrono::duration<double>;
using std::chrono::microseconds;
using soak_clock = std::chrono::steady_clock;

struct arguments {
    double seconds = 5;
    unsigned threads = 4, seed = 1;
    std::vector<std::pair<std::string, std::string>> peers;  // bytes and URL
    // Type and port; the first is none.
    std::vector<std::pair<std::uint32_t, std::uint16_t>> proxies = {{TAV_HTTP_PROXY_NONE, 1}};
} given;

std::atomic<long> sent{0}, completed{0}, closed{0}, dropped{0}, refused{0};
std::atomic<bool> stopping{false};  // sessions may end with the cancel code

enum class fate {
    alone,
    cancel,
    close,
    time_out
};

// A session of the soak: a row with a peer of its own, or a transfer from a server of others.
struct job {
    std::unique_ptr<row_run> run;
    std::unique_ptr<transfer> session;
    std::string expected;  // body from a server of others
    fate end = fate::alone;
    soak_clock::time_point act_at = soak_clock::time_point::max();
    std::string file;
};

// What a session that was disturbed, or met a stop, may end with.
bool may_end_so(const job& one, const std::string& code) {
    return (stopping && (code == "CANCEL" || code == "FAIL_OTHER" || code == "NULL_EVENT_LOOP")) ||
           (one.end == fate::cancel && code == "CANCEL") ||
           (one.end == fate::time_out && code == "SESSION_TIMEOUT");
}

void judge(const job& one) {
    std::string code = one.session->wait(milliseconds(0)), text;
    if (one.run != nullptr) {
        bool may = may_end_so(one, code) && code != one.run->row.code;
        text = one.run->judge(*one.session, code, may);
        text = text.empty() ? text : one.run->row.name + ": " + text;
    } else if (code != "OK" && !may_end_so(one, code)) {
        text = one.session->text(TAV_HTTP_QUERY_URL) + ": completed with " + code;
    } else if (code == "OK" && one.session->body() != one.expected) {
        text = one.session->text(TAV_HTTP_QUERY_URL) + ": wrong body";
    }
    EXPECT_EQ("", text);
}

// A thread of the host with its sessions of one round.
struct soak_host {
    explicit soak_host(unsigned seed) : number(seed) {
    }

    // Keeps sending until `ending`, then waits for what is under way, or until `stopped`.
    void play(const std::atomic<bool>& ending, const std::atomic<bool>& stopped) {
        auto patience = soak_clock::time_point::max();
        while (!ending || !under_way.empty()) {
            while (!ending && under_way.size() < 16 && start_one()) {
            }
            std::this_thread::sleep_for(microseconds(500));
            bool is_over = stopped;  // before the jobs: a completion comes before the end of a stop
            std::erase_if(under_way, [&](auto& one) { return has_ended(one, is_over); });
            if (!ending) {
                patience = soak_clock::now() + std::chrono::seconds(120);
            }
            if (soak_clock::now() > patience) {
                ADD_FAILURE() << under_way.size() << " sessions were never reported";
                break;
            }
        }
    }

    std::unique_ptr<job> make_one() {
        auto one = std::make_unique<job>();
        if (!given.peers.empty() && random() % 4 == 0) {
            const auto& from = given.peers[random() % given.peers.size()];
            one->expected = from.first;
            const auto& through = given.proxies[random() % given.proxies.size()];
            proxy info(through.first, through.second);
            one->session = std::make_unique<transfer>(from.second, TAV_HTTP_METHOD_GET, &info);
        } else {
            const transfer_row& row = transfer_rows()[random() % transfer_rows().size()];
            target where = row.only_file ? target::file : static_cast<target>(random() % 4);
            bool shared = row.through == way::by_default || row.name == "cookies";
            if (shared || (row.sessions > 1 && row.serve.size() > 1)) {
                return make_one();  // not beside others
            }
            one->file = "out-" + std::to_string(number) + "-" + std::to_string(files.size());
            files.push_back(one->file);
            std::size_t piece = !row.whole_only && random() % 4 == 0 ? 997 : 0;
            one->run = std::make_unique<row_run>(row, where, piece, one->file);
            one->run->opened = row.sessions - 1;  // this one is the last
            one->session = one->run->open();
            one->session->set(TAV_HTTP_OPTION_NO_REUSE, 1u);
        }
        const std::int32_t priorities[] = {TAV_HTTP_PRIORITY_LOW, TAV_HTTP_PRIORITY_NORMAL,
                                           TAV_HTTP_PRIORITY_HIGH};
        one->session->set(TAV_HTTP_OPTION_PRIORITY, priorities[random() % 3]);
        one->session->set(TAV_HTTP_OPTION_QUEUE_FIFO, static_cast<std::uint32_t>(random() % 2));
        one->end = random() % 2 == 0 ? fate::alone : static_cast<fate>(random() % 4);
        if (one->end == fate::time_out) {
            one->session->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, static_cast<int>(random() % 30 + 1));
        } else if (one->end != fate::alone) {
            one->act_at = soak_clock::now() + microseconds(random() % 30000);
        }
        return one;
    }

    // False when the library takes nothing at present.
    bool start_one() {
        std::unique_ptr<job> one = make_one();
        bool taken = one->session->send() == "OK";
        (taken ? sent : refused)++;
        if (taken) {
            under_way.push_back(std::move(one));
        } else {
            end(std::move(one));
        }
        return taken;
    }

    bool has_ended(std::unique_ptr<job>& one, bool is_over) {
        if (one->session->completed()) {
            completed++;
            judge(*one);
        } else if (is_over) {
            dropped++;
        } else if (soak_clock::now() < one->act_at) {
            return false;
        } else if (one->end == fate::close) {
            closed++;
        } else {
            one->act_at = soak_clock::time_point::max();
            one->session->cancel();
            return false;
        }
        end(std::move(one));
        return true;
    }

    void end(std::unique_ptr<job> one) {
        if (one->session->close() == "OK") {
            unclosed.push_back(std::move(one));
        }
    }

    const unsigned number;
    std::mt19937 random{number};
    std::vector<std::string> files;
    std::vector<std::unique_ptr<job>> under_way, unclosed;  // until the next start
};

// Every other round ends in the middle of everything.
void play_round(unsigned round, double duration) {
    bool gently = round % 2 == 0;
    std::atomic<bool> ending{false}, stopped{false};
    stopping = false;
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 3 + round % 7);
    library lib;
    tavHTTPSetDownloadDirectory("chosen");
    std::list<soak_host> hosts;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < given.threads; i++) {
        soak_host& host = hosts.emplace_back(given.seed * 7919 + round * 101 + i);
        threads.emplace_back([&] { host.play(ending, stopped); });
    }
    std::this_thread::sleep_for(seconds(duration));
    if (!gently) {
        stopping = true;
        lib.shutdown();
        stopped = true;
        std::this_thread::sleep_for(seconds(0.02));  // sends and closes without a library
    }
    ending = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    stopping = true;
    lib.shutdown();
    lib.startup();
    for (soak_host& host : hosts) {
        for (auto& one : host.unclosed) {
            EXPECT_EQ("FAIL_START_ASYNC", one->session->close()) << "after the next start";
        }
    }
    lib.shutdown();
    for (const soak_host& host : hosts) {
        for (const std::string& file : host.files) {
            std::filesystem::remove(file);
        }
    }
}

std::size_t resident_kb() {
    std::size_t total = 0, resident = 0;
    malloc_trim(0);
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * 4;
}

void read_arguments() {
    std::vector<std::string> words = program_arguments();
    words.resize(words.size() + 2);
    for (std::size_t i = 1; i + 2 < words.size(); i++) {
        const std::string &name = words[i], &first = words[i + 1], &second = words[i + 2];
        if (name == "--seconds") {
            given.seconds = std::stod(first);
        } else if (name == "--threads") {
            given.threads = static_cast<unsigned>(std::stoul(first));
        } else if (name == "--seed") {
            given.seed = static_cast<unsigned>(std::stoul(first));
        } else if (name == "--peer") {
            given.peers.emplace_back(read_file(first), second);
        } else if (name == "--proxy") {
            given.proxies.emplace_back(std::stoul(first), std::stoul(second));
        }
    }
}

TEST(Soak, EverythingAtOnce) {
    read_arguments();
    // What a send or an open beside a stop may meet; and the TLS engine's codes.
    for (const char* function : {"_add_http_task", "add_task_default", "get_default_proxy_copy",
                                 "_internal_notify_download_complete"}) {
        allow_assertion(function);
    }
    work_dir dir;
    write_file("upload.bin", sample_bytes(40000));
    double duration = std::min(5.0, std::max(0.5, given.seconds / 30));
    auto end = soak_clock::now() + seconds(given.seconds);
    std::vector<resources> counts;
    std::vector<std::size_t> resident;
    for (unsigned round = 0; round < 3 || soak_clock::now() < end; round++) {
        play_round(round, duration);
        counts.push_back(count_resources());
        resident.push_back(resident_kb());
    }
    std::printf(
        "%zu rounds: %ld sent, %ld reported, %ld closed, %ld dropped by a stop, %ld refused "
        "without a library; %zu -> %zu KB resident\n",
        counts.size(), sent.load(), completed.load(), closed.load(), dropped.load(), refused.load(),
        resident[0], resident.back());
    EXPECT_EQ(sent, completed + closed + dropped);
    EXPECT_EQ(counts[0].blocks, counts.back().blocks);
    EXPECT_GE(counts[0].descriptors, counts.back().descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The least of the first third and of the last: a leak raises it, a peak does not.
    auto third = static_cast<std::ptrdiff_t>(resident.size() / 3);
    EXPECT_GT(*std::min_element(resident.begin(), resident.begin() + third + 1) + 16384,
              *std::min_element(resident.end() - third - 1, resident.end()));
#endif
    remove_folder("chosen");  // parts of cancelled ones may stay there
    std::filesystem::remove("upload.bin");
    EXPECT_EQ("", dir.names()) << "left behind";
}

}  // namespace
