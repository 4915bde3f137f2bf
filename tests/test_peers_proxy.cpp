// Transfers through tinyproxy and microsocks to nginx; curl, sent through the same proxy, must
// fare the same.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

struct login {
    const char* user;
    const char* password;
};

constexpr login nobody = {nullptr, nullptr};
constexpr login known = {"user", "pass"};

constexpr std::uint32_t http = TAV_HTTP_PROXY_HTTP;
constexpr std::uint32_t socks = TAV_HTTP_PROXY_SOCKS5;

class Proxies : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start(dir.path(), TAV_HTTP_WITH_TLS != 0));
        write_file(server.root() + "/bytes", sample_bytes(1000000));
    }

    // Starts tinyproxy or microsocks.
    bool start(std::uint32_t type, bool with_login) {
        std::string place = dir.path() + "/proxy";
        std::filesystem::create_directories(place);
        return proxy.start(
            [&](std::uint16_t port) {
                std::vector<std::string> words = {"microsocks", "-i", "127.0.0.1", "-p",
                                                  std::to_string(port)};
                if (type == socks) {
                    if (with_login) {
                        words.insert(words.end(), {"-u", known.user, "-P", known.password});
                    }
                    return words;
                }
                write_file(place + "/tinyproxy.conf",
                           "Listen 127.0.0.1\nPort " + std::to_string(port) +
                               "\nMaxClients 50\nTimeout 30\nLogFile \"tinyproxy.log\"\n"
                               "Allow 127.0.0.1\n" +
                               (with_login ? "BasicAuth user pass\n" : ""));
                return std::vector<std::string>{"tinyproxy", "-d", "-c", "tinyproxy.conf"};
            },
            place);
    }

    // One GET through the proxy, on a connection of its own. `body`: what came.
    std::uint32_t fetch(std::uint32_t type, const login& who, const std::string& url,
                        std::string* body) {
        proxy_record info(type, proxy.port(), who.user, who.password);
        transfer get(url, TAV_HTTP_METHOD_GET, info.get());
        get.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
        get.set(TAV_HTTP_OPTION_HOST, "target.test");
        std::uint32_t code = get.run();
        EXPECT_EQ("", get.peer()) << "behind a proxy";
        EXPECT_EQ(1, get.completions());
        *body = get.body();
        return code;
    }

    std::string curl(std::uint32_t type, const login& who, const std::string& url) {
        std::string scheme = type == http ? "http://" : "socks5h://";
        std::string name =
            who.user != nullptr ? std::string(who.user) + ":" + who.password + "@" : "";
        return output_of({"curl", "-s", "-k", "-p", "--max-time", "20", "-x",
                          scheme + name + "127.0.0.1:" + std::to_string(proxy.port()), url});
    }

    std::vector<std::string> targets() const {
        std::vector<std::string> all = {server.url("/bytes"), server.url("/bytes", "localhost")};
#if TAV_HTTP_WITH_TLS
        all.push_back("https://127.0.0.1:" + std::to_string(server.tls12_port) + "/bytes");
        all.push_back("https://localhost:" + std::to_string(server.tls13_port) + "/bytes");
#endif
        return all;
    }

    work_dir dir;
    nginx_server server;
    peer_process proxy;
};

TEST_F(Proxies, EveryTargetWithAndWithoutLogin) {
    library lib;
    std::string body;
    for (std::uint32_t type : {http, socks}) {
        for (bool with_login : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << type << ", login " << with_login);
            const login& who = with_login ? known : nobody;
            ASSERT_TRUE(start(type, with_login));
            for (const std::string& url : targets()) {
                SCOPED_TRACE(url);
                EXPECT_EQ(0u, fetch(type, who, url, &body));
                EXPECT_TRUE(sample_bytes(1000000) == body);
                EXPECT_TRUE(curl(type, who, url) == body);
            }
        }
    }
    ASSERT_TRUE(start(socks, false));
    EXPECT_EQ(0u, fetch(socks, nobody, server.url6("/bytes"), &body));
    EXPECT_TRUE(sample_bytes(1000000) == body);
}

TEST_F(Proxies, WrongLogins) {
    const login wrong[] = {nobody, {"user", "wrong"}, {"other", "pass"}, {"user", nullptr}};
    library lib;
    std::string body;
    for (std::uint32_t type : {http, socks}) {
        SCOPED_TRACE(type);
        ASSERT_TRUE(start(type, true));
        for (const login& who : wrong) {
            for (const std::string& url : targets()) {
                EXPECT_EQ(code::proxy_denied, fetch(type, who, url, &body)) << url;
                EXPECT_EQ("", body);
            }
        }
        EXPECT_EQ("", curl(type, {"user", "wrong"}, server.url("/say")));
        // A refusal spoils nothing for those who are let in.
        EXPECT_EQ(0u, fetch(type, known, server.url("/say"), &body));
        EXPECT_EQ("said", body);
        // A login that nobody asked for: Basic credentials travel with the request, a SOCKS5 client
        // that knows only its login is turned away.
        ASSERT_TRUE(start(type, false));
        EXPECT_EQ(type == http ? 0u : code::proxy_denied,
                  fetch(type, known, server.url("/say"), &body));
    }
}

// One tunnel carries request after request.
TEST_F(Proxies, TunnelsAreKept) {
    for (std::uint32_t type : {http, socks}) {
        SCOPED_TRACE(type);
        ASSERT_TRUE(start(type, false));
        library lib;
        proxy_record info(type, proxy.port());
        std::string counts;
        for (int i = 0; i < 4; i++) {
            transfer get(server.url("/say"), TAV_HTTP_METHOD_GET, info.get());
            EXPECT_EQ(0u, get.run());
            counts += get.header("X-Requests");
        }
        EXPECT_EQ("1234", counts);
    }
}

}  // namespace
