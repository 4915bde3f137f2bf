// Whole transfers to memory: framing, callbacks, queries and the request head.
#include "tests/support/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

using testing::ElementsAre;

namespace {

struct framing_case {
    const char* name;
    std::string reply;
    bool close_after;
    std::string body;
};

std::vector<framing_case> framing_cases() {
    std::string big = sample_bytes(300000);
    return {
        {"content length", response(200, "hello"), false, "hello"},
        {"empty", response(200, ""), false, ""},
        {"chunked", chunked_response(200, "hello chunked world", 7), false, "hello chunked world"},
        {"chunked upper case",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\n\r\n3\r\nabc\r\n0\r\n\r\n", false,
         "abc"},
        {"chunk extensions and trailer",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
         "3;x=1\r\nabc\r\n2\r\nde\r\n0\r\nX-Sum: 1\r\n\r\n",
         false, "abcde"},
        {"until close", "HTTP/1.1 200 OK\r\n\r\nuntil the end", true, "until the end"},
        {"nothing until close", "HTTP/1.1 200 OK\r\nX: y\r\n\r\n", true, ""},
        {"version 1.0", "HTTP/1.0 200 OK\r\n\r\nold", true, "old"},
        {"no reason phrase", "HTTP/1.1 200\r\nContent-Length: 2\r\n\r\nok", false, "ok"},
        {"partial content", response(206, "part"), false, "part"},
        {"large", response(200, big), false, big},
        {"large chunked", chunked_response(200, big, 5000), false, big},
        {"large until close", "HTTP/1.1 200 OK\r\n\r\n" + big, true, big},
    };
}

TEST(DownloadFlow, EveryFramingGivesTheWholeBody) {
    library lib;
    for (const framing_case& now : framing_cases()) {
        SCOPED_TRACE(now.name);
        script steps = {expect_request(), send_text(now.reply)};
        if (now.close_after) {
            steps.push_back(half_close());
        }
        scripted_server server(steps);
        transfer get(server.url("/file"));
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(now.body == get.body());
        EXPECT_EQ(static_cast<std::int64_t>(now.body.size()),
                  get.number(TAV_HTTP_QUERY_BODY_BYTES));
        EXPECT_EQ(1u, server.connection_count());
    }
}

TEST(DownloadFlow, SplitsInTheResponseChangeNothing) {
    library lib;
    for (const framing_case& now : framing_cases()) {
        if (now.reply.size() > 400) {
            continue;
        }
        SCOPED_TRACE(now.name);
        script steps = {expect_request(), send_bytewise(now.reply)};
        if (now.close_after) {
            steps.push_back(half_close());
        }
        scripted_server server(steps);
        transfer get(server.url());
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(now.body, get.body());
    }
}

TEST(DownloadFlow, StatusDecidesTheResult) {
    struct {
        int status;
        std::uint32_t code;
    } cases[] = {
        {200, TAV_HTTP_ERROR_CODE_OK},
        {206, TAV_HTTP_ERROR_CODE_OK},
        {201, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {300, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {308, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {400, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {404, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {500, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {599, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.status);
        scripted_server server(script{expect_request(), send_text(response(now.status, "why"))});
        transfer get(server.url());
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(static_cast<std::uint32_t>(now.status), get.status());
        EXPECT_EQ("why", get.body());
    }
    scripted_server server(script{expect_request(), send_text("HTTP/1.1 204 None\r\n\r\n")});
    transfer get(server.url());
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, get.run());
    EXPECT_EQ(204u, get.status());
}

TEST(DownloadFlow, HeadEndsBehindTheHead) {
    library lib;
    scripted_server server(
        script{expect_request(), send_text("HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n")});
    transfer head(server.url("/x"), TAV_HTTP_METHOD_HEAD);
    EXPECT_EQ(0u, head.run());
    EXPECT_EQ("HEAD", server.request(0).method);
    EXPECT_EQ(5000, head.number(TAV_HTTP_QUERY_CONTENT_LENGTH));
    EXPECT_EQ(0, head.number(TAV_HTTP_QUERY_BODY_BYTES));
}

TEST(DownloadFlow, RequestHeadLinesAndTheirOrder) {
    library lib;
    scripted_server server(script{expect_request(), send_text(response(200, ""))});
    transfer plain(server.url("/a?b=1#c"));
    EXPECT_EQ(0u, plain.run());
    EXPECT_EQ("GET /a?b=1 HTTP/1.1\r\n"
              "Host: 127.0.0.1\r\n"
              "Accept: */*\r\n"
              "User-Agent: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)\r\n"
              "Connection: Keep-Alive\r\n"
              "Cache-Control: no-cache\r\n"
              "Accept-Encoding: gzip, deflate\r\n"
              "\r\n",
              server.request(0).raw);

    transfer full(server.url("/"));
    full.set(TAV_HTTP_OPTION_HOST, "files.example");
    full.set(TAV_HTTP_OPTION_ACCEPT, "text/plain");
    full.set(TAV_HTTP_OPTION_USER_AGENT, "agent/1");
    full.set(TAV_HTTP_OPTION_CONNECTION, 2u);
    full.set(TAV_HTTP_OPTION_CACHE_CONTROL, "max-age=0");
    full.set(TAV_HTTP_OPTION_RANGE, std::int64_t{0}, std::int64_t{499});
    full.set(TAV_HTTP_OPTION_IF_MODIFIED_SINCE, std::int64_t{784111777});
    full.set(TAV_HTTP_OPTION_IF_NONE_MATCH, "\"tag\"");
    full.set(TAV_HTTP_OPTION_COOKIE, "a=1; b=2");
    full.set(TAV_HTTP_OPTION_ADD_HEADER, "X-One", "%d of %s", 1, "two");
    full.set(TAV_HTTP_OPTION_ADD_HEADER, "X-Two", "2");
    EXPECT_EQ(0u, full.run());
    EXPECT_EQ("GET / HTTP/1.1\r\n"
              "Host: files.example\r\n"
              "Accept: text/plain\r\n"
              "User-Agent: agent/1\r\n"
              "Connection: Close\r\n"
              "Cache-Control: max-age=0\r\n"
              "Accept-Encoding: identity\r\n"
              "Range: bytes=0-499\r\n"
              "If-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
              "If-None-Match: \"tag\"\r\n"
              "Cookie: a=1; b=2\r\n"
              "X-One: 1 of two\r\n"
              "X-Two: 2\r\n"
              "\r\n",
              server.request(1).raw);
}

TEST(DownloadFlow, CallbacksComeInOrderOnLibraryThreads) {
    library lib;
    scripted_server server(script{expect_request(), send_text(response(200, "0123456789"))});
    transfer get(server.url("/file"));
    get.record();
    get.record_data();
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("connecting connected progress header start data complete", get.event_names());
    EXPECT_EQ(server.url("/file"), get.detail("connecting"));
    EXPECT_EQ("127.0.0.1", get.detail("connected"));
    EXPECT_EQ(server.url("/file") + " 0 0 10", get.detail("start"));
    std::string head_size = std::to_string(server.request(0).raw.size());
    EXPECT_EQ("0 " + head_size + " " + head_size, get.detail("progress"));
    EXPECT_EQ("0123456789", get.data());
    EXPECT_EQ("", get.body()) << "the host has the bytes, so none are kept";
    for (const event& one : get.events()) {
        EXPECT_NE(std::this_thread::get_id(), one.thread) << one.name;
    }
    EXPECT_EQ(1, get.completions());
}

TEST(DownloadFlow, DataCallbackPositionsAreContiguous) {
    library lib;
    std::string bytes = sample_bytes(500000);
    scripted_server server(script{expect_request(), send_text(response(206, bytes))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_RANGE, std::int64_t{1000}, std::int64_t{-1});
    get.record();
    get.record_data();
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("bytes=1000-", server.request(0).header("Range"));
    EXPECT_EQ(server.url() + " 1000 -1 500000", get.detail("start"));
    std::uint64_t next = 1000;
    for (const event& one : get.events()) {
        unsigned long long at = 0;
        unsigned long long length = 0;
        if (one.name == "data" && sscanf(one.detail.c_str(), "%llu %llu", &at, &length) == 2) {
            EXPECT_EQ(next, at);
            next = at + length;
        }
    }
    EXPECT_EQ(501000u, next);
    EXPECT_TRUE(bytes == get.data());
}

TEST(DownloadFlow, ErrorBodiesAreReportedOnRequest) {
    library lib;
    for (std::uint32_t keep : {0u, 1u}) {
        SCOPED_TRACE(keep);
        scripted_server server(script{expect_request(), send_text(response(404, "gone"))});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, keep);
        get.record();
        get.record_data();
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, get.run());
        EXPECT_EQ(keep != 0 ? "gone" : "", get.data());
        EXPECT_EQ(keep != 0 ? "" : "gone", get.body());
        EXPECT_EQ(keep, get.event_count("start"));
        EXPECT_EQ(1u, get.event_count("header"));
    }
}

TEST(DownloadFlow, QueriesTellTheResponse) {
    library lib;
    scripted_server server(
        script{expect_request(), send_text("HTTP/1.1 206 Part Of It\r\n"
                                           "Content-Type: text/plain\r\n"
                                           "Content-Range: bytes 10-14/200\r\n"
                                           "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                                           "ETag: \"v1\"\r\n"
                                           "Set-Cookie: a=1\r\n"
                                           "X-Twice: one\r\n"
                                           "set-cookie: b=2\r\n"
                                           "x-twice: two\r\n"
                                           "Content-Length: 5\r\n\r\nhello")});
    transfer get(server.url("/q"));
    get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
    std::uint32_t status = 7;
    EXPECT_EQ(
        TAV_HTTP_ERROR_CODE_QUERY_INFO_NOT_AVAILABLE,
        tavHTTPQueryInfo(get.handle(), TAV_HTTP_QUERY_STATUS_CODE, &status, nullptr, nullptr));
    EXPECT_EQ(7u, status);
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ(206u, get.status());
    EXPECT_EQ("Part Of It", get.text(TAV_HTTP_QUERY_STATUS_TEXT));
    EXPECT_EQ("hello", get.body());
    EXPECT_EQ(5, get.number(TAV_HTTP_QUERY_CONTENT_LENGTH));
    EXPECT_EQ(server.url("/q"), get.text(TAV_HTTP_QUERY_URL));
    EXPECT_EQ(server.url("/q"), get.text(TAV_HTTP_QUERY_CURRENT_URL));
    EXPECT_EQ(10, get.number(TAV_HTTP_QUERY_RANGE_START));
    EXPECT_EQ(14, get.number(TAV_HTTP_QUERY_RANGE_END));
    EXPECT_EQ(200, get.number(TAV_HTTP_QUERY_RANGE_TOTAL));
    EXPECT_EQ(784111777, get.number(TAV_HTTP_QUERY_LAST_MODIFIED));
    EXPECT_EQ("\"v1\"", get.text(TAV_HTTP_QUERY_ETAG));
    EXPECT_EQ("text/plain", get.header("content-TYPE"));
    EXPECT_THAT(get.header_all("X-Twice"), ElementsAre("one", "two"));
    EXPECT_EQ("127.0.0.1", get.peer());
    EXPECT_EQ(md5_hex("hello"), get.md5());
    const char* cookies = nullptr;
    tavHTTPQueryInfo(get.handle(), TAV_HTTP_QUERY_SET_COOKIE, &cookies, nullptr, nullptr);
    ASSERT_NE(nullptr, cookies);
    EXPECT_EQ(std::string("a=1\0b=2\0", 8), std::string(cookies, 8));

    char raw[512];
    std::int32_t length = sizeof raw;
    EXPECT_EQ(0u,
              tavHTTPQueryInfo(get.handle(), TAV_HTTP_QUERY_RAW_HEADERS, raw, &length, nullptr));
    EXPECT_THAT(raw, testing::StartsWith("Content-Type : text/plain\r\nContent-Range : "));
    EXPECT_THAT(raw, testing::EndsWith("\r\nContent-Length : 5\r\n\r\n"));
    EXPECT_EQ(static_cast<std::int32_t>(strlen(raw)) + 1, length);
    char name[] = "X-Twice";
    length = 1;
    EXPECT_EQ(0x20007u,
              tavHTTPQueryInfo(get.handle(), TAV_HTTP_QUERY_HEADER_ALL, name, raw, &length));
    EXPECT_EQ(9, length);
}

TEST(DownloadFlow, WrongCallsOfTheHostEndAsCodes) {
    library lib;
    struct {
        const char* name;
        std::uint32_t method;
        const char* url;
        std::uint32_t code;
    } cases[] = {
        {"method", 5, "http://127.0.0.1:1/", TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT},
        {"scheme", 1, "ftp://127.0.0.1/", TAV_HTTP_ERROR_CODE_INVALID_URL},
        {"no scheme", 1, "127.0.0.1/", TAV_HTTP_ERROR_CODE_INVALID_URL},
        {"empty", 1, "", TAV_HTTP_ERROR_CODE_INVALID_URL},
        {"no host", 1, "http://", TAV_HTTP_ERROR_CODE_INVALID_URL},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        transfer bad(now.url, now.method);
        bad.record();
        EXPECT_EQ(now.code, bad.run());
        EXPECT_EQ(0u, bad.event_count("connected"));
    }
    std::string refused = "http://127.0.0.1:" + std::to_string(refusing_port()) + "/";
    transfer get(refused);
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_CONNECT, get.run());
    transfer range(refused);
    EXPECT_EQ(0u, range.set(TAV_HTTP_OPTION_RANGE, std::int64_t{-5}, std::int64_t{10}));
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_CONNECT, range.run()) << "the head is built later";
    scripted_server server(script{expect_request()});
    transfer bad_range(server.url());
    bad_range.set(TAV_HTTP_OPTION_RANGE, std::int64_t{-5}, std::int64_t{10});
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER, bad_range.run());
    EXPECT_EQ(0u, server.request_count());
}

TEST(DownloadFlow, KeptAliveConnectionsAreReused) {
    std::string keep = response(200, "x", "Connection: Keep-Alive\r\n");
    std::string silent = response(200, "x");
    struct {
        const char* name;
        std::string reply;
        std::uint32_t no_reuse;
        std::uint32_t keep_option;
        std::size_t connections;
    } cases[] = {
        {"the server says keep-alive", keep, 0, 0, 1},
        {"the server says nothing", silent, 0, 0, 2},
        {"the server says nothing, the host keeps", silent, 0, 1, 1},
        {"the server says close", response(200, "x", "Connection: close\r\n"), 0, 0, 2},
        {"the host wants new ones", keep, 1, 0, 2},
        {"an error response", response(500, "x", "Connection: Keep-Alive\r\n"), 0, 0, 2},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server([&](const received_request&) { return now.reply; });
        for (int i = 0; i < 2; i++) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_NO_REUSE, now.no_reuse);
            get.set(TAV_HTTP_OPTION_KEEP_ALIVE, now.keep_option, std::int32_t{0}, std::int32_t{0});
            get.run();
            EXPECT_EQ("x", get.body());
        }
        EXPECT_EQ(now.connections, server.connection_count());
    }
}

TEST(DownloadFlow, ManyAtOnceOverFewConnections) {
    descriptor_guard descriptors;
    {
        library lib;
        scripted_server server([](const received_request& request) {
            return response(200, request.target, "Connection: Keep-Alive\r\n");
        });
        std::vector<std::unique_ptr<transfer>> all;
        for (int i = 0; i < 200; i++) {
            all.push_back(std::make_unique<transfer>(server.url("/" + std::to_string(i))));
            EXPECT_EQ(0u, all.back()->send());
        }
        for (int i = 0; i < 200; i++) {
            EXPECT_EQ(0u, all[static_cast<std::size_t>(i)]->wait());
            EXPECT_EQ("/" + std::to_string(i), all[static_cast<std::size_t>(i)]->body());
        }
        EXPECT_EQ(200u, server.request_count());
        EXPECT_GE(6u, server.connection_count());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(DownloadFlow, Ipv6Literal) {
    library lib;
    scripted_server server(script{expect_request(), send_text(response(200, "six"))},
                           server_options{true, 0});
    transfer get(server.url());
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("six", get.body());
    EXPECT_EQ("::1", get.peer());
}

}  // namespace
