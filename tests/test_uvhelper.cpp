// Name resolution, the connect race, their time-outs, and the one-shot read.
#include "tavhttpclient/uvhelper.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <set>

#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

struct connect_result {
    std::atomic<int> calls{0};
    std::uint32_t status = 0;
    uv_tcp_t* tcp = nullptr;
    bool has_address = false;
    sockaddr_storage address{};

    std::string ip() const {
        char text[64] = "";
        sockaddr_to_text(reinterpret_cast<const sockaddr*>(&address), text);
        return text;
    }
    int port() const {
        return ntohs(address.ss_family == AF_INET6
                         ? reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port
                         : reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
    }
    bool wait() {
        return wait_until([this] { return calls == 1; });
    }
};

void on_connected(std::uint32_t status, uv_tcp_t* tcp, const sockaddr_storage* address,
                  void* user) {
    auto* result = static_cast<connect_result*>(user);
    result->status = status;
    result->tcp = tcp;
    result->has_address = address != nullptr;
    if (address != nullptr) {
        result->address = *address;
    }
    result->calls++;
}

std::uint32_t start_connect(connect_result& result, const std::string& host, std::uint16_t port,
                            std::int32_t timeout, uv_connect_cancel_probe probe = nullptr) {
    std::uint32_t code = 1;
    on_loop([&] {
        code = uv_connect_timeout(host.c_str(), port, timeout, &result, on_connected, probe);
        EXPECT_EQ(0, result.calls) << "reported from inside the call";
    });
    return code;
}

void close_result(connect_result& result) {
    on_loop([&] { close_uv_tcp(&result.tcp); });
}

TEST(UvConnect, RefusesWhatCannotBeConnectedTo) {
    library lib;
    log_capture log;
    connect_result result;
    on_loop([&] {
        EXPECT_EQ(0x20002u, uv_connect_timeout(nullptr, 1, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("", 1, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("a", 0, 0, &result, on_connected, nullptr));
        EXPECT_EQ(0x20002u, uv_connect_timeout("a", 1, 0, &result, nullptr, nullptr));
    });
    EXPECT_EQ(4u, log.count("function=uv_connect_timeout", 1000));
    lib.shutdown();
    EXPECT_EQ(0, result.calls);
}

TEST(UvConnect, ConnectsOverTheFamilyThatAnswers) {
    library lib;
    log_capture log;
    scripted_server server4{script{}};
    server_options six;
    six.ipv6 = true;
    scripted_server server6{script{}, six};
    set_name("both", {"::1", "127.0.0.1"});
    set_name("odd-order", {"::1", "fd00::9", "127.0.0.1", "127.0.0.9"});

    struct {
        const char* host;
        scripted_server* server;
        const char* ip;
    } rows[] = {
        {"127.0.0.1", &server4, "127.0.0.1"}, {"::1", &server6, "::1"},
        {"both", &server4, "127.0.0.1"},      {"both", &server6, "::1"},
        {"odd-order", &server4, "127.0.0.1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.host) + " " + row.ip);
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, row.host, row.server->port(), 5000));
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(0u, result.status);
        EXPECT_NE(nullptr, result.tcp);
        EXPECT_EQ(row.ip, result.ip());
        EXPECT_EQ(row.server->port(), result.port());
        close_result(result);
    }
    // One family only: the other attempt was not made.
    EXPECT_TRUE(log.has_line("host=127.0.0.1, ipv4=0, ipv6=-1", 2000));
    EXPECT_TRUE(log.has_line("dns ok, host=127.0.0.1, v4=127.0.0.1, v6=::, time=", 2000));
}

TEST(UvConnect, FailuresNameTheirCodeAndTheAddressTried) {
    library lib;
    scripted_server server{script{}};
    std::uint16_t closed = refusing_port();
    // Only the first address of a family is tried, though the second would answer.
    set_name("first-is-dead", {"127.0.0.2", "127.0.0.1"});
    set_name("nowhere", {});
    struct {
        const char* host;
        std::uint16_t port;
        std::uint32_t code;
        const char* ip;
    } rows[] = {
        {"127.0.0.1", closed, 0x80007, "127.0.0.1"},
        {"::1", closed, 0x80007, "::1"},
        {"first-is-dead", server.port(), 0x80007, "127.0.0.2"},
        {"nowhere", server.port(), 0x80014, ""},
        {"no such name", server.port(), 0x80014, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host);
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, row.host, row.port, 5000));
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(row.code, result.status);
        EXPECT_EQ(nullptr, result.tcp);
        ASSERT_TRUE(result.has_address);
        EXPECT_EQ(row.ip, result.ip());
    }
}

// A listener on ::1 whose port is that of the deaf one on 127.0.0.1; -1 when the port is taken.
int listen6(std::uint16_t port) {
    int sock = socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(port);
    if (bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(sock, 4) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

TEST(UvConnect, TheLoserIsCancelledBeforeTheWinnerIsReported) {
    library lib;
    descriptor_guard descriptors;
    log_capture log;
    {
        blackhole_listener deaf;
        int listener = listen6(deaf.port());
        ASSERT_NE(-1, listener);
        set_name("both", {"127.0.0.1", "::1"});
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, "both", deaf.port(), 30000));
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(0u, result.status);
        EXPECT_EQ("::1", result.ip());
        close_result(result);
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
    EXPECT_EQ("127.0.0.1", result.ip());
    EXPECT_GE(elapsed, milliseconds(950));
    EXPECT_TRUE(log.has_line("timeout=1000 ms, host=127.0.0.1", 2000));
    EXPECT_EQ(1u, log.count("_on_connect_timeout, ", 2000));
    EXPECT_EQ(1u, log.count("ipv4 connect fail", 2000));
}

TEST(UvConnect, WithoutABudgetNoTimerRuns) {
    library lib;
    log_capture log;
    scripted_server server{script{}};
    connect_result result;
    ASSERT_EQ(0u, start_connect(result, "127.0.0.1", server.port(), 0));
    ASSERT_TRUE(result.wait());
    EXPECT_EQ(0u, result.status);
    EXPECT_TRUE(log.has_line("_start_connect, without timeout, ctx=", 2000));
    close_result(result);
}

TEST(UvConnect, ASlowLookupIsReportedAtOnceAndFreedLater) {
    library lib;
    log_capture log;
    lookup_release release;
    connect_result result;
    ASSERT_EQ(0u, start_connect(result, "hang", 80, 100));
    ASSERT_TRUE(result.wait());
    EXPECT_EQ(0x80004u, result.status);
    EXPECT_EQ(nullptr, result.tcp);
    EXPECT_FALSE(result.has_address);
    release_lookups();
    EXPECT_TRUE(log.wait_for_line("_on_dns_result, callback is NULL means timeout"));
    EXPECT_EQ(1, result.calls);
}

TEST(UvConnect, NoSocketOfAnyFamilyIsItsOwnCode) {
    library lib;
    descriptor_guard descriptors;
    log_capture log;
    set_name("both", {"127.0.0.1", "::1"});
    fakes().open_error = UV_EINVAL;
    connect_result result;
    ASSERT_EQ(0u, start_connect(result, "both", 80, 5000));
    ASSERT_TRUE(result.wait());
    EXPECT_EQ(0x80001u, result.status);
    EXPECT_EQ("127.0.0.1", result.ip());
    EXPECT_EQ(2u, log.count("_start_connect, uv_client_tcp_init failed.", 2000));
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(UvConnect, BothAttemptsRefusedByLibuvEndAtOnce) {
    library lib;
    log_capture log;
    set_name("both", {"127.0.0.1", "::1"});
    fakes().connect_error4 = UV_ENETUNREACH;
    fakes().connect_error6 = UV_ENETUNREACH;
    connect_result result;
    ASSERT_EQ(0u, start_connect(result, "both", 80, 5000));
    ASSERT_TRUE(result.wait());
    EXPECT_EQ(0x80007u, result.status);
    EXPECT_TRUE(log.has_line("_start_connect, uv_tcp_connect failed, host=both.", 2000));
}

std::atomic<bool> cancelled{false};

bool is_cancelled(void*) {
    return cancelled;
}

TEST(UvConnect, AnAttemptThatNeverBeganHoldsTheResultUntilTheUserIsCancelled) {
    library lib;
    descriptor_guard descriptors;
    log_capture log;
    {
        scripted_server server{script{}};
        set_name("both", {"127.0.0.1", "::1"});
        fakes().connect_error6 = UV_ENETUNREACH;
        connect_result result;
        ASSERT_EQ(0u, start_connect(result, "both", server.port(), 5000, is_cancelled));
        ASSERT_TRUE(log.wait_for_line("_on_connect_result, wait connect complete"));
        // Long past its budget, and past many turns of the loop, nothing is reported.
        advance_clock(20000);
        ASSERT_TRUE(server.wait_for_connections(1));
        EXPECT_EQ(0, result.calls);
        cancelled = true;
        ASSERT_TRUE(result.wait());
        EXPECT_EQ(0x80007u, result.status);
        EXPECT_EQ(nullptr, result.tcp);
        EXPECT_TRUE(server.wait_for_disconnects(1));
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(UvConnect, TheEndOfTheLoopLeavesOnlyRunningLookupsBehind) {
    library lib;
    log_capture log;
    lookup_release release;
    // Half of libuv's four workers take lookups; the third has to queue.
    connect_result results[3];
    for (connect_result& result : results) {
        ASSERT_EQ(0u, start_connect(result, "hang", 80, 60000));
    }
    ASSERT_TRUE(wait_until([] { return hanging_lookups() == 2; }));
    on_loop([] {
        EXPECT_EQ(2, uv_connect_abandon_lookups());
        EXPECT_EQ(2, uv_connect_abandon_lookups());
    });
    std::multiset<std::uint32_t> codes;
    for (connect_result& result : results) {
        ASSERT_TRUE(result.wait());
        codes.insert(result.status);
    }
    EXPECT_EQ((std::multiset<std::uint32_t>{0x80004, 0x80004, 0x80014}), codes);
    release_lookups();
    EXPECT_TRUE(wait_until([&] { return log.count("callback is NULL means timeout") == 2; }));
    on_loop([] { EXPECT_EQ(0, uv_connect_abandon_lookups()); });
}

TEST(UvConnect, AHungLookupDoesNotHoldUpTheShutdown) {
    log_capture log;
    lookup_release release;
    connect_result result;
    library lib;
    ASSERT_EQ(0u, start_connect(result, "hang", 80, 600000));
    ASSERT_TRUE(wait_until([] { return hanging_lookups() == 1; }));
    lib.shutdown();
    EXPECT_EQ(1, result.calls);

    // The next loop does not count it among its own.
    lib.startup();
    connect_result other;
    ASSERT_EQ(0u, start_connect(other, "no such name", 80, 5000));
    ASSERT_TRUE(other.wait());
    on_loop([] { EXPECT_EQ(0, uv_connect_abandon_lookups()); });
    lib.shutdown();

    release_lookups();
    ASSERT_TRUE(wait_until([] { return hanging_lookups() == 0; }));
    // Each start clears away what the loops before it had to leave.
    EXPECT_TRUE(wait_until([&] {
        lib.startup();
        lib.shutdown();
        return log.has_line("callback is NULL means timeout");
    }));
}

// ------------------------------------------------------------------------------ one-shot read

struct reader {
    uv_io_ctx* ctx = nullptr;
    text_buffer buffer{nullptr, 0, 0};
    connect_result link;
    std::atomic<int> reads{0};
    std::uint32_t status = 0;

    explicit reader(std::uint16_t port) {
        EXPECT_EQ(0u, start_connect(link, "127.0.0.1", port, 5000));
        EXPECT_TRUE(link.wait());
        on_loop([this] {
            ctx = uv_io_ctx_new();
            ctx->owner = this;
        });
    }
    ~reader() {
        on_loop([this] {
            close_uv_tcp(&link.tcp);
            uv_io_ctx_free(ctx);
            text_buffer_release(&buffer);
        });
    }
    static void on_read(std::uint32_t status, uv_io_ctx* ctx, text_buffer*) {
        auto* self = static_cast<reader*>(ctx->owner);
        self->status = status;
        self->reads++;
    }
    std::uint32_t start() {
        std::uint32_t code = 1;
        on_loop([&] {
            code = uv_recv_timeout(reinterpret_cast<uv_stream_t*>(link.tcp), ctx, &buffer, on_read);
        });
        return code;
    }
    std::string bytes() const {
        return std::string(buffer.data != nullptr ? buffer.data : "",
                           static_cast<std::size_t>(buffer.length));
    }
};

TEST(UvRecv, EachReadBringsItsOwnBytesThenTheClose) {
    library lib;
    scripted_server server{
        script{send_text("first"), read_bytes(1), send_text("2nd"), read_bytes(1), close_now()}};
    reader io(server.port());
    const char* expected[] = {"first", "2nd", ""};
    uv_timer_t* timer = nullptr;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(0u, io.start());
        ASSERT_TRUE(wait_until([&] { return io.reads == i + 1; }));
        EXPECT_EQ(0u, io.status);
        EXPECT_EQ(expected[i], io.bytes());
        on_loop([&] {
            EXPECT_TRUE(timer == nullptr || timer == io.ctx->timer);
            timer = io.ctx->timer;
            uv_buf_t go = uv_buf_init(const_cast<char*>("g"), 1);
            uv_try_write(reinterpret_cast<uv_stream_t*>(io.link.tcp), &go, 1);
        });
    }
}

TEST(UvRecv, SilenceEndsAfterThirtySecondsAndTheStreamStaysUsable) {
    library lib;
    log_capture log;
    scripted_server server{script{stall(), send_text("late")}};
    reader io(server.port());
    ASSERT_EQ(0u, io.start());
    advance_clock(29000);
    on_loop([&] { EXPECT_EQ(0, io.reads); });
    advance_clock(2000);
    ASSERT_TRUE(wait_until([&] { return io.reads == 1; }));
    EXPECT_EQ(0x80005u, io.status);
    EXPECT_TRUE(log.has_line("_uv_recv_timeout", 2000));
    ASSERT_EQ(0u, io.start());
    server.release();
    ASSERT_TRUE(wait_until([&] { return io.reads == 2; }));
    EXPECT_EQ(0u, io.status);
    EXPECT_EQ("late", io.bytes());
}

TEST(UvRecv, ABrokenConnectionAndBadArgumentsAreErrors) {
    library lib;
    log_capture log;
    scripted_server server{script{stall(), reset()}};
    reader io(server.port());
    on_loop([&] {
        auto* stream = reinterpret_cast<uv_stream_t*>(io.link.tcp);
        EXPECT_EQ(0x100ffu, uv_recv_timeout(nullptr, io.ctx, &io.buffer, reader::on_read));
        EXPECT_EQ(0x100ffu, uv_recv_timeout(stream, nullptr, &io.buffer, reader::on_read));
        EXPECT_EQ(0x100ffu, uv_recv_timeout(stream, io.ctx, nullptr, reader::on_read));
        EXPECT_EQ(0x100ffu, uv_recv_timeout(stream, io.ctx, &io.buffer, nullptr));
    });
    EXPECT_EQ(4u, log.count("function=uv_recv_timeout", 1000));
    ASSERT_EQ(0u, io.start());
    server.release();
    ASSERT_TRUE(wait_until([&] { return io.reads == 1; }));
    EXPECT_EQ(0x80009u, io.status);
    EXPECT_EQ(0, io.buffer.length);
}

}  // namespace
