// The pool of idle connections: order, keys, reuse limits, expiry and the sweep.
#include "tavhttpclient/connectionpool.h"

#include <gtest/gtest.h>

#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

http_connection* make(std::uint32_t id, const char* host = "host", std::uint16_t port = 80,
                      std::int32_t is_https = 0, std::uint32_t timeout = 0) {
    auto* conn = static_cast<http_connection*>(calloc(1, sizeof(http_connection)));
    list_init(&conn->open_link);
    conn->id = id;
    conn->host = host != nullptr ? strdup(host) : nullptr;
    conn->port = port;
    conn->is_https = is_https;
    conn->keepalive_timeout = timeout;
    return conn;
}

// Takes a connection out; 0 when there is none. The connection is destroyed.
std::uint32_t take(const char* host = "host", std::uint16_t port = 80, std::int32_t is_https = 0) {
    http_connection* conn = get_connection_from_pool(is_https, host, port);
    std::uint32_t id = conn != nullptr ? conn->id : 0;
    if (conn != nullptr) {
        http_connect_close(conn);
    }
    return id;
}

constexpr const char* sweep = "_cleanup_timeout_connection, ";

TEST(ConnectionPool, GivesTheNewestOfTheSameServerFirst) {
    library lib;
    on_loop([] {
        EXPECT_EQ(0u, take()) << "no pool yet";
        http_connection* keyless[] = {make(6, nullptr), make(7, "host", 0)};
        for (http_connection* conn : keyless) {
            EXPECT_FALSE(add_connection_to_pool(conn)) << conn->id;
            http_connect_close(conn);
        }
        EXPECT_FALSE(add_connection_to_pool(nullptr));
        EXPECT_TRUE(add_connection_to_pool(make(1)));
        EXPECT_TRUE(add_connection_to_pool(make(2, "HOST")));
        EXPECT_TRUE(add_connection_to_pool(make(3, "host", 81)));
        EXPECT_TRUE(add_connection_to_pool(make(4, "host", 80, 1)));
        EXPECT_EQ(0u, take("absent"));
        EXPECT_EQ(0u, take(""));
        EXPECT_EQ(0u, take(nullptr));
        EXPECT_EQ(0u, take("host", 0));
        EXPECT_EQ(2u, take("host")) << "letter case does not count in a host";
        EXPECT_EQ(1u, take("hOST"));
        EXPECT_EQ(0u, take("host"));
        EXPECT_EQ(3u, take("host", 81));
        EXPECT_EQ(4u, take("host", 80, 1));
    });
}

TEST(ConnectionPool, KeepsManyServersApartAndEndsWithTheLoop) {
    library lib;
    on_loop([] {
        // Enough keys for the tree to be rebalanced in every way.
        auto port = [](std::uint16_t i) {
            return static_cast<std::uint16_t>(i * 7919u % 503u + 1u);
        };
        for (std::uint16_t i = 1; i <= 500; i++) {
            EXPECT_TRUE(add_connection_to_pool(make(port(i), "host", port(i), i % 2)));
        }
        for (std::uint16_t i = 1; i <= 499; i++) {
            EXPECT_EQ(port(i), take("host", port(i), i % 2));
        }
    });
    lib.shutdown();
    lib.startup();
    on_loop([] { EXPECT_EQ(0u, take("host", 500 * 7919u % 503u + 1u)); });
}

TEST(ConnectionPool, AReuseLimitIsCountedInHandOuts) {
    library lib;
    log_capture log;
    on_loop([&] {
        http_connection* conn = make(9);
        conn->max_reuse = 3;
        for (std::uint32_t uses = 1; uses <= 3; uses++) {
            ASSERT_TRUE(add_connection_to_pool(conn));
            ASSERT_EQ(conn, get_connection_from_pool(0, "host", 80));
            EXPECT_EQ(uses, conn->reuse_count);
        }
        ASSERT_TRUE(add_connection_to_pool(conn));
        ASSERT_TRUE(add_connection_to_pool(make(8)));
        EXPECT_EQ(8u, take());
        EXPECT_FALSE(log.has_line("http_connect_close, id=9"));
        EXPECT_EQ(0u, take());
        EXPECT_TRUE(log.has_line("http_connect_close, id=9", 3000));
    });
}

TEST(ConnectionPool, IdleConnectionsExpire) {
    library lib;
    log_capture log;
    on_loop([] {
        ASSERT_TRUE(add_connection_to_pool(make(1)));
        ASSERT_TRUE(add_connection_to_pool(make(2, "host", 80, 0, 2000)));
    });
    advance_clock(9000);
    on_loop([&] {
        // The newer one is past its own time; the one behind it, with 10 seconds, is not.
        http_connection* conn = get_connection_from_pool(0, "host", 80);
        ASSERT_NE(nullptr, conn);
        EXPECT_EQ(1u, conn->id);
        EXPECT_TRUE(log.has_line("http_connect_close, id=2", 3000));
        ASSERT_TRUE(add_connection_to_pool(conn));
    });
    advance_clock(11000);
    on_loop([&] {
        EXPECT_EQ(0u, take());
        EXPECT_TRUE(log.has_line("http_connect_close, id=1", 3000));
        EXPECT_EQ(0u, log.count(sweep)) << "swept before 30 seconds were over";
    });
}

TEST(ConnectionPool, LookupsSweepAllServersOnceInThirtySeconds) {
    library lib;
    log_capture log;
    on_loop([] {
        for (std::uint32_t id = 1; id <= 4; id++) {
            http_connection* conn =
                make(id, id % 2 == 0 ? "even" : "odd", 80, 0, id <= 3 ? 1000 : 100000);
            conn->max_reuse = 1;
            conn->reuse_count = id == 4 ? 1 : 0;  // used up, which is no matter of the sweep
            ASSERT_TRUE(add_connection_to_pool(conn));
        }
    });
    auto look_up_after = [&](std::int64_t ms) {
        advance_clock(ms);
        on_loop([] { EXPECT_EQ(0u, take("absent")); });
        return log.count(sweep, 2000);
    };
    EXPECT_EQ(0u, look_up_after(29000));
    EXPECT_EQ(1u, look_up_after(2000));
    EXPECT_TRUE(log.has_line(std::string(sweep) + "clean=3, total=4, cache-hit=0/1"));
    EXPECT_FALSE(log.has_line("http_connect_close, id=4"));
    on_loop([] {
        ASSERT_TRUE(add_connection_to_pool(make(5, "later")));
        EXPECT_EQ(5u, take("later"));
    });
    EXPECT_EQ(1u, look_up_after(20000));
    EXPECT_EQ(2u, look_up_after(11000));
    EXPECT_TRUE(log.has_line(std::string(sweep) + "clean=0, total=1, cache-hit=1/4"));
    EXPECT_EQ(nullptr, get_connection_from_pool(0, "", 80));
    EXPECT_EQ(1u, log.count("function=get_connection_from_pool", 1000)) << "on another thread";
}

}  // namespace
