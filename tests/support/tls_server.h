// A TLS server for tests: its certificate is made when it starts, and each accepted connection runs
// a function of the test, one connection after the other, on the server's own thread.
//
// Every wait of a connection ends when the server is destroyed, so that a stalled peer never hangs
// a test.
#ifndef TESTS_SUPPORT_TLS_SERVER_H
#define TESTS_SUPPORT_TLS_SERVER_H

#include "tests/support/scripted_server.h"

#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct tls_options {
    int version = 0;  // TLS1_2_VERSION or TLS1_3_VERSION; 0: either
    // The entries of the certificate's subject, in order: short name and value.
    std::vector<std::pair<std::string, std::string>> subject = {{"O", "Test"},
                                                                {"CN", "server.test"}};
    bool expired = false;
    // The server's bytes leave in pieces of this size, each with a system call of its own; 0:
    // whole.
    std::size_t piece = 0;
};

// One connection, as the function of the test sees it. A function that returns false means that the
// peer went away or broke the protocol, or that the server is ending.
class tls_peer {
  public:
    bool accept();  // the handshake
    // Sends the first half of the answer to the client's first message; `rest` is the other half.
    // accept() goes on from there.
    bool begin_accept(std::string* rest);
    // Reads a request head, and the body that its Content-Length announces.
    bool read_request(std::string* request);
    bool write(const std::string& bytes);
    bool new_ticket();  // TLS 1.3
    // New keys for both directions; the client answers with its own. TLS 1.3.
    bool update_keys();
    bool close_notify();
    // Writes a record and flips one of its bits on the way.
    bool write_damaged(const std::string& bytes);
    // Writes a record but sends only the first half of it.
    bool write_half(const std::string& bytes);

    // The bytes below TLS: a proxy's part of the conversation.
    bool raw_read(std::size_t count, std::string* bytes);
    bool raw_read_head(std::string* head);
    bool raw_write(const std::string& bytes);
    void send_in_pieces(std::size_t size);  // from now on; as tls_options::piece
    void half_close();                      // ends the sending direction of the TCP connection
    void reset();  // the close of the TCP connection, when the function returns, is a reset

    bool wait_for_release();
    bool wait_for_close();  // until the client ends the TCP connection; its bytes are dropped

    std::string server_name() const;  // what the client asked for
    std::string version() const;      // "TLSv1.2" or "TLSv1.3"
    int index() const {
        return index_;
    }

  private:
    friend class tls_server;

    bool wait(short events);
    bool flush();
    bool retry(int result);
    std::string take_output();

    SSL* ssl_ = nullptr;
    int fd_ = -1;
    int stop_fd_ = -1;
    int index_ = 0;
    std::size_t piece_ = 0;
    const std::atomic<bool>* released_ = nullptr;
};

class tls_server : not_copied {
  public:
    using behaviour = std::function<void(tls_peer&)>;

    explicit tls_server(behaviour behave, tls_options options = {});
    ~tls_server();

    std::uint16_t port() const {
        return port_;
    }
    std::string url(const std::string& path = "/", const std::string& host = "127.0.0.1") const;

    void release();  // lets wait_for_release() go on
    int connection_count() const {
        return accepted_;
    }

  private:
    void run();
    void serve(int fd);

    behaviour behave_;
    tls_options options_;
    SSL_CTX* ctx_ = nullptr;
    int listener_ = -1;
    int stop_[2] = {-1, -1};  // becomes readable, for good, when the server ends
    std::uint16_t port_ = 0;
    std::atomic<bool> released_{false};
    std::atomic<int> accepted_{0};
    std::thread thread_;
};

// Answers any number of requests on each connection with the response.
tls_server::behaviour answer_all(const std::string& response_bytes);

#endif
