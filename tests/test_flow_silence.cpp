// Peers that take the connection and then say nothing, in the steps whose time-out is fixed at
// thirty seconds. All of them wait at once.
#include "tests/support/host.h"

#include <gtest/gtest.h>

#if TAV_HTTP_WITH_TLS
#include "tests/support/tls_server.h"
#endif

namespace {

struct silent_peer {
    const char* title;
    std::string url;
    std::uint32_t proxy_type;
    std::uint16_t proxy_port;
    std::uint32_t code;
};

TEST(Silence, EndsAfterThirtySeconds) {
    library lib;
    scripted_server mute({stall()});
    std::vector<silent_peer> peers = {
        {"HTTP proxy", "http://target.test/", TAV_HTTP_PROXY_HTTP, mute.port(),
         TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV},
        {"SOCKS5 proxy", "http://target.test/", TAV_HTTP_PROXY_SOCKS5, mute.port(),
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
    };
#if TAV_HTTP_WITH_TLS
    tls_server deaf([](tls_peer& peer) {
        std::string request;
        if (peer.accept() && peer.read_request(&request)) {
            peer.wait_for_close();
        }
    });
    peers.push_back({"TLS handshake", "https://127.0.0.1:" + std::to_string(mute.port()) + "/",
                     TAV_HTTP_PROXY_NONE, 0, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT});
    peers.push_back(
        {"TLS response", deaf.url(), TAV_HTTP_PROXY_NONE, 0, TAV_HTTP_ERROR_CODE_RECV_TIMEOUT});
#endif

    auto begin = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<transfer>> transfers;
    for (const silent_peer& peer : peers) {
        char host[] = "127.0.0.1";
        proxy_info proxy = {};
        proxy.type = peer.proxy_type;
        proxy.host = host;
        proxy.port = peer.proxy_port;
        transfers.push_back(
            std::make_unique<transfer>(peer.url, TAV_HTTP_METHOD_GET,
                                       peer.proxy_type != TAV_HTTP_PROXY_NONE ? &proxy : nullptr));
        transfers.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 1000);  // Has no say in these steps.
        transfers.back()->send();
    }
    for (std::size_t i = 0; i < peers.size(); i++) {
        SCOPED_TRACE(peers[i].title);
        EXPECT_EQ(peers[i].code, transfers[i]->wait(milliseconds(45000)));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(29500));
    }
}

}  // namespace
