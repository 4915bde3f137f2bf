// Mends of the sessions and the task manager.
#include "tavhttpclient/taskmgr.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

TEST(TaskManager, StopWithoutOneIsLogged) {
    log_capture log;
    EXPECT_FALSE(start_stop_default_task_mgr(nullptr));
    EXPECT_TRUE(log.has_line("function=start_stop_default_task_mgr", 1000));
}

// All time-outs are the defaults, 15 and 30 seconds: longer than any wait here.
TEST(SilentPeer, HoldsUpNeitherTheNextSessionNorTheShutdown) {
    constexpr std::size_t running = 6;  // as many as run at once
    struct {
        const char* name;
        const char* scheme;
        script steps;  // none: nobody answers the connect
        std::uint32_t method;
        std::uint32_t proxy;  // type; the server is the proxy
    } rows[] = {
        {"connect", "http", {}, 1, 0},
        {"request", "http", {stall_deaf()}, 2, 0},
        {"response", "http", {expect_request(), stall()}, 1, 0},
        {"body",
         "http",
         {expect_request(), send_text(response(200, "1234").substr(0, 40)), stall()},
         1,
         0},
        {"HTTP proxy", "http", {expect_request(), stall()}, 1, 1},
        {"SOCKS5 proxy", "http", {read_bytes(3), stall()}, 1, 2},
#if TAV_HTTP_WITH_TLS
        {"TLS", "https", {read_bytes(1), stall()}, 1, 0},
#endif
    };
    blackhole_listener nobody;
    for (const auto& row : rows) {
        for (bool close : {true, false}) {
            SCOPED_TRACE(std::string(row.name) + (close ? ", close" : ", shutdown"));
            log_capture log;
            library lib;
            scripted_server server(row.steps);
            scripted_server other(reply_with(response(200, "x")));
            proxy_record proxy(row.proxy, server.port());
            std::string url = row.scheme + server.url().substr(4);
            std::vector<std::unique_ptr<transfer>> silent;
            for (std::size_t i = 0; i < running; i++) {
                silent.push_back(
                    std::make_unique<transfer>(row.steps.empty() ? nobody.url() : url, row.method,
                                               row.proxy != 0 ? proxy.get() : nullptr));
                if (row.method == TAV_HTTP_METHOD_POST) {
                    silent.back()->set_body(std::string(8000000, 'u'));
                }
                EXPECT_EQ(0u, silent.back()->send());
            }
            if (row.steps.empty()) {
                EXPECT_TRUE(
                    wait_until([&] { return log.count("_start_connect, ctx=") == running; }));
            } else if (row.method == TAV_HTTP_METHOD_POST) {
                EXPECT_TRUE(wait_until([&] { return log.count("req header, ") == running; }));
            } else {
                EXPECT_TRUE(server.wait_for_requests(running));
            }
            std::atomic<bool> stopped{false};
            std::thread stopper;
            if (close) {
                for (auto& session : silent) {
                    EXPECT_EQ(code::closing, session->close());
                }
                transfer next(other.url(), row.method);
                EXPECT_EQ(0u, next.run());
            } else {
                stopper = std::thread([&] {
                    lib.shutdown();
                    stopped = true;
                });
                EXPECT_TRUE(wait_until([&] { return stopped.load(); }));
                stopper.join();
                lib.startup();  // a session is released while the library runs
            }
            for (auto& session : silent) {
                EXPECT_EQ(close ? 0 : 1, session->completions());
                EXPECT_TRUE(close || session->wait() == code::cancel);
            }
            EXPECT_TRUE(wait_until([&] {
                return log.count("_check_session_cancel_and_notify, session canceled") == running;
            }));
        }
    }
}

// Holds back the last log line of each completion.
std::atomic<bool> stop_begun{false}, held_back{true};
std::atomic<int> completing{0};

void hold_completions(std::int32_t, const char*, const char* text) {
    std::string line = text;
    stop_begun = stop_begun || line == "uninit_flow_start";
    if (line.rfind("perf stat", 0) == 0 && stop_begun) {
        completing++;
        wait_until([] { return !held_back; });
    }
}

// What the library is too late to release is not silenced either.
TEST(Close, RefusedByAStopLeavesTheCompletion) {
    library lib;
    scripted_server server(script{expect_request(), stall()});
    scripted_server quick(reply_with(response(200, "x")));
    transfer first(quick.url());
    std::vector<std::unique_ptr<transfer>> late;  // one for each worker
    std::atomic<bool> inside{false};
    first.at("complete", [&](transfer&) {
        inside = true;
        EXPECT_TRUE(server.wait_for_requests(4)) << "they run without the task manager";
    });
    EXPECT_EQ(0u, first.send());
    EXPECT_TRUE(wait_until([&] { return inside.load(); }));
    tavHTTPSetLogCallback(hold_completions);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { lib.shutdown(); });
    EXPECT_TRUE(wait_until([] { return stop_begun.load(); }));
    for (int i = 0; i < 4; i++) {
        late.push_back(std::make_unique<transfer>(server.url()));
        EXPECT_EQ(0u, late.back()->send());
    }
    EXPECT_TRUE(wait_until([] { return completing == 4; }));
    std::atomic<bool> done{false};
    std::atomic<int> closers{0};
    for (auto& session : late) {
        threads.emplace_back([&done, &closers, handle = session->handle()] {
            closers++;
            std::uint32_t accepted = 0;
            while (!done) {
                accepted |= tavHTTPClose(handle);
            }
            EXPECT_EQ(0u, accepted);
        });
    }
    EXPECT_TRUE(wait_until([&] { return closers == 4; }));
    held_back = false;
    threads[0].join();
    done = true;
    for (std::size_t i = 1; i < threads.size(); i++) {
        threads[i].join();
    }
    tavHTTPSetLogCallback(nullptr);
    for (auto& session : late) {
        EXPECT_EQ(1, session->completions());
    }
    lib.startup();
}

}  // namespace
