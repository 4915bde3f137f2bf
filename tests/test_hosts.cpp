// What hosts do to a library: calls inside callbacks, closes and stops at any time, many sessions
// at once. And which of those run when: kinds, priorities, the limit, the order.
#include <gtest/gtest.h>

#include <numeric>

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

// A transfer that succeeds, and leaves nothing behind when it returns.
void fetch_one() {
    peer server(always(response(200, "x")));
    transfer get(server.url());
    EXPECT_EQ("OK", get.run());
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
    const std::size_t count = 50;
    transfers chain;
    for (std::size_t i = 0; i < count; i++) {
        chain.push_back(std::make_unique<transfer>(server.url()));
        chain[i]->at("complete", [&, i](transfer& self) {
            EXPECT_EQ("x", self.body());
            EXPECT_EQ("OK", self.cancel()) << "harmless by now";
            EXPECT_EQ("FAIL_START_ASYNC", self.close());
            if (i + 1 < count) {
                EXPECT_EQ("OK", chain[i + 1]->send());
            }
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
    constexpr std::size_t threads = 4, each = 60;
    transfers all(threads * each);
    std::vector<std::size_t> events_at_close(threads * each);
    library lib;
    peer server([](const received_request& request) {
        return request.target == "/r" ? response(302, "", "Location: /x\r\n")
                                      : response(200, sample_bytes(50000));
    });
    std::vector<std::thread> hosts;
    for (std::size_t thread = 0; thread < threads; thread++) {
        hosts.emplace_back([&, thread] {
            for (std::size_t i = 0; i < each; i++) {
                std::size_t index = thread * each + i;
                all[index] = std::make_unique<transfer>(server.url(i % 2 == 0 ? "/r" : "/x"));
                transfer& get = *all[index];
                get.record();
                get.record_data();
                get.set(TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
                get.send();
                // Closed behind a different number of callbacks each, some cancelled before.
                wait_until([&] { return get.events().size() >= i % 9 || get.completed(); });
                if (i % 4 == 0) {
                    get.cancel();
                }
                get.close();
                events_at_close[index] = get.events().size();
            }
        });
    }
    for (std::thread& host : hosts) {
        host.join();
    }
    lib.shutdown();
    std::size_t late = 0;
    for (std::size_t i = 0; i < all.size(); i++) {
        std::size_t behind = all[i]->events().size() - events_at_close[i];
        late += behind;
        EXPECT_LE(behind, 1u) << all[i]->event_names();
    }
    EXPECT_LT(late, all.size() / 4) << "one that had begun and was not yet seen is rare";
}

// A server that stops reading: what is stuck in a send ends by its time-out, or with its host.
TEST(Close, CancelAndStopAlsoEndAStuckUpload) {
    work_dir dir;
    write_file("upload.bin", sample_bytes(8 << 20));
    for (const std::string how : {"time-out", "cancel", "close", "shut-down"}) {
        SCOPED_TRACE(how);
        log_capture log;
        library lib;
        peer server(script{stall(), close_now()}, {.receive_buffer = 4096});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        post.set(TAV_HTTP_OPTION_IO_TIMEOUT, 100);
        EXPECT_EQ("OK", post.send());
        EXPECT_TRUE(log.wait_for_line("req header, "));
        if (how == "cancel") {
            EXPECT_EQ("OK", post.cancel());
        } else if (how == "close") {
            EXPECT_EQ("FAIL_START_ASYNC", post.close());
            fetch_one();  // the library goes on serving others
            continue;
        } else if (how == "shut-down") {
            lib.shutdown();
            EXPECT_EQ(1, post.completions()) << "told before the shut-down returns";
            EXPECT_EQ("OK", post.close()) << "kept while nothing runs";
            lib.startup();
        }
        EXPECT_EQ(how == "time-out" ? "SEND_TIMEOUT" : "CANCEL", post.wait());
    }
}

TEST(Stop, EndsQueuedAndRunningSessionsOnce) {
    library lib;
    log_capture log;
    peer server(script{expect_request()});
    transfers all;
    for (std::uint32_t i = 0; i < 40; i++) {
        all.push_back(std::make_unique<transfer>(server.url(), 1 + i % 2));
        all.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 200);
        all.back()->set(TAV_HTTP_OPTION_PRIORITY, i % 3 == 0 ? 100 : 1000);
        EXPECT_EQ("OK", all.back()->send());
    }
    EXPECT_TRUE(server.wait_for_requests(12)) << "six downloads and six uploads";
    lib.shutdown();
    for (auto& session : all) {
        EXPECT_EQ(1, session->completions());
        EXPECT_EQ("CANCEL", session->wait());
    }
    EXPECT_EQ(12u, server.connection_count());
    EXPECT_EQ(1u, log.count("task mgr, stop ok, tick="));
    lib.startup();
    fetch_one();
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
        get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 50);
        std::size_t before = log.count("_on_session_timeout, id=");
        get.at("header", [&](transfer& self) {
            EXPECT_TRUE(log.wait_for_line("_on_session_timeout, id=", before + 1));
            on_loop([] {});  // the flags are set right behind the line
            EXPECT_TRUE(!cancels || self.cancel() == "OK");
        });
        EXPECT_EQ(cancels ? "CANCEL" : "SESSION_TIMEOUT", get.run());
    }
}

// Threads of a host that know nothing of each other, and one that starts and stops the library.
struct race {
    peer server{always(response(200, sample_bytes(3000)))};
    std::atomic<bool> finished{false};
    std::atomic<int> stops{0}, accepted{0}, refused{0}, lost{0};
    std::mutex mutex;  // guards what follows
    std::vector<std::unique_ptr<bare_session>> records;

    void play_host(int thread) {
        for (int i = thread; !finished; i++) {
            auto* record = new bare_session;  // callbacks may come until the next stop is over
            {
                std::lock_guard<std::mutex> guard(mutex);
                records.emplace_back(record);
            }
            record->handle = tavHTTPOpen(1, server.url().c_str(), nullptr, record, count_end);
            tavHTTPSetOption(record->handle, TAV_HTTP_OPTION_IO_TIMEOUT, 5000);
            int stops_before = stops;
            bool sent = tavHTTPSendRequest(record->handle) == 0;
            if (i % 3 == 0) {
                tavHTTPCancelRequest(record->handle);
            }
            // Reported, or dropped by a stop that began after the send.
            if (sent && i % 4 != 0 &&
                !wait_until([&] { return record->ends == 1 || stops > stops_before; })) {
                lost++;
            }
            (sent ? accepted : refused)++;
            if (tavHTTPClose(record->handle) != 0) {
                record->handle = nullptr;
            }
        }
    }
};

TEST(Stop, RacesWithManyThreads) {
    allow_assertion("");  // sends beside a stop
    race all;
    std::vector<std::thread> hosts;
    for (int thread = 0; thread < 8; thread++) {
        hosts.emplace_back([&all, thread] { all.play_host(thread); });
    }
    for (int round = 0; round < 25; round++) {
        library lib;
        int before = all.accepted;
        EXPECT_TRUE(wait_until([&] { return all.accepted >= before + 20; }));
        lib.shutdown();
        all.stops++;
        before = all.refused;
        EXPECT_TRUE(wait_until([&] { return all.refused >= before + 4; }));
    }
    all.finished = true;
    for (std::thread& host : hosts) {
        host.join();
    }
    EXPECT_EQ(0, all.lost) << "neither reported nor dropped by a stop";
    library lib;
    for (const auto& record : all.records) {
        EXPECT_LE(record->ends, 1);
        EXPECT_TRUE(record->handle == nullptr || tavHTTPClose(record->handle) != 0);
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
            closers++;
            while (!done) {
                EXPECT_EQ(0u, tavHTTPClose(handle));
            }
        });
    }
    EXPECT_TRUE(wait_until([&] { return closers == 4; }));
    held_back = false;
    threads[0].join();
    done = true;
    for (std::size_t i = 1; i < threads.size(); i++) {
        threads[i].join();
    }
    watch_assertions();
    for (auto& session : late) {
        EXPECT_EQ(1, session->completions());
    }
    lib.startup();
}

// ---------------------------------------------------------------------------------- scheduling

std::unique_ptr<transfer> send(peer& server, const std::string& path, std::uint32_t method = 1,
                               std::int32_t priority = TAV_HTTP_PRIORITY_NORMAL,
                               std::uint32_t fifo = 0) {
    auto made = std::make_unique<transfer>(server.url(path), method);
    made->set(TAV_HTTP_OPTION_PRIORITY, priority);
    made->set(TAV_HTTP_OPTION_QUEUE_FIFO, fifo);
    made->set(TAV_HTTP_OPTION_NO_REUSE, 1u);
    EXPECT_EQ("OK", made->send());
    return made;
}

TEST(Schedule, SixOfAKindRunAndHighPriorityComesOnTop) {
    library lib;
    log_capture log;
    peer server(hold());
    transfers all;
    for (int i = 0; i < 8; i++) {
        all.push_back(send(server, "/"));
    }
    ASSERT_TRUE(server.wait_for_requests(6));
    all.push_back(send(server, "/", 1, TAV_HTTP_PRIORITY_LOW));
    for (int i = 0; i < 7; i++) {
        all.push_back(send(server, "/", TAV_HTTP_METHOD_POST));
    }
    ASSERT_TRUE(server.wait_for_requests(12)) << "uploads have a limit of their own";
    all.push_back(send(server, "/", 1, TAV_HTTP_PRIORITY_HIGH));
    ASSERT_TRUE(server.wait_for_requests(13));
    ASSERT_TRUE(log.wait_for_line("_schedule_task:\nmax-running-count=6\n"
                                  "download: running=6, high=1, normal=2, low=1\n"
                                  "upload: running=6, high=0, normal=1, low=0"));
    EXPECT_EQ(13u, server.request_count());
    server.release();
    for (auto& one : all) {
        EXPECT_EQ("OK", one->wait());
    }
}

TEST(Schedule, WaitingSessionsStartInTheirQueuesOrder) {
    for (std::uint32_t fifo : {0u, 1u}) {
        tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 3);  // taken over by the start
        library lib;
        peer first(hold()), others(hold()), quick(always(response(200, "q")));
        transfers all;
        for (int i = 0; i < 3; i++) {
            all.push_back(send(i == 0 ? first : others, "/hold"));
        }
        ASSERT_TRUE(first.wait_for_requests(1) && others.wait_for_requests(2));
        all.push_back(send(quick, "/low", 1, TAV_HTTP_PRIORITY_LOW, fifo));
        for (const char* name : {"/a", "/b", "/c"}) {
            all.push_back(send(quick, name, 1, TAV_HTTP_PRIORITY_NORMAL, fifo));
        }
        std::unique_ptr<transfer> cancelled = send(quick, "/cancelled");
        std::unique_ptr<transfer> closed = send(quick, "/closed");
        EXPECT_EQ("OK", cancelled->cancel());
        EXPECT_EQ("FAIL_START_ASYNC", closed->close());
        // One slot becomes free and serves the waiting ones, one after the other.
        first.release();
        ASSERT_TRUE(quick.wait_for_requests(4));
        std::vector<received_request> seen = quick.requests();
        EXPECT_EQ(fifo != 0 ? "/a/b/c/low" : "/c/b/a/low",
                  std::accumulate(seen.begin(), seen.end(), std::string(),
                                  [](auto text, const auto& one) { return text + one.target; }));
        others.release();
        EXPECT_EQ("CANCEL", cancelled->wait());
        for (auto& one : all) {
            EXPECT_EQ("OK", one->wait());
        }
        EXPECT_EQ(4u, quick.connection_count()) << "cancelled and closed ones connect nowhere";
    }
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0);
}

TEST(Schedule, RunningPriorityYieldsForLargeDownloads) {
    library lib;
    std::vector<script> scripts;
    for (int i = 0; i < 6; i++) {
        scripts.push_back(reply_with("HTTP/1.1 200 OK\r\nContent-Length: 200000" +
                                     std::to_string(i == 0) + "\r\n\r\nbegin"));
    }
    peer server(scripts);
    transfers all;
    for (std::size_t i = 0; i < 6; i++) {
        all.push_back(send(server, "/"));
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
