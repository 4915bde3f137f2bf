// Idle connections in a tree of keys (scheme kind, port, host), each with a list, newest in front:
//
//   add_connection_to_pool -> _add_connection
//   get_connection_from_pool -> _cleanup_timeout_connection -> _get_connection
//
// Nothing here has a timer: expired connections are closed by the lookups that meet them.
#include "tavhttpclient/connectionpool.h"

#include <stdlib.h>
#include <string.h>
#include <uv/tree.h>

#include "platform/win_text.h"
#include "platform/win_time.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/util.h"

enum {
    DEFAULT_KEEPALIVE_TIMEOUT = 10000,  // ms
    CLEANUP_INTERVAL = 30000            // ms
};

// One per idle connection, which it owns.
struct pool_entry {
    list_link link;
    http_connection* conn;
    uint64_t added_time;  // tick count
};
LIST_ENTRY_CHECK(pool_entry);

// One per key; stays in the tree with an empty list.
struct pool_node {
    RB_ENTRY(pool_node) tree_entry;
    int32_t is_https;
    char* host;
    int32_t port;
    list_link idle_list;  // pool_entry
};

RB_HEAD(pool_tree, pool_node);

// Made by the first insertion. Loop thread.
struct connection_pool {
    pool_tree* tree;
    uint64_t last_cleanup_time;  // tick count
    uint32_t hit_count;
    uint32_t miss_count;
};

static connection_pool* idle_pool = nullptr;

static int _compare_pool_key(const pool_node* first, const pool_node* second) {
    if (first->is_https != second->is_https) {
        return first->is_https - second->is_https;
    }
    if (first->port != second->port) {
        return first->port - second->port;
    }
    return _stricmp(first->host, second->host);
}

RB_GENERATE_STATIC(pool_tree, pool_node, tree_entry, _compare_pool_key)

static pool_node* _find_node(int32_t is_https, const char* host, uint16_t port) {
    pool_node key;
    memset(&key, 0, sizeof(key));
    key.is_https = is_https;
    key.host = (char*)host;
    key.port = port;
    return pool_tree_RB_FIND(idle_pool->tree, &key);
}

// ------------------------------------------------------------------------------------ insert

static connection_pool* _new_pool(void) {
    connection_pool* pool = (connection_pool*)calloc(1, sizeof(connection_pool));
    pool_tree* tree = (pool_tree*)calloc(1, sizeof(pool_tree));
    if (pool == nullptr || tree == nullptr) {
        free(pool);
        free(tree);
        return nullptr;
    }
    RB_INIT(tree);
    pool->tree = tree;
    pool->last_cleanup_time = GetTickCount64();
    return pool;
}

static pool_node* _add_node(const http_connection* conn) {
    pool_node* node = (pool_node*)calloc(1, sizeof(pool_node));
    if (node == nullptr) {
        return nullptr;
    }
    node->is_https = conn->is_https;
    node->host = string_dup(conn->host);
    node->port = conn->port;
    if (node->host == nullptr) {
        free(node);
        return nullptr;
    }
    list_init(&node->idle_list);
    pool_tree_RB_INSERT(idle_pool->tree, node);
    return node;
}

static bool _add_connection(http_connection* conn) {
    if (conn->host == nullptr || conn->port == 0) {
        return false;
    }
    pool_node* node = _find_node(conn->is_https, conn->host, conn->port);
    if (node == nullptr) {
        node = _add_node(conn);
    }
    pool_entry* entry = (pool_entry*)calloc(1, sizeof(pool_entry));
    if (node == nullptr || entry == nullptr) {
        free(entry);
        return false;
    }
    entry->conn = conn;
    entry->added_time = GetTickCount64();
    list_insert_front(&node->idle_list, &entry->link);
    return true;
}

bool add_connection_to_pool(http_connection* conn) {
    LOG_ASSERT(is_loop_thread());
    if (conn == nullptr) {
        return false;
    }
    if (idle_pool == nullptr) {
        idle_pool = _new_pool();
    }
    if (idle_pool == nullptr) {
        return false;
    }
    if (conn->keepalive_timeout == 0) {
        conn->keepalive_timeout = DEFAULT_KEEPALIVE_TIMEOUT;
    }
    return _add_connection(conn);
}

// ------------------------------------------------------------------------------------ lookup

static bool _is_expired(const pool_entry* entry) {
    return GetTickCount64() > entry->added_time + entry->conn->keepalive_timeout;
}

static bool _is_used_up(const http_connection* conn) {
    return conn->max_reuse != 0 && conn->max_reuse <= conn->reuse_count;
}

static http_connection* _get_connection(int32_t is_https, const char* host, uint16_t port) {
    pool_node* node = _find_node(is_https, host, port);
    while (node != nullptr && !list_empty(&node->idle_list)) {
        pool_entry* entry = (pool_entry*)list_take_first(&node->idle_list);
        http_connection* conn = entry->conn;
        // What waits on the connection would be taken for the next answer.
        bool usable =
            !_is_expired(entry) && !_is_used_up(conn) && !http_connection_has_unread(conn);
        free(entry);
        if (usable) {
            ++conn->reuse_count;
            ++idle_pool->hit_count;
            return conn;
        }
        http_connect_close(conn);
    }
    ++idle_pool->miss_count;
    return nullptr;
}

// Closes what has expired under one key; adds to both counts.
static void _cleanup_node(pool_node* node, int32_t* clean, int32_t* total) {
    list_link* link = node->idle_list.next;
    while (link != &node->idle_list) {
        pool_entry* entry = (pool_entry*)link;
        link = link->next;
        ++*total;
        if (_is_expired(entry)) {
            list_unlink(&entry->link);
            http_connect_close(entry->conn);
            free(entry);
            ++*clean;
        }
    }
}

// At most once in 30 seconds, so that frequent lookups do not walk the whole pool.
static void _cleanup_timeout_connection(void) {
    int32_t clean = 0;
    int32_t total = 0;
    if (idle_pool == nullptr ||
        GetTickCount64() < idle_pool->last_cleanup_time + CLEANUP_INTERVAL) {
        return;
    }
    idle_pool->last_cleanup_time = GetTickCount64();
    pool_node* node = nullptr;
    RB_FOREACH(node, pool_tree, idle_pool->tree) {
        _cleanup_node(node, &clean, &total);
    }
    LOG_INFO("_cleanup_timeout_connection, clean=%d, total=%d, cache-hit=%d/%d", clean, total,
             (int)idle_pool->hit_count, (int)(idle_pool->hit_count + idle_pool->miss_count));
}

http_connection* get_connection_from_pool(int32_t is_https, const char* host, uint16_t port) {
    LOG_ASSERT(is_loop_thread());
    if (idle_pool == nullptr || is_empty_text(host) || port == 0) {
        return nullptr;
    }
    _cleanup_timeout_connection();
    return _get_connection(is_https, host, port);
}

// --------------------------------------------------------------------------------------- end

static void _release_node(pool_node* node) {
    while (!list_empty(&node->idle_list)) {
        pool_entry* entry = (pool_entry*)list_take_first(&node->idle_list);
        http_connection_destroy(entry->conn);
        free(entry);
    }
    free(node->host);
    free(node);
}

void release_connection_pool(void) {
    connection_pool* pool = idle_pool;
    idle_pool = nullptr;
    if (pool == nullptr) {
        return;
    }
    pool_node* node = RB_MIN(pool_tree, pool->tree);
    while (node != nullptr) {
        pool_node* next = RB_NEXT(pool_tree, pool->tree, node);
        RB_REMOVE(pool_tree, pool->tree, node);
        _release_node(node);
        node = next;
    }
    free(pool->tree);
    free(pool);
}
