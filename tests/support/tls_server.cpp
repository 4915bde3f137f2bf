#include "tests/support/tls_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void require(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "tls_server, %s\n", what);
        std::abort();
    }
}

// One key serves all certificates of a test program.
EVP_PKEY* server_key() {
    static EVP_PKEY* key = EVP_EC_gen("P-256");
    require(key != nullptr, "no key");
    return key;
}

X509* make_certificate(const tls_options& options) {
    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    const long day = 24 * 60 * 60;
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

SSL_CTX* make_context(const tls_options& options) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    X509* certificate = make_certificate(options);
    require(SSL_CTX_use_certificate(ctx, certificate) == 1 &&
                SSL_CTX_use_PrivateKey(ctx, server_key()) == 1,
            "certificate refused");
    X509_free(certificate);
    if (options.version != 0) {
        SSL_CTX_set_min_proto_version(ctx, options.version);
        SSL_CTX_set_max_proto_version(ctx, options.version);
    }
    return ctx;
}

std::size_t announced_body(const std::string& head) {
    const char* at = strcasestr(head.c_str(), "\r\nContent-Length:");
    return at != nullptr ? std::strtoul(at + 17, nullptr, 10) : 0;
}

}  // namespace

// ------------------------------------------------------------------------------- one connection

bool tls_peer::wait(short events) {
    for (;;) {
        pollfd polls[2] = {{fd_, events, 0}, {stop_fd_, POLLIN, 0}};
        int ready = poll(polls, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        return ready > 0 && polls[1].revents == 0;
    }
}

std::string tls_peer::take_output() {
    std::string bytes;
    char block[16384];
    int got = 0;
    while ((got = BIO_read(SSL_get_wbio(ssl_), block, sizeof block)) > 0) {
        bytes.append(block, static_cast<std::size_t>(got));
    }
    return bytes;
}

bool tls_peer::raw_write(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t size = bytes.size() - at;
        if (piece_ > 0 && size > piece_) {
            size = piece_;
        }
        ssize_t sent = send(fd_, bytes.data() + at, size, MSG_NOSIGNAL);
        if (sent > 0) {
            at += static_cast<std::size_t>(sent);
        } else if (errno != EAGAIN || !wait(POLLOUT)) {
            return false;
        }
    }
    return true;
}

bool tls_peer::flush() {
    return raw_write(take_output());
}

// After an engine call: sends its output, and waits for input when it wants some. True: call again.
bool tls_peer::retry(int result) {
    int error = SSL_get_error(ssl_, result);
    bool sent = flush();
    ERR_clear_error();
    return sent && error == SSL_ERROR_WANT_READ && wait(POLLIN);
}

bool tls_peer::accept() {
    int result = 0;
    while ((result = SSL_accept(ssl_)) <= 0) {
        if (!retry(result)) {
            return false;
        }
    }
    return flush();
}

bool tls_peer::begin_accept(std::string* rest) {
    std::string flight;
    while (flight.empty()) {
        int result = SSL_accept(ssl_);
        flight = take_output();
        ERR_clear_error();
        if (flight.empty() && (result > 0 || !wait(POLLIN))) {
            return false;
        }
    }
    *rest = flight.substr(flight.size() / 2);
    return raw_write(flight.substr(0, flight.size() / 2));
}

bool tls_peer::read_request(std::string* request) {
    std::string bytes;
    for (;;) {
        std::size_t end = bytes.find("\r\n\r\n");
        if (end != std::string::npos &&
            bytes.size() >= end + 4 + announced_body(bytes.substr(0, end + 2))) {
            break;
        }
        char block[16384];
        int got = SSL_read(ssl_, block, sizeof block);
        if (got > 0) {
            bytes.append(block, static_cast<std::size_t>(got));
        } else if (!retry(got)) {
            return false;
        }
    }
    *request = bytes;
    return flush();
}

bool tls_peer::write(const std::string& bytes) {
    return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) > 0 && flush();
}

bool tls_peer::new_ticket() {
    return SSL_new_session_ticket(ssl_) == 1 && SSL_do_handshake(ssl_) == 1 && flush();
}

bool tls_peer::update_keys() {
    return SSL_key_update(ssl_, SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(ssl_) == 1 &&
           flush();
}

bool tls_peer::close_notify() {
    SSL_shutdown(ssl_);
    return flush();
}

bool tls_peer::write_damaged(const std::string& bytes) {
    SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
    std::string record = take_output();
    record.back() = static_cast<char>(record.back() ^ 1);
    return raw_write(record);
}

bool tls_peer::write_half(const std::string& bytes) {
    SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
    std::string record = take_output();
    return raw_write(record.substr(0, record.size() / 2));
}

bool tls_peer::raw_read(std::size_t count, std::string* bytes) {
    bytes->clear();
    while (bytes->size() < count) {
        char block[4096];
        std::size_t wanted = std::min(sizeof block, count - bytes->size());
        ssize_t got = recv(fd_, block, wanted, 0);
        if (got > 0) {
            bytes->append(block, static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EAGAIN || !wait(POLLIN)) {
            return false;
        }
    }
    return true;
}

bool tls_peer::raw_read_head(std::string* head) {
    head->clear();
    std::string next;
    while (head->size() < 4 || head->compare(head->size() - 4, 4, "\r\n\r\n") != 0) {
        if (!raw_read(1, &next)) {
            return false;
        }
        *head += next;
    }
    return true;
}

void tls_peer::send_in_pieces(std::size_t size) {
    piece_ = size;
}

void tls_peer::half_close() {
    shutdown(fd_, SHUT_WR);
}

void tls_peer::reset() {
    linger off = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &off, sizeof off);
}

bool tls_peer::wait_for_release() {
    // release() makes no descriptor readable; a short poll keeps this simple.
    while (!*released_) {
        pollfd stop = {stop_fd_, POLLIN, 0};
        if (poll(&stop, 1, 5) > 0) {
            return false;
        }
    }
    return true;
}

bool tls_peer::wait_for_close() {
    char block[4096];
    for (;;) {
        ssize_t got = recv(fd_, block, sizeof block, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            return true;
        }
        if (got < 0 && !wait(POLLIN)) {
            return false;
        }
    }
}

std::string tls_peer::server_name() const {
    const char* name = SSL_get_servername(ssl_, TLSEXT_NAMETYPE_host_name);
    return name != nullptr ? name : "";
}

std::string tls_peer::version() const {
    return SSL_get_version(ssl_);
}

// ------------------------------------------------------------------------------------ the server

tls_server::tls_server(behaviour behave, tls_options options)
    : behave_(std::move(behave)), options_(std::move(options)), ctx_(make_context(options_)) {
    listener_ = bind_loopback(false, &port_);
    fcntl(listener_, F_SETFL, O_NONBLOCK);
    require(listen(listener_, 128) == 0 && pipe2(stop_, O_CLOEXEC) == 0, "no socket");
    thread_ = std::thread([this] { run(); });
}

tls_server::~tls_server() {
    require(write(stop_[1], "x", 1) == 1, "cannot stop");
    thread_.join();
    close(listener_);
    close(stop_[0]);
    close(stop_[1]);
    SSL_CTX_free(ctx_);
}

std::string tls_server::url(const std::string& path, const std::string& host) const {
    return "https://" + host + ":" + std::to_string(port_) + path;
}

void tls_server::release() {
    released_ = true;
}

void tls_server::run() {
    for (;;) {
        pollfd polls[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        if (poll(polls, 2, -1) > 0 && polls[1].revents != 0) {
            return;
        }
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            serve(fd);
        }
    }
}

void tls_server::serve(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    tls_peer peer;
    peer.fd_ = fd;
    peer.stop_fd_ = stop_[0];
    peer.index_ = accepted_++;
    peer.piece_ = options_.piece;
    peer.released_ = &released_;
    peer.ssl_ = SSL_new(ctx_);
    SSL_set_bio(peer.ssl_, BIO_new_socket(fd, BIO_NOCLOSE), BIO_new(BIO_s_mem()));
    behave_(peer);
    SSL_free(peer.ssl_);
    close(fd);
}

tls_server::behaviour answer_all(const std::string& response_bytes) {
    return [=](tls_peer& peer) {
        std::string request;
        if (peer.accept()) {
            while (peer.read_request(&request) && peer.write(response_bytes)) {
            }
        }
    };
}
