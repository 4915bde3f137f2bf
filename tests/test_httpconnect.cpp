// Connections for sessions: ids, reuse, the codes of failures, and closes at every stage.
#include "tavhttpclient/httpconnect.h"

#include <gtest/gtest.h>

#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/netbasehttp.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

std::string hello(const received_request&) {
    return response(200, "hello", "Connection: keep-alive\r\n");
}

TEST(HttpConnect, IdsCountFromTwoAndStayWithAReusedConnection) {
    library lib;
    log_capture log;
    scripted_server server{request_handler(hello)};
    auto fetch = [&](bool no_reuse) {
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_NO_REUSE, no_reuse ? 1u : 0u);
        EXPECT_EQ(0u, get.run());
    };
    fetch(false);
    fetch(false);
    fetch(true);
    EXPECT_EQ(1u, log.count("http_connect_start, conn-id=2, url=" + server.url(), 2000));
    EXPECT_EQ(1u, log.count("http_connect_start, use pooled connection, conn-id=2, url=" +
                                server.url() + ", reuse=1",
                            2000));
    EXPECT_EQ(1u, log.count("http_connect_start, conn-id=3, url=", 2000));
    EXPECT_TRUE(log.has_line("proxy-type=0, proxy-host=(null):0", 2000));
    EXPECT_EQ(2u, server.connection_count());
}

TEST(HttpConnect, AHiddenUrlStaysOutOfTheLog) {
    library lib;
    log_capture log;
    scripted_server server{request_handler(hello)};
    for (int i = 0; i < 2; i++) {
        transfer get(server.url("/secret"));
        get.set(TAV_HTTP_OPTION_HIDE_URL, 1u);
        EXPECT_EQ(0u, get.run());
    }
    EXPECT_EQ(1u, log.count("http_connect_start, conn-id=2, url=*, proxy-type=0", 2000));
    EXPECT_EQ(1u, log.count("http_connect_start, use pooled connection, conn-id=2, url=*, reuse=1",
                            2000));
    EXPECT_FALSE(log.has_line("url=" + server.url("/secret")));
}

TEST(HttpConnect, EveryWayToFailHasItsCode) {
    library lib;
    log_capture log;
    set_name("nowhere", {});
    std::string closed = "http://127.0.0.1:" + std::to_string(refusing_port()) + "/";
    char empty[] = "";
    char host[] = "127.0.0.1";
    proxy_info no_host{1, empty, 80, nullptr, nullptr, nullptr};
    proxy_info no_port{2, host, 0, nullptr, nullptr, nullptr};
    proxy_info unknown{3, host, 80, nullptr, nullptr, nullptr};
    proxy_info dead{1, host, refusing_port(), nullptr, nullptr, nullptr};
    struct {
        std::string url;
        const proxy_info* proxy;
        std::uint32_t code;
        const char* line;
    } rows[] = {
        {"http://nowhere/", nullptr, 0x80007, "_direct_connect_result, failed, status="},
        {closed, nullptr, 0x80007, "_direct_connect_result, failed, status="},
        {"http://x/", &no_host, 0x20003,
         "_on_async_start_connect, invalid proxy info, "
         "proxy-type=1."},
        {"http://x/", &no_port, 0x20003, "invalid proxy info, proxy-type=2."},
        {"http://x/", &unknown, 0x20003, "invalid proxy info, proxy-type=3."},
        {"http://x/", &dead, 0x80007, "_http_proxy_connect_result, failed, result="},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        transfer get(row.url, TAV_HTTP_METHOD_GET, row.proxy);
        EXPECT_EQ(row.code, get.run());
        EXPECT_TRUE(log.has_line(row.line, 2000));
    }
}

TEST(HttpConnect, WithoutATlsModuleHttpsFailsBeforeAnyLookup) {
    library lib;
    log_capture log;
    tls_ops* ops = nullptr;
    on_loop([&] {
        ops = get_tls_ops();
        set_tls_ops(nullptr);
    });
    {
        transfer get("https://nowhere/");
        EXPECT_EQ(0x40004u, get.run());
    }
    EXPECT_TRUE(log.has_line("_on_async_start_connect, not support https, url=nowhere", 2000));
    EXPECT_FALSE(log.has_line("_on_dns_result"));
    on_loop([&] { set_tls_ops(ops); });
}

TEST(HttpConnect, AUrlThatCannotBeReadIsRefusedAtOnce) {
    library lib;
    log_capture log;
    on_loop([] {
        for (const char* url : {static_cast<const char*>(nullptr), "", "http://", "nonsense"}) {
            EXPECT_EQ(0x20001u,
                      http_connect_start(url, nullptr, nullptr, 0, false, false, nullptr, 0));
        }
        EXPECT_FALSE(http_connect_close(nullptr));
    });
    EXPECT_EQ(4u, log.count("http_connect_start, analyze_url fail, url=", 2000));
}

TEST(HttpConnect, ACloseOnAnotherThreadIsRefused) {
    library lib;
    log_capture log;
    http_connection conn{};
    EXPECT_FALSE(http_connect_close(&conn));
    EXPECT_EQ(0, conn.closed);
    EXPECT_TRUE(log.has_line("http_connect_close, invalid calling thread.", 1000));
}

// Starts a connection for a session that was never sent; its result must never come.
http_session* start_for_idle_session(const std::string& url, std::int32_t timeout) {
    http_session* session =
        tavHTTPOpen(TAV_HTTP_METHOD_GET, url.c_str(), nullptr, nullptr,
                    [](http_session*, void*, std::uint32_t) { ADD_FAILURE() << "called back"; });
    on_loop([&] {
        EXPECT_EQ(0u, http_connect_start(url.c_str(), nullptr, session, timeout, true, false,
                                         nullptr, 0));
    });
    return session;
}

void close_all() {
    on_loop([] { http_connect_close_all(); });
}

TEST(HttpConnect, AllIsClosedWhateverStageAConnectionIsIn) {
    descriptor_guard descriptors;
    log_capture log;
    lookup_release release;
    library lib;
    {
        scripted_server silent{script{stall()}};
        blackhole_listener deaf;
        struct {
            std::string url;
            std::function<bool()> reached;
        } rows[] = {
            {"http://hang/", [] { return hanging_lookups() == 1; }},
            {deaf.url(), [&] { return log.has_line("ipv4=0, ipv6=-1"); }},
#if TAV_HTTP_WITH_TLS
            // In the handshake, waiting for the server's answer.
            {"https" + silent.url().substr(4), [&] { return silent.connection_count() == 1; }},
#endif
        };
        std::vector<http_session*> sessions;
        for (const auto& row : rows) {
            sessions.push_back(start_for_idle_session(row.url, 60000));
            ASSERT_TRUE(wait_until(row.reached)) << row.url;
            close_all();
        }
        // Before its first step has run.
        http_session* session = start_for_idle_session("http://127.0.0.1/", 60000);
        sessions.push_back(session);
        on_loop([&] {
            EXPECT_EQ(0u, http_connect_start("http://127.0.0.1/", nullptr, session, 60000, true,
                                             false, nullptr, 0));
            http_connect_close_all();
        });
        EXPECT_TRUE(silent.wait_for_disconnects(silent.connection_count()));
        for (http_session* opened : sessions) {
            tavHTTPClose(opened);
        }
        // The attempts that nobody waits for any more do not hold up the end.
        lib.shutdown();
    }
    EXPECT_FALSE(log.has_line("_notify_connection_result, "));
    release_lookups();
    ASSERT_TRUE(wait_until([&] {
        lib.startup();
        lib.shutdown();
        return log.has_line("callback is NULL means timeout");
    }));
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(HttpConnect, AConnectThatSucceedsAfterTheCloseIsClosedToo) {
    lookup_release release;
    library lib;
    scripted_server server{script{}};
    set_name("hang", {"127.0.0.1"});
    http_session* session =
        start_for_idle_session("http://hang:" + std::to_string(server.port()) + "/", 60000);
    ASSERT_TRUE(wait_until([] { return hanging_lookups() == 1; }));
    close_all();
    release_lookups();
    EXPECT_TRUE(server.wait_for_connections(1));
    EXPECT_TRUE(server.wait_for_disconnects(1));
    tavHTTPClose(session);
}

TEST(HttpConnect, ACancelEndsAnEstablishmentThatLostOneAttempt) {
    library lib;
    log_capture log;
    scripted_server server{script{}};
    set_name("both", {"127.0.0.1", "::1"});
    fakes().connect_error6 = UV_ENETUNREACH;
    transfer get("http://both:" + std::to_string(server.port()) + "/");
    ASSERT_EQ(0u, get.send());
    ASSERT_TRUE(log.wait_for_line("_on_connect_result, wait connect complete"));
    EXPECT_FALSE(get.completed());
    get.cancel();
    EXPECT_EQ(2u, get.wait());
    EXPECT_TRUE(server.wait_for_disconnects(1));
}

}  // namespace
