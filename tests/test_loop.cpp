// The loop thread: start and stop, and the ways to run a call on it.
#include <gtest/gtest.h>
#include <malloc.h>
#include <uv.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

// On the loop thread only, or behind a call that ran there.
std::vector<std::pair<int, int>> recorded;  // thread and number

void record_call(void* argument) {
    EXPECT_TRUE(is_loop_thread());
    auto* call = static_cast<std::pair<int, int>*>(argument);
    recorded.push_back(*call);
    delete call;
}

TEST(Loop, EveryThreadsCallsRunOnceInTheirOrderOnTheLoopThread) {
    library lib;
    std::vector<std::thread> producers;
    for (int t = 0; t < 10; t++) {
        producers.emplace_back([t] {
            for (int i = 0; i < 2000; i++) {
                ASSERT_TRUE(async_run_safe(record_call, new std::pair<int, int>(t, i)));
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    on_loop([] {});
    ASSERT_EQ(20000u, recorded.size());
    std::vector<int> next(10, 0);
    for (const auto& call : recorded) {
        ASSERT_EQ(next[static_cast<std::size_t>(call.first)]++, call.second);
    }
}

void do_nothing(void*) {
}

void run_chain(void* stop) {
    if (!*static_cast<std::atomic<bool>*>(stop)) {
        EXPECT_TRUE(async_run(run_chain, stop));
    }
}

TEST(Loop, DeferredCallsKeepTheirOrderAndLetOthersThrough) {
    std::atomic<bool> stop{false};
    library lib;
    recorded.clear();
    ASSERT_TRUE(async_run_safe(run_chain, &stop));
    ASSERT_TRUE(on_loop([] {
        for (int i = 0; i < 100; i++) {
            EXPECT_TRUE(async_run(record_call, new std::pair<int, int>(0, i)));
        }
        EXPECT_EQ(0u, recorded.size()) << "a deferred call ran inside the call that queued it";
    })) << "a chain of deferred calls must not hold up calls of other threads";
    std::size_t count = 0;
    ASSERT_TRUE(wait_until([&] {
        on_loop([&] { count = recorded.size(); });
        return count == 100;
    }));
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(i, recorded[static_cast<std::size_t>(i)].second);
    }
    // Nor other handles.
    scripted_server server([](const received_request&) { return response(200, "x"); });
    transfer get(server.url());
    EXPECT_EQ(0u, get.run());

    stop = true;
    uv_prepare_t prepare;
    std::atomic<int> polls{0};
    prepare.data = &polls;
    on_loop([&prepare] {
        uv_prepare_init(get_uv_loop(), &prepare);
        uv_prepare_start(&prepare,
                         [](uv_prepare_t* own) { (*static_cast<std::atomic<int>*>(own->data))++; });
    });
    EXPECT_TRUE(wait_until([&polls] {
        int before = polls;
        std::this_thread::sleep_for(milliseconds(5));
        return polls - before < 3;
    })) << "a loop without deferred calls sleeps";
    on_loop([&prepare] { uv_close(reinterpret_cast<uv_handle_t*>(&prepare), nullptr); });
    on_loop([] {});  // The handle is on this stack.
}

TEST(Loop, TheLoopIsForItsOwnThreadOnly) {
    log_capture log;
    EXPECT_EQ(nullptr, get_uv_loop());
    EXPECT_FALSE(log.has_line("assert fail")) << "without a loop there is nothing to protect";
    EXPECT_FALSE(async_run_safe(do_nothing, nullptr));
    library lib;
    EXPECT_FALSE(is_loop_thread());
    EXPECT_EQ(nullptr, get_uv_loop());
    EXPECT_TRUE(log.has_line("function=get_uv_loop", 1000));
    EXPECT_FALSE(async_run(do_nothing, nullptr));
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
         {"uninit_flow_start", "_start_stop_task_mgr, idle, notify result.",
          "_stop_task_mgr_callback", "_uninit_flow_finish, we will stop the loop now",
          "loop_thread, thread exits, ret=", "stop_event_loop ok."}) {
        EXPECT_TRUE(log.has_line(line, 2000)) << line;
    }

    // One shut-down too many is kept in the count: the next start only makes up for it.
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_TRUE(log.has_line("function=tavHTTPShutdown", 1000));
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_FALSE(async_run_safe(do_nothing, nullptr));
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_TRUE(async_run_safe(do_nothing, nullptr));
    EXPECT_EQ(0u, tavHTTPShutdown());
}

TEST(Loop, AStopOnTheLoopThreadIsRefused) {
    log_capture log;
    ASSERT_EQ(0u, tavHTTPStartup());
    on_loop([] { tavHTTPShutdown(); });
    EXPECT_TRUE(log.has_line("function=stop_event_loop", 1000));
    EXPECT_TRUE(on_loop([] {})) << "the loop must keep running";
    ASSERT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_TRUE(log.has_line("stop_event_loop ok."));
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
        early = i == 100 ? mallinfo2().uordblks : early;
    }
    EXPECT_TRUE(server.wait_for_disconnects(20)) << "idle connections end with the loop";
    // One leaked record of a hundred bytes per restart would be 90 kB.
    EXPECT_LT(mallinfo2().uordblks, early + 45000);
}

const std::uint32_t not_started = TAV_HTTP_ERROR_CODE_NOT_INITIALIZED;

TEST(Settings, NeedAStartAndEndWithTheLoop) {
    log_capture log;
    char host[] = "h";
    proxy_info proxy = {TAV_HTTP_PROXY_HTTP, host, 8080, nullptr, nullptr, nullptr};
    EXPECT_EQ(not_started, tavHTTPSetDefaultProxy(&proxy));
    EXPECT_TRUE(log.has_line("tavHTTPSetDefaultProxy, type=1, host=h, port=8080", 2000));
    EXPECT_TRUE(log.has_line("assert fail", 1000));
    EXPECT_EQ(not_started, tavHTTPSetDownloadDirectory("d"));
    EXPECT_EQ(not_started, tavHTTPSetUseThirdLSP(1));
    {
        library lib;
        EXPECT_EQ(0u, tavHTTPSetDefaultProxy(&proxy));
        EXPECT_EQ(0u, tavHTTPSetUseThirdLSP(1));
        EXPECT_TRUE(get_use_third_lsp());
        host[0] = 'X';
        proxy_info* copy = get_default_proxy_copy();
        EXPECT_STREQ("h", copy->host);
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
    for (int32_t given : {4, 13}) {
        strcpy(buffer, "!");
        length = given;
        EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, &length));
        EXPECT_EQ(13, length) << "the needed size, also when nothing was copied";
        EXPECT_STREQ(given == 4 ? "!" : "data/dl/sub/", buffer);
    }
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(nullptr, &length));
    EXPECT_EQ(0x100FFu, tavHTTPGetDownloadDirectory(buffer, nullptr));

    // A file stands in the way: the directory set before is gone as well.
    write_file("file", "x");
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY},
              tavHTTPSetDownloadDirectory("file"));
    tavHTTPGetDownloadDirectory(buffer, &length);
    EXPECT_EQ(1, length);
}

TEST(Settings, ConfigurationNumbers) {
    const struct {
        uint32_t given, stored;
    } rows[] = {{0, 6}, {1, 3}, {3, 3}, {9, 9}, {0xFFFFFFFFu, 9}};
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
    EXPECT_STREQ("TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE", error_code_name(0x100006));
    for (uint32_t unnamed : {0x4u, 0x8000Au, 0xFFFFFFFFu}) {
        EXPECT_STREQ("TAV_HTTP_ERROR_CODE_UNKNOWN", error_code_name(unnamed)) << unnamed;
    }
}

}  // namespace
