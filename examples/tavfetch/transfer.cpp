#include "transfer.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "errors.h"
#include "queries.h"
#include "session_options.h"
#include "text.h"
#include "trace.h"
#include "url.h"

namespace fs = std::filesystem;

// Ends the session before the library acts on the response head.
static void stop_with_verdict(transfer* item, http_session* session, transfer_verdict verdict) {
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->verdict = verdict;
    }
    tavHTTPCancelRequest(session);
}

// Whether the next head must be seen: bytes go on behind those that are there, or at an offset. The
// library shows the head of the first attempt alone.
static bool needs_every_head(const transfer& item) {
    return item.resuming || item.args->range || item.target.kind == TARGET_STREAM;
}

// Worker thread.
static void on_connecting(http_session* session, void* user_data, const char* url) {
    transfer* item = (transfer*)user_data;
    bool is_repetition = false;
    {
        std::lock_guard<std::mutex> guard(item->lock);
        is_repetition = !item->expects_connection && item->first_byte != time_point();
        item->expects_connection = false;
        item->progress = transfer_progress();
        item->connecting_https = (url[4] | 0x20) == 's';
    }
    if (is_repetition && needs_every_head(*item)) {
        stop_with_verdict(item, session, VERDICT_BROKEN);
    }
}

// Worker thread.
static void on_connected(http_session*, void* user_data, const char* address) {
    transfer* item = (transfer*)user_data;
    trace_connection(*item, address);
    std::lock_guard<std::mutex> guard(item->lock);
    item->connecting_https = false;
    item->connected = std::chrono::steady_clock::now();
}

// Loop thread.
static void on_upload_progress(http_session*, void* user_data, uint64_t sent, const void* data,
                               uint32_t length, uint64_t total) {
    transfer* item = (transfer*)user_data;
    if (sent == 0) {
        trace_request(*item, (const char*)data, length);
    }
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

// What to do about the answer to a request for the rest of a file. The library would write a body
// at the position that was asked for, whatever the server sends, fetch a file anew when there is
// nothing behind its end, and remove it for an error page; all that is stopped while the file on
// disk is still as it was.
static transfer_verdict judge_rest(http_session* session, const transfer& item, uint32_t status) {
    int64_t first = 0;
    tav_http_get_range_start(session, &first);
    if (status == 206 && first == item.resume_from) {
        return VERDICT_NONE;
    }
    if (status == 416 &&
        item.resume_from == total_of_content_range(query_header(session, "Content-Range"))) {
        return VERDICT_COMPLETE;
    }
    return status == 200 || status == 206 || status == 416 ? VERDICT_RESTART : VERDICT_REFUSED;
}

// Worker thread.
static void on_response_header(http_session* session, void* user_data) {
    transfer* item = (transfer*)user_data;
    uint32_t status = query_status(session);
    trace_response(*item, session);
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress.phase = PHASE_RECEIVING;
        item->first_byte = item->last_byte = std::chrono::steady_clock::now();
        if (status == 200 || status == 206) {
            item->received_validator = query_validator(session);
        }
    }
    const std::optional<byte_range>& range = item->args->range;
    transfer_verdict verdict = VERDICT_NONE;
    if (item->resume_from > 0) {
        verdict = judge_rest(session, *item, status);
    } else if (range && status == 200 && (range->first != 0 || range->last != -1)) {
        verdict = VERDICT_RANGE_IGNORED;
    } else if (item->stream_end > 0 && status == 200 &&
               item->validator != query_validator(session)) {
        verdict = VERDICT_CHANGED;
    }
    if (verdict != VERDICT_NONE) {
        stop_with_verdict(item, session, verdict);
    }
}

// Worker thread.
static void on_download_start(http_session* session, void* user_data, const char*,
                              uint64_t range_start, uint64_t, uint64_t content_length) {
    transfer* item = (transfer*)user_data;
    uint32_t encoding = 0;
    tav_http_get_content_encoding(session, &encoding);
    std::lock_guard<std::mutex> guard(item->lock);
    item->progress.phase = PHASE_RECEIVING;
    item->progress.received = (int64_t)range_start;
    item->body_start = (int64_t)range_start;
    // The announced length counts compressed bytes, the data callback counts decoded ones.
    bool known = content_length > 0 && encoding == 0;
    item->progress.total = known ? (int64_t)(range_start + content_length) : -1;
}

// A retry delivers from the start again: what is out already is left out.
static transfer_verdict write_stream(transfer* item, int64_t offset, const char* data,
                                     int64_t length) {
    int64_t skip = item->stream_end > offset ? item->stream_end - offset : 0;
    if (skip >= length) {
        return VERDICT_NONE;
    }
    size_t count = (size_t)(length - skip);
    if (item->wants_text && !is_text(data + skip, count)) {
        return VERDICT_NO_TEXT;
    }
    item->stream_end = offset + length;
    if (item->stream_sum) {
        add_to_checksum(item->stream_sum, data + skip, count);
    }
    return fwrite(data + skip, 1, count, item->target.stream) == count ? VERDICT_NONE
                                                                       : VERDICT_OUTPUT_CLOSED;
}

// Worker thread.
static void on_data(http_session* session, void* user_data, uint64_t offset, const void* data,
                    uint32_t length) {
    transfer* item = (transfer*)user_data;
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress.received = (int64_t)(offset + length);
        item->last_byte = std::chrono::steady_clock::now();
        if (item->verdict != VERDICT_NONE) {
            return;
        }
    }
    if (item->target.kind == TARGET_STREAM) {
        transfer_verdict verdict = write_stream(item, (int64_t)offset, (const char*)data, length);
        if (verdict != VERDICT_NONE) {
            stop_with_verdict(item, session, verdict);
        }
    }
}

// Worker thread.
static void on_redirect(http_session* session, void* user_data, const char* new_url,
                        const char* current_url) {
    transfer* item = (transfer*)user_data;
    push_event(item->events, {EVENT_REDIRECT, item, 0, new_url});
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->expects_connection = true;
    }
    if (item->has_host_settings && !is_same_origin(new_url, current_url)) {
        {
            std::lock_guard<std::mutex> guard(item->lock);
            item->redirect_url = new_url;
        }
        stop_with_verdict(item, session, VERDICT_REDIRECT);
    }
}

// Worker or loop thread; the last callback.
static void on_complete(http_session*, void* user_data, uint32_t code) {
    transfer* item = (transfer*)user_data;
    push_event(item->events, {EVENT_COMPLETE, item, code, ""});
}

static void set_callbacks(http_session* session, const transfer* item) {
    tav_http_set_connecting(session, on_connecting);
    tav_http_set_connected(session, on_connected);
    tav_http_set_upload_progress(session, on_upload_progress);
    tav_http_set_response_header(session, on_response_header);
    tav_http_set_download_start(session, on_download_start);
    tav_http_set_redirect(session, on_redirect);
    // With a data callback the library keeps no body in memory.
    if (item->target.kind != TARGET_MEMORY) {
        tav_http_set_download_data(session, on_data);
    }
}

// The proxy of the command line, else that of the environment for this URL.
static bool choose_proxy(transfer* item) {
    item->proxy = item->args->proxy;
    if (item->proxy || item->args->no_proxy) {
        return true;
    }
    std::string complaint = environment_proxy(item->current_url, &item->proxy);
    if (!complaint.empty()) {
        item->failure = {EXIT_USAGE, complaint};
    }
    return complaint.empty();
}

// Whether the file is one that another attempt goes on with, and from where.
static void choose_resumption(transfer* item) {
    const transfer_target& target = item->target;
    bool is_kept = target.folder.empty() ? item->args->resume : item->args->retries > 0;
    std::error_code error;
    item->resuming = target.kind == TARGET_FILE && is_kept && !is_post(*item->args);
    uintmax_t size = item->resuming ? fs::file_size(fs::u8path(target.working), error) : 0;
    item->resume_from = error ? 0 : (int64_t)size;
}

void start_transfer(transfer* item) {
    {
        std::lock_guard<std::mutex> guard(item->lock);
        item->progress = transfer_progress();
        item->verdict = VERDICT_NONE;
        item->connecting_https = false;
        item->body_start = 0;
        item->expects_connection = true;
        item->received_validator.clear();
        item->connected = item->first_byte = item->last_byte = time_point();
    }
    choose_resumption(item);
    uint32_t code = TAV_HTTP_ERROR_CODE_INVALID_PROXY;
    if (choose_proxy(item)) {
        item->session = open_session(item, on_complete);
        code = TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY;
    }
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
