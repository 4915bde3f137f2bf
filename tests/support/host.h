// The host's side of a test: the library's life, its log, one transfer with everything that it
// calls back, and the files around it.
//
// main.cpp checks after every test that no block of memory and no descriptor is left, and that no
// assertion failed but those that the test has allowed.
#ifndef TESTS_SUPPORT_HOST_H
#define TESTS_SUPPORT_HOST_H

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/peer.h"
#include "tavhttpclient/tavhttpclient.h"

// A code as tests write it: the constant without its prefix ("OK", "FAIL_RECV"), "negative" for one
// of the TLS engine's, the number in hexadecimal for one without a name.
std::string code_name(std::uint32_t code);
constexpr char not_completed[] = "not completed";  // in place of a code, after the deadline

// Of the test program, without GoogleTest's.
std::vector<std::string>& program_arguments();

// What the library has in use, and the test program with it.
struct resources {
    std::size_t descriptors = 0;
    long blocks = 0;  // of memory, allocated by the library
};
resources count_resources();

// The paths of the files below a folder.
std::set<std::string> list_files(const std::string& folder);
void remove_folder(const std::string& folder);

// The bytes of a literal, zeros included.
template <std::size_t size> std::string bytes_of(const char (&literal)[size]) {
    return std::string(literal, size - 1);
}

// A proxy_info that keeps its texts.
struct proxy : proxy_info {
    proxy(std::uint32_t kind, std::uint16_t at_port, const char* user = nullptr,
          const char* secret = nullptr, const char* name = "127.0.0.1");
    proxy(const proxy&) = delete;
    proxy& operator=(const proxy&) = delete;

  private:
    std::string texts_[3];
};

// Startup in the constructor, shut-down in the destructor. Declare it before the transfers: a
// session can only be released while the library runs.
class library : not_copied {
  public:
    library() {
        startup();
    }
    ~library() {
        shutdown();
    }
    void startup();
    void shutdown();

  private:
    bool running_ = false;
};

struct log_line {
    std::int32_t level;
    std::string tag, text;
};

// Keeps the library's log lines while it lives; one at a time.
class log_capture : not_copied {
  public:
    log_capture();
    ~log_capture();

    std::vector<log_line> lines() const;
    // Lines that contain the text; level 0 means any level.
    std::size_t count(const std::string& part, std::int32_t level = 0) const;
    bool has_line(const std::string& part, std::int32_t level = 0) const {
        return count(part, level) > 0;
    }
    // `count` such lines.
    bool wait_for_line(const std::string& part, std::size_t count = 1) const;
};

// Lets assertions of this function fail until the end of the test; empty: of every one.
void allow_assertion(const std::string& function);
// Installs the log callback that watches for assertions, and forgets those that came.
void watch_assertions();
std::vector<std::string> failed_assertions();  // without those allowed

// One callback as it came.
struct event {
    std::string name;    // connecting, connected, progress, header, start, data, redirect, complete
    std::string detail;  // the texts and numbers of the call, separated by blanks
    std::thread::id thread;
};

struct transfer_state;

// One session. The destructor closes it. What callbacks write to outlives the session, so that a
// session may be closed while they run. A completion that comes twice, and a callback behind the
// completion, is a failure wherever it happens.
class transfer : not_copied {
  public:
    using action = std::function<void(transfer&)>;

    explicit transfer(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET,
                      const proxy_info* through = nullptr);
    ~transfer();

    http_session* handle() const {  // null when the library refused to make one
        return session_;
    }
    template <typename... values> std::uint32_t set(std::uint32_t option, values... given) {
        std::uint32_t code = tavHTTPSetOption(session_, option, given...);
        refused = code != 0 ? code : refused;
        return code;
    }
    std::uint32_t refused = 0;  // code of the last option that was refused
    void set_body(const std::string& bytes) {
        set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    }
    void set_range(std::int64_t first, std::int64_t last) {
        set(TAV_HTTP_OPTION_RANGE, first, last);
    }
    void keep_alive() {  // keeps the connection whatever the server says
        set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 60000, 0);
    }

    // Installs the recording callbacks: all but the data callback, which keeps the body out of
    // memory and has its own function.
    void record();
    void record_data();
    // Runs inside the named callback, after it was recorded. Installs that callback.
    void at(const std::string& name, action run);

    std::string send() {
        return code_name(tavHTTPSendRequest(session_));
    }
    std::string cancel() {
        return code_name(tavHTTPCancelRequest(session_));
    }
    std::string close();  // once; later calls give INVALID_ARG
    std::string wait(milliseconds deadline = default_deadline);  // the completion's code
    std::string run() {
        std::string sent = send();
        return sent == "OK" ? wait() : "send: " + sent;
    }
    bool completed() const {
        return completions() > 0;
    }
    int completions() const;

    std::vector<event> events() const;
    std::string event_names() const;  // joined with blanks; runs of one name are named once
    std::size_t event_count(const std::string& name) const;
    std::string detail(const std::string& name) const;  // of the first such event
    bool wait_for_event(const std::string& name) {
        return wait_until([&] { return event_count(name) > 0; });
    }
    std::string data() const;  // the bytes of the data callbacks, in order

    // The queries.
    std::string body() const;
    std::string text(std::uint32_t query) const;  // of a query that gives a pointer; null is empty
    std::int64_t number(std::uint32_t query) const {
        std::int64_t value = 0;
        tavHTTPQueryInfo(session_, query, &value, nullptr, nullptr);
        return value;
    }
    std::string header(const std::string& name) const;
    std::string md5() const;  // hexadecimal
    std::string address() const;

  private:
    std::atomic<http_session*> session_{nullptr};  // a callback may close it
    std::shared_ptr<transfer_state> state_;
};

using transfers = std::vector<std::unique_ptr<transfer>>;

// A fresh directory that is the current one while it lives and is removed with all it holds.
class work_dir : not_copied {
  public:
    work_dir();
    ~work_dir();

    const std::string& path() const {
        return path_;
    }
    std::string names() const;  // of the files below it, sorted, joined with blanks

  private:
    std::string path_, previous_;
};

void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);  // "(none)" when there is none

// `size` bytes without a pattern that repeats at a power of two.
std::string sample_bytes(std::size_t size);

std::string zlib_encode(const std::string& bytes, int window_bits);
inline std::string gzip_bytes(const std::string& bytes) {
    return zlib_encode(bytes, 15 + 16);
}
inline std::string deflate_bytes(const std::string& bytes) {  // zlib format
    return zlib_encode(bytes, 15);
}
inline std::string raw_deflate_bytes(const std::string& bytes) {  // without header and checksum
    return zlib_encode(bytes, -15);
}
std::string md5_hex(const std::string& bytes);

#endif
