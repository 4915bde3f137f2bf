// The plain transport: one send and one receive at a time, their time-outs, and closes under them.
#include "tavhttpclient/netbasehttp.h"

#include <gtest/gtest.h>

#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/uvhelper.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

// A connection to a scripted server, as the connection layer would make it, and what came of its
// operations. It may be closed under them.
struct wire {
    http_connection* conn = nullptr;
    std::atomic<bool> connected{false};
    std::vector<char> buffer = std::vector<char>(4096);
    std::string sent_bytes;
    std::atomic<int> sends{0};
    std::atomic<int> recvs{0};
    std::uint32_t send_status = 1;
    std::uint32_t recv_status = 1;
    std::string received;
    int recv_again = 0;  // further receives that the callback starts itself

    explicit wire(std::uint16_t port) {
        on_loop([&] {
            conn = static_cast<http_connection*>(calloc(1, sizeof(http_connection)));
            list_init(&conn->open_link);
            conn->id = 77;
            conn->host = strdup("127.0.0.1");
            EXPECT_EQ(0u, uv_connect_timeout("127.0.0.1", port, 5000, this, on_connected, nullptr));
        });
        EXPECT_TRUE(wait_until([this] { return connected.load(); }));
    }
    ~wire() {
        close();
    }
    void close() {
        on_loop([this] {
            if (conn != nullptr) {
                EXPECT_TRUE(http_connect_close(conn));
            }
            conn = nullptr;
        });
    }
    static void on_connected(std::uint32_t status, uv_tcp_t* tcp, const sockaddr_storage*,
                             void* user) {
        auto* self = static_cast<wire*>(user);
        EXPECT_EQ(0u, status);
        self->conn->stream = tcp;
        self->connected = true;
    }
    static void on_sent(http_connection*, void* user, std::uint32_t status) {
        auto* self = static_cast<wire*>(user);
        self->send_status = status;
        self->sends++;
    }
    static void on_received(http_connection* from, void* user, std::uint32_t status, char* data,
                            std::int32_t nread) {
        auto* self = static_cast<wire*>(user);
        self->recv_status = status;
        self->received.append(data, static_cast<std::size_t>(nread));
        EXPECT_TRUE(from->recv_callback == nullptr && from->recv_buf == nullptr);
        if (self->recv_again-- > 0) {
            EXPECT_EQ(0u, http_recv(from, self, self->buffer.data(), 1, 5000, on_received));
        }
        self->recvs++;
    }
    std::uint32_t send(std::string bytes, std::int32_t timeout) {
        sent_bytes = std::move(bytes);
        std::uint32_t code = 1;
        on_loop([&] {
            code = http_send(conn, this, sent_bytes.data(),
                             static_cast<std::int32_t>(sent_bytes.size()), timeout, on_sent);
        });
        return code;
    }
    std::uint32_t recv(std::uint32_t size, std::int32_t timeout) {
        std::uint32_t code = 1;
        on_loop([&] { code = http_recv(conn, this, buffer.data(), size, timeout, on_received); });
        return code;
    }
    bool wait_sent(int count = 1) {
        return wait_until([&] { return sends >= count; });
    }
    bool wait_received(int count = 1) {
        return wait_until([&] { return recvs >= count; });
    }
};

TEST(PlainTransport, RefusesBadArguments) {
    library lib;
    log_capture log;
    scripted_server server{script{}};
    wire io(server.port());
    on_loop([&] {
        char byte = 'x';
        EXPECT_EQ(0x100ffu, http_send(nullptr, nullptr, &byte, 1, 0, wire::on_sent));
        EXPECT_EQ(0x100ffu, http_send(io.conn, nullptr, nullptr, 1, 0, wire::on_sent));
        EXPECT_EQ(0x100ffu, http_send(io.conn, nullptr, &byte, 0, 0, wire::on_sent));
        EXPECT_EQ(0x100ffu, http_send(io.conn, nullptr, &byte, -1, 0, wire::on_sent));
        EXPECT_EQ(0x100ffu, http_send(io.conn, nullptr, &byte, 1, 0, nullptr));
        EXPECT_EQ(0x100ffu, http_recv(nullptr, nullptr, &byte, 1, 0, wire::on_received));
        EXPECT_EQ(0x100ffu, http_recv(io.conn, nullptr, nullptr, 1, 0, wire::on_received));
        EXPECT_EQ(0x100ffu, http_recv(io.conn, nullptr, &byte, 0, 0, wire::on_received));
        EXPECT_EQ(0x100ffu, http_recv(io.conn, nullptr, &byte, 1, 0, nullptr));
    });
    EXPECT_EQ(5u, log.count("function=http_send", 1000));
    EXPECT_EQ(4u, log.count("function=http_recv", 1000));
}

TEST(PlainTransport, CarriesBytesBothWaysAtOnceAndCountsThem) {
    library lib;
    scripted_server server{script{read_bytes(5), send_text("answer"), close_now()}};
    wire io(server.port());
    // Without time-outs there are no timers to stop.
    ASSERT_EQ(0u, io.recv(4, 0));
    ASSERT_EQ(0u, io.send("hello", 0));
    ASSERT_TRUE(io.wait_sent());
    EXPECT_EQ(0u, io.send_status);
    ASSERT_TRUE(io.wait_received());
    EXPECT_EQ("answ", io.received) << "at most the size of the buffer";
    ASSERT_EQ(0u, io.recv(4096, 5000));
    ASSERT_TRUE(io.wait_received(2));
    EXPECT_EQ("answer", io.received);
    ASSERT_EQ(0u, io.recv(4096, 5000));
    ASSERT_TRUE(io.wait_received(3));
    EXPECT_EQ(0u, io.recv_status) << "an orderly close is an empty read";
    EXPECT_EQ("answer", io.received);
    EXPECT_EQ("hello", server.request(0).raw);
    on_loop([] {
        EXPECT_EQ(5u, get_session_stats()->sent_total);
        EXPECT_EQ(6u, get_session_stats()->recv_total);
    });
}

TEST(PlainTransport, ACallbackMayStartTheNextReceive) {
    library lib;
    scripted_server server{script{send_text("abcdef")}};
    wire io(server.port());
    io.recv_again = 5;
    ASSERT_EQ(0u, io.recv(1, 5000));
    ASSERT_TRUE(io.wait_received(6));
    EXPECT_EQ("abcdef", io.received);
}

TEST(PlainTransport, AReceiveTimeOutLeavesTheConnectionUsable) {
    library lib;
    log_capture log;
    scripted_server server{script{stall(), send_text("late")}};
    wire io(server.port());
    ASSERT_EQ(0u, io.recv(10, 50));
    ASSERT_TRUE(io.wait_received());
    EXPECT_EQ(0x80005u, io.recv_status);
    EXPECT_TRUE(log.has_line("_on_recv_timeout, conn-id=77, host=127.0.0.1", 2000));
    ASSERT_EQ(0u, io.recv(10, 5000));
    server.release();
    ASSERT_TRUE(io.wait_received(2));
    EXPECT_EQ(0u, io.recv_status);
    EXPECT_EQ("late", io.received);
}

TEST(PlainTransport, AResetFailsTheReceive) {
    library lib;
    log_capture log;
    scripted_server server{script{stall(), reset()}};
    wire io(server.port());
    ASSERT_EQ(0u, io.recv(10, 5000));
    server.release();
    ASSERT_TRUE(io.wait_received());
    EXPECT_EQ(0x80009u, io.recv_status);
    EXPECT_EQ("", io.received);
    EXPECT_TRUE(log.has_line("_on_recv_response, failed, conn-id=77, read=", 2000));
    // What is sent into a dead connection fails as well; it raises no signal.
    EXPECT_EQ(0x80008u, io.send("x", 5000));
    EXPECT_TRUE(log.has_line("http_send: uv_write fail, conn-id=77", 1000));
}

TEST(PlainTransport, AResetUnderASendFailsIt) {
    library lib;
    log_capture log;
    server_options options;
    options.receive_buffer = 4096;
    scripted_server server(script{stall_deaf(), reset()}, options);
    wire io(server.port());
    ASSERT_EQ(0u, io.send(std::string(64 * 1024 * 1024, 's'), 30000));
    server.release();
    ASSERT_TRUE(io.wait_sent());
    EXPECT_EQ(0x80008u, io.send_status);
    EXPECT_TRUE(log.has_line("_on_send_result, failed, conn-id=77, status=", 2000));
    on_loop([&] { EXPECT_NE(nullptr, io.conn->stream); });
}

// More than the socket buffers of both ends hold.
std::string too_much() {
    return std::string(64 * 1024 * 1024, 's');
}

scripted_server* deaf_server() {
    server_options options;
    options.receive_buffer = 4096;
    return new scripted_server(script{stall_deaf()}, options);
}

TEST(PlainTransport, ASendTimeOutClosesTheStreamForGood) {
    library lib;
    log_capture log;
    std::unique_ptr<scripted_server> server(deaf_server());
    wire io(server->port());
    ASSERT_EQ(0u, io.recv(10, 400));
    ASSERT_EQ(0u, io.send(too_much(), 100));
    ASSERT_TRUE(io.wait_sent());
    EXPECT_EQ(0x80006u, io.send_status);
    on_loop([&] { EXPECT_EQ(nullptr, io.conn->stream); });
    EXPECT_TRUE(log.has_line("_uv_write_timeout, conn-id=77", 2000));
    EXPECT_TRUE(log.has_line("_on_send_result, timeout, conn-id=77, status=", 2000));
    // The receive beside it has lost its stream too, and ends by its own time-out.
    ASSERT_TRUE(io.wait_received());
    EXPECT_EQ(0x80005u, io.recv_status);
    EXPECT_EQ(0x80008u, io.send("more", 100));
    EXPECT_EQ(0x80009u, io.recv(10, 100));
    EXPECT_EQ(1, io.sends);
}

TEST(PlainTransport, ASecondSendIsRefusedWhileOneIsPending) {
    library lib;
    log_capture log;
    std::unique_ptr<scripted_server> server(deaf_server());
    wire io(server->port());
    std::string bytes = too_much();
    on_loop([&] {
        EXPECT_EQ(0u, http_send(io.conn, &io, bytes.data(), static_cast<std::int32_t>(bytes.size()),
                                200, wire::on_sent));
        EXPECT_EQ(0x100ffu, http_send(io.conn, &io, "x", 1, 200, wire::on_sent));
    });
    ASSERT_TRUE(io.wait_sent());
    EXPECT_EQ(0x80006u, io.send_status);
}

TEST(PlainTransport, ACloseUnderPendingOperationsReportsNothing) {
    library lib;
    descriptor_guard descriptors;
    {
        std::unique_ptr<scripted_server> server(deaf_server());
        wire io(server->port());
        ASSERT_EQ(0u, io.send(too_much(), 60000));
        ASSERT_EQ(0u, io.recv(10, 60000));
        io.close();
        on_loop([] {});
        lib.shutdown();
        EXPECT_EQ(0, io.sends);
        EXPECT_EQ(0, io.recvs);
        lib.startup();
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(PlainTransport, WithoutATlsModuleItsOperationsSaySo) {
    library lib;
    on_loop([] {
        tls_ops* ops = get_tls_ops();
        char byte = 'x';
        set_tls_ops(nullptr);
        EXPECT_EQ(0x40004u, https_send(nullptr, nullptr, &byte, 1, 0, wire::on_sent));
        EXPECT_EQ(0x40004u, https_recv(nullptr, nullptr, &byte, 1, 0, wire::on_received));
        set_tls_ops(ops);
    });
}

}  // namespace
