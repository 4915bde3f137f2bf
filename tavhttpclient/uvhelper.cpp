// Resolve and connect within a time budget:
//
//   uv_connect_timeout -> _start_dns -> (_on_dns_timeout) | _on_dns_result -> _start_connect
//     -> _on_connect_result, once per attempt (_on_connect_timeout cancels them)
//     -> (_on_stalled_check) -> _notify_uv_connect_timeout_result -> callback
//
// Read one chunk with a time-out:
//
//   uv_recv_timeout -> _uv_recv_alloc -> _uv_recv_result | _uv_recv_timeout -> recv_callback
#include "tavhttpclient/uvhelper.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_time.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/nonlspsocket.h"

#define SOCKET_RECV_BUFFER 65536
#define RECV_CHUNK 32768
#define RECV_TIMEOUT 30000        // ms
#define MIN_CONNECT_TIMEOUT 1000  // ms
#define STALLED_INTERVAL 100      // ms

// One connect operation; made by uv_connect_timeout, freed when it has been reported. Loop thread,
// except that an abandoned record belongs to whoever runs the abandoned loop.
struct uv_connect_ctx {
    list_link link;  // in _live_contexts, or in _abandoned_contexts
    char* host;
    uint16_t port;
    int32_t timeout;  // ms for resolution and connect together; 0 or less: none
    void* user_data;
    uv_connect_timeout_cb callback;  // null: reported
    uv_connect_cancel_probe probe;   // may be null
    struct sockaddr_in addr4;        // zero: there is none
    struct sockaddr_in6 addr6;
    uint64_t dns_start_time;  // tick counts
    uint64_t dns_end_time;
    uint64_t connect_start_time;
    uint64_t connect_end_time;
    uv_tcp_t* tcp4;  // null: none, closed or handed out
    uv_tcp_t* tcp6;
    uv_timer_t* timer;  // for the resolution, then for the connect
    uv_getaddrinfo_t* dns_req;
    uv_connect_t* connect_req4;  // null: not attempted or completed
    uv_connect_t* connect_req6;
    uint8_t started4;  // libuv took connect_req4, so its result will come
    uint8_t started6;
    uint8_t dns_pending;  // the result of dns_req will come
    uint8_t abandoned;    // the loop ended before that
};
LIST_ENTRY_CHECK(uv_connect_ctx);

static list_link _live_contexts = {&_live_contexts, &_live_contexts};

// Under the mutex: lookups of loops that have ended may come back while another loop runs.
static list_link _abandoned_contexts = {&_abandoned_contexts, &_abandoned_contexts};
static uv_once_t _abandoned_once = UV_ONCE_INIT;
static uv_mutex_t _abandoned_mutex;

// The loop that ran the latest lookup, to tell its abandoned lookups from those of earlier loops.
static uv_loop_t* _lookup_loop = nullptr;

static void _init_abandoned_mutex(void) {
    while (uv_mutex_init(&_abandoned_mutex) != 0) {
        uv_sleep(1);  // The end of the loop cannot fail.
    }
}

// ------------------------------------------------------------------------- connect: the record

static void _free_connect_ctx(uv_connect_ctx* ctx) {
    if (ctx->abandoned != 0) {
        uv_mutex_lock(&_abandoned_mutex);
        list_unlink(&ctx->link);
        uv_mutex_unlock(&_abandoned_mutex);
    } else {
        list_unlink(&ctx->link);
    }
    free(ctx->host);
    close_uv_tcp(&ctx->tcp4);
    close_uv_tcp(&ctx->tcp6);
    close_uv_timer(&ctx->timer);
    free(ctx->dns_req);
    free(ctx->connect_req4);
    free(ctx->connect_req6);
    free(ctx);
}

static bool _is_cancelled(const uv_connect_ctx* ctx) {
    return ctx->probe != nullptr && ctx->probe(ctx->user_data);
}

static uint32_t _ticks_since(uint64_t start) {
    return (uint32_t)(GetTickCount() - start);
}

// Texts of both addresses for a log line; an absent one is the all-zero address.
struct address_texts {
    char ip4[64];
    char ip6[64];
};

static void _format_addresses(const struct sockaddr_in* addr4, const struct sockaddr_in6* addr6,
                              address_texts* texts) {
    memset(texts, 0, sizeof(*texts));
    uv_ip4_name(addr4, texts->ip4, sizeof(texts->ip4));
    uv_ip6_name(addr6, texts->ip6, sizeof(texts->ip6));
}

// The address to report: of the connection that won, else of the attempt that was made.
static void _copy_result_address(const uv_connect_ctx* ctx, const uv_tcp_t* tcp,
                                 struct sockaddr_storage* address) {
    memset(address, 0, sizeof(*address));
    bool use4 = tcp != nullptr ? tcp == ctx->tcp4 : ctx->addr4.sin_family == AF_INET;
    if (use4) {
        memcpy(address, &ctx->addr4, sizeof(ctx->addr4));
    } else {
        memcpy(address, &ctx->addr6, sizeof(ctx->addr6));
    }
}

// The one exit of the operation, except for a resolution time-out. Frees the record.
static void _notify_uv_connect_timeout_result(uv_connect_ctx* ctx, uint32_t status) {
    uv_connect_timeout_cb callback = ctx->callback;
    void* user_data = ctx->user_data;
    struct sockaddr_storage address;
    uv_tcp_t* tcp = nullptr;

    ctx->callback = nullptr;
    if (status == TAV_HTTP_ERROR_CODE_OK) {
        tcp = ctx->tcp4 != nullptr ? ctx->tcp4 : ctx->tcp6;
    }
    _copy_result_address(ctx, tcp, &address);
    if (tcp != nullptr && tcp == ctx->tcp4) {
        ctx->tcp4 = nullptr;
    } else if (tcp != nullptr) {
        ctx->tcp6 = nullptr;
    }
    _free_connect_ctx(ctx);
    if (callback != nullptr) {
        callback(status, tcp, &address, user_data);
    }
}

// --------------------------------------------------------------------- connect: end of the race

// Loop thread, timer. Only an attempt that libuv refused is left: nothing will ever come back, so
// the operation ends when its user has been cancelled.
static void _on_stalled_check(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    if (!_is_cancelled(ctx) && arm_uv_timer(timer, _on_stalled_check, STALLED_INTERVAL) == 0) {
        return;
    }
    close_uv_tcp(&ctx->tcp4);
    close_uv_tcp(&ctx->tcp6);
    _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
}

static bool _is_attempt_running(const uv_connect_ctx* ctx) {
    return (ctx->connect_req4 != nullptr && ctx->started4 != 0) ||
           (ctx->connect_req6 != nullptr && ctx->started6 != 0);
}

static void _wait_connect_complete(uv_connect_ctx* ctx, int status) {
    LOG_INFO("_on_connect_result, wait connect complete, ctx=%p, host=%s, status=%d, conn4=%p, "
             "conn6=%p",
             (void*)ctx, ctx->host, status, (void*)ctx->connect_req4, (void*)ctx->connect_req6);
    if (_is_attempt_running(ctx)) {
        return;
    }
    if (arm_uv_timer(ctx->timer, _on_stalled_check, STALLED_INTERVAL) != 0) {
        // Without the timer not even a cancel could end it.
        close_uv_tcp(&ctx->tcp4);
        close_uv_tcp(&ctx->tcp6);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
    }
}

static void _finish_connect(uv_connect_ctx* ctx, int status) {
    address_texts texts;
    ctx->connect_end_time = GetTickCount();
    uint32_t elapsed = (uint32_t)(ctx->connect_end_time - ctx->connect_start_time);
    _format_addresses(&ctx->addr4, &ctx->addr6, &texts);
    if (ctx->tcp4 == nullptr && ctx->tcp6 == nullptr) {
        LOG_INFO("_on_connect_result, failed, ctx=%p, status=%d, host=%s, ip4=%s, ip6=%s, "
                 "time=%u ms",
                 (void*)ctx, status, ctx->host, texts.ip4, texts.ip6, elapsed);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    LOG_INFO("_on_connect_result, success, ctx=%p, host=%s, ip4=%s, ip6=%s, time=%u ms", (void*)ctx,
             ctx->host, texts.ip4, texts.ip6, elapsed);
    _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_OK);
}

// Loop thread. From _start_connect, once per attempt that was started; next _finish_connect.
static void _on_connect_result(uv_connect_t* request, int status) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)request->data;
    bool is_ipv4 = request == ctx->connect_req4;
    uv_tcp_t** own = is_ipv4 ? &ctx->tcp4 : &ctx->tcp6;
    uv_tcp_t** other = is_ipv4 ? &ctx->tcp6 : &ctx->tcp4;

    // The first result ends the connect time-out for the other attempt too.
    stop_uv_timer(ctx->timer);
    if (is_ipv4) {
        ctx->connect_req4 = nullptr;
    } else {
        ctx->connect_req6 = nullptr;
    }
    free(request);

    // An attempt whose handle was closed has lost, whatever its result says.
    if (status == 0 && *own == nullptr) {
        status = UV_ECANCELED;
    }
    if (status == 0) {
        close_uv_tcp(other);
    } else {
        if (is_ipv4) {
            LOG_INFO("_on_connect_result, ipv4 connect fail, host=%s, status=%d", ctx->host,
                     status);
        } else {
            LOG_INFO("_on_connect_result, ipv6 connect fail, host=%s, status=%d", ctx->host,
                     status);
        }
        close_uv_tcp(own);
    }

    if (ctx->connect_req4 != nullptr || ctx->connect_req6 != nullptr) {
        _wait_connect_complete(ctx, status);
        return;
    }
    _finish_connect(ctx, status);
}

// Loop thread, timer. From _start_connect; the closes bring each attempt to _on_connect_result.
static void _on_connect_timeout(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    address_texts texts;
    uv_timer_stop(timer);
    _format_addresses(&ctx->addr4, &ctx->addr6, &texts);
    LOG_INFO("_on_connect_timeout, ctx=%p, host=%s, ip4=%s, ip6=%s, conn4=%p, conn6=%p, "
             "time=%u ms",
             (void*)ctx, ctx->host, texts.ip4, texts.ip6, (void*)ctx->connect_req4,
             (void*)ctx->connect_req6, _ticks_since(ctx->connect_start_time));
    close_uv_tcp(&ctx->tcp4);
    close_uv_tcp(&ctx->tcp6);
}

// --------------------------------------------------------------------- connect: start of the race

// A new handle of one family in `*tcp`, which stays null on failure.
static void _open_tcp(uv_loop_t* loop, int32_t family, uv_tcp_t** tcp) {
    uv_tcp_t* handle = (uv_tcp_t*)calloc(1, sizeof(uv_tcp_t));
    bool initialised = false;
    int size = SOCKET_RECV_BUFFER;
    if (handle == nullptr || uv_client_tcp_init(loop, handle, family, &initialised) != 0) {
        LOG_INFO("_start_connect, uv_client_tcp_init failed.");
        // A handle that the loop knows may be freed only after its close.
        if (initialised) {
            close_uv_tcp(&handle);
        } else {
            free(handle);
        }
        return;
    }
    uv_recv_buffer_size((uv_handle_t*)handle, &size);
    *tcp = handle;
}

// Returns libuv's result; -1 stands for an attempt that was not made.
static int _start_attempt(uv_connect_ctx* ctx, uv_tcp_t* tcp, const struct sockaddr* address,
                          uv_connect_t** request, uint8_t* started) {
    if (tcp == nullptr) {
        return -1;
    }
    *request = (uv_connect_t*)calloc(1, sizeof(uv_connect_t));
    if (*request == nullptr) {
        return UV_ENOMEM;
    }
    (*request)->data = ctx;
    int result = uv_tcp_connect(*request, tcp, address, _on_connect_result);
    *started = result == 0 ? 1 : 0;
    return result;
}

static uint32_t _resolution_time(const uv_connect_ctx* ctx) {
    uint64_t start = ctx->dns_start_time;
    uint64_t end = ctx->dns_end_time;
    if (start == 0 && end == 0) {
        return 0;
    }
    if (!LOG_ASSERT_IN("_start_connect", start != 0 && end != 0 && end >= start)) {
        return 0;
    }
    return (uint32_t)(end - start);
}

// Starts the connect time-out: what the resolution left of the budget.
static void _start_connect_timer(uv_connect_ctx* ctx, int result4, int result6,
                                 uint32_t entry_time) {
    if (ctx->timeout <= 0) {
        LOG_INFO("_start_connect, without timeout, ctx=%p, host=%s, ipv4=%d, ipv6=%d, "
                 "use-time=%u ms",
                 (void*)ctx, ctx->host, result4, result6, _ticks_since(entry_time));
        return;
    }
    int64_t rest = (int64_t)ctx->timeout - _resolution_time(ctx);
    uint32_t timeout = rest < MIN_CONNECT_TIMEOUT ? MIN_CONNECT_TIMEOUT : (uint32_t)rest;
    if (arm_uv_timer(ctx->timer, _on_connect_timeout, timeout) != 0) {
        LOG_INFO("_start_connect, uv_timer_start failed.");
    }
    LOG_INFO("_start_connect, ctx=%p, timeout=%u ms, host=%s, ipv4=%d, ipv6=%d, conn4=%p, "
             "conn6=%p, use-time=%u ms",
             (void*)ctx, timeout, ctx->host, result4, result6, (void*)ctx->connect_req4,
             (void*)ctx->connect_req6, _ticks_since(entry_time));
}

// The handles and addresses of both attempts. An address is kept without its handle too, so that a
// failure can name it.
static void _open_handles(uv_connect_ctx* ctx, uv_loop_t* loop, const struct sockaddr_in* found4,
                          const struct sockaddr_in6* found6) {
    if (found4->sin_family == AF_INET) {
        _open_tcp(loop, AF_INET, &ctx->tcp4);
        ctx->addr4 = *found4;
        ctx->addr4.sin_port = htons(ctx->port);
    }
    if (found6->sin6_family == AF_INET6) {
        _open_tcp(loop, AF_INET6, &ctx->tcp6);
        ctx->addr6 = *found6;
        ctx->addr6.sin6_port = htons(ctx->port);
    }
}

// Loop thread. From _on_dns_result; next _on_connect_result or _on_connect_timeout.
static void _start_connect(uv_connect_ctx* ctx, const struct sockaddr_in* found4,
                           const struct sockaddr_in6* found6) {
    uint32_t entry_time = GetTickCount();
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        LOG_ERROR("_start_connect, get_uv_loop failed.");
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
        return;
    }
    if (_is_cancelled(ctx)) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    _open_handles(ctx, loop, found4, found6);
    if (ctx->tcp4 == nullptr && ctx->tcp6 == nullptr) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CREATE_SOCKET);
        return;
    }

    int result4 = _start_attempt(ctx, ctx->tcp4, (const struct sockaddr*)&ctx->addr4,
                                 &ctx->connect_req4, &ctx->started4);
    int result6 = _start_attempt(ctx, ctx->tcp6, (const struct sockaddr*)&ctx->addr6,
                                 &ctx->connect_req6, &ctx->started6);
    if (result4 != 0 && result6 != 0) {
        LOG_INFO("_start_connect, uv_tcp_connect failed, host=%s.", ctx->host);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    if (ctx->timer == nullptr) {
        ctx->timer = new_uv_timer(loop, ctx);
    }
    _start_connect_timer(ctx, result4, result6, entry_time);
    ctx->connect_start_time = GetTickCount();
}

// ------------------------------------------------------------------------- connect: resolution

// The first address of each family, in the resolver's order.
static void _pick_addresses(const struct addrinfo* list, struct sockaddr_in* found4,
                            struct sockaddr_in6* found6) {
    memset(found4, 0, sizeof(*found4));
    memset(found6, 0, sizeof(*found6));
    for (const struct addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET && entry->ai_addrlen == sizeof(*found4) &&
            found4->sin_family == 0) {
            memcpy(found4, entry->ai_addr, sizeof(*found4));
        } else if (entry->ai_family == AF_INET6 && entry->ai_addrlen == sizeof(*found6) &&
                   found6->sin6_family == 0) {
            memcpy(found6, entry->ai_addr, sizeof(*found6));
        }
    }
}

// Loop thread. From _start_dns; next _start_connect. After a time-out it only frees the record, and
// in an abandoned loop that may be on another thread.
static void _on_dns_result(uv_getaddrinfo_t* request, int status, struct addrinfo* list) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)request->data;
    struct sockaddr_in found4;
    struct sockaddr_in6 found6;
    address_texts texts;

    ctx->dns_pending = 0;
    stop_uv_timer(ctx->timer);
    if (ctx->callback == nullptr) {
        LOG_INFO("_on_dns_result, callback is NULL means timeout, free the ctx, host=%s, "
                 "status=%d",
                 ctx->host, status);
        uv_freeaddrinfo(list);
        _free_connect_ctx(ctx);
        return;
    }
    _pick_addresses(list, &found4, &found6);
    uv_freeaddrinfo(list);
    ctx->dns_end_time = GetTickCount();
    uint32_t elapsed = (uint32_t)(ctx->dns_end_time - ctx->dns_start_time);

    if (status < 0 || (found4.sin_family == 0 && found6.sin6_family == 0)) {
        LOG_INFO("_on_dns_result, fail, status=%d, host=%s, time=%u ms", status, ctx->host,
                 elapsed);
        // Named after proxies, but it stands for every failed resolution.
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_HOST_NOT_FOUND);
        return;
    }
    _format_addresses(&found4, &found6, &texts);
    LOG_INFO("_on_dns_result, dns ok, host=%s, v4=%s, v6=%s, time=%u ms", ctx->host, texts.ip4,
             texts.ip6, elapsed);
    _start_connect(ctx, &found4, &found6);
}

// Loop thread, timer. From _start_dns. The record lives on until the lookup has come back.
static void _on_dns_timeout(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    uv_connect_timeout_cb callback = ctx->callback;
    ctx->dns_end_time = GetTickCount();
    LOG_INFO("_on_dns_timeout, host=%s, time=%u ms", ctx->host,
             (uint32_t)(ctx->dns_end_time - ctx->dns_start_time));
    uv_timer_stop(timer);
    ctx->callback = nullptr;
    if (callback != nullptr) {
        callback(TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, nullptr, nullptr, ctx->user_data);
    }
}

static int _start_lookup(uv_connect_ctx* ctx, uv_loop_t* loop) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;
    if (ctx->dns_req == nullptr) {
        ctx->dns_req = (uv_getaddrinfo_t*)calloc(1, sizeof(uv_getaddrinfo_t));
    }
    if (ctx->dns_req == nullptr) {
        return UV_ENOMEM;
    }
    ctx->dns_req->data = ctx;
    _lookup_loop = loop;
    int result = uv_getaddrinfo(loop, ctx->dns_req, _on_dns_result, ctx->host, nullptr, &hints);
    ctx->dns_pending = result == 0 ? 1 : 0;
    return result;
}

// Loop thread. From uv_connect_timeout; next _on_dns_result or _on_dns_timeout.
static void _start_dns(void* argument) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)argument;
    uv_loop_t* loop = get_uv_loop();
    if (loop == nullptr) {
        LOG_ERROR("_start_dns, loop is NULL.");
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
        return;
    }
    if (_is_cancelled(ctx)) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    if (ctx->timer == nullptr) {
        ctx->timer = new_uv_timer(loop, ctx);
    }
    if (_start_lookup(ctx, loop) != 0) {
        LOG_INFO("_start_dns, uv_getaddrinfo failed, host=%s.", ctx->host);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_START_DNS);
        return;
    }
    if (ctx->timeout > 0 &&
        arm_uv_timer(ctx->timer, _on_dns_timeout, (uint64_t)ctx->timeout) != 0) {
        LOG_INFO("_start_dns, uv_timer_start failed.");
    }
    ctx->dns_start_time = GetTickCount();
}

uint32_t uv_connect_timeout(const char* host, uint16_t port, int32_t timeout, void* user_data,
                            uv_connect_timeout_cb callback, uv_connect_cancel_probe probe) {
    if (!LOG_ASSERT(host != nullptr && host[0] != '\0' && port != 0 && callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    uv_connect_ctx* ctx = (uv_connect_ctx*)calloc(1, sizeof(uv_connect_ctx));
    if (ctx == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    list_append(&_live_contexts, &ctx->link);
    ctx->host = string_dup(host);
    ctx->port = port;
    ctx->timeout = timeout;
    ctx->user_data = user_data;
    ctx->callback = callback;
    ctx->probe = probe;
    if (ctx->host == nullptr) {
        _free_connect_ctx(ctx);
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    if (!async_run(_start_dns, ctx)) {
        LOG_INFO("_connect_to_proxy, async_run failed");
        _free_connect_ctx(ctx);
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    LOG_INFO("uv_connect_with_timeout, host=%s:%d, timeout=%d", host, (int)port, timeout);
    return TAV_HTTP_ERROR_CODE_OK;
}

// -------------------------------------------------------------------------- connect: early end

// A lookup ends as if it had taken too long, running attempts as if they had. An operation between
// the two, or one whose attempts could not be started, asks its probe.
void uv_connect_abort(void* user_data) {
    for (list_link* link = _live_contexts.next; link != &_live_contexts; link = link->next) {
        uv_connect_ctx* ctx = (uv_connect_ctx*)link;
        if (ctx->user_data != user_data || ctx->callback == nullptr) {
            continue;
        }
        if (ctx->dns_pending != 0) {
            arm_uv_timer(ctx->timer, _on_dns_timeout, 0);
        } else if (_is_attempt_running(ctx)) {
            close_uv_tcp(&ctx->tcp4);
            close_uv_tcp(&ctx->tcp6);
        }
        return;
    }
}

// ------------------------------------------------------------------- connect: end of the loop

// A lookup that the resolver has begun cannot be taken back. Its record gives up everything that
// belongs to the loop and waits in the list of the abandoned.
static void _abandon_lookup(uv_connect_ctx* ctx) {
    uv_connect_timeout_cb callback = ctx->callback;
    if (uv_cancel((uv_req_t*)ctx->dns_req) == 0) {
        return;  // _on_dns_result comes at the loop's next turn.
    }
    close_uv_timer(&ctx->timer);
    list_unlink(&ctx->link);
    ctx->callback = nullptr;
    ctx->abandoned = 1;
    uv_once(&_abandoned_once, _init_abandoned_mutex);
    uv_mutex_lock(&_abandoned_mutex);
    list_append(&_abandoned_contexts, &ctx->link);
    uv_mutex_unlock(&_abandoned_mutex);
    if (callback != nullptr) {
        callback(TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, nullptr, nullptr, ctx->user_data);
    }
}

// Running attempts come back cancelled; without any the operation ends here.
static void _abandon_connect(uv_connect_ctx* ctx) {
    if (ctx->connect_req4 == nullptr && ctx->connect_req6 == nullptr) {
        return;  // _start_dns has not run yet.
    }
    close_uv_tcp(&ctx->tcp4);
    close_uv_tcp(&ctx->tcp6);
    if (ctx->started4 == 0) {
        free(ctx->connect_req4);
        ctx->connect_req4 = nullptr;
    }
    if (ctx->started6 == 0) {
        free(ctx->connect_req6);
        ctx->connect_req6 = nullptr;
    }
    if (!_is_attempt_running(ctx)) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
    }
}

int32_t uv_connect_abandon_lookups(void) {
    list_link* link = _live_contexts.next;
    int32_t count = 0;
    while (link != &_live_contexts) {
        uv_connect_ctx* ctx = (uv_connect_ctx*)link;
        link = link->next;
        if (ctx->dns_pending != 0) {
            _abandon_lookup(ctx);
        } else {
            _abandon_connect(ctx);
        }
    }
    uv_once(&_abandoned_once, _init_abandoned_mutex);
    uv_mutex_lock(&_abandoned_mutex);
    for (link = _abandoned_contexts.next; link != &_abandoned_contexts; link = link->next) {
        const uv_connect_ctx* ctx = (const uv_connect_ctx*)link;
        count += ctx->dns_req->loop == _lookup_loop ? 1 : 0;
    }
    uv_mutex_unlock(&_abandoned_mutex);
    return count;
}

// ------------------------------------------------------------------------------ one-shot read

uv_io_ctx* uv_io_ctx_new(void) {
    uv_io_ctx* ctx = (uv_io_ctx*)calloc(1, sizeof(uv_io_ctx));
    if (ctx == nullptr) {
        return nullptr;
    }
    ctx->write_req = (uv_write_t*)calloc(1, sizeof(uv_write_t));
    if (ctx->write_req == nullptr) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

void uv_io_ctx_free(uv_io_ctx* ctx) {
    if (ctx == nullptr) {
        return;
    }
    ctx->owner = nullptr;
    ctx->recv_callback = nullptr;
    ctx->stream = nullptr;
    ctx->buffer = nullptr;
    free(ctx->write_req);
    close_uv_timer(&ctx->timer);
    free(ctx);
}

void uv_recv_abort(uv_io_ctx* ctx) {
    expire_uv_timer(ctx->timer);
}

static void _report_recv(uv_io_ctx* ctx, uint32_t status) {
    uv_io_recv_cb callback = ctx->recv_callback;
    ctx->recv_callback = nullptr;
    if (callback != nullptr) {
        callback(status, ctx, ctx->buffer);
    }
}

static void _uv_recv_alloc(uv_handle_t* handle, size_t suggested, uv_buf_t* offer) {
    uv_io_ctx* ctx = (uv_io_ctx*)handle->data;
    (void)suggested;
    *offer = uv_buf_init(nullptr, 0);
    if (ctx->buffer == nullptr || !text_buffer_reserve(ctx->buffer, RECV_CHUNK)) {
        return;
    }
    ctx->buffer->length = 0;
    *offer = uv_buf_init(ctx->buffer->data, (unsigned int)ctx->buffer->capacity);
}

// Loop thread. From uv_recv_timeout; next the caller's callback.
static void _uv_recv_result(uv_stream_t* stream, ssize_t nread, const uv_buf_t* offer) {
    uv_io_ctx* ctx = (uv_io_ctx*)stream->data;
    uint32_t status = TAV_HTTP_ERROR_CODE_OK;
    (void)offer;
    uv_read_stop(stream);
    stop_uv_timer(ctx->timer);
    if (ctx->buffer != nullptr) {
        ctx->buffer->length = nread > 0 ? (int32_t)nread : 0;
    }
    if (nread == UV_EOF) {
        LOG_INFO("_uv_recv_result, remote close the connection, nread=%d", (int)nread);
    } else if (nread < 0) {
        LOG_INFO("_uv_recv_result, failed, status=%d", (int)nread);
        status = TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    _report_recv(ctx, status);
}

// Loop thread, timer. From uv_recv_timeout; next the caller's callback.
static void _uv_recv_timeout(uv_timer_t* timer) {
    uv_io_ctx* ctx = (uv_io_ctx*)timer->data;
    LOG_INFO("_uv_recv_timeout");
    if (ctx->stream != nullptr) {
        uv_read_stop(ctx->stream);
    }
    uv_timer_stop(timer);
    _report_recv(ctx, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT);
}

uint32_t uv_recv_timeout(uv_stream_t* stream, uv_io_ctx* ctx, text_buffer* buffer,
                         uv_io_recv_cb callback) {
    if (!LOG_ASSERT(stream != nullptr && ctx != nullptr && buffer != nullptr &&
                    callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    uv_loop_t* loop = get_uv_loop();
    if (!LOG_ASSERT(loop != nullptr)) {
        LOG_ERROR("uv_recv_timeout, get_uv_loop failed.");
        return TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP;
    }
    stream->data = ctx;
    if (uv_read_start(stream, _uv_recv_alloc, _uv_recv_result) != 0) {
        LOG_INFO("uv_recv_timeout, uv_read_start failed.");
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    if (ctx->timer == nullptr) {
        ctx->timer = new_uv_timer(loop, ctx);
        if (ctx->timer == nullptr) {
            LOG_ERROR("uv_recv_timeout, uv_timer_init failed.");
        }
    }
    if (ctx->timer != nullptr && arm_uv_timer(ctx->timer, _uv_recv_timeout, RECV_TIMEOUT) != 0) {
        LOG_INFO("uv_recv_timeout, uv_timer_start failed.");
    }
    ctx->buffer = buffer;
    ctx->recv_callback = callback;
    ctx->stream = stream;
    return TAV_HTTP_ERROR_CODE_OK;
}
