// The host's side of a test: the library's life, its log, one transfer with everything that it
// calls back, and the files and descriptors around it.
#ifndef TESTS_SUPPORT_HOST_H
#define TESTS_SUPPORT_HOST_H

#include "tavhttpclient/tavhttpclient.h"
#include "tests/support/scripted_server.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// The codes that tests name most.
namespace code {
constexpr std::uint32_t not_modified = TAV_HTTP_ERROR_CODE_NOT_MODIFIED;
constexpr std::uint32_t cancel = TAV_HTTP_ERROR_CODE_CANCEL;
constexpr std::uint32_t session_timeout = TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT;
constexpr std::uint32_t no_loop = TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC;
constexpr std::uint32_t closing = no_loop;  // what a close that has to wait returns
constexpr std::uint32_t invalid_url = TAV_HTTP_ERROR_CODE_INVALID_URL;
constexpr std::uint32_t redirects = TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT;
constexpr std::uint32_t status = TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR;
constexpr std::uint32_t parse = TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE;
constexpr std::uint32_t tls_name = 0x4000a;
constexpr std::uint32_t recv_timeout = TAV_HTTP_ERROR_CODE_RECV_TIMEOUT;
constexpr std::uint32_t send_timeout = TAV_HTTP_ERROR_CODE_SEND_TIMEOUT;
constexpr std::uint32_t connect = TAV_HTTP_ERROR_CODE_FAIL_CONNECT;
constexpr std::uint32_t recv = TAV_HTTP_ERROR_CODE_FAIL_RECV;
constexpr std::uint32_t proxy_connect = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT;
constexpr std::uint32_t proxy_recv = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV;
constexpr std::uint32_t proxy_denied = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
constexpr std::uint32_t open_file = TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE;
constexpr std::uint32_t write_file = TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE;
constexpr std::uint32_t any_negative = 0xFFFFFFFFu;  // for expect_code(): one of the TLS engine's
}  // namespace code

void expect_code(std::uint32_t expected, std::uint32_t got);

// The code that wait() returns when the session has not completed before the deadline.
constexpr std::uint32_t not_completed = 0xFFFFFFFFu;

// The bytes of a literal, zeros included.
template <std::size_t size> std::string bytes_of(const char (&literal)[size]) {
    return std::string(literal, size - 1);
}

// A proxy_info that keeps its texts.
class proxy_record {
  public:
    proxy_record(std::uint32_t type, std::uint16_t port, const char* user = nullptr,
                 const char* password = nullptr, const char* host = "127.0.0.1");
    const proxy_info* get() const {
        return &info_;
    }

  private:
    std::string host_, user_, password_;
    proxy_info info_ = {};
};

// Checks `condition` again and again until it holds or the deadline has passed.
bool wait_until(const std::function<bool()>& condition, milliseconds deadline = default_deadline);

// Startup in the constructor, shut-down in the destructor. Declare it before the transfers: a
// session can only be released while the library runs.
class library : not_copied {
  public:
    library();
    ~library();

    void shutdown();
    void startup();

  private:
    bool running_ = false;
};

struct log_line {
    std::int32_t level;
    std::string tag;
    std::string text;
};

// Receives the library's log lines while it lives; one at a time.
class log_capture : not_copied {
  public:
    log_capture();
    ~log_capture();

    std::vector<log_line> lines() const;
    // Lines that contain the text; level 0 means any level.
    std::size_t count(const std::string& part, std::int32_t level = 0) const;
    bool has_line(const std::string& part, std::int32_t level = 0) const;
    bool wait_for_line(const std::string& part, milliseconds deadline = default_deadline) const;
};

// One callback as it came.
struct event {
    std::string name;    // connecting, connected, progress, header, start, data, redirect, complete
    std::string detail;  // the texts and numbers of the call, separated by blanks
    std::thread::id thread;
};

struct transfer_state;

// One session. The destructor closes it. What callbacks write to outlives the session, so that a
// session may be closed while they run.
class transfer : not_copied {
  public:
    explicit transfer(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET,
                      const proxy_info* proxy = nullptr);
    ~transfer();

    http_session* handle() const {
        return session_;
    }

    template <typename... values> std::uint32_t set(std::uint32_t option, values... given) {
        return tavHTTPSetOption(session_, option, given...);
    }

    // Installs the recording callbacks: all but the data callback, which keeps the body out of
    // memory and has its own function.
    void record();
    void record_data();
    // Runs inside the named callback, after it was recorded. Installs that callback.
    void at(const std::string& name, std::function<void(transfer&)> action);

    std::uint32_t set_body(const std::string& bytes);  // appends it
    std::uint32_t send();
    std::uint32_t cancel();
    std::uint32_t close();  // once; later calls return INVALID_ARG

    // Waits for the completion and returns its code.
    std::uint32_t wait(milliseconds deadline = default_deadline);
    // send() and wait().
    std::uint32_t run(milliseconds deadline = default_deadline);
    bool completed() const;
    int completions() const;

    std::vector<event> events() const;
    std::string event_names() const;  // joined with blanks; runs of one name are named once
    std::size_t event_count(const std::string& name) const;
    std::string detail(const std::string& name) const;  // of the first such event
    bool wait_for_event(const std::string& name, milliseconds deadline = default_deadline);
    std::string data() const;  // the bytes of the data callbacks, in order

    // The queries.
    std::uint32_t status() const;
    std::string body() const;
    std::string text(std::uint32_t query) const;  // of a query that gives a pointer; null is empty
    std::int64_t number(std::uint32_t query) const;
    std::string header(const std::string& name) const;
    std::string md5() const;  // hexadecimal
    std::string peer() const;

  private:
    void install(const std::string& name);

    std::atomic<http_session*> session_{nullptr};  // a callback may close it
    std::shared_ptr<transfer_state> state_;
};

// The number of descriptors that this process has open.
std::size_t open_descriptors();

// Takes the number of open descriptors; the library was started and stopped once before, so that
// what it and the system keep for the whole process is already counted.
class descriptor_guard {
  public:
    descriptor_guard();
    // True when no more descriptors are open than at the start, or as soon as that is so.
    bool back_to_start(milliseconds deadline = default_deadline) const;

  private:
    std::size_t start_;
};

// A fresh directory that is the current one while it lives and is removed with all it holds.
class work_dir : not_copied {
  public:
    work_dir();
    ~work_dir();

    const std::string& path() const {
        return path_;
    }
    std::vector<std::string> names() const;  // of the files directly in it, sorted

  private:
    std::string path_;
    std::string previous_;
};

void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);  // empty when there is none
bool file_exists(const std::string& path);

// `size` bytes without a pattern that repeats at a power of two.
std::string sample_bytes(std::size_t size);

std::string gzip_bytes(const std::string& bytes);
std::string deflate_bytes(const std::string& bytes);      // zlib format
std::string raw_deflate_bytes(const std::string& bytes);  // without header and checksum
std::string md5_hex(const std::string& bytes);

#endif
