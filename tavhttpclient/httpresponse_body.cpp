// Where the body of a response goes: to the host, into memory, or into a file. Worker thread of the
// write work only.
//
// write_response_body -> _init_download_target (-> _use_given_path | _use_chosen_path
//   -> _open_target) -> _report_download_start -> _hand_over_new_bytes
//   -> _write_to_file | _keep_in_memory
#include "tavhttpclient/httpresponse_body.h"

#include <errno.h>
#include <http_parser.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/response_record.h"
#include "tavhttpclient/session_record.h"

enum {
    WRITE_SIZE = 32768,  // a file gets more than this at a time, but for the last bytes
    SUGGESTED_NAME_MAX = 150,
    MEMORY_BODY_MARGIN = 1024,
    MEMORY_BODY_UNKNOWN = 131072  // first size without an announced length
};

// ----------------------------------------------------------------------------------- the digest

static bool _start_md5(http_response* response) {
    if (response->md5_context != nullptr) {
        return true;
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context != nullptr && EVP_DigestInit_ex(context, EVP_md5(), nullptr) != 1) {
        EVP_MD_CTX_free(context);
        context = nullptr;
    }
    response->md5_context = context;
    return context != nullptr;
}

bool finish_body_md5(http_response* response) {
    return _start_md5(response) &&
           EVP_DigestFinal_ex(response->md5_context, response->md5_digest, nullptr) == 1;
}

void free_body_md5(http_response* response) {
    EVP_MD_CTX_free(response->md5_context);
    response->md5_context = nullptr;
}

// ------------------------------------------------------------------------------ the target file

// Status 200 or 206, or the host asked for bodies of every status.
static bool is_body_wanted(const http_session* session) {
    uint32_t status = session->response->status_code;
    return status == HTTP_STATUS_OK || status == HTTP_STATUS_PARTIAL_CONTENT ||
           session->options->keep_error_body != 0;
}

static bool _has_range(const http_request* request) {
    return request->range_start != 0 || request->range_end != 0;
}

// A resumed or ranged download goes on in the host's file itself.
static bool _is_in_given_place(const http_session* session) {
    return !is_empty_text(session->options->download_file) &&
           (session->options->resume != 0 || _has_range(session->request));
}

static void _free_paths(http_response* response) {
    free(response->file_path);
    free(response->temp_path);
    response->file_path = nullptr;
    response->temp_path = nullptr;
}

// 0 when both paths are there; a lone one would be taken for a file to settle.
static uint32_t _check_paths(http_response* response) {
    if (response->file_path != nullptr && response->temp_path != nullptr) {
        return TAV_HTTP_ERROR_CODE_OK;
    }
    _free_paths(response);
    return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
}

// A whole download is written beside its target, so that the target is never half a file.
static uint32_t _use_given_path(http_session* session) {
    http_response* response = session->response;
    const char* path = session->options->download_file;
    if (tavhttp_is_special_file(path)) {
        // A file would take the place of the device.
        LOG_INFO("_init_download_target, not a regular file, id=%d, filepath=%s", session->id,
                 path);
        return TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE;
    }
    if (_is_in_given_place(session)) {
        response->temp_path = string_dup(path);
    } else if (!get_temp_file_path_with_suggest_name(path, false, &response->temp_path)) {
        LOG_INFO("_init_download_target, get_temp_file_path, id=%d, path=%s", session->id, path);
        return TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE;
    }
    response->file_path = string_dup(path);
    return _check_paths(response);
}

// New text made of the URL's path, or null.
static char* _suggest_name(http_session* session) {
    const char* path = session->request->path;
    if (is_empty_text(path)) {
        return nullptr;
    }
    char* name = url_char_escape(path);
    if (name == nullptr) {
        name = string_dup_n(path, SUGGESTED_NAME_MAX);
    }
    if (name == nullptr) {
        LOG_INFO("_init_download_target, url_char_escape fail, id=%d", session->id);
        LOG_ASSERT_IN("_init_download_target", name != nullptr);
    }
    return name;
}

static const char* _name_tail(const char* name) {
    size_t length = strlen(name);
    return length > SUGGESTED_NAME_MAX ? name + length - SUGGESTED_NAME_MAX : name;
}

// A file of the library's own choosing in the download directory.
static uint32_t _use_chosen_path(http_session* session) {
    http_response* response = session->response;
    char* path = nullptr;
    char* name = _suggest_name(session);
    bool found =
        name != nullptr && get_temp_file_path_with_suggest_name(_name_tail(name), true, &path);
    free(name);
    if (!found) {
        path = nullptr;
        found = get_temp_file_path_with_suggest_name("", true, &path);
    }
    if (!found) {
        LOG_INFO("_init_download_target, get_temp_file_path fail, id=%d", session->id);
        return TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE;
    }
    response->file_path = path;
    response->temp_path = string_dup(path);
    return _check_paths(response);
}

// Only a file that is not there is made: "w+b" would empty one that merely could not be opened, and
// with it what a resumed download goes on from.
static int32_t _open_given(const char* path, FILE** file) {
    int32_t err = tavhttp_fopen(path, "r+b", file);
    return err == ENOENT ? tavhttp_fopen(path, "w+b", file) : err;
}

static uint32_t _open_target(http_session* session) {
    http_response* response = session->response;
    const char* path = response->temp_path;
    FILE* file = nullptr;
    // A name of the library's own is for a file of its own: nobody may have made it meanwhile.
    int32_t open_error =
        _is_in_given_place(session) ? _open_given(path, &file) : tavhttp_fopen(path, "w+bx", &file);
    if (open_error != 0) {
        LOG_INFO("_init_download_target, uv_fs_open failed, id=%d, filepath=%s, err=%d, %s",
                 session->id, path, 0, strerror(0));
        return TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE;
    }
    if (!_has_range(session->request)) {
        int32_t err = tavhttp_ftruncate(file);
        if (err != 0) {
            LOG_INFO("_init_download_target, uv_fs_ftruncate failed, id=%d, filepath=%s, err=%d, "
                     "%s",
                     session->id, path, err, strerror(err));
        }
    }
    response->recv_file_id = file;
    return TAV_HTTP_ERROR_CODE_OK;
}

// Opens the file when the body belongs into one and none is open yet.
static uint32_t _init_download_target(http_session* session) {
    http_response* response = session->response;
    const http_options* options = session->options;
    bool to_given_path = !is_empty_text(options->download_file);
    if (session->request->method == TAV_HTTP_METHOD_HEAD ||
        (!to_given_path && options->download_to_file == 0) || response->recv_file_id != nullptr) {
        return TAV_HTTP_ERROR_CODE_OK;
    }
    // The status is not known, or may yet belong to a redirect: a file made now could be left over.
    if (response->recv_state < RECV_HEADERS_DONE && response->recv_body_bytes == 0) {
        return TAV_HTTP_ERROR_CODE_OK;
    }
    _free_paths(response);
    uint32_t err = TAV_HTTP_ERROR_CODE_OK;
    if (to_given_path) {
        LOG_ASSERT(response->status_code != HTTP_STATUS_RANGE_NOT_SATISFIABLE);
        if (!is_body_wanted(session)) {
            return TAV_HTTP_ERROR_CODE_OK;  // to memory
        }
        err = _use_given_path(session);
    } else {
        err = _use_chosen_path(session);
    }
    return err != 0 ? err : _open_target(session);
}

// ------------------------------------------------------------------------------------- the host

static void _report_download_start(http_session* session) {
    const http_request* request = session->request;
    uint64_t content_length = session->response->content_length;
    char start[32];
    char end[32];
    char length[32];
    LOG_INFO("_work_write_body, download_start_callback, id=%u, range-start=%s, range-end=%s, "
             "content-length=%s",
             session->id, int64_to_text(request->range_start, start),
             int64_to_text(request->range_end, end), uint64_to_text(content_length, length));
    if (session->download_start_cb != nullptr && session_may_call_host(session)) {
        session->download_start_cb(session, session->user_data, request->url,
                                   (uint64_t)request->range_start, (uint64_t)request->range_end,
                                   content_length);
    }
}

// The counts and the waiting bytes must agree, or bytes would land in wrong places.
static bool _are_offsets_consistent(const http_response* response) {
    uint64_t waiting = (uint64_t)response->body_chunk.length;
    uint64_t total = response->body_bytes;
    uint64_t delivered = response->delivered_bytes;
    uint64_t written = response->file_written;
    if (total < delivered || total < written || total - delivered > waiting) {
        return false;
    }
    return written == 0 || (written + waiting == total && delivered >= written);
}

static bool _check_offsets(const http_session* session) {
    const http_response* response = session->response;
    if (LOG_ASSERT_IN("_work_write_body", _are_offsets_consistent(response))) {
        return true;
    }
    char delivered[32];
    char written[32];
    char total[32];
    LOG_ERROR("_work_write_body, invalid offset, buffer=%s, file=%s, total=%s, id=%u.",
              uint64_to_text(response->delivered_bytes, delivered),
              uint64_to_text(response->file_written, written),
              uint64_to_text(response->body_bytes, total), session->id);
    return false;
}

// The bytes that came since the last call are at the end of the waiting ones. False: no digest can
// be made, and none must pass for the body's.
static bool _hand_over_new_bytes(http_session* session) {
    http_response* response = session->response;
    const text_buffer* chunk = &response->body_chunk;
    uint64_t position = response->delivered_bytes;
    uint32_t count = (uint32_t)(response->body_bytes - position);
    response->delivered_bytes = response->body_bytes;
    if (count == 0) {
        return true;
    }
    const char* bytes = chunk->data + chunk->length - count;
    if (session->options->body_md5 != 0 &&
        (!_start_md5(response) || EVP_DigestUpdate(response->md5_context, bytes, count) != 1)) {
        return false;
    }
    if (session->download_data_cb != nullptr && is_body_wanted(session) &&
        session_may_call_host(session)) {
        position += (uint64_t)session->request->range_start;
        session->download_data_cb(session, session->user_data, position, bytes, count);
    }
    return true;
}

// --------------------------------------------------------------------------- the file, the memory

static uint32_t _close_target(http_session* session) {
    FILE* file = session->response->recv_file_id;
    session->response->recv_file_id = nullptr;
    int32_t err = tavhttp_fclose(file);
    if (err != 0) {
        LOG_INFO("_on_write_body_result, uv_fs_close failed, id=%u, err=%d, %s.", session->id, err,
                 strerror(err));
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    return TAV_HTTP_ERROR_CODE_OK;
}

// Writes once more than a buffer full waits, and whatever waits at the end.
static uint32_t _write_to_file(http_session* session) {
    http_response* response = session->response;
    text_buffer* chunk = &response->body_chunk;
    bool is_end = response->recv_state == RECV_COMPLETE || session->connection == nullptr;
    if (chunk->length <= WRITE_SIZE && !is_end) {
        return TAV_HTTP_ERROR_CODE_OK;
    }
    FILE* file = response->recv_file_id;
    uint32_t count = (uint32_t)chunk->length;
    uint64_t offset = (uint64_t)session->request->range_start + response->file_written;
    errno = 0;
    // The last bytes leave the stream here: a full disk is a failed write also for a small body.
    if (tavhttp_fwrite_at(file, chunk->data, (int64_t)offset, count) != count ||
        (is_end && tavhttp_fflush(file) != 0)) {
        int err = errno;
        LOG_INFO("_work_write_body, id=%u, err=%d, %s", session->id, err, strerror(err));
        return TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
    }
    response->file_written += count;
    text_buffer_set_length(chunk, 0);
    return is_end ? _close_target(session) : 0;
}

// The announced length is the server's word: only its low half counts, and what a buffer cannot
// hold is refused.
static bool _reserve_memory_body(http_response* response) {
    if (response->memory_body.data != nullptr) {
        return true;
    }
    uint32_t wanted = MEMORY_BODY_UNKNOWN;
    if (response->content_length != 0) {
        wanted = (uint32_t)response->content_length + (uint32_t)MEMORY_BODY_MARGIN;
    }
    return wanted <= (uint32_t)INT32_MAX &&
           text_buffer_reserve(&response->memory_body, (int32_t)wanted);
}

static uint32_t _keep_in_memory(http_session* session) {
    http_response* response = session->response;
    text_buffer* chunk = &response->body_chunk;
    if (session->download_data_cb != nullptr && is_body_wanted(session)) {
        text_buffer_set_length(chunk, 0);  // The host has the bytes.
        return TAV_HTTP_ERROR_CODE_OK;
    }
    text_buffer* body = &response->memory_body;
    if (!_reserve_memory_body(response) ||
        !text_buffer_append(body, chunk->data, (uint32_t)chunk->length)) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    LOG_ASSERT_IN("_work_write_body", (uint64_t)body->length == response->body_bytes);
    text_buffer_set_length(chunk, 0);
    return TAV_HTTP_ERROR_CODE_OK;
}

uint32_t write_response_body(http_session* session) {
    http_response* response = session->response;
    uint32_t err = _init_download_target(session);
    if (err != 0) {
        LOG_INFO("_work_write_body, _init_download_target failed, id=%d, err=%d", session->id,
                 (int32_t)err);
        return err;
    }
    if (response->body_chunk.length == 0) {
        LOG_INFO("_work_write_body, no data to write, return, sid=%d", session->id);
        return TAV_HTTP_ERROR_CODE_OK;
    }
    if (response->delivered_bytes == 0 && is_body_wanted(session)) {
        _report_download_start(session);
    }
    if (!_check_offsets(session)) {
        return TAV_HTTP_ERROR_CODE_FAIL_OTHER;
    }
    if (!_hand_over_new_bytes(session)) {
        return TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
    return response->recv_file_id != nullptr ? _write_to_file(session) : _keep_in_memory(session);
}
