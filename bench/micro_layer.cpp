// What the C++ layer adds to the C functions: the same session, opened, told, sent, completed with
// a callback and closed, both ways. A method that does not exist ends it when it is started.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "tavhttpclient/tavhttpclient.hpp"

namespace {

constexpr std::int64_t SESSIONS = 1000;

struct countdown {
    std::mutex mutex;
    std::condition_variable changed;
    std::int64_t left = 0;

    void one_less() {
        std::lock_guard<std::mutex> lock(mutex);
        if (--left == 0) {
            changed.notify_one();
        }
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return left == 0; });
    }
};

countdown completions;

void on_complete(http_session*, void*, std::uint32_t) {
    completions.one_less();
}

void on_connecting(http_session*, void*, const char*) {
}

void sessions_by_c(benchmark::State& state) {
    tavHTTPStartup();
    std::vector<http_session*> sessions(SESSIONS);
    for (auto _ : state) {
        completions.left = SESSIONS;
        for (http_session*& each : sessions) {
            each = tavHTTPOpen(9, "http://host/", nullptr, nullptr, on_complete);
            tavHTTPSetOption(each, TAV_HTTP_OPTION_SESSION_TIMEOUT, (std::int32_t)20000);
            tavHTTPSetOption(each, TAV_HTTP_OPTION_USER_AGENT, "agent/1.0");
            tavHTTPSetOption(each, TAV_HTTP_OPTION_ADD_HEADER, "X-Own", "%s", "1");
            tavHTTPSetOption(each, TAV_HTTP_OPTION_CONNECTING_CALLBACK, on_connecting);
            tavHTTPSendRequest(each);
        }
        completions.wait();
        for (http_session* each : sessions) {
            tavHTTPClose(each);
        }
    }
    state.SetItemsProcessed(state.iterations() * SESSIONS);
    tavHTTPShutdown();
}
BENCHMARK(sessions_by_c)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);

void sessions_by_layer(benchmark::State& state) {
    tavhttp::library library;
    std::vector<tavhttp::session> sessions(SESSIONS);
    for (auto _ : state) {
        completions.left = SESSIONS;
        for (tavhttp::session& each : sessions) {
            each = tavhttp::session(static_cast<tavhttp::method>(9), "http://host/");
            each.session_timeout(std::chrono::seconds(20));
            each.user_agent("agent/1.0");
            each.add_header("X-Own", "1");
            each.on_connecting([](auto...) {});
            each.on_complete([](auto...) { completions.one_less(); });
            static_cast<void>(each.send());
        }
        completions.wait();
        for (tavhttp::session& each : sessions) {
            each.close();
        }
    }
    state.SetItemsProcessed(state.iterations() * SESSIONS);
}
BENCHMARK(sessions_by_layer)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
