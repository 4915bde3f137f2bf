#include "tests/fault/fault_wrap.h"

#include <execinfo.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>

#include "tavhttpclient/worker.h"

namespace {

constexpr int trace_depth = 24;

std::atomic<bool> armed{false};
std::atomic<long> calls{0};
std::atomic<long> target{0};
std::atomic<const char*> only_function{nullptr};
std::atomic<const char*> hit{nullptr};
std::atomic<long> live_blocks{0};
void* trace[trace_depth];
std::atomic<int> trace_length{0};

bool fails(const char* function) {
    if (!armed.load(std::memory_order_relaxed)) {
        return false;
    }
    const char* only = only_function;
    if (only != nullptr && strcmp(only, function) != 0) {
        return false;
    }
    if (++calls != target) {
        return false;
    }
    trace_length = backtrace(trace, trace_depth);
    hit = function;
    return true;
}

bool fails_with(const char* function, int error) {
    if (!fails(function)) {
        return false;
    }
    errno = error;
    return true;
}

void* counted(void* block) {
    live_blocks += block != nullptr ? 1 : 0;
    return block;
}

}  // namespace

void fault_arm(long new_target, const char* only) {
    calls = 0;
    hit = nullptr;
    trace_length = 0;
    only_function = only;
    target = new_target;
    armed = true;
}

void fault_disarm() {
    armed = false;
}

long fault_calls() {
    return calls;
}

const char* fault_hit() {
    return hit;
}

std::string fault_trace() {
    std::string text;
    int length = trace_length;
    char** lines = backtrace_symbols(trace, length);
    for (int i = 1; lines != nullptr && i < length; i++) {
        text += std::string("    ") + lines[i] + "\n";
    }
    free(lines);
    return text;
}

long fault_live_blocks() {
    return live_blocks;
}

// Each wrapper stands in for the library's undefined reference to the function of that name.
#define WRAP(type, name, parameters, arguments, failure)                                           \
    extern "C" type __wrap_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        return fails(#name) ? (failure) : name arguments;                                          \
    }
#define WRAP_ERRNO(type, name, parameters, arguments, failure, error)                              \
    extern "C" type __wrap_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        return fails_with(#name, error) ? (failure) : name arguments;                              \
    }

// ------------------------------------------------------------------------------------- memory

extern "C" {
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
char* __wrap_strdup(const char* text);
void __wrap_free(void* block);

void* __wrap_malloc(size_t size) {
    return fails_with("malloc", ENOMEM) ? nullptr : counted(malloc(size));
}

void* __wrap_calloc(size_t count, size_t size) {
    return fails_with("calloc", ENOMEM) ? nullptr : counted(calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size) {
    if (fails_with("realloc", ENOMEM)) {
        return nullptr;
    }
    return block == nullptr ? counted(malloc(size)) : realloc(block, size);
}

char* __wrap_strdup(const char* text) {
    return fails_with("strdup", ENOMEM) ? nullptr : (char*)counted(strdup(text));
}

void __wrap_free(void* block) {
    live_blocks -= block != nullptr ? 1 : 0;
    int error = errno;
    free(block);
    errno = error;
}
}

// -------------------------------------------------------------------------------------- libuv

WRAP(uv_loop_t*, uv_loop_new, (void), (), nullptr)
WRAP(int, uv_thread_create, (uv_thread_t * thread, uv_thread_cb entry, void* argument),
     (thread, entry, argument), UV_EAGAIN)
WRAP(int, uv_sem_init, (uv_sem_t * semaphore, unsigned value), (semaphore, value), UV_ENOMEM)
WRAP(int, uv_mutex_init, (uv_mutex_t * mutex), (mutex), UV_ENOMEM)
WRAP(int, uv_rwlock_init, (uv_rwlock_t * lock), (lock), UV_ENOMEM)
WRAP(int, uv_async_init, (uv_loop_t * loop, uv_async_t* async, uv_async_cb callback),
     (loop, async, callback), UV_EMFILE)
WRAP(int, uv_async_send, (uv_async_t * async), (async), UV_EINVAL)
WRAP(int, uv_timer_init, (uv_loop_t * loop, uv_timer_t* timer), (loop, timer), UV_ENOMEM)
WRAP(int, uv_timer_start,
     (uv_timer_t * timer, uv_timer_cb callback, uint64_t timeout, uint64_t repeat),
     (timer, callback, timeout, repeat), UV_EINVAL)
WRAP(int, uv_queue_work,
     (uv_loop_t * loop, uv_work_t* work, uv_work_cb callback, uv_after_work_cb after),
     (loop, work, callback, after), UV_ENOMEM)
// Most steps find a worker waiting, so that the pool's refusal above is met by few of them.
extern "C" int
__wrap__Z17queue_worker_stepP11worker_stepPFvS0_EPFvS0_iE(worker_step* step, worker_function work,
                                                          after_worker_function after);
extern "C" int
__wrap__Z17queue_worker_stepP11worker_stepPFvS0_EPFvS0_iE(worker_step* step, worker_function work,
                                                          after_worker_function after) {
    return fails("queue_worker_step") ? UV_ENOMEM : queue_worker_step(step, work, after);
}
WRAP(int, uv_cancel, (uv_req_t * request), (request), UV_EBUSY)
WRAP(int, uv_getaddrinfo,
     (uv_loop_t * loop, uv_getaddrinfo_t* request, uv_getaddrinfo_cb callback, const char* node,
      const char* service, const struct addrinfo* hints),
     (loop, request, callback, node, service, hints), UV_ENOMEM)
WRAP(int, uv_tcp_init, (uv_loop_t * loop, uv_tcp_t* tcp), (loop, tcp), UV_ENOMEM)
WRAP(int, uv_tcp_open, (uv_tcp_t * tcp, uv_os_sock_t sock), (tcp, sock), UV_EINVAL)
WRAP(int, uv_tcp_bind, (uv_tcp_t * tcp, const struct sockaddr* address, unsigned flags),
     (tcp, address, flags), UV_EADDRINUSE)
WRAP(int, uv_tcp_nodelay, (uv_tcp_t * tcp, int enable), (tcp, enable), UV_EINVAL)
WRAP(int, uv_tcp_connect,
     (uv_connect_t * request, uv_tcp_t* tcp, const struct sockaddr* address,
      uv_connect_cb callback),
     (request, tcp, address, callback), UV_ENETUNREACH)
WRAP(int, uv_recv_buffer_size, (uv_handle_t * handle, int* value), (handle, value), UV_EINVAL)
WRAP(int, uv_read_start, (uv_stream_t * stream, uv_alloc_cb alloc, uv_read_cb callback),
     (stream, alloc, callback), UV_ENOTCONN)
WRAP(int, uv_write,
     (uv_write_t * request, uv_stream_t* stream, const uv_buf_t buffers[], unsigned count,
      uv_write_cb callback),
     (request, stream, buffers, count, callback), UV_ENOMEM)
WRAP(int, uv_fs_read,
     (uv_loop_t * loop, uv_fs_t* request, uv_file file, const uv_buf_t buffers[], unsigned count,
      int64_t offset, uv_fs_cb callback),
     (loop, request, file, buffers, count, offset, callback), UV_ENOMEM)
WRAP(int, uv_fs_rename,
     (uv_loop_t * loop, uv_fs_t* request, const char* path, const char* new_path,
      uv_fs_cb callback),
     (loop, request, path, new_path, callback), UV_ENOMEM)
WRAP(int, uv_fs_unlink, (uv_loop_t * loop, uv_fs_t* request, const char* path, uv_fs_cb callback),
     (loop, request, path, callback), UV_ENOMEM)

// ---------------------------------------------------------------------------------- TLS, zlib

WRAP(SSL_CTX*, SSL_CTX_new, (const SSL_METHOD* method), (method), nullptr)
WRAP(SSL*, SSL_new, (SSL_CTX * context), (context), nullptr)
WRAP(BIO*, BIO_new, (const BIO_METHOD* method), (method), nullptr)
WRAP(int, BIO_write, (BIO * bio, const void* data, int length), (bio, data, length), -1)
WRAP(int, BIO_read, (BIO * bio, void* data, int length), (bio, data, length), -1)
WRAP(int, SSL_connect, (SSL * ssl), (ssl), -1)
WRAP(int, SSL_read, (SSL * ssl, void* data, int length), (ssl, data, length), -1)
WRAP(int, SSL_write, (SSL * ssl, const void* data, int length), (ssl, data, length), -1)
WRAP(X509*, SSL_get1_peer_certificate, (const SSL* ssl), (ssl), nullptr)
WRAP(EVP_MD_CTX*, EVP_MD_CTX_new, (void), (), nullptr)
WRAP(int, EVP_DigestInit_ex, (EVP_MD_CTX * context, const EVP_MD* kind, ENGINE* engine),
     (context, kind, engine), 0)
WRAP(int, EVP_DigestUpdate, (EVP_MD_CTX * context, const void* data, size_t length),
     (context, data, length), 0)
WRAP(int, EVP_DigestFinal_ex, (EVP_MD_CTX * context, unsigned char* digest, unsigned* length),
     (context, digest, length), 0)
WRAP(int, inflateInit2_, (z_stream * stream, int bits, const char* version, int size),
     (stream, bits, version, size), Z_MEM_ERROR)
WRAP(int, inflate, (z_stream * stream, int flush), (stream, flush), Z_MEM_ERROR)

// ------------------------------------------------------------------------------ files, sockets

// With 64-bit file offsets the C library's headers refer to these names.
WRAP_ERRNO(int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE)
WRAP_ERRNO(FILE*, fdopen, (int file, const char* mode), (file, mode), nullptr, ENOMEM)
WRAP_ERRNO(int, fseeko64, (FILE * file, off64_t offset, int origin), (file, offset, origin), -1,
           EIO)
WRAP_ERRNO(off64_t, ftello64, (FILE * file), (file), -1, EIO)
WRAP_ERRNO(int, ftruncate64, (int file, off64_t size), (file, size), -1, EIO)
WRAP_ERRNO(int, fstat64, (int file, struct stat64* status), (file, status), -1, EIO)
WRAP_ERRNO(int, stat64, (const char* path, struct stat64* status), (path, status), -1, EIO)
WRAP_ERRNO(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file),
           (data, size, count, file), 0, ENOSPC)
WRAP_ERRNO(int, fflush, (FILE * file), (file), EOF, ENOSPC)
WRAP_ERRNO(int, fseek, (FILE * file, long offset, int origin), (file, offset, origin), -1, EIO)
WRAP_ERRNO(int, setvbuf, (FILE * file, char* buffer, int mode, size_t size),
           (file, buffer, mode, size), -1, ENOMEM)
WRAP_ERRNO(int, unlink, (const char* path), (path), -1, EIO)
WRAP_ERRNO(int, mkdir, (const char* path, mode_t mode), (path, mode), -1, ENOSPC)
WRAP_ERRNO(int, access, (const char* path, int mode), (path, mode), -1, EIO)
WRAP_ERRNO(int, socket, (int family, int type, int protocol), (family, type, protocol), -1, EMFILE)

extern "C" int __wrap_fclose(FILE* file);

// The stream is gone even when the close fails.
extern "C" int __wrap_fclose(FILE* file) {
    bool failing = fails("fclose");
    int result = fclose(file);
    if (failing) {
        errno = ENOSPC;
        return EOF;
    }
    return result;
}
