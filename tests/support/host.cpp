#include "tests/support/host.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace fs = std::filesystem;

bool wait_until(const std::function<bool()>& condition, milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

void expect_code(std::uint32_t expected, std::uint32_t got) {
    if (expected == code::any_negative) {
        EXPECT_LT(static_cast<std::int32_t>(got), 0);
    } else {
        EXPECT_EQ(expected, got);
    }
}

proxy_record::proxy_record(std::uint32_t type, std::uint16_t port, const char* user,
                           const char* password, const char* host)
    : host_(host), user_(user != nullptr ? user : ""),
      password_(password != nullptr ? password : "") {
    info_.type = type;
    info_.host = &host_[0];
    info_.port = port;
    info_.user_name = user != nullptr ? &user_[0] : nullptr;
    info_.password = password != nullptr ? &password_[0] : nullptr;
}

// ------------------------------------------------------------------------------------------------

struct transfer_state {
    transfer* owner = nullptr;
    http_session* session = nullptr;
    mutable std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::vector<event> events;
    std::map<std::string, std::function<void(transfer&)>> actions;
    std::string data;
    int completions = 0;
    std::uint32_t code = not_completed;

    void add(const std::string& name, const std::string& detail);
};

namespace {

// A callback may still be running when its session and its transfer are gone. The states stay
// until the library has stopped.
std::mutex states_mutex;
std::vector<std::shared_ptr<transfer_state>> states;

std::mutex log_mutex;
std::condition_variable log_changed;
std::vector<log_line> log_lines;

void on_log(std::int32_t level, const char* tag, const char* text) {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.push_back({level, tag, text});
    log_changed.notify_all();
}

transfer_state* state_of(http_session* session, void* user_data) {
    auto* state = static_cast<transfer_state*>(user_data);
    EXPECT_EQ(session, state->session);
    return state;
}

std::string text_of(const char* text) {
    return text != nullptr ? text : "(null)";
}

void on_complete(http_session* session, void* user_data, std::uint32_t code) {
    transfer_state* state = state_of(session, user_data);
    std::function<void(transfer&)> action;
    {
        std::lock_guard<std::mutex> guard(state->mutex);
        action = state->actions["complete"];
    }
    if (action) {
        action(*state->owner);
    }
    // The waiting test may end the transfer as soon as the code is there.
    std::lock_guard<std::mutex> guard(state->mutex);
    state->events.push_back({"complete", std::to_string(code), std::this_thread::get_id()});
    state->code = code;
    state->completions++;
    state->changed.notify_all();
}

void on_data(http_session* session, void* user_data, std::uint64_t offset, const void* data,
             std::uint32_t length) {
    transfer_state* state = state_of(session, user_data);
    {
        std::lock_guard<std::mutex> guard(state->mutex);
        state->data.append(static_cast<const char*>(data), length);
    }
    state->add("data", std::to_string(offset) + " " + std::to_string(length));
}

}  // namespace

void transfer_state::add(const std::string& name, const std::string& detail) {
    std::function<void(transfer&)> action;
    {
        std::lock_guard<std::mutex> guard(mutex);
        events.push_back({name, detail, std::this_thread::get_id()});
        changed.notify_all();
        auto found = actions.find(name);
        if (found != actions.end()) {
            action = found->second;
        }
    }
    if (action) {
        action(*owner);
    }
}

// ------------------------------------------------------------------------------------------------

library::library() {
    startup();
}

library::~library() {
    shutdown();
}

void library::startup() {
    if (!running_) {
        EXPECT_EQ(0u, tavHTTPStartup());
        running_ = true;
    }
}

void library::shutdown() {
    if (!running_) {
        return;
    }
    EXPECT_EQ(0u, tavHTTPShutdown());
    running_ = false;
    std::lock_guard<std::mutex> guard(states_mutex);
    // Transfers that still live hold theirs.
    states.clear();
}

log_capture::log_capture() {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.clear();
    tavHTTPSetLogCallback(on_log);
}

log_capture::~log_capture() {
    tavHTTPSetLogCallback(nullptr);
}

std::vector<log_line> log_capture::lines() const {
    std::lock_guard<std::mutex> guard(log_mutex);
    return log_lines;
}

static std::size_t matching_lines(const std::string& part, std::int32_t level) {
    std::size_t count = 0;
    for (const log_line& line : log_lines) {
        bool matches = level == 0 || level == line.level;
        count += matches && line.text.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

std::size_t log_capture::count(const std::string& part, std::int32_t level) const {
    std::lock_guard<std::mutex> guard(log_mutex);
    return matching_lines(part, level);
}

bool log_capture::has_line(const std::string& part, std::int32_t level) const {
    return count(part, level) > 0;
}

bool log_capture::wait_for_line(const std::string& part, milliseconds deadline) const {
    std::unique_lock<std::mutex> guard(log_mutex);
    return log_changed.wait_for(guard, deadline, [&] { return matching_lines(part, 0) > 0; });
}

// ------------------------------------------------------------------------------------------------

transfer::transfer(const std::string& url, std::uint32_t method, const proxy_info* proxy)
    : state_(std::make_shared<transfer_state>()) {
    {
        std::lock_guard<std::mutex> guard(states_mutex);
        states.push_back(state_);
    }
    state_->owner = this;
    session_ = tavHTTPOpen(method, url.c_str(), proxy, state_.get(), on_complete);
    state_->session = session_;
    EXPECT_NE(nullptr, session_);
}

transfer::~transfer() {
    close();
}

std::uint32_t transfer::close() {
    return tavHTTPClose(session_.exchange(nullptr));
}

void transfer::install(const std::string& name) {
    if (name == "connecting") {
        set(
            TAV_HTTP_OPTION_CONNECTING_CALLBACK, +[](http_session* s, void* u, const char* url) {
                state_of(s, u)->add("connecting", text_of(url));
            });
    } else if (name == "connected") {
        set(
            TAV_HTTP_OPTION_CONNECTED_CALLBACK, +[](http_session* s, void* u, const char* address) {
                state_of(s, u)->add("connected", text_of(address));
            });
    } else if (name == "start") {
        set(
            TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK,
            +[](http_session* s, void* u, const char* url, std::uint64_t first, std::uint64_t last,
                std::uint64_t length) {
                std::ostringstream detail;
                detail << text_of(url) << ' ' << static_cast<std::int64_t>(first) << ' '
                       << static_cast<std::int64_t>(last) << ' ' << length;
                state_of(s, u)->add("start", detail.str());
            });
    } else if (name == "redirect") {
        set(
            TAV_HTTP_OPTION_REDIRECT_CALLBACK,
            +[](http_session* s, void* u, const char* to, const char* from) {
                state_of(s, u)->add("redirect", text_of(to) + " " + text_of(from));
            });
    } else if (name == "data") {
        set(TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_data);
    } else if (name == "progress") {
        set(
            TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK,
            +[](http_session* s, void* u, std::uint64_t sent, const void*, std::uint32_t length,
                std::uint64_t total) {
                std::ostringstream detail;
                detail << sent << ' ' << length << ' ' << total;
                state_of(s, u)->add("progress", detail.str());
            });
    } else if (name == "header") {
        set(
            TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK,
            +[](http_session* s, void* u) { state_of(s, u)->add("header", ""); });
    } else {
        EXPECT_EQ("complete", name);
    }
}

void transfer::record() {
    for (const char* name :
         {"connecting", "connected", "start", "redirect", "progress", "header"}) {
        install(name);
    }
}

void transfer::record_data() {
    install("data");
}

void transfer::at(const std::string& name, std::function<void(transfer&)> action) {
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        state_->actions[name] = std::move(action);
    }
    install(name);
}

std::uint32_t transfer::set_body(const std::string& bytes) {
    auto size = static_cast<std::uint32_t>(bytes.size());
    return set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(), size);
}

std::uint32_t transfer::send() {
    return tavHTTPSendRequest(session_);
}

std::uint32_t transfer::cancel() {
    return tavHTTPCancelRequest(session_);
}

std::uint32_t transfer::wait(milliseconds deadline) {
    std::unique_lock<std::mutex> guard(state_->mutex);
    if (!state_->changed.wait_for(guard, deadline, [&] { return state_->completions > 0; })) {
        ADD_FAILURE() << "the session has not completed";
    }
    return state_->code;
}

std::uint32_t transfer::run(milliseconds deadline) {
    EXPECT_EQ(0u, send());
    return wait(deadline);
}

bool transfer::completed() const {
    return completions() > 0;
}

int transfer::completions() const {
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->completions;
}

std::vector<event> transfer::events() const {
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->events;
}

std::string transfer::event_names() const {
    std::string names;
    std::string last;
    for (const event& one : events()) {
        if (one.name != last) {
            names += (names.empty() ? "" : " ") + one.name;
        }
        last = one.name;
    }
    return names;
}

std::size_t transfer::event_count(const std::string& name) const {
    std::size_t count = 0;
    for (const event& one : events()) {
        count += one.name == name ? 1 : 0;
    }
    return count;
}

std::string transfer::detail(const std::string& name) const {
    for (const event& one : events()) {
        if (one.name == name) {
            return one.detail;
        }
    }
    return "";
}

bool transfer::wait_for_event(const std::string& name, milliseconds deadline) {
    std::unique_lock<std::mutex> guard(state_->mutex);
    return state_->changed.wait_for(guard, deadline, [&] {
        return std::any_of(state_->events.begin(), state_->events.end(),
                           [&](const event& one) { return one.name == name; });
    });
}

std::string transfer::data() const {
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->data;
}

std::uint32_t transfer::status() const {
    std::uint32_t status = 0;
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_STATUS_CODE, &status, nullptr, nullptr);
    return status;
}

std::string transfer::body() const {
    const char* bytes = nullptr;
    std::int32_t length = 0;
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_MEMORY_BODY, &bytes, &length, nullptr);
    return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

std::string transfer::text(std::uint32_t query) const {
    const char* value = nullptr;
    tavHTTPQueryInfo(session_, query, &value, nullptr, nullptr);
    return value != nullptr ? value : "";
}

std::int64_t transfer::number(std::uint32_t query) const {
    std::int64_t value = 0;
    tavHTTPQueryInfo(session_, query, &value, nullptr, nullptr);
    return value;
}

std::string transfer::header(const std::string& name) const {
    char value[4096] = "";
    std::int32_t length = sizeof value;
    std::string in = name;
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_HEADER, &in[0], value, &length);
    return value;
}

static std::string hex(const unsigned char* bytes, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; i++) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        text += two;
    }
    return text;
}

std::string transfer::md5() const {
    unsigned char digest[16] = {};
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr);
    return hex(digest, sizeof digest);
}

std::string transfer::peer() const {
    char address[64] = "";
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_PEER_ADDRESS, address, nullptr, nullptr);
    return address;
}

// ------------------------------------------------------------------------------------------------

// Asks for every number: listing /proc/self/fd would open and close a descriptor of its own beside
// those that other threads open and close.
std::size_t open_descriptors() {
    std::size_t count = 0;
    for (int fd = 0; fd < 1024; fd++) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

descriptor_guard::descriptor_guard() {
    {
        library once;
        scripted_server server(script{expect_request(), send_text(response(200, ""))});
        transfer warm_up(server.url());
        EXPECT_EQ(0u, warm_up.run());
    }
    refusing_port();
    start_ = open_descriptors();
}

bool descriptor_guard::back_to_start(milliseconds deadline) const {
    return wait_until([this] { return open_descriptors() <= start_; }, deadline);
}

work_dir::work_dir() {
    char pattern[] = "/tmp/tavhttp-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path_ = pattern;
    previous_ = fs::current_path().string();
    fs::current_path(path_);
}

work_dir::~work_dir() {
    std::error_code ignored;
    fs::current_path(previous_, ignored);
    fs::remove_all(path_, ignored);
}

std::vector<std::string> work_dir::names() const {
    // Not with opendir: libuv closes sockets behind the thread sanitizer's back, which then takes
    // the descriptor's next use on this thread for a race.
    std::vector<std::string> names;
    dirent** entries = nullptr;
    int count = scandir(path_.c_str(), &entries, nullptr, alphasort);
    for (int i = 0; i < count; i++) {
        std::string name = entries[i]->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
        free(entries[i]);
    }
    free(entries);
    std::sort(names.begin(), names.end());
    return names;
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    EXPECT_TRUE(out.good()) << path;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

bool file_exists(const std::string& path) {
    return fs::exists(path);
}

std::string sample_bytes(std::size_t size) {
    std::string bytes(size, 0);
    std::uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

static std::string zlib_encode(const std::string& bytes, int window_bits) {
    z_stream stream = {};
    EXPECT_EQ(Z_OK, deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, window_bits, 8,
                                 Z_DEFAULT_STRATEGY));
    std::string out(deflateBound(&stream, static_cast<uLong>(bytes.size())) + 64, 0);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&stream, Z_FINISH));
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

std::string gzip_bytes(const std::string& bytes) {
    return zlib_encode(bytes, 15 + 16);
}

std::string deflate_bytes(const std::string& bytes) {
    return zlib_encode(bytes, 15);
}

std::string raw_deflate_bytes(const std::string& bytes) {
    return zlib_encode(bytes, -15);
}

std::string md5_hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    return hex(digest, length);
}
