// Steps on the worker pool: none is lost, kept waiting or run twice, however the two sides sleep.
#include <gtest/gtest.h>
#include <sched.h>
#include <uv.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "tavhttpclient/loop.h"
#include "tavhttpclient/worker.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

// libuv's, which reads the environment when a step first runs.
constexpr int pool_size = 4;
const int environment = setenv("UV_THREADPOOL_SIZE", "4", 1);

// The threads that are made meanwhile share one processor.
class one_processor {
  public:
    one_processor() {
        sched_getaffinity(0, sizeof all_, &all_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        EXPECT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    }
    ~one_processor() {
        sched_setaffinity(0, sizeof all_, &all_);
    }
    one_processor(const one_processor&) = delete;
    one_processor& operator=(const one_processor&) = delete;

  private:
    cpu_set_t all_;
};

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

void spend(std::uint64_t nanoseconds) {
    for (std::uint64_t end = uv_hrtime() + nanoseconds; uv_hrtime() < end;) {
    }
}

// A noisy machine sleeps now and then for as long as something missed would wait; what is really
// missed is missed each time.
bool one_of_three(const std::function<bool()>& clean_run) {
    return clean_run() || clean_run() || clean_run();
}

// Calls from outside that come at any moment of the way into the poll. One that is missed waits
// for the next timer of the library, about a second.
int calls_missed(int calls) {
    int missed = 0;
    std::atomic<int> ran{0};
    auto count = [](void* number) { (*static_cast<std::atomic<int>*>(number))++; };
    for (int i = 0; i < calls; i++) {
        EXPECT_TRUE(async_run_safe(count, &ran));
        auto has_run = [&] { return ran == i + 1; };
        if (!wait_until(has_run, milliseconds(250))) {
            missed++;
            EXPECT_TRUE(wait_until(has_run)) << i;
        }
        spend(static_cast<unsigned>(i % 50) * 40u);
    }
    return missed;
}

void hand_over_often(int links, int calls) {
    library lib;
    std::promise<void> done;
    // Steps of any length up to the time after which the loop thread sleeps.
    std::function<void(int)> link = [&](int left) {
        queue_step([left] { spend(static_cast<unsigned>(left % 97) * 2000u); },
                   [&, left] { left > 0 ? link(left - 1) : done.set_value(); });
    };
    on_loop([&] { link(links); });
    EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(30)));

    EXPECT_TRUE(one_of_three([&] { return calls_missed(calls) == 0; }));
}

TEST(Worker, NoHandOverIsMissedWhileASideFallsAsleep) {
    hand_over_often(3000, 50000);
}

TEST(Worker, OneProcessorWillDo) {
    one_processor here;
    hand_over_often(300, 1000);
}

// Both within less time than until the next timer of the library, which would look after them too.
bool goes_on_beside_blocked_steps() {
    std::promise<void> gate;
    std::shared_future<void> open = gate.get_future().share();
    std::atomic<int> ended{0};
    auto finish = [&] { ended++; };
    on_loop([&] {
        for (int i = 0; i < pool_size - 1; i++) {
            queue_step([&] { open.wait(); }, finish);
        }
        queue_step([] {}, finish);
    });
    bool step_ran = wait_until([&] { return ended == 1; }, milliseconds(700));

    // Calls from other threads, and what others give to the pool, get their turn on the one thread
    // that is left.
    std::atomic<bool> stop{false};
    std::function<void()> again = [&] {
        stop ? finish() : queue_step([] { spend(100 * 1000); }, again);
    };
    on_loop([&] {
        for (int i = 0; i < 8; i++) {
            again();
        }
    });
    for (int i = 0; i < 100; i++) {
        EXPECT_TRUE(on_loop([] {}));
    }
    uv_loop_t other;
    uv_loop_init(&other);
    uv_work_t request;
    std::atomic<bool> ran{false};
    request.data = &ran;
    uv_queue_work(
        &other, &request,
        [](uv_work_t* own) { *static_cast<std::atomic<bool>*>(own->data) = true; }, nullptr);
    bool other_ran = wait_until([&] { return ran.load(); }, milliseconds(700));
    stop = true;
    gate.set_value();
    EXPECT_TRUE(wait_until([&] { return ended >= pool_size + 8; }));
    uv_run(&other, UV_RUN_DEFAULT);
    uv_loop_close(&other);
    return step_ran && other_ran;
}

TEST(Worker, ABlockedStepHoldsUpNoOtherWhileThePoolHasAThread) {
    library lib;
    EXPECT_TRUE(one_of_three(goes_on_beside_blocked_steps));
}

TEST(Worker, TheStopWaitsForStepsThatNobodyWaitsFor) {
    for (int i = 0; i < 20; i++) {
        std::atomic<int> ended{0};
        {
            library lib;
            on_loop([&] {
                // They take so long that workers leave while others still wait.
                for (int k = 0; k < 2 * pool_size; k++) {
                    queue_step([] { spend(3 * 1000 * 1000); }, [&] { ended++; });
                }
            });
        }
        ASSERT_EQ(2 * pool_size, ended);
    }
}

}  // namespace
