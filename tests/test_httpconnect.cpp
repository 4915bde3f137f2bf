// Connections for sessions: ids, reuse, the codes of failures, and closes at every stage.
#include "tavhttpclient/httpconnect.h"

#include <gtest/gtest.h>

#include "tavhttpclient/netbasehttp.h"
#include "tavhttpclient/session_record.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

std::string hello(const received_request&) {
    return response(200, "hello", "Connection: keep-alive\r\n");
}

TEST(HttpConnect, IdsCountFromTwoAndStayWithAReusedConnection) {
    library lib;
    for (std::uint32_t hidden : {0u, 1u}) {
        log_capture log;
        scripted_server server{request_handler(hello)};
        for (std::uint32_t no_reuse : {0u, 0u, 1u}) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_NO_REUSE, no_reuse);
            get.set(TAV_HTTP_OPTION_HIDE_URL, hidden);
            EXPECT_EQ(0u, get.run());
        }
        std::string url = ", url=" + (hidden != 0 ? "*" : server.url());
        std::string first = "conn-id=" + std::to_string(2 + 2 * hidden);
        std::string second = "conn-id=" + std::to_string(3 + 2 * hidden);
        std::string start = "http_connect_start, ", proxy = ", proxy-type=0, proxy-host=(null):0";
        for (const std::string& line :
             {start + first + url + proxy, start + second + url + proxy,
              start + "use pooled connection, " + first + url + ", reuse=1"}) {
            EXPECT_EQ(1u, log.count(line, 2000)) << line;
        }
        EXPECT_EQ(hidden == 0, log.has_line(server.url()));
        EXPECT_EQ(2u, server.connection_count());
    }
}

TEST(HttpConnect, EveryWayToFailHasItsCode) {
    library lib;
    log_capture log;
    std::string closed = "http://127.0.0.1:" + std::to_string(refusing_port()) + "/";
    char host[] = "127.0.0.1";
    proxy_info dead{1, host, refusing_port(), nullptr, nullptr, nullptr};
    const struct {
        std::string url;
        const proxy_info* proxy;
        std::uint32_t code;
        const char* line;
    } rows[] = {
        {closed, nullptr, 0x80007, "_direct_connect_result, failed, status="},
        {"http://x/", &dead, 0x80007, "_http_proxy_connect_result, failed, result="},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url + row.line);
        transfer get(row.url, TAV_HTTP_METHOD_GET, row.proxy);
        EXPECT_EQ(row.code, get.run());
        EXPECT_TRUE(log.has_line(row.line, 2000));
    }
    // Without a TLS module https fails before any lookup.
    tls_ops* ops = nullptr;
    on_loop([&] {
        ops = get_tls_ops();
        set_tls_ops(nullptr);
    });
    {
        log_capture own;
        transfer get("https://nowhere/");
        EXPECT_EQ(0x40004u, get.run());
        EXPECT_TRUE(own.has_line("_on_async_start_connect, not support https, url=nowhere", 2000));
        EXPECT_FALSE(own.has_line("_on_dns_result"));
    }
    on_loop([&] { set_tls_ops(ops); });
}

TEST(HttpConnect, RefusesUnreadableUrlsAndOtherThreads) {
    library lib;
    log_capture log;
    on_loop([] {
        EXPECT_EQ(0x20001u,
                  http_connect_start("nonsense", nullptr, nullptr, 0, false, false, nullptr, 0));
        EXPECT_FALSE(http_connect_close(nullptr));
    });
    EXPECT_EQ(1u, log.count("http_connect_start, analyze_url fail, url=", 2000));
    http_connection conn{};
    EXPECT_FALSE(http_connect_close(&conn));
    EXPECT_EQ(0, conn.closed);
    EXPECT_TRUE(log.has_line("http_connect_close, invalid calling thread.", 1000));
}

// The end of the loop closes connections at any stage; their results must never come.
TEST(HttpConnect, WhatIsClosedAtAnyStageStaysClosed) {
    lookup_release release;
    log_capture log;
    library lib;
    scripted_server server{script{}};
    set_name("hang", {"127.0.0.1"});
    http_session* session =
        tavHTTPOpen(TAV_HTTP_METHOD_GET, "http://h/", nullptr, nullptr,
                    [](http_session*, void*, std::uint32_t) { ADD_FAILURE() << "called back"; });
    auto start = [&](const std::string& host) {
        std::string url = "http://" + host + ":" + std::to_string(server.port()) + "/";
        EXPECT_EQ(
            0u, http_connect_start(url.c_str(), nullptr, session, 60000, true, false, nullptr, 0));
    };
    on_loop([&] {
        start("127.0.0.1");
        http_connect_close_all();
        start("hang");
    });
    ASSERT_TRUE(wait_until([] { return hanging_lookups() == 1; }));
    on_loop([] { http_connect_close_all(); });
    release_lookups();
    // While the sockets connect, and in the middle of a TLS handshake.
    blackhole_listener deaf;
    scripted_server silent{script{stall()}};
    auto start_at = [&](const std::string& url, const std::function<bool()>& reached) {
        on_loop([&] {
            EXPECT_EQ(0u, http_connect_start(url.c_str(), nullptr, session, 60000, true, false,
                                             nullptr, 0));
        });
        EXPECT_TRUE(wait_until(reached)) << url;
        on_loop([] { http_connect_close_all(); });
    };
    start_at(deaf.url(), [&] { return log.has_line("conn6=(nil)"); });
#if TAV_HTTP_WITH_TLS
    start_at("https" + silent.url().substr(4), [&] { return silent.connection_count() == 1; });
    EXPECT_TRUE(silent.wait_for_disconnects(1));
#endif
    tavHTTPClose(session);
    lib.shutdown();
    EXPECT_EQ(0u, server.connection_count()) << "closed while the name was looked up";
    EXPECT_FALSE(log.has_line("_notify_connection_result, "));
}

// The attempt that never began holds the result, for longer than any budget.
TEST(HttpConnect, ACancelEndsAnEstablishmentThatLostOneAttempt) {
    library lib;
    log_capture log;
    scripted_server server{script{}};
    set_name("both", {"127.0.0.1", "::1"});
    fakes().connect_error6 = UV_ENETUNREACH;
    transfer get("http://both:" + std::to_string(server.port()) + "/");
    get.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, 5000);
    ASSERT_EQ(0u, get.send());
    ASSERT_TRUE(log.wait_for_line("_on_connect_result, wait connect complete"));
    advance_clock(20000);
    ASSERT_TRUE(server.wait_for_connections(1));
    EXPECT_FALSE(get.completed());
    get.cancel();
    EXPECT_EQ(2u, get.wait());
    EXPECT_TRUE(server.wait_for_disconnects(1));
}

}  // namespace
