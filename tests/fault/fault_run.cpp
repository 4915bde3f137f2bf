#include "tests/fault/fault_run.h"

#include "tavhttpclient/log.h"
#include "tavhttpclient/settings.h"
#include "tests/fault/fault_wrap.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <set>
#include <thread>

// -------------------------------------------------------------------------------- the callbacks

namespace {

void on_complete(http_session*, void* user_data, std::uint32_t code) {
    auto* one = static_cast<attempt*>(user_data);
    std::lock_guard<std::mutex> guard(one->mutex);
    one->code = code;
    one->completions++;
    one->changed.notify_all();
}

// Texts that reach the host are there, and terminated.
std::atomic<std::size_t> text_bytes{0};

void read_text(const char* text) {
    text_bytes += std::strlen(text);
}

void on_url(http_session*, void*, const char* url) {
    read_text(url);
}

void on_start(http_session*, void*, const char* url, std::uint64_t, std::uint64_t, std::uint64_t) {
    read_text(url);
}

void on_redirect(http_session*, void*, const char* new_url, const char* url) {
    read_text(new_url);
    read_text(url);
}

void on_progress(http_session*, void*, std::uint64_t, const void*, std::uint32_t, std::uint64_t) {
}

void on_header(http_session*, void*) {
}

}  // namespace

// -------------------------------------------------------------------------------------- the run

std::string code_text(std::uint32_t code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%x", code);
    std::string name = error_code_name(code);
    const std::string prefix = "TAV_HTTP_ERROR_CODE_";
    return std::string(hex) + " " + (name.find(prefix) == 0 ? name.substr(prefix.size()) : name);
}

attempt* fault_run::open(const std::string& url, std::uint32_t method, const proxy_info* proxy) {
    auto one = std::make_unique<attempt>();
    one->session = tavHTTPOpen(method, url.c_str(), proxy, one.get(), on_complete);
    if (one->session == nullptr) {
        outcome("tavHTTPOpen gave null");
        return nullptr;
    }
    attempts_.push_back(std::move(one));
    attempt* opened = attempts_.back().get();
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_CONNECTING_CALLBACK, on_url);
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_CONNECTED_CALLBACK, on_url);
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, on_start);
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_REDIRECT_CALLBACK, on_redirect);
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, on_progress);
    tavHTTPSetOption(opened->session, TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, on_header);
    return opened;
}

bool fault_run::took(std::uint32_t option, std::uint32_t code) {
    if (code == 0) {
        return true;
    }
    expect(code == TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY,
           "option " + std::to_string(option) + " gave " + code_text(code));
    outcome("tavHTTPSetOption gave " + code_text(code));
    return false;
}

bool fault_run::send(attempt* one) {
    std::uint32_t code = tavHTTPSendRequest(one->session);
    if (code == 0) {
        one->started = true;
        return true;
    }
    expect(code == TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC ||
               code == TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY,
           "tavHTTPSendRequest gave " + code_text(code));
    outcome("tavHTTPSendRequest gave " + code_text(code));
    return false;
}

bool fault_run::wait(attempt* one) {
    std::unique_lock<std::mutex> guard(one->mutex);
    one->changed.wait(guard, [one] { return one->completions > 0; });
    if (one->code != 0) {
        outcome("completed with " + code_text(one->code));
    }
    return one->code == 0;
}

void fault_run::close(attempt* one) {
    if (one->session == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(one->mutex);
        one->abandoned = one->completions == 0;
    }
    // 0 says that the release could not be handed over and the handle is still valid.
    if (tavHTTPClose(one->session) == 0) {
        outcome("tavHTTPClose gave 0");
        expect(tavHTTPClose(one->session) == TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC,
               "a second tavHTTPClose failed too");
    }
    one->session = nullptr;
}

void fault_run::close_all() {
    for (const auto& one : attempts_) {
        close(one.get());
    }
}

void fault_run::check_completions() {
    for (const auto& one : attempts_) {
        std::lock_guard<std::mutex> guard(one->mutex);
        int least = one->started && !one->abandoned ? 1 : 0;
        int most = one->started ? 1 : 0;
        expect(one->completions >= least && one->completions <= most,
               std::to_string(one->completions) + " completions");
    }
}

std::string fault_run::body(const attempt* one) const {
    const char* bytes = nullptr;
    std::int32_t length = 0;
    tavHTTPQueryInfo(one->session, TAV_HTTP_QUERY_MEMORY_BODY, &bytes, &length, nullptr);
    return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

std::string fault_run::header(const attempt* one, const std::string& name) const {
    char value[256] = "";
    std::int32_t length = sizeof value;
    std::string in = name;
    tavHTTPQueryInfo(one->session, TAV_HTTP_QUERY_HEADER, &in[0], value, &length);
    return value;
}

std::string fault_run::md5(const attempt* one) const {
    unsigned char digest[16] = {};
    tavHTTPQueryInfo(one->session, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr);
    std::string text;
    for (unsigned char byte : digest) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

void fault_run::expect(bool condition, const std::string& what) {
    if (!condition) {
        failures_.push_back(what);
    }
}

// ----------------------------------------------------------------------------------- the watchdog

namespace {

std::mutex watch_mutex;
std::condition_variable watch_changed;
std::string watch_point;
std::uint64_t watch_moves = 0;
bool watch_stopping = false;
std::thread watch_thread;

void watch(int deadline_ms) {
    std::unique_lock<std::mutex> guard(watch_mutex);
    while (!watch_stopping) {
        std::uint64_t seen = watch_moves;
        bool moved = watch_changed.wait_for(guard, std::chrono::milliseconds(deadline_ms),
                                            [&] { return watch_stopping || watch_moves != seen; });
        if (!moved) {
            const char* hit = fault_hit();
            std::printf("HANG %s, failed call: %s\n%s%s", watch_point.c_str(),
                        hit != nullptr ? hit : "none", fault_trace().c_str(), log_tail().c_str());
            std::fflush(stdout);
            _exit(3);
        }
    }
}

std::mutex log_mutex;  // guards what follows
std::deque<std::string> log_lines;
std::set<std::string> log_kinds;

// What the line says before its first value: the same in every run.
std::string kind_of_line(const char* text) {
    return std::string(text, std::strcspn(text, "=0123456789"));
}

void on_log(std::int32_t level, const char*, const char* text) {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.push_back(std::to_string(level) + " " + text);
    log_kinds.insert(kind_of_line(text));
    if (log_lines.size() > 40) {
        log_lines.pop_front();
    }
}

}  // namespace

void watchdog_start(int deadline_ms) {
    watch_thread = std::thread(watch, deadline_ms);
}

void watchdog_next(const std::string& point) {
    std::lock_guard<std::mutex> guard(watch_mutex);
    watch_point = point;
    watch_moves++;
    watch_changed.notify_all();
}

void watchdog_stop() {
    {
        std::lock_guard<std::mutex> guard(watch_mutex);
        watch_stopping = true;
        watch_changed.notify_all();
    }
    watch_thread.join();
}

void log_start() {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.clear();
    log_kinds.clear();
    tavHTTPSetLogCallback(on_log);
}

std::string log_tail() {
    std::lock_guard<std::mutex> guard(log_mutex);
    std::string text;
    for (const std::string& line : log_lines) {
        text += "    | " + line + "\n";
    }
    return text;
}

std::set<std::string> log_said() {
    std::lock_guard<std::mutex> guard(log_mutex);
    return log_kinds;
}
