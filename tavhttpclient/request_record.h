// The request record: what is sent for a session, and how far that has got.
#ifndef TAVHTTPCLIENT_REQUEST_RECORD_H
#define TAVHTTPCLIENT_REQUEST_RECORD_H

#include <stdint.h>
#include <uv.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

// Values of http_request.body_kind.
enum {
    BODY_NONE = 0,
    BODY_RAW = 1,
    BODY_FORM_URLENCODED = 2,
    BODY_MULTIPART = 3
};

// Created and freed with its session; rebuilt by every send.
struct http_request {
    http_session* session;
    uint32_t method;  // effective: a POST with nothing to send is sent like a GET
    char* url;        // current; redirects replace it
    char* referer;    // the URL before the last redirect; unread
    char* host;       // these three are refreshed from `url` by every build
    char* path;
    char* target;
    uint32_t redirect_count;
    int64_t range_start;  // 0: no range asked for
    int64_t range_end;    // -1: open end
    text_buffer header;
    char* boundary;  // multipart boundary, made once
    uint32_t body_kind;
    list_link upload_item_list;
    int64_t item_offset;      // bytes of the current item already sent
    text_buffer read_buffer;  // one chunk of an upload file
    text_buffer form_body;    // url-encoded form
    int64_t sent_bytes;
    int64_t total_bytes;  // head and announced body
    uv_fs_t read_req;
    worker_step read_step;  // on which it runs; data: the session
};

#endif
