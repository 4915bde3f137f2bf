// The TLS transport. The engine never touches the socket: it reads from and writes to two memory
// BIOs, and _handle_pending_io carries the bytes between them and the plain transport. The engine's
// own calls run on the worker pool, one at a time per connection.
//
// Handshake  _start_https_connect -> _https_connect -> _work_ssl_connect (worker)
//              -> _after_work_ssl_connct -> pump -> _on_handshake_io -> _https_connect ...
//              -> _verify_cname -> connect_cb
// Send       _start_https_send -> _https_send -> _work_ssl_write (worker)
//              -> _after_work_ssl_write -> pump -> _notify_https_send_result -> send_cb
// Receive    _start_https_recv -> _https_recv -> _work_ssl_read (worker)
//              -> _after_work_ssl_read -> pump -> _on_ssl_read_io -> _https_recv ... -> recv_cb
// Pump       _handle_pending_io -> (http_send until the engine's output is gone | http_recv)
//              -> pending_io_cb
//
// Each async_run and each worker step holds the connection, since it may be closed meanwhile. The
// network waits need no hold: a close clears their callbacks. The state itself goes with the
// connection's record.

// ERR_remove_state is deprecated but still what an older engine needs.
#define OPENSSL_API_COMPAT 0x00908000L

#include "tavhttpclient/netbasehttps_openssl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <string.h>
#include <uv.h>

#include "platform/win_text.h"
#include "platform/win_time.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/netbasehttp.h"
#include "tavhttpclient/transport.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/worker.h"

enum {
    TLS_BUFFER_SIZE = 32768,
    TLS_IO_TIMEOUT = 30000,
    OVERDUE_MARGIN = 100,
    SUBJECT_SIZE = 1024
};

// The certificate's common name is not the expected one; a code without a name.
enum {
    TLS_ERROR_CNAME = 0x4000a
};

typedef void (*pending_io_callback)(http_connection* conn, uint32_t status);

// One per https connection, made at its handshake and freed with its record. The loop thread's,
// except for `ssl`, the BIOs, the two results and the lent buffers while a worker step runs.
struct tls_state {
    SSL* ssl;
    SSL_CTX* ctx;
    BIO* rbio;             // network to engine; owned by `ssl` once attached
    BIO* wbio;             // engine to network; likewise
    text_buffer out_buf;   // one chunk of encrypted bytes on its way out
    text_buffer in_buf;    // encrypted bytes that were received
    worker_step work_req;  // data: the connection
    int32_t last_result;   // of the last engine call
    pending_io_callback pending_io_cb;

    // What the callers lent for the pending operation.
    const char* send_data;
    int32_t send_len;
    char* recv_data;
    int32_t recv_len;
    uint32_t recv_size;
    void* send_user;
    void* recv_user;
    http_connect_cb connect_cb;
    http_send_cb send_cb;
    http_recv_cb recv_cb;

    int32_t last_error;   // SSL_get_error of last_result, taken on its thread
    int32_t timeout;      // ms, of the pending handshake or receive; 0 or less: none
    uint64_t begun_time;  // tick count of the first bytes of what is not whole yet; 0: none
};

static void _https_connect(void* conn);
static void _https_recv(void* conn);
static void _send_pending_chunk(http_connection* conn);

// ----------------------------------------------------------------------------------- the state

static void _free_tls_state(tls_state* state) {
    if (state == nullptr) {
        return;
    }
    SSL_free(state->ssl);
    SSL_CTX_free(state->ctx);
    text_buffer_release(&state->out_buf);
    text_buffer_release(&state->in_buf);
    free(state);
}

static bool _make_bios(tls_state* state) {
    state->rbio = BIO_new(BIO_s_mem());
    state->wbio = BIO_new(BIO_s_mem());
    if (state->rbio == nullptr || state->wbio == nullptr) {
        LOG_ERROR("BIO_new failed.");
        BIO_free(state->rbio);
        BIO_free(state->wbio);
        return false;
    }
    SSL_set_bio(state->ssl, state->rbio, state->wbio);
    return true;
}

static bool _init_tls_state(tls_state* state) {
    state->ctx = SSL_CTX_new(TLS_client_method());
    if (state->ctx == nullptr) {
        LOG_ERROR("SSL_CTX_new failed.");
        return false;
    }
    state->ssl = SSL_new(state->ctx);
    if (state->ssl == nullptr) {
        LOG_ERROR("SSL_new failed.");
        return false;
    }
    return _make_bios(state) && text_buffer_init(&state->out_buf, TLS_BUFFER_SIZE) &&
           text_buffer_init(&state->in_buf, TLS_BUFFER_SIZE);
}

static tls_state* _create_tls_state(void) {
    tls_state* state = (tls_state*)calloc(1, sizeof(tls_state));
    if (state != nullptr && !_init_tls_state(state)) {
        _free_tls_state(state);
        return nullptr;
    }
    return state;
}

// ------------------------------------------------------------------------------------- reports

static void _notify_https_connect_result(http_connection* conn, uint32_t code) {
    tls_state* state = conn->tls;
    http_connect_cb callback = state->connect_cb;
    state->connect_cb = nullptr;
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, nullptr, &conn->peer_addr, code);
    }
}

static void _notify_https_send_result(http_connection* conn, uint32_t status) {
    tls_state* state = conn->tls;
    http_send_cb callback = state->send_cb;
    void* user = state->send_user;
    state->send_cb = nullptr;
    state->send_user = nullptr;
    state->send_data = nullptr;
    state->send_len = 0;
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, user, status);
    }
}

static void _notify_https_recv_result(http_connection* conn, uint32_t status) {
    tls_state* state = conn->tls;
    http_recv_cb callback = state->recv_cb;
    void* user = state->recv_user;
    state->recv_cb = nullptr;
    state->recv_user = nullptr;
    // The last network read pointed them at in_buf, which the caller must not see.
    conn->recv_buf = nullptr;
    conn->recv_len = 0;
    conn->recv_buf_size = 0;
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, user, status, state->recv_data, state->recv_len);
    }
}

static void _continue_pending_io(http_connection* conn, uint32_t status) {
    tls_state* state = conn->tls;
    pending_io_callback callback = state->pending_io_cb;
    state->pending_io_cb = nullptr;
    if (LOG_ASSERT(callback != nullptr)) {
        callback(conn, status);
    }
}

// ------------------------------------------------------------------- between engine and network

static bool _is_fatal_ssl_error(int32_t error) {
    switch (error) {
    case SSL_ERROR_NONE:
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
    case SSL_ERROR_WANT_CONNECT:
    case SSL_ERROR_WANT_ACCEPT:
        return false;
    default:
        return true;
    }
}

// Loop thread. From http_send; next the next chunk, or the owner of the pump.
static void _handle_pending_io_send_callback(http_connection* conn, void* user, uint32_t status) {
    (void)user;
    // All that one engine call produced leaves before the next one: a peer that waits for the rest
    // of a request would otherwise never answer it.
    if (status == 0 && BIO_ctrl_pending(conn->tls->wbio) > 0) {
        _send_pending_chunk(conn);
    } else {
        _continue_pending_io(conn, status);
    }
}

static void _send_pending_chunk(http_connection* conn) {
    tls_state* state = conn->tls;
    text_buffer* chunk = &state->out_buf;
    int32_t result = BIO_read(state->wbio, chunk->data, chunk->capacity);
    if (!LOG_ASSERT(result > 0)) {
        LOG_INFO("_handle_pending_io, BIO_read fail, result=%d", result);
        _continue_pending_io(conn, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
        return;
    }
    chunk->length = result;
    uint32_t err = http_send(conn, nullptr, chunk->data, chunk->length, TLS_IO_TIMEOUT,
                             _handle_pending_io_send_callback);
    if (err != 0) {
        _continue_pending_io(conn, err);
    }
}

static bool _give_to_engine(BIO* bio, const char* data, int32_t length) {
    int result = 0;
    do {
        result = BIO_write(bio, data, length);
    } while (result <= 0 && BIO_should_retry(bio));
    return result > 0;
}

// A peer may think as long as a network step allows. The handshake or the record that it has begun
// to send must be whole within the time-out: each of the steps that single bytes take would be in
// time. The margin leaves the first word to a session time-out of the same length.
static bool _is_overdue(const tls_state* state) {
    return state->timeout > 0 && state->begun_time != 0 &&
           GetTickCount64() - state->begun_time >= (uint64_t)state->timeout + OVERDUE_MARGIN;
}

// Whether the pump may go to the network; else what it continues with. A session that is cancelled
// waits for no peer.
static uint32_t _check_network_step(const http_connection* conn, bool wants_read) {
    if (http_connection_is_cancelled(conn)) {
        return TAV_HTTP_ERROR_CODE_CANCEL;
    }
    return wants_read && _is_overdue(conn->tls) ? TAV_HTTP_ERROR_CODE_RECV_TIMEOUT : 0;
}

// Loop thread. From http_recv; next the owner of the pump.
static void _handle_pending_io_recv_callback(http_connection* conn, void* user, uint32_t status,
                                             char* data, int32_t nread) {
    (void)user;
    uint32_t err = status;
    if (status != 0) {
        LOG_INFO("_handle_pending_io_recv_callback, fail, conn-id=%u, result=%d", conn->id,
                 (int32_t)status);
    } else if (nread == 0) {
        // Without the peer's close-notify this may be an attacker's cut.
        LOG_INFO("_handle_pending_io_recv_callback, buf_len==0, conn-id=%u", conn->id);
        err = TAV_HTTP_ERROR_CODE_FAIL_RECV;
    } else if (!_give_to_engine(conn->tls->rbio, data, nread)) {
        LOG_INFO("_handle_pending_io_recv_callback, BIO_write fail");
        err = TAV_HTTP_ERROR_CODE_FAIL_RECV;
    } else if (conn->tls->begun_time == 0) {
        conn->tls->begun_time = GetTickCount64();
    }
    _continue_pending_io(conn, err);
}

// The status of a broken engine: its own negative result.
static uint32_t _fatal_status(const tls_state* state) {
    char message[128] = "";
    ERR_error_string_n((unsigned long)state->last_error, message, sizeof(message));
    LOG_INFO("_handle_pending_io, fatal error, result=%d, err=%d, msg=%s", state->last_result,
             state->last_error, message);
    return (uint32_t)(state->last_result != 0 ? state->last_result : -1);
}

// Sends what the engine has put out; when it has put out nothing and `want_read` is set, gets it
// something to read. `continuation` may run inside the call.
static void _handle_pending_io(http_connection* conn, bool want_read,
                               pending_io_callback continuation) {
    tls_state* state = conn->tls;
    LOG_ASSERT(state->pending_io_cb == nullptr);
    state->pending_io_cb = continuation;

    if (state->last_result <= 0 && _is_fatal_ssl_error(state->last_error)) {
        _continue_pending_io(conn, _fatal_status(state));
        return;
    }
    uint32_t err = _check_network_step(conn, want_read);
    if (err == 0 && BIO_ctrl_pending(state->wbio) > 0) {
        _send_pending_chunk(conn);
        return;
    }
    if (err == 0 && want_read) {
        err = http_recv(conn, nullptr, state->in_buf.data, (uint32_t)state->in_buf.capacity,
                        TLS_IO_TIMEOUT, _handle_pending_io_recv_callback);
        if (err == 0) {
            return;
        }
    }
    _continue_pending_io(conn, err);
}

// --------------------------------------------------------------------------------- held steps

// Takes the outcome of an engine call. The error queue belongs to the thread, so the error must be
// asked for on the worker that made the call.
static void _keep_result(tls_state* state, int result) {
    state->last_result = result;
    state->last_error = result > 0 ? SSL_ERROR_NONE : SSL_get_error(state->ssl, result);
}

static bool _run_held(http_connection* conn, loop_function step) {
    http_connection_hold(conn);
    if (async_run(step, conn)) {
        return true;
    }
    http_connection_unhold(conn);
    return false;
}

static bool _queue_held(http_connection* conn, worker_function work,
                        after_worker_function after_work) {
    worker_step* request = &conn->tls->work_req;
    memset(request, 0, sizeof(*request));
    request->data = conn;
    http_connection_hold(conn);
    if (queue_worker_step(request, work, after_work) == 0) {
        return true;
    }
    http_connection_unhold(conn);
    return false;
}

// A call of the engine on a worker.
struct engine_call {
    const char* name;  // of its step, in log lines
    worker_function work;
    after_worker_function after_work;
    pending_io_callback notify;  // reports that it could not be made
};

static void _start_engine_call(http_connection* conn, const engine_call* call) {
    if (!http_connection_release(conn)) {
        return;
    }
    if (get_uv_loop() == nullptr) {
        LOG_ERROR("%s, get_uv_loop failed.", call->name);
        call->notify(conn, TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP);
    } else if (!_queue_held(conn, call->work, call->after_work)) {
        LOG_ERROR("%s, uv_queue_work failed.", call->name);
        call->notify(conn, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    }
}

// -------------------------------------------------------------------------- the name check

char* find_common_name(char* subject) {
    if (subject == nullptr) {
        return nullptr;
    }
    lower_ascii(subject);
    // With the line break in front: a common name that is the first entry is deliberately not seen.
    char* name = strstr(subject, "\ncn=");
    if (name == nullptr) {
        return nullptr;
    }
    name += 4;
    name[strcspn(name, "\n")] = '\0';
    return name;
}

bool common_name_matches(const char* name, const char* expected) {
    if (name == nullptr || expected == nullptr) {
        return false;
    }
    if (name[0] != '*') {
        return _stricmp(name, expected) == 0;
    }
    if (name[1] != '.') {
        return false;
    }
    if (_stricmp(name + 2, expected) == 0) {
        return true;
    }
    // The tail begins with the dot, so that "*.d" does not match "xd".
    const char* tail = name + 1;
    size_t tail_length = strlen(tail);
    size_t expected_length = strlen(expected);
    return expected_length >= tail_length &&
           _stricmp(expected + expected_length - tail_length, tail) == 0;
}

// Prints the certificate's subject, one entry a line; an empty text when that fails.
static void _print_subject(X509* certificate, char* text) {
    int length = 0;
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio != nullptr) {
        X509_NAME_print_ex(bio, X509_get_subject_name(certificate), 0, XN_FLAG_SEP_MULTILINE);
        length = BIO_read(bio, text, SUBJECT_SIZE - 1);
        BIO_free(bio);
    }
    text[length > 0 ? length : 0] = '\0';
}

static bool _verify_cname(http_connection* conn) {
    if (is_empty_text(conn->expected_cname)) {
        return true;
    }
    X509* certificate = SSL_get_peer_certificate(conn->tls->ssl);
    if (certificate == nullptr) {
        LOG_INFO("_verify_cname, cert not found, host=%s", conn->host);
        return false;
    }
    char subject[SUBJECT_SIZE];
    _print_subject(certificate, subject);
    X509_free(certificate);

    const char* name = find_common_name(subject);
    if (name == nullptr) {
        LOG_INFO("_verify_cname, cname is empty, host=%s", conn->host);
        return false;
    }
    if (!common_name_matches(name, conn->expected_cname)) {
        LOG_INFO("_verify_cname, host does not match cn, host=%s, cname=%s<->%s", conn->host, name,
                 conn->expected_cname);
        return false;
    }
    return true;
}

// ----------------------------------------------------------------------------------- handshake

// Loop thread. From the pump; next _https_connect.
static void _on_handshake_io(http_connection* conn, uint32_t status) {
    if (status != 0) {
        _notify_https_connect_result(conn, status);
        return;
    }
    http_connection_hold(conn);
    _https_connect(conn);
}

// Worker thread. From _https_connect; next _after_work_ssl_connct.
static void _work_ssl_connect(worker_step* request) {
    tls_state* state = ((http_connection*)request->data)->tls;
    ERR_clear_error();
    _keep_result(state, SSL_connect(state->ssl));
}

// Loop thread. From _work_ssl_connect; next _on_handshake_io.
static void _after_work_ssl_connct(worker_step* request, int status) {
    http_connection* conn = (http_connection*)request->data;
    if (!http_connection_release(conn)) {
        return;
    }
    if (status != 0) {
        LOG_ERROR("_after_work_ssl_connct, uv_queue_work failed.");
        _notify_https_connect_result(conn, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    } else if (conn->tls->last_result > 0) {
        // The engine's last handshake bytes may still wait; they go out with the first send.
        _notify_https_connect_result(conn, _verify_cname(conn) ? 0 : TLS_ERROR_CNAME);
    } else {
        _handle_pending_io(conn, true, _on_handshake_io);
    }
}

static const engine_call connect_call = {"_https_connect", _work_ssl_connect,
                                         _after_work_ssl_connct, _notify_https_connect_result};

// Loop thread, the connection held. From _start_https_connect or _on_handshake_io; next
// _work_ssl_connect.
static void _https_connect(void* conn) {
    _start_engine_call((http_connection*)conn, &connect_call);
}

// Gives the engine what waits on the socket. False: it cannot take it, or more waits than the few
// records that a peer sends between two requests.
static bool _take_waiting(http_connection* conn) {
    const text_buffer* buffer = &conn->tls->in_buf;
    int32_t count = http_connection_take_waiting(conn, buffer->data, buffer->capacity);
    return count == 0 || (count > 0 && count < buffer->capacity &&
                          _give_to_engine(conn->tls->rbio, buffer->data, count));
}

// Between two requests. Records without data leave nothing to be read, and an orderly end is found
// by the next receive.
static bool _has_unread(http_connection* conn) {
    char byte = 0;
    SSL* ssl = conn->tls->ssl;
    if (!_take_waiting(conn)) {
        return true;
    }
    ERR_clear_error();
    int result = SSL_peek(ssl, &byte, 1);
    int error = SSL_get_error(ssl, result);
    return result > 0 || (error != SSL_ERROR_ZERO_RETURN && _is_fatal_ssl_error(error));
}

static uint32_t _start_https_connect(http_connection* conn, http_connect_cb callback) {
    if (!LOG_ASSERT_IN("https_connect", conn != nullptr && callback != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_CONNECT;
    }
    if (conn->tls == nullptr) {
        conn->tls = _create_tls_state();
        conn->has_unread = _has_unread;
    }
    if (conn->tls == nullptr) {
        return TAV_HTTP_ERROR_CODE_FAIL_CONNECT;
    }
    const char* name = is_empty_text(conn->expected_cname) ? conn->host : conn->expected_cname;
    SSL_ctrl(conn->tls->ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, (void*)name);

    conn->tls->connect_cb = callback;
    conn->tls->timeout =
        conn->connect_timeout > 0 ? conn->connect_timeout : DEFAULT_CONNECT_TIMEOUT;
    conn->tls->begun_time = 0;
    if (!_run_held(conn, _https_connect)) {
        conn->tls->connect_cb = nullptr;
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------- send

// Worker thread. From _https_send; next _after_work_ssl_write.
static void _work_ssl_write(worker_step* request) {
    tls_state* state = ((http_connection*)request->data)->tls;
    ERR_clear_error();
    _keep_result(state, SSL_write(state->ssl, state->send_data, state->send_len));
}

// Loop thread. From _work_ssl_write; next _notify_https_send_result.
static void _after_work_ssl_write(worker_step* request, int status) {
    http_connection* conn = (http_connection*)request->data;
    if (!http_connection_release(conn)) {
        return;
    }
    int32_t result = conn->tls->last_result;
    if (status != 0) {
        LOG_ERROR("_after_work_ssl_write, uv_queue_work failed, conn-id=%d, err=%d",
                  (int32_t)conn->id, status);
        _notify_https_send_result(conn, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    } else if (result <= 0) {
        LOG_ERROR("_after_work_ssl_write, fail, result=%d", result);
        _notify_https_send_result(conn, TAV_HTTP_ERROR_CODE_FAIL_OTHER);
    } else if (result != conn->tls->send_len) {
        LOG_INFO("_after_work_ssl_write, fail, result=%d, send-length=%d", result,
                 conn->tls->send_len);
        _notify_https_send_result(conn, TAV_HTTP_ERROR_CODE_FAIL_SEND);
    } else {
        _handle_pending_io(conn, false, _notify_https_send_result);
    }
}

static const engine_call write_call = {"_https_send", _work_ssl_write, _after_work_ssl_write,
                                       _notify_https_send_result};

// Loop thread, the connection held. From _start_https_send; next _work_ssl_write.
static void _https_send(void* conn) {
    _start_engine_call((http_connection*)conn, &write_call);
}

// `timeout` is not used: each network step below has its own.
static uint32_t _start_https_send(http_connection* conn, void* user, const char* data,
                                  int32_t length, int32_t timeout, http_send_cb callback) {
    (void)timeout;
    if (!LOG_ASSERT_IN("https_send", conn != nullptr && data != nullptr && length > 0 &&
                                         callback != nullptr && conn->tls != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_SEND;
    }
    tls_state* state = conn->tls;
    state->send_user = user;
    state->send_cb = callback;
    state->send_data = data;
    state->send_len = length;
    if (!_run_held(conn, _https_send)) {
        state->send_user = nullptr;
        state->send_cb = nullptr;
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    return 0;
}

// ------------------------------------------------------------------------------------- receive

// Loop thread. From the pump; next _https_recv.
static void _on_ssl_read_io(http_connection* conn, uint32_t status) {
    if (status != 0) {
        _notify_https_recv_result(conn, status);
        return;
    }
    http_connection_hold(conn);
    _https_recv(conn);
}

// Worker thread. From _https_recv; next _after_work_ssl_read.
static void _work_ssl_read(worker_step* request) {
    tls_state* state = ((http_connection*)request->data)->tls;
    int size = state->recv_size > INT32_MAX ? INT32_MAX : (int)state->recv_size;
    state->recv_len = 0;
    ERR_clear_error();
    _keep_result(state, SSL_read(state->ssl, state->recv_data, size));
}

// Loop thread. From _work_ssl_read; next _on_ssl_read_io.
static void _after_work_ssl_read(worker_step* request, int status) {
    http_connection* conn = (http_connection*)request->data;
    if (!http_connection_release(conn)) {
        return;
    }
    tls_state* state = conn->tls;
    if (status != 0) {
        LOG_ERROR("_after_work_ssl_read, uv_queue_work failed, err=%d", status);
        _notify_https_recv_result(conn, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    } else if (state->last_result > 0) {
        state->recv_len = state->last_result;
        _notify_https_recv_result(conn, 0);
    } else if (state->last_error == SSL_ERROR_ZERO_RETURN) {
        // The peer's close-notify is an orderly end, as a plain connection's close is.
        state->recv_len = 0;
        _notify_https_recv_result(conn, 0);
    } else {
        if (SSL_has_pending(state->ssl) == 0) {
            state->begun_time = 0;  // Whole records, but a ticket is no answer.
        }
        _handle_pending_io(conn, true, _on_ssl_read_io);
    }
}

static const engine_call read_call = {"_https_recv", _work_ssl_read, _after_work_ssl_read,
                                      _notify_https_recv_result};

// Loop thread, the connection held. From _start_https_recv or _on_ssl_read_io; next _work_ssl_read.
static void _https_recv(void* conn) {
    _start_engine_call((http_connection*)conn, &read_call);
}

// `timeout` limits how long a record may take from its first byte on; each network step below has
// its own.
static uint32_t _start_https_recv(http_connection* conn, void* user, char* buffer, uint32_t size,
                                  int32_t timeout, http_recv_cb callback) {
    if (!LOG_ASSERT_IN("https_recv", conn != nullptr && buffer != nullptr && size != 0 &&
                                         callback != nullptr && conn->tls != nullptr)) {
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    tls_state* state = conn->tls;
    state->recv_len = 0;
    state->recv_data = buffer;
    state->recv_size = size;
    state->recv_user = user;
    state->recv_cb = callback;
    state->timeout = timeout;
    state->begun_time = 0;
    if (!_run_held(conn, _https_recv)) {
        state->recv_user = nullptr;
        state->recv_cb = nullptr;
        return TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
    }
    return 0;
}

// ----------------------------------------------------------------------------------- the table

static tls_ops operations;

// One mutex that the engine of today never asks for; loop thread.
static uv_mutex_t* mutex_table = nullptr;

static void tls_init(void) {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    if (mutex_table != nullptr) {
        return;
    }
    mutex_table = (uv_mutex_t*)calloc(1, sizeof(uv_mutex_t));
    if (mutex_table != nullptr && uv_mutex_init(mutex_table) != 0) {
        free(mutex_table);
        mutex_table = nullptr;
    }
}

static void tls_uninit(void) {
    if (mutex_table != nullptr) {
        uv_mutex_destroy(mutex_table);
        free(mutex_table);
        mutex_table = nullptr;
    }
    ERR_remove_state(0);
}

void register_tls_ops(void) {
    memset(&operations, 0, sizeof(operations));
    set_tls_ops(&operations);
    operations.tls_init = tls_init;
    operations.tls_uninit = tls_uninit;
    operations.free_tls_state = _free_tls_state;
    operations.https_connect = _start_https_connect;
    operations.https_send = _start_https_send;
    operations.https_recv = _start_https_recv;
    operations.tls_init();
}
