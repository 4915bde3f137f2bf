// Loopback peers whose every move is written down in the test: servers and proxies, plain or TLS.
//
// A script is the list of steps that one connection goes through: the first accepted connection
// runs the first script, and connections beyond the last script repeat it. After its last step a
// connection stays open, and what arrives is thrown away, until the other side closes it.
//
// Each connection has a thread of its own and blocking calls; the destructor shuts every socket
// down, so that it never waits for anybody. All members of a peer may be called from any thread.
// Sockets have the names of platform/, so that the same source serves on Windows.
#ifndef TESTS_SUPPORT_PEER_H
#define TESTS_SUPPORT_PEER_H

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/win_socket.h"

using milliseconds = std::chrono::milliseconds;

struct not_copied {
    not_copied() = default;
    not_copied(const not_copied&) = delete;
    not_copied& operator=(const not_copied&) = delete;
};

// The deadline of every wait that is expected to succeed.
constexpr milliseconds default_deadline{20000};

// Checks `condition` again and again until it holds or the deadline has passed.
bool wait_until(const std::function<bool()>& condition, milliseconds deadline = default_deadline);

struct received_request {
    int connection = 0;  // index of the connection, counted from 0 in the order of accepting
    std::string raw;     // head and body as they came
    std::string method, target;
    std::string body;

    // The first value of a header, letter case ignored.
    std::string header(const std::string& name, const char* missing = "") const;
    bool has_header(const std::string& name) const {
        return header(name, "\n") != "\n";
    }
};

class peer;

// One connection. A function that returns false means that the other side went away or broke the
// protocol, or that the peer is ending.
class wire : not_copied {
  public:
    wire(peer& peer_of, SOCKET sock, int number, std::size_t pieces)
        : owner(peer_of), index(number), piece(pieces), sock_(sock) {
    }
    ~wire();

    // Through TLS once start_tls() has been called.
    bool read(std::size_t count, std::string* bytes);
    bool read_request(received_request* request);  // head, and the body that it announces
    bool write(const std::string& bytes);
    bool write_whole(const std::string& bytes);  // whatever the pieces are

    bool start_tls();  // the handshake
    // Sends the first half of the answer to the client's first message. start_tls() goes on behind
    // write_raw() of the rest.
    bool begin_tls(std::string* rest);
    SSL* ssl() const {
        return ssl_;
    }
    std::string take_output();                 // what the engine wants to send
    bool write_raw(const std::string& bytes);  // below TLS
    bool flush() {
        return write_raw(take_output());
    }

    bool wait_for_release();  // reads nothing meanwhile
    bool wait_for_close();    // drops what arrives
    void half_close() {       // ends the sending direction
        shutdown(sock_, 1);
    }
    void reset();  // the close at the end will be a reset

    peer& owner;
    const int index;
    std::size_t piece;  // what is written leaves in pieces of this size; 0: whole

  private:
    friend class peer;
    int receive(char* block, std::size_t size);
    bool fill();
    bool take_decoded();

    SOCKET sock_;
    std::string input_;
    SSL* ssl_ = nullptr;
};

// False: the connection is closed.
using step = std::function<bool(wire&)>;
using script = std::vector<step>;

step expect_request();               // recorded
step read_bytes(std::size_t count);  // recorded as a request whose raw text they are
step send_text(const std::string& bytes);
inline step stall() {  // go on when release() is called
    return &wire::wait_for_release;
}
inline step reset() {
    return [](wire& w) { return w.reset(), false; };
}
inline step half_close() {
    return [](wire& w) { return w.half_close(), true; };
}
inline step close_now() {
    return [](wire&) { return false; };
}
inline step tls() {
    return &wire::start_tls;
}
// Answers any number of requests. A response that says "Connection: close" is followed by a close.
using request_handler = std::function<std::string(const received_request&)>;
step answer_all(request_handler handler);

script operator+(script first, const script& second);

// A response head and body with a Content-Length. `headers`: further lines, each with its CR LF.
std::string response(int status, const std::string& body, const std::string& headers = "");
// The same, in chunks of at most `chunk` bytes.
std::string chunked_response(int status, const std::string& body, std::size_t chunk,
                             const std::string& headers = "");

// One request and its answer, and the same with an end of the sending direction behind it.
inline script reply_with(const std::string& bytes) {
    return {expect_request(), send_text(bytes)};
}
inline script reply_and_close(const std::string& bytes) {
    return {expect_request(), send_text(bytes), half_close()};
}
inline request_handler always(const std::string& answer) {
    return [answer](const received_request&) { return answer; };
}

struct peer_options {
    std::size_t piece = 0;   // see wire
    bool ipv6 = false;       // listens on ::1 instead of 127.0.0.1
    int receive_buffer = 0;  // bytes of the sockets' receive buffers; 0: the system's default
    std::uint16_t port = 0;  // 0: one of the system's choosing
    int tls_version = 0;     // TLS1_2_VERSION or TLS1_3_VERSION; 0: either
    // The entries of the certificate's subject, in order: short name and value.
    std::vector<std::pair<std::string, std::string>> subject = {{"O", "Test"},
                                                                {"CN", "server.test"}};
    bool expired = false;
};

class peer : not_copied {
  public:
    explicit peer(std::vector<script> scripts, peer_options options = {});
    explicit peer(script every_connection, const peer_options& options = {})
        : peer(std::vector<script>{std::move(every_connection)}, options) {
    }
    explicit peer(step every_connection, const peer_options& options = {})
        : peer(script{std::move(every_connection)}, options) {
    }
    explicit peer(request_handler handler, const peer_options& options = {})
        : peer(answer_all(std::move(handler)), options) {
    }
    ~peer();

    std::uint16_t port() const {
        return port_;
    }
    // "http://127.0.0.1:port" and the path; the other loopback spelling of an IPv6 peer.
    std::string url(const std::string& path = "/", const std::string& scheme = "http") const;

    void release();  // lets every stall go on, those that are reached later included
    bool record(const received_request& request);  // true

    std::vector<received_request> requests() const;
    received_request request(std::size_t index) const;  // empty when there are fewer
    std::size_t request_count() const {
        return requests().size();
    }
    std::size_t connection_count() const;
    SSL_CTX* tls_context();

    // True when at least `count` of them have been seen before the deadline.
    bool wait_for_requests(std::size_t count, milliseconds deadline = default_deadline) {
        return wait_for([this] { return requests_.size(); }, count, deadline);
    }
    bool wait_for_connections(std::size_t count) {
        return wait_for([this] { return connection_total_; }, count, default_deadline);
    }
    bool wait_for_disconnects(std::size_t count, milliseconds deadline = default_deadline) {
        return wait_for([this] { return disconnect_total_; }, count, deadline);
    }

  private:
    friend class wire;
    struct connection {
        std::thread thread;
        std::atomic<bool> ended{false};
    };
    void accept_all();
    void serve(connection& self, SOCKET sock, int index);
    bool wait_for(const std::function<std::size_t()>& counter, std::size_t count,
                  milliseconds deadline);

    const std::vector<script> scripts_;
    const peer_options options_;
    std::uint16_t port_ = 0;
    SOCKET listener_ = INVALID_SOCKET;
    std::list<connection> connections_;  // of the accepting thread
    std::thread thread_;

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    bool stopping_ = false, released_ = false;
    SSL_CTX* context_ = nullptr;
    std::list<wire*> open_;
    std::vector<received_request> requests_;
    std::size_t connection_total_ = 0, disconnect_total_ = 0;
};

// A bound socket on a loopback port, which is stored in `port`; INVALID_SOCKET when the port that
// was given there is taken.
SOCKET bind_loopback(bool ipv6, std::uint16_t* port);

// A port on 127.0.0.1 that refuses connections: bound, never listening, the same at every call.
std::uint16_t refusing_port();

#endif
