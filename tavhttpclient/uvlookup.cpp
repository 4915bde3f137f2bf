// Lookups run on libuv's workers, where nothing can take them back once they have begun. A record
// therefore lives until the system has answered:
//
//   start_name_lookup -> (give_up_name_lookup) -> _on_dns_result -> callback, unless given up
//
// At the end of the loop what is still running moves to the list of the abandoned, with the loop,
// which a later start or stop of the library takes up again.
#include "tavhttpclient/uvlookup.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/util.h"

// The loop thread's, except that an abandoned record belongs to whoever runs the abandoned loop.
struct name_lookup {
    list_link link;  // in live_lookups, or in abandoned_lookups
    uv_getaddrinfo_t request;
    char* host;
    void* user_data;
    name_lookup_cb callback;  // null: given up
    bool abandoned;
};
LIST_ENTRY_CHECK(name_lookup);

static list_link live_lookups = {&live_lookups, &live_lookups};

// Under the mutex: lookups of loops that have ended may come back while another loop runs.
static list_link abandoned_lookups = {&abandoned_lookups, &abandoned_lookups};
// Made by the first lookup, so that the end of the loop cannot fail; never destroyed.
static uv_mutex_t abandoned_mutex;
static bool has_abandoned_mutex = false;

// The loop that ran the latest lookup, to tell its abandoned lookups from those of earlier loops.
static uv_loop_t* lookup_loop = nullptr;

static void _free_lookup(name_lookup* lookup) {
    if (lookup->abandoned) {
        uv_mutex_lock(&abandoned_mutex);
        list_unlink(&lookup->link);
        uv_mutex_unlock(&abandoned_mutex);
    } else {
        list_unlink(&lookup->link);
    }
    free(lookup->host);
    free(lookup);
}

// Loop thread; for an abandoned lookup the thread that takes its loop up. From start_name_lookup.
static void _on_dns_result(uv_getaddrinfo_t* request, int status, struct addrinfo* addresses) {
    name_lookup* lookup = (name_lookup*)request->data;
    name_lookup_cb callback = lookup->callback;
    void* user_data = lookup->user_data;
    if (callback == nullptr) {
        LOG_INFO("_on_dns_result, callback is NULL means timeout, free the ctx, host=%s, "
                 "status=%d",
                 lookup->host, status);
    }
    _free_lookup(lookup);
    if (callback != nullptr) {
        callback(user_data, status, addresses);
    }
    uv_freeaddrinfo(addresses);
}

int start_name_lookup(uv_loop_t* loop, const char* host, void* user_data, name_lookup_cb callback,
                      name_lookup** lookup) {
    struct addrinfo hints;
    has_abandoned_mutex = has_abandoned_mutex || uv_mutex_init(&abandoned_mutex) == 0;
    name_lookup* started =
        has_abandoned_mutex ? (name_lookup*)calloc(1, sizeof(name_lookup)) : nullptr;
    if (started == nullptr) {
        return UV_ENOMEM;
    }
    list_append(&live_lookups, &started->link);
    started->host = string_dup(host);
    started->user_data = user_data;
    started->callback = callback;
    started->request.data = started;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;

    lookup_loop = loop;
    int result = UV_ENOMEM;
    if (started->host != nullptr) {
        result =
            uv_getaddrinfo(loop, &started->request, _on_dns_result, started->host, nullptr, &hints);
    }
    if (result != 0) {
        _free_lookup(started);
        return result;
    }
    *lookup = started;
    return 0;
}

void give_up_name_lookup(name_lookup* lookup) {
    lookup->callback = nullptr;
}

static void _abandon_lookup(name_lookup* lookup) {
    name_lookup_cb callback = lookup->callback;
    if (uv_cancel((uv_req_t*)&lookup->request) == 0) {
        return;  // _on_dns_result comes at the loop's next turn.
    }
    list_unlink(&lookup->link);
    lookup->callback = nullptr;
    lookup->abandoned = true;
    uv_mutex_lock(&abandoned_mutex);
    list_append(&abandoned_lookups, &lookup->link);
    uv_mutex_unlock(&abandoned_mutex);
    if (callback != nullptr) {
        callback(lookup->user_data, UV_ECANCELED, nullptr);
    }
}

int32_t abandon_name_lookups(void) {
    list_link* link = live_lookups.next;
    int32_t count = 0;
    if (!has_abandoned_mutex) {
        return 0;  // There was never a lookup.
    }
    while (link != &live_lookups) {
        name_lookup* lookup = (name_lookup*)link;
        link = link->next;
        _abandon_lookup(lookup);
    }
    uv_mutex_lock(&abandoned_mutex);
    for (link = abandoned_lookups.next; link != &abandoned_lookups; link = link->next) {
        count += ((const name_lookup*)link)->request.loop == lookup_loop ? 1 : 0;
    }
    uv_mutex_unlock(&abandoned_mutex);
    return count;
}
