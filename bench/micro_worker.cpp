// Steps to a worker and back to the loop thread, one after the other: what a hop costs at least,
// and what a trickle of them costs in processor time; beside the same as an item of work for
// libuv's pool each.
#include <benchmark/benchmark.h>

#include <time.h>
#include <uv.h>

#include <chrono>
#include <future>
#include <thread>

#include "tavhttpclient/loop.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/worker.h"

namespace {

constexpr std::int64_t chain_length = 1000;

struct hop_chain {
    worker_step step{};
    uv_work_t request{};
    std::int64_t left = chain_length;
    std::promise<void> done;
};

void queue_step(hop_chain* chain);

void after_step(worker_step* step, int) {
    auto* chain = static_cast<hop_chain*>(step->data);
    --chain->left > 0 ? queue_step(chain) : chain->done.set_value();
}

void queue_step(hop_chain* chain) {
    queue_worker_step(
        &chain->step, [](worker_step*) {}, after_step);
}

void start_steps(void* argument) {
    auto* chain = static_cast<hop_chain*>(argument);
    chain->step.data = chain;
    queue_step(chain);
}

void queue_item(hop_chain* chain);

void after_item(uv_work_t* request, int) {
    auto* chain = static_cast<hop_chain*>(request->data);
    --chain->left > 0 ? queue_item(chain) : chain->done.set_value();
}

void queue_item(hop_chain* chain) {
    uv_queue_work(
        get_uv_loop(), &chain->request, [](uv_work_t*) {}, after_item);
}

void start_items(void* argument) {
    auto* chain = static_cast<hop_chain*>(argument);
    chain->request.data = chain;
    queue_item(chain);
}

void run_chains(benchmark::State& state, loop_function start) {
    tavHTTPStartup();
    for (auto _ : state) {
        hop_chain chain;
        async_run_safe(start, &chain);
        chain.done.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * chain_length);
    tavHTTPShutdown();
}

void hop_of_a_worker_step(benchmark::State& state) {
    run_chains(state, start_steps);
}
BENCHMARK(hop_of_a_worker_step)->UseRealTime()->MeasureProcessCPUTime();

void hop_of_a_work_item(benchmark::State& state) {
    run_chains(state, start_items);
}
BENCHMARK(hop_of_a_work_item)->UseRealTime()->MeasureProcessCPUTime();

double processor_time(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// Of all threads but this one, in microseconds.
double processor_time_of_others() {
    return processor_time(CLOCK_PROCESS_CPUTIME_ID) - processor_time(CLOCK_THREAD_CPUTIME_ID);
}

// Every range(0) microseconds something arrives that takes range(1) steps.
void run_trickle(benchmark::State& state, loop_function start) {
    const auto pause = std::chrono::microseconds(state.range(0));
    tavHTTPStartup();
    const double before = processor_time_of_others();
    for (auto _ : state) {
        hop_chain chain;
        chain.left = state.range(1);
        std::this_thread::sleep_for(pause);
        async_run_safe(start, &chain);
        chain.done.get_future().wait();
    }
    const double spent = processor_time_of_others() - before;
    state.counters["cpu_us"] = spent / static_cast<double>(state.iterations());
    tavHTTPShutdown();
}

void trickle_of_worker_steps(benchmark::State& state) {
    run_trickle(state, start_steps);
}

void trickle_of_work_items(benchmark::State& state) {
    run_trickle(state, start_items);
}

BENCHMARK(trickle_of_worker_steps)->ArgsProduct({{200, 500, 1000}, {1, 2, 4}})->UseRealTime();
BENCHMARK(trickle_of_work_items)->ArgsProduct({{200, 500, 1000}, {1, 2, 4}})->UseRealTime();

}  // namespace
