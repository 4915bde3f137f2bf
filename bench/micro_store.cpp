// Look-ups in stores that have grown: cookies, and idle connections.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/loop.h"

namespace {

std::string host_name(std::int64_t number) {
    return "host" + std::to_string(number) + ".example.com";
}

void cookie_lookup(benchmark::State& state) {
    init_cookie_store();
    for (std::int64_t i = 0; i < state.range(0); i++) {
        std::string url = "http://" + host_name(i) + "/";
        for (const char* cookie : {"first=1; path=/", "second=2; path=/", "third=3; path=/deep"}) {
            set_cookie_by_http_header(url.c_str(), cookie);
        }
    }
    std::int64_t number = 0;
    for (auto _ : state) {
        std::string url = "http://" + host_name(number++ % state.range(0)) + "/deep/file";
        char* cookies = nullptr;
        benchmark::DoNotOptimize(get_cookie(url.c_str(), &cookies));
        std::free(cookies);
    }
    uninit_cookie_store();
}
BENCHMARK(cookie_lookup)->ArgName("hosts")->Arg(1)->Arg(100)->Arg(10000);

struct loop_errand {
    std::function<void()> action;
    std::promise<void> done;
};

void run_errand(void* argument) {
    auto* errand = static_cast<loop_errand*>(argument);
    errand->action();
    errand->done.set_value();
}

// Runs the action on the loop thread and waits for its end.
void on_loop(std::function<void()> action) {
    loop_errand errand{std::move(action), {}};
    std::future<void> done = errand.done.get_future();
    if (async_run_safe(run_errand, &errand)) {
        done.wait();
    }
}

http_connection* idle_connection(std::int64_t number) {
    auto* conn = static_cast<http_connection*>(std::calloc(1, sizeof(http_connection)));
    list_init(&conn->open_link);
    conn->host = strdup(host_name(number).c_str());
    conn->port = 80;
    conn->keepalive_timeout = 1000000;
    return conn;
}

void pool_take_and_give_back(benchmark::State& state) {
    tavHTTPStartup();
    std::vector<std::string> names;
    for (std::int64_t i = 0; i < state.range(0); i++) {
        names.push_back(host_name(i));
    }
    on_loop([&] {
        for (std::int64_t i = 0; i < state.range(0); i++) {
            add_connection_to_pool(idle_connection(i));
        }
    });
    constexpr int batch = 1000;
    for (auto _ : state) {
        on_loop([&] {
            auto begin = std::chrono::steady_clock::now();
            for (std::size_t i = 0; i < batch; i++) {
                const std::string& name = names[i * 7919 % names.size()];
                add_connection_to_pool(get_connection_from_pool(0, name.c_str(), 80));
            }
            std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
            state.SetIterationTime(time.count());
        });
    }
    state.SetItemsProcessed(state.iterations() * batch);
    tavHTTPShutdown();
}
BENCHMARK(pool_take_and_give_back)->ArgName("keys")->Arg(1)->Arg(100)->Arg(10000)->UseManualTime();

}  // namespace
