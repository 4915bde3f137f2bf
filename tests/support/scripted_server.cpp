#include "tests/support/scripted_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

struct scripted_server::connection {
    int fd = -1;
    int index = 0;
    std::size_t step = 0;
    std::size_t piece = 0;   // of the send step in progress
    std::size_t offset = 0;  // within that piece
    bool peer_closed = false;
    bool wants_write = false;
    bool deaf = false;
    bool broken = false;
    std::string input;
    script answer;  // handler mode: the steps of the exchange in progress
};

namespace {

void fail_setup(const char* what) {
    std::fprintf(stderr, "scripted_server, %s: %s\n", what, std::strerror(errno));
    std::abort();
}

void set_nonblocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

std::string trimmed(const std::string& text) {
    std::size_t first = text.find_first_not_of(" \t");
    std::size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

received_request parse_head(const std::string& head) {
    received_request request;
    std::istringstream lines(head);
    lines >> request.method >> request.target >> request.version;
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line) && line != "\r";) {
        std::size_t colon = line.find(':');
        if (colon != std::string::npos) {
            line.pop_back();  // the carriage return
            request.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
        }
    }
    return request;
}

step make_step(step_kind kind, std::vector<std::string> pieces = {}, std::size_t count = 0) {
    return {kind, std::move(pieces), count};
}

}  // namespace

int bind_loopback(bool ipv6, std::uint16_t* port) {
    int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address = {};  // the port stands at the same place in both families
    address.sin6_family = static_cast<sa_family_t>(ipv6 ? AF_INET6 : AF_INET);
    address.sin6_addr = in6addr_loopback;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (!ipv6) {
        reinterpret_cast<sockaddr_in*>(any)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    if (fd < 0 || bind(fd, any, length) != 0 || getsockname(fd, any, &length) != 0) {
        fail_setup("bind");
    }
    *port = ntohs(address.sin6_port);
    return fd;
}

std::string received_request::header(const std::string& name) const {
    for (const auto& entry : headers) {
        if (strcasecmp(entry.first.c_str(), name.c_str()) == 0) {
            return entry.second;
        }
    }
    return "";
}

bool received_request::has_header(const std::string& name) const {
    return std::any_of(headers.begin(), headers.end(), [&](const auto& entry) {
        return strcasecmp(entry.first.c_str(), name.c_str()) == 0;
    });
}

step expect_request() {
    return make_step(step_kind::expect);
}

step read_bytes(std::size_t count) {
    return make_step(step_kind::read_bytes, {}, count);
}

step send_text(const std::string& bytes) {
    return make_step(step_kind::send, {bytes});
}

step send_bytewise(const std::string& bytes) {
    std::vector<std::string> pieces;
    for (char c : bytes) {
        pieces.emplace_back(1, c);
    }
    return make_step(step_kind::send, pieces);
}

step stall() {
    return make_step(step_kind::stall);
}

step stall_deaf() {
    return make_step(step_kind::stall_deaf);
}

step reset() {
    return make_step(step_kind::reset);
}

step half_close() {
    return make_step(step_kind::half_close);
}

step close_now() {
    return make_step(step_kind::close);
}

script reply_with(const std::string& bytes) {
    return {expect_request(), send_text(bytes)};
}

script reply_and_close(const std::string& bytes) {
    return {expect_request(), send_text(bytes), half_close()};
}

request_handler always(const std::string& answer) {
    return [answer](const received_request&) { return answer; };
}

std::string response(int status, const std::string& body, const std::string& headers) {
    return "HTTP/1.1 " + std::to_string(status) + " Status\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string chunked_response(int status, const std::string& body, std::size_t chunk,
                             const std::string& headers) {
    std::string text = "HTTP/1.1 " + std::to_string(status) + " Status\r\n" + headers +
                       "Transfer-Encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < body.size(); at += chunk) {
        std::string piece = body.substr(at, chunk);
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
        text += size + piece + "\r\n";
    }
    return text + "0\r\n\r\n";
}

scripted_server::scripted_server(std::vector<script> scripts, server_options options)
    : scripted_server(std::move(scripts), nullptr, options) {
}

scripted_server::scripted_server(script every_connection, server_options options)
    : scripted_server({std::move(every_connection)}, nullptr, options) {
}

scripted_server::scripted_server(request_handler handler, server_options options)
    : scripted_server({}, std::move(handler), options) {
}

scripted_server::scripted_server(std::vector<script> scripts, request_handler handler,
                                 server_options options)
    : scripts_(std::move(scripts)), handler_(std::move(handler)), options_(options),
      listener_(bind_loopback(options.ipv6, &port_)) {
    if (options_.receive_buffer > 0) {
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &options_.receive_buffer, sizeof(int));
    }
    if (listen(listener_, 512) != 0 || pipe(wake_) != 0) {
        fail_setup("listen");
    }
    for (int fd : {listener_, wake_[0], wake_[1]}) {
        set_nonblocking(fd);
    }
    thread_ = std::thread([this] { run(); });
}

scripted_server::~scripted_server() {
    stopping_ = true;
    wake();
    thread_.join();
    for (connection& conn : connections_) {
        if (conn.fd >= 0) {
            close(conn.fd);
        }
    }
    close(listener_);
    close(wake_[0]);
    close(wake_[1]);
}

std::string scripted_server::url(const std::string& path) const {
    return std::string("http://") + (options_.ipv6 ? "[::1]" : "127.0.0.1") + ":" +
           std::to_string(port_) + path;
}

void scripted_server::release() {
    released_ = true;
    wake();
}

void scripted_server::wake() {
    if (write(wake_[1], "x", 1) < 0) {
        // The pipe is full, so the thread is about to wake anyway.
    }
}

void scripted_server::run() {
    while (!stopping_) {
        std::vector<pollfd> polls;
        polls.push_back({wake_[0], POLLIN, 0});
        polls.push_back({listener_, POLLIN, 0});
        for (const connection& conn : connections_) {
            short events = 0;
            if (!conn.deaf && !conn.peer_closed) {
                events |= POLLIN;
            }
            if (conn.wants_write) {
                events |= POLLOUT;
            }
            polls.push_back({conn.fd, events, 0});
        }
        if (poll(polls.data(), polls.size(), -1) < 0 && errno != EINTR) {
            fail_setup("poll");
        }
        char drain[64];
        while (read(wake_[0], drain, sizeof drain) > 0) {
        }
        for (std::size_t i = 0; i < connections_.size(); i++) {
            connection& conn = connections_[i];
            short events = polls[i + 2].revents;
            if (conn.fd < 0) {
                continue;
            }
            if ((events & POLLIN) != 0) {
                read_from(conn);
            }
            conn.broken = conn.broken || (events & (POLLERR | POLLHUP)) != 0;
            advance(conn);
        }
        if ((polls[1].revents & POLLIN) != 0) {
            accept_one();
        }
    }
}

void scripted_server::accept_one() {
    int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) {
        return;
    }
    set_nonblocking(fd);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connection conn;
    conn.fd = fd;
    conn.index = static_cast<int>(connections_.size());
    conn.answer = {expect_request()};
    connections_.push_back(std::move(conn));
    {
        std::lock_guard<std::mutex> guard(mutex_);
        connection_total_++;
    }
    changed_.notify_all();
    advance(connections_.back());
}

void scripted_server::read_from(connection& conn) {
    char block[65536];
    for (int i = 0; i < 4; i++) {  // a few at a time: the other connections want their turn
        ssize_t got = recv(conn.fd, block, sizeof block, 0);
        if (got > 0) {
            conn.input.append(block, static_cast<std::size_t>(got));
        } else if (got == 0) {
            conn.peer_closed = true;
            return;
        } else {
            conn.broken = errno != EAGAIN && errno != EINTR;
            return;
        }
    }
}

const script& scripted_server::steps_of(const connection& conn) const {
    static const script none;
    if (handler_) {
        return conn.answer;
    }
    std::size_t last = scripts_.size() - 1;  // connections beyond it repeat it
    return scripts_.empty() ? none : scripts_[std::min(static_cast<std::size_t>(conn.index), last)];
}

// Handler mode: what the request that was just taken leads to.
void scripted_server::prepare_answer(connection& conn) {
    std::string text = handler_(request(request_count() - 1));
    std::string head = text.substr(0, text.find("\r\n\r\n"));
    conn.answer = {expect_request(), send_text(text)};
    if (strcasestr(head.c_str(), "\r\nConnection: close") != nullptr) {
        conn.answer.push_back(close_now());
    }
}

// Runs steps until one has to wait.
void scripted_server::advance(connection& conn) {
    conn.wants_write = false;
    conn.deaf = false;
    while (conn.fd >= 0) {
        const script& steps = steps_of(conn);
        if (conn.step >= steps.size()) {
            conn.input.clear();
            break;
        }
        bool asked = steps[conn.step].kind == step_kind::expect;
        if (!run_step(conn, steps[conn.step])) {
            break;
        }
        conn.step++;
        conn.piece = 0;
        conn.offset = 0;
        if (handler_ && asked) {
            prepare_answer(conn);
        } else if (handler_ && conn.step == conn.answer.size()) {
            conn.step = 0;
        }
    }
    // A half closed peer can still be answered, but an idle one is finished with.
    if (conn.fd >= 0 && (conn.broken || (conn.peer_closed && !conn.wants_write))) {
        end(conn, false);
    }
}

// True when the step is complete.
bool scripted_server::run_step(connection& conn, const step& now) {
    switch (now.kind) {
    case step_kind::expect:
        return take_request(conn);
    case step_kind::read_bytes: {
        if (conn.input.size() < now.count) {
            return false;
        }
        received_request request;
        request.raw = conn.input.substr(0, now.count);
        request.connection = conn.index;
        conn.input.erase(0, now.count);
        record(std::move(request));
        return true;
    }
    case step_kind::send:
        return send_some(conn, now.pieces);
    case step_kind::stall:
    case step_kind::stall_deaf:
        conn.deaf = now.kind == step_kind::stall_deaf && !released_;
        return released_;
    case step_kind::half_close:
        shutdown(conn.fd, SHUT_WR);
        return true;
    case step_kind::reset:
    case step_kind::close:
        end(conn, now.kind == step_kind::reset);
        return false;
    }
    return false;
}

// Moves one complete request from the input to the record.
bool scripted_server::take_request(connection& conn) {
    std::size_t head_end = conn.input.find("\r\n\r\n");
    if (head_end == std::string::npos) {
        return false;
    }
    head_end += 4;
    received_request request = parse_head(conn.input.substr(0, head_end));
    std::size_t body = std::strtoul(request.header("Content-Length").c_str(), nullptr, 10);
    if (conn.input.size() < head_end + body) {
        return false;
    }
    request.connection = conn.index;
    request.raw = conn.input.substr(0, head_end + body);
    request.body = conn.input.substr(head_end, body);
    conn.input.erase(0, head_end + body);
    record(std::move(request));
    return true;
}

bool scripted_server::send_some(connection& conn, const std::vector<std::string>& pieces) {
    while (conn.piece < pieces.size()) {
        const std::string& piece = pieces[conn.piece];
        while (conn.offset < piece.size()) {
            ssize_t sent =
                send(conn.fd, piece.data() + conn.offset, piece.size() - conn.offset, MSG_NOSIGNAL);
            if (sent < 0) {
                conn.wants_write = errno == EAGAIN;
                conn.broken = conn.broken || !conn.wants_write;
                return false;
            }
            conn.offset += static_cast<std::size_t>(sent);
        }
        conn.piece++;
        conn.offset = 0;
        if (conn.piece < pieces.size()) {
            // Each further piece waits for a turn of the poll loop, which gives the peer the
            // chance to read this one alone.
            conn.wants_write = true;
            return false;
        }
    }
    return true;
}

void scripted_server::end(connection& conn, bool with_reset) {
    if (with_reset) {
        linger off = {1, 0};
        setsockopt(conn.fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    }
    close(conn.fd);
    conn.fd = -1;
    conn.wants_write = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        disconnect_total_++;
    }
    changed_.notify_all();
}

void scripted_server::record(received_request request) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        requests_.push_back(std::move(request));
        request_total_++;
    }
    changed_.notify_all();
}

std::vector<received_request> scripted_server::requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
}

received_request scripted_server::request(std::size_t index) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return index < requests_.size() ? requests_[index] : received_request();
}

std::size_t scripted_server::request_count() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return request_total_;
}

std::size_t scripted_server::connection_count() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return connection_total_;
}

bool scripted_server::wait_for(const std::size_t& counter, std::size_t count,
                               milliseconds deadline) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, deadline, [&] { return counter >= count; });
}

bool scripted_server::wait_for_requests(std::size_t count, milliseconds deadline) {
    return wait_for(request_total_, count, deadline);
}

bool scripted_server::wait_for_connections(std::size_t count, milliseconds deadline) {
    return wait_for(connection_total_, count, deadline);
}

bool scripted_server::wait_for_disconnects(std::size_t count, milliseconds deadline) {
    return wait_for(disconnect_total_, count, deadline);
}

blackhole_listener::blackhole_listener() {
    listener_ = bind_loopback(false, &port_);
    if (listen(listener_, 0) != 0) {
        fail_setup("listen");
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Loopback handshakes finish inside connect: the first one that is still pending after a
    // moment says that the queue is full.
    for (int i = 0; i < 16; i++) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        set_nonblocking(fd);
        fillers_.push_back(fd);
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        pollfd wait = {fd, POLLOUT, 0};
        if (poll(&wait, 1, 50) == 0) {
            break;
        }
    }
}

blackhole_listener::~blackhole_listener() {
    for (int fd : fillers_) {
        close(fd);
    }
    close(listener_);
}

std::string blackhole_listener::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::uint16_t refusing_port() {
    // Bound for as long as the process lives and never listening, so that nobody else gets it.
    static std::uint16_t port = 0;
    static int held = bind_loopback(false, &port);
    (void)held;
    return port;
}
