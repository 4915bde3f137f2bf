// What happens behind the first response: redirects, retries, conditional requests; and what
// travels from one response to later requests: cookies, and encodings asked for and received.
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

std::string redirect_to(int status, const std::string& location) {
    return response(status, "moved", "Location: " + location + "\r\n");
}

TEST(Redirect, FollowedStatusesKeepMethodAndBody) {
    library lib;
    for (int status : {301, 302, 303, 307}) {
        SCOPED_TRACE(status);
        scripted_server server([=](const received_request& request) {
            return request.target == "/from"
                       ? response(status, "", "Location: /to\r\nSet-Cookie: s=1; path=/\r\n")
                       : response(200, request.target);
        });
        transfer get(server.url("/from"));
        get.record();
        get.set(TAV_HTTP_OPTION_HOST, "named.example");
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ("/to", get.body());
        EXPECT_EQ(server.url("/from"), get.text(TAV_HTTP_QUERY_URL));
        EXPECT_EQ(server.url("/to"), get.text(TAV_HTTP_QUERY_CURRENT_URL));
        EXPECT_EQ(server.url("/to") + " " + server.url("/from"), get.detail("redirect"));
        EXPECT_EQ("connecting connected progress redirect connecting connected progress header "
                  "start complete",
                  get.event_names());
        EXPECT_EQ("named.example", server.request(0).header("Host"));
        EXPECT_EQ("127.0.0.1", server.request(1).header("Host")) << "the option serves once";
        EXPECT_EQ("s=1;", server.request(1).header("Cookie"));
        EXPECT_FALSE(server.request(1).has_header("Referer"));
        EXPECT_EQ(2u, server.connection_count()) << "a redirecting connection is never kept";

        transfer post(server.url("/from"), TAV_HTTP_METHOD_POST);
        post.set_body("data");
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ("POST", server.request(3).method);
        EXPECT_EQ("data", server.request(3).body);
    }
}

TEST(Redirect, LocationsAreResolved) {
    struct {
        const char* from;
        const char* location;  // @ stands for the server's host and port
        const char* current;   // behind host and port
    } cases[] = {
        {"/a/b/c", "http://@/abs?x=1", "/abs?x=1"},
        {"/a/b/c", "/root", "/root"},
        {"/a/b/c", "../../../x", "/x"},
        {"/a/b?q=/1", "?r=2", "/a/b?r=2"},
        {"/f#top", "/to", "/to#top"},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.location);
        std::string location = now.location;
        scripted_server server([&](const received_request& request) {
            return request.connection == 0 ? redirect_to(302, location) : response(200, "");
        });
        std::size_t at = location.find('@');
        if (at != std::string::npos) {
            location.replace(at, 1, "127.0.0.1:" + std::to_string(server.port()));
        }
        transfer get(server.url(now.from));
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(server.url(now.current), get.text(TAV_HTTP_QUERY_CURRENT_URL));
        std::string target = now.current;
        EXPECT_EQ(target.substr(0, target.find('#')), server.request(1).target);
    }
}

TEST(Redirect, NotFollowed) {
    library lib;
    struct {
        const char* name;
        std::string reply;
        std::uint32_t no_redirect;
        std::uint32_t code;
    } cases[] = {
        {"switched off", redirect_to(302, "/to"), 1, 0},
        {"no location", response(302, "x"), 0, code::status},
        {"status 308", redirect_to(308, "/to"), 0, code::status},
        {"another scheme", redirect_to(302, "ftp://127.0.0.1/x"), 0, code::invalid_url},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(always(now.reply));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_NO_REDIRECT, now.no_redirect);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(1u, server.request_count());
    }
}

TEST(Redirect, ElevenAreFollowed) {
    descriptor_guard descriptors;
    {
        library lib;
        for (int last : {11, 12}) {
            SCOPED_TRACE(last);
            scripted_server server([&](const received_request& request) {
                int number = std::atoi(request.target.c_str() + 1);
                return number < last ? redirect_to(302, "/" + std::to_string(number + 1))
                                     : response(200, "end");
            });
            transfer get(server.url("/0"));
            get.record();
            EXPECT_EQ(last == 11 ? 0u : code::redirects, get.run());
            EXPECT_EQ(12u, server.request_count());
            EXPECT_EQ(11u, get.event_count("redirect"));
            EXPECT_EQ(last == 11 ? 1u : 0u, get.event_count("header"));
            EXPECT_TRUE(server.wait_for_disconnects(11));
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(Retry, RangeNotSatisfiable) {
    library lib;
    for (int refusals : {1, 2}) {
        SCOPED_TRACE(refusals);
        scripted_server server([&](const received_request& request) {
            return request.connection < refusals ? response(416, "no") : response(200, "all");
        });
        transfer get(server.url());
        EXPECT_EQ(refusals == 1 ? 0u : code::status, get.run());
        EXPECT_EQ(2u, server.request_count());
    }
}

TEST(Conditional, NotModified) {
    library lib;
    scripted_server server([](const received_request& request) {
        return request.header("If-None-Match") == "\"v1\""
                   ? std::string("HTTP/1.1 304 Same\r\nConnection: Keep-Alive\r\n\r\n")
                   : response(200, "new");
    });
    transfer same(server.url());
    same.set(TAV_HTTP_OPTION_IF_NONE_MATCH, "\"v1\"");
    EXPECT_EQ(code::not_modified, same.run());
    EXPECT_EQ(304u, same.status());
    EXPECT_EQ("", same.body());
    transfer other(server.url());
    other.set(TAV_HTTP_OPTION_IF_NONE_MATCH, "\"v0\"");
    EXPECT_EQ(0u, other.run());
    EXPECT_EQ("new", other.body());
    EXPECT_EQ(1u, server.connection_count()) << "an unchanged resource leaves its connection";
}

TEST(Cookies, StoredAndSent) {
    struct {
        const char* name;
        std::vector<const char*> stored;  // Set-Cookie values, one response each, from /dir/page
        const char* target;
        const char* own;  // the host's own cookies, or null
        std::uint32_t off;
        const char* sent;
    } cases[] = {
        {"path and domain", {"a=1; Path=/"}, "/x", nullptr, 0, "a=1;"},
        {"the page's own path", {"a=1"}, "/dir/page/2", nullptr, 0, "a=1;"},
        {"another page", {"a=1"}, "/dir/other", nullptr, 0, ""},
        {"order of storing", {"a=1; path=/", "b=2; path=/"}, "/", nullptr, 0, "a=1;b=2;"},
        {"removed", {"a=1; path=/", "a=; path=/"}, "/", nullptr, 0, ""},
        {"expired", {"a=1; path=/; expires=Sun, 06 Nov 1994 08:49:37 GMT"}, "/", nullptr, 0, ""},
        {"another domain", {"a=1; path=/; domain=example.com"}, "/", nullptr, 0, ""},
        {"own first", {"a=1; path=/", "b=2; path=/"}, "/", "b=own; c=3", 0, "b=own; c=3; a=1"},
        {"switched off", {"a=1; path=/"}, "/", nullptr, 1, ""},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        library lib;  // each start begins with an empty store
        std::size_t next = 0;
        scripted_server server([&](const received_request&) {
            std::string header;
            if (next < now.stored.size()) {
                header = std::string("Set-Cookie: ") + now.stored[next++] + "\r\n";
            }
            return response(200, "", header);
        });
        for (std::size_t i = 0; i < now.stored.size(); i++) {
            transfer get(server.url("/dir/page"));
            EXPECT_EQ(0u, get.run());
        }
        transfer get(server.url(now.target));
        if (now.own != nullptr) {
            get.set(TAV_HTTP_OPTION_COOKIE, now.own);
        }
        get.set(TAV_HTTP_OPTION_NO_COOKIE_STORE, now.off);
        EXPECT_EQ(0u, get.run());
        received_request last = server.request(now.stored.size());
        EXPECT_EQ(now.sent, last.header("Cookie"));
        EXPECT_EQ(*now.sent != 0, last.has_header("Cookie"));
    }
}

TEST(Encoding, BodiesAreDecoded) {
    std::string plain = "some text, some text, some text\n";
    std::string large(1000000, 'x');
    std::string noise = sample_bytes(200000);
    struct {
        const char* name;
        const char* encoding;
        std::string body;
        std::string decoded;
        std::int64_t query;  // what the encoding's query tells
        bool splits;         // comes byte by byte as well
    } cases[] = {
        {"gzip", "GZIP", gzip_bytes(plain), plain, 1, true},
        {"zlib format", "deflate", deflate_bytes(plain), plain, 2, true},
        {"raw deflate", "Deflate", raw_deflate_bytes(plain), plain, 2, false},
        {"grows a lot", "gzip", gzip_bytes(large), large, 1, false},
        {"does not shrink", "gzip", gzip_bytes(noise), noise, 1, false},
        {"garbage behind the end", "gzip", gzip_bytes(plain) + "garbage", plain, 1, false},
        {"empty body", "gzip", "", "", 1, false},
        {"unknown", "x-gzip", gzip_bytes(plain), gzip_bytes(plain), 0, false},
    };
    library lib;
    for (const auto& now : cases) {
        for (bool bytewise : {false, true}) {
            if (bytewise && !now.splits) {
                continue;
            }
            SCOPED_TRACE(std::string(now.name) + (bytewise ? ", byte by byte" : ""));
            std::string header = std::string("Content-Encoding: ") + now.encoding + "\r\n";
            step send = bytewise ? send_bytewise(chunked_response(200, now.body, 1, header))
                                 : send_text(response(200, now.body, header));
            scripted_server server(script{expect_request(), send});
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
            EXPECT_EQ(0u, get.run());
            EXPECT_TRUE(now.decoded == get.body());
            EXPECT_EQ(md5_hex(now.decoded), get.md5());
            EXPECT_EQ(static_cast<std::int64_t>(now.decoded.size()),
                      get.number(TAV_HTTP_QUERY_BODY_BYTES));
            EXPECT_EQ(now.query, get.number(TAV_HTTP_QUERY_CONTENT_ENCODING) & 0xFFFFFFFF);
        }
    }
}

}  // namespace
