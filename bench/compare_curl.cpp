// The peer's side: libcurl's multi interface, driven by its socket and timer callbacks over epoll.
// A handle whose transfer has completed is used for the next one, as its manual recommends.
#include "bench/compare.h"

#include <curl/curl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct curl_loop {
    CURLM* multi = nullptr;
    int epoll = -1;
    double deadline = -1;  // of curl's timer; -1: none
};

struct curl_transfer {
    const bench_plan* plan = nullptr;
    CURL* easy = nullptr;
    FILE* file = nullptr;
    FILE* upload = nullptr;
    char* memory = nullptr;
    std::size_t capacity = 0;
    std::uint64_t bytes = 0;
};

curl_loop loop;
curl_slist* close_header = nullptr;
curl_slist* no_expect = nullptr;

int on_socket(CURL*, curl_socket_t fd, int what, void*, void* known) {
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.data.fd = fd;
    if (what == CURL_POLL_REMOVE) {
        epoll_ctl(loop.epoll, EPOLL_CTL_DEL, fd, &event);
        return 0;
    }
    event.events = ((what & CURL_POLL_IN) != 0 ? static_cast<std::uint32_t>(EPOLLIN) : 0u) |
                   ((what & CURL_POLL_OUT) != 0 ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
    epoll_ctl(loop.epoll, known != nullptr ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event);
    curl_multi_assign(loop.multi, fd, &loop);
    return 0;
}

int on_timer(CURLM*, long timeout_ms, void*) {
    loop.deadline = timeout_ms < 0 ? -1 : now_seconds() + static_cast<double>(timeout_ms) / 1000;
    return 0;
}

// One turn of the loop; waits at most `limit_ms`, -1 for as long as it takes.
void turn(int limit_ms) {
    int running = 0;
    int wait = limit_ms;
    if (loop.deadline >= 0) {
        double left = std::max(0.0, (loop.deadline - now_seconds()) * 1000);
        int left_ms = left > 0 ? static_cast<int>(left) + 1 : 0;
        wait = wait < 0 ? left_ms : std::min(wait, left_ms);
    }
    epoll_event events[64];
    int count = epoll_wait(loop.epoll, events, 64, wait);
    for (int i = 0; i < count; i++) {
        int mask = ((events[i].events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                   ((events[i].events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                   ((events[i].events & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
        curl_multi_socket_action(loop.multi, events[i].data.fd, mask, &running);
    }
    if (loop.deadline >= 0 && loop.deadline <= now_seconds()) {
        loop.deadline = -1;
        curl_multi_socket_action(loop.multi, CURL_SOCKET_TIMEOUT, 0, &running);
    }
}

// Next transfer that has completed with success, or null.
CURL* next_completed() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(loop.multi, &left)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        long status = 0;
        curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
        if (message->data.result != CURLE_OK || status != 200) {
            fail(std::string(curl_easy_strerror(message->data.result)) + ", status " +
                 std::to_string(status));
        }
        return message->easy_handle;
    }
    return nullptr;
}

// The same first size as the library's.
bool reserve(curl_transfer* transfer, std::size_t count) {
    std::size_t wanted = static_cast<std::size_t>(transfer->bytes) + count;
    if (wanted <= transfer->capacity) {
        return true;
    }
    curl_off_t announced = -1;
    curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    std::size_t capacity =
        announced > 0 ? static_cast<std::size_t>(announced) + 1024 : 2 * wanted + 131072;
    transfer->memory = static_cast<char*>(std::realloc(transfer->memory, capacity));
    transfer->capacity = capacity;
    return transfer->memory != nullptr && wanted <= capacity;
}

std::size_t on_write(char* data, std::size_t size, std::size_t count, void* user_data) {
    auto* transfer = static_cast<curl_transfer*>(user_data);
    std::size_t length = size * count;
    body_sink sink = transfer->plan->sink;
    if (sink == body_sink::file && std::fwrite(data, 1, length, transfer->file) != length) {
        return 0;
    }
    if (sink == body_sink::memory) {
        if (!reserve(transfer, length)) {
            return 0;
        }
        std::memcpy(transfer->memory + transfer->bytes, data, length);
    }
    transfer->bytes += length;
    return length;
}

void set_upload(curl_transfer* transfer) {
    const bench_plan& plan = *transfer->plan;
    CURL* easy = transfer->easy;
    if (!plan.upload.empty()) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, plan.upload.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(plan.upload.size()));
    }
    if (!plan.upload_file.empty()) {
        struct stat status;
        transfer->upload = std::fopen(plan.upload_file.c_str(), "rb");
        if (transfer->upload == nullptr || fstat(fileno(transfer->upload), &status) != 0) {
            fail(plan.upload_file);
        }
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_READDATA, transfer->upload);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(status.st_size));
    }
    if (!plan.upload.empty() || !plan.upload_file.empty()) {
        // The library does not ask before it sends either.
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, no_expect);
    }
}

CURL* new_easy(curl_transfer* transfer) {
    const bench_plan& plan = *transfer->plan;
    CURL* easy = curl_easy_init();
    transfer->easy = easy;
    curl_easy_setopt(easy, CURLOPT_URL, plan.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_write);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // The library verifies no certificate chain and resumes no TLS session.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    if (plan.decode) {
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    }
    if (plan.fresh) {
        curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
        curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, close_header);
    }
    set_upload(transfer);
    return easy;
}

void begin(curl_transfer* transfer) {
    transfer->bytes = 0;
    std::free(transfer->memory);  // The host of the library gets a new body every time, too.
    transfer->memory = nullptr;
    transfer->capacity = 0;
    if (transfer->plan->sink == body_sink::file) {
        transfer->file = std::fopen(transfer->plan->download_file.c_str(), "wb");
        if (transfer->file == nullptr) {
            fail(transfer->plan->download_file);
        }
        std::setvbuf(transfer->file, nullptr, _IOFBF, 65536);
    }
    curl_multi_add_handle(loop.multi, transfer->easy);
}

void finish(curl_transfer* transfer) {
    curl_multi_remove_handle(loop.multi, transfer->easy);
    if (transfer->file != nullptr && std::fclose(transfer->file) != 0) {
        fail("fclose");
    }
    transfer->file = nullptr;
    if (transfer->bytes != transfer->plan->expected_bytes) {
        fail(transfer->plan->url + ": " + std::to_string(transfer->bytes) + " bytes");
    }
}

void release(curl_transfer* transfer) {
    curl_easy_cleanup(transfer->easy);
    std::free(transfer->memory);
    if (transfer->upload != nullptr) {
        std::fclose(transfer->upload);
    }
}

curl_transfer* transfer_of(CURL* easy) {
    char* transfer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
    return reinterpret_cast<curl_transfer*>(transfer);
}

}  // namespace

void start_curl() {
    curl_global_init(CURL_GLOBAL_ALL);
    loop.multi = curl_multi_init();
    loop.epoll = epoll_create1(EPOLL_CLOEXEC);
    curl_multi_setopt(loop.multi, CURLMOPT_SOCKETFUNCTION, on_socket);
    curl_multi_setopt(loop.multi, CURLMOPT_TIMERFUNCTION, on_timer);
    curl_multi_setopt(loop.multi, CURLMOPT_MAXCONNECTS, 64L);
    close_header = curl_slist_append(nullptr, "Connection: close");
    no_expect = curl_slist_append(nullptr, "Expect:");
}

void stop_curl() {
    curl_multi_cleanup(loop.multi);
    close(loop.epoll);
    curl_slist_free_all(close_header);
    curl_slist_free_all(no_expect);
    curl_global_cleanup();
}

void run_curl(const bench_plan& plan) {
    std::vector<curl_transfer> transfers(static_cast<std::size_t>(plan.in_flight));
    std::uint64_t started = 0;
    std::uint64_t completed = 0;
    for (curl_transfer& transfer : transfers) {
        transfer.plan = &plan;
        new_easy(&transfer);
        if (started < plan.count) {
            started++;
            begin(&transfer);
        }
    }
    while (completed < plan.count) {
        turn(-1);
        while (CURL* easy = next_completed()) {
            curl_transfer* transfer = transfer_of(easy);
            finish(transfer);
            completed++;
            if (started < plan.count) {
                started++;
                begin(transfer);
            }
        }
    }
    for (curl_transfer& transfer : transfers) {
        release(&transfer);
    }
}

// ------------------------------------------------------------------------------------- the queue

namespace {

// Runs the loop until every slow transfer has received something.
void wait_for_slow(const std::vector<std::unique_ptr<curl_transfer>>& slow) {
    auto receives = [](const std::unique_ptr<curl_transfer>& one) { return one->bytes > 0; };
    while (!std::all_of(slow.begin(), slow.end(), receives)) {
        turn(-1);
    }
}

// Runs the loop until curl asks for no immediate turn: all that was added is waiting.
void settle() {
    do {
        turn(0);
    } while (loop.deadline >= 0 && loop.deadline <= now_seconds());
}

std::unique_ptr<curl_transfer> add(const bench_plan& plan) {
    auto transfer = std::make_unique<curl_transfer>();
    transfer->plan = &plan;
    new_easy(transfer.get());
    begin(transfer.get());
    return transfer;
}

}  // namespace

queue_result queue_curl(const queue_plan& plan) {
    queue_result result;
    bench_plan slow_plan;
    slow_plan.url = plan.slow_url;
    slow_plan.sink = body_sink::callback;
    bench_plan one;
    one.url = plan.url;
    one.expected_bytes = plan.expected_bytes;
    curl_multi_setopt(loop.multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(queue_running));
    std::vector<std::unique_ptr<curl_transfer>> slow;
    for (int i = 0; i < queue_running; i++) {
        slow.push_back(add(slow_plan));
    }
    wait_for_slow(slow);

    double resident = resident_bytes();
    double begin_time = now_seconds();
    for (std::uint64_t i = 0; i < plan.count; i++) {
        add(one).release();  // Found again through the handle.
    }
    settle();
    result.queue_seconds = now_seconds() - begin_time;
    result.queued_bytes = resident_bytes() - resident;

    begin_time = now_seconds();
    for (auto& transfer : slow) {
        curl_multi_remove_handle(loop.multi, transfer->easy);
        release(transfer.get());
    }
    std::uint64_t completed = 0;
    while (completed < plan.count) {
        turn(-1);
        while (CURL* easy = next_completed()) {
            std::unique_ptr<curl_transfer> transfer(transfer_of(easy));
            finish(transfer.get());
            release(transfer.get());
            completed++;
        }
    }
    result.run_seconds = now_seconds() - begin_time;
    return result;
}
