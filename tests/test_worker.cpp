// Steps on the worker pool: none is lost, kept waiting or run twice, however the two sides sleep.
#include <gtest/gtest.h>
#include <uv.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "tavhttpclient/loop.h"
#include "tavhttpclient/worker.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

constexpr int pool_size = 4;

struct test_step {
    worker_step step;
    std::function<void()> work;
    std::function<void()> after;
};

void run_work(worker_step* step) {
    EXPECT_FALSE(is_loop_thread());
    static_cast<test_step*>(step->data)->work();
}

void run_after(worker_step* step, int status) {
    EXPECT_TRUE(is_loop_thread());
    EXPECT_EQ(0, status);
    std::unique_ptr<test_step> own(static_cast<test_step*>(step->data));
    own->after();
}

// Loop thread.
void queue_step(std::function<void()> work, std::function<void()> after) {
    auto* own = new test_step{{}, std::move(work), std::move(after)};
    own->step.data = own;
    EXPECT_EQ(0, queue_worker_step(&own->step, run_work, run_after));
}

TEST(Worker, EveryStepRunsOnceInTheOrderOfTheQueue) {
    library lib;
    constexpr int count = 5000;
    std::atomic<int> ended{0};
    std::vector<std::atomic<int>> runs(count);
    std::atomic<int> overtaken{0};
    on_loop([&] {
        for (int i = 0; i < count; i++) {
            queue_step(
                [&, i] {
                    thread_local int last = -1;  // Each worker takes the first that waits.
                    overtaken += i < last ? 1 : 0;
                    last = i;
                    runs[static_cast<std::size_t>(i)]++;
                },
                [&] { ended++; });
        }
    });
    ASSERT_TRUE(wait_until([&] { return ended == count; }));
    EXPECT_EQ(0, overtaken);
    for (const std::atomic<int>& run : runs) {
        EXPECT_EQ(1, run);
    }
}

// Each link of a chain is queued when both sides have had time to fall asleep, or none at all.
TEST(Worker, NoHandOverIsMissedWhileASideFallsAsleep) {
    library lib;
    constexpr int links = 3000;
    std::promise<void> done;
    std::function<void(int)> link = [&](int left) {
        queue_step(
            [left] {
                for (std::uint64_t end = uv_hrtime() + static_cast<unsigned>(left % 97) * 2000u;
                     uv_hrtime() < end;) {
                }
            },
            [&, left] { left > 0 ? link(left - 1) : done.set_value(); });
    };
    on_loop([&] { link(links); });
    EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(30)));
    // The same from outside: each call comes while the loop thread is about to sleep.
    for (int i = 0; i < 3000; i++) {
        bool ran = false;
        ASSERT_TRUE(on_loop([&] { ran = true; }));
        ASSERT_TRUE(ran);
    }
}

TEST(Worker, ABlockedStepHoldsUpNoOtherWhileThePoolHasAThread) {
    library lib;
    std::promise<void> gate;
    std::shared_future<void> open = gate.get_future().share();
    std::atomic<int> blocked{0};
    std::atomic<int> ended{0};
    // One after the other, and from a worker that has just done something.
    for (int i = 0; i < pool_size - 1; i++) {
        on_loop([&] {
            queue_step([] {},
                       [&] {
                           queue_step([&] { blocked++, open.wait(); }, [&] { ended++; });
                           queue_step([] {}, [&] { ended++; });
                       });
        });
        ASSERT_TRUE(wait_until([&] { return blocked == i + 1 && ended == i + 1; }));
    }
    for (int i = 0; i < 200; i++) {
        on_loop([&] { queue_step([] {}, [&] { ended++; }); });
        ASSERT_TRUE(wait_until([&] { return ended == pool_size + i; }));
    }
    gate.set_value();
    ASSERT_TRUE(wait_until([&] { return ended == 2 * (pool_size - 1) + 200; }));
}

// Steps that never end keep all threads busy; what others give to the pool gets its turn.
TEST(Worker, OtherUsersOfThePoolGetTheirTurn) {
    library lib;
    std::atomic<bool> stop{false};
    std::atomic<int> running{0};
    std::function<void()> again = [&] {
        if (stop) {
            running--;
            return;
        }
        queue_step(
            [] {
                for (std::uint64_t end = uv_hrtime() + 200 * 1000; uv_hrtime() < end;) {
                }
            },
            again);
    };
    on_loop([&] {
        for (running = 0; running < 3 * pool_size; running++) {
            again();
        }
    });
    uv_loop_t other;
    uv_loop_init(&other);
    uv_work_t request;
    bool ran = false;
    request.data = &ran;
    uv_queue_work(
        &other, &request, [](uv_work_t* own) { *static_cast<bool*>(own->data) = true; }, nullptr);
    uv_run(&other, UV_RUN_DEFAULT);
    uv_loop_close(&other);
    EXPECT_TRUE(ran);
    EXPECT_EQ(3 * pool_size, running);
    stop = true;
    ASSERT_TRUE(wait_until([&] { return running == 0; }));
}

TEST(Worker, TheStopWaitsForStepsThatNobodyWaitsFor) {
    for (int i = 0; i < 200; i++) {
        std::atomic<int> ended{0};
        {
            library lib;
            on_loop([&] {
                for (int k = 0; k < i % 7; k++) {
                    queue_step([] {}, [&] { ended++; });
                }
            });
        }
        ASSERT_EQ(i % 7, ended);
    }
}

}  // namespace
