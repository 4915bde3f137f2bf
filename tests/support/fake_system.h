// Stand-ins for calls of the system that a test cannot bring about on loopback: they take the place
// of the C library's and libuv's functions in the executable that includes this. Include it in one
// source file only.
//
//   clock_gettime  the monotonic clock, moved forward by advance_clock()
//   getaddrinfo    names of the test's own; "hang" waits for release_lookups()
//   uv_tcp_*       can be told to fail at once
#ifndef TESTS_SUPPORT_FAKE_SYSTEM_H
#define TESTS_SUPPORT_FAKE_SYSTEM_H

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/on_loop.h"

struct fake_system {
    std::atomic<int64_t> clock_offset_ms{0};
    std::atomic<int> connect_error4{0};  // libuv codes; 0: the real call
    std::atomic<int> connect_error6{0};
    std::atomic<int> open_error{0};
    std::atomic<int> bind_error{0};
    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::map<std::string, std::vector<std::string>> names;  // addresses, in the resolver's order
    bool lookups_released = false;
    int hanging_lookups = 0;
};

inline fake_system& fakes() {
    static fake_system* all = new fake_system;  // never destroyed: libuv's workers end at exit
    return *all;
}

inline void advance_clock(int64_t ms) {
    fakes().clock_offset_ms += ms;
    // The loop sleeps by the real clock; a wake-up makes it look at its timers.
    on_loop([] {});
}

inline void set_name(const std::string& name, std::vector<std::string> addresses) {
    std::lock_guard<std::mutex> lock(fakes().mutex);
    fakes().names[name] = std::move(addresses);
}

inline void release_lookups() {
    std::lock_guard<std::mutex> lock(fakes().mutex);
    fakes().lookups_released = true;
    fakes().changed.notify_all();
}

inline int hanging_lookups() {
    std::lock_guard<std::mutex> lock(fakes().mutex);
    return fakes().hanging_lookups;
}

// Releases every lookup at the end of a test, however it ends: the process waits for its workers.
struct lookup_release {
    ~lookup_release() {
        release_lookups();
    }
};

inline addrinfo* make_address(const std::string& text) {
    bool is6 = text.find(':') != std::string::npos;
    size_t length = is6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    auto* entry = static_cast<addrinfo*>(calloc(1, sizeof(addrinfo) + sizeof(sockaddr_in6)));
    auto* address = reinterpret_cast<sockaddr*>(entry + 1);
    address->sa_family = is6 ? AF_INET6 : AF_INET;
    void* bytes = is6 ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(address)->sin6_addr)
                      : static_cast<void*>(&reinterpret_cast<sockaddr_in*>(address)->sin_addr);
    if (inet_pton(address->sa_family, text.c_str(), bytes) != 1) {
        free(entry);
        return nullptr;
    }
    entry->ai_family = address->sa_family;
    entry->ai_socktype = SOCK_STREAM;
    entry->ai_addrlen = static_cast<socklen_t>(length);
    entry->ai_addr = address;
    return entry;
}

extern "C" {

int clock_gettime(clockid_t id, struct timespec* now) noexcept {
    int result = static_cast<int>(syscall(SYS_clock_gettime, id, now));
    if (result == 0 && id != CLOCK_REALTIME) {
        now->tv_sec += static_cast<time_t>(fakes().clock_offset_ms.load() / 1000);
    }
    return result;
}

int getaddrinfo(const char* node, const char*, const struct addrinfo*, struct addrinfo** result) {
    std::vector<std::string> addresses{node};
    {
        std::unique_lock<std::mutex> lock(fakes().mutex);
        if (std::string(node) == "hang") {
            fakes().hanging_lookups++;
            fakes().changed.wait(lock, [] { return fakes().lookups_released; });
            fakes().hanging_lookups--;
        }
        auto known = fakes().names.find(node);
        if (known != fakes().names.end()) {
            addresses = known->second;
        }
    }
    addrinfo** tail = result;
    *result = nullptr;
    for (const std::string& text : addresses) {
        *tail = make_address(text);
        if (*tail == nullptr) {
            return EAI_NONAME;
        }
        tail = &(*tail)->ai_next;
    }
    return *result != nullptr ? 0 : EAI_NONAME;
}

void freeaddrinfo(struct addrinfo* list) noexcept {
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        free(list);
        list = next;
    }
}

int uv_tcp_connect(uv_connect_t* request, uv_tcp_t* handle, const struct sockaddr* address,
                   uv_connect_cb callback) {
    int error = address->sa_family == AF_INET ? fakes().connect_error4 : fakes().connect_error6;
    if (error != 0) {
        return error;
    }
    using function = int (*)(uv_connect_t*, uv_tcp_t*, const sockaddr*, uv_connect_cb);
    static auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "uv_tcp_connect"));
    return real(request, handle, address, callback);
}

int uv_tcp_open(uv_tcp_t* handle, uv_os_sock_t sock) {
    if (fakes().open_error != 0) {
        return fakes().open_error;
    }
    using function = int (*)(uv_tcp_t*, uv_os_sock_t);
    static auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "uv_tcp_open"));
    return real(handle, sock);
}

int uv_tcp_bind(uv_tcp_t* handle, const struct sockaddr* address, unsigned int flags) {
    if (fakes().bind_error != 0) {
        return fakes().bind_error;
    }
    using function = int (*)(uv_tcp_t*, const sockaddr*, unsigned int);
    static auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "uv_tcp_bind"));
    return real(handle, address, flags);
}
}

#endif
