// Servers that answer wrongly, late, endlessly or not at all. Whatever they do, the session
// completes once, with the code that tells what went wrong, and leaves nothing open.
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

std::string with_header_lines(std::size_t count, const std::string& line) {
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (std::size_t i = 0; i < count; i++) {
        head += line + "\r\n";
    }
    return head + "Content-Length: 4\r\n\r\nbody";
}

TEST(BadServer, BrokenBytes) {
    struct {
        const char* name;
        std::string reply;
        std::uint32_t code;
    } cases[] = {
        {"garbage", "\x01\x02garbage\r\n\r\n", TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"zero bytes", std::string(1000, '\0'), TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"another protocol", "SSH-2.0-server\r\n", TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"a request", "GET / HTTP/1.1\r\n\r\n", TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"status of letters", "HTTP/1.1 abc\r\n\r\n", TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"status of four digits", "HTTP/1.1 2000 OK\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"no colon in a header line", "HTTP/1.1 200 OK\r\n(AB)\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"length of letters", "HTTP/1.1 200 OK\r\nContent-Length: ten\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"negative length", "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"length beyond 64 bits",
         "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"two lengths", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"more than announced", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabcdef",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"chunk size of letters",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\nabc\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"chunk longer than its size",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabxxyyzz\r\n0\r\n\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"chunk size beyond 64 bits",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffffffffffffffffff\r\nabc\r\n",
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"gzip that is none", response(200, "not gzip at all", "Content-Encoding: gzip\r\n"),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"gzip called deflate", response(200, gzip_bytes("plain"), "Content-Encoding: deflate\r\n"),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"a header line of 64 KB", with_header_lines(1, "X: " + std::string(65536, 'x')), 0},
        {"10,000 short headers", with_header_lines(10000, "a:b"), 0},
        {"10,000 headers", with_header_lines(10000, "X-Header: value"),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"a header line without end", "HTTP/1.1 200 OK\r\nX: " + std::string(1000000, 'x'),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
    };
    descriptor_guard descriptors;
    {
        library lib;
        for (const auto& now : cases) {
            SCOPED_TRACE(now.name);
            scripted_server server(script{expect_request(), send_text(now.reply)});
            transfer get(server.url());
            EXPECT_EQ(now.code, get.run());
            if (now.code == 0) {
                EXPECT_EQ("body", get.body());
            }
            EXPECT_EQ(1u, server.connection_count());
            EXPECT_EQ(1, get.completions());
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(BadServer, ClosesTooEarly) {
    std::string whole = response(200, "0123456789");
    std::string chunked = chunked_response(200, "0123456789", 5);
    struct {
        const char* name;
        script steps;
    } cases[] = {
        {"at once", {half_close()}},
        {"after the request", {expect_request(), half_close()}},
        {"in the status line", {expect_request(), send_text("HTTP/1.1 2"), half_close()}},
        {"in the head", {expect_request(), send_text(whole.substr(0, 30)), half_close()}},
        {"in the body",
         {expect_request(), send_text(whole.substr(0, whole.size() - 2)), half_close()}},
        {"before the last chunk",
         {expect_request(), send_text(chunked.substr(0, chunked.size() - 5)), half_close()}},
        {"in a chunk",
         {expect_request(), send_text(chunked.substr(0, chunked.size() - 9)), half_close()}},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(now.steps);
        transfer get(server.url());
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_RECV, get.run());
        EXPECT_EQ(2u, server.connection_count()) << "a lost connection is tried once more";

        scripted_server mended(
            std::vector<script>{now.steps, {expect_request(), send_text(whole)}});
        transfer again(mended.url());
        again.record();
        EXPECT_EQ(0u, again.run());
        EXPECT_EQ("0123456789", again.body());
        EXPECT_GE(1u, again.event_count("header")) << "the head is told once per session";
        EXPECT_EQ(1, again.completions());
    }
}

TEST(BadServer, Resets) {
    struct {
        const char* name;
        script steps;
    } cases[] = {
        {"after the request", {expect_request(), reset()}},
        {"in the head", {expect_request(), send_text("HTTP/1.1 200 OK\r\nA"), reset()}},
        {"in the body", {expect_request(), send_text(response(200, "abc").substr(0, 40)), reset()}},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(now.steps);
        transfer get(server.url());
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_RECV, get.run());
        EXPECT_EQ(1u, server.connection_count());
    }
}

TEST(BadServer, Stalls) {
    struct {
        const char* name;
        script steps;
        std::int32_t io_timeout;
        std::int32_t session_timeout;
        std::uint32_t code;
    } cases[] = {
        {"after the request",
         {expect_request(), stall()},
         100,
         0,
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
        {"in the head",
         {expect_request(), send_text("HTTP/1.1 200 OK\r\n"), stall()},
         100,
         0,
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
        {"in the body",
         {expect_request(), send_text(response(200, "abc").substr(0, 40)), stall()},
         100,
         0,
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
        {"session time-out alone",
         {expect_request(), stall()},
         0,
         100,
         TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT},
        {"session time-out first",
         {expect_request(), stall()},
         5000,
         100,
         TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT},
        {"session time-out last",
         {expect_request(), stall()},
         100,
         5000,
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(now.steps);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_IO_TIMEOUT, now.io_timeout);
        get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, now.session_timeout);
        EXPECT_EQ(now.code, get.run(milliseconds(4000)));
        EXPECT_EQ(1u, server.connection_count());
    }
}

TEST(BadServer, NeverEnds) {
    library lib;
    // Bytes keep coming, so that no receive times out; only the session's own time-out ends it.
    script steps = {expect_request(), send_text("HTTP/1.1 200 OK\r\n\r\n")};
    for (int i = 0; i < 40; i++) {
        steps.push_back(send_text(std::string(1000000, 'x')));
    }
    scripted_server server(steps);
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 60);
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT, get.run());
    EXPECT_LT(0, get.number(TAV_HTTP_QUERY_BODY_BYTES));
}

TEST(BadServer, DoesNotRead) {
    library lib;
    scripted_server server(script{stall_deaf()}, server_options{false, 4096});
    std::string bytes(30000000, 'u');
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    post.set(TAV_HTTP_OPTION_IO_TIMEOUT, 200);
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_SEND_TIMEOUT, post.run());
    EXPECT_EQ(1u, server.connection_count());
}

TEST(BadServer, RedirectsForEver) {
    descriptor_guard descriptors;
    {
        library lib;
        scripted_server server(
            [](const received_request&) { return response(302, "x", "Location: /again\r\n"); });
        transfer get(server.url());
        get.record();
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT, get.run());
        EXPECT_EQ(12u, server.request_count());
        EXPECT_EQ(11u, get.event_count("redirect"));
        EXPECT_EQ(0u, get.event_count("header"));
        EXPECT_TRUE(server.wait_for_disconnects(11));
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(BadServer, UndecodableBodyIsKeptOnRequest) {
    std::string plain = sample_bytes(5000);
    std::string wrong_checksum = gzip_bytes(plain);
    wrong_checksum[wrong_checksum.size() - 8] ^= 0x55;
    struct {
        const char* name;
        std::string body;
    } cases[] = {
        {"no gzip at all", "not gzip at all"},
        {"wrong checksum", wrong_checksum},
    };
    library lib;
    for (const auto& now : cases) {
        for (std::uint32_t keep : {0u, 1u}) {
            SCOPED_TRACE(std::string(now.name) + (keep != 0 ? ", kept" : ""));
            scripted_server server(
                script{expect_request(),
                       send_text(response(200, now.body, "Content-Encoding: gzip\r\n"))});
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, keep, 0u);
            if (keep != 0) {
                EXPECT_EQ(0u, get.run());
                EXPECT_EQ(now.body, get.body());
            } else {
                EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE, get.run());
            }
        }
    }
}

TEST(BadServer, NobodyAnswersTheConnect) {
    blackhole_listener nobody;
    struct {
        const char* name;
        std::int32_t connect_timeout;
        std::int32_t session_timeout;
        std::uint32_t code;
    } cases[] = {
        {"connect time-out", 200, 0, TAV_HTTP_ERROR_CODE_FAIL_CONNECT},
        {"session time-out", 0, 200, TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT},
    };
    descriptor_guard descriptors;
    {
        library lib;
        std::vector<std::unique_ptr<transfer>> all;
        for (const auto& now : cases) {
            all.push_back(std::make_unique<transfer>(nobody.url()));
            all.back()->set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, now.connect_timeout);
            all.back()->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, now.session_timeout);
            EXPECT_EQ(0u, all.back()->send());
        }
        for (std::size_t i = 0; i < all.size(); i++) {
            SCOPED_TRACE(cases[i].name);
            // A connect gets a second at the least.
            EXPECT_EQ(cases[i].code, all[i]->wait(milliseconds(5000)));
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

}  // namespace
