// The option record of a session, filled by tavHTTPSetOption.
#ifndef TAVHTTPCLIENT_HTTPOPTION_H
#define TAVHTTPCLIENT_HTTPOPTION_H

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"

struct upload_item;

// One extra request header line.
struct header_entry {
    list_link link;
    char* name;
    char* value;
    uint32_t enabled;  // always 1; unread
};
LIST_ENTRY_CHECK(header_entry);

// Owned by its session. Written by the host's thread before the session is sent, read-only
// afterwards, except no_reuse (loop thread). Texts are owned; null means not set.
struct http_options {
    http_session* session;  // unread
    uint32_t method;
    char* url;
    proxy_info* proxy;
    int32_t priority;
    uint32_t no_reuse;
    uint32_t queue_fifo;
    uint32_t keep_connection;
    int32_t keep_alive_timeout;  // ms
    int32_t keep_alive_max;
    uint32_t no_redirect;
    uint32_t option_2;        // unread
    int32_t connect_timeout;  // ms; 0 or less: the connection layer's default
    int32_t io_timeout;       // ms; less than 1: 30000
    int32_t session_timeout;  // ms; 0 or less: none
    uint32_t no_cookie_store;
    uint32_t no_compression;
    char* if_none_match;
    char* accept;
    char* user_agent;
    char* host;
    char* cache_control;
    uint32_t connection;  // 0 default, 1 keep-alive, 2 close
    int64_t range_start;
    int64_t range_end;          // -1: open end
    int64_t if_modified_since;  // seconds since 1970 UTC, 0: none
    text_buffer cookie;         // zero-terminated when not empty
    uint32_t hide_url;
    list_link header_list;  // header_entry
    char* download_file;
    uint32_t download_to_file;
    uint32_t resume;
    uint32_t keep_error_body;
    char* tls_host_name;
    text_buffer body;
    char* upload_file;
    list_link form_list;  // upload_item: name, file names and the form_ fields
    uint32_t body_md5;
    uint32_t keep_undecoded_body;
};

// New option record with defaults; null without memory. free_http_options accepts null and frees
// everything that the record owns.
http_options* new_http_options(void);
void free_http_options(http_options* options);

#endif
