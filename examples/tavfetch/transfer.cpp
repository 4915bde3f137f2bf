#include "transfer.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "errors.h"
#include "session_options.h"

namespace fs = std::filesystem;

void push_event(event_queue* queue, const transfer_event& event) {
    std::lock_guard<std::mutex> guard(queue->lock);
    queue->events.push_back(event);
    queue->filled.notify_one();
}

bool pop_event(event_queue* queue, std::chrono::milliseconds wait, transfer_event* event) {
    std::unique_lock<std::mutex> guard(queue->lock);
    if (!queue->filled.wait_for(guard, wait, [queue] { return !queue->events.empty(); })) {
        return false;
    }
    *event = queue->events.front();
    queue->events.pop_front();
    return true;
}

static std::string query_text(http_session* session, uint32_t query) {
    const char* text = nullptr;
    if (tavHTTPQueryInfo(session, query, &text, nullptr, nullptr) != 0 || text == nullptr) {
        return "";
    }
    return text;
}

static std::string query_header(http_session* session, const char* name) {
    int32_t length = 0;
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, (void*)name, nullptr, &length) != 0 ||
        length < 1) {
        return "";
    }
    std::string value((size_t)length, '\0');
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, (void*)name, &value[0], &length);
    value.resize((size_t)length - 1);
    return value;
}

static uint32_t query_status(http_session* session) {
    uint32_t status = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_STATUS_CODE, &status, nullptr, nullptr);
    return status;
}

// Ends the session before the library acts on the response head.
static void stop_with_verdict(transfer* item, http_session* session, transfer_verdict verdict) {
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->verdict = verdict;
    }
    tavHTTPCancelRequest(session);
}

// Worker thread.
static void on_connecting(http_session*, void* user_data, const char* url) {
    transfer* item = (transfer*)user_data;
    std::lock_guard<std::mutex> guard(item->lock);
    item->progress = transfer_progress();
    item->connecting_https = (url[4] | 0x20) == 's';
}

// Worker thread.
static void on_connected(http_session*, void* user_data, const char*) {
    transfer* item = (transfer*)user_data;
    std::lock_guard<std::mutex> guard(item->lock);
    item->connecting_https = false;
    item->connected = std::chrono::steady_clock::now();
}

// Loop thread.
static void on_upload_progress(http_session*, void* user_data, uint64_t sent, const void*,
                               uint32_t length, uint64_t total) {
    transfer* item = (transfer*)user_data;
    std::lock_guard<std::mutex> guard(item->lock);
    item->progress.phase = PHASE_SENDING;
    item->progress.sent = (int64_t)(sent + length);
    item->progress.send_total = (int64_t)total;
}

// The number behind the slash of "bytes */1000"; -1 without one.
static int64_t total_of_content_range(const std::string& value) {
    size_t slash = value.find('/');
    if (slash == std::string::npos || slash + 1 >= value.size() || !isdigit(value[slash + 1])) {
        return -1;
    }
    return strtoll(value.c_str() + slash + 1, nullptr, 10);
}

// Worker thread. The library writes a body at the position that was asked for, whatever the server
// sends, and fetches a file anew when there is nothing behind its end. Both are stopped here, while
// the file on disk is still as it was.
static void on_response_header(http_session* session, void* user_data) {
    transfer* item = (transfer*)user_data;
    uint32_t status = query_status(session);
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress.phase = PHASE_RECEIVING;
        item->first_byte = std::chrono::steady_clock::now();
    }
    const std::optional<byte_range>& range = item->args->range;
    if (item->resume_from > 0) {
        int64_t first = 0;
        tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RANGE_START, &first, nullptr, nullptr);
        if (status == 200 || (status == 206 && first != item->resume_from)) {
            stop_with_verdict(item, session, VERDICT_RESTART);
        } else if (status == 416 && item->resume_from == total_of_content_range(query_header(
                                                             session, "Content-Range"))) {
            stop_with_verdict(item, session, VERDICT_COMPLETE);
        }
    } else if (range && status == 200 && (range->first != 0 || range->last != -1)) {
        stop_with_verdict(item, session, VERDICT_RANGE_IGNORED);
    }
}

// Worker thread.
static void on_download_start(http_session* session, void* user_data, const char*,
                              uint64_t range_start, uint64_t, uint64_t content_length) {
    transfer* item = (transfer*)user_data;
    uint32_t encoding = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_CONTENT_ENCODING, &encoding, nullptr, nullptr);
    std::lock_guard<std::mutex> guard(item->lock);
    item->progress.phase = PHASE_RECEIVING;
    item->progress.received = (int64_t)range_start;
    item->body_start = (int64_t)range_start;
    // The announced length counts compressed bytes, the data callback counts decoded ones.
    bool known = content_length > 0 && encoding == 0;
    item->progress.total = known ? (int64_t)(range_start + content_length) : -1;
}

// A retry delivers from the start again: what is out already is left out.
static bool write_stream(transfer* item, int64_t offset, const char* data, int64_t length) {
    int64_t skip = item->stream_end > offset ? item->stream_end - offset : 0;
    if (skip >= length) {
        return true;
    }
    size_t count = (size_t)(length - skip);
    item->stream_end = offset + length;
    return fwrite(data + skip, 1, count, stdout) == count;
}

// Worker thread.
static void on_data(http_session* session, void* user_data, uint64_t offset, const void* data,
                    uint32_t length) {
    transfer* item = (transfer*)user_data;
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress.received = (int64_t)(offset + length);
        if (item->verdict != VERDICT_NONE) {
            return;
        }
    }
    // Only one callback of a session runs at a time, so the stream needs no lock.
    if (item->target.kind == TARGET_STREAM &&
        !write_stream(item, (int64_t)offset, (const char*)data, length)) {
        stop_with_verdict(item, session, VERDICT_OUTPUT_CLOSED);
    }
}

// Worker thread.
static void on_redirect(http_session*, void* user_data, const char* new_url, const char*) {
    transfer* item = (transfer*)user_data;
    push_event(item->events, {EVENT_REDIRECT, item, 0, new_url});
}

// Worker or loop thread; the last callback.
static void on_complete(http_session*, void* user_data, uint32_t code) {
    transfer* item = (transfer*)user_data;
    push_event(item->events, {EVENT_COMPLETE, item, code, ""});
}

static void set_callbacks(http_session* session, const transfer* item) {
    connecting_callback connecting = on_connecting;
    connected_callback connected = on_connected;
    upload_progress_callback upload = on_upload_progress;
    response_header_callback header = on_response_header;
    download_start_callback download = on_download_start;
    download_data_callback data = on_data;
    redirect_callback redirect = on_redirect;
    tavHTTPSetOption(session, TAV_HTTP_OPTION_CONNECTING_CALLBACK, connecting);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_CONNECTED_CALLBACK, connected);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, upload);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, header);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, download);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_REDIRECT_CALLBACK, redirect);
    // With a data callback the library keeps no body in memory.
    if (item->target.kind != TARGET_MEMORY) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, data);
    }
}

void start_transfer(transfer* item, bool resuming) {
    std::error_code error;
    uintmax_t size = resuming ? fs::file_size(fs::u8path(item->target.path), error) : 0;
    item->resuming = resuming;
    item->resume_from = error ? 0 : (int64_t)size;
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress = transfer_progress();
        item->verdict = VERDICT_NONE;
        item->connecting_https = false;
        item->body_start = 0;
        item->started = std::chrono::steady_clock::now();
        item->connected = item->first_byte = time_point();
    }
    item->session = open_session(*item->args, item->url, item->target, resuming, item, on_complete);
    uint32_t code = TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    if (item->session != nullptr) {
        set_callbacks(item->session, item);
        code = tavHTTPSendRequest(item->session);
    }
    if (code != 0) {
        push_event(item->events, {EVENT_COMPLETE, item, code, ""});
    }
}

transfer_progress get_progress(transfer* item) {
    std::lock_guard<std::mutex> guard(item->lock);
    return item->progress;
}

static double seconds_between(time_point from, time_point to) {
    return to == time_point() ? -1 : std::chrono::duration<double>(to - from).count();
}

static std::string query_md5(http_session* session) {
    unsigned char digest[16];
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr) != 0) {
        return "";
    }
    std::string text;
    for (unsigned char byte : digest) {
        char two[3];
        snprintf(two, sizeof(two), "%02x", byte);
        text += two;
    }
    return text;
}

static std::string query_raw_headers(http_session* session) {
    int32_t length = 0;
    if (tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, nullptr, &length, nullptr) != 0) {
        return "";
    }
    std::string text((size_t)length, '\0');
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, &text[0], &length, nullptr);
    text.resize((size_t)length - 1);
    return text;
}

static std::string query_memory_body(http_session* session) {
    const char* body = nullptr;
    int32_t length = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, nullptr);
    return body == nullptr ? "" : std::string(body, (size_t)length);
}

// The file that the transfer left. A file of the library's choosing cannot be resumed under its
// name, and holds the error page when the server refused: it goes with the failure.
static std::string settle_file(const transfer* item, http_session* session, uint32_t code) {
    std::error_code ignored;
    std::string path = query_text(session, TAV_HTTP_QUERY_FILE_PATH);
    if (path.empty()) {
        return "";
    }
    if (code != 0 && item->target.kind == TARGET_AUTO_FILE) {
        fs::remove(fs::u8path(path), ignored);
    }
    bool is_kept = code == 0 || item->resuming || item->args->range;
    return is_kept && fs::exists(fs::u8path(path), ignored) ? path : "";
}

static void read_session(const transfer* item, http_session* session, transfer_result* result) {
    char peer[64] = "";
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_PEER_ADDRESS, peer, nullptr, nullptr);
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_BODY_BYTES, &result->bytes, nullptr, nullptr);
    result->peer = peer;
    result->status = query_status(session);
    result->status_text = query_text(session, TAV_HTTP_QUERY_STATUS_TEXT);
    result->final_url = query_text(session, TAV_HTTP_QUERY_CURRENT_URL);
    result->location = query_header(session, "Location");
    result->file = settle_file(item, session, result->code);
    if (item->target.kind == TARGET_NONE) {
        result->headers = query_raw_headers(session);
    }
    if (item->target.kind == TARGET_MEMORY && result->code == 0) {
        result->body = query_memory_body(session);
    }
    if (item->args->md5 && result->code == 0 && !item->args->head) {
        result->md5 = query_md5(session);
    }
}

transfer_result finish_transfer(transfer* item, uint32_t code) {
    transfer_result result;
    result.code = code;
    {
        std::lock_guard<std::mutex> guard(item->lock);
        result.verdict = code == TAV_HTTP_ERROR_CODE_CANCEL ? item->verdict : VERDICT_NONE;
        result.in_handshake = item->connecting_https;
        // A file that is longer than the resource has been fetched anew.
        result.resumed_from = item->resume_from > 0 ? item->body_start : 0;
        result.position = item->progress.received;
        result.connect_seconds = seconds_between(item->started, item->connected);
        result.first_byte_seconds = seconds_between(item->started, item->first_byte);
    }
    result.total_seconds = seconds_between(item->started, std::chrono::steady_clock::now());
    if (item->session != nullptr) {
        read_session(item, item->session, &result);
        if (result.verdict == VERDICT_COMPLETE) {
            result.file = item->target.path;
            result.resumed_from = item->resume_from;
            result.bytes = 0;  // those of the page that said so
        }
        // The result of a close says whether the release was handed over; there is nothing to do
        // about it when it was not.
        tavHTTPClose(item->session);
        item->session = nullptr;
    }
    if (item->target.kind == TARGET_STREAM && fflush(stdout) != 0 && result.code == 0) {
        result.code = TAV_HTTP_ERROR_CODE_CANCEL;
        result.verdict = VERDICT_OUTPUT_CLOSED;
    }
    return result;
}
