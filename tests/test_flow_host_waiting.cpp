// What a host of such a library complains of when it has to wait: names that never resolve, long
// queues, and servers that say nothing.
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
using transfers = std::vector<std::unique_ptr<transfer>>;

// What a busy machine may add to a time-out before a test takes it for broken.
constexpr milliseconds grace{3000};

milliseconds since(clock_type::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(clock_type::now() - begin);
}

// The name "hang" hangs while this lives, and again when an earlier test released it.
struct held_lookups : lookup_release {
    held_lookups() {
        std::lock_guard<std::mutex> lock(fakes().mutex);
        fakes().lookups_released = false;
    }
};

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
    held_lookups held;
    library lib;
    for (bool cancelled : {false, true}) {
        SCOPED_TRACE(cancelled ? "cancelled" : "connect time-out");
        auto begin = clock_type::now();
        std::unique_ptr<transfer> get = send_to_hanging_name(300);
        EXPECT_TRUE(!cancelled || get->cancel() == 0);
        EXPECT_EQ(cancelled ? code::cancel : code::connect, get->wait());
        EXPECT_LT(since(begin), milliseconds(300) + grace);
    }
}

// Stops while names hang, starts again beside them, and ends with nothing left of the old loops.
TEST(HungLookup, HoldsUpNeitherAStopNorTheNextStart) {
    descriptor_guard descriptors;
    held_lookups held;
    log_capture log;
    {
        library lib;
        scripted_server server(always(response(200, "x")));
        transfers all;
        auto stop_in_time = [&] {
            auto begin = clock_type::now();
            lib.shutdown();
            EXPECT_LT(since(begin), milliseconds(300) + grace);
            EXPECT_EQ(1, all.back()->completions());
            EXPECT_EQ(code::cancel, all.back()->wait());
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
    held_lookups held;
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
    transfers hanging;
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
        EXPECT_EQ(code::connect, one->wait());
    }
}

// ---------------------------------------------------------------------------------- the queue

// Six sessions that wait in a stall of their server, so that every other download is queued.
struct full_queue {
    full_queue() : server(script{expect_request(), stall(), send_text(response(200, "x"))}) {
        for (int i = 0; i < 6; i++) {
            running.push_back(std::make_unique<transfer>(server.url()));
            running.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 86400000);
            EXPECT_EQ(0u, running.back()->send());
        }
        EXPECT_TRUE(server.wait_for_requests(6));
    }
    void expect_success() {
        for (auto& one : running) {
            EXPECT_EQ(0u, one->wait());
        }
    }

    library lib;
    scripted_server server;
    transfers running;
};

TEST(Queue, TimeOutsBeginBehindIt) {
    full_queue full;
    transfer queued(full.server.url());
    queued.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, 20000);
    queued.set(TAV_HTTP_OPTION_IO_TIMEOUT, 20000);
    queued.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 20000);
    EXPECT_EQ(0u, queued.send());
    for (int i = 0; i < 10; i++) {
        advance_clock(60000);
    }
    EXPECT_FALSE(queued.completed());
    full.server.release();
    EXPECT_EQ(0u, queued.wait());
    full.expect_success();
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
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
};

// `count` sessions wait behind six; then one after the other gets its turn. They are refused for
// their method when they start, so that only the queue costs anything.
queue_costs measure_queue(int count) {
    queue_costs costs;
    full_queue full;
    auto size = static_cast<std::size_t>(count);
    std::vector<http_session*> queued(size);
    std::vector<std::atomic<int>> ends(size);
    ended = 0;

    double bytes = heap_bytes();
    double begin = cpu_seconds();
    for (std::size_t i = 0; i < size; i++) {
        queued[i] = tavHTTPOpen(9, full.server.url().c_str(), nullptr, &ends[i], count_end);
        tavHTTPSetOption(queued[i], TAV_HTTP_OPTION_QUEUE_FIFO, i % 2 != 0 ? 1u : 0u);
        EXPECT_EQ(0u, tavHTTPSendRequest(queued[i]));
    }
    on_loop([] {});  // behind the last send
    costs.adding_us = (cpu_seconds() - begin) * 1e6 / count;
    costs.bytes = (heap_bytes() - bytes) / count;
    EXPECT_EQ(0, ended) << "nobody's turn yet";

    begin = cpu_seconds();
    full.server.release();
    while (ended < count) {
        usleep(1000);  // a busy wait would be measured too
    }
    costs.finishing_us = (cpu_seconds() - begin) * 1e6 / count;
    int once = 0;
    for (std::size_t i = 0; i < size; i++) {
        once += ends[i] == 1 ? 1 : 0;
        tavHTTPClose(queued[i]);
    }
    EXPECT_EQ(count, once) << "each is reported exactly once";
    full.expect_success();
    return costs;
}

// A queue that is walked or woken as a whole would cost a hundred times as much per session here.
TEST(Queue, CostsPerSessionDoNotGrowWithItsLength) {
    measure_queue(1000);  // what is made once for the process
    queue_costs last = measure_queue(1000);
    for (int count : {10000, 100000}) {
        if (sanitized && count == 100000) {
            continue;
        }
        SCOPED_TRACE(count);
        queue_costs now = measure_queue(count);
        std::printf("%6d queued: %.1f us to add, %.1f us to finish, %.0f bytes each\n", count,
                    now.adding_us, now.finishing_us, now.bytes);
        EXPECT_LT(now.adding_us, 3 * last.adding_us + 20);
        EXPECT_LT(now.finishing_us, 3 * last.finishing_us + 20);
        EXPECT_LT(now.bytes, 8192);
        last = now;
    }
}

TEST(Queue, AnEndedSessionIsScheduledForOnce) {
    schedule_lines = 0;
    tavHTTPSetLogCallback(count_schedule_lines);
    measure_queue(10000);
    tavHTTPSetLogCallback(nullptr);
    // Once for each that is added, once for each that ends, the running six included.
    EXPECT_LE(schedule_lines, 2 * (10000 + 6));
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
    held_lookups held;
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
        transfers all;
        auto begin = clock_type::now();
        for (const auto& row : rows) {
            all.push_back(std::make_unique<transfer>(row.url, row.method));
            if (row.method == TAV_HTTP_METHOD_POST) {
                all.back()->set_body(upload);
            }
            all.back()->set(TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
            all.back()->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, timeout);
            EXPECT_EQ(0u, all.back()->send());
        }
        // The session time-out ends the step in progress, which has at most the same time again.
        for (std::size_t i = 0; i < all.size(); i++) {
            SCOPED_TRACE(rows[i].title);
            EXPECT_EQ(code::session_timeout, all[i]->wait());
            EXPECT_LT(since(begin), milliseconds(2 * timeout) + grace);
            EXPECT_EQ(1, all[i]->completions());
        }
        all.clear();
        release_lookups();
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// The steps whose time-out is fixed at thirty seconds, whatever the host has set.
TEST(SilentServer, ProxiesAndTlsPeersHaveThirtySeconds) {
    library lib;
    scripted_server http({read_bytes(10), stall()});
    scripted_server socks({read_bytes(3), stall()});
    std::atomic<std::size_t> requests{0};
    tls_server tls([&](tls_peer& peer) {
        std::string request;
        if (peer.accept() && peer.read_request(&request)) {
            requests++;
            peer.wait_for_close();
        }
    });
    auto asked = [&] { return http.request_count() + socks.request_count() + requests; };
    struct {
        const char* title;
        std::string url;
        std::uint32_t proxy_type;
        std::uint16_t proxy_port;
        std::uint32_t code;
    } peers[] = {
        {"HTTP proxy", "http://a.test/", TAV_HTTP_PROXY_HTTP, http.port(), code::proxy_recv},
        {"SOCKS5 proxy", "http://a.test/", TAV_HTTP_PROXY_SOCKS5, socks.port(), code::recv_timeout},
#if TAV_HTTP_WITH_TLS
        {"TLS handshake", "https" + http.url().substr(4), 0, 0, code::recv_timeout},
        {"TLS response", tls.url(), 0, 0, code::recv_timeout},
#endif
    };
    for (const auto& peer : peers) {
        SCOPED_TRACE(peer.title);
        proxy_record proxy(peer.proxy_type, peer.proxy_port);
        transfer get(peer.url, 1, peer.proxy_type != 0 ? proxy.get() : nullptr);
        get.set(TAV_HTTP_OPTION_IO_TIMEOUT, 1000);
        std::size_t before = asked();
        get.send();
        EXPECT_TRUE(wait_until([&] { return asked() > before; }));
        int seconds = 0;
        // Of the same clock, and more than a session waits whose step begins late.
        const milliseconds ever(100 * 1000 * 1000);
        EXPECT_TRUE(wait_until(
            [&] {
                advance_clock(1000);
                seconds++;
                return get.completed();
            },
            ever));
        EXPECT_EQ(peer.code, get.wait());
        EXPECT_GE(seconds, 29);
    }
}

}  // namespace
