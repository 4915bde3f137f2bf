// Name resolution, the connect race, their time-outs, and the one-shot read.
#include "tavhttpclient/uvhelper.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>

#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvread.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

struct connect_result {
    std::atomic<int> calls{0};
    std::uint32_t status = 0;
    uv_tcp_t* tcp = nullptr;
    std::string address;  // "none" without one

    bool wait() {
        return wait_until([this] { return calls == 1; });
    }
    void close() {
        on_loop([&] { close_uv_tcp(&tcp); });
    }
};

void on_connected(std::uint32_t status, uv_tcp_t* tcp, const sockaddr_storage* address,
                  void* user) {
    auto* result = static_cast<connect_result*>(user);
    char text[64] = "none";
    if (address != nullptr) {
        sockaddr_to_text(reinterpret_cast<const sockaddr*>(address), text);
    }
    result->status = status;
    result->tcp = tcp;
    result->address = text;
    result->calls++;
}

std::uint32_t start_connect(connect_result& result, const std::string& host, std::uint16_t port,
                            std::int32_t timeout) {
    std::uint32_t code = 1;
    on_loop([&] {
        code = uv_connect_timeout(host.c_str(), port, timeout, &result, on_connected, nullptr);
        EXPECT_EQ(0, result.calls) << "reported from inside the call";
    });
    return code;
}

TEST(UvConnect, TriesTheFirstAddressOfEachFamily) {
    library lib;
    log_capture log;
    scripted_server server4{script{}};
    scripted_server server6{script{}, server_options{true, 0}};
    set_name("both", {"::1", "127.0.0.1"});
    set_name("odd-order", {"::1", "fd00::9", "127.0.0.1", "127.0.0.9"});
    set_name("first-is-dead", {"127.0.0.2", "127.0.0.1"});
    set_name("nowhere", {});
    const struct {
        const char* host;
        std::uint16_t port;
        std::uint32_t code;
        const char* address;
    } rows[] = {
        {"127.0.0.1", server4.port(), 0, "127.0.0.1"},
        {"both", server4.port(), 0, "127.0.0.1"},
        {"both", server6.port(), 0, "::1"},
        {"odd-order", server4.port(), 0, "127.0.0.1"},
        {"127.0.0.1", refusing_port(), 0x80007, "127.0.0.1"},
        {"::1", refusing_port(), 0x80007, "::1"},
        {"first-is-dead", server4.port(), 0x80007, "127.0.0.2"},
        {"nowhere", 80, 0x80014, ""},
    };
    for (const auto& row : rows) {
        for (std::int32_t timeout : {0, 5000}) {
            SCOPED_TRACE(std::string(row.host) + " to " + row.address);
            connect_result result;
            ASSERT_EQ(0u, start_connect(result, row.host, row.port, timeout));
            ASSERT_TRUE(result.wait());
            EXPECT_EQ(row.code, result.status);
            EXPECT_EQ(row.code == 0, result.tcp != nullptr);
            EXPECT_EQ(row.address, result.address);
            result.close();
        }
    }
    // One family only: the other attempt was not made.
    EXPECT_TRUE(log.has_line("host=127.0.0.1, ipv4=0, ipv6=-1", 2000));
    EXPECT_TRUE(log.has_line("dns ok, host=127.0.0.1, v4=127.0.0.1, v6=::, time=", 2000));
    EXPECT_EQ(7u, log.count("_start_connect, without timeout, ctx=", 2000));
}

TEST(UvConnect, TheLoserIsCancelledBeforeTheWinnerIsReported) {
    library lib;
    descriptor_guard descriptors;
    log_capture log;
    {
        // On ::1 somebody listens at the port at which nobody answers on 127.0.0.1.
        blackhole_listener deaf;
        sockaddr_in6 address{AF_INET6, htons(deaf.port()), 0, in6addr_loopback, 0};
        int listener = socket(AF_INET6, SOCK_STREAM, 0);
        ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        ASSERT_EQ(0, listen(listener, 4));
        set_name("both", {"127.0.0.1", "::1"});
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, "both", deaf.port(), 30000));
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(0u, result.status);
        EXPECT_EQ("::1", result.address);
        result.close();
        close(listener);
    }
    std::string order;
    for (const log_line& line : log.lines()) {
        for (const char* part : {"wait connect complete", "ipv4 connect fail", "success"}) {
            order += line.text.find(std::string("_on_connect_result, ") + part) == 0
                         ? std::string(part) + ";"
                         : "";
        }
    }
    EXPECT_EQ("wait connect complete;ipv4 connect fail;success;", order);
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(UvConnect, TheConnectTimeOutHasAtLeastASecondAndReadsAsAFailure) {
    library lib;
    log_capture log;
    blackhole_listener deaf;
    connect_result result;
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0u, start_connect(result, "127.0.0.1", deaf.port(), 50));
    ASSERT_TRUE(result.wait());
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(0x80007u, result.status);
    EXPECT_EQ("127.0.0.1", result.address);
    EXPECT_GE(elapsed, milliseconds(950));
    EXPECT_TRUE(log.has_line("timeout=1000 ms, host=127.0.0.1", 2000));
    EXPECT_EQ(1u, log.count("_on_connect_timeout, ", 2000));
    EXPECT_EQ(1u, log.count("ipv4 connect fail", 2000));
}

TEST(UvConnect, FailuresBeforeAnyAttemptEndAtOnce) {
    const struct {
        int open_error, connect_error;
        std::uint32_t code;
        const char* line;
    } rows[] = {
        {UV_EINVAL, 0, 0x80001, "_start_connect, uv_client_tcp_init failed."},
        {0, UV_ENETUNREACH, 0x80007, "_start_connect, uv_tcp_connect failed, host=both."},
    };
    library lib;
    descriptor_guard descriptors;
    set_name("both", {"127.0.0.1", "::1"});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        log_capture log;
        fakes().open_error = row.open_error;
        fakes().connect_error4 = fakes().connect_error6 = row.connect_error;
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, "both", 80, 5000));
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(row.code, result.status);
        EXPECT_EQ("127.0.0.1", result.address);
        EXPECT_EQ(row.open_error != 0 ? 2u : 1u, log.count(row.line, 2000));
        EXPECT_TRUE(descriptors.back_to_start());
    }
}

// The fixed time-out of one read, here in an exchange with a proxy.
TEST(UvRecv, SilenceEndsAfterThirtySeconds) {
    library lib;
    log_capture log;
    scripted_server server{script{read_bytes(3), stall()}};
    char host[] = "127.0.0.1";
    proxy_info proxy{TAV_HTTP_PROXY_SOCKS5, host, server.port(), nullptr, nullptr, nullptr};
    transfer get("http://host.test/", TAV_HTTP_METHOD_GET, &proxy);
    ASSERT_EQ(0u, get.send());
    ASSERT_TRUE(server.wait_for_requests(1));
    advance_clock(29000);
    EXPECT_FALSE(log.has_line("_uv_recv_timeout"));
    // Its read may begin only now; the deadline is one of the same clock.
    ASSERT_TRUE(wait_until(
        [&] {
            advance_clock(2000);
            return get.completed();
        },
        milliseconds(100 * 1000 * 1000)));
    EXPECT_EQ(0x80005u, get.wait());
    EXPECT_TRUE(log.has_line("_uv_recv_timeout", 2000));
}

TEST(UvHelper, BadArgumentsAreRefused) {
    library lib;
    log_capture log;
    connect_result result;
    on_loop([&] {
        EXPECT_EQ(0x20002u, uv_connect_timeout(nullptr, 1, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("", 1, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("a", 0, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("a", 1, 0, &result, nullptr, nullptr));
        EXPECT_EQ(0x100ffu, uv_recv_timeout(nullptr, nullptr, nullptr, nullptr));
    });
    EXPECT_EQ(4u, log.count("function=uv_connect_timeout", 1000));
    EXPECT_EQ(1u, log.count("function=uv_recv_timeout", 1000));
    EXPECT_EQ(0, result.calls);
}

}  // namespace
