// The loop thread: start and stop, and the ways to run a call on it.
#include <gtest/gtest.h>
#include <malloc.h>
#include <uv.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "tavhttpclient/httpinit.h"
#include "tavhttpclient/loop.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

struct recorded_call {
    int thread;
    int number;
};

std::mutex recorded_mutex;
std::vector<recorded_call> recorded;
std::atomic<int> wrong_thread{0};

void record_call(void* argument) {
    if (!is_loop_thread()) {
        wrong_thread++;
    }
    auto* call = static_cast<recorded_call*>(argument);
    std::lock_guard<std::mutex> lock(recorded_mutex);
    recorded.push_back(*call);
    delete call;
}

std::size_t recorded_count() {
    std::lock_guard<std::mutex> lock(recorded_mutex);
    return recorded.size();
}

TEST(Loop, EveryThreadsCallsRunOnceInTheirOrderOnTheLoopThread) {
    library lib;
    constexpr int threads = 10, calls = 2000;
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; t++) {
        producers.emplace_back([t] {
            for (int i = 0; i < calls; i++) {
                ASSERT_TRUE(async_run_safe(record_call, new recorded_call{t, i}));
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(wait_until([] { return recorded_count() == threads * calls; }));
    EXPECT_EQ(0, wrong_thread);
    std::vector<int> next(threads, 0);
    for (const recorded_call& call : recorded) {
        ASSERT_EQ(next[static_cast<std::size_t>(call.thread)]++, call.number);
    }
}

std::atomic<int> nested_runs{0};

void run_nested(void* argument) {
    nested_runs++;
    if (argument != nullptr) {
        // From inside a queued call, both ways of queueing.
        EXPECT_TRUE(async_run_safe(run_nested, nullptr));
        EXPECT_TRUE(async_run(run_nested, nullptr));
        EXPECT_EQ(1, nested_runs) << "a deferred call ran inside the call that queued it";
    }
}

TEST(Loop, ACallMayQueueFurtherCalls) {
    nested_runs = 0;
    library lib;
    int some = 0;
    ASSERT_TRUE(async_run_safe(run_nested, &some));
    EXPECT_TRUE(wait_until([] { return nested_runs == 3; }));
}

struct call_chain {
    std::atomic<int> runs{0};
    std::atomic<bool> stop{false};
    int backend_timeout = 0;
};

void run_chain(void* argument) {
    auto* chain = static_cast<call_chain*>(argument);
    chain->runs++;
    if (!chain->stop) {
        EXPECT_TRUE(async_run(run_chain, chain));
    }
}

TEST(Loop, DeferredCallsKeepTheirOrderAndLetOthersThrough) {
    library lib;
    call_chain chain;
    constexpr int calls = 100;
    recorded.clear();
    ASSERT_TRUE(async_run_safe(run_chain, &chain));
    ASSERT_TRUE(on_loop([] {
        for (int i = 0; i < calls; i++) {
            EXPECT_TRUE(async_run(record_call, new recorded_call{0, i}));
        }
        EXPECT_EQ(0u, recorded_count());
    })) << "a chain of deferred calls must not hold up calls of other threads";
    ASSERT_TRUE(wait_until([] { return recorded_count() == calls; }));
    for (int i = 0; i < calls; i++) {
        EXPECT_EQ(i, recorded[static_cast<std::size_t>(i)].number);
    }
    // Nor other handles.
    scripted_server server([](const received_request&) { return response(200, "x"); });
    transfer get(server.url());
    EXPECT_EQ(0u, get.run());

    chain.stop = true;
    EXPECT_TRUE(wait_until([&chain] {
        on_loop([&chain] { chain.backend_timeout = uv_backend_timeout(get_uv_loop()); });
        return chain.backend_timeout != 0;
    })) << "a loop without deferred calls sleeps";
}

TEST(Loop, TheLoopIsForItsOwnThreadOnly) {
    log_capture log;
    EXPECT_EQ(nullptr, get_uv_loop());
    EXPECT_FALSE(log.has_line("assert fail")) << "without a loop there is nothing to protect";
    EXPECT_FALSE(async_run_safe(run_nested, nullptr));
    library lib;
    EXPECT_FALSE(is_loop_thread());
    EXPECT_EQ(nullptr, get_uv_loop());
    EXPECT_TRUE(log.has_line("function=get_uv_loop", 1000));
    EXPECT_FALSE(async_run(run_nested, nullptr));
    EXPECT_TRUE(log.has_line("function=async_run", 1000));
}

TEST(Loop, StartsAndStopsAreCounted) {
    log_capture log;
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_FALSE(log.has_line("stop_event_loop start"));
    EXPECT_EQ(0u, tavHTTPShutdown());
    for (const char* line :
         {"stop_event_loop start", "uninit_flow_start",
          "_start_stop_task_mgr, idle, notify result.", "_stop_task_mgr_callback",
          "_uninit_flow_finish, we will stop the loop now",
          "loop_thread, thread exits, ret=", "stop_event_loop ok."}) {
        EXPECT_TRUE(log.has_line(line, 2000)) << line;
    }

    // One shut-down too many is kept in the count: the next start only makes up for it.
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_TRUE(log.has_line("function=tavHTTPShutdown", 1000));
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_FALSE(async_run_safe(run_nested, nullptr));
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_TRUE(async_run_safe(run_nested, nullptr));
    EXPECT_EQ(0u, tavHTTPShutdown());
}

void shut_down_here(void* done) {
    tavHTTPShutdown();
    *static_cast<std::atomic<bool>*>(done) = true;
}

TEST(Loop, AStopOnTheLoopThreadIsRefused) {
    nested_runs = 0;
    log_capture log;
    ASSERT_EQ(0u, tavHTTPStartup());
    std::atomic<bool> done{false};
    ASSERT_TRUE(async_run_safe(shut_down_here, &done));
    ASSERT_TRUE(wait_until([&] { return done.load(); }));
    EXPECT_TRUE(log.has_line("function=stop_event_loop", 1000));
    done = false;
    EXPECT_TRUE(async_run_safe(run_nested, nullptr)) << "the loop must keep running";
    EXPECT_TRUE(wait_until([] { return nested_runs == 1; }));
    ASSERT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_TRUE(log.has_line("stop_event_loop ok."));
}

std::size_t bytes_in_use() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks;
}

TEST(Loop, AThousandRestartsLeaveNothingOpen) {
    descriptor_guard descriptors;
    scripted_server server([](const received_request&) { return response(200, "x"); });
    std::size_t early = 0;
    for (int i = 0; i < 1000; i++) {
        library lib;
        if (i % 50 == 0) {
            transfer get(server.url());
            EXPECT_EQ(0u, get.run());
        }
        if (i == 100) {
            early = bytes_in_use();
        }
    }
    EXPECT_TRUE(server.wait_for_disconnects(20)) << "idle connections end with the loop";
    // One leaked record of a hundred bytes per restart would be 90 kB.
    EXPECT_LT(bytes_in_use(), early + 45000);
}

TEST(Settings, NeedAStartAndEndWithTheLoop) {
    work_dir dir;
    log_capture log;
    proxy_info proxy = {
        TAV_HTTP_PROXY_HTTP, const_cast<char*>("h"), 8080, nullptr, nullptr, nullptr};
    EXPECT_EQ(static_cast<uint32_t>(TAV_HTTP_ERROR_CODE_NOT_INITIALIZED),
              tavHTTPSetDefaultProxy(&proxy));
    EXPECT_TRUE(log.has_line("tavHTTPSetDefaultProxy, type=1, host=h, port=8080", 2000));
    EXPECT_TRUE(log.has_line("assert fail", 1000));
    EXPECT_EQ(static_cast<uint32_t>(TAV_HTTP_ERROR_CODE_NOT_INITIALIZED),
              tavHTTPSetDownloadDirectory("d"));
    EXPECT_EQ(static_cast<uint32_t>(TAV_HTTP_ERROR_CODE_NOT_INITIALIZED), tavHTTPSetUseThirdLSP(1));
    {
        library lib;
        EXPECT_EQ(0u, tavHTTPSetDefaultProxy(&proxy));
        EXPECT_EQ(0u, tavHTTPSetUseThirdLSP(1));
        EXPECT_TRUE(get_use_third_lsp());
        proxy_info* copy = get_default_proxy_copy();
        ASSERT_NE(nullptr, copy);
        EXPECT_STREQ("h", copy->host);
        EXPECT_NE(proxy.host, copy->host);
        // A record that shares its texts with nothing of ours replaces itself safely.
        EXPECT_EQ(0u, tavHTTPSetDefaultProxy(copy));
        free_proxy_info(copy);
    }
    library again;
    EXPECT_EQ(nullptr, get_default_proxy_copy());
    EXPECT_FALSE(get_use_third_lsp());
}

TEST(Settings, DownloadDirectory) {
    work_dir dir;
    char buffer[64] = "unchanged";
    int32_t length = 64;
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, &length));
    EXPECT_EQ(1, length);
    EXPECT_STREQ("", buffer);

    library lib;
    EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("data\\dl/sub"));
    length = 4;
    buffer[0] = '!';
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, &length));
    EXPECT_EQ(13, length) << "the needed size, though nothing was copied";
    EXPECT_EQ('!', buffer[0]);
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, &length));
    EXPECT_STREQ("data/dl/sub/", buffer);
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(nullptr, &length));
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, nullptr));
    EXPECT_EQ(13, length);

    // A file stands in the way: the directory set before is gone as well.
    write_file("file", "x");
    EXPECT_EQ(static_cast<uint32_t>(TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY),
              tavHTTPSetDownloadDirectory("file"));
    length = 64;
    tavHTTPGetDownloadDirectory(buffer, &length);
    EXPECT_EQ(1, length);
}

TEST(Settings, ConfigurationNumbers) {
    const struct {
        uint32_t given, stored;
    } rows[] = {{0, 6}, {1, 3}, {3, 3}, {9, 9}, {100, 9}, {0xFFFFFFFFu, 9}};
    for (const auto& row : rows) {
        EXPECT_EQ(0, tavHTTPSetConfig(1, row.given));
        EXPECT_EQ(row.stored, config_max_running_count()) << row.given;
    }
    EXPECT_EQ(0, tavHTTPSetConfig(2, 17));
    { library lib; }
    EXPECT_EQ(17u, config_keep_alive_max_requests()) << "a restart does not reset the numbers";
    EXPECT_EQ(-1, tavHTTPSetConfig(0, 1));
    EXPECT_EQ(-1, tavHTTPSetConfig(3, 1));
}

TEST(ErrorCodes, NamesAndGaps) {
    EXPECT_STREQ("TAV_HTTP_ERROR_CODE_OK", error_code_name(0));
    EXPECT_STREQ("TAV_HTTP_ERROR_CODE_FAIL_OTHER", error_code_name(0x100FF));
    EXPECT_STREQ("TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT", error_code_name(0x80011));
    EXPECT_STREQ("TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE", error_code_name(0x100006));
    for (uint32_t unnamed : {0x4u, 0x20007u, 0x4000Au, 0x8000Au, 0x80010u, 0x80016u, 0xFFFFFFFFu}) {
        EXPECT_STREQ("TAV_HTTP_ERROR_CODE_UNKNOWN", error_code_name(unnamed)) << unnamed;
    }
}

}  // namespace
