#include "support/fakes.h"

#include <arpa/inet.h>
#include <execinfo.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <uv.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>

#include "support/inside.h"
#include "tavhttpclient/worker.h"

namespace {

constexpr int trace_depth = 24;

std::atomic<long> first_failing{-1}, last_failing{-1}, calls{0}, live_blocks{0};
std::atomic<const char*> hit{nullptr};
char only_function[64];  // written while nothing is counted
void* trace[trace_depth];
std::atomic<int> trace_length{0};

std::atomic<int> clock_offset{0};  // seconds

struct names {
    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::map<std::string, std::vector<std::string>> addresses{{"localhost", {"127.0.0.1"}},
                                                              {"LOCALHOST", {"127.0.0.1"}}};
    bool released = false;
    int hanging = 0;
};

names& all_names() {
    static names* all = new names;  // never destroyed: libuv's workers end at exit
    return *all;
}

bool fails(const char* function) {
    if (first_failing.load(std::memory_order_acquire) < 0 ||
        (only_function[0] != 0 && strcmp(only_function, function) != 0)) {
        return false;
    }
    long number = ++calls;
    if (number < first_failing || number > last_failing) {
        return false;
    }
    trace_length = backtrace(trace, trace_depth);
    hit = function;
    errno = EIO;
    return true;
}

void* counted(void* block) {
    live_blocks += block != nullptr ? 1 : 0;
    return block;
}

}  // namespace

void fail_calls(const std::string& function, long first, long count) {
    fail_nothing();
    snprintf(only_function, sizeof only_function, "%s", function.c_str());
    calls = 0;
    hit = nullptr;
    trace_length = 0;
    last_failing = first + count - 1;
    first_failing.store(first, std::memory_order_release);
}

void fail_nothing() {
    first_failing = -1;
}

std::string failed_at() {
    std::string text = hit.load() != nullptr ? hit.load() : "";
    int length = trace_length;
    char** lines = backtrace_symbols(trace, length);
    for (int i = 1; lines != nullptr && i < length; i++) {
        text += std::string("\n    ") + lines[i];
    }
    free(lines);
    return text;
}

resources count_resources() {
    resources now;
    // Every number: listing /proc/self/fd would open a descriptor beside those of other threads.
    pollfd all[128];
    for (int fd = 0; fd < 128; fd++) {
        all[fd] = {fd, 0, 0};
    }
    poll(all, 128, 0);
    for (const pollfd& one : all) {
        now.descriptors += (one.revents & POLLNVAL) == 0 ? 1 : 0;
    }
    now.blocks = live_blocks;
    return now;
}

// Not with opendir: libuv closes sockets behind the thread sanitizer's back, which then takes the
// descriptor's next use on this thread for a race.
std::set<std::string> list_files(const std::string& folder) {
    static std::set<std::string> files;
    files.clear();
    auto note = [](const char* path, const struct stat*, int kind, FTW*) {
        if (kind != FTW_D && kind != FTW_NS) {
            files.insert(path);
        }
        return 0;
    };
    nftw(folder.c_str(), note, 8, FTW_PHYS);
    return files;
}

void remove_folder(const std::string& folder) {
    auto remove_entry = [](const char* path, const struct stat*, int, FTW*) {
        return remove(path);
    };
    nftw(folder.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS);
}

void* new_block(std::size_t size) {
    return counted(calloc(1, size));
}

void free_block(void* block) {
    live_blocks -= block != nullptr ? 1 : 0;
    free(block);
}

// ------------------------------------------------------------------------------ clock and names

void advance_clock(int seconds) {
    clock_offset += seconds;
    if (!is_loop_thread()) {
        on_loop([] {});  // the loop sleeps by the real clock
    }
}

int seconds_until(const std::function<bool()>& condition) {
    int seconds = 0;
    for (; seconds < 1000 && !condition(); seconds++) {
        advance_clock(1);
        wait_until(condition, milliseconds(0));
        usleep(1000);
    }
    return seconds;
}

void set_name(const std::string& name, std::vector<std::string> addresses) {
    std::lock_guard<std::mutex> lock(all_names().mutex);
    all_names().addresses[name] = std::move(addresses);
}

int hanging_lookups() {
    std::lock_guard<std::mutex> lock(all_names().mutex);
    return all_names().hanging;
}

void release_lookups() {
    std::lock_guard<std::mutex> lock(all_names().mutex);
    all_names().released = true;
    all_names().changed.notify_all();
}

held_lookups::held_lookups() {
    std::lock_guard<std::mutex> lock(all_names().mutex);
    all_names().released = false;
}

namespace {

addrinfo* make_address(const std::string& text) {
    bool is6 = text.find(':') != std::string::npos;
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
    entry->ai_addrlen = is6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    entry->ai_addr = address;
    return entry;
}

}  // namespace

extern "C" int clock_gettime(clockid_t id, struct timespec* now) noexcept {
    int result = static_cast<int>(syscall(SYS_clock_gettime, id, now));
    if (result == 0 && id != CLOCK_REALTIME) {
        now->tv_sec += clock_offset.load();
    }
    return result;
}

extern "C" int getaddrinfo(const char* node, const char*, const struct addrinfo*,
                           struct addrinfo** result) {
    std::vector<std::string> addresses{node};
    {
        names& all = all_names();
        std::unique_lock<std::mutex> lock(all.mutex);
        if (std::string(node) == "hang") {
            all.hanging++;
            all.changed.wait(lock, [&] { return all.released; });
            all.hanging--;
        }
        auto known = all.addresses.find(node);
        addresses = known != all.addresses.end() ? known->second : addresses;
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

extern "C" void freeaddrinfo(struct addrinfo* list) noexcept {
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        free(list);
        list = next;
    }
}

blackhole::blackhole() {
    auto& number = const_cast<std::uint16_t&>(port);
    sockets_.push_back(bind_loopback(false, &number));
    EXPECT_EQ(0, listen(sockets_[0], 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Loopback handshakes finish inside connect: the first one that is still pending after a
    // moment says that the queue is full.
    for (int ready = 1; ready != 0 && sockets_.size() < 16;) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockets_.push_back(fd);
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        pollfd wait = {fd, POLLOUT, 0};
        ready = poll(&wait, 1, 50);
    }
}

blackhole::~blackhole() {
    std::for_each(sockets_.begin(), sockets_.end(), close);
}

// ------------------------------------------------------------------- the library's calls, by name

#undef socket
// Each stands in for the library's undefined reference to the function of that name.
#define WRAPPER(type, name, failure, parameters, arguments)                                        \
    extern "C" type __wrap_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        return fails(#name) ? (failure) : name arguments;                                          \
    }
#define WRAP0(type, name, failure) WRAPPER(type, name, failure, (), ())
#define WRAP1(type, name, failure, A) WRAPPER(type, name, failure, (A a), (a))
#define WRAP2(type, name, failure, A, B) WRAPPER(type, name, failure, (A a, B b), (a, b))
#define WRAP3(type, name, failure, A, B, C) WRAPPER(type, name, failure, (A a, B b, C c), (a, b, c))
#define WRAP4(type, name, failure, A, B, C, D)                                                     \
    WRAPPER(type, name, failure, (A a, B b, C c, D d), (a, b, c, d))
#define WRAP5(type, name, failure, A, B, C, D, E)                                                  \
    WRAPPER(type, name, failure, (A a, B b, C c, D d, E e), (a, b, c, d, e))
#define WRAP6(type, name, failure, A, B, C, D, E, F)                                               \
    WRAPPER(type, name, failure, (A a, B b, C c, D d, E e, F f), (a, b, c, d, e, f))
#define WRAP7(type, name, failure, A, B, C, D, E, F, G)                                            \
    WRAPPER(type, name, failure, (A a, B b, C c, D d, E e, F f, G g), (a, b, c, d, e, f, g))

extern "C" {
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
char* __wrap_strdup(const char* text);
void __wrap_free(void* block);
int __wrap_open64(const char* path, int flags, ...);
int __wrap_fclose(FILE* file);
int __wrap_uv_write(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers,
                    unsigned count, uv_write_cb callback);

void* __wrap_malloc(size_t size) {
    return fails("malloc") ? nullptr : counted(malloc(size));
}

void* __wrap_calloc(size_t count, size_t size) {
    return fails("calloc") ? nullptr : counted(calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size) {
    if (fails("realloc")) {
        return nullptr;
    }
    return block == nullptr ? counted(malloc(size)) : realloc(block, size);
}

char* __wrap_strdup(const char* text) {
    return fails("strdup") ? nullptr : static_cast<char*>(counted(strdup(text)));
}

void __wrap_free(void* block) {
    int error = errno;
    free_block(block);
    errno = error;
}

// With 64-bit file offsets the C library's headers refer to this name, and to others below.
int __wrap_open64(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    unsigned mode = (flags & O_CREAT) != 0 ? va_arg(more, unsigned) : 0;
    va_end(more);
    return fails("open64") ? -1 : open64(path, flags, mode);
}

// The stream is gone even when the close fails.
int __wrap_fclose(FILE* file) {
    bool failing = fails("fclose");
    int result = fclose(file);
    errno = failing ? ENOSPC : errno;
    return failing ? EOF : result;
}

static uv_write_cb failing_callback;

int __wrap_uv_write(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers,
                    unsigned count, uv_write_cb callback) {
    if (fails("uv_write")) {
        return UV_ENOMEM;
    }
    if (fails("uv_write callback")) {
        failing_callback = callback;
        callback = [](uv_write_t* own, int) { failing_callback(own, UV_EPIPE); };
    }
    return uv_write(request, stream, buffers, count, callback);
}
}

// Most steps find a worker waiting, so that the pool's refusal is met by few of them.
extern "C" int _Z17queue_worker_stepP11worker_stepPFvS0_EPFvS0_iE(worker_step*, worker_function,
                                                                  after_worker_function);
WRAP3(int, _Z17queue_worker_stepP11worker_stepPFvS0_EPFvS0_iE, UV_ENOMEM, worker_step*,
      worker_function, after_worker_function)
WRAP0(uv_loop_t*, uv_loop_new, nullptr)
WRAP3(int, uv_thread_create, UV_EAGAIN, uv_thread_t*, uv_thread_cb, void*)
WRAP2(int, uv_sem_init, UV_ENOMEM, uv_sem_t*, unsigned)
WRAP1(int, uv_mutex_init, UV_ENOMEM, uv_mutex_t*)
WRAP1(int, uv_rwlock_init, UV_ENOMEM, uv_rwlock_t*)
WRAP3(int, uv_async_init, UV_EMFILE, uv_loop_t*, uv_async_t*, uv_async_cb)
WRAP1(int, uv_async_send, UV_EINVAL, uv_async_t*)
WRAP2(int, uv_timer_init, UV_ENOMEM, uv_loop_t*, uv_timer_t*)
WRAP4(int, uv_timer_start, UV_EINVAL, uv_timer_t*, uv_timer_cb, uint64_t, uint64_t)
WRAP4(int, uv_queue_work, UV_ENOMEM, uv_loop_t*, uv_work_t*, uv_work_cb, uv_after_work_cb)
WRAP1(int, uv_cancel, UV_EBUSY, uv_req_t*)
WRAP6(int, uv_getaddrinfo, UV_ENOMEM, uv_loop_t*, uv_getaddrinfo_t*, uv_getaddrinfo_cb, const char*,
      const char*, const struct addrinfo*)
WRAP2(int, uv_tcp_init, UV_ENOMEM, uv_loop_t*, uv_tcp_t*)
WRAP2(int, uv_tcp_open, UV_EINVAL, uv_tcp_t*, uv_os_sock_t)
WRAP3(int, uv_tcp_bind, UV_EINVAL, uv_tcp_t*, const struct sockaddr*, unsigned)
WRAP2(int, uv_tcp_nodelay, UV_EINVAL, uv_tcp_t*, int)
WRAP4(int, uv_tcp_connect, UV_ENETUNREACH, uv_connect_t*, uv_tcp_t*, const struct sockaddr*,
      uv_connect_cb)
WRAP2(int, uv_recv_buffer_size, UV_EINVAL, uv_handle_t*, int*)
WRAP3(int, uv_read_start, UV_ENOTCONN, uv_stream_t*, uv_alloc_cb, uv_read_cb)
WRAP7(int, uv_fs_read, UV_ENOMEM, uv_loop_t*, uv_fs_t*, uv_file, const uv_buf_t*, unsigned, int64_t,
      uv_fs_cb)
WRAP5(int, uv_fs_rename, UV_ENOMEM, uv_loop_t*, uv_fs_t*, const char*, const char*, uv_fs_cb)
WRAP4(int, uv_fs_unlink, UV_ENOMEM, uv_loop_t*, uv_fs_t*, const char*, uv_fs_cb)

WRAP1(SSL_CTX*, SSL_CTX_new, nullptr, const SSL_METHOD*)
WRAP1(SSL*, SSL_new, nullptr, SSL_CTX*)
WRAP1(BIO*, BIO_new, nullptr, const BIO_METHOD*)
WRAP3(int, BIO_write, -1, BIO*, const void*, int)
WRAP3(int, BIO_read, -1, BIO*, void*, int)
WRAP1(int, SSL_connect, -1, SSL*)
WRAP3(int, SSL_read, -1, SSL*, void*, int)
WRAP3(int, SSL_write, -1, SSL*, const void*, int)
WRAP1(X509*, SSL_get1_peer_certificate, nullptr, const SSL*)
WRAP0(EVP_MD_CTX*, EVP_MD_CTX_new, nullptr)
WRAP3(int, EVP_DigestInit_ex, 0, EVP_MD_CTX*, const EVP_MD*, ENGINE*)
WRAP3(int, EVP_DigestUpdate, 0, EVP_MD_CTX*, const void*, size_t)
WRAP3(int, EVP_DigestFinal_ex, 0, EVP_MD_CTX*, unsigned char*, unsigned*)
WRAP3(int, inflateInit_, Z_MEM_ERROR, z_stream*, const char*, int)
WRAP4(int, inflateInit2_, Z_MEM_ERROR, z_stream*, int, const char*, int)
WRAP2(int, inflate, Z_MEM_ERROR, z_stream*, int)

WRAP2(FILE*, fdopen, nullptr, int, const char*)
WRAP3(int, fseeko64, -1, FILE*, off64_t, int)
WRAP1(off64_t, ftello64, -1, FILE*)
WRAP2(int, ftruncate64, -1, int, off64_t)
WRAP2(int, fstat64, -1, int, struct stat64*)
WRAP2(int, stat64, -1, const char*, struct stat64*)
WRAP4(size_t, fwrite, 0, const void*, size_t, size_t, FILE*)
WRAP1(int, fflush, EOF, FILE*)
WRAP3(int, fseek, -1, FILE*, long, int)
WRAP4(int, setvbuf, -1, FILE*, char*, int, size_t)
WRAP1(int, unlink, -1, const char*)
WRAP2(int, mkdir, -1, const char*, mode_t)
WRAP2(int, access, -1, const char*, int)
WRAP3(int, socket, -1, int, int, int)
