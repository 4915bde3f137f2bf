// The smallest complete host: fetches one URL into memory and prints it.
#include <stdio.h>

#include <condition_variable>
#include <mutex>

#include "tavhttpclient/tavhttpclient.h"

struct fetch {
    std::mutex lock;
    std::condition_variable done;
    bool is_done = false;
    uint32_t code = 0;
};

// Runs on a thread of the library: leave the result, wake the host, return.
static void on_complete(http_session*, void* user_data, uint32_t code) {
    fetch* item = (fetch*)user_data;
    std::lock_guard<std::mutex> guard(item->lock);
    item->code = code;
    item->is_done = true;
    item->done.notify_one();
}

int main(int argc, char** argv) {
    if (argc != 2 || tavHTTPStartup() != 0) {
        fprintf(stderr, "usage: minimal URL\n");
        return 2;
    }
    fetch item;
    http_session* session = tavHTTPOpen(TAV_HTTP_METHOD_GET, argv[1], nullptr, &item, on_complete);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_SESSION_TIMEOUT, (int32_t)20000);
    uint32_t sent = tavHTTPSendRequest(session);
    if (sent == 0) {
        std::unique_lock<std::mutex> guard(item.lock);
        item.done.wait(guard, [&item] { return item.is_done; });
    }

    uint32_t status = 0;
    const char* body = nullptr;
    int32_t length = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_STATUS_CODE, &status, nullptr, nullptr);
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, nullptr);
    fprintf(stderr, "code 0x%x, status %u, %d bytes\n", item.code, status, length);
    if (body != nullptr) {
        fwrite(body, 1, (size_t)length, stdout);
    }
    tavHTTPClose(session);
    tavHTTPShutdown();
    return sent == 0 && item.code == 0 ? 0 : 1;
}
