// The library's side. A completed transfer starts the next one inside its complete_callback.
#include "bench/compare.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "tavhttpclient/tavhttpclient.h"

namespace {

struct our_run {
    const bench_plan* plan = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::atomic<std::uint64_t> started{0};
    std::uint64_t completed = 0;  // under `mutex`
};

struct our_transfer {
    our_run* run;
    std::uint64_t bytes = 0;
};

void start_one(our_run* run);

void on_data(http_session*, void* user_data, std::uint64_t, const void*, std::uint32_t length) {
    static_cast<our_transfer*>(user_data)->bytes += length;
}

void check(http_session* session, const our_transfer* transfer, std::uint32_t code) {
    const bench_plan& plan = *transfer->run->plan;
    std::uint64_t bytes = transfer->bytes;
    if (plan.sink == body_sink::memory) {
        const char* body = nullptr;
        std::int32_t length = 0;
        tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, nullptr);
        bytes = static_cast<std::uint64_t>(length);
    } else if (plan.sink == body_sink::file) {
        tavHTTPQueryInfo(session, TAV_HTTP_QUERY_BODY_BYTES, &bytes, nullptr, nullptr);
    }
    if (code != 0 || bytes != plan.expected_bytes) {
        fail(plan.url + ": code " + std::to_string(code) + ", " + std::to_string(bytes) + " bytes");
    }
}

void on_complete(http_session* session, void* user_data, std::uint32_t code) {
    auto* transfer = static_cast<our_transfer*>(user_data);
    our_run* run = transfer->run;
    check(session, transfer, code);
    tavHTTPClose(session);
    delete transfer;
    if (run->started.fetch_add(1) < run->plan->count) {
        start_one(run);
    }
    std::lock_guard<std::mutex> lock(run->mutex);
    if (++run->completed == run->plan->count) {
        run->changed.notify_one();
    }
}

void start_one(our_run* run) {
    const bench_plan& plan = *run->plan;
    bool post = !plan.upload.empty() || !plan.upload_file.empty();
    auto* transfer = new our_transfer{run};
    http_session* session = tavHTTPOpen(post ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET,
                                        plan.url.c_str(), nullptr, transfer, on_complete);
    if (plan.in_flight > queue_running) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
    }
    if (!plan.upload.empty()) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_APPEND_BODY, plan.upload.data(),
                         static_cast<std::uint32_t>(plan.upload.size()));
    }
    if (!plan.upload_file.empty()) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_UPLOAD_FILE, plan.upload_file.c_str());
    }
    if (plan.sink == body_sink::file) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_FILE, plan.download_file.c_str());
    } else if (plan.sink == body_sink::callback) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_data);
    }
    if (plan.fresh) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_CONNECTION, 2u);
    }
    if (!plan.decode) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_NO_COMPRESSION, 1u);
    }
    if (tavHTTPSendRequest(session) != 0) {
        fail("tavHTTPSendRequest");
    }
}

}  // namespace

void start_ours() {
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, queue_running);
    if (tavHTTPStartup() != 0) {
        fail("tavHTTPStartup");
    }
}

void stop_ours() {
    tavHTTPShutdown();
}

void run_ours(const bench_plan& plan) {
    our_run run;
    run.plan = &plan;
    for (int i = 0; i < plan.in_flight && run.started.fetch_add(1) < plan.count; i++) {
        start_one(&run);
    }
    std::unique_lock<std::mutex> lock(run.mutex);
    run.changed.wait(lock, [&] { return run.completed == plan.count; });
}

// ------------------------------------------------------------------------------------- the queue

namespace {

struct our_queue {
    const queue_plan* plan = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    int slow_running = 0;
    int slow_completed = 0;
    std::uint64_t completed = 0;
};

our_queue queue;

void count(int* number) {
    std::lock_guard<std::mutex> lock(queue.mutex);
    ++*number;
    queue.changed.notify_one();
}

void on_slow_start(http_session*, void*, const char*, std::uint64_t, std::uint64_t, std::uint64_t) {
    count(&queue.slow_running);
}

void on_slow_complete(http_session* session, void*, std::uint32_t) {
    tavHTTPClose(session);
    count(&queue.slow_completed);
}

void on_queued_complete(http_session* session, void*, std::uint32_t code) {
    const char* body = nullptr;
    std::int32_t length = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, nullptr);
    if (code != 0 || static_cast<std::uint64_t>(length) != queue.plan->expected_bytes) {
        fail("queued transfer: code " + std::to_string(code));
    }
    tavHTTPClose(session);
    std::lock_guard<std::mutex> lock(queue.mutex);
    if (++queue.completed >= queue.plan->count) {
        queue.changed.notify_one();
    }
}

// At once, whatever runs: its completion tells that all sends before it have been queued.
void run_fence(const std::string& url) {
    bench_plan fence;
    fence.url = url;
    fence.in_flight = queue_running + 1;
    fence.expected_bytes = queue.plan->expected_bytes;
    run_ours(fence);
}

std::vector<http_session*> fill_slots(const std::string& url) {
    std::vector<http_session*> slow;
    for (int i = 0; i < queue_running; i++) {
        http_session* session =
            tavHTTPOpen(TAV_HTTP_METHOD_GET, url.c_str(), nullptr, nullptr, on_slow_complete);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, on_slow_start);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK,
                         static_cast<download_data_callback>([](http_session*, void*, std::uint64_t,
                                                                const void*, std::uint32_t) {}));
        tavHTTPSendRequest(session);
        slow.push_back(session);
    }
    std::unique_lock<std::mutex> lock(queue.mutex);
    queue.changed.wait(lock, [] { return queue.slow_running == queue_running; });
    return slow;
}

}  // namespace

queue_result queue_ours(const queue_plan& plan) {
    queue.plan = &plan;
    queue_result result;
    std::vector<http_session*> slow = fill_slots(plan.slow_url);
    run_fence(plan.url);

    double resident = resident_bytes();
    double begin = now_seconds();
    for (std::uint64_t i = 0; i < plan.count; i++) {
        http_session* session = tavHTTPOpen(TAV_HTTP_METHOD_GET, plan.url.c_str(), nullptr, nullptr,
                                            on_queued_complete);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_QUEUE_FIFO, 1u);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_NO_COMPRESSION, 1u);
        tavHTTPSendRequest(session);
    }
    run_fence(plan.url);
    result.queue_seconds = now_seconds() - begin;
    result.queued_bytes = resident_bytes() - resident;

    for (http_session* session : slow) {
        tavHTTPCancelRequest(session);
    }
    std::unique_lock<std::mutex> lock(queue.mutex);
    queue.changed.wait(lock, [] { return queue.slow_completed == queue_running; });
    begin = now_seconds();
    queue.changed.wait(lock, [&] { return queue.completed == plan.count; });
    result.run_seconds = now_seconds() - begin;
    return result;
}
