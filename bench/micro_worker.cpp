// One step after the other, to a worker and back to the loop thread: what a hop costs at least, and
// what it costs as an item of work for libuv's pool each.
#include <benchmark/benchmark.h>

#include <uv.h>

#include <future>

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

}  // namespace
