#include "support/host.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

std::string code_name(std::uint32_t code) {
    const std::size_t prefix = std::strlen("TAV_HTTP_ERROR_CODE_");
    switch (code) {
#define CASE(name, value)                                                                          \
    case value:                                                                                    \
        return &(#name)[prefix];
        TAV_HTTP_ERROR_CODE_MAP(CASE)
#undef CASE
    default:
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", code);
        return static_cast<std::int32_t>(code) < 0 ? "negative" : text;
    }
}

proxy::proxy(std::uint32_t kind, std::uint16_t at_port, const char* user, const char* secret,
             const char* name)
    : proxy_info(), texts_{name, user != nullptr ? user : "", secret != nullptr ? secret : ""} {
    type = kind;
    port = at_port;
    host = &texts_[0][0];
    user_name = user != nullptr ? &texts_[1][0] : nullptr;
    password = secret != nullptr ? &texts_[2][0] : nullptr;
}

// ------------------------------------------------------------------------------ the log, the life

namespace {

std::mutex log_mutex;  // guards what follows
std::condition_variable log_changed;
bool capturing;
std::vector<log_line> log_lines;
std::vector<std::string> assertions;
std::set<std::string> allowed;

void on_log(std::int32_t level, const char* tag, const char* text) {
    std::lock_guard<std::mutex> guard(log_mutex);
    if (std::strncmp(text, "assert fail", 11) == 0) {
        assertions.push_back(text);
    }
    if (capturing) {
        log_lines.push_back({level, tag, text});
        log_changed.notify_all();
    }
}

std::size_t matching_lines(const std::string& part, std::int32_t level) {
    return static_cast<std::size_t>(
        std::count_if(log_lines.begin(), log_lines.end(), [&](const log_line& line) {
            return (level == 0 || level == line.level) && line.text.find(part) != std::string::npos;
        }));
}

// A callback may still be running when its session and its transfer are gone. The states stay
// until the library has stopped.
std::mutex states_mutex;
std::vector<std::shared_ptr<transfer_state>> states;

}  // namespace

void library::startup() {
    if (!running_) {
        EXPECT_EQ(0u, tavHTTPStartup());
        running_ = true;
    }
}

void library::shutdown() {
    if (running_) {
        EXPECT_EQ(0u, tavHTTPShutdown());
        running_ = false;
        std::lock_guard<std::mutex> guard(states_mutex);
        states.clear();  // Transfers that still live hold theirs.
    }
}

void watch_assertions() {
    std::lock_guard<std::mutex> guard(log_mutex);
    assertions.clear();
    allowed.clear();
    tavHTTPSetLogCallback(on_log);
}

void allow_assertion(const std::string& function) {
    std::lock_guard<std::mutex> guard(log_mutex);
    allowed.insert(function.empty() ? "" : "function=" + function + ",");
}

std::vector<std::string> failed_assertions() {
    std::lock_guard<std::mutex> guard(log_mutex);
    std::vector<std::string> left;
    for (const std::string& line : assertions) {
        if (std::none_of(allowed.begin(), allowed.end(), [&](const std::string& part) {
                return line.find(part) != std::string::npos;
            })) {
            left.push_back(line);
        }
    }
    return left;
}

log_capture::log_capture() {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.clear();
    capturing = true;
    tavHTTPSetLogCallback(on_log);  // in the child of a death test nobody else has
}

log_capture::~log_capture() {
    std::lock_guard<std::mutex> guard(log_mutex);
    capturing = false;
}

std::vector<log_line> log_capture::lines() const {
    std::lock_guard<std::mutex> guard(log_mutex);
    return log_lines;
}

std::size_t log_capture::count(const std::string& part, std::int32_t level) const {
    std::lock_guard<std::mutex> guard(log_mutex);
    return matching_lines(part, level);
}

bool log_capture::wait_for_line(const std::string& part, std::size_t wanted) const {
    std::unique_lock<std::mutex> guard(log_mutex);
    return log_changed.wait_for(guard, default_deadline,
                                [&] { return matching_lines(part, 0) >= wanted; });
}

// ---------------------------------------------------------------------------------- one transfer

struct transfer_state {
    transfer* owner = nullptr;
    http_session* session = nullptr;
    mutable std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::vector<event> events;
    std::map<std::string, transfer::action> actions;
    std::string data, code = not_completed;
    int completions = 0;

    void add(const std::string& name, const std::string& detail) {
        EXPECT_EQ(0, completions) << name << " behind the completion";
        events.push_back({name, detail, std::this_thread::get_id()});
        changed.notify_all();
    }
};

namespace {

// What every callback does: records the call and runs the test's own part.
template <typename... values>
void note(http_session* session, void* user_data, const char* name, const values&... given) {
    auto* state = static_cast<transfer_state*>(user_data);
    EXPECT_EQ(session, state->session);
    std::ostringstream detail;
    [[maybe_unused]] const char* blank = "";
    ((detail << blank << given, blank = " "), ...);
    transfer::action action;
    bool last = std::strcmp(name, "complete") == 0;
    {
        std::lock_guard<std::mutex> guard(state->mutex);
        action = state->actions[name];
        if (!last) {
            state->add(name, detail.str());
        }
    }
    if (action) {
        action(*state->owner);
    }
    if (last) {  // The waiting test may end the transfer as soon as the code is there.
        std::lock_guard<std::mutex> guard(state->mutex);
        state->add(name, detail.str());
        state->code = detail.str();
        state->completions++;
    }
}

void on_complete(http_session* s, void* u, std::uint32_t code) {
    note(s, u, "complete", code_name(code));
}

template <bool connected> void on_connection(http_session* s, void* u, const char* to) {
    note(s, u, connected ? "connected" : "connecting", to);
}

void on_redirect(http_session* s, void* u, const char* to, const char* from) {
    note(s, u, "redirect", to, from);
}

void on_header(http_session* s, void* u) {
    note(s, u, "header");
}

void on_start(http_session* s, void* u, const char* url, std::uint64_t first, std::uint64_t last,
              std::uint64_t length) {
    note(s, u, "start", url, static_cast<std::int64_t>(first), static_cast<std::int64_t>(last),
         length);
}

void on_progress(http_session* s, void* u, std::uint64_t sent, const void*, std::uint32_t length,
                 std::uint64_t total) {
    note(s, u, "progress", sent, length, total);
}

void on_data(http_session* s, void* u, std::uint64_t offset, const void* data,
             std::uint32_t length) {
    {
        auto* state = static_cast<transfer_state*>(u);
        std::lock_guard<std::mutex> guard(state->mutex);
        state->data.append(static_cast<const char*>(data), length);
    }
    note(s, u, "data", offset, length);
}

using any_function = void (*)();
const struct {
    const char* name;
    std::uint32_t option;
    any_function function;
} callbacks[] = {
    {"connecting", TAV_HTTP_OPTION_CONNECTING_CALLBACK, (any_function)on_connection<false>},
    {"connected", TAV_HTTP_OPTION_CONNECTED_CALLBACK, (any_function)on_connection<true>},
    {"redirect", TAV_HTTP_OPTION_REDIRECT_CALLBACK, (any_function)on_redirect},
    {"header", TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, (any_function)on_header},
    {"start", TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, (any_function)on_start},
    {"progress", TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, (any_function)on_progress},
    {"data", TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, (any_function)on_data},
    {"complete", TAV_HTTP_OPTION_COMPLETE_CALLBACK, (any_function)on_complete},
};

std::string hex(const unsigned char* bytes, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; i++) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        text += two;
    }
    return text;
}

}  // namespace

transfer::transfer(const std::string& url, std::uint32_t method, const proxy_info* through)
    : state_(std::make_shared<transfer_state>()) {
    {
        std::lock_guard<std::mutex> guard(states_mutex);
        states.push_back(state_);
    }
    state_->owner = this;
    session_ = tavHTTPOpen(method, url.c_str(), through, state_.get(), on_complete);
    state_->session = session_;
}

transfer::~transfer() {
    close();
    if (session_ != nullptr) {
        close();  // the first could not be handed over
    }
}

std::string transfer::close() {
    http_session* session = session_.exchange(nullptr);
    std::uint32_t code = tavHTTPClose(session);
    if (session != nullptr && code == 0) {
        session_ = session;  // the library does not run: still valid
    }
    return code_name(code);
}

void transfer::record() {
    for (const auto& one : callbacks) {
        if (std::strcmp(one.name, "data") != 0) {
            set(one.option, one.function);
        }
    }
}

void transfer::record_data() {
    set(TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_data);
}

void transfer::at(const std::string& name, action run) {
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        state_->actions[name] = std::move(run);
    }
    for (const auto& one : callbacks) {
        if (name == one.name) {
            set(one.option, one.function);
        }
    }
}

std::string transfer::wait(milliseconds deadline) {
    std::unique_lock<std::mutex> guard(state_->mutex);
    state_->changed.wait_for(guard, deadline, [&] { return state_->completions > 0; });
    return state_->code;
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
    std::string names, last;
    for (const event& one : events()) {
        names += one.name == last ? "" : (names.empty() ? "" : " ") + one.name;
        last = one.name;
    }
    return names;
}

std::size_t transfer::event_count(const std::string& name) const {
    std::vector<event> all = events();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const event& one) { return one.name == name; }));
}

std::string transfer::detail(const std::string& name) const {
    for (const event& one : events()) {
        if (one.name == name) {
            return one.detail;
        }
    }
    return "(none)";
}

std::string transfer::data() const {
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->data;
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

std::string transfer::header(const std::string& name) const {
    char value[4096] = "";
    std::int32_t length = sizeof value;
    std::string in = name;
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_HEADER, &in[0], value, &length);
    return value;
}

std::string transfer::md5() const {
    unsigned char digest[16] = {};
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr);
    return hex(digest, sizeof digest);
}

std::string transfer::address() const {
    char text[64] = "";
    tavHTTPQueryInfo(session_, TAV_HTTP_QUERY_PEER_ADDRESS, text, nullptr, nullptr);
    return text;
}

// --------------------------------------------------------------------------------- files, bytes

work_dir::work_dir() : previous_(fs::current_path().string()) {
    static std::mt19937 random{std::random_device{}()};
    // In memory where there is one: the tests make thousands of small files.
    const fs::path memory = "/dev/shm";
    fs::path parent = fs::exists(memory) ? memory : fs::temp_directory_path();
    path_ = (parent / ("tavhttp-test-" + std::to_string(random()))).string();
    EXPECT_TRUE(fs::create_directory(path_)) << path_;
    fs::current_path(path_);
}

work_dir::~work_dir() {
    std::error_code ignored;
    fs::current_path(previous_, ignored);
    remove_folder(path_);
}

std::string work_dir::names() const {
    std::string names;
    for (const std::string& file : list_files(path_)) {
        names += names.empty() ? "" : " ";
        names += fs::path(file).lexically_relative(path_).generic_string();
    }
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
    return in.is_open() ? bytes.str() : "(none)";
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

std::string zlib_encode(const std::string& bytes, int window_bits) {
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

std::string md5_hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    return hex(digest, length);
}
