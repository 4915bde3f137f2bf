// Whole transfers to memory: framing, callbacks, queries and the request head.
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

const char* const keep = "Connection: Keep-Alive\r\n";

TEST(DownloadFlow, EveryFramingGivesTheWholeBody) {
    const std::string big = sample_bytes(300000);
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
    struct {
        const char* name;
        std::string reply;
        bool close_after;
        std::string body;
    } cases[] = {
        {"content length", response(200, "hello"), false, "hello"},
        {"empty", response(200, ""), false, ""},
        {"chunked", chunked_response(200, "hello chunked world", 7), false, "hello chunked world"},
        {"upper case", ok + "Transfer-Encoding: CHUNKED\r\n\r\n3\r\nabc\r\n0\r\n\r\n", false,
         "abc"},
        {"extensions, trailer", chunked + "3;x=1\r\nabc\r\n2\r\nde\r\n0\r\nX-Sum: 1\r\n\r\n", false,
         "abcde"},
        {"until close", ok + "\r\nuntil the end", true, "until the end"},
        {"nothing until close", ok + "X: y\r\n\r\n", true, ""},
        {"version 1.0", "HTTP/1.0 200 OK\r\n\r\nold", true, "old"},
        {"no reason phrase", "HTTP/1.1 200\r\nContent-Length: 2\r\n\r\nok", false, "ok"},
        {"large", response(206, big), false, big},
        {"large chunked", chunked_response(200, big, 5000), false, big},
        {"large until close", ok + "\r\n" + big, true, big},
    };
    library lib;
    for (const auto& now : cases) {
        for (bool bytewise : {false, true}) {
            if (bytewise && now.reply.size() > 400) {
                continue;
            }
            SCOPED_TRACE(std::string(now.name) + (bytewise ? ", byte by byte" : ""));
            script steps = {expect_request(),
                            bytewise ? send_bytewise(now.reply) : send_text(now.reply)};
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
}

TEST(DownloadFlow, StatusDecidesTheResult) {
    library lib;
    for (int status : {200, 206, 201, 300, 308, 404, 500, 599, 204}) {
        SCOPED_TRACE(status);
        bool empty = status == 204;
        scripted_server server(
            reply_with(empty ? "HTTP/1.1 204 None\r\n\r\n" : response(status, "why")));
        transfer get(server.url());
        EXPECT_EQ(status == 200 || status == 206 ? 0u : code::status, get.run());
        EXPECT_EQ(static_cast<std::uint32_t>(status), get.status());
        EXPECT_EQ(empty ? "" : "why", get.body());
    }
}

TEST(DownloadFlow, RequestHead) {
    library lib;
    scripted_server server(reply_with(response(200, "")));
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
}

TEST(DownloadFlow, CallbacksComeInOrderOnLibraryThreads) {
    library lib;
    std::string bytes = sample_bytes(500000);
    scripted_server server(reply_with(response(206, bytes)));
    transfer get(server.url("/file"));
    get.set(TAV_HTTP_OPTION_RANGE, std::int64_t{1000}, std::int64_t{-1});
    get.record();
    get.record_data();
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("connecting connected progress header start data complete", get.event_names());
    EXPECT_EQ(server.url("/file"), get.detail("connecting"));
    EXPECT_EQ("127.0.0.1", get.detail("connected"));
    EXPECT_EQ(server.url("/file") + " 1000 -1 500000", get.detail("start"));
    std::string head_size = std::to_string(server.request(0).raw.size());
    EXPECT_EQ("0 " + head_size + " " + head_size, get.detail("progress"));
    EXPECT_TRUE(bytes == get.data());
    EXPECT_EQ("", get.body()) << "the host has the bytes, so none are kept";
    std::uint64_t next = 1000;
    for (const event& one : get.events()) {
        EXPECT_NE(std::this_thread::get_id(), one.thread) << one.name;
        unsigned long long at = 0;
        unsigned long long length = 0;
        if (one.name == "data" && sscanf(one.detail.c_str(), "%llu %llu", &at, &length) == 2) {
            EXPECT_EQ(next, at);
            next = at + length;
        }
    }
    EXPECT_EQ(501000u, next);
    EXPECT_EQ(1, get.completions());
}

TEST(DownloadFlow, WrongCallsOfTheHostEndAsCodes) {
    library lib;
    scripted_server server(script{expect_request()});
    const std::string refused = "http://127.0.0.1:" + std::to_string(refusing_port()) + "/";
    struct {
        const char* name;
        std::uint32_t method;
        std::string url;
        std::int64_t range_start;
        std::uint32_t code;
    } cases[] = {
        {"method", 5, "http://127.0.0.1:1/", 0, TAV_HTTP_ERROR_CODE_METHOD_NOT_SUPPORT},
        {"scheme", 1, "ftp://127.0.0.1/", 0, code::invalid_url},
        {"no host", 1, "http://", 0, code::invalid_url},
        {"refused", 1, refused, 0, code::connect},
        {"refused; the head is built later", 1, refused, -5, code::connect},
        {"range", 1, server.url(), -5, TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        transfer bad(now.url, now.method);
        EXPECT_EQ(0u, bad.set(TAV_HTTP_OPTION_RANGE, now.range_start,
                              std::int64_t{now.range_start != 0 ? 10 : 0}));
        EXPECT_EQ(now.code, bad.run());
        EXPECT_EQ(0u, server.request_count());
    }
}

TEST(DownloadFlow, KeptAliveConnectionsAreReused) {
    const std::string silent = response(200, "x");
    struct {
        const char* name;
        std::string reply;
        std::uint32_t no_reuse;
        std::uint32_t keep_option;
        std::size_t connections;
    } cases[] = {
        {"the server says keep-alive", response(200, "x", keep), 0, 0, 1},
        {"the server says nothing", silent, 0, 0, 2},
        {"the server says nothing, the host keeps", silent, 0, 1, 1},
        {"the server says close", response(200, "x", "Connection: close\r\n"), 0, 0, 2},
        {"the host wants new ones", response(200, "x", keep), 1, 0, 2},
        {"an error response", response(500, "x", keep), 0, 0, 2},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(always(now.reply));
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
        scripted_server server(
            [](const received_request& request) { return response(200, request.target, keep); });
        std::vector<std::unique_ptr<transfer>> all;
        for (int i = 0; i < 200; i++) {
            all.push_back(std::make_unique<transfer>(server.url("/" + std::to_string(i))));
            EXPECT_EQ(0u, all.back()->send());
        }
        for (std::size_t i = 0; i < all.size(); i++) {
            EXPECT_EQ(0u, all[i]->wait());
            EXPECT_EQ("/" + std::to_string(i), all[i]->body());
        }
        EXPECT_EQ(200u, server.request_count());
        EXPECT_GE(6u, server.connection_count());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(DownloadFlow, Ipv6Literal) {
    library lib;
    scripted_server server(reply_with(response(200, "six")), server_options{true, 0});
    transfer get(server.url());
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("six", get.body());
    EXPECT_EQ("::1", get.peer());
}

}  // namespace
