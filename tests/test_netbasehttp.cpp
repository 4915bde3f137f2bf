// The plain transport: what its time-outs and failures are called and logged, and closes under its
// operations. That it carries bytes is shown by every transfer.
#include "tavhttpclient/netbasehttp.h"

#include <gtest/gtest.h>

#include <optional>

#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/uvhelper.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

// More than the socket buffers of both ends hold.
const std::string too_much(64 * 1024 * 1024, 's');
const server_options small_window{false, 4096};

TEST(PlainTransport, FailuresHaveTheirCodesAndLines) {
    const script silent = {expect_request(), stall()};
    const struct {
        script steps;
        std::uint32_t code;
        const char *line, *rest;  // before and behind the connection's id
    } rows[] = {
        {silent, 0x80005, "_on_recv_timeout", ", host=127.0.0.1"},
        {{expect_request(), reset()}, 0x80009, "_on_recv_response, failed", ", read="},
        {{stall_deaf()}, 0x80006, "_on_send_result, timeout", ", status="},
        {{read_bytes(1), reset()}, 0x80008, "_on_send_result, failed", ", status="},
        {{expect_request(), half_close()}, 0x80009, "remote close the connection", ", read="},
    };
    library lib;
    int id = 2;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        bool uploads = row.code == 0x80006 || row.code == 0x80008;
        bool times_out = row.code == 0x80006 || row.code == 0x80005;
        log_capture log;
        scripted_server server(row.steps, small_window);
        transfer one(server.url(), uploads ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET);
        if (uploads) {
            one.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f", too_much.data(),
                    static_cast<int>(too_much.size()), "f");
        }
        one.set(TAV_HTTP_OPTION_IO_TIMEOUT, times_out ? 100 : 5000);
        EXPECT_EQ(row.code, one.run());
        std::string own = ", conn-id=" + std::to_string(id++);
        EXPECT_TRUE(log.has_line(row.line + own + row.rest, 2000));
        EXPECT_EQ(row.code == 0x80006, log.has_line("_uv_write_timeout" + own, 2000));
    }
}

// Operations on a connection of their own; each takes its result away.
struct wire {
    http_connection* conn = nullptr;
    std::atomic<int> calls{0};
    std::uint32_t send_status = 1, recv_status = 1;
    char buffer[16];

    explicit wire(std::uint16_t port) {
        on_loop([&] {
            conn = static_cast<http_connection*>(calloc(1, sizeof(http_connection)));
            list_init(&conn->open_link);
            auto keep = [](std::uint32_t, uv_tcp_t* tcp, const sockaddr_storage*, void* user) {
                static_cast<wire*>(user)->conn->stream = tcp;
                static_cast<wire*>(user)->calls++;
            };
            EXPECT_EQ(0u, uv_connect_timeout("127.0.0.1", port, 5000, this, keep, nullptr));
        });
        EXPECT_TRUE(wait_until([this] { return calls == 1; }));
    }
    ~wire() {
        if (conn != nullptr) {
            on_loop([this] { EXPECT_TRUE(http_connect_close(conn)); });
        }
    }
    std::uint32_t send(const std::string& bytes, std::int32_t timeout) {
        return http_send(conn, this, bytes.data(), static_cast<std::int32_t>(bytes.size()), timeout,
                         [](http_connection*, void* user, std::uint32_t status) {
                             static_cast<wire*>(user)->send_status = status;
                             static_cast<wire*>(user)->calls++;
                         });
    }
    std::uint32_t recv(std::int32_t timeout) {
        return http_recv(conn, this, buffer, sizeof(buffer), timeout,
                         [](http_connection*, void* user, std::uint32_t status, char*, int) {
                             static_cast<wire*>(user)->recv_status = status;
                             static_cast<wire*>(user)->calls++;
                         });
    }
};

TEST(PlainTransport, ACloseUnderPendingOperationsReportsNothing) {
    descriptor_guard descriptors;
    {
        library lib;
        scripted_server server(script{stall_deaf()}, small_window);
        std::optional<wire> io(server.port());
        on_loop([&] {
            EXPECT_EQ(0u, io->send(too_much, 60000));
            EXPECT_EQ(0u, io->recv(60000));
            EXPECT_TRUE(http_connect_close(io->conn));
            io->conn = nullptr;
        });
        lib.shutdown();
        EXPECT_EQ(1, io->calls) << "the connect's";
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(PlainTransport, ASendTimeOutTakesTheStreamFromTheReceiveBesideIt) {
    library lib;
    log_capture log;
    scripted_server server(script{stall_deaf()}, small_window);
    wire io(server.port());
    on_loop([&] {
        EXPECT_EQ(0u, io.recv(400));
        EXPECT_EQ(0u, io.send(too_much, 100));
        EXPECT_EQ(0x100ffu, io.send("x", 100)) << "one at a time";
    });
    ASSERT_TRUE(wait_until([&] { return io.calls == 3; }));
    EXPECT_EQ(0x80006u, io.send_status);
    EXPECT_EQ(0x80005u, io.recv_status);
    on_loop([&] {
        EXPECT_EQ(nullptr, io.conn->stream);
        EXPECT_EQ(0x80008u, io.send("more", 100));
        EXPECT_EQ(0x80009u, io.recv(100));
    });
    EXPECT_TRUE(log.has_line("http_send: uv_write fail, conn-id=0", 1000));
    EXPECT_EQ(3, io.calls);
}

}  // namespace
