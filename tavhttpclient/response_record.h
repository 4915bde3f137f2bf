// The response record: what has been received and where it stands.
#ifndef TAVHTTPCLIENT_RESPONSE_RECORD_H
#define TAVHTTPCLIENT_RESPONSE_RECORD_H

#include <stdint.h>
#include <stdio.h>
#include <uv.h>

#include "tavhttpclient/contentdecompress.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

struct evp_md_ctx_st;  // OpenSSL's EVP_MD_CTX
struct response_parser;

// Values of http_response.recv_state.
enum {
    RECV_NONE = 0,
    RECV_BEGUN = 1,
    RECV_HEADERS_DONE = 2,
    RECV_COMPLETE = 3,
    RECV_ERROR = 4
};

// Values of http_response.connection_mode.
enum {
    CONNECTION_MODE_NONE = 0,  // no Connection header
    CONNECTION_MODE_KEEP_ALIVE = 1,
    CONNECTION_MODE_CLOSE = 2
};

enum {
    MD5_DIGEST_SIZE = 16
};

// One received header line.
struct response_header {
    list_link link;
    char* name;
    char* value;
};
LIST_ENTRY_CHECK(response_header);

// One per attempt, owned by its session. Written by the parse and write work (worker threads) and
// by the loop thread between them, never by two at a time.
struct http_response {
    http_session* session;  // unread
    uint32_t status_code;
    char* status_text;
    uint32_t connection_mode;
    int32_t keep_alive_timeout;
    int32_t keep_alive_max;
    uint64_t content_length;    // 0 when absent
    uint64_t known_length;      // the loop thread's copy of it, taken between two chunks
    char* content_type;         // unread
    char* content_disposition;  // unread
    char* transfer_encoding;    // unread
    uint8_t chunked;
    int64_t range_start;
    int64_t range_end;
    int64_t range_total;
    char* location;         // absolute redirect target
    char* server;           // unread
    int64_t unset_time;     // stays 0
    int64_t last_modified;  // seconds since 1970 UTC
    char* etag;
    uint32_t content_encoding;   // 0 identity, 1 gzip, 2 deflate
    text_buffer set_cookie;      // values, zero-separated, double-zero-terminated
    list_link* header_list;      // response_header, in order of arrival
    text_buffer recv_buffer;     // raw bytes of the last chunk
    uint64_t recv_body_bytes;    // before decoding
    uint64_t body_bytes;         // after decoding
    text_buffer body_chunk;      // decoded, not yet written
    uint64_t delivered_bytes;    // decoded bytes handed to the writer
    evp_md_ctx_st* md5_context;  // made on first use with option 113
    uint8_t md5_digest[MD5_DIGEST_SIZE];
    text_buffer memory_body;
    char* file_path;  // final path
    char* temp_path;  // path being written
    FILE* recv_file_id;
    uv_fs_t fs_req;
    uint64_t file_written;
    content_decoder decoder;
    response_parser* parser;
    uint32_t recv_state;
    worker_step parse_work;
    uint32_t result;

    // What the parser needs of the request.
    uint32_t session_id;
    const char* request_url;      // the request's, which does not change while bytes come
    uint8_t keep_undecoded_body;  // a body that cannot be decoded is taken as it is

    uint8_t has_surplus;  // bytes came behind its end: the connection is not to be used again
};

#endif
