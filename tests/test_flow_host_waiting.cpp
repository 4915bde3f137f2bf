// What a host of such a library complains of when it has to wait: names that never resolve, long
// queues, and servers that say nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fake_system.h"
#include "tests/support/host.h"
#include "tests/support/tls_server.h"

namespace {

using clock_type = std::chrono::steady_clock;

// What a busy machine may add to a time-out before a test takes it for broken.
constexpr milliseconds grace{3000};

milliseconds since(clock_type::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(clock_type::now() - begin);
}

// Lets the name "hang" hang again after an earlier test released it.
void hold_lookups() {
    std::lock_guard<std::mutex> lock(fakes().mutex);
    fakes().lookups_released = false;
}

std::unique_ptr<transfer> send_to_hanging_name(std::int32_t connect_timeout) {
    auto get = std::make_unique<transfer>("http://hang/");
    get->set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, connect_timeout);
    EXPECT_EQ(0u, get->send());
    return get;
}

bool hangs(int count) {
    return wait_until([count] { return hanging_lookups() == count; });
}

// ------------------------------------------------------------------------------- name lookups

TEST(HungLookup, EndsWithTheTimeOutsOfItsSession) {
    hold_lookups();
    lookup_release release;
    library lib;
    struct {
        const char* title;
        std::int32_t connect_timeout;
        std::int32_t session_timeout;
        bool cancelled;
        std::uint32_t code;
    } rows[] = {
        {"connect time-out", 300, 0, false, TAV_HTTP_ERROR_CODE_FAIL_CONNECT},
        {"session time-out", 0, 300, false, TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT},
        {"cancelled", 300, 0, true, TAV_HTTP_ERROR_CODE_CANCEL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        transfer get("http://hang/");
        get.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, row.connect_timeout);
        get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, row.session_timeout);
        auto begin = clock_type::now();
        EXPECT_EQ(0u, get.send());
        if (row.cancelled) {
            EXPECT_EQ(0u, get.cancel());
        }
        EXPECT_EQ(row.code, get.wait());
        EXPECT_LT(since(begin), milliseconds(300) + grace);
    }
}

// Stops while names hang, starts again beside them, and ends with nothing left of the old loops.
TEST(HungLookup, HoldsUpNeitherAStopNorTheNextStart) {
    descriptor_guard descriptors;
    hold_lookups();
    lookup_release release;
    log_capture log;
    {
        library lib;
        scripted_server server([](const received_request&) { return response(200, "x"); });
        std::vector<std::unique_ptr<transfer>> all;
        auto stop_in_time = [&] {
            auto begin = clock_type::now();
            lib.shutdown();
            EXPECT_LT(since(begin), milliseconds(300) + grace);
            EXPECT_EQ(1, all.back()->completions());
            EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_CANCEL}, all.back()->wait());
            lib.startup();
        };
        for (int round = 1; round <= 2; round++) {
            all.push_back(send_to_hanging_name(300));
            ASSERT_TRUE(hangs(round));
            stop_in_time();
            if (round == 1) {  // the second of the two workers that look names up is still free
                transfer other(server.url());
                EXPECT_EQ(0u, other.run());
            }
        }
        // With both workers taken, a third lookup is taken back unbegun.
        all.push_back(send_to_hanging_name(300));
        on_loop([] {});
        stop_in_time();
        EXPECT_EQ(2, hanging_lookups());

        release_lookups();
        ASSERT_TRUE(hangs(0));
        EXPECT_TRUE(wait_until([&] {
            lib.shutdown();
            lib.startup();
            return log.count("callback is NULL means timeout") >= 2;
        }));
        EXPECT_EQ(0u, log.count("function=_drain_loop"));
    }
    { library once_more; }  // clears away what the last of them left
    EXPECT_TRUE(descriptors.back_to_start()) << "a loop was left behind";
}

// Lookups take at most half of the workers: what runs already goes on with its files.
TEST(HungLookup, LeavesWorkersForFilesAndCallbacks) {
    hold_lookups();
    lookup_release release;
    work_dir dir;
    library lib;
    std::string bytes = sample_bytes(3000000);
    std::string reply = response(200, bytes);
    scripted_server server(script{expect_request(), send_text(reply.substr(0, 100000)), stall(),
                                  send_text(reply.substr(100000))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    get.record();
    EXPECT_EQ(0u, get.send());
    ASSERT_TRUE(get.wait_for_event("start"));
    std::vector<std::unique_ptr<transfer>> hanging;
    for (int i = 0; i < 5; i++) {
        hanging.push_back(send_to_hanging_name(60000));
    }
    ASSERT_TRUE(hangs(2));
    server.release();
    EXPECT_EQ(0u, get.wait());
    EXPECT_TRUE(bytes == read_file("out.bin"));
    EXPECT_EQ(2, hanging_lookups());
    release_lookups();
    for (auto& one : hanging) {
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_CONNECT}, one->wait());
    }
}

// ---------------------------------------------------------------------------------- the queue

TEST(Queue, TimeOutsBeginBehindIt) {
    library lib;
    scripted_server server(script{expect_request(), stall(), send_text(response(200, "x"))});
    std::vector<std::unique_ptr<transfer>> running;
    for (int i = 0; i < 6; i++) {
        running.push_back(std::make_unique<transfer>(server.url()));
        running.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 86400000);
        EXPECT_EQ(0u, running.back()->send());
    }
    ASSERT_TRUE(server.wait_for_requests(6));
    transfer queued(server.url());
    queued.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, 20000);
    queued.set(TAV_HTTP_OPTION_IO_TIMEOUT, 20000);
    queued.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 20000);
    EXPECT_EQ(0u, queued.send());
    for (int i = 0; i < 10; i++) {
        advance_clock(60000);
    }
    EXPECT_FALSE(queued.completed());
    server.release();
    EXPECT_EQ(0u, queued.wait());
    for (auto& one : running) {
        EXPECT_EQ(0u, one->wait());
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int sanitized = 1;
#else
constexpr int sanitized = 0;
#endif

std::atomic<int> ended{0};
std::atomic<int> schedule_lines{0};

void count_end(http_session*, void* user_data, std::uint32_t) {
    (*static_cast<std::atomic<int>*>(user_data))++;
    ended++;
}

void count_schedule_lines(std::int32_t, const char*, const char* text) {
    schedule_lines += strncmp(text, "_schedule_task:", 15) == 0 ? 1 : 0;
}

double cpu_seconds() {
    rusage use = {};
    getrusage(RUSAGE_SELF, &use);
    auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

double heap_bytes() {
    return static_cast<double>(mallinfo2().uordblks);
}

struct queue_costs {
    double adding_us = 0;     // processor time per session, microseconds
    double finishing_us = 0;  // the same, from the start to the end of each
    double bytes = 0;         // memory per session while it waits
    bool once = false;        // every session was reported exactly once
};

// Six sessions run and `count` wait behind them; then one after the other gets its turn. The
// waiting ones are refused for their method when they start, so that only the queue costs anything.
queue_costs measure_queue(int count) {
    queue_costs costs;
    library lib;
    scripted_server server(script{expect_request(), stall(), send_text(response(200, "x"))});
    std::vector<std::unique_ptr<transfer>> running;
    for (int i = 0; i < 6; i++) {
        running.push_back(std::make_unique<transfer>(server.url()));
        EXPECT_EQ(0u, running.back()->send());
    }
    EXPECT_TRUE(server.wait_for_requests(6));
    auto size = static_cast<std::size_t>(count);
    std::vector<http_session*> queued(size);
    std::vector<std::atomic<int>> ends(size);
    ended = 0;

    double bytes = heap_bytes();
    double begin = cpu_seconds();
    for (std::size_t i = 0; i < size; i++) {
        queued[i] = tavHTTPOpen(9, server.url().c_str(), nullptr, &ends[i], count_end);
        tavHTTPSetOption(queued[i], TAV_HTTP_OPTION_QUEUE_FIFO, i % 2 != 0 ? 1u : 0u);
        EXPECT_EQ(0u, tavHTTPSendRequest(queued[i]));
    }
    on_loop([] {});  // behind the last send
    costs.adding_us = (cpu_seconds() - begin) * 1e6 / count;
    costs.bytes = (heap_bytes() - bytes) / count;
    EXPECT_EQ(0, ended) << "nobody's turn yet";

    begin = cpu_seconds();
    server.release();
    while (ended < count) {
        usleep(1000);  // a busy wait would be measured too
    }
    costs.finishing_us = (cpu_seconds() - begin) * 1e6 / count;
    costs.once = true;
    for (std::size_t i = 0; i < size; i++) {
        costs.once = costs.once && ends[i] == 1;
        tavHTTPClose(queued[i]);
    }
    for (auto& one : running) {
        EXPECT_EQ(0u, one->wait());
    }
    return costs;
}

// A queue that is walked or woken as a whole would cost a hundred times as much per session here.
TEST(Queue, CostsPerSessionDoNotGrowWithItsLength) {
    measure_queue(1000);  // what is made once for the process
    std::vector<int> counts = {1000, 10000};
    if (sanitized == 0) {
        counts.push_back(100000);
    }
    std::vector<queue_costs> all;
    for (int count : counts) {
        all.push_back(measure_queue(count));
        const queue_costs& now = all.back();
        std::printf("%6d queued: %.1f us to add, %.1f us to finish, %.0f bytes each\n", count,
                    now.adding_us, now.finishing_us, now.bytes);
        EXPECT_TRUE(now.once) << count;
    }
    for (std::size_t i = 1; i < all.size(); i++) {
        SCOPED_TRACE(counts[i]);
        EXPECT_LT(all[i].adding_us, 3 * all[i - 1].adding_us + 20);
        EXPECT_LT(all[i].finishing_us, 3 * all[i - 1].finishing_us + 20);
        EXPECT_LT(all[i].bytes, 8192);
    }
}

TEST(Queue, AnEndedSessionIsScheduledForOnce) {
    schedule_lines = 0;
    tavHTTPSetLogCallback(count_schedule_lines);
    const int count = 10000;
    EXPECT_TRUE(measure_queue(count).once);
    tavHTTPSetLogCallback(nullptr);
    // Once for each that is added, once for each that ends, the running six included.
    EXPECT_LE(schedule_lines, 2 * (count + 6));
}

// ----------------------------------------------------------------------------- silent servers

// A server that sends a byte now and then, so that no single receive ever takes too long.
void drip(tls_peer& peer) {
    std::string head;
    bool open = peer.raw_read_head(&head) &&
                peer.raw_write("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n");
    while (open) {
        open = peer.raw_write("x");
        poll(nullptr, 0, 50);
    }
}

TEST(SilentServer, HoldsNoSessionMuchLongerThanItsTimeOut) {
    hold_lookups();
    lookup_release release;
    const std::int32_t timeout = 1000;
    static const std::string upload(20000000, 'u');
    std::string part = response(200, sample_bytes(90000)).substr(0, 50000);
    descriptor_guard descriptors;
    {
        library lib;
        blackhole_listener nobody;
        scripted_server deaf(script{stall_deaf()}, server_options{false, 4096});
        scripted_server mute(script{expect_request(), stall()});
        scripted_server in_head(
            script{expect_request(), send_text("HTTP/1.1 200 OK\r\nA: "), stall()});
        scripted_server in_body(script{expect_request(), send_text(part), stall()});
        tls_server slow(drip);
        struct {
            const char* title;
            std::string url;
            std::uint32_t method;
        } rows[] = {
            {"name", "http://hang/", TAV_HTTP_METHOD_GET},
            {"connect", nobody.url(), TAV_HTTP_METHOD_GET},
            {"upload", deaf.url(), TAV_HTTP_METHOD_POST},
            {"no head", mute.url(), TAV_HTTP_METHOD_GET},
            {"half a head", in_head.url(), TAV_HTTP_METHOD_GET},
            {"half a body", in_body.url(), TAV_HTTP_METHOD_GET},
            {"a byte now and then", "http" + slow.url().substr(5), TAV_HTTP_METHOD_GET},
        };
        std::vector<std::unique_ptr<transfer>> all;
        auto begin = clock_type::now();
        for (const auto& row : rows) {
            all.push_back(std::make_unique<transfer>(row.url, row.method));
            if (row.method == TAV_HTTP_METHOD_POST) {
                all.back()->set(TAV_HTTP_OPTION_APPEND_BODY, upload.data(),
                                static_cast<std::uint32_t>(upload.size()));
            }
            all.back()->set(TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
            all.back()->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, timeout);
            EXPECT_EQ(0u, all.back()->send());
        }
        // The session time-out ends the step in progress, which has at most the same time again.
        for (std::size_t i = 0; i < all.size(); i++) {
            SCOPED_TRACE(rows[i].title);
            EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT}, all[i]->wait());
            EXPECT_LT(since(begin), milliseconds(2 * timeout) + grace);
            EXPECT_EQ(1, all[i]->completions());
        }
        all.clear();
        release_lookups();
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

}  // namespace
