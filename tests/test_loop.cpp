// The loop thread and the workers: starts and stops, calls and steps that run once and in order,
// however the two sides sleep; and the settings of the process.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <cstring>
#include <numeric>

#include "support/inside.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/worker.h"

namespace {

struct numbered_call {
    std::vector<int>* order;
    int number;
};

void record_call(void* argument) {
    EXPECT_TRUE(is_loop_thread());
    std::unique_ptr<numbered_call> call(static_cast<numbered_call*>(argument));
    call->order->push_back(call->number);
}

std::vector<int> numbers_below(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

TEST(Loop, EveryThreadsCallsRunOnceInTheirOrder) {
    library lib;
    std::vector<std::vector<int>> orders(10);
    std::vector<std::thread> producers;
    for (std::vector<int>& order : orders) {
        producers.emplace_back([&order] {
            for (int i = 0; i < 2000; i++) {
                ASSERT_TRUE(async_run_safe(record_call, new numbered_call{&order, i}));
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    on_loop([] {});
    EXPECT_EQ(std::vector<std::vector<int>>(10, numbers_below(2000)), orders);
}

void run_chain(void* stop) {
    if (!*static_cast<std::atomic<bool>*>(stop)) {
        EXPECT_TRUE(async_run(run_chain, stop));
    }
}

TEST(Loop, DeferredCallsKeepTheirOrderAndLetOthersThrough) {
    std::atomic<bool> stop{false};
    std::vector<int> order;
    library lib;
    ASSERT_TRUE(async_run_safe(run_chain, &stop));
    on_loop([&] {
        for (int i = 0; i < 100; i++) {
            EXPECT_TRUE(async_run(record_call, new numbered_call{&order, i}));
        }
        EXPECT_EQ(0u, order.size()) << "a deferred call ran inside the call that queued it";
    });
    peer server(always(response(200, "x")));  // nor do they hold up other handles
    transfer get(server.url());
    EXPECT_EQ("OK", get.run());
    on_loop([&] { EXPECT_EQ(numbers_below(100), order); });
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

TEST(Loop, StartsAndStopsAreCountedAndRefusedOnTheLoopThread) {
    for (const char* function :
         {"get_uv_loop", "async_run", "tavHTTPShutdown", "stop_event_loop"}) {
        allow_assertion(function);
    }
    auto nothing = [](void*) {};
    log_capture log;
    EXPECT_FALSE(async_run_safe(nothing, nullptr));
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_TRUE(!is_loop_thread() && get_uv_loop() == nullptr && !async_run(nothing, nullptr));
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_FALSE(log.has_line("stop_event_loop start"));
    on_loop([] { tavHTTPShutdown(); });
    EXPECT_TRUE(log.has_line("function=stop_event_loop", 1000));
    EXPECT_TRUE(on_loop([] {})) << "the loop must keep running";
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_TRUE(log.has_line("stop_event_loop ok."));
    // One shut-down too many is kept in the count: the next start only makes up for it.
    EXPECT_EQ(0u, tavHTTPShutdown());
    EXPECT_EQ(0u, tavHTTPStartup());
    EXPECT_FALSE(async_run_safe(nothing, nullptr));
    library lib;
    EXPECT_TRUE(async_run_safe(nothing, nullptr));
}

// In this loop nothing else would ever end the poll.
TEST(Loop, ThePollDoesNotSleepOverWhatATimerHasQueued) {
    static uv_timer_t timer;
    static std::atomic<bool> deferred_ran{false};
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
void transfer_without_standard_descriptors(const std::string& url) {
    {  // A thread that only begins now could have a file open for a moment, on one of the three.
        library before;
        EXPECT_EQ("OK", transfer(url).run());
    }
    for (int descriptor : {0, 1, 2}) {
        close(descriptor);
    }
    library lib;
    bool others = true;
    for (int descriptor : {0, 1, 2}) {
        struct stat kind {};
        others = others && fstat(descriptor, &kind) == 0 && S_ISCHR(kind.st_mode);
    }
    transfer get(url);
    _exit(get.run() == "OK" && others ? 0 : 1);
}

TEST(FirstStart, TakesNoStandardDescriptorForItself) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    peer server(always(response(200, "x")));
    EXPECT_EXIT(transfer_without_standard_descriptors(server.url()), testing::ExitedWithCode(0),
                "");
}

// ------------------------------------------------------------------------------------- settings

TEST(Settings, NeedAStartAndEndWithTheLoop) {
    allow_assertion("");
    proxy given(TAV_HTTP_PROXY_HTTP, 8080, nullptr, nullptr, "h");
    for (std::uint32_t code : {tavHTTPSetDefaultProxy(&given), tavHTTPSetDownloadDirectory("d"),
                               tavHTTPSetUseThirdLSP(1)}) {
        EXPECT_EQ("NOT_INITIALIZED", code_name(code));
    }
    {
        library lib;
        EXPECT_EQ(0u, tavHTTPSetDefaultProxy(&given) | tavHTTPSetUseThirdLSP(1));
        EXPECT_TRUE(get_use_third_lsp());
        given.host[0] = 'X';
        proxy_info* copy = get_default_proxy_copy();
        EXPECT_STREQ("h", copy->host);
        free_proxy_info(copy);
    }
    library again;
    EXPECT_TRUE(get_default_proxy_copy() == nullptr && !get_use_third_lsp());
}

TEST(Settings, DownloadDirectoryAndNumbers) {
    work_dir dir;
    char buffer[64] = "!";
    std::int32_t length = 12;
    library lib;
    EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("data\\dl/sub"));
    for (const char* expected : {"!", "data/dl/sub/"}) {
        EXPECT_EQ("FAIL_OTHER", code_name(tavHTTPGetDownloadDirectory(buffer, &length)));
        EXPECT_EQ(13, length) << "the needed size, also when nothing was copied";
        EXPECT_STREQ(expected, buffer);
    }
    tavHTTPGetDownloadDirectory(nullptr, &length);
    tavHTTPGetDownloadDirectory(buffer, nullptr);
    // A file stands in the way: the directory set before is gone as well.
    write_file("file", "x");
    EXPECT_EQ("FAIL_CREATE_DIRECTORY", code_name(tavHTTPSetDownloadDirectory("file")));
    tavHTTPGetDownloadDirectory(buffer, &length);
    EXPECT_EQ(1, length);
    const std::uint32_t rows[][2] = {{1, 3}, {3, 3}, {9, 9}, {0xFFFFFFFFu, 9}, {0, 6}};
    for (const auto& row : rows) {
        EXPECT_EQ(0, tavHTTPSetConfig(1, row[0]));
        EXPECT_EQ(row[1], config_max_running_count()) << row[0];
    }
    EXPECT_TRUE(tavHTTPSetConfig(0, 1) == -1 && tavHTTPSetConfig(3, 1) == -1);
}

// -------------------------------------------------------------------------------------- workers

// libuv's, which reads the environment when a step first runs.
constexpr int pool_size = 4;
const int environment = setenv("UV_THREADPOOL_SIZE", "4", 1);

struct test_step {
    worker_step step;
    std::function<void()> work, after;
};

// Loop thread.
void queue_step(std::function<void()> work, std::function<void()> after) {
    auto* own = new test_step{{}, std::move(work), std::move(after)};
    own->step.data = own;
    auto run_work = [](worker_step* step) {
        EXPECT_FALSE(is_loop_thread());
        static_cast<test_step*>(step->data)->work();
    };
    auto run_after = [](worker_step* step, int status) {
        EXPECT_TRUE(is_loop_thread() && status == 0);
        std::unique_ptr<test_step> done(static_cast<test_step*>(step->data));
        done->after();
    };
    EXPECT_EQ(0, queue_worker_step(&own->step, run_work, run_after));
}

void spend(std::uint64_t nanoseconds) {
    for (std::uint64_t end = uv_hrtime() + nanoseconds; uv_hrtime() < end;) {
    }
}

class Worker : public testing::Test {
  protected:
    void wait_for(int count) {
        ASSERT_TRUE(wait_until([&] { return ended == count; }));
    }

    std::atomic<int> ended{0};
    const std::function<void()> finish = [this] { ended++; };
    library lib;
};

TEST_F(Worker, EveryStepRunsOnceInTheOrderOfTheQueue) {
    constexpr int count = 5000;
    static int first = 0;
    first += count;  // workers outlive a run of the test
    std::atomic<int> overtaken{0};
    std::vector<std::atomic<int>> runs(count);
    on_loop([&] {
        for (int i = 0; i < count; i++) {
            queue_step(
                [&, i, number = first + i] {
                    thread_local int last = -1;  // Each worker takes the first that waits.
                    overtaken += number < last ? 1 : 0;
                    last = number;
                    runs[static_cast<std::size_t>(i)]++;
                },
                finish);
        }
    });
    wait_for(count);
    EXPECT_EQ(0, overtaken);
    EXPECT_EQ(count, std::count(runs.begin(), runs.end(), 1));
}

// Steps of any length up to the time after which the loop thread sleeps, and calls from outside
// that come at any moment of the way into the poll.
void hand_over_often(int links, int calls) {
    std::promise<void> done;
    std::function<void(int)> link = [&](int left) {
        queue_step([left] { spend(static_cast<unsigned>(left % 97) * 2000u); },
                   [&, left] { left > 0 ? link(left - 1) : done.set_value(); });
    };
    on_loop([&] { link(links); });
    EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(default_deadline));
    std::atomic<int> ran{0};
    auto count = [](void* number) { (*static_cast<std::atomic<int>*>(number))++; };
    int missed = 0;
    for (int i = 0; i < calls; i++) {
        EXPECT_TRUE(async_run_safe(count, &ran));
        auto has_run = [&] { return ran == i + 1; };
        // One that is missed waits for the next timer of the library, about a second.
        missed += wait_until(has_run, milliseconds(400)) ? 0 : 1;
        EXPECT_TRUE(wait_until(has_run)) << i;
        spend(static_cast<unsigned>(i % 50) * 40u);
    }
    EXPECT_GE(2, missed) << "a noisy machine sleeps now and then, what is missed is missed often";
}

TEST_F(Worker, NoHandOverIsMissedWhileASideFallsAsleep) {
    hand_over_often(2000, 20000);
    lib.shutdown();
    cpu_set_t all, one;  // one processor will do
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    EXPECT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    lib.startup();
    hand_over_often(300, 1000);
    sched_setaffinity(0, sizeof all, &all);
}

TEST_F(Worker, ABlockedStepHoldsUpNoOtherWhileThePoolHasAThread) {
    std::promise<void> gate;
    std::shared_future<void> open = gate.get_future().share();
    std::atomic<bool> stop{false};
    std::function<void()> again = [&] {
        stop ? finish() : queue_step([] { spend(100 * 1000); }, again);
    };
    on_loop([&] {
        for (int i = 0; i < pool_size - 1; i++) {
            queue_step([&] { open.wait(); }, finish);
        }
        queue_step([] {}, finish);
    });
    wait_for(1);
    // Calls from other threads, and what others give to the pool, get their turn on the one thread
    // that is left.
    on_loop([&] {
        for (int i = 0; i < 8; i++) {
            again();
        }
    });
    EXPECT_TRUE(on_loop([] {}));
    uv_loop_t other;
    uv_loop_init(&other);
    uv_work_t request;
    std::atomic<bool> ran{false};
    request.data = &ran;
    uv_queue_work(
        &other, &request,
        [](uv_work_t* own) { *static_cast<std::atomic<bool>*>(own->data) = true; }, nullptr);
    EXPECT_TRUE(wait_until([&] { return ran.load(); }));
    stop = true;
    gate.set_value();
    wait_for(pool_size + 8);
    uv_run(&other, UV_RUN_DEFAULT);
    uv_loop_close(&other);
}

std::atomic<bool> second_ran{false};

bool second_has_run() {
    return wait_until([] { return second_ran.load(); });
}

// A host that waits in its callback, on the loop thread, for what another session's step does.
TEST_F(Worker, NoStepWaitsForALoopThreadThatTheHostBlocks) {
    tavHTTPSetLogCallback([](std::int32_t, const char*, const char* text) {
        EXPECT_TRUE(strcmp(text, "wait") != 0 || second_has_run());
    });
    // The second step gets a worker anyway when the first of them is slow to come.
    for (int i = 1; i <= 20 && !HasFailure(); i++) {
        second_ran = false;
        on_loop([&] {
            queue_step([] { second_has_run(); }, finish);
            queue_step([] { second_ran = true; }, finish);
            LOG_INFO("wait");
        });
        wait_for(2 * i);
    }
    watch_assertions();
}

TEST_F(Worker, TheStopWaitsForStepsThatNobodyWaitsFor) {
    for (int i = 1; i <= 10; i++) {
        on_loop([&] {
            // They take so long that workers leave while others still wait.
            for (int k = 0; k < 2 * pool_size; k++) {
                queue_step([] { spend(3 * 1000 * 1000); }, finish);
            }
        });
        lib.shutdown();
        ASSERT_EQ(2 * pool_size * i, ended);
        lib.startup();
    }
}

}  // namespace
