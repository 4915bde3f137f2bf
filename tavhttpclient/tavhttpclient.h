/*
 * tavHTTPClient: asynchronous HTTP/1.1 and HTTPS transfers for a host application.
 *
 * The public header for C and C++; tavhttpclient.hpp puts types on top of it for C++17. The life of
 * one request:
 *
 *   tavHTTPStartup -> tavHTTPOpen -> tavHTTPSetOption... -> tavHTTPSendRequest
 *   -> callbacks -> complete_callback (tavHTTPQueryInfo in it or after it) -> tavHTTPClose
 *
 * Threads. Any thread of the host may call any function, threads inside callbacks included, with
 * two exceptions: tavHTTPStartup and tavHTTPShutdown must not run at the same time as one another,
 * and tavHTTPShutdown must not be called inside a callback. Callbacks arrive on worker threads of
 * the library or on its loop thread (stated at each type) and must not block for long.
 *
 * Texts are zero-terminated UTF-8, paths included. The library copies every text and every
 * proxy_info that it is given; the caller keeps its own.
 */
#ifndef TAVHTTPCLIENT_TAVHTTPCLIENT_H
#define TAVHTTPCLIENT_TAVHTTPCLIENT_H

#include <stdint.h>

/* ------------------------------------------------------------------------------------------------
 * Version. A host that must be changed for a release meets another first number; the shared
 * library's name carries it too.
 */
#define TAV_HTTP_VERSION_MAJOR 1 /* the first number */
#define TAV_HTTP_VERSION_MINOR 0 /* the second */
#define TAV_HTTP_VERSION_PATCH 0 /* the third */
#define TAV_HTTP_VERSION_JOIN_(a, b, c) #a "." #b "." #c
#define TAV_HTTP_VERSION_JOIN(a, b, c) TAV_HTTP_VERSION_JOIN_(a, b, c)
/* The three as a text: "1.0.0". */
#define TAV_HTTP_VERSION_TEXT                                                                      \
    TAV_HTTP_VERSION_JOIN(TAV_HTTP_VERSION_MAJOR, TAV_HTTP_VERSION_MINOR, TAV_HTTP_VERSION_PATCH)

/* A host of the static library defines TAV_HTTP_STATIC; the CMake target and the .pc file do. */
#if defined(TAV_HTTP_STATIC)
#define TAV_HTTP_API
#elif defined(_WIN32)
#if defined(TAV_HTTP_BUILD)
#define TAV_HTTP_API __declspec(dllexport)
#else
#define TAV_HTTP_API __declspec(dllimport)
#endif
#else
#define TAV_HTTP_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------
 * Error codes. 0 is success; the high half names the family, the low half the reason. The list is
 * the one source of the constants and of the names in the log.
 */
#define TAV_HTTP_ERROR_CODE_MAP(X)                                                                 \
    X(TAV_HTTP_ERROR_CODE_OK, 0x0)                                                                 \
    /* The server says that the resource has not changed (status 304). */                          \
    X(TAV_HTTP_ERROR_CODE_NOT_MODIFIED, 0x1)                                                       \
    /* tavHTTPCancelRequest, or a shut-down, ended the session. */                                 \
    X(TAV_HTTP_ERROR_CODE_CANCEL, 0x2)                                                             \
    /* The session time-out (option 5) ended the session. */                                       \
    X(TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT, 0x3)                                                    \
    /* Family: the library itself failed. */                                                       \
    X(TAV_HTTP_ERROR_CODE_INTERNAL_ERROR_FLAG, 0x10000)                                            \
    /* The loop thread could not be started. */                                                    \
    X(TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP, 0x10001)                                            \
    /* The call needs tavHTTPStartup first. */                                                     \
    X(TAV_HTTP_ERROR_CODE_NOT_INITIALIZED, 0x10002)                                                \
    /* A step found no running loop. */                                                            \
    X(TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP, 0x10003)                                                \
    X(TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY, 0x10004)                                                  \
    /* The worker pool refused a piece of work. */                                                 \
    X(TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK, 0x10005)                                                \
    /* A call could not be handed to the loop thread; also what a successful close returns. */     \
    X(TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC, 0x10006)                                               \
    X(TAV_HTTP_ERROR_CODE_TIMER_ERROR, 0x10007)                                                    \
    /* Any other internal failure; what tavHTTPGetDownloadDirectory always returns. */             \
    X(TAV_HTTP_ERROR_CODE_FAIL_OTHER, 0x100FF)                                                     \
    /* Family: the host's call was wrong. */                                                       \
    X(TAV_HTTP_ERROR_CODE_MISC_FLAG, 0x20000)                                                      \
    /* The URL is not an http or https URL with a host. */                                         \
    X(TAV_HTTP_ERROR_CODE_INVALID_URL, 0x20001)                                                    \
    X(TAV_HTTP_ERROR_CODE_INVALID_ARG, 0x20002)                                                    \
    /* Unknown proxy type, empty proxy host or proxy port 0. */                                    \
    X(TAV_HTTP_ERROR_CODE_INVALID_PROXY, 0x20003)                                                  \
    /* A form entry has no name or no value. */                                                    \
    X(TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA, 0x20004)                                              \
    /* The request head could not be built (range, URL, form). */                                  \
    X(TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER, 0x20005)                                         \
    /* The queried value does not exist (yet). */                                                  \
    X(TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE, 0x20006)                                       \
    /* Family: the exchange with the server. */                                                    \
    X(TAV_HTTP_ERROR_CODE_PROTOCOL_FLAG, 0x40000)                                                  \
    /* Status 200, but the body's size differs from Content-Length. */                             \
    X(TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH, 0x40001)                                         \
    /* More than eleven redirects. */                                                              \
    X(TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT, 0x40002)                                              \
    /* A status other than success, or a redirect without a target. */                             \
    X(TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, 0x40003)                                               \
    /* The library was built without TLS. */                                                       \
    X(TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS, 0x40004)                                              \
    /* The method given to tavHTTPOpen is not 1 to 4. */                                           \
    X(TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT, 0x40005)                                             \
    X(TAV_HTTP_ERROR_CODE_PROXY_TYPE_NOT_SUPPORT, 0x40006)                                         \
    X(TAV_HTTP_ERROR_CODE_CONTENT_ENCODING_NOT_SUPPORT, 0x40007)                                   \
    X(TAV_HTTP_ERROR_CODE_FAIL_DECODE_CONTENT, 0x40008)                                            \
    /* The response is not HTTP/1.x, or its compressed body is damaged. */                         \
    X(TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE, 0x40009)                                            \
    /* Family: sockets, names, connect, send, receive, proxies. */                                 \
    X(TAV_HTTP_ERROR_CODE_NETWORK_FLAG, 0x80000)                                                   \
    /* A direct connect that finds no socket ends with TAV_HTTP_ERROR_CODE_FAIL_CONNECT. */        \
    X(TAV_HTTP_ERROR_CODE_FAIL_CREATE_SOCKET, 0x80001)                                             \
    X(TAV_HTTP_ERROR_CODE_FAIL_START_DNS, 0x80002)                                                 \
    X(TAV_HTTP_ERROR_CODE_HOST_NOT_FOUND, 0x80003)                                                 \
    X(TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, 0x80004)                                                    \
    X(TAV_HTTP_ERROR_CODE_RECV_TIMEOUT, 0x80005)                                                   \
    X(TAV_HTTP_ERROR_CODE_SEND_TIMEOUT, 0x80006)                                                   \
    /* The host did not resolve, or no connection within the connect time-out. */                  \
    X(TAV_HTTP_ERROR_CODE_FAIL_CONNECT, 0x80007)                                                   \
    /* Also when the server answers before the end of the request and closes. */                   \
    X(TAV_HTTP_ERROR_CODE_FAIL_SEND, 0x80008)                                                      \
    /* The connection broke before the response was complete. */                                   \
    X(TAV_HTTP_ERROR_CODE_FAIL_RECV, 0x80009)                                                      \
    X(TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT, 0x80011)                                     \
    X(TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND, 0x80012)                                        \
    X(TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV, 0x80013)                                        \
    X(TAV_HTTP_ERROR_CODE_CONNECT_PROXY_HOST_NOT_FOUND, 0x80014)                                   \
    /* The proxy refused: credentials, method, or the target. */                                   \
    X(TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY, 0x80015)                                         \
    /* Family: files and directories. */                                                           \
    X(TAV_HTTP_ERROR_CODE_FILE_SYSTEM_FLAG, 0x100000)                                              \
    X(TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY, 0x100001)                                         \
    /* No directory, no right to write, or no regular file. */                                     \
    X(TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE, 0x100002)                                       \
    X(TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE, 0x100003)                                      \
    /* Missing, not readable, or no regular file. */                                               \
    X(TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE, 0x100004)                                         \
    X(TAV_HTTP_ERROR_CODE_FAIL_GET_UPLOAD_FILE_STAT, 0x100005)                                     \
    X(TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE, 0x100006)

/* Two further values are in use and have no name: 0x20007, from tavHTTPQueryInfo when the buffer is
 * too small for a list of header values, and 0x4000A, when the certificate's common name differs
 * from the expected one (option 115). A broken TLS exchange may also end with a negative number. */
enum {
#define TAV_HTTP_ERROR_CODE_ENUM(name, value) name = value,
    TAV_HTTP_ERROR_CODE_MAP(TAV_HTTP_ERROR_CODE_ENUM)
#undef TAV_HTTP_ERROR_CODE_ENUM
};

/* Methods: the first argument of tavHTTPOpen. */
enum {
    TAV_HTTP_METHOD_GET = 1,    /* GET */
    TAV_HTTP_METHOD_POST = 2,   /* POST, with the body that the options give */
    TAV_HTTP_METHOD_HEAD = 3,   /* HEAD */
    TAV_HTTP_METHOD_OPTIONS = 4 /* OPTIONS */
};

/* Proxy types: proxy_info.type. */
enum {
    TAV_HTTP_PROXY_NONE = 0,  /* direct connection */
    TAV_HTTP_PROXY_HTTP = 1,  /* HTTP CONNECT, with Basic authentication when user_name is set */
    TAV_HTTP_PROXY_SOCKS5 = 2 /* SOCKS5, with user name and password when user_name is set */
};

/* Priorities: option 201. */
enum {
    TAV_HTTP_PRIORITY_LOW = 100,
    TAV_HTTP_PRIORITY_NORMAL = 1000, /* the default */
    TAV_HTTP_PRIORITY_HIGH = 10000   /* starts at once, whatever runs */
};

/* Keys of tavHTTPSetConfig. */
enum {
    TAV_HTTP_CONFIG_MAX_RUNNING_COUNT = 1,      /* running sessions per kind: 3 to 9, 0 means 6 */
    TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS = 2 /* reuses of a kept-alive connection, 0: no limit */
};

/* ------------------------------------------------------------------------------------------------
 * Options of tavHTTPSetOption: the id, then the values named here. "64-bit" values must be passed
 * as such (an int in their place is read as garbage); tavhttpclient_typed.h has a function of the
 * right type for each option. Set options before tavHTTPSendRequest.
 */
enum {
    /* uint32: 1 does not follow redirects; the 3xx completes with code 0. */
    TAV_HTTP_OPTION_NO_REDIRECT = 1,
    /* uint32: stored, without effect. */
    TAV_HTTP_OPTION_2 = 2,
    /* int32 milliseconds for name resolution and connect together; 0 or less: 15000. */
    TAV_HTTP_OPTION_CONNECT_TIMEOUT = 3,
    /* int32 milliseconds for each single send and receive; less than 1: 30000. */
    TAV_HTTP_OPTION_IO_TIMEOUT = 4,
    /* int32 milliseconds for the whole session once it has left the queue; 0 or less: none. */
    TAV_HTTP_OPTION_SESSION_TIMEOUT = 5,
    /* text: path of the file to download to; null or empty: memory. What stands there is replaced
     * when the download is complete. Clears option 102. */
    TAV_HTTP_OPTION_DOWNLOAD_FILE = 101,
    /* uint32: 1 downloads to a file of the library's choosing (query 6). Clears option 101. */
    TAV_HTTP_OPTION_DOWNLOAD_TO_FILE = 102,
    /* int64 first byte, int64 last byte. Last -1: to the end. (0, -n): the last n bytes. */
    TAV_HTTP_OPTION_RANGE = 103,
    /* int64 seconds since 1970 UTC; 0: none. An unchanged resource completes with code 1. */
    TAV_HTTP_OPTION_IF_MODIFIED_SINCE = 104,
    /* text or null: If-None-Match value. */
    TAV_HTTP_OPTION_IF_NONE_MATCH = 105,
    /* text, not empty: "name=value; name=value", sent before the stored cookies. */
    TAV_HTTP_OPTION_COOKIE = 106,
    /* text or null: Accept value. */
    TAV_HTTP_OPTION_ACCEPT = 107,
    /* text or null: User-Agent value. */
    TAV_HTTP_OPTION_USER_AGENT = 108,
    /* uint32: 1 asks for keep-alive, 2 for close, anything else is the default (keep-alive). */
    TAV_HTTP_OPTION_CONNECTION = 109,
    /* uint32: 1 sends no stored cookies. */
    TAV_HTTP_OPTION_NO_COOKIE_STORE = 110,
    /* uint32: 1 does not ask for gzip or deflate. */
    TAV_HTTP_OPTION_NO_COMPRESSION = 111,
    /* uint32: 1 continues the file of option 101 behind its present end. */
    TAV_HTTP_OPTION_RESUME = 112,
    /* uint32: 1 computes the body's MD5 (query 22). */
    TAV_HTTP_OPTION_BODY_MD5 = 113,
    /* uint32: 1 reports and stores bodies of every status, not only of 200 and 206. */
    TAV_HTTP_OPTION_KEEP_ERROR_BODY = 114,
    /* text or null: the name sent to the TLS server and required of its certificate. A kept
     * connection is not compared again: see option 202. */
    TAV_HTTP_OPTION_TLS_HOST_NAME = 115,
    /* text or null: Host value of the first request (not of redirects). */
    TAV_HTTP_OPTION_HOST = 116,
    /* text or null: Cache-Control value. */
    TAV_HTTP_OPTION_CACHE_CONTROL = 117,
    /* text name, text printf format, its arguments: adds a header line. Never give a text of others
     * as the format: "%s", text. Line breaks go out as they are. */
    TAV_HTTP_OPTION_ADD_HEADER = 190,
    /* text name, text printf format or null, its arguments: adds a form field. The same holds. */
    TAV_HTTP_OPTION_ADD_FORM_FIELD = 191,
    /* text name, text path, text announced file name or null: adds a file to the form. */
    TAV_HTTP_OPTION_ADD_FORM_FILE = 192,
    /* pointer, uint32 length: appends bytes to the request body; may be repeated. */
    TAV_HTTP_OPTION_APPEND_BODY = 193,
    /* text or null: path of a file that is the request body. */
    TAV_HTTP_OPTION_UPLOAD_FILE = 194,
    /* text name, pointer, int32 length, text announced file name: adds bytes as a file. */
    TAV_HTTP_OPTION_ADD_FORM_DATA = 195,
    /* int32: one of the TAV_HTTP_PRIORITY_ values. */
    TAV_HTTP_OPTION_PRIORITY = 201,
    /* uint32: 1 never takes a kept-alive connection, which is found by scheme, host and port alone,
     * whatever proxy or TLS name it was made with. A request whose connection breaks is sent once
     * more all the same. */
    TAV_HTTP_OPTION_NO_REUSE = 202,
    /* pointer to proxy_info, or null for a direct connection. A kept connection that was made
     * another way (direct, or through another proxy) may serve the session: see option 202. */
    TAV_HTTP_OPTION_PROXY = 203,
    /* uint32: 1 queues behind the waiting sessions of its priority; default: before them. */
    TAV_HTTP_OPTION_QUEUE_FIFO = 204,
    /* uint32 keep, int32 idle milliseconds, int32 reuses: keeps the connection afterwards. */
    TAV_HTTP_OPTION_KEEP_ALIVE = 205,
    /* uint32: 1 prints "*" in place of the URL in log lines. */
    TAV_HTTP_OPTION_HIDE_URL = 206,
    /* uint32, uint32: first: keep the raw body when decoding fails; second: as option 110. */
    TAV_HTTP_OPTION_KEEP_UNDECODED_BODY = 207,
    /* The callbacks of that type; null clears. */
    TAV_HTTP_OPTION_CONNECTING_CALLBACK = 901,      /* connecting_callback */
    TAV_HTTP_OPTION_CONNECTED_CALLBACK = 902,       /* connected_callback */
    TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK = 903,  /* download_start_callback */
    TAV_HTTP_OPTION_REDIRECT_CALLBACK = 904,        /* redirect_callback */
    TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK = 906,   /* download_data_callback */
    TAV_HTTP_OPTION_COMPLETE_CALLBACK = 907,        /* complete_callback: replaces the opened one */
    TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK = 908, /* upload_progress_callback */
    TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK = 909  /* response_header_callback */
};

/* ------------------------------------------------------------------------------------------------
 * Queries of tavHTTPQueryInfo. Pointers handed out belong to the session: they are valid until its
 * release, or until a redirect or retry replaces the response.
 */
enum {
    TAV_HTTP_QUERY_STATUS_CODE = 1,        /* out1: uint32 */
    TAV_HTTP_QUERY_STATUS_TEXT = 2,        /* out1: const char* */
    TAV_HTTP_QUERY_OPTION_RANGE_START = 3, /* out1: int64, as set with option 103 */
    TAV_HTTP_QUERY_OPTION_RANGE_END = 4,   /* out1: int64 */
    TAV_HTTP_QUERY_MEMORY_BODY = 5,        /* out1: const char* or null; out2: int32 length */
    TAV_HTTP_QUERY_FILE_PATH = 6,          /* out1: const char*, the downloaded file */
    TAV_HTTP_QUERY_7 = 7,                  /* out1: int64, always 0 */
    TAV_HTTP_QUERY_SET_COOKIE = 8, /* out1: const char*, values, each with its zero, then a zero */
    TAV_HTTP_QUERY_RAW_HEADERS = 10,    /* out1: buffer or null; out2: int32 length, in and out */
    TAV_HTTP_QUERY_CONTENT_LENGTH = 11, /* out1: uint64, 0 when the server did not say */
    TAV_HTTP_QUERY_URL = 12,            /* out1: const char*, as given to tavHTTPOpen */
    TAV_HTTP_QUERY_CURRENT_URL = 13,    /* out1: const char*, after redirects */
    TAV_HTTP_QUERY_RANGE_START = 14,    /* out1: int64, from Content-Range */
    TAV_HTTP_QUERY_RANGE_END = 15,      /* out1: int64 */
    TAV_HTTP_QUERY_RANGE_TOTAL = 16,    /* out1: int64 */
    TAV_HTTP_QUERY_LAST_MODIFIED = 17,  /* out1: int64 seconds since 1970 UTC, or 0 */
    TAV_HTTP_QUERY_ETAG = 18,           /* out1: const char* or null */
    TAV_HTTP_QUERY_HEADER = 19,     /* out1: name (in); out2: buffer or null; length: in and out */
    TAV_HTTP_QUERY_BODY_BYTES = 20, /* out1: uint64, after decoding */
    TAV_HTTP_QUERY_CONTENT_ENCODING = 21, /* out1: uint32: 0 identity, 1 gzip, 2 deflate */
    TAV_HTTP_QUERY_BODY_MD5 = 22,         /* out1: 16 bytes */
    TAV_HTTP_QUERY_PEER_ADDRESS = 23,     /* out1: 64 bytes, IP text without port */
    TAV_HTTP_QUERY_HEADER_ALL = 24 /* out1: name (in); out2: buffer or null; length: in and out */
};

/* ------------------------------------------------------------------------------------------------
 * Types.
 */

/* One transfer. The pointer is the handle; only tavHTTPOpen makes one. */
typedef struct http_session http_session;

/* A proxy, as the host describes it. */
typedef struct proxy_info {
    uint32_t type;   /* one of TAV_HTTP_PROXY_ */
    char* host;      /* name or address of the proxy */
    uint16_t port;   /* its port, not 0 */
    char* user_name; /* null: no authentication */
    char* password;  /* null counts as empty */
    char* extra;     /* copied, never read */
} proxy_info;

/* Callbacks. `session` is the handle, `user_data` the fourth argument of tavHTTPOpen. Texts and
 * bytes passed in belong to the library and are valid during the call only. tavHTTPQueryInfo,
 * tavHTTPCancelRequest and tavHTTPClose may be called inside any of them. */

/* The session's last callback: exactly once for every successful tavHTTPSendRequest, unless the
 * session is closed or the library stopped before. `code` is the outcome. Worker thread; the loop
 * thread when the worker pool takes no work. */
typedef void (*complete_callback)(http_session* session, void* user_data, uint32_t code);

/* Before each connection attempt: the first, a retry, every redirect. Worker thread. */
typedef void (*connecting_callback)(http_session* session, void* user_data, const char* url);

/* After each connection, before the request is sent; `address` is the peer's IP (empty behind a
 * proxy). Worker thread. */
typedef void (*connected_callback)(http_session* session, void* user_data, const char* address);

/* Before the first body bytes of a response that is reported (status 200 or 206, or any status with
 * option 114). Worker thread. */
typedef void (*download_start_callback)(http_session* session, void* user_data, const char* url,
                                        uint64_t range_start, uint64_t range_end,
                                        uint64_t content_length);

/* Before a redirect from `current_url` to `new_url` is followed. Worker thread. */
typedef void (*redirect_callback)(http_session* session, void* user_data, const char* new_url,
                                  const char* current_url);

/* Each run of decoded body bytes of a reported response; `offset` counts from the resource's start.
 * When set, the body is not kept in memory. After a retry the bytes come from the start again,
 * behind another connecting_callback. Worker thread. */
typedef void (*download_data_callback)(http_session* session, void* user_data, uint64_t offset,
                                       const void* data, uint32_t length);

/* Before each piece of the request goes out. `sent` bytes of `total` were handed over before this
 * piece; head and body are counted together. Loop thread. */
typedef void (*upload_progress_callback)(http_session* session, void* user_data, uint64_t sent,
                                         const void* data, uint32_t length, uint64_t total);

/* Once per session, when the head of a response that is no redirect has been read. Worker thread.
 */
typedef void (*response_header_callback)(http_session* session, void* user_data);

/* Every log line, on whichever thread writes it, several at a time. `level` is 1000 (errors),
 * 2000 (information) or 3000 (detail). `text` has no line break at its end. */
typedef void (*log_callback)(int32_t level, const char* tag, const char* text);

/* ------------------------------------------------------------------------------------------------
 * Start-up and shut-down.
 */

/* Starts the library's loop thread, or counts one more user of it.
 *
 * Returns 0, or TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP. The count goes up in either case.
 * Thread  any but never two at a time, nor beside tavHTTPShutdown. Blocks until the loop runs. */
TAV_HTTP_API uint32_t tavHTTPStartup(void);

/* Takes back one tavHTTPStartup; the last one ends every session with TAV_HTTP_ERROR_CODE_CANCEL,
 * lets their complete_callback return and ends the loop thread.
 *
 * Sessions that were not closed stay valid: close them after the next start. Settings are lost.
 * Returns 0 always. More shut-downs than starts are logged and leave a negative count.
 * Thread  any outside callbacks, never two at a time. Blocks until the loop thread has ended, which
 *         waits for callbacks and file work that are running, but not for the network. */
TAV_HTTP_API uint32_t tavHTTPShutdown(void);

/* ------------------------------------------------------------------------------------------------
 * Sessions.
 */

/* Makes a session: one request to `url`, not sent yet.
 *
 * method     one of TAV_HTTP_METHOD_; any other fails the session later with
 *            TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT.
 * url        copied; checked when the session runs.
 * proxy      copied; null takes the default proxy (tavHTTPSetDefaultProxy) as it is now.
 * user_data  handed to every callback; never touched.
 * callback   required; see complete_callback.
 * Returns    the handle, owned by the caller until tavHTTPClose; null when `callback` is null or
 *            memory is short.
 * Thread     any, also before tavHTTPStartup (without a default proxy then). */
TAV_HTTP_API http_session* tavHTTPOpen(uint32_t method, const char* url, const proxy_info* proxy,
                                       void* user_data, complete_callback callback);

/* Sets one option of a session that has not been sent.
 *
 * option   a TAV_HTTP_OPTION_ id, followed by the values listed there.
 * Returns  0; TAV_HTTP_ERROR_CODE_INVALID_ARG: null session, unknown id, refused value;
 *          TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY.
 * Thread   the one that owns the handle; takes no lock. */
TAV_HTTP_API uint32_t tavHTTPSetOption(http_session* session, uint32_t option, ...);

/* Queues the session; from here on it belongs to the library until complete_callback.
 *
 * Once per handle. Failures of the transfer itself arrive as the code of complete_callback.
 * Returns  0; TAV_HTTP_ERROR_CODE_INVALID_ARG: null session, or one that was sent before;
 *          TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC: the library is not started (no callback comes).
 * Thread   any. */
TAV_HTTP_API uint32_t tavHTTPSendRequest(http_session* session);

/* Asks the session to end with TAV_HTTP_ERROR_CODE_CANCEL.
 *
 * Takes effect when the step that the session waits in ends, at the latest with that step's
 * time-out; wakes nothing. Harmless after completion.
 * Returns  0, or TAV_HTTP_ERROR_CODE_INVALID_ARG for null.
 * Thread   any, at any time before tavHTTPClose. */
TAV_HTTP_API uint32_t tavHTTPCancelRequest(http_session* session);

/* Reads a result of the session.
 *
 * query    a TAV_HTTP_QUERY_ id; what out1, out2 and length are is listed there.
 * length   in: bytes available; out: bytes needed, the final zero included. A buffer that is given
 *          has room for one byte at least: it gets an empty text first.
 * Returns  0; TAV_HTTP_ERROR_CODE_INVALID_ARG: null session, unknown id, missing argument;
 *          TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE: no response, or no such header;
 *          0x20007: query 24 with a buffer that is too small.
 * Thread   any; meant for complete_callback and later (headers: also response_header_callback). */
TAV_HTTP_API uint32_t tavHTTPQueryInfo(http_session* session, uint32_t query, void* out1,
                                       void* out2, int32_t* length);

/* Releases the session; the handle and all it handed out are invalid from then on.
 *
 * A session still in flight is cancelled, calls back no more, does not wait for the network and is
 * released when its last step has come back. A callback that is already running on another thread
 * may still be running.
 * Returns  mind the sense: TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC when the release was handed to the
 *          loop thread; 0 when it was not, because the library is not started (the handle is then
 *          still valid and can be closed after the next start); TAV_HTTP_ERROR_CODE_INVALID_ARG
 *          for null.
 * Thread   any, inside callbacks too. */
TAV_HTTP_API uint32_t tavHTTPClose(http_session* session);

/* ------------------------------------------------------------------------------------------------
 * Settings of the whole process.
 */

/* Installs the receiver of log lines; null turns logging off.
 * Returns 0 always. Thread: any, at any time; a line being written goes to either receiver. */
TAV_HTTP_API uint32_t tavHTTPSetLogCallback(log_callback callback);

/* Sets one of the TAV_HTTP_CONFIG_ numbers. They outlive a shut-down; no start is needed.
 * Returns 0, or -1 for an unknown key. Thread: any; effective within a second. */
TAV_HTTP_API int32_t tavHTTPSetConfig(int32_t key, uint32_t value);

/* Sets the proxy that sessions opened from now on take; null clears it. `proxy` is copied.
 * Returns 0; TAV_HTTP_ERROR_CODE_NOT_INITIALIZED; TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY (the old one
 *         stays then). Thread: any; takes the settings lock. */
TAV_HTTP_API uint32_t tavHTTPSetDefaultProxy(const proxy_info* proxy);

/* Sets the directory of option 102's files and creates it; null or empty goes back to the system's
 * directory for temporary files. An absolute path must exist, outside Windows: its components
 * are created below the current directory, and the path is looked for where it says.
 * Returns 0; TAV_HTTP_ERROR_CODE_NOT_INITIALIZED; TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY (no
 *         directory is set then). Thread: any; takes the settings lock. */
TAV_HTTP_API uint32_t tavHTTPSetDownloadDirectory(const char* directory);

/* Copies the download directory into `buffer`; it ends with a slash.
 *
 * length   in: bytes available in `buffer`; out: bytes needed, the final zero included (1 when no
 *          directory is set). Too small: nothing is copied.
 * Returns  TAV_HTTP_ERROR_CODE_FAIL_OTHER always; compare the two lengths to see whether the copy
 *          was made. Null pointers change nothing.
 * Thread   any; takes the settings lock. */
TAV_HTTP_API uint32_t tavHTTPGetDownloadDirectory(char* buffer, int32_t* length);

/* 1 makes new sockets through the layered service providers that other software has installed; 0,
 * the default, on the system's own TCP/IP provider.
 * Returns 0, or TAV_HTTP_ERROR_CODE_NOT_INITIALIZED. Thread: any; takes the settings lock. */
TAV_HTTP_API uint32_t tavHTTPSetUseThirdLSP(uint8_t use);

#ifdef __cplusplus
}
#endif

#endif
