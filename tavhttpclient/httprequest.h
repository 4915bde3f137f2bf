// The request of a session: its head, its body items, and sending both.
//
// http_send_request -> _work_init_upload_data (worker: items, head)
//   -> head -> for each item: part header -> content chunks -> tailer -> on_send_result
#ifndef TAVHTTPCLIENT_HTTPREQUEST_H
#define TAVHTTPCLIENT_HTTPREQUEST_H

#include <stdio.h>
#include <uv.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

struct http_options;

// Kinds of an upload item. The bit 0x10000 marks content in memory, 0x20000 content in a file.
enum {
    UPLOAD_ITEM_MEMORY_BIT = 0x10000,
    UPLOAD_ITEM_FILE_BIT = 0x20000,
    UPLOAD_ITEM_DATA = 0x10001,
    UPLOAD_ITEM_FILE = 0x20002,
    UPLOAD_ITEM_FORM_FIELD = 0x10003,
    UPLOAD_ITEM_FORM_FILE = 0x20004,
    UPLOAD_ITEM_FORM_DATA = 0x10005
};

enum {
    UPLOAD_CHUNK_SIZE = 16384
};

// Values of http_request.body_kind.
enum {
    BODY_NONE = 0,
    BODY_RAW = 1,
    BODY_FORM_URLENCODED = 2,
    BODY_MULTIPART = 3
};

// One piece of upload data. In http_options.form_list it is what the host gave (name and the form_
// fields); in http_request.upload_item_list it is what is being sent (all the others).
struct upload_item {
    list_link link;
    uint32_t kind;
    char* name;
    text_buffer part_header;  // sent before the content
    text_buffer part_tailer;  // sent after the content
    FILE* file;               // owned; closed on a worker thread when the item is freed
    int64_t file_size;        // when it was opened
    char* file_name;          // announced for UPLOAD_ITEM_FORM_FILE
    char* data_file_name;     // announced for UPLOAD_ITEM_FORM_DATA
    text_buffer* data;        // not owned: a buffer of the options, or http_request.form_body

    text_buffer form_value;  // host's entry: text of a field (storage set: the entry is a field)
    char* form_path;         // host's entry: path of a file, may be ""
    text_buffer form_data;   // host's entry: bytes
};
LIST_ENTRY_CHECK(upload_item);

// Frees an item with all it owns; null is allowed. An open file is closed asynchronously on the
// loop thread, at once elsewhere.
void free_upload_item(upload_item* item);

// Created and freed with its session; rebuilt by every send.
struct http_request {
    http_session* session;
    uint32_t method;  // effective: a POST with nothing to send is sent like a GET
    char* url;        // current; redirects replace it
    char* referer;
    char* host;  // these three are refreshed from `url` by every build
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

http_request* new_http_request(http_session* session);
void free_http_request(http_request* request);

// Sends the session's request over its connection. Loop thread.
//
// Returns 0: the session's on_send_result is called once, later; any other code: it is not.
uint32_t http_send_request(http_session* session);

// Builds request->header from options. Worker thread (or a test). False: not sendable.
bool _build_request_header(http_request* request, http_options* options, text_buffer* header);
// Appends the Range line; end -1 is open, a negative end with it a suffix.
bool _add_header_field_range(text_buffer* buffer, int64_t start, int64_t end);
// New multipart boundary of 3 to 23 characters.
char* make_boundary(void);
// Turns the options into request->upload_item_list and builds the head. Worker thread.
uint32_t http_request_prepare(http_session* session);

#endif
