// The servers of one round of the soak: good ones, proxies, and those that misbehave. They are made
// anew for every round, since a scripted server remembers each request.
#ifndef TESTS_SOAK_SOAK_SERVERS_H
#define TESTS_SOAK_SOAK_SERVERS_H

#include "tests/support/scripted_server.h"
#include "tests/support/tls_server.h"

#include <memory>
#include <string>
#include <vector>

// Servers of other makers, started by the caller; empty or 0: there is none.
struct soak_peers {
    std::string http;   // "http://127.0.0.1:8080": serves the directory `root`
    std::string https;  // the same, over TLS
    std::string root;   // existing directory
    std::uint16_t http_proxy = 0;
    std::uint16_t socks_proxy = 0;
};

// Writes every body to a file "bodyN" in the peers' directory.
void write_peer_files(const soak_peers& peers);

// The path of a body on the peers' servers.
std::string peer_path(std::size_t index);

// One server that does not do as it should.
struct bad_server {
    std::string name;
    std::string url;
    std::uint32_t method;
};

class soak_servers {
  public:
    soak_servers();

    std::string url(const std::string& path) const {
        return good_.url(path);
    }
    std::string tls_url(const std::string& path);  // of either TLS server in turn
    std::string stalling_url() const {
        return stalling_->url();
    }
    const std::vector<bad_server>& bad() const {
        return bad_;
    }
    std::uint16_t http_proxy_port() const {
        return http_proxy_->port();
    }
    std::uint16_t socks_proxy_port() const {
        return socks_proxy_->port();
    }
    // What lies behind both proxies: body proxied_body() at this URL.
    static std::string proxied_url();
    static std::size_t proxied_body();

  private:
    void add_bad(const std::string& name, script steps, std::uint32_t method = 1);

    scripted_server good_;
    std::vector<std::unique_ptr<tls_server>> tls_;
    std::atomic<unsigned> next_tls_{0};
    std::unique_ptr<scripted_server> stalling_;
    std::unique_ptr<scripted_server> http_proxy_;
    std::unique_ptr<scripted_server> socks_proxy_;
    std::vector<std::unique_ptr<scripted_server>> bad_scripts_;
    std::unique_ptr<tls_server> bad_tls_;
    std::vector<bad_server> bad_;
};

#endif
