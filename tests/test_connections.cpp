// Below the sessions: the pool of idle connections, name look-ups and the connect race, sockets on
// the base provider, and closes at every stage.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <uv.h>

#include "support/inside.h"
#include "tavhttpclient/connectionpool.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/nonlspsocket.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"

namespace {

// ------------------------------------------------------------------------------------- the pool

http_connection* make(std::uint32_t id, const char* host = "host", std::uint16_t port = 80,
                      std::int32_t is_https = 0, std::uint32_t timeout = 0) {
    auto* conn = static_cast<http_connection*>(new_block(sizeof(http_connection)));
    list_init(&conn->open_link);
    conn->id = id;
    string_replace(&conn->host, host);
    conn->port = port;
    conn->is_https = is_https;
    conn->keepalive_timeout = timeout;
    return conn;
}

// Takes a connection out; 0 when there is none. The connection is destroyed.
std::uint32_t take_out(const char* host = "host", std::uint16_t port = 80, std::int32_t https = 0) {
    http_connection* conn = get_connection_from_pool(https, host, port);
    std::uint32_t id = conn != nullptr ? conn->id : 0;
    if (conn != nullptr) {
        http_connect_close(conn);
    }
    return id;
}

TEST(Pool, GivesTheNewestOfTheSameServerFirst) {
    library lib;
    on_loop([] {
        EXPECT_EQ(0u, take_out()) << "no pool yet";
        for (http_connection* keyless : {make(6, nullptr), make(7, "host", 0)}) {
            EXPECT_FALSE(add_connection_to_pool(keyless)) << keyless->id;
            http_connect_close(keyless);
        }
        for (http_connection* conn :
             {make(1), make(2, "HOST"), make(3, "host", 81), make(4, "host", 80, 1)}) {
            EXPECT_TRUE(add_connection_to_pool(conn));
        }
        EXPECT_EQ(0u, take_out("absent") + take_out(""));
        EXPECT_EQ(2u, take_out("host")) << "letter case does not count in a host";
        EXPECT_EQ(1u, take_out("hOST"));
        EXPECT_EQ(0u, take_out("host"));
        EXPECT_EQ(3u, take_out("host", 81));
        EXPECT_EQ(4u, take_out("host", 80, 1));
        // Enough keys for the tree to be rebalanced in every way; the last ends with the loop.
        auto port = [](std::uint16_t i) {
            return static_cast<std::uint16_t>(i * 7919u % 503u + 1);
        };
        for (std::uint16_t i = 1; i <= 500; i++) {
            EXPECT_TRUE(add_connection_to_pool(make(port(i), "host", port(i), i % 2)));
        }
        for (std::uint16_t i = 1; i <= 499; i++) {
            EXPECT_EQ(port(i), take_out("host", port(i), i % 2));
        }
    });
}

TEST(Pool, AReuseLimitIsCountedInHandOuts) {
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
        EXPECT_EQ(8u, take_out());
        EXPECT_FALSE(log.has_line("http_connect_close, id=9"));
        EXPECT_EQ(0u, take_out());
        EXPECT_TRUE(log.has_line("http_connect_close, id=9", 3000));
    });
}

TEST(Pool, IdleConnectionsExpireAndAreSweptOnceInThirtySeconds) {
    const std::string sweep = "_cleanup_timeout_connection, ";
    library lib;
    log_capture log;
    on_loop([] {
        for (http_connection* conn :
             {make(1), make(2, "host", 80, 0, 2000), make(3, "odd", 80, 0, 1000),
              make(4, "even", 80, 0, 100000)}) {
            EXPECT_TRUE(add_connection_to_pool(conn));
        }
    });
    advance_clock(9);
    // The newer one is past its own time; the one behind it, with 10 seconds, is not.
    on_loop([] { EXPECT_EQ(1u, take_out()); });
    EXPECT_TRUE(log.has_line("http_connect_close, id=2", 3000));
    auto sweeps_after = [&](int seconds) {
        advance_clock(seconds);
        on_loop([] { EXPECT_EQ(0u, take_out("absent")); });
        return log.count(sweep, 2000);
    };
    EXPECT_EQ(0u, sweeps_after(20));
    EXPECT_EQ(1u, sweeps_after(2));
    EXPECT_TRUE(log.has_line(sweep + "clean=1, total=2, cache-hit=1/2"));
    EXPECT_EQ(1u, sweeps_after(20));
    EXPECT_EQ(2u, sweeps_after(11));
    EXPECT_FALSE(log.has_line("http_connect_close, id=4"));
    EXPECT_EQ(3u, sweeps_after(4294968)) << "a counter of 32 bits comes round to where it was";
}

// ------------------------------------------------------------------------------ the connect race

// What an attempt came to: the code and the address.
std::string connect_to(const std::string& host, std::uint16_t port, std::int32_t timeout) {
    static std::atomic<int> calls;
    static std::uint32_t status;
    static uv_tcp_t* tcp;
    static char address[64];
    calls = 0;
    auto on_connected = [](std::uint32_t code, uv_tcp_t* made, const sockaddr_storage* from,
                           void*) {
        strcpy(address, "none");
        if (from != nullptr) {
            sockaddr_to_text(reinterpret_cast<const sockaddr*>(from), address);
        }
        status = code;
        tcp = made;
        calls++;
    };
    on_loop([&] {
        EXPECT_EQ(0u,
                  uv_connect_timeout(host.c_str(), port, timeout, nullptr, on_connected, nullptr));
        EXPECT_EQ(0, calls) << "reported from inside the call";
    });
    EXPECT_TRUE(wait_until([] { return calls == 1; }));
    EXPECT_EQ(status == 0, tcp != nullptr);
    on_loop([] { close_uv_tcp(&tcp); });
    return code_name(status) + ' ' + address;
}

TEST(Connect, TriesTheFirstAddressOfEachFamily) {
    library lib;
    peer server4{script{}}, server6(script{}, {.ipv6 = true});
    set_name("both", {"::1", "127.0.0.1"});
    set_name("odd-order", {"::1", "fd00::9", "127.0.0.1", "127.0.0.9"});
    set_name("first-is-dead", {"127.0.0.2", "127.0.0.1"});
    set_name("nowhere", {});
    const struct {
        const char* host;
        std::uint16_t port;
        const char* result;
    } rows[] = {
        {"127.0.0.1", server4.port(), "OK 127.0.0.1"},
        {"both", server6.port(), "OK ::1"},
        {"odd-order", server4.port(), "OK 127.0.0.1"},
        {"::1", refusing_port(), "FAIL_CONNECT ::1"},
        {"first-is-dead", server4.port(), "FAIL_CONNECT 127.0.0.2"},
        {"nowhere", 80, "CONNECT_PROXY_HOST_NOT_FOUND "},
    };
    for (const auto& row : rows) {
        for (std::int32_t timeout : {0, 5000}) {
            EXPECT_EQ(row.result, connect_to(row.host, row.port, timeout)) << row.host;
        }
    }
}

TEST(Connect, TheLoserIsCancelledBeforeTheWinnerIsReported) {
    library lib;
    log_capture log;
    set_name("both", {"127.0.0.1", "::1"});
    // On ::1 somebody listens at the port at which nobody answers on 127.0.0.1.
    for (int attempt = 0; attempt < 50; attempt++) {
        blackhole deaf;
        std::uint16_t port = deaf.port;
        SOCKET probe = bind_loopback(true, &port);
        if (probe == INVALID_SOCKET) {
            continue;  // taken on the other family
        }
        closesocket(probe);
        peer server(script{}, {.ipv6 = true, .port = port});
        EXPECT_EQ("OK ::1", connect_to("both", port, 30000));
        break;
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
}

TEST(Connect, FailuresBeforeAnyAttemptEndAtOnceAndTimeOutsHaveASecond) {
    library lib;
    log_capture log;
    blackhole deaf;
    set_name("both", {"127.0.0.1", "::1"});
    fail_calls("uv_tcp_open", 1, 2);
    EXPECT_EQ("FAIL_CREATE_SOCKET 127.0.0.1", connect_to("both", 80, 5000));
    fail_calls("uv_tcp_connect", 1, 2);
    EXPECT_EQ("FAIL_CONNECT 127.0.0.1", connect_to("both", 80, 5000));
    fail_nothing();
    EXPECT_EQ("FAIL_CONNECT 127.0.0.1", connect_to("127.0.0.1", deaf.port, 50));
    for (const char* line :
         {"_start_connect, uv_client_tcp_init failed.",
          "_start_connect, uv_tcp_connect failed, host=both.", "timeout=1000 ms, host=127.0.0.1"}) {
        EXPECT_TRUE(log.has_line(line, 2000)) << line;
    }
}

// The attempt that never began holds the result, for longer than any budget.
TEST(Connect, ACancelEndsAnEstablishmentThatLostOneAttempt) {
    library lib;
    log_capture log;
    peer server{script{}};
    set_name("both", {"127.0.0.1", "::1"});
    fail_calls("uv_tcp_connect", 2);
    transfer get("http://both:" + std::to_string(server.port()) + "/");
    ASSERT_EQ("OK", get.send());
    ASSERT_TRUE(log.wait_for_line("_on_connect_result, wait connect complete"));
    fail_nothing();
    advance_clock(20);
    EXPECT_FALSE(get.completed());
    get.cancel();
    EXPECT_EQ("CANCEL", get.wait());
    EXPECT_TRUE(server.wait_for_disconnects(1));
}

TEST(Connect, IdsCountFromTwoAndStayWithAReusedConnection) {
    for (std::uint32_t hidden : {0u, 1u}) {
        library lib;
        log_capture log;
        peer server(always(response(200, "hello", "Connection: keep-alive\r\n")));
        for (std::uint32_t no_reuse : {0u, 0u, 1u}) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_NO_REUSE, no_reuse);
            get.set(TAV_HTTP_OPTION_HIDE_URL, hidden);
            EXPECT_EQ("OK", get.run());
        }
        std::string url = ", url=" + (hidden != 0 ? "*" : server.url());
        EXPECT_EQ(2u, log.count(url + ", proxy-type=0, proxy-host=(null):0", 2000));
        EXPECT_EQ(1u, log.count(url + ", reuse=1", 2000));
        EXPECT_EQ(hidden == 0, log.has_line(server.url()));
    }
}

// The end of the loop closes connections at any stage; their results must never come.
TEST(Connect, WhatIsClosedAtAnyStageStaysClosed) {
    held_lookups held;
    log_capture log;
    library lib;
    peer silent{script{stall()}};
    blackhole deaf;
    auto never = [](http_session*, void*, std::uint32_t) { ADD_FAILURE() << "called back"; };
    http_session* session = tavHTTPOpen(TAV_HTTP_METHOD_GET, "http://h/", nullptr, nullptr, never);
    auto close_when = [&](const std::string& url, const std::function<bool()>& reached) {
        on_loop([&] {
            EXPECT_EQ(0u, http_connect_start(url.c_str(), nullptr, session, 60000, true, false,
                                             nullptr, 0));
        });
        EXPECT_TRUE(wait_until(reached)) << url;
        on_loop([] { http_connect_close_all(); });
    };
    close_when(silent.url(), [] { return true; });
    close_when("http://hang/", [] { return hanging_lookups() == 1; });
    close_when("http://127.0.0.1:" + std::to_string(deaf.port) + "/",
               [&] { return log.has_line("conn6=(nil)"); });
    if (TAV_HTTP_WITH_TLS) {
        close_when(silent.url("/", "https"), [&] { return silent.connection_count() >= 1; });
    }
    release_lookups();
    tavHTTPClose(session);
    lib.shutdown();
    EXPECT_FALSE(log.has_line("_notify_connection_result, "));
    lib.startup();
}

// Bytes that nobody asked for would be taken for the next answer; the next entry is tried instead.
TEST(Connect, AKeptConnectionOnWhichBytesWaitIsClosed) {
    const script kept = reply_with(response(200, "mine", "Connection: keep-alive\r\n"));
    library lib;
    peer server(std::vector<script>{
        kept + kept, kept + script{stall(), send_text(response(408, "late")), close_now()}});
    transfer first(server.url()), second(server.url()), third(server.url());
    EXPECT_EQ("OK", first.run());
    second.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
    EXPECT_EQ("OK", second.run());
    server.release();
    ASSERT_TRUE(server.wait_for_disconnects(1));
    EXPECT_EQ("OK", third.run());
    EXPECT_EQ("mine", third.body());
    EXPECT_EQ(2u, server.connection_count());
}

TEST(Connect, WhatFollowsAResponseIsDroppedAndTheConnectionToo) {
    const std::string kept = response(200, "first", "Connection: keep-alive\r\n");
    const struct {
        std::uint32_t method;
        std::string reply;
        int connections;
    } rows[] = {
        {1, kept, 1},
        {1, kept + response(404, "second", "Connection: keep-alive\r\n"), 2},
        {1, kept + "HTTP/1.1 20", 2},
        {TAV_HTTP_METHOD_HEAD, kept.substr(0, 70), 2},
    };
    allow_assertion("_on_write_body_finish");
    library lib;
    for (const auto& row : rows) {
        peer server(reply_with(row.reply) + reply_with(row.reply));
        for (int i = 0; i < 2; i++) {
            transfer one(server.url(), row.method);
            EXPECT_EQ("OK", one.run());
            EXPECT_EQ(row.method == TAV_HTTP_METHOD_HEAD ? "firs" : "first", one.body());
        }
        EXPECT_EQ(row.connections, server.requests().back().connection + 1) << row.reply;
    }
}

// --------------------------------------------------------------------------------------- sockets

constexpr char search_failed[] = "CreateNonLSPSocket, _GetBaseProviderInfo fail";

// Makes a client handle of the family and gives it up again; returns the result. `before_close`
// runs once the handle is made.
std::int32_t make_client(
    std::int32_t family, const std::function<void()>& before_close = [] {}) {
    std::int32_t result = -2;
    on_loop([&] {
        auto* handle = static_cast<uv_tcp_t*>(new_block(sizeof(uv_tcp_t)));
        bool initialised = false;
        result = uv_client_tcp_init(get_uv_loop(), handle, family, &initialised);
        before_close();
        if (initialised) {
            close_uv_tcp(&handle);
        }
        free_block(handle);
    });
    return result;
}

WSAPROTOCOL_INFOW entry(DWORD id, int family, int protocol, bool is_base) {
    WSAPROTOCOL_INFOW made{};
    made.dwCatalogEntryId = id;
    made.iAddressFamily = family;
    made.iSocketType = protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
    made.iProtocol = protocol;
    made.iVersion = 2;
    made.ProtocolChain.ChainLen = 1;
    made.ProviderId = {0x11223344, 0, 0, {}};
    if (is_base) {
        made.ProviderId = {
            0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
    }
    wcscpy(made.szProtocol, L"name");
    return made;
}

void with_a_catalogue_without_the_base_entry() {
    WSAPROTOCOL_INFOW catalogue[] = {entry(7, AF_INET, IPPROTO_TCP, false),
                                     entry(8, AF_INET, IPPROTO_UDP, true),
                                     entry(9, AF_INET6, IPPROTO_TCP, true)};
    platform_set_protocol_catalog(catalogue, 3);
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(
        1u, log.count("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=2, type=1, protocol=6, "
                      "Protocol List:\n"
                      "EntryId=7, Name=name, ChainLen=1, Version=2, AF=2, SockType=1, Protocol=6, "
                      "Guid={11223344-0000-0000-0000-000000000000}\n"
                      "EntryId=8, Name=name, ChainLen=1, Version=2, AF=2, SockType=2, Protocol=17, "
                      "Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}\n\n"));
    // The other family searches for itself, and the result is kept too.
    platform_fail_enum_protocols(10050);
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_TRUE(log.has_line("LogWSAProtocols, WSAEnumProtocolsA fail, ret=-1, err=10050", 2000));
    EXPECT_EQ(2u, log.count(search_failed, 2000));
}

void with_a_catalogue_larger_than_the_first_buffer() {
    std::vector<WSAPROTOCOL_INFOW> catalogue(100, entry(5, AF_INET, IPPROTO_TCP, false));
    catalogue.push_back(entry(6, AF_INET, IPPROTO_TCP, true));
    platform_set_protocol_catalog(catalogue.data(), static_cast<int>(catalogue.size()));
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(0u, log.count(search_failed));
    std::string listing = take(LogWSAProtocols());
    EXPECT_EQ(101, std::count(listing.begin(), listing.end(), '\n'));
}

// The switch is read for every socket and passes the catalogue by.
void with_the_switch() {
    WSAPROTOCOL_INFOW none{};
    platform_set_protocol_catalog(&none, 0);
    library lib;
    log_capture log;
    tavHTTPSetUseThirdLSP(1);
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(2u, log.count("uv_client_tcp_init, use_third_lsp, sock=0x", 2000));
    EXPECT_EQ(0u, log.count(search_failed));
    tavHTTPSetUseThirdLSP(0);
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(1u, log.count("Protocol List:\n\n", 2000));
}

// What a search finds stays for the life of the process: each has one of its own. The suite's name
// keeps main.cpp from making a socket first.
TEST(FirstStart, SearchesTheCatalogueOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (auto check : {with_a_catalogue_without_the_base_entry,
                       with_a_catalogue_larger_than_the_first_buffer, with_the_switch}) {
        EXPECT_EXIT((check(), std::_Exit(testing::Test::HasFailure() ? 1 : 0)),
                    testing::ExitedWithCode(0), "");
    }
}

TEST(Sockets, AFailedStepClosesItsSocketExactlyOnce) {
    library lib;
    for (const char* call : {"uv_tcp_open", "uv_tcp_bind"}) {
        SCOPED_TRACE(call);
        int bystander = -1;
        fail_calls(call, 1);
        // Takes the number of a socket that was closed already; a second close would hit it.
        EXPECT_EQ(UV_EINVAL,
                  make_client(AF_INET, [&] { bystander = ::open("/dev/null", O_RDONLY); }));
        fail_nothing();
        on_loop([] {});
        EXPECT_NE(-1, fcntl(bystander, F_GETFD));
        close(bystander);
    }
}

}  // namespace
