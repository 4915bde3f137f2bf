/*
 * tavHTTPClient for C hosts, with types: tavHTTPSetOption and tavHTTPQueryInfo take what they are
 * given as it comes, these functions take each value in its own type. Nothing here is exported: all
 * of it is compiled into the host. Rules on threads, ownership and results are those of
 * tavHTTPSetOption and tavHTTPQueryInfo; the options and queries are described in tavhttpclient.h.
 *
 *     tav_http_set_range(session, 0, 999);             tavHTTPSetOption(session,
 *                                                          TAV_HTTP_OPTION_RANGE,
 *                                                          (int64_t)0, (int64_t)999);
 *     tav_http_get_status_code(session, &status);      tavHTTPQueryInfo(session,
 *                                                          TAV_HTTP_QUERY_STATUS_CODE,
 *                                                          &status, NULL, NULL);
 */
#ifndef TAVHTTPCLIENT_TAVHTTPCLIENT_TYPED_H
#define TAVHTTPCLIENT_TAVHTTPCLIENT_TYPED_H

#include "tavhttpclient/tavhttpclient.h"

#ifdef __cplusplus
#define TAV_HTTP_INLINE inline
extern "C" {
#else
#define TAV_HTTP_INLINE static inline
#endif

/* ------------------------------------------------------------------------------------------------
 * Setters. For each option of one value:
 *
 *     uint32_t tav_http_set_NAME(http_session* session, TYPE value);
 */
#define TAV_HTTP_OPTION_TYPES(X)                                                                   \
    X(no_redirect, TAV_HTTP_OPTION_NO_REDIRECT, uint32_t)                                          \
    X(option_2, TAV_HTTP_OPTION_2, uint32_t)                                                       \
    X(connect_timeout, TAV_HTTP_OPTION_CONNECT_TIMEOUT, int32_t)                                   \
    X(io_timeout, TAV_HTTP_OPTION_IO_TIMEOUT, int32_t)                                             \
    X(session_timeout, TAV_HTTP_OPTION_SESSION_TIMEOUT, int32_t)                                   \
    X(download_file, TAV_HTTP_OPTION_DOWNLOAD_FILE, const char*)                                   \
    X(download_to_file, TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, uint32_t)                                \
    X(if_modified_since, TAV_HTTP_OPTION_IF_MODIFIED_SINCE, int64_t)                               \
    X(if_none_match, TAV_HTTP_OPTION_IF_NONE_MATCH, const char*)                                   \
    X(cookie, TAV_HTTP_OPTION_COOKIE, const char*)                                                 \
    X(accept, TAV_HTTP_OPTION_ACCEPT, const char*)                                                 \
    X(user_agent, TAV_HTTP_OPTION_USER_AGENT, const char*)                                         \
    X(connection, TAV_HTTP_OPTION_CONNECTION, uint32_t)                                            \
    X(no_cookie_store, TAV_HTTP_OPTION_NO_COOKIE_STORE, uint32_t)                                  \
    X(no_compression, TAV_HTTP_OPTION_NO_COMPRESSION, uint32_t)                                    \
    X(resume, TAV_HTTP_OPTION_RESUME, uint32_t)                                                    \
    X(body_md5, TAV_HTTP_OPTION_BODY_MD5, uint32_t)                                                \
    X(keep_error_body, TAV_HTTP_OPTION_KEEP_ERROR_BODY, uint32_t)                                  \
    X(tls_host_name, TAV_HTTP_OPTION_TLS_HOST_NAME, const char*)                                   \
    X(host, TAV_HTTP_OPTION_HOST, const char*)                                                     \
    X(cache_control, TAV_HTTP_OPTION_CACHE_CONTROL, const char*)                                   \
    X(upload_file, TAV_HTTP_OPTION_UPLOAD_FILE, const char*)                                       \
    X(priority, TAV_HTTP_OPTION_PRIORITY, int32_t)                                                 \
    X(no_reuse, TAV_HTTP_OPTION_NO_REUSE, uint32_t)                                                \
    X(proxy, TAV_HTTP_OPTION_PROXY, const proxy_info*)                                             \
    X(queue_fifo, TAV_HTTP_OPTION_QUEUE_FIFO, uint32_t)                                            \
    X(hide_url, TAV_HTTP_OPTION_HIDE_URL, uint32_t)                                                \
    X(connecting, TAV_HTTP_OPTION_CONNECTING_CALLBACK, connecting_callback)                        \
    X(connected, TAV_HTTP_OPTION_CONNECTED_CALLBACK, connected_callback)                           \
    X(download_start, TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, download_start_callback)            \
    X(redirect, TAV_HTTP_OPTION_REDIRECT_CALLBACK, redirect_callback)                              \
    X(download_data, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, download_data_callback)               \
    X(complete, TAV_HTTP_OPTION_COMPLETE_CALLBACK, complete_callback)                              \
    X(upload_progress, TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, upload_progress_callback)         \
    X(response_header, TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, response_header_callback)

#define TAV_HTTP_SETTER(name, option, type)                                                        \
    TAV_HTTP_INLINE uint32_t tav_http_set_##name(http_session* session, type value) {              \
        return tavHTTPSetOption(session, option, value);                                           \
    }
TAV_HTTP_OPTION_TYPES(TAV_HTTP_SETTER)
#undef TAV_HTTP_SETTER

/* Option 103: first and last byte. Last -1: to the end; (0, -n): the last n bytes, n above 1. */
TAV_HTTP_INLINE uint32_t tav_http_set_range(http_session* session, int64_t first, int64_t last) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_RANGE, first, last);
}

/* Option 190: adds a header line. The value is no format: it goes out as it is. */
TAV_HTTP_INLINE uint32_t tav_http_add_header(http_session* session, const char* name,
                                             const char* value) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_HEADER, name, "%s",
                            value != 0 ? value : "");
}

/* Option 191: adds a form field. The value is no format. */
TAV_HTTP_INLINE uint32_t tav_http_add_form_field(http_session* session, const char* name,
                                                 const char* value) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FIELD, name, "%s",
                            value != 0 ? value : "");
}

/* Option 192: adds a file to the form; without `file_name` it goes by the last part of its path. */
TAV_HTTP_INLINE uint32_t tav_http_add_form_file(http_session* session, const char* name,
                                                const char* path, const char* file_name) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FILE, name, path, file_name);
}

/* Option 195: adds `length` bytes to the form, announced as a file. */
TAV_HTTP_INLINE uint32_t tav_http_add_form_data(http_session* session, const char* name,
                                                const void* data, int32_t length,
                                                const char* file_name) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_DATA, name, data, length, file_name);
}

/* Option 193: appends `length` bytes to the request body. */
TAV_HTTP_INLINE uint32_t tav_http_append_body(http_session* session, const void* data,
                                              uint32_t length) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_APPEND_BODY, data, length);
}

/* Option 205: keeps the connection afterwards, for this idle time and number of reuses; 0: what the
 * server says, else the library's default. */
TAV_HTTP_INLINE uint32_t tav_http_set_keep_alive(http_session* session, uint32_t keep,
                                                 int32_t idle_ms, int32_t reuses) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_KEEP_ALIVE, keep, idle_ms, reuses);
}

/* Option 207: keeps the raw body when decoding fails. It sets what option 110 sets too. */
TAV_HTTP_INLINE uint32_t tav_http_set_keep_undecoded_body(http_session* session, uint32_t keep,
                                                          uint32_t no_cookie_store) {
    return tavHTTPSetOption(session, TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, keep, no_cookie_store);
}

/* ------------------------------------------------------------------------------------------------
 * Getters. For each query of one value:
 *
 *     uint32_t tav_http_get_NAME(http_session* session, TYPE* value);
 *
 * `value` is written when the result is 0. Texts belong to the session.
 */
#define TAV_HTTP_QUERY_TYPES(X)                                                                    \
    X(status_code, TAV_HTTP_QUERY_STATUS_CODE, uint32_t)                                           \
    X(status_text, TAV_HTTP_QUERY_STATUS_TEXT, const char*)                                        \
    X(option_range_start, TAV_HTTP_QUERY_OPTION_RANGE_START, int64_t)                              \
    X(option_range_end, TAV_HTTP_QUERY_OPTION_RANGE_END, int64_t)                                  \
    X(file_path, TAV_HTTP_QUERY_FILE_PATH, const char*)                                            \
    X(query_7, TAV_HTTP_QUERY_7, int64_t)                                                          \
    X(set_cookie, TAV_HTTP_QUERY_SET_COOKIE, const char*)                                          \
    X(content_length, TAV_HTTP_QUERY_CONTENT_LENGTH, uint64_t)                                     \
    X(url, TAV_HTTP_QUERY_URL, const char*)                                                        \
    X(current_url, TAV_HTTP_QUERY_CURRENT_URL, const char*)                                        \
    X(range_start, TAV_HTTP_QUERY_RANGE_START, int64_t)                                            \
    X(range_end, TAV_HTTP_QUERY_RANGE_END, int64_t)                                                \
    X(range_total, TAV_HTTP_QUERY_RANGE_TOTAL, int64_t)                                            \
    X(last_modified, TAV_HTTP_QUERY_LAST_MODIFIED, int64_t)                                        \
    X(etag, TAV_HTTP_QUERY_ETAG, const char*)                                                      \
    X(body_bytes, TAV_HTTP_QUERY_BODY_BYTES, uint64_t)                                             \
    X(content_encoding, TAV_HTTP_QUERY_CONTENT_ENCODING, uint32_t)

#define TAV_HTTP_GETTER(name, query, type)                                                         \
    TAV_HTTP_INLINE uint32_t tav_http_get_##name(http_session* session, type* value) {             \
        return tavHTTPQueryInfo(session, query, (void*)value, 0, 0);                               \
    }
TAV_HTTP_QUERY_TYPES(TAV_HTTP_GETTER)
#undef TAV_HTTP_GETTER

/* Query 5: the body kept in memory; null when there is none. It belongs to the session. */
TAV_HTTP_INLINE uint32_t tav_http_get_memory_body(http_session* session, const char** body,
                                                  int32_t* length) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, (void*)body, length, 0);
}

/* Query 10: all header lines, copied. `length` is in: bytes available; out: bytes needed. A buffer
 * that is too small stays empty; null asks for the length. */
TAV_HTTP_INLINE uint32_t tav_http_get_raw_headers(http_session* session, char* buffer,
                                                  int32_t* length) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, buffer, length, 0);
}

/* Query 19: the first value of a header, copied; `length` as above. */
TAV_HTTP_INLINE uint32_t tav_http_get_header(http_session* session, const char* name, char* buffer,
                                             int32_t* length) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, (void*)(uintptr_t)name, buffer, length);
}

/* Query 24: all values of a header, each with its zero, then a zero; `length` as above. */
TAV_HTTP_INLINE uint32_t tav_http_get_header_all(http_session* session, const char* name,
                                                 char* buffer, int32_t* length) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER_ALL, (void*)(uintptr_t)name, buffer,
                            length);
}

/* Query 22: the body's MD5 (option 113). */
TAV_HTTP_INLINE uint32_t tav_http_get_body_md5(http_session* session, uint8_t digest[16]) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_BODY_MD5, digest, 0, 0);
}

/* Query 23: the server's IP address as text; empty behind a proxy. */
TAV_HTTP_INLINE uint32_t tav_http_get_peer_address(http_session* session, char address[64]) {
    return tavHTTPQueryInfo(session, TAV_HTTP_QUERY_PEER_ADDRESS, address, 0, 0);
}

/* ------------------------------------------------------------------------------------------------
 * What a code means, in words: what happened and its usual cause, without a full stop. The first of
 * each row is its name in the C++ layer.
 */
#define TAV_HTTP_ERROR_TEXTS(X)                                                                    \
    X(ok, TAV_HTTP_ERROR_CODE_OK, "success")                                                       \
    X(not_modified, TAV_HTTP_ERROR_CODE_NOT_MODIFIED,                                              \
      "not changed on the server, nothing was fetched")                                            \
    X(cancel, TAV_HTTP_ERROR_CODE_CANCEL, "cancelled")                                             \
    X(session_timeout, TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT,                                        \
      "not finished within the time for the whole transfer")                                       \
    X(internal_error_flag, TAV_HTTP_ERROR_CODE_INTERNAL_ERROR_FLAG, "an internal error")           \
    X(fail_run_event_loop, TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP,                                \
      "the library could not start its thread")                                                    \
    X(not_initialized, TAV_HTTP_ERROR_CODE_NOT_INITIALIZED, "the library is not started")          \
    X(null_event_loop, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP, "the library is shutting down")        \
    X(out_of_memory, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY,                                            \
      "not enough memory, or the body is too large for it")                                        \
    X(fail_queue_work, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK,                                        \
      "the library could not queue its work")                                                      \
    X(fail_start_async, TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC, "the library is not running")        \
    X(timer_error, TAV_HTTP_ERROR_CODE_TIMER_ERROR, "a timer failed")                              \
    X(fail_other, TAV_HTTP_ERROR_CODE_FAIL_OTHER, "an internal error")                             \
    X(misc_flag, TAV_HTTP_ERROR_CODE_MISC_FLAG, "a wrong call")                                    \
    X(invalid_url, TAV_HTTP_ERROR_CODE_INVALID_URL,                                                \
      "not a URL that can be fetched: http:// or https:// and a host are needed")                  \
    X(invalid_arg, TAV_HTTP_ERROR_CODE_INVALID_ARG, "an argument or option that is not accepted")  \
    X(invalid_proxy, TAV_HTTP_ERROR_CODE_INVALID_PROXY,                                            \
      "the proxy's type, host or port is not usable")                                              \
    X(invalid_form_data, TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA,                                    \
      "a form entry has no name or no value")                                                      \
    X(invalid_request_header, TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER,                          \
      "the request could not be put together: check the URL, the range and the form")              \
    X(query_info_not_available, TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE,                      \
      "there is no such value, or no response yet")                                                \
    X(buffer_too_small, 0x20007, "the buffer is too small for all values")                         \
    X(protocol_flag, TAV_HTTP_ERROR_CODE_PROTOCOL_FLAG, "the exchange with the server failed")     \
    X(invalid_content_length, TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH,                          \
      "the body has another size than the server announced; it was cut off or altered")            \
    X(too_many_redirect, TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT,                                    \
      "too many redirects; the server probably sends them in a circle")                            \
    X(svr_return_error, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR,                                      \
      "the server answered with a status that is no success")                                      \
    X(not_support_https, TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS,                                    \
      "the library was built without https")                                                       \
    X(method_not_support, TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT, "there is no such method")       \
    X(proxy_type_not_support, TAV_HTTP_ERROR_CODE_PROXY_TYPE_NOT_SUPPORT,                          \
      "this kind of proxy is not supported")                                                       \
    X(content_encoding_not_support, TAV_HTTP_ERROR_CODE_CONTENT_ENCODING_NOT_SUPPORT,              \
      "the body is compressed in an unknown way")                                                  \
    X(fail_decode_content, TAV_HTTP_ERROR_CODE_FAIL_DECODE_CONTENT,                                \
      "the compressed body is damaged")                                                            \
    X(fail_parse_response, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE,                                \
      "the answer is not HTTP/1.x, or its compressed body is damaged; is the port right?")         \
    X(certificate_name, 0x4000A,                                                                   \
      "the certificate's common name is not the expected one, or is the first entry of its "       \
      "subject, where it is not found")                                                            \
    X(network_flag, TAV_HTTP_ERROR_CODE_NETWORK_FLAG, "the network failed")                        \
    X(fail_create_socket, TAV_HTTP_ERROR_CODE_FAIL_CREATE_SOCKET, "no socket could be made")       \
    X(fail_start_dns, TAV_HTTP_ERROR_CODE_FAIL_START_DNS, "the name look-up could not be started") \
    X(host_not_found, TAV_HTTP_ERROR_CODE_HOST_NOT_FOUND, "the host's name was not found")         \
    X(dns_timeout, TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, "the name look-up took too long")              \
    X(recv_timeout, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT, "the server sent nothing for too long")      \
    X(send_timeout, TAV_HTTP_ERROR_CODE_SEND_TIMEOUT, "the server took nothing for too long")      \
    X(fail_connect, TAV_HTTP_ERROR_CODE_FAIL_CONNECT,                                              \
      "no connection to the server or the proxy: the name is unknown, nothing listens there, or "  \
      "no answer came in time")                                                                    \
    X(fail_send, TAV_HTTP_ERROR_CODE_FAIL_SEND, "the connection broke while the request was sent") \
    X(fail_recv, TAV_HTTP_ERROR_CODE_FAIL_RECV,                                                    \
      "the connection broke before the answer was complete")                                       \
    X(connect_proxy_fail_connect, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT,                  \
      "the proxy could not connect to the server, or is not allowed to")                           \
    X(connect_proxy_fail_send, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND,                        \
      "the proxy broke the connection off")                                                        \
    X(connect_proxy_fail_recv, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV,                        \
      "the proxy broke the connection off, or did not answer as a proxy of this kind")             \
    X(connect_proxy_host_not_found, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_HOST_NOT_FOUND,              \
      "the proxy's name was not found")                                                            \
    X(connect_proxy_svr_deny, TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY,                          \
      "the proxy refused: wrong user or password, a target that it does not reach, or another "    \
      "kind of proxy")                                                                             \
    X(file_system_flag, TAV_HTTP_ERROR_CODE_FILE_SYSTEM_FLAG, "a file or directory failed")        \
    X(fail_create_directory, TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY,                            \
      "the directory could not be created")                                                        \
    X(fail_open_response_file, TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE,                        \
      "the file could not be opened for writing: does its directory exist, may you write there, "  \
      "and is it a regular file?")                                                                 \
    X(fail_write_response_file, TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE,                      \
      "the file could not be written: is the disk full?")                                          \
    X(fail_open_upload_file, TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE,                            \
      "the file to send could not be opened")                                                      \
    X(fail_get_upload_file_stat, TAV_HTTP_ERROR_CODE_FAIL_GET_UPLOAD_FILE_STAT,                    \
      "the file to send has no readable size")                                                     \
    X(fail_read_upload_file, TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE,                            \
      "the file to send could not be read to its end; was it changed meanwhile?")

/* The text of a code; never null. */
TAV_HTTP_INLINE const char* tav_http_error_text(uint32_t code) {
    switch (code) {
#define TAV_HTTP_ERROR_TEXT(name, value, text)                                                     \
    case value:                                                                                    \
        return text;
        TAV_HTTP_ERROR_TEXTS(TAV_HTTP_ERROR_TEXT)
#undef TAV_HTTP_ERROR_TEXT
    default:
        /* A negative number is the TLS engine's. */
        return (code & 0x80000000u) != 0 ? "the TLS connection failed" : "an unknown error";
    }
}

/* The name of a code's constant; null for one that has none. */
TAV_HTTP_INLINE const char* tav_http_error_name(uint32_t code) {
    switch (code) {
#define TAV_HTTP_ERROR_NAME(name, value)                                                           \
    case value:                                                                                    \
        return #name;
        TAV_HTTP_ERROR_CODE_MAP(TAV_HTTP_ERROR_NAME)
#undef TAV_HTTP_ERROR_NAME
    default:
        return 0;
    }
}

#ifdef __cplusplus
}
#endif

#undef TAV_HTTP_INLINE

#endif
