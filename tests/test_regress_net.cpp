// Mended faults of the network's layers.
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/session_record.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

namespace {

// How many writes succeed before one fails in its callback; negative: none fails.
std::atomic<int> good_writes{-1};
uv_write_cb failing_callback = nullptr;  // loop thread

void fail_in_callback(uv_write_t* request, int) {
    failing_callback(request, UV_EPIPE);
}

}  // namespace

int uv_write(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers, unsigned count,
             uv_write_cb callback) {
    using function = int (*)(uv_write_t*, uv_stream_t*, const uv_buf_t*, unsigned, uv_write_cb);
    static auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "uv_write"));
    if (good_writes >= 0 && good_writes-- == 0) {
        failing_callback = callback;
        callback = fail_in_callback;
    }
    return real(request, stream, buffers, count, callback);
}

namespace {

// Longer than the time-outs below: a callback of the host that holds the loop thread.
void hold_up() {
    std::this_thread::sleep_for(milliseconds(250));
}

TEST(RegressNet, ACallbackThatHoldsTheLoopUpTimesNothingOut) {
    library lib;
    const script answer_late = {expect_request(), stall(), send_text(response(200, "late"))};
    const struct {
        const char* name;
        bool uploads;  // held up by its progress callback; else while the answer arrives
    } rows[] = {{"armed behind it", true}, {"arrived meanwhile", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        scripted_server server(row.uploads ? reply_with(response(200, "late")) : answer_late);
        transfer one(server.url(), row.uploads ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET);
        one.set(TAV_HTTP_OPTION_IO_TIMEOUT, 100);
        if (row.uploads) {
            one.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f", "bytes", 5, "f");
            one.at("progress", [](transfer&) { hold_up(); });
            one.send();
        } else {
            one.send();
            ASSERT_TRUE(server.wait_for_requests(1));
            on_loop([&] {
                server.release();
                hold_up();
            });
        }
        expect_code(0, one.wait());
        EXPECT_EQ("late", one.body());
    }
}

// Every step below would last far longer than the deadline of a test.
TEST(RegressNet, AnAbortEndsThePendingNetworkStep) {
    const std::string too_much(8 << 20, 'x');
    lookup_release release;
    library lib;
    log_capture log;
    set_name("hang", {"127.0.0.1"});
    blackhole_listener deaf;
    scripted_server silent(script{stall_deaf()}, {false, 4096});
    scripted_server socks(
        script{read_bytes(3), send_text(bytes_of("\5\0")), read_bytes(10), stall()});
    const proxy_record http_proxy(1, silent.port()), socks_proxy(2, socks.port());
    const proxy_record deaf_proxy(2, deaf.port());
    std::size_t connects = 0;  // that were started before the row
    auto connecting = [&](const http_session*) {
        return log.count("_start_connect, ctx=") > connects;
    };
    auto connected = [&](const http_session*) {
        return log.count("_on_connect_result, success") > connects - 2;  // two never connected
    };
    const struct {
        const char* step;
        std::string url;
        const proxy_info* proxy;
        bool uploads;
        std::function<bool(const http_session*)> reached;
    } rows[] = {
        {"lookup", "http://hang/", nullptr, false,
         [](const http_session*) { return hanging_lookups() == 1; }},
        {"connect", deaf.url(), nullptr, false, connecting},
        {"connect to a proxy", silent.url(), deaf_proxy.get(), false, connecting},
        {"HTTP proxy", silent.url(), http_proxy.get(), false, connected},
        {"SOCKS5 proxy", silent.url(), socks_proxy.get(), false,
         [&](const http_session*) { return socks.request_count() == 2; }},
        {"TLS handshake", "https" + silent.url().substr(4), nullptr, false, connected},
        {"receive", silent.url(), nullptr, false,
         [](const http_session* session) {
             return session->connection != nullptr && session->connection->recv_callback != nullptr;
         }},
        {"send", silent.url(), nullptr, true,
         [](const http_session* session) {
             return session->connection != nullptr && session->connection->send_callback != nullptr;
         }},
    };
    for (const auto& row : rows) {
        if (!TAV_HTTP_WITH_TLS && row.url[4] == 's') {
            continue;
        }
        SCOPED_TRACE(row.step);
        connects = log.count("_start_connect, ctx=");
        transfer one(row.url, row.uploads ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET, row.proxy);
        if (row.uploads) {
            one.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f", too_much.data(),
                    static_cast<int>(too_much.size()), "f");
        }
        ASSERT_EQ(0u, one.send());
        ASSERT_TRUE(wait_until([&] {
            bool reached = false;
            on_loop([&] { reached = row.reached(one.handle()); });
            return reached;
        }));
        on_loop([&] {
            session_set_flags(one.handle(), 1, 0);
            abort_network_step(one.handle());
            abort_network_step(one.handle());
            EXPECT_FALSE(one.completed()) << "on a later turn only";
        });
        expect_code(code::cancel, one.wait());
        EXPECT_EQ(1, one.completions());
    }
}

TEST(RegressNet, AWriteThatFailsInItsCallbackEndsItsStep) {
    library lib;
    scripted_server socks(script{read_bytes(3), send_text(bytes_of("\5\2")), read_bytes(5),
                                 send_text(bytes_of("\1\0")), stall()});
    scripted_server plain(script{stall()});
    const proxy_record login(2, socks.port(), "u", "p"), connect(1, plain.port());
    const std::uint32_t proxy_send = TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND;
    const struct {
        const proxy_info* proxy;
        int good;
        std::uint32_t expected;
    } rows[] = {{login.get(), 0, proxy_send},
                {login.get(), 1, proxy_send},
                {login.get(), 2, proxy_send},
                {connect.get(), 0, proxy_send},
                {nullptr, 0, TAV_HTTP_ERROR_CODE_FAIL_SEND}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.good);
        transfer one(plain.url(), TAV_HTTP_METHOD_GET, row.proxy);
        good_writes = row.good;
        expect_code(row.expected, one.run());
        good_writes = -1;
    }
}

// Bytes that nobody asked for would be taken for the next answer; the next entry is tried instead.
TEST(RegressNet, AKeptConnectionOnWhichBytesWaitIsClosed) {
    const std::string kept = response(200, "mine", "Connection: keep-alive\r\n");
    library lib;
    scripted_server server(
        std::vector<script>{{expect_request(), send_text(kept), expect_request(), send_text(kept)},
                            {expect_request(), send_text(kept), stall(),
                             send_text(response(408, "late")), close_now()}});
    transfer first(server.url()), second(server.url());
    expect_code(0, first.run());
    second.set(TAV_HTTP_OPTION_NO_REUSE, 1);
    expect_code(0, second.run());
    server.release();
    ASSERT_TRUE(server.wait_for_disconnects(1));
    transfer third(server.url());
    expect_code(0, third.run());
    EXPECT_EQ("mine", third.body());
    EXPECT_EQ(2u, server.connection_count());
}

#if TAV_HTTP_WITH_TLS
// In a record of its own, which the engine has got together with the first one's.
TEST(RegressNet, ASecondTlsResponseIsNobodysAnswer) {
    const std::size_t record = 16384;
    const std::string extra = "Connection: keep-alive\r\n";
    std::string kept = response(200, std::string(10000, 'm'), extra);
    kept = response(200, std::string(10000 + record - kept.size(), 'm'), extra);
    ASSERT_EQ(record, kept.size());
    library lib;
    tls_server server([&](tls_peer& peer) {
        std::string request;
        if (peer.accept() && peer.read_request(&request)) {
            peer.write(kept + response(200, "not mine"));
            peer.read_request(&request);
        }
    });
    for (int i = 0; i < 2; ++i) {
        transfer one(server.url());
        expect_code(0, one.run());
        EXPECT_EQ('m', one.body()[0]);
    }
    EXPECT_EQ(2, server.connection_count());
}

TEST(RegressNet, AKeptTlsConnectionOnWhichAResponseWaitsIsClosed) {
    library lib;
    std::atomic<bool> is_late{false};
    tls_server server([&](tls_peer& peer) {
        std::string request;
        bool ok = peer.accept() && peer.read_request(&request) &&
                  peer.write(response(200, "mine", "Connection: keep-alive\r\n"));
        if (ok && peer.index() == 0) {
            is_late =
                peer.wait_for_release() && peer.new_ticket() && peer.write(response(408, "late"));
            peer.read_request(&request);
        }
    });
    for (int i = 0; i < 2; ++i) {
        transfer one(server.url());
        expect_code(0, one.run());
        EXPECT_EQ("mine", one.body());
        server.release();
        EXPECT_TRUE(wait_until([&] { return is_late.load(); }));
    }
    EXPECT_EQ(2, server.connection_count());
}

// A peer that sends a record a byte at a time is in time with every one of them.
TEST(RegressNet, ADrippingTlsPeerKeepsNoSession) {
    library lib;
    enum {
        by_cancel = 0
    };
    const struct {
        bool in_handshake;
        std::uint32_t option;  // by_cancel: the session is cancelled instead
        std::uint32_t expected;
    } rows[] = {
        {true, TAV_HTTP_OPTION_CONNECT_TIMEOUT, code::recv_timeout},
        {true, TAV_HTTP_OPTION_SESSION_TIMEOUT, code::session_timeout},
        {true, by_cancel, code::cancel},
        {false, TAV_HTTP_OPTION_IO_TIMEOUT, code::recv_timeout},
        {false, TAV_HTTP_OPTION_SESSION_TIMEOUT, code::session_timeout},
        {false, by_cancel, code::cancel},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.in_handshake) + " " + std::to_string(row.option));
        std::atomic<int> drops{0};
        tls_server server([&](tls_peer& peer) {
            std::string request;
            if (!row.in_handshake && (!peer.accept() || !peer.read_request(&request))) {
                return;
            }
            const std::string head =
                bytes_of(row.in_handshake ? "\x16\3\3\x40\0" : "\x17\3\3\x40\0");
            for (bool open = peer.raw_write(head); open; ++drops) {
                open = peer.raw_write("x");
                std::this_thread::sleep_for(milliseconds(20));  // a slow peer
            }
        });
        transfer one(server.url());
        if (row.option != by_cancel) {
            one.set(row.option, 200);
        }
        ASSERT_EQ(0u, one.send());
        ASSERT_TRUE(wait_until([&] { return drops > 2; }));
        if (row.option == by_cancel) {
            one.cancel();
        }
        expect_code(row.expected, one.wait());
    }
}
#endif

}  // namespace
