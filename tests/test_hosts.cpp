// What hosts do to a library: calls inside callbacks, closes and stops at any time, many sessions
// at once. And which of those run when: kinds, priorities, the limit, the order.
#include <gtest/gtest.h>

#include "support/inside.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/taskmgr.h"

namespace {

// A session without a transfer around it, and how often it was reported.
struct bare_session {
    std::atomic<int> ends{0};
    http_session* handle = nullptr;
};

void count_end(http_session*, void* user_data, std::uint32_t) {
    static_cast<bare_session*>(user_data)->ends++;
}

// Answers when released, so that sessions keep running.
script hold() {
    return {expect_request(), stall(), send_text(response(200, "x", "Connection: close\r\n")),
            close_now()};
}

// ----------------------------------------------------------------------------- inside callbacks

// The whole interface but start and stop.
void call_everything(transfer& self, peer& other, bare_session& side) {
    char directory[256];
    std::int32_t length = sizeof directory;
    for (std::uint32_t query = 0; query < 30; query++) {
        char first[4096] = "Content-Length", second[8192] = "";
        std::int32_t size = sizeof first, room = sizeof second;
        bool is_raw = query == TAV_HTTP_QUERY_RAW_HEADERS;
        tavHTTPQueryInfo(self.handle(), query, first, is_raw ? static_cast<void*>(&size) : second,
                         &room);
    }
    EXPECT_EQ("INVALID_ARG", self.send()) << "sent already";
    EXPECT_EQ(0, tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0));
    EXPECT_EQ(0u, tavHTTPSetDefaultProxy(nullptr));
    EXPECT_EQ(0u, tavHTTPSetUseThirdLSP(0));
    EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
    EXPECT_EQ("FAIL_OTHER", code_name(tavHTTPGetDownloadDirectory(directory, &length)));
    http_session* unsent = tavHTTPOpen(1, "http://127.0.0.1/", nullptr, nullptr, count_end);
    EXPECT_EQ("FAIL_START_ASYNC", code_name(tavHTTPClose(unsent)));
    side.handle = tavHTTPOpen(1, other.url().c_str(), nullptr, &side, count_end);
    EXPECT_EQ(0u, tavHTTPSetOption(side.handle, TAV_HTTP_OPTION_USER_AGENT, "side"));
    EXPECT_EQ(0u, tavHTTPSendRequest(side.handle));
}

TEST(InsideCallbacks, EveryFunctionMayBeCalled) {
    const std::string body = sample_bytes(100000);
    work_dir dir;
    library lib;
    for (const char* name : {"connecting", "connected", "progress", "redirect", "header", "start",
                             "data", "complete"}) {
        SCOPED_TRACE(name);
        peer server(std::vector<script>{reply_with(response(302, "", "Location: /2\r\n")),
                                        reply_with(response(200, body))});
        peer other(always(response(200, "side")));
        bare_session side;
        std::atomic<bool> called{false};
        transfer get(server.url("/1"));
        get.record_data();
        get.at(name, [&](transfer& self) {
            if (!called.exchange(true)) {
                call_everything(self, other, side);
            }
        });
        EXPECT_EQ("OK", get.run());
        EXPECT_TRUE(called);
        EXPECT_TRUE(body == get.data());
        EXPECT_TRUE(wait_until([&] { return side.ends == 1; })) << "the session sent inside";
        EXPECT_EQ("FAIL_START_ASYNC", code_name(tavHTTPClose(side.handle)));
    }
}

TEST(InsideCallbacks, ACompletionMayCloseItsSessionAndSendTheNext) {
    library lib;
    peer server(always(response(200, "x")));
    transfers chain;
    for (std::size_t i = 0; i < 20; i++) {
        chain.push_back(std::make_unique<transfer>(server.url()));
        chain[i]->at("complete", [&, i](transfer& self) {
            EXPECT_EQ("x", self.body());
            EXPECT_EQ("OK", self.cancel()) << "harmless by now";
            EXPECT_EQ("FAIL_START_ASYNC", self.close());
            EXPECT_TRUE(i + 1 == chain.size() || chain[i + 1]->send() == "OK");
        });
    }
    EXPECT_EQ("OK", chain[0]->send());
    for (auto& one : chain) {
        EXPECT_EQ("OK", one->wait());
    }
}

std::atomic<int> log_calls{0};

// A host that uses the library for its log lines, on whatever thread they come.
void busy_log(std::int32_t, const char*, const char*) {
    static thread_local bool inside = false;
    if (!inside) {
        inside = true;
        char directory[256];
        std::int32_t length = sizeof directory;
        tavHTTPGetDownloadDirectory(directory, &length);
        tavHTTPSetDefaultProxy(nullptr);
        tavHTTPSetConfig(TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS, 0);
        log_calls++;
        inside = false;
    }
}

TEST(InsideCallbacks, TheLogMayUseTheSettings) {
    tavHTTPSetLogCallback(busy_log);
    library lib;
    work_dir dir;
    write_file("taken", "");
    tavHTTPSetDownloadDirectory("taken/sub");  // fails with a log line of its own
    peer server(always(response(200, "x", "Set-Cookie: a=b\r\nSet-Cookie: c\r\n")));
    for (int i = 0; i < 5; i++) {
        transfer get(server.url());
        get.record();
        EXPECT_EQ("OK", get.run());
    }
    EXPECT_LT(50, log_calls);
    watch_assertions();
}

// ------------------------------------------------------------------------------- close and stop

// A callback that runs while the close is called may still be running behind it; none begins.
TEST(Close, IsTheEndOfCallbacks) {
    library lib;
    peer server([](const received_request& request) {
        return request.target == "/r" ? response(302, "", "Location: /x\r\n")
                                      : response(200, sample_bytes(50000));
    });
    transfers all;
    std::vector<std::size_t> events_at_close;
    std::size_t late = 0;
    for (std::size_t i = 0; i < 200; i++) {
        all.push_back(std::make_unique<transfer>(server.url(i % 2 == 0 ? "/r" : "/x")));
        transfer& get = *all.back();
        get.record();
        get.record_data();
        get.send();
        // Closed behind a different number of callbacks each.
        wait_until([&] { return get.events().size() >= i % 9 || get.completed(); });
        get.close();
        events_at_close.push_back(get.events().size());
    }
    lib.shutdown();
    for (std::size_t i = 0; i < all.size(); i++) {
        std::size_t behind = all[i]->events().size() - events_at_close[i];
        late += behind;
        EXPECT_LE(behind, 1u) << all[i]->event_names();
    }
    EXPECT_LT(late, all.size() / 4) << "one that had begun and was not yet seen is rare";
}

TEST(Stop, EndsQueuedAndRunningSessionsOnce) {
    library lib;
    log_capture log;
    peer server(script{expect_request()});
    transfers all;
    for (std::uint32_t i = 0; i < 40; i++) {
        all.push_back(std::make_unique<transfer>(server.url(), 1 + i % 2));
        all.back()->set(TAV_HTTP_OPTION_PRIORITY, i % 3 == 0 ? 100 : 1000);
        EXPECT_EQ("OK", all.back()->send());
    }
    EXPECT_TRUE(server.wait_for_requests(12)) << "six downloads and six uploads";
    lib.shutdown();
    for (auto& session : all) {
        EXPECT_EQ(1, session->completions());
        EXPECT_EQ("CANCEL", session->wait());
        EXPECT_EQ("OK", session->close()) << "kept while nothing runs";
    }
    EXPECT_EQ(12u, server.connection_count());
    EXPECT_EQ(1u, log.count("task mgr, stop ok, tick="));
    lib.startup();
    peer quick(always(response(200, "x")));
    transfer get(quick.url());
    EXPECT_EQ("OK", get.run());
}

TEST(Stop, WithoutATaskManagerIsAnAssertion) {
    allow_assertion("start_stop_default_task_mgr");
    log_capture log;
    EXPECT_FALSE(start_stop_default_task_mgr(nullptr));
    EXPECT_EQ(1u, log.count("function=start_stop_default_task_mgr", 1000));
}

TEST(TimeOut, ACancelBehindItIsACancel) {
    library lib;
    log_capture log;
    peer server(reply_with(response(200, "x")));
    for (bool cancels : {false, true}) {
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 500);
        std::size_t before = log.count("_on_session_timeout, id=");
        get.at("header", [&](transfer& self) {
            EXPECT_TRUE(log.wait_for_line("_on_session_timeout, id=", before + 1));
            on_loop([] {});  // the flags are set right behind the line
            EXPECT_TRUE(!cancels || self.cancel() == "OK");
        });
        EXPECT_EQ(cancels ? "CANCEL" : "SESSION_TIMEOUT", get.run());
    }
}

// Holds back the last log line of each completion behind a stop.
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
TEST(Stop, ACloseThatItRefusesLeavesTheCompletion) {
    stop_begun = false;
    held_back = true;
    completing = 0;
    library lib;
    peer server(expect_request()), quick(always(response(200, "x")));
    transfer first(quick.url());
    transfers late;  // one for each worker
    std::atomic<bool> inside{false}, done{false};
    std::atomic<int> closers{0};
    first.at("complete", [&](transfer&) {
        inside = true;
        EXPECT_TRUE(server.wait_for_requests(4)) << "they run without the task manager";
    });
    EXPECT_EQ("OK", first.send());
    EXPECT_TRUE(wait_until([&] { return inside.load(); }));
    tavHTTPSetLogCallback(hold_completions);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { lib.shutdown(); });
    EXPECT_TRUE(wait_until([] { return stop_begun.load(); }));
    for (int i = 0; i < 4; i++) {
        late.push_back(std::make_unique<transfer>(server.url()));
        EXPECT_EQ("OK", late.back()->send());
    }
    EXPECT_TRUE(wait_until([] { return completing == 4; }));
    for (auto& session : late) {
        threads.emplace_back([&done, &closers, handle = session->handle()] {
            for (closers++; !done;) {
                EXPECT_EQ(0u, tavHTTPClose(handle));
            }
        });
    }
    EXPECT_TRUE(wait_until([&] { return closers == 4; }));
    held_back = false;
    for (std::thread& one : threads) {
        one.join();  // the stop first
        done = true;
    }
    watch_assertions();
    for (auto& session : late) {
        EXPECT_EQ(1, session->completions());
    }
    lib.startup();
}

// ---------------------------------------------------------------------------------- scheduling

std::unique_ptr<transfer> send(peer& server, const std::string& path = "/",
                               std::uint32_t method = 1,
                               std::int32_t priority = TAV_HTTP_PRIORITY_NORMAL,
                               std::uint32_t fifo = 0) {
    auto made = std::make_unique<transfer>(server.url(path), method);
    made->set(TAV_HTTP_OPTION_PRIORITY, priority);
    made->set(TAV_HTTP_OPTION_QUEUE_FIFO, fifo);
    EXPECT_EQ("OK", made->send());
    return made;
}

void expect_success(const transfers& all) {
    for (auto& one : all) {
        EXPECT_EQ("OK", one->wait());
    }
}

TEST(Schedule, SixOfAKindRunAndHighPriorityComesOnTop) {
    library lib;
    log_capture log;
    peer server(hold());
    transfers all;
    for (std::uint32_t i = 0; i < 15; i++) {
        all.push_back(send(server, "/", 1 + i % 2));
    }
    ASSERT_TRUE(server.wait_for_requests(12)) << "uploads have a limit of their own";
    all.push_back(send(server, "/", 1, TAV_HTTP_PRIORITY_LOW));
    all.push_back(send(server, "/", 1, TAV_HTTP_PRIORITY_HIGH));
    ASSERT_TRUE(server.wait_for_requests(13));
    ASSERT_TRUE(log.wait_for_line("_schedule_task:\nmax-running-count=6\n"
                                  "download: running=6, high=1, normal=2, low=1\n"
                                  "upload: running=6, high=0, normal=1, low=0"));
    EXPECT_EQ(13u, server.request_count());
    server.release();
    expect_success(all);
}

TEST(Schedule, WaitingSessionsStartInTheirQueuesOrder) {
    for (std::uint32_t fifo : {0u, 1u}) {
        tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 3);  // taken over by the start
        library lib;
        peer first(hold()), others(hold()), quick(always(response(200, "q")));
        transfers all;
        for (peer* one : {&first, &others, &others}) {
            all.push_back(send(*one));
        }
        ASSERT_TRUE(first.wait_for_requests(1) && others.wait_for_requests(2));
        all.push_back(send(quick, "/low", 1, TAV_HTTP_PRIORITY_LOW, fifo));
        for (const char* name : {"/a", "/b", "/c"}) {
            all.push_back(send(quick, name, 1, TAV_HTTP_PRIORITY_NORMAL, fifo));
        }
        std::unique_ptr<transfer> cancelled = send(quick), closed = send(quick);
        EXPECT_EQ("OK", cancelled->cancel());
        EXPECT_EQ("FAIL_START_ASYNC", closed->close());
        // One slot becomes free and serves the waiting ones, one after the other.
        first.release();
        ASSERT_TRUE(quick.wait_for_requests(4));
        std::string order;
        for (const received_request& one : quick.requests()) {
            order += one.target;
        }
        EXPECT_EQ(fifo != 0 ? "/a/b/c/low" : "/c/b/a/low", order);
        others.release();
        EXPECT_EQ("CANCEL", cancelled->wait());
        expect_success(all);
        EXPECT_EQ(4u, quick.connection_count()) << "cancelled and closed ones connect nowhere";
    }
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0);
}

TEST(Schedule, RunningPriorityYieldsForLargeDownloads) {
    library lib;
    const std::string begin = "HTTP/1.1 200 OK\r\nContent-Length: 200000";
    std::vector<script> scripts(6, reply_with(begin + "0\r\n\r\nbegin"));
    scripts[0] = reply_with(begin + "1\r\n\r\nbegin");
    peer server(scripts);
    transfers all;
    for (std::size_t i = 0; i < 6; i++) {
        all.push_back(send(server));
        ASSERT_TRUE(server.wait_for_requests(i + 1));
    }
    EXPECT_TRUE(wait_until([&] {
        int lowered = 0;
        on_loop([&] {
            for (auto& one : all) {
                lowered += one->handle()->running_priority == TASK_PRIORITY_LOW ? 1 : 0;
            }
        });
        return lowered == 1;
    })) << "one of the six is larger than 2,000,000 bytes";
}

}  // namespace
