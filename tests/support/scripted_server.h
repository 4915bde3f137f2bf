// Loopback servers whose every move is written down in the test.
//
// A script is the list of steps that one connection goes through: the first accepted connection
// runs the first script, and connections beyond the last script repeat it. After its last step a
// connection stays open, and what arrives is thrown away, until the peer closes it.
//
// One thread serves all connections with non-blocking sockets, so that a destruction never waits
// for a peer. All member functions may be called from any thread.
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using milliseconds = std::chrono::milliseconds;

struct not_copied {
    not_copied() = default;
    not_copied(const not_copied&) = delete;
    not_copied& operator=(const not_copied&) = delete;
};

// The deadline of every wait that is expected to succeed.
constexpr milliseconds default_deadline{10000};

struct received_request {
    int connection = 0;  // index of the connection, counted from 0 in the order of accepting
    std::string raw;     // head and body as they came
    std::string method;
    std::string target;
    std::string version;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first value of a header, letter case ignored; empty when there is none.
    std::string header(const std::string& name) const;
    bool has_header(const std::string& name) const;
};

enum class step_kind {
    expect,      // read one request head, and the body that its Content-Length announces
    read_bytes,  // read `count` bytes, recorded as a request whose raw text they are
    send,        // send the pieces, each with a system call of its own
    stall,       // go on when release() is called; bytes that arrive are kept
    stall_deaf,  // the same without reading, so that the peer's writes get stuck
    reset,       // close with a TCP reset
    half_close,  // end the sending direction only
    close        // close in order; bytes not read yet turn it into a reset
};

struct step {
    step_kind kind;
    std::vector<std::string> pieces;
    std::size_t count = 0;
};

using script = std::vector<step>;

step expect_request();
step read_bytes(std::size_t count);
step send_text(const std::string& bytes);
step send_bytewise(const std::string& bytes);
step stall();
step stall_deaf();
step reset();
step half_close();
step close_now();

// A response head and body with a Content-Length. `headers`: further lines, each with its CR LF.
std::string response(int status, const std::string& body, const std::string& headers = "");
// The same, in chunks of at most `chunk` bytes.
std::string chunked_response(int status, const std::string& body, std::size_t chunk,
                             const std::string& headers = "");

// One request and its answer, and the same with an end of the sending direction behind it.
script reply_with(const std::string& bytes);
script reply_and_close(const std::string& bytes);

// Answers one request of a server in handler mode. Runs on the server's thread. A response that
// says "Connection: close" is followed by a close.
using request_handler = std::function<std::string(const received_request&)>;
request_handler always(const std::string& answer);

struct server_options {
    bool ipv6 = false;       // listen on ::1 instead of 127.0.0.1
    int receive_buffer = 0;  // bytes of the sockets' receive buffers; 0: the system's default
};

class scripted_server : not_copied {
  public:
    explicit scripted_server(std::vector<script> scripts, server_options options = {});
    explicit scripted_server(script every_connection, server_options options = {});
    explicit scripted_server(request_handler handler, server_options options = {});
    ~scripted_server();

    std::uint16_t port() const {
        return port_;
    }
    // "http://127.0.0.1:port" and the path; the other loopback spelling of an IPv6 server.
    std::string url(const std::string& path = "/") const;

    // Lets every stall go on, those that are reached later included.
    void release();

    std::vector<received_request> requests() const;
    received_request request(std::size_t index) const;  // empty when there are fewer
    std::size_t request_count() const;
    std::size_t connection_count() const;

    // True when at least `count` of them have been seen before the deadline.
    bool wait_for_requests(std::size_t count, milliseconds deadline = default_deadline);
    bool wait_for_connections(std::size_t count, milliseconds deadline = default_deadline);
    bool wait_for_disconnects(std::size_t count, milliseconds deadline = default_deadline);

  private:
    struct connection;

    scripted_server(std::vector<script> scripts, request_handler handler, server_options options);
    void run();
    void wake();
    void accept_one();
    void read_from(connection& conn);
    void advance(connection& conn);
    const script& steps_of(const connection& conn) const;
    bool run_step(connection& conn, const step& now);
    void prepare_answer(connection& conn);
    bool take_request(connection& conn);
    bool send_some(connection& conn, const std::vector<std::string>& pieces);
    void end(connection& conn, bool with_reset);
    void record(received_request request);
    bool wait_for(const std::size_t& counter, std::size_t count, milliseconds deadline);

    std::vector<script> scripts_;
    request_handler handler_;
    server_options options_;
    std::uint16_t port_ = 0;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> released_{false};
    std::vector<connection> connections_;
    std::thread thread_;

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::vector<received_request> requests_;
    std::size_t request_total_ = 0;
    std::size_t connection_total_ = 0;
    std::size_t disconnect_total_ = 0;
};

// A bound socket on a loopback port of the system's choosing, which is stored in `port`.
int bind_loopback(bool ipv6, std::uint16_t* port);

// A port on 127.0.0.1 that answers no connection attempt: its queue of pending connections is full
// and nobody accepts.
class blackhole_listener : not_copied {
  public:
    blackhole_listener();
    ~blackhole_listener();

    std::uint16_t port() const {
        return port_;
    }
    std::string url(const std::string& path = "/") const;

  private:
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::vector<int> fillers_;
};

// A port on 127.0.0.1 that refuses connections: bound, never listening, the same at every call.
std::uint16_t refusing_port();

#endif
