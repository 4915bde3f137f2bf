#include "support/peer.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <uv.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/win_text.h"

namespace {

void require(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "peer, %s\n", what);
        std::abort();
    }
}

template <typename type> void set_option(SOCKET sock, int level, int name, type value) {
    setsockopt(sock, level, name, reinterpret_cast<const char*>(&value), sizeof value);
}

bool find_header(const std::string& head, const std::string& name, std::string* value) {
    std::string start = "\r\n" + name + ":";
    std::size_t end = head.find("\r\n\r\n"), at = head.find("\r\n");
    while (at < end && _strnicmp(head.c_str() + at, start.c_str(), start.size()) != 0) {
        at = head.find("\r\n", at + 2);
    }
    if (at < end) {
        std::size_t first = head.find_first_not_of(" \t", at + start.size());
        *value = head.substr(first, head.find("\r\n", first) - first);
    }
    return at < end;
}

// One key serves all certificates of a test program.
EVP_PKEY* server_key() {
    static EVP_PKEY* key = EVP_EC_gen("P-256");
    require(key != nullptr, "no key");
    return key;
}

X509* make_certificate(const peer_options& options) {
    const long day = 24 * 60 * 60;
    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -10 * day);
    X509_gmtime_adj(X509_getm_notAfter(certificate), options.expired ? -day : 10 * day);
    X509_set_pubkey(certificate, server_key());
    X509_NAME* name = X509_NAME_new();
    for (const auto& entry : options.subject) {
        const auto* value = reinterpret_cast<const unsigned char*>(entry.second.data());
        X509_NAME_add_entry_by_txt(name, entry.first.c_str(), MBSTRING_UTF8, value,
                                   static_cast<int>(entry.second.size()), -1, 0);
    }
    X509_set_subject_name(certificate, name);
    X509_set_issuer_name(certificate, name);
    X509_NAME_free(name);
    require(X509_sign(certificate, server_key(), EVP_sha256()) > 0, "no certificate");
    return certificate;
}

}  // namespace

bool wait_until(const std::function<bool()>& condition, milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    for (int round = 0; !condition(); round++) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        if (round > 100) {  // leave the processor to those that are waited for
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        std::this_thread::yield();
    }
    return true;
}

std::string received_request::header(const std::string& name, const char* missing) const {
    std::string value = missing;
    find_header(raw, name, &value);
    return value;
}

// ------------------------------------------------------------------------------- one connection

wire::~wire() {
    SSL_free(ssl_);
    closesocket(sock_);
}

// Takes what the engine has decoded. False: nothing, and the engine cannot go on.
bool wire::take_decoded() {
    char block[16384];
    int got = 0;
    std::size_t before = input_.size();
    while ((got = SSL_read(ssl_, block, sizeof block)) > 0) {
        input_.append(block, static_cast<std::size_t>(got));
    }
    int error = SSL_get_error(ssl_, got);
    ERR_clear_error();
    return flush() && (input_.size() > before || error == SSL_ERROR_WANT_READ);
}

// As recv(), but it ends with its peer: shutdown() does not wake a blocked call on every system.
int wire::receive(char* block, std::size_t size) {
    fd_set readable;
    int ready = 0;
    while (ready == 0) {
        {
            std::lock_guard<std::mutex> guard(owner.mutex_);
            if (owner.stopping_) {
                return 0;
            }
        }
        FD_ZERO(&readable);
        FD_SET(sock_, &readable);
        timeval at_most = {0, 20 * 1000};
        ready = select(static_cast<int>(sock_) + 1, &readable, nullptr, nullptr, &at_most);
    }
    return static_cast<int>(recv(sock_, block, size, 0));
}

// Takes in what comes next: into the input, or through the engine.
bool wire::fill() {
    char block[16384];
    bool decodes = ssl_ != nullptr && SSL_is_init_finished(ssl_) != 0;
    std::size_t before = input_.size();
    if (decodes && (!take_decoded() || input_.size() > before)) {
        return input_.size() > before;
    }
    int got = receive(block, sizeof block);
    if (got <= 0) {
        return false;
    }
    if (ssl_ == nullptr) {
        input_.append(block, static_cast<std::size_t>(got));
        return true;
    }
    BIO_write(SSL_get_rbio(ssl_), block, got);
    return !decodes || take_decoded();
}

bool wire::read(std::size_t count, std::string* bytes) {
    while (input_.size() < count) {
        if (!fill() && input_.size() < count) {
            return false;
        }
    }
    *bytes = input_.substr(0, count);
    input_.erase(0, count);
    return true;
}

bool wire::read_request(received_request* request) {
    std::size_t end = 0;
    while ((end = input_.find("\r\n\r\n")) == std::string::npos) {
        if (!fill()) {
            return false;
        }
    }
    request->raw = input_.substr(0, end + 4);
    std::size_t size = std::strtoul(request->header("Content-Length").c_str(), nullptr, 10);
    std::size_t method = input_.find(' '), target = input_.find(' ', method + 1);
    request->method = input_.substr(0, method);
    request->target = input_.substr(method + 1, target - method - 1);
    request->connection = index;
    if (!read(end + 4 + size, &request->raw)) {
        return false;
    }
    request->body = request->raw.substr(end + 4);
    return true;
}

bool wire::write_raw(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t size = bytes.size() - at;
        if (piece > 0 && size > piece) {
            size = piece;
            std::this_thread::yield();  // the other side may read the last piece alone
        }
        int sent = static_cast<int>(send(sock_, bytes.data() + at, static_cast<int>(size), 0));
        if (sent <= 0) {
            return false;
        }
        at += static_cast<std::size_t>(sent);
    }
    return true;
}

bool wire::write(const std::string& bytes) {
    if (ssl_ == nullptr) {
        return write_raw(bytes);
    }
    return bytes.empty() ||
           (SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) > 0 && flush());
}

bool wire::write_whole(const std::string& bytes) {
    std::size_t pieces = std::exchange(piece, 0);
    bool ok = write(bytes);
    piece = pieces;
    return ok;
}

std::string wire::take_output() {
    std::string bytes;
    char block[16384];
    int got = 0;
    while ((got = BIO_read(SSL_get_wbio(ssl_), block, sizeof block)) > 0) {
        bytes.append(block, static_cast<std::size_t>(got));
    }
    return bytes;
}

bool wire::begin_tls(std::string* rest) {
    ssl_ = SSL_new(owner.tls_context());
    SSL_set_bio(ssl_, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_accept_state(ssl_);
    std::string flight;
    while (flight.empty()) {
        int result = SSL_do_handshake(ssl_);
        flight = take_output();
        ERR_clear_error();
        if (flight.empty() && (result > 0 || !fill())) {
            return false;
        }
    }
    *rest = flight.substr(flight.size() / 2);
    return write_raw(flight.substr(0, flight.size() / 2));
}

bool wire::start_tls() {
    std::string rest;
    if (ssl_ == nullptr && !(begin_tls(&rest) && write_raw(rest))) {
        return false;
    }
    int result = 0;
    while ((result = SSL_do_handshake(ssl_)) <= 0) {
        int error = SSL_get_error(ssl_, result);
        ERR_clear_error();
        if (!flush() || error != SSL_ERROR_WANT_READ || !fill()) {
            return false;
        }
    }
    return flush();
}

bool wire::wait_for_release() {
    std::unique_lock<std::mutex> guard(owner.mutex_);
    owner.changed_.wait(guard, [this] { return owner.released_ || owner.stopping_; });
    return !owner.stopping_;
}

bool wire::wait_for_close() {
    char block[16384];
    while (receive(block, sizeof block) > 0) {
    }
    return true;
}

void wire::reset() {
    set_option(sock_, SOL_SOCKET, SO_LINGER, linger{1, 0});
}

// ------------------------------------------------------------------------------------- the steps

step expect_request() {
    return [](wire& w) {
        received_request request;
        return w.read_request(&request) && w.owner.record(request);
    };
}

step read_bytes(std::size_t count) {
    return [count](wire& w) {
        received_request request;
        request.connection = w.index;
        return w.read(count, &request.raw) && w.owner.record(request);
    };
}

step send_text(const std::string& bytes) {
    return [bytes](wire& w) { return w.write(bytes); };
}

step answer_all(request_handler handler) {
    return [handler = std::move(handler)](wire& w) {
        received_request request;
        std::string connection;
        while (w.read_request(&request) && w.owner.record(request)) {
            std::string answer = handler(request);
            if (!w.write(answer) || (find_header(answer, "Connection", &connection) &&
                                     _stricmp(connection.c_str(), "close") == 0)) {
                break;
            }
        }
        return false;
    };
}

script operator+(script first, const script& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
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

// -------------------------------------------------------------------------------------- the peer

SOCKET bind_loopback(bool ipv6, std::uint16_t* port) {
    uv_hrtime();  // libuv starts Winsock
    SOCKET sock = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    sockaddr_in6 address = {};  // the port stands at the same place in both families
    auto* any = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (ipv6) {
        address.sin6_addr = in6addr_loopback;
    } else {
        reinterpret_cast<sockaddr_in*>(any)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    any->sa_family = static_cast<decltype(any->sa_family)>(ipv6 ? AF_INET6 : AF_INET);
    address.sin6_port = htons(*port);
    if (bind(sock, any, length) != 0 || getsockname(sock, any, &length) != 0) {
        closesocket(sock);
        return INVALID_SOCKET;
    }
    *port = ntohs(address.sin6_port);
    return sock;
}

std::uint16_t refusing_port() {
    static std::uint16_t port = 0;
    static SOCKET held = bind_loopback(false, &port);
    require(held != INVALID_SOCKET, "no port");
    return port;
}

peer::peer(std::vector<script> scripts, peer_options options)
    : scripts_(std::move(scripts)), options_(std::move(options)), port_(options_.port),
      listener_(bind_loopback(options_.ipv6, &port_)) {
    require(listener_ != INVALID_SOCKET, "cannot bind");
    if (options_.receive_buffer > 0) {
        set_option(listener_, SOL_SOCKET, SO_RCVBUF, options_.receive_buffer);
    }
    require(listen(listener_, 512) == 0, "cannot listen");
    thread_ = std::thread([this] { accept_all(); });
}

peer::~peer() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
        for (wire* one : open_) {
            shutdown(one->sock_, 2);
        }
        changed_.notify_all();
    }
    // One more connection ends the wait for one.
    SOCKET last = socket(options_.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    connect(last, reinterpret_cast<sockaddr*>(&address), length);
    thread_.join();
    for (connection& one : connections_) {
        one.thread.join();
    }
    closesocket(last);
    closesocket(listener_);
    SSL_CTX_free(context_);
}

std::string peer::url(const std::string& path, const std::string& scheme) const {
    return scheme + "://" + (options_.ipv6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port_) +
           path;
}

SSL_CTX* peer::tls_context() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (context_ == nullptr) {
        context_ = SSL_CTX_new(TLS_server_method());
        X509* certificate = make_certificate(options_);
        require(SSL_CTX_use_certificate(context_, certificate) == 1 &&
                    SSL_CTX_use_PrivateKey(context_, server_key()) == 1,
                "certificate refused");
        X509_free(certificate);
        if (options_.tls_version != 0) {
            SSL_CTX_set_min_proto_version(context_, options_.tls_version);
            SSL_CTX_set_max_proto_version(context_, options_.tls_version);
        }
    }
    return context_;
}

void peer::accept_all() {
    for (int index = 0;; index++) {
        SOCKET sock = accept(listener_, nullptr, nullptr);
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (stopping_) {
                closesocket(sock);
                return;
            }
            connection_total_++;
            changed_.notify_all();
        }
        require(sock != INVALID_SOCKET, "cannot accept");
        connections_.remove_if([](connection& one) {
            bool ended = one.ended;
            if (ended) {
                one.thread.join();
            }
            return ended;
        });
        connection& next = connections_.emplace_back();
        next.thread = std::thread([this, &next, sock, index] { serve(next, sock, index); });
    }
}

void peer::serve(connection& self, SOCKET sock, int index) {
    platform_ignore_broken_pipe();
    set_option(sock, IPPROTO_TCP, 1 /* TCP_NODELAY */, 1);
    {
        wire now(*this, sock, index, options_.piece);
        bool open = true;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            open_.push_back(&now);
            open = !stopping_;
        }
        std::size_t which = std::min(static_cast<std::size_t>(index), scripts_.size() - 1);
        for (std::size_t i = 0; open && i < scripts_[which].size(); i++) {
            open = scripts_[which][i](now);
        }
        if (open) {
            now.wait_for_close();
        }
        std::lock_guard<std::mutex> guard(mutex_);
        open_.remove(&now);
    }
    std::lock_guard<std::mutex> guard(mutex_);
    disconnect_total_++;
    changed_.notify_all();
    self.ended = true;
}

void peer::release() {
    std::lock_guard<std::mutex> guard(mutex_);
    released_ = true;
    changed_.notify_all();
}

bool peer::record(const received_request& request) {
    std::lock_guard<std::mutex> guard(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
    return true;
}

std::vector<received_request> peer::requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
}

received_request peer::request(std::size_t index) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return index < requests_.size() ? requests_[index] : received_request();
}

std::size_t peer::connection_count() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return connection_total_;
}

bool peer::wait_for(const std::function<std::size_t()>& counter, std::size_t count,
                    milliseconds deadline) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, deadline, [&] { return counter() >= count; });
}
