// The cookie store of the process: a tree of domains, each with its cookies in the order of their
// first arrival. Parsing a response fills it, building a request head reads it.
//
// Servers decide what is stored, so each domain and the whole store have a limit: the oldest
// cookies give way to new ones. Cookies are found through a tree, since a server may send
// thousands.
//
// One read-write lock guards the trees and every cookie; the store itself lives from loop start to
// loop end, so the pointer to it needs none.
#include "tavhttpclient/cookiemgr.h"

#include <stdlib.h>
#include <string.h>
#include <uv.h>
#include <uv/tree.h>

#include "platform/win_file.h"
#include "platform/win_text.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/util.h"

enum {
    COOKIE_LINE_CAPACITY = 128,
    MERGED_COOKIE_CAPACITY = 256,
    MAX_DOMAIN_COOKIES = 1000,
    MAX_COOKIES = 10000
};

struct cookie_domain;

struct cookie_item {
    list_link link;      // in its domain, oldest first
    list_link age_link;  // in the store, oldest first
    RB_ENTRY(cookie_item) node;
    cookie_domain* owner;
    char* name;  // with path and domain the cookie's identity; both compared with case
    char* value;
    char* domain;  // unread
    char* path;
    int64_t expires;  // seconds since 1970 UTC; 0: never
};
LIST_ENTRY_CHECK(cookie_item);

RB_HEAD(cookie_tree, cookie_item);

// Exists while it has a cookie.
struct cookie_domain {
    RB_ENTRY(cookie_domain) node;
    char* domain;  // the key, without leading dot, compared ignoring case
    list_link cookies;
    cookie_tree tree;  // the same cookies by path and name
    int32_t count;
};

RB_HEAD(cookie_root, cookie_domain);

struct cookie_store {
    uv_rwlock_t* lock;
    cookie_root* root;
    list_link ages;  // every cookie
    int32_t count;
};

// A name and value of a header, while the header is being read.
struct cookie_pair {
    list_link link;
    RB_ENTRY(cookie_pair) node;
    char* name;
    char* value;
};
LIST_ENTRY_CHECK(cookie_pair);

RB_HEAD(cookie_names, cookie_pair);

// What one Set-Cookie value says about all of its cookies; null: not said.
struct cookie_attributes {
    char* domain;
    char* path;
    int64_t expires;
};

static cookie_store* the_store = nullptr;

static int _compare_domains(const cookie_domain* first, const cookie_domain* second) {
    return _stricmp(first->domain, second->domain);
}

static int _compare_cookies(const cookie_item* first, const cookie_item* second) {
    int difference = strcmp(first->name, second->name);
    return difference != 0 ? difference : strcmp(first->path, second->path);
}

static int _compare_names(const cookie_pair* first, const cookie_pair* second) {
    return strcmp(first->name, second->name);
}

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wunused-function"
#endif
RB_GENERATE_STATIC(cookie_root, cookie_domain, node, _compare_domains)
RB_GENERATE_STATIC(cookie_tree, cookie_item, node, _compare_cookies)
RB_GENERATE_STATIC(cookie_names, cookie_pair, node, _compare_names)
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

static cookie_item* _item_of_age_link(list_link* link) {
    return (cookie_item*)((char*)link - offsetof(cookie_item, age_link));
}

// ------------------------------------------------------------------------------ life of the store

static void _free_cookie_store(cookie_store* store) {
    free(store->lock);
    free(store->root);
    free(store);
}

bool init_cookie_store(void) {
    if (the_store != nullptr) {
        return true;
    }
    cookie_store* store = (cookie_store*)calloc(1, sizeof(cookie_store));
    if (store == nullptr) {
        return false;
    }
    store->root = (cookie_root*)calloc(1, sizeof(cookie_root));
    store->lock = (uv_rwlock_t*)calloc(1, sizeof(uv_rwlock_t));
    if (store->root == nullptr || store->lock == nullptr || uv_rwlock_init(store->lock) != 0) {
        _free_cookie_store(store);
        return false;
    }
    RB_INIT(store->root);
    list_init(&store->ages);
    the_store = store;
    return true;
}

static void _free_cookie_item(cookie_item* item) {
    if (item == nullptr) {
        return;
    }
    free(item->name);
    free(item->value);
    free(item->domain);
    free(item->path);
    free(item);
}

static void _free_cookie_domain(cookie_domain* domain) {
    list_link* link = domain->cookies.next;
    while (link != &domain->cookies) {
        cookie_item* item = (cookie_item*)link;
        link = link->next;
        list_unlink(&item->age_link);
        _free_cookie_item(item);
    }
    free(domain->domain);
    free(domain);
}

void clear_cookie_store(cookie_root* root) {
    if (root == nullptr) {
        return;
    }
    for (cookie_domain* domain = RB_MIN(cookie_root, root); domain != nullptr;
         domain = RB_MIN(cookie_root, root)) {
        RB_REMOVE(cookie_root, root, domain);
        _free_cookie_domain(domain);
    }
}

void uninit_cookie_store(void) {
    cookie_store* store = the_store;
    if (store == nullptr) {
        return;
    }
    the_store = nullptr;
    clear_cookie_store(store->root);
    uv_rwlock_destroy(store->lock);
    _free_cookie_store(store);
}

// ------------------------------------------------------------------------------ cookie texts

// Cuts the next piece between semicolons out of `*rest`; runs of semicolons give no empty pieces.
// Null at the end.
static char* _next_token(char** rest) {
    char* token = *rest + strspn(*rest, ";");
    if (*token == '\0') {
        return nullptr;
    }
    char* end = token + strcspn(token, ";");
    *rest = *end != '\0' ? end + 1 : end;
    *end = '\0';
    return token;
}

static void _free_pair(cookie_pair* pair) {
    if (pair == nullptr) {
        return;
    }
    free(pair->name);
    free(pair->value);
    free(pair);
}

static void _free_pairs(list_link* pairs) {
    list_link* link = pairs->next;
    while (link != pairs) {
        cookie_pair* pair = (cookie_pair*)link;
        link = link->next;
        _free_pair(pair);
    }
}

// Name and value of a "name=value" piece, both trimmed; null without '=' (or without memory).
static cookie_pair* _parse_pair(char* token) {
    char* separator = strchr(token, '=');
    if (separator == nullptr) {
        return nullptr;
    }
    cookie_pair* pair = (cookie_pair*)calloc(1, sizeof(cookie_pair));
    if (pair == nullptr) {
        return nullptr;
    }
    *separator = '\0';
    list_init(&pair->link);
    pair->name = trim_string(token, -1);
    pair->value = trim_string(separator + 1, -1);
    if (pair->name == nullptr || pair->value == nullptr) {
        _free_pair(pair);
        return nullptr;
    }
    return pair;
}

// ------------------------------------------------------------------------------ storing

static cookie_domain* _find_domain(cookie_root* root, const char* text) {
    cookie_domain key = {};
    key.domain = (char*)text;
    return RB_FIND(cookie_root, root, &key);
}

static cookie_domain* _find_or_add_domain(cookie_root* root, const char* text) {
    cookie_domain* domain = _find_domain(root, text);
    if (domain != nullptr) {
        return domain;
    }
    domain = (cookie_domain*)calloc(1, sizeof(cookie_domain));
    if (domain == nullptr) {
        return nullptr;
    }
    list_init(&domain->cookies);
    RB_INIT(&domain->tree);
    domain->domain = string_dup(text);
    if (domain->domain == nullptr) {
        free(domain);
        return nullptr;
    }
    RB_INSERT(cookie_root, root, domain);
    return domain;
}

static cookie_item* _new_cookie_item(const char* domain, const char* path, const char* name,
                                     const char* value, int64_t expires) {
    cookie_item* item = (cookie_item*)calloc(1, sizeof(cookie_item));
    if (item == nullptr) {
        return nullptr;
    }
    list_init(&item->link);
    list_init(&item->age_link);
    item->domain = string_dup(domain);
    item->path = string_dup(path);
    item->name = string_dup(name);
    item->value = string_dup(value != nullptr ? value : "");
    item->expires = expires;
    if (item->domain == nullptr || item->path == nullptr || item->name == nullptr ||
        item->value == nullptr) {
        _free_cookie_item(item);
        return nullptr;
    }
    return item;
}

static void _add_cookie(cookie_store* store, cookie_domain* domain, cookie_item* item) {
    item->owner = domain;
    RB_INSERT(cookie_tree, &domain->tree, item);
    list_append(&domain->cookies, &item->link);
    list_append(&store->ages, &item->age_link);
    domain->count++;
    store->count++;
}

// A domain that loses its last cookie goes with it.
static void _remove_cookie(cookie_store* store, cookie_item* item) {
    cookie_domain* domain = item->owner;
    RB_REMOVE(cookie_tree, &domain->tree, item);
    list_unlink(&item->link);
    list_unlink(&item->age_link);
    domain->count--;
    store->count--;
    _free_cookie_item(item);
    if (domain->count == 0) {
        RB_REMOVE(cookie_root, store->root, domain);
        _free_cookie_domain(domain);
    }
}

// Behind an addition, so that the domain keeps at least that one.
static void _remove_surplus_cookies(cookie_store* store, cookie_domain* domain) {
    if (domain->count > MAX_DOMAIN_COOKIES) {
        _remove_cookie(store, (cookie_item*)domain->cookies.next);
    }
    if (store->count > MAX_COOKIES) {
        _remove_cookie(store, _item_of_age_link(store->ages.next));
    }
}

// Under the write lock. A known cookie takes the new value but keeps its old expiry, and is removed
// by an empty value; an unknown one is added even when its value is empty.
static bool _set_cookie(cookie_store* store, const char* domain, const char* path, const char* name,
                        const char* value, int64_t expires) {
    if (!LOG_ASSERT(!is_empty_text(domain) && !is_empty_text(path) && !is_empty_text(name))) {
        return false;
    }
    cookie_item* item = _new_cookie_item(domain, path, name, value, expires);
    cookie_domain* owner = item != nullptr ? _find_or_add_domain(store->root, domain) : nullptr;
    if (owner == nullptr) {
        _free_cookie_item(item);
        return false;
    }

    cookie_item* known = RB_FIND(cookie_tree, &owner->tree, item);
    if (known == nullptr) {
        _add_cookie(store, owner, item);
        _remove_surplus_cookies(store, owner);
        return true;
    }
    if (is_empty_text(value)) {
        _remove_cookie(store, known);
    } else {
        char* old_value = known->value;
        known->value = item->value;
        item->value = old_value;
    }
    _free_cookie_item(item);
    return true;
}

// The path of a relative Path attribute: the URL's path with the value right behind it.
static char* _join_cookie_path(const char* url, const char* value, const char* field) {
    char* url_path = nullptr;
    if (!analyze_url(url, nullptr, nullptr, nullptr, &url_path, nullptr)) {
        LOG_ERROR("set_cookie_by_http_header, invalid set-cookie field, field=%s", field);
        return string_dup(value);
    }
    char* joined = string_format("%s%s", url_path, value);
    free(url_path);
    return joined;
}

// Takes the pair as an attribute; false: it is a cookie.
static bool _read_attribute(cookie_attributes* attributes, const cookie_pair* pair, const char* url,
                            const char* field) {
    const char* value = pair->value;
    if (_stricmp(pair->name, "domain") == 0) {
        string_replace(&attributes->domain, value[0] == '.' ? value + 1 : value);
        return true;
    }
    if (_stricmp(pair->name, "path") == 0) {
        free(attributes->path);
        attributes->path =
            value[0] == '/' ? string_dup(value) : _join_cookie_path(url, value, field);
        return true;
    }
    if (_stricmp(pair->name, "expires") == 0) {
        int64_t expires = 0;
        if (parse_http_date(value, (int32_t)strlen(value), &expires) && expires > 0) {
            attributes->expires = expires;
        }
        return true;
    }
    return false;
}

// Attributes may stand before or behind the cookies, so all pieces are read first. Attributes that
// the store does not know count as cookies.
static void _read_set_cookie(const char* url, const char* field, cookie_attributes* attributes,
                             list_link* cookies) {
    char* copy = string_dup(field);
    char* rest = copy;
    for (char* token = copy != nullptr ? _next_token(&rest) : nullptr; token != nullptr;
         token = _next_token(&rest)) {
        cookie_pair* pair = _parse_pair(token);
        if (pair == nullptr) {
            continue;
        }
        if (_read_attribute(attributes, pair, url, field)) {
            _free_pair(pair);
        } else {
            list_append(cookies, &pair->link);
        }
    }
    free(copy);
}

// What the attributes leave open comes from the URL of the response.
static void _complete_attributes(cookie_attributes* attributes, const char* url) {
    if (!is_empty_text(attributes->domain) && !is_empty_text(attributes->path)) {
        return;
    }
    char* host = nullptr;
    char* path = nullptr;
    if (!analyze_url(url, nullptr, &host, nullptr, &path, nullptr)) {
        return;
    }
    if (is_empty_text(attributes->domain)) {
        string_replace(&attributes->domain, host);
    }
    if (is_empty_text(attributes->path)) {
        string_replace(&attributes->path, path);
    }
    free(host);
    free(path);
}

bool set_cookie_by_http_header(const char* url, const char* value) {
    cookie_store* store = the_store;
    if (value == nullptr || store == nullptr) {
        return true;
    }
    cookie_attributes attributes = {};
    list_link cookies;
    list_init(&cookies);
    _read_set_cookie(url, value, &attributes, &cookies);
    if (!list_empty(&cookies)) {
        _complete_attributes(&attributes, url);
    }
    for (list_link* link = cookies.next; link != &cookies; link = link->next) {
        cookie_pair* pair = (cookie_pair*)link;
        if (is_empty_text(attributes.domain) || is_empty_text(attributes.path) ||
            is_empty_text(pair->name)) {
            continue;
        }
        uv_rwlock_wrlock(store->lock);
        _set_cookie(store, attributes.domain, attributes.path, pair->name, pair->value,
                    attributes.expires);
        uv_rwlock_wrunlock(store->lock);
    }
    _free_pairs(&cookies);
    free(attributes.domain);
    free(attributes.path);
    return true;
}

// ------------------------------------------------------------------------------ reading

// Path prefixes are compared as plain bytes: "/a" serves "/ab" too.
static void _collect_domain_cookies(const cookie_domain* domain, const char* path,
                                    text_buffer* buffer) {
    int64_t now = _time64(nullptr);
    if (is_empty_text(path)) {
        return;
    }
    for (const list_link* link = domain->cookies.next; link != &domain->cookies;
         link = link->next) {
        const cookie_item* item = (const cookie_item*)link;
        bool expired = item->expires != 0 && item->expires <= now;
        if (!expired && strncmp(path, item->path, strlen(item->path)) == 0) {
            text_buffer_append_format(buffer, "%s=%s;", item->name, item->value);
        }
    }
}

// Under the read lock. The host itself first, then each of its parent domains.
static bool _get_cookies_for_host(cookie_root* root, const char* host, const char* path,
                                  char** output) {
    text_buffer buffer = {};
    text_buffer_init(&buffer, COOKIE_LINE_CAPACITY);
    const char* suffix = host[0] == '.' ? host + 1 : host;
    while (suffix != nullptr) {
        const cookie_domain* domain = _find_domain(root, suffix);
        if (domain != nullptr) {
            _collect_domain_cookies(domain, path, &buffer);
        }
        const char* dot = strchr(suffix, '.');
        suffix = dot != nullptr ? dot + 1 : nullptr;
    }
    if (buffer.length == 0 || !text_buffer_append(&buffer, "", 1)) {
        text_buffer_release(&buffer);
        return false;
    }
    *output = buffer.data;
    return true;
}

bool get_cookie(const char* url, char** output) {
    if (!LOG_ASSERT(output != nullptr)) {
        return false;
    }
    *output = nullptr;
    cookie_store* store = the_store;
    if (is_empty_text(url) || store == nullptr) {
        return false;
    }

    char* host = nullptr;
    char* path = nullptr;
    bool found = false;
    if (!analyze_url(url, nullptr, &host, nullptr, &path, nullptr) || is_empty_text(host) ||
        is_empty_text(path)) {
        LOG_ERROR("get_cookie, analyze_url failed, url=%s", url);
    } else {
        uv_rwlock_rdlock(store->lock);
        found = _get_cookies_for_host(store->root, host, path, output);
        uv_rwlock_rdunlock(store->lock);
    }
    free(host);
    free(path);
    return found;
}

// ------------------------------------------------------------------------------ merging

static void _free_names(cookie_names* names) {
    for (cookie_pair* pair = RB_MIN(cookie_names, names); pair != nullptr;
         pair = RB_MIN(cookie_names, names)) {
        RB_REMOVE(cookie_names, names, pair);
        _free_pair(pair);
    }
}

// False without memory.
static bool _add_cookie_to_buffer(cookie_names* names, const char* text, text_buffer* buffer) {
    if (!LOG_ASSERT(names != nullptr && buffer != nullptr) || text == nullptr) {
        return true;
    }
    char* copy = string_dup(text);
    char* rest = copy;
    bool ok = copy != nullptr;
    for (char* token = ok ? _next_token(&rest) : nullptr; ok && token != nullptr;
         token = _next_token(&rest)) {
        bool is_pair = strchr(token, '=') != nullptr;
        cookie_pair* pair = _parse_pair(token);
        if (pair == nullptr) {
            ok = !is_pair;
            continue;
        }
        if (is_empty_text(pair->name) || RB_INSERT(cookie_names, names, pair) != nullptr) {
            _free_pair(pair);
            continue;
        }
        ok = text_buffer_append_format(buffer, buffer->length == 0 ? "%s=%s" : "; %s=%s",
                                       pair->name, pair->value);
    }
    free(copy);
    return ok;
}

char* merge_cookie_text(const char* first, const char* second) {
    if (first == nullptr || second == nullptr) {
        const char* only = first != nullptr ? first : second;
        return string_dup(only != nullptr ? only : "");
    }

    text_buffer buffer = {};
    cookie_names names = RB_INITIALIZER(&names);
    text_buffer_init(&buffer, MERGED_COOKIE_CAPACITY);
    bool ok = _add_cookie_to_buffer(&names, first, &buffer) &&
              _add_cookie_to_buffer(&names, second, &buffer) && text_buffer_append(&buffer, "", 1);
    _free_names(&names);
    if (!ok) {
        text_buffer_release(&buffer);
        return nullptr;
    }
    return buffer.data;
}
