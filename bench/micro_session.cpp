// The life of a session without a network: opened, queued, scheduled, completed, released. A method
// that does not exist ends it when it is started.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>

#include "tavhttpclient/tavhttpclient.h"

namespace {

struct completion_count {
    std::mutex mutex;
    std::condition_variable changed;
    std::int64_t left = 0;
};

completion_count completions;

void on_complete(http_session* session, void*, std::uint32_t) {
    tavHTTPClose(session);
    std::lock_guard<std::mutex> lock(completions.mutex);
    if (--completions.left == 0) {
        completions.changed.notify_one();
    }
}

void sessions_scheduled(benchmark::State& state) {
    tavHTTPStartup();
    for (auto _ : state) {
        completions.left = state.range(0);
        for (std::int64_t i = 0; i < state.range(0); i++) {
            tavHTTPSendRequest(tavHTTPOpen(9, "http://host/", nullptr, nullptr, on_complete));
        }
        std::unique_lock<std::mutex> lock(completions.mutex);
        completions.changed.wait(lock, [] { return completions.left == 0; });
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    tavHTTPShutdown();
}
BENCHMARK(sessions_scheduled)
    ->ArgName("sessions")
    ->Arg(1)
    ->Arg(1000)
    ->Arg(100000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// On the host's thread alone.
void session_opened_with_options(benchmark::State& state) {
    tavHTTPStartup();
    for (auto _ : state) {
        http_session* session =
            tavHTTPOpen(TAV_HTTP_METHOD_GET, "http://host/", nullptr, nullptr, on_complete);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_USER_AGENT, "agent/1.0");
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_HEADER, "X-Own", "%d", 1);
        tavHTTPClose(session);
    }
    tavHTTPShutdown();
}
BENCHMARK(session_opened_with_options);

}  // namespace
