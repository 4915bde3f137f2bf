// Receiving a response, writing its body to memory or to a file, and settling the file.
//
// http_recv_response -> recv -> _work_parse_response -> _work_write_body -> (recv again | finish)
//   -> close, rename or delete the file -> on_recv_result
#ifndef TAVHTTPCLIENT_HTTPRESPONSE_H
#define TAVHTTPCLIENT_HTTPRESPONSE_H

#include <openssl/evp.h>
#include <stdio.h>
#include <uv.h>

#include "tavhttpclient/contentdecompress.h"
#include "tavhttpclient/list.h"
#include "tavhttpclient/message_parser.h"
#include "tavhttpclient/tavhttpclient.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

// Values of http_response.recv_state.
enum {
    RECV_NONE = 0,
    RECV_BEGUN = 1,
    RECV_HEADERS_DONE = 2,
    RECV_COMPLETE = 3,
    RECV_ERROR = 4
};

enum {
    RECV_BUFFER_SIZE = 32768,
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
    http_session* session;
    uint32_t status_code;
    char* status_text;
    uint32_t connection_mode;  // 0 no Connection header, 1 keep-alive, 2 close
    int32_t keep_alive_timeout;
    int32_t keep_alive_max;
    uint64_t content_length;  // 0 when absent
    uint64_t known_length;    // the loop thread's copy of it, taken between two chunks
    char* content_type;
    char* content_disposition;
    char* transfer_encoding;
    uint8_t chunked;
    int64_t range_start;
    int64_t range_end;
    int64_t range_total;
    char* location;  // absolute redirect target
    char* server;
    int64_t unset_time;     // stays 0; query 7
    int64_t last_modified;  // seconds since 1970 UTC
    char* etag;
    uint32_t content_encoding;  // 0 identity, 1 gzip, 2 deflate
    text_buffer set_cookie;     // values, zero-separated, double-zero-terminated
    list_link* header_list;     // response_header, in order of arrival
    text_buffer recv_buffer;    // raw bytes of the last chunk
    uint64_t recv_body_bytes;   // before decoding
    uint64_t body_bytes;        // after decoding
    text_buffer body_chunk;     // decoded, not yet written
    uint64_t delivered_bytes;   // decoded bytes handed to the writer
    EVP_MD_CTX* md5_context;    // made on first use with option 113
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

    uint8_t has_surplus;  // bytes came behind its end: the connection is not to be used again
};

// Receives the response to the request just sent: frees the session's old response, makes a new
// one and starts. Loop thread.
//
// Returns 0: the session's on_recv_result is called once, later; any other code: it is not.
uint32_t http_recv_response(http_session* session);

// Frees a response with all it owns; null is allowed. Loop thread (an open file is closed
// asynchronously there, at once elsewhere).
void free_http_response(http_response* response);

// Frees the receive buffers that are kept for the next responses. Loop thread, at its end.
void free_spare_recv_buffers(void);

// Status 200 or 206, or the host asked for bodies of every status.
bool is_body_wanted(http_session* session);

// Hands the new body bytes to the host and puts them into the file or the memory body; opens the
// file first and closes it behind the last byte. Worker thread of the write work.
//
// Returns 0 or the code that ends the response; a file may then still be open.
uint32_t write_response_body(http_session* session);
// Stores the digest of the body handed over so far in md5_digest. Once per response. False: there
// is none.
bool finish_body_md5(http_response* response);

#endif
