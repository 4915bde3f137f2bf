// Transfers through tinyproxy and microsocks to nginx; curl, sent through the same proxy, must
// fare the same.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

namespace {

constexpr std::uint32_t denied = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;

struct login {
    const char* user;
    const char* password;
};

constexpr login nobody = {nullptr, nullptr};
constexpr login known = {"user", "pass"};

class Proxies : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<work_dir>();
        server = std::make_unique<nginx_server>();
        if (TAV_HTTP_WITH_TLS) {
            make_certificate_files(dir->path(), "peer", "ec", "/O=Test/CN=peer.test");
            make_certificate_files(dir->path(), "bare", "ec", "/CN=peer.test");
        }
        started = server->start(dir->path(), TAV_HTTP_WITH_TLS != 0);
        write_file(server->root() + "/bytes", sample_bytes(1000000));
    }
    static void TearDownTestSuite() {
        server.reset();
        dir.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(started);
    }

    // `lines`: further lines of the configuration.
    bool start_tinyproxy(const std::string& lines) {
        return start([&](const std::string& place, std::uint16_t port) {
            write_file(place + "/tinyproxy.conf",
                       "Listen 127.0.0.1\nPort " + std::to_string(port) +
                           "\nMaxClients 50\nTimeout 30\n"
                           "LogFile \"tinyproxy.log\"\nAllow 127.0.0.1\n" +
                           lines);
            return std::vector<std::string>{"tinyproxy", "-d", "-c", "tinyproxy.conf"};
        });
    }

    bool start_microsocks(const login& who) {
        return start([&](const std::string&, std::uint16_t port) {
            std::vector<std::string> words = {"microsocks", "-i", "127.0.0.1", "-p",
                                              std::to_string(port)};
            if (who.user != nullptr) {
                words.insert(words.end(), {"-u", who.user, "-P", who.password});
            }
            return words;
        });
    }

    // One GET through the proxy, on a connection of its own. `body`: what came.
    std::uint32_t fetch(std::uint32_t type, const login& who, const std::string& url,
                        std::string* body) {
        char host[] = "127.0.0.1";
        std::string user = who.user != nullptr ? who.user : "";
        std::string password = who.password != nullptr ? who.password : "";
        proxy_info info = {};
        info.type = type;
        info.host = host;
        info.port = proxy.port();
        info.user_name = who.user != nullptr ? &user[0] : nullptr;
        info.password = who.password != nullptr ? &password[0] : nullptr;
        transfer get(url, TAV_HTTP_METHOD_GET, &info);
        get.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
        get.set(TAV_HTTP_OPTION_HOST, "target.test");
        std::uint32_t code = get.run();
        EXPECT_EQ("", get.peer()) << "behind a proxy";
        EXPECT_EQ(1, get.completions());
        *body = get.body();
        return code;
    }

    std::string curl(std::uint32_t type, const login& who, const std::string& url) {
        std::string scheme = type == TAV_HTTP_PROXY_HTTP ? "http://" : "socks5h://";
        std::string name =
            who.user != nullptr ? std::string(who.user) + ":" + who.password + "@" : "";
        return output_of({"curl", "-s", "-k", "-p", "--max-time", "20", "-x",
                          scheme + name + "127.0.0.1:" + std::to_string(proxy.port()), url});
    }

    std::vector<std::string> targets() const {
        std::vector<std::string> all = {server->url("/bytes"), server->url("/bytes", "localhost")};
#if TAV_HTTP_WITH_TLS
        for (std::uint16_t port : {server->tls12_port, server->tls13_port}) {
            all.push_back("https://127.0.0.1:" + std::to_string(port) + "/bytes");
            all.push_back("https://localhost:" + std::to_string(port) + "/bytes");
        }
#endif
        return all;
    }

    void expect_all_targets(std::uint32_t type, const login& who) {
        for (const std::string& url : targets()) {
            SCOPED_TRACE(url);
            std::string body;
            EXPECT_EQ(0u, fetch(type, who, url, &body));
            EXPECT_TRUE(sample_bytes(1000000) == body);
            EXPECT_TRUE(curl(type, who, url) == body);
        }
    }

    static std::unique_ptr<work_dir> dir;
    static std::unique_ptr<nginx_server> server;
    static bool started;
    peer_process proxy;

  private:
    template <typename words> bool start(const words& arguments_for) {
        std::string place = dir->path() + "/proxy";
        std::filesystem::create_directories(place);
        return proxy.start([&](std::uint16_t port) { return arguments_for(place, port); }, place);
    }
};

std::unique_ptr<work_dir> Proxies::dir;
std::unique_ptr<nginx_server> Proxies::server;
bool Proxies::started = false;

TEST_F(Proxies, TinyproxyToEveryTarget) {
    ASSERT_TRUE(start_tinyproxy(""));
    library lib;
    expect_all_targets(TAV_HTTP_PROXY_HTTP, nobody);
}

TEST_F(Proxies, TinyproxyWithLoginToEveryTarget) {
    ASSERT_TRUE(start_tinyproxy("BasicAuth user pass\n"));
    library lib;
    expect_all_targets(TAV_HTTP_PROXY_HTTP, known);
}

TEST_F(Proxies, MicrosocksToEveryTarget) {
    ASSERT_TRUE(start_microsocks(nobody));
    library lib;
    expect_all_targets(TAV_HTTP_PROXY_SOCKS5, nobody);
    std::string body;
    EXPECT_EQ(0u, fetch(TAV_HTTP_PROXY_SOCKS5, nobody, server->url6("/bytes"), &body));
    EXPECT_TRUE(sample_bytes(1000000) == body);
}

TEST_F(Proxies, MicrosocksWithLoginToEveryTarget) {
    ASSERT_TRUE(start_microsocks(known));
    library lib;
    expect_all_targets(TAV_HTTP_PROXY_SOCKS5, known);
}

TEST_F(Proxies, WrongLogins) {
    const login wrong[] = {nobody, {"user", "wrong"}, {"other", "pass"}, {"user", nullptr}};
    library lib;
    for (std::uint32_t type : {TAV_HTTP_PROXY_HTTP, TAV_HTTP_PROXY_SOCKS5}) {
        SCOPED_TRACE(type);
        ASSERT_TRUE(type == TAV_HTTP_PROXY_HTTP ? start_tinyproxy("BasicAuth user pass\n")
                                                : start_microsocks(known));
        std::string body;
        for (const login& who : wrong) {
            for (const std::string& url : targets()) {
                EXPECT_EQ(denied, fetch(type, who, url, &body)) << url;
                EXPECT_EQ("", body);
            }
        }
        EXPECT_EQ("", curl(type, {"user", "wrong"}, server->url("/say")));
        // A refusal spoils nothing for those who are let in.
        EXPECT_EQ(0u, fetch(type, known, server->url("/say"), &body));
        EXPECT_EQ("said", body);
    }
}

// A login that nobody asked for: Basic credentials travel with the request, a SOCKS5 client that
// knows only its login is turned away.
TEST_F(Proxies, LoginThatIsNotWanted) {
    library lib;
    std::string body;
    ASSERT_TRUE(start_tinyproxy(""));
    EXPECT_EQ(0u, fetch(TAV_HTTP_PROXY_HTTP, known, server->url("/say"), &body));
    ASSERT_TRUE(start_microsocks(nobody));
    EXPECT_EQ(denied, fetch(TAV_HTTP_PROXY_SOCKS5, known, server->url("/say"), &body));
}

TEST_F(Proxies, TargetsThatTheProxyDoesNotReach) {
    library lib;
    std::string body;
    const std::string closed = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
    const std::string unknown = "http://" + std::string(70, 'a') + ".test/";
    constexpr std::uint32_t failed = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT;

    ASSERT_TRUE(start_tinyproxy("ConnectPort " + std::to_string(server->port()) + "\n"));
    EXPECT_EQ(0u, fetch(TAV_HTTP_PROXY_HTTP, nobody, server->url("/say"), &body));
    EXPECT_EQ(failed, fetch(TAV_HTTP_PROXY_HTTP, nobody, closed, &body)) << "port not allowed";
    ASSERT_TRUE(start_tinyproxy(""));
    EXPECT_EQ(failed, fetch(TAV_HTTP_PROXY_HTTP, nobody, closed, &body));
    EXPECT_EQ(failed, fetch(TAV_HTTP_PROXY_HTTP, nobody, unknown, &body));

    ASSERT_TRUE(start_microsocks(nobody));
    EXPECT_EQ(denied, fetch(TAV_HTTP_PROXY_SOCKS5, nobody, closed, &body));
    EXPECT_EQ(denied, fetch(TAV_HTTP_PROXY_SOCKS5, nobody, unknown, &body));
}

// One tunnel carries request after request.
TEST_F(Proxies, TunnelsAreKept) {
    for (std::uint32_t type : {TAV_HTTP_PROXY_HTTP, TAV_HTTP_PROXY_SOCKS5}) {
        SCOPED_TRACE(type);
        ASSERT_TRUE(type == TAV_HTTP_PROXY_HTTP ? start_tinyproxy("") : start_microsocks(nobody));
        library lib;
        char host[] = "127.0.0.1";
        proxy_info info = {type, host, proxy.port(), nullptr, nullptr, nullptr};
        std::string counts;
        for (int i = 0; i < 4; i++) {
            transfer get(server->url("/say"), TAV_HTTP_METHOD_GET, &info);
            EXPECT_EQ(0u, get.run());
            counts += get.header("X-Requests");
        }
        EXPECT_EQ("1234", counts);
    }
}

}  // namespace
