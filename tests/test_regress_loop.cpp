// The loop thread and its workers: what once held up or broke a host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "tavhttpclient/log.h"
#include "tavhttpclient/worker.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

std::atomic<bool> second_ran{false};
std::atomic<int> ended{0};

void wait_for_second(worker_step*) {
    wait_until([] { return second_ran.load(); });
}

void run_second(worker_step*) {
    second_ran = true;
}

void count_end(worker_step*, int) {
    ended++;
}

// A host that waits in its callback for what another session's step does.
void wait_in_log(std::int32_t, const char*, const char* text) {
    if (std::string(text) == "wait") {
        EXPECT_TRUE(wait_until([] { return second_ran.load(); }));
    }
}

TEST(HostCall, NoStepWaitsForALoopThreadThatTheHostBlocks) {
    library lib;
    worker_step steps[2] = {};
    tavHTTPSetLogCallback(wait_in_log);
    // The second step gets a worker anyway when the first of them is slow to come.
    for (int i = 0; i < 20 && !HasFailure(); i++) {
        second_ran = false;
        ended = 0;
        on_loop([&steps] {
            EXPECT_EQ(0, queue_worker_step(&steps[0], wait_for_second, count_end));
            EXPECT_EQ(0, queue_worker_step(&steps[1], run_second, count_end));
            LOG_INFO("wait");
        });
        EXPECT_TRUE(wait_until([] { return ended == 2; }));
    }
    tavHTTPSetLogCallback(nullptr);
}

std::atomic<bool> deferred_ran{false};

// In this loop nothing else would ever end the poll.
TEST(Turn, ThePollDoesNotSleepOverWhatATimerHasQueued) {
    static uv_timer_t timer;
    const loop_modules none = {[] { return true; }, [] {}, [](void*) { return false; },
                               [] { run_loop_turn(); }, [] {}};
    ASSERT_TRUE(run_event_loop(&none));
    on_loop([] {
        uv_timer_init(get_uv_loop(), &timer);
        auto on_due = [](uv_timer_t*) { async_run([](void*) { deferred_ran = true; }, nullptr); };
        uv_timer_start(&timer, on_due, 1, 0);
        uv_sleep(5);  // It is due when the next turn begins.
    });
    EXPECT_TRUE(wait_until([] { return deferred_ran.load(); }));
    on_loop([] { uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr); });
    stop_event_loop();
}

// A daemon's process: what it opens first must not become the library's standard output.
[[noreturn]] void transfer_without_standard_descriptors(const std::string& url) {
    for (int descriptor : {0, 1, 2}) {
        close(descriptor);
    }
    std::uint32_t result = not_completed;
    bool others = true;
    {
        library lib;
        for (int descriptor : {0, 1, 2}) {
            struct stat kind {};
            others = others && fstat(descriptor, &kind) == 0 && S_ISCHR(kind.st_mode);
        }
        printf("to nobody\n");
        fflush(stdout);
        transfer get(url);
        result = get.run();
    }
    _exit(result == 0 && others ? 0 : 1);
}

TEST(StandardDescriptors, AreNotTheLibrarysOwnWhereTheHostHasClosedThem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    scripted_server server([](const received_request&) { return response(200, "x"); });
    EXPECT_EXIT(transfer_without_standard_descriptors(server.url()), testing::ExitedWithCode(0),
                "");
}

}  // namespace
