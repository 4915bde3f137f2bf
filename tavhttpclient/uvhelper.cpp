// Resolve and connect within a time budget:
//
//   uv_connect_timeout -> _start_dns -> (_on_dns_timeout) | _on_dns_result -> _start_connect
//     -> _on_connect_result, once per attempt (_on_connect_timeout cancels them)
//     -> (_on_stalled_check) -> _notify_uv_connect_timeout_result -> callback
#include "tavhttpclient/uvhelper.h"

#include <stdlib.h>
#include <string.h>

#include "platform/win_time.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/nonlspsocket.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvlookup.h"

enum {
    SOCKET_RECV_BUFFER = 65536,
    STALLED_INTERVAL = 100  // ms
};

static const int64_t MIN_CONNECT_TIMEOUT = 1000;  // ms

// The two attempts: in this order they are made, and the address of a failure is chosen.
enum {
    IPV4,
    IPV6,
    ATTEMPTS
};

static const struct {
    int32_t family;
    const char* name;
    size_t address_length;
} families[ATTEMPTS] = {
    {AF_INET, "ipv4", sizeof(struct sockaddr_in)},
    {AF_INET6, "ipv6", sizeof(struct sockaddr_in6)},
};

struct connect_attempt {
    struct sockaddr_storage address;  // family 0: there is none
    uv_tcp_t* tcp;                    // null: none, closed or handed out
    uv_connect_t* request;            // null: not attempted or completed
    int result;                       // of uv_tcp_connect; -1: not attempted
};

// One connect operation; made by uv_connect_timeout, freed when it is reported.
struct uv_connect_ctx {
    list_link link;  // in live_contexts
    char* host;
    uint16_t port;
    int32_t timeout;  // ms for resolution and connect together; 0 or less: none
    void* user_data;
    uv_connect_timeout_cb callback;
    uv_connect_cancel_probe probe;  // may be null
    name_lookup* lookup;            // null: not begun or ended
    connect_attempt attempts[ATTEMPTS];
    uv_timer_t* timer;        // for the resolution, then for the connect
    uint64_t dns_start_time;  // tick counts
    uint64_t dns_end_time;
    uint64_t connect_start_time;
    uint64_t connect_end_time;
};
LIST_ENTRY_CHECK(uv_connect_ctx);

static list_link live_contexts = {&live_contexts, &live_contexts};

// ----------------------------------------------------------------------------------- the record

static void _close_handles(uv_connect_ctx* ctx) {
    for (connect_attempt& attempt : ctx->attempts) {
        close_uv_tcp(&attempt.tcp);
    }
}

static void _free_connect_ctx(uv_connect_ctx* ctx) {
    list_unlink(&ctx->link);
    free(ctx->host);
    _close_handles(ctx);
    close_uv_timer(&ctx->timer);
    for (connect_attempt& attempt : ctx->attempts) {
        free(attempt.request);
    }
    free(ctx);
}

static bool _is_cancelled(const uv_connect_ctx* ctx) {
    return ctx->probe != nullptr && ctx->probe(ctx->user_data);
}

static uint32_t _ticks_since(uint64_t start) {
    return (uint32_t)(GetTickCount64() - start);
}

// Texts of both addresses for a log line; an absent one is the all-zero address.
struct address_texts {
    char ip4[64];
    char ip6[64];
};

static void _format_addresses(const uv_connect_ctx* ctx, address_texts* texts) {
    memset(texts, 0, sizeof(*texts));
    uv_ip4_name((const struct sockaddr_in*)&ctx->attempts[IPV4].address, texts->ip4,
                sizeof(texts->ip4));
    uv_ip6_name((const struct sockaddr_in6*)&ctx->attempts[IPV6].address, texts->ip6,
                sizeof(texts->ip6));
}

// The attempt whose handle is left; null without one.
static connect_attempt* _find_winner(uv_connect_ctx* ctx) {
    for (connect_attempt& attempt : ctx->attempts) {
        if (attempt.tcp != nullptr) {
            return &attempt;
        }
    }
    return nullptr;
}

// The one exit of the operation, except for a resolution time-out. Frees the record.
static void _notify_uv_connect_timeout_result(uv_connect_ctx* ctx, uint32_t status) {
    uv_connect_timeout_cb callback = ctx->callback;
    void* user_data = ctx->user_data;
    connect_attempt* winner = status == TAV_HTTP_ERROR_CODE_OK ? _find_winner(ctx) : nullptr;
    uv_tcp_t* tcp = nullptr;
    struct sockaddr_storage address = ctx->attempts[IPV4].address;
    if (winner != nullptr) {
        tcp = winner->tcp;
        winner->tcp = nullptr;
        address = winner->address;
    } else if (address.ss_family == 0) {
        address = ctx->attempts[IPV6].address;
    }
    _free_connect_ctx(ctx);
    callback(status, tcp, &address, user_data);
}

// ------------------------------------------------------------------------------ end of the race

// Loop thread, timer. Only an attempt that libuv refused is left: nothing will ever come back, so
// the operation ends when its user has been cancelled.
static void _on_stalled_check(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    if (!_is_cancelled(ctx) && arm_uv_timer(timer, _on_stalled_check, STALLED_INTERVAL) == 0) {
        return;
    }
    _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
}

// Counts the attempts that have not completed, and those of them that libuv has taken.
static int32_t _count_attempts(const uv_connect_ctx* ctx, int32_t* running) {
    int32_t count = 0;
    *running = 0;
    for (const connect_attempt& attempt : ctx->attempts) {
        count += attempt.request != nullptr ? 1 : 0;
        *running += attempt.request != nullptr && attempt.result == 0 ? 1 : 0;
    }
    return count;
}

static void _wait_connect_complete(uv_connect_ctx* ctx, int status, int32_t running) {
    LOG_INFO("_on_connect_result, wait connect complete, ctx=%p, host=%s, status=%d, conn4=%p, "
             "conn6=%p",
             (void*)ctx, ctx->host, status, (void*)ctx->attempts[IPV4].request,
             (void*)ctx->attempts[IPV6].request);
    if (running == 0 && arm_uv_timer(ctx->timer, _on_stalled_check, STALLED_INTERVAL) != 0) {
        // Without the timer not even a cancel could end it.
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
    }
}

static void _finish_connect(uv_connect_ctx* ctx, int status) {
    address_texts texts;
    ctx->connect_end_time = GetTickCount64();
    uint32_t elapsed = (uint32_t)(ctx->connect_end_time - ctx->connect_start_time);
    _format_addresses(ctx, &texts);
    if (_find_winner(ctx) == nullptr) {
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

// The first to succeed has won; the close of the other cancels its connect.
static void _keep_winner(uv_connect_ctx* ctx, const connect_attempt* own) {
    for (connect_attempt& attempt : ctx->attempts) {
        if (&attempt != own) {
            close_uv_tcp(&attempt.tcp);
        }
    }
}

// Loop thread. From _start_connect, once per attempt that was started; next _finish_connect.
static void _on_connect_result(uv_connect_t* request, int status) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)request->data;
    int32_t index = request == ctx->attempts[IPV4].request ? IPV4 : IPV6;
    connect_attempt* own = &ctx->attempts[index];
    int32_t running = 0;

    // The first result ends the connect time-out for the other attempt too.
    stop_uv_timer(ctx->timer);
    own->request = nullptr;
    free(request);

    // An attempt whose handle was closed has lost, whatever its result says.
    if (status == 0 && own->tcp == nullptr) {
        status = UV_ECANCELED;
    }
    if (status == 0) {
        _keep_winner(ctx, own);
    } else {
        LOG_INFO("_on_connect_result, %s connect fail, host=%s, status=%d", families[index].name,
                 ctx->host, status);
        close_uv_tcp(&own->tcp);
    }
    if (_count_attempts(ctx, &running) > 0) {
        _wait_connect_complete(ctx, status, running);
    } else {
        _finish_connect(ctx, status);
    }
}

// Loop thread, timer. From _start_connect; the closes bring each attempt to _on_connect_result.
static void _on_connect_timeout(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    address_texts texts;
    _format_addresses(ctx, &texts);
    LOG_INFO("_on_connect_timeout, ctx=%p, host=%s, ip4=%s, ip6=%s, conn4=%p, conn6=%p, "
             "time=%u ms",
             (void*)ctx, ctx->host, texts.ip4, texts.ip6, (void*)ctx->attempts[IPV4].request,
             (void*)ctx->attempts[IPV6].request, _ticks_since(ctx->connect_start_time));
    _close_handles(ctx);
}

// ---------------------------------------------------------------------------- start of the race

// A new handle of one family; null on failure.
static uv_tcp_t* _open_tcp(uv_loop_t* loop, int32_t family) {
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
        return nullptr;
    }
    uv_recv_buffer_size((uv_handle_t*)handle, &size);
    return handle;
}

// The handles of the addresses that were found; false when there is none.
static bool _open_handles(uv_connect_ctx* ctx, uv_loop_t* loop) {
    bool any = false;
    for (connect_attempt& attempt : ctx->attempts) {
        if (attempt.address.ss_family != 0) {
            attempt.tcp = _open_tcp(loop, attempt.address.ss_family);
            any = any || attempt.tcp != nullptr;
        }
    }
    return any;
}

// Libuv's result; -1 stands for an attempt that was not made. A request that libuv refused stays in
// the record and counts as outstanding.
static int _start_attempt(uv_connect_ctx* ctx, connect_attempt* attempt) {
    if (attempt->tcp == nullptr) {
        return -1;
    }
    attempt->request = (uv_connect_t*)calloc(1, sizeof(uv_connect_t));
    if (attempt->request == nullptr) {
        return UV_ENOMEM;
    }
    attempt->request->data = ctx;
    return uv_tcp_connect(attempt->request, attempt->tcp, (const struct sockaddr*)&attempt->address,
                          _on_connect_result);
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
static void _start_connect_timer(uv_connect_ctx* ctx, uint64_t entry_time) {
    const connect_attempt* v4 = &ctx->attempts[IPV4];
    const connect_attempt* v6 = &ctx->attempts[IPV6];
    if (ctx->timeout <= 0) {
        LOG_INFO("_start_connect, without timeout, ctx=%p, host=%s, ipv4=%d, ipv6=%d, "
                 "use-time=%u ms",
                 (void*)ctx, ctx->host, v4->result, v6->result, _ticks_since(entry_time));
        return;
    }
    int64_t rest = (int64_t)ctx->timeout - _resolution_time(ctx);
    uint32_t timeout = (uint32_t)(rest < MIN_CONNECT_TIMEOUT ? MIN_CONNECT_TIMEOUT : rest);
    if (arm_uv_timer(ctx->timer, _on_connect_timeout, timeout) != 0) {
        LOG_INFO("_start_connect, uv_timer_start failed.");
    }
    LOG_INFO("_start_connect, ctx=%p, timeout=%u ms, host=%s, ipv4=%d, ipv6=%d, conn4=%p, "
             "conn6=%p, use-time=%u ms",
             (void*)ctx, timeout, ctx->host, v4->result, v6->result, (void*)v4->request,
             (void*)v6->request, _ticks_since(entry_time));
}

// Loop thread. From _on_dns_result; next _on_connect_result or _on_connect_timeout.
static void _start_connect(uv_connect_ctx* ctx) {
    uint64_t entry_time = GetTickCount64();
    uv_loop_t* loop = get_uv_loop();
    bool any = false;
    if (!LOG_ASSERT(loop != nullptr)) {
        LOG_ERROR("_start_connect, get_uv_loop failed.");
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
        return;
    }
    if (!_open_handles(ctx, loop)) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CREATE_SOCKET);
        return;
    }
    for (connect_attempt& attempt : ctx->attempts) {
        attempt.result = _start_attempt(ctx, &attempt);
        any = any || attempt.result == 0;
    }
    if (!any) {
        LOG_INFO("_start_connect, uv_tcp_connect failed, host=%s.", ctx->host);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    if (ctx->timer == nullptr) {
        ctx->timer = new_uv_timer(loop, ctx);
    }
    _start_connect_timer(ctx, entry_time);
    ctx->connect_start_time = GetTickCount64();
}

// ----------------------------------------------------------------------------------- resolution

// The first address of each family, in the resolver's order, with the port. False: there is none.
static bool _pick_addresses(uv_connect_ctx* ctx, const struct addrinfo* list) {
    bool any = false;
    for (const struct addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        for (int32_t i = 0; i < ATTEMPTS; ++i) {
            struct sockaddr_storage* address = &ctx->attempts[i].address;
            if (entry->ai_family == families[i].family &&
                entry->ai_addrlen == families[i].address_length && address->ss_family == 0) {
                memcpy(address, entry->ai_addr, families[i].address_length);
                // In the same place for both families.
                ((struct sockaddr_in*)address)->sin_port = htons(ctx->port);
                any = true;
            }
        }
    }
    return any;
}

// Loop thread. From _start_dns; next _start_connect.
static void _on_dns_result(void* user_data, int status, const struct addrinfo* list) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)user_data;
    address_texts texts;

    stop_uv_timer(ctx->timer);
    ctx->lookup = nullptr;
    bool found = _pick_addresses(ctx, list);
    ctx->dns_end_time = GetTickCount64();
    uint32_t elapsed = (uint32_t)(ctx->dns_end_time - ctx->dns_start_time);

    if (status < 0 || !found) {
        LOG_INFO("_on_dns_result, fail, status=%d, host=%s, time=%u ms", status, ctx->host,
                 elapsed);
        // Named after proxies, but it stands for every failed resolution.
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_HOST_NOT_FOUND);
        return;
    }
    _format_addresses(ctx, &texts);
    LOG_INFO("_on_dns_result, dns ok, host=%s, v4=%s, v6=%s, time=%u ms", ctx->host, texts.ip4,
             texts.ip6, elapsed);
    if (_is_cancelled(ctx)) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
        return;
    }
    _start_connect(ctx);
}

// Loop thread, timer. From _start_dns.
static void _on_dns_timeout(uv_timer_t* timer) {
    uv_connect_ctx* ctx = (uv_connect_ctx*)timer->data;
    uv_connect_timeout_cb callback = ctx->callback;
    void* user_data = ctx->user_data;
    ctx->dns_end_time = GetTickCount64();
    LOG_INFO("_on_dns_timeout, host=%s, time=%u ms", ctx->host,
             (uint32_t)(ctx->dns_end_time - ctx->dns_start_time));
    give_up_name_lookup(ctx->lookup);
    _free_connect_ctx(ctx);
    callback(TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, nullptr, nullptr, user_data);
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
    ctx->timer = new_uv_timer(loop, ctx);
    if (start_name_lookup(loop, ctx->host, ctx, _on_dns_result, &ctx->lookup) != 0) {
        LOG_INFO("_start_dns, uv_getaddrinfo failed, host=%s.", ctx->host);
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_START_DNS);
        return;
    }
    if (ctx->timeout > 0 &&
        arm_uv_timer(ctx->timer, _on_dns_timeout, (uint64_t)ctx->timeout) != 0) {
        LOG_INFO("_start_dns, uv_timer_start failed.");
    }
    ctx->dns_start_time = GetTickCount64();
}

uint32_t uv_connect_timeout(const char* host, uint16_t port, int32_t timeout, void* user_data,
                            uv_connect_timeout_cb callback, uv_connect_cancel_probe probe) {
    if (!LOG_ASSERT(!is_empty_text(host) && port != 0 && callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_INVALID_ARG;
    }
    uv_connect_ctx* ctx = (uv_connect_ctx*)calloc(1, sizeof(uv_connect_ctx));
    if (ctx == nullptr) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    list_append(&live_contexts, &ctx->link);
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

// ------------------------------------------------------------------------------------ early end

// A lookup ends as if it had taken too long, running attempts as if they had. An operation between
// the two, or one whose attempts could not be started, asks its probe.
void uv_connect_abort(void* user_data) {
    int32_t running = 0;
    for (list_link* link = live_contexts.next; link != &live_contexts; link = link->next) {
        uv_connect_ctx* ctx = (uv_connect_ctx*)link;
        if (ctx->user_data != user_data) {
            continue;
        }
        _count_attempts(ctx, &running);
        if (ctx->lookup != nullptr) {
            arm_uv_timer(ctx->timer, _on_dns_timeout, 0);
        } else if (running > 0) {
            _close_handles(ctx);
        }
        return;
    }
}

// Running attempts come back cancelled; without any the operation ends here.
static void _abandon_connect(uv_connect_ctx* ctx) {
    int32_t running = 0;
    if (_count_attempts(ctx, &running) == 0) {
        return;  // _start_dns has not run yet, or the lookup comes back cancelled.
    }
    _close_handles(ctx);
    for (connect_attempt& attempt : ctx->attempts) {
        if (attempt.result != 0) {
            free(attempt.request);
            attempt.request = nullptr;
        }
    }
    if (running == 0) {
        _notify_uv_connect_timeout_result(ctx, TAV_HTTP_ERROR_CODE_FAIL_CONNECT);
    }
}

int32_t uv_connect_abandon_lookups(void) {
    int32_t count = abandon_name_lookups();
    list_link* link = live_contexts.next;
    while (link != &live_contexts) {
        uv_connect_ctx* ctx = (uv_connect_ctx*)link;
        link = link->next;
        _abandon_connect(ctx);
    }
    return count;
}
