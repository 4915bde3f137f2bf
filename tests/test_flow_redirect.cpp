// What happens behind the first response: redirects, retries, conditional requests; and what
// travels from one response to later requests: cookies, and encodings asked for and received.
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

std::string redirect_to(int status, const std::string& location) {
    return response(status, "moved", "Location: " + location + "\r\n");
}

// Redirects requests for `from` to `location`, answers every other with its target.
request_handler redirect_once(int status, const std::string& from, const std::string& location) {
    return [=](const received_request& request) {
        if (request.target == from) {
            return redirect_to(status, location);
        }
        return response(200, request.target);
    };
}

TEST(Redirect, FollowedStatusesKeepMethodAndBody) {
    library lib;
    for (int status : {301, 302, 303, 307}) {
        SCOPED_TRACE(status);
        scripted_server server(redirect_once(status, "/from", "/to"));
        transfer get(server.url("/from"));
        get.record();
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ("/to", get.body());
        EXPECT_EQ(server.url("/from"), get.text(TAV_HTTP_QUERY_URL));
        EXPECT_EQ(server.url("/to"), get.text(TAV_HTTP_QUERY_CURRENT_URL));
        EXPECT_EQ(server.url("/to") + " " + server.url("/from"), get.detail("redirect"));
        EXPECT_EQ("connecting connected progress redirect connecting connected progress header "
                  "start complete",
                  get.event_names());
        EXPECT_EQ(2u, server.connection_count()) << "a redirecting connection is never kept";

        transfer post(server.url("/from"), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_APPEND_BODY, "data", 4u);
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
        {"/a/b/c", "//@/scheme", "/scheme"},
        {"/a/b/c", "/root", "/root"},
        {"/a/b/c", "d", "/a/b/d"},
        {"/a/b/c", "./d", "/a/b/d"},
        {"/a/b/c", "../x", "/a/x"},
        {"/a/b/c", "../../../x", "/x"},
        {"/a/b?q=/1", "?r=2", "/a/b?r=2"},
        {"/f#top", "/to", "/to#top"},
        {"/f#top", "/to#end", "/to#end"},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.location);
        std::string place;
        scripted_server server([&](const received_request& request) {
            if (request.connection == 0) {
                std::string location = now.location;
                std::size_t at = location.find('@');
                return redirect_to(302, at == std::string::npos ? location
                                                                : location.replace(at, 1, place));
            }
            return response(200, "");
        });
        place = "127.0.0.1:" + std::to_string(server.port());
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
        {"switched off", redirect_to(302, "/to"), 1, TAV_HTTP_ERROR_CODE_OK},
        {"no location", response(302, "x"), 0, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {"status 308", redirect_to(308, "/to"), 0, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {"status 305", redirect_to(305, "/to"), 0, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {"another scheme", redirect_to(302, "ftp://127.0.0.1/x"), 0,
         TAV_HTTP_ERROR_CODE_INVALID_URL},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server([&](const received_request&) { return now.reply; });
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_NO_REDIRECT, now.no_redirect);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(1u, server.request_count());
    }
}

TEST(Redirect, ElevenAreFollowed) {
    library lib;
    for (int last : {11, 12}) {
        SCOPED_TRACE(last);
        scripted_server server([&](const received_request& request) {
            int number = std::atoi(request.target.c_str() + 1);
            return number < last ? redirect_to(302, "/" + std::to_string(number + 1))
                                 : response(200, "end");
        });
        transfer get(server.url("/0"));
        EXPECT_EQ(last == 11 ? 0u : std::uint32_t{TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT},
                  get.run());
        EXPECT_EQ(12u, server.request_count());
    }
}

TEST(Redirect, HostOptionServesTheFirstRequestOnly) {
    library lib;
    scripted_server server(redirect_once(302, "/from", "/to"));
    transfer get(server.url("/from"));
    get.set(TAV_HTTP_OPTION_HOST, "named.example");
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("named.example", server.request(0).header("Host"));
    EXPECT_EQ("127.0.0.1", server.request(1).header("Host"));
    EXPECT_FALSE(server.request(1).has_header("Referer"));
}

TEST(Retry, BrokenReusedConnectionIsReplacedOnce) {
    std::string good = response(200, "ok", "Connection: Keep-Alive\r\n");
    struct {
        const char* name;
        script first;  // behind the first good exchange
        script second;
        std::uint32_t code;
    } cases[] = {
        {"reset", {expect_request(), reset()}, {expect_request(), send_text(good)}, 0},
        {"closed while idle", {close_now()}, {expect_request(), send_text(good)}, 0},
        {"closed in the response",
         {expect_request(), send_text("HTTP/1.1 200 OK\r\nContent-Le"), half_close()},
         {expect_request(), send_text(good)},
         0},
        {"reset twice",
         {expect_request(), reset()},
         {expect_request(), reset()},
         TAV_HTTP_ERROR_CODE_FAIL_RECV},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        script first = {expect_request(), send_text(good)};
        first.insert(first.end(), now.first.begin(), now.first.end());
        scripted_server server(std::vector<script>{first, now.second});
        {
            transfer get(server.url("/1"));
            EXPECT_EQ(0u, get.run());
        }
        if (now.first.size() == 1) {
            EXPECT_TRUE(server.wait_for_disconnects(1));
        }
        transfer get(server.url("/2"));
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(now.code == 0 ? "ok" : "", get.body());
        EXPECT_EQ(2u, server.connection_count());
        EXPECT_EQ(1, get.completions());
    }
}

TEST(Retry, NewConnection) {
    // A reset keeps the connection record, so there is no second attempt; an orderly close drops
    // it, and a session without a connection is tried again.
    struct {
        const char* name;
        step ending;
        std::size_t connections;
    } cases[] = {
        {"reset", reset(), 1},
        {"close", half_close(), 2},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        scripted_server server(script{expect_request(), now.ending});
        transfer get(server.url());
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_RECV, get.run());
        EXPECT_EQ(now.connections, server.connection_count());
    }
}

TEST(Retry, RangeNotSatisfiable) {
    library lib;
    for (int refusals : {1, 2}) {
        SCOPED_TRACE(refusals);
        scripted_server server([&](const received_request& request) {
            return request.connection < refusals ? response(416, "no") : response(200, "all");
        });
        transfer get(server.url());
        EXPECT_EQ(refusals == 1 ? 0u : std::uint32_t{TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
                  get.run());
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
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_NOT_MODIFIED, same.run());
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
        const char* own;  // option 106, or null
        std::uint32_t off;
        const char* sent;
    } cases[] = {
        {"path and domain", {"a=1; Path=/"}, "/x", nullptr, 0, "a=1;"},
        {"the page's own path", {"a=1"}, "/dir/page/2", nullptr, 0, "a=1;"},
        {"another page", {"a=1"}, "/dir/other", nullptr, 0, ""},
        {"path prefix", {"a=1; path=/dir"}, "/directory", nullptr, 0, "a=1;"},
        {"order of storing", {"a=1; path=/", "b=2; path=/"}, "/", nullptr, 0, "a=1;b=2;"},
        {"replaced", {"a=1; path=/", "a=2; path=/"}, "/", nullptr, 0, "a=2;"},
        {"removed", {"a=1; path=/", "a=; path=/"}, "/", nullptr, 0, ""},
        {"expired", {"a=1; path=/; expires=Sun, 06 Nov 1994 08:49:37 GMT"}, "/", nullptr, 0, ""},
        {"another domain", {"a=1; path=/; domain=example.com"}, "/", nullptr, 0, ""},
        {"flags", {"a=1; path=/; Secure; HttpOnly"}, "/", nullptr, 0, "a=1;"},
        {"unknown attribute", {"a=1; Max-Age=60; path=/"}, "/", nullptr, 0, "a=1;Max-Age=60;"},
        {"own first", {"a=1; path=/", "b=2; path=/"}, "/", "b=own; c=3", 0, "b=own; c=3; a=1"},
        {"switched off", {"a=1; path=/"}, "/", nullptr, 1, ""},
        {"switched off, own", {"a=1; path=/"}, "/", "c=3", 1, "c=3"},
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

TEST(Cookies, SetByARedirectAreSentToItsTarget) {
    library lib;
    scripted_server server([](const received_request& request) {
        return request.target == "/login"
                   ? response(302, "", "Set-Cookie: s=1; path=/\r\nLocation: /home\r\n")
                   : response(200, "");
    });
    transfer get(server.url("/login"));
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("s=1;", server.request(1).header("Cookie"));
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
        std::uint32_t query;  // the value of query 21
    } cases[] = {
        {"gzip", "gzip", gzip_bytes(plain), plain, 1},
        {"capitals", "GZIP", gzip_bytes(plain), plain, 1},
        {"zlib format", "deflate", deflate_bytes(plain), plain, 2},
        {"raw deflate", "Deflate", raw_deflate_bytes(plain), plain, 2},
        {"zlib format called gzip", "gzip", deflate_bytes(plain), plain, 1},
        {"grows a lot", "gzip", gzip_bytes(large), large, 1},
        {"does not shrink", "gzip", gzip_bytes(noise), noise, 1},
        {"garbage behind the end", "gzip", gzip_bytes(plain) + "garbage", plain, 1},
        {"empty body", "gzip", "", "", 1},
        {"unknown", "x-gzip", gzip_bytes(plain), gzip_bytes(plain), 0},
        {"identity", "identity", plain, plain, 0},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        std::string header = std::string("Content-Encoding: ") + now.encoding + "\r\n";
        scripted_server server(
            script{expect_request(), send_text(response(200, now.body, header))});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(now.decoded == get.body());
        EXPECT_EQ(md5_hex(now.decoded), get.md5());
        EXPECT_EQ(static_cast<std::int64_t>(now.decoded.size()),
                  get.number(TAV_HTTP_QUERY_BODY_BYTES));
        EXPECT_EQ(static_cast<std::int64_t>(now.query),
                  get.number(TAV_HTTP_QUERY_CONTENT_ENCODING) & 0xFFFFFFFF);
    }
}

TEST(Encoding, SplitBodiesAreDecoded) {
    library lib;
    std::string plain = "the quick brown fox jumps over the lazy dog, again and again and again";
    struct {
        const char* encoding;
        std::string body;
    } cases[] = {{"gzip", gzip_bytes(plain)}, {"deflate", deflate_bytes(plain)}};
    for (const auto& now : cases) {
        SCOPED_TRACE(now.encoding);
        std::string header = std::string("Content-Encoding: ") + now.encoding + "\r\n";
        scripted_server server(
            script{expect_request(), send_bytewise(chunked_response(200, now.body, 1, header))});
        transfer get(server.url());
        get.record();
        get.record_data();
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(plain, get.data());
    }
}

TEST(Encoding, AskedForUnlessTheHostSaysOtherwise) {
    library lib;
    scripted_server server([](const received_request&) { return response(200, ""); });
    struct {
        const char* asked;
        std::uint32_t no_compression;
        std::int64_t range_start;
        std::uint32_t resume;
    } cases[] = {
        {"gzip, deflate", 0, 0, 0},
        {"identity", 1, 0, 0},
        {"identity", 0, 5, 0},
        {"identity", 0, 0, 1},
    };
    for (const auto& now : cases) {
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_NO_COMPRESSION, now.no_compression);
        get.set(TAV_HTTP_OPTION_RANGE, now.range_start, std::int64_t{now.range_start ? -1 : 0});
        get.set(TAV_HTTP_OPTION_RESUME, now.resume);
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(now.asked, server.request(server.request_count() - 1).header("Accept-Encoding"));
    }
}

}  // namespace
