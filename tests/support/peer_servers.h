// The servers of other makers, set up as the tests want them.
#ifndef TESTS_SUPPORT_PEER_SERVERS_H
#define TESTS_SUPPORT_PEER_SERVERS_H

#include "tests/support/peer_process.h"

#include <string>

// Makes `directory`/`name`.key and .crt: a certificate for two days. `algorithm`: "rsa" or "ec";
// `subject`: as "/O=Test/CN=peer.test".
void make_certificate_files(const std::string& directory, const std::string& name,
                            const std::string& algorithm, const std::string& subject);

// nginx. Files come from root(). Every response of a file or of /say tells in headers how it was
// served: X-Connection, X-Requests (of this connection, so far), X-Protocol and X-Name (TLS).
//   /say        "said", to any request
//   /moved      a redirect to /hello.txt
//   /zip/       the files of root(), compressed on the way
//   /sink/      passed on to the upload sink, whose answer lists what a multipart reader found:
//               "METHOD PATH TYPE LENGTH MD5", then per part "part NAME FILE-NAME LENGTH MD5"
class nginx_server {
  public:
    // `directory`: for its files and those that it serves.
    bool start(const std::string& directory, bool with_tls);

    const std::string& root() const {
        return root_;
    }
    std::uint16_t port() const {
        return server_.port();
    }
    std::string url(const std::string& path, const std::string& host = "127.0.0.1") const;
    std::string url6(const std::string& path) const;
    // Closes each connection after three responses.
    std::string three_requests_url(const std::string& path) const;

    std::uint16_t tls12_port = 0;
    std::uint16_t tls13_port = 0;

  private:
    std::string configuration(std::uint16_t port) const;

    std::string directory_;
    std::string root_;
    bool with_tls_ = false;
    std::uint16_t port6_ = 0;
    std::uint16_t three_port_ = 0;
    peer_process server_;
    peer_process sink_;
};

#endif
