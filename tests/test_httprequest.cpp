// The texts of request heads and the items that a body is made of, without a connection.
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpsession.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>

namespace {

const char agent_line[] = "User-Agent: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)\r\n";

// A session that is never sent; its request is prepared on the test's thread.
struct request_maker {
    explicit request_maker(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET) {
        session.id = 2;
        session.options = new_http_options();
        session.options->session = &session;
        session.options->method = method;
        session.request = new_http_request(&session);
        session.request->url = strdup(url.c_str());
    }
    ~request_maker() {
        free_http_options(session.options);
        free_http_request(session.request);
    }
    request_maker(const request_maker&) = delete;
    request_maker& operator=(const request_maker&) = delete;

    template <typename... values> void set(std::uint32_t option, values... given) {
        EXPECT_EQ(tavHTTPSetOption(&session, option, given...), 0u);
    }
    std::uint32_t prepare() {
        return http_request_prepare(&session);
    }
    std::string head() {
        EXPECT_EQ(prepare(), 0u);
        return {session.request->header.data, (size_t)session.request->header.length};
    }
    // All memory pieces that would be sent behind the head; files give as many '#'.
    std::string body() const {
        std::string text;
        list_link* end = &session.request->upload_item_list;
        for (list_link* link = end->next; link != end; link = link->next) {
            upload_item* item = (upload_item*)link;
            append(text, &item->part_header);
            text += std::string((size_t)item->file_size, '#');
            append(text, item->data);
            append(text, &item->part_tailer);
        }
        return text;
    }
    static void append(std::string& text, const text_buffer* buffer) {
        if (buffer != nullptr && buffer->length > 0) {
            text.append(buffer->data, (size_t)buffer->length);
        }
    }

    http_session session{};
};

bool has_line(const std::string& head, const std::string& line) {
    return head.find("\r\n" + line + "\r\n") != std::string::npos;
}

TEST(RequestHead, WithoutOptions) {
    request_maker maker("http://user:pw@host:81/a?b=1#c");
    EXPECT_EQ(maker.head(), std::string("GET /a?b=1 HTTP/1.1\r\nHost: host\r\nAccept: */*\r\n") +
                                agent_line +
                                "Connection: Keep-Alive\r\nCache-Control: no-cache\r\n"
                                "Accept-Encoding: gzip, deflate\r\n\r\n");
    EXPECT_EQ(maker.session.request->total_bytes, maker.session.request->header.length);
}

TEST(RequestHead, WithEveryOption) {
    request_maker maker("http://h/", TAV_HTTP_METHOD_HEAD);
    maker.set(116, "other:8080");
    maker.set(107, "text/html");
    maker.set(108, "agent/1");
    maker.set(109, 2u);
    maker.set(117, "max-age=0");
    maker.set(103, std::int64_t{0}, std::int64_t{499});
    maker.set(104, std::int64_t{784111777});
    maker.set(105, "\"tag\"");
    maker.set(106, "a=1");
    maker.set(190, "X-B", "%d", 2);
    maker.set(190, "X-A", "%s", "3");
    EXPECT_EQ(maker.head(),
              "HEAD / HTTP/1.1\r\nHost: other:8080\r\nAccept: text/html\r\nUser-Agent: agent/1\r\n"
              "Connection: Close\r\nCache-Control: max-age=0\r\nAccept-Encoding: identity\r\n"
              "Range: bytes=0-499\r\nIf-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
              "If-None-Match: \"tag\"\r\nCookie: a=1\r\nX-B: 2\r\nX-A: 3\r\n\r\n");
}

TEST(RequestHead, FollowsTheUrl) {
    request_maker maker("http://[::1]:81/");
    maker.set(116, "own");
    EXPECT_TRUE(has_line(maker.head(), "Host: own"));
    free(maker.session.request->url);
    maker.session.request->url = strdup("https://next?q=1");
    maker.session.request->redirect_count = 1;  // The host's own name counts for the first URL.
    std::string head = maker.head();
    EXPECT_EQ(head.find("GET / HTTP/1.1\r\nHost: next\r\n"), 0u);
    EXPECT_STREQ(maker.session.request->path, "/");
}

TEST(RequestHead, MethodWords) {
    const char* words[] = {"", "GET /", "POST /", "HEAD /", "OPTIONS /"};
    for (std::uint32_t method = 1; method <= 4; method++) {
        request_maker maker("http://h/", method);
        EXPECT_EQ(maker.head().find(words[method]), 0u);
    }
}

TEST(RequestHead, JoinsOwnAndStoredCookies) {
    ASSERT_TRUE(init_cookie_store());
    set_cookie_by_http_header("http://h/", "b=3; Path=/");
    set_cookie_by_http_header("http://h/", "c=4; Path=/");
    request_maker both("http://h/");
    both.set(106, "a=1; b=2");
    EXPECT_TRUE(has_line(both.head(), "Cookie: a=1; b=2; c=4"));
    request_maker stored("http://h/");
    EXPECT_TRUE(has_line(stored.head(), "Cookie: b=3;c=4;"));
    request_maker own("http://h/");
    own.set(106, "a=1");
    own.set(110, 1u);
    EXPECT_TRUE(has_line(own.head(), "Cookie: a=1"));
    uninit_cookie_store();
}

TEST(RequestHead, RangeRows) {
    struct {
        std::int64_t start;
        std::int64_t end;
        const char* line;  // null: the build fails; empty: no line
    } rows[] = {
        {0, 0, ""},
        {0, 499, "Range: bytes=0-499"},
        {500, -1, "Range: bytes=500-"},
        {0, -500, "Range: bytes=-500"},
        {0, -1, "Range: bytes=0-"},
        {100, 0, "Range: bytes=100-0"},
        {-5, -7, "Range: bytes=-7"},
        {-5, 10, nullptr},
        {-5, 0, nullptr},
        {0x7FFFFFFFFFFFFFFF, -1, "Range: bytes=9223372036854775807-"},
        {0, INT64_MIN, "Range: bytes=-9223372036854775808"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.start << " " << row.end);
        log_capture log;
        request_maker maker("http://h/");
        maker.set(103, row.start, row.end);
        if (row.line == nullptr) {
            EXPECT_EQ(maker.prepare(), 0x20005u);
            EXPECT_TRUE(log.has_line("_build_request_header, invalid range value, range=" +
                                         std::to_string(row.start) + "-" + std::to_string(row.end),
                                     1000));
            continue;
        }
        std::string head = maker.head();
        bool plain = row.line[0] == '\0';
        EXPECT_EQ(plain ? head.find("Range:") == std::string::npos : has_line(head, row.line),
                  true);
        EXPECT_TRUE(
            has_line(head, plain ? "Accept-Encoding: gzip, deflate" : "Accept-Encoding: identity"));
    }
}

TEST(RequestHead, ResumesBehindTheFile) {
    work_dir dir;
    write_file("thousand", std::string(1000, 'x'));
    write_file("empty", "");
    struct {
        const char* path;
        const char* line;
    } rows[] = {{"thousand", "Range: bytes=1000-"}, {"empty", ""}, {"missing", ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        log_capture log;
        request_maker maker("http://h/");
        maker.set(101, row.path);
        maker.set(112, 1u);
        maker.set(103, std::int64_t{7}, std::int64_t{9});  // Counts for nothing while resuming.
        std::string head = maker.head();
        EXPECT_TRUE(has_line(head, "Accept-Encoding: identity"));
        if (row.line[0] == '\0') {
            EXPECT_EQ(head.find("Range:"), std::string::npos);
        } else {
            EXPECT_TRUE(has_line(head, row.line));
            EXPECT_TRUE(log.has_line("resume downloading, range=1000-", 2000));
        }
    }
    request_maker no_path("http://h/");
    no_path.set(112, 1u);
    no_path.set(103, std::int64_t{7}, std::int64_t{9});
    EXPECT_TRUE(has_line(no_path.head(), "Range: bytes=7-9"));
}

TEST(RequestBody, UrlEncodedForm) {
    request_maker maker("http://h/", TAV_HTTP_METHOD_POST);
    maker.set(190, "content-type", "text/x");
    maker.set(191, "a", "x y");
    maker.set(191, "b", "%d", 1);
    maker.set(191, "\xC3\xA4&", (const char*)nullptr);
    std::string head = maker.head();
    EXPECT_TRUE(has_line(head, "content-type: text/x"));
    EXPECT_TRUE(has_line(head, "Content-Type: application/x-www-form-urlencoded; charset=UTF-8"));
    EXPECT_EQ(maker.body(), "a=x%20y&b=1&%C3%A4%26=");
    EXPECT_TRUE(has_line(head, "Content-Length: 22"));
    EXPECT_EQ(maker.session.request->total_bytes, (std::int64_t)head.size() + 22);
}

TEST(RequestBody, RawBytes) {
    request_maker plain("http://h/", TAV_HTTP_METHOD_POST);
    plain.set(193, "abc", 3u);
    plain.set(193, "de", 2u);
    std::string head = plain.head();
    EXPECT_TRUE(has_line(head, "Content-Type: application/octet-stream"));
    EXPECT_TRUE(has_line(head, "Content-Length: 5"));
    EXPECT_EQ(plain.body(), "abcde");

    request_maker typed("http://h/", TAV_HTTP_METHOD_POST);
    typed.set(190, "CONTENT-type", "text/x");
    typed.set(193, "abc", 3u);
    typed.set(194, "a file that does not exist");  // The bytes win.
    head = typed.head();
    EXPECT_EQ(head.find("octet-stream"), std::string::npos);
    EXPECT_TRUE(has_line(head, "Content-Length: 3"));
}

TEST(RequestBody, PostOfNothingStaysAPost) {
    log_capture log;
    request_maker maker("http://h/", TAV_HTTP_METHOD_POST);
    maker.set(194, "");
    std::string head = maker.head();
    EXPECT_EQ(head.find("POST / "), 0u);
    EXPECT_TRUE(has_line(head, "Content-Type: application/octet-stream"));
    EXPECT_TRUE(has_line(head, "Content-Length: 0"));
    EXPECT_EQ(maker.session.request->method, 1u);  // Sent like a GET: no items follow the head.
    EXPECT_TRUE(log.has_line("no data to upload, change method to 'get', id=2", 2000));
}

TEST(RequestBody, OnlyAPostHasABody) {
    request_maker maker("http://h/", TAV_HTTP_METHOD_GET);
    maker.set(193, "abc", 3u);
    maker.set(191, "a", "1");
    EXPECT_EQ(maker.head().find("Content-"), std::string::npos);
    EXPECT_EQ(maker.body(), "");
}

// The announced length must be that of the parts for every kind of part, file and boundary.
TEST(RequestBody, MultipartTextAndLength) {
    work_dir dir;
    write_file("three.bin", "abc");
    std::function<void(request_maker&)> field = [](request_maker& m) { m.set(191, "k", "v"); };
    std::function<void(request_maker&)> file = [](request_maker& m) {
        m.set(192, "f", "three.bin", (const char*)nullptr);
    };
    std::function<void(request_maker&)> no_file = [](request_maker& m) {
        m.set(192, "n", "", "x.bin");
    };
    std::function<void(request_maker&)> data = [](request_maker& m) {
        m.set(195, "d", "0123", 4, "d.bin");
    };
    const std::string binary = "\r\nContent-Type: application/octet-stream\r\n"
                               "Content-Transfer-Encoding: binary\r\n\r\n";
    const std::string form = "Content-Disposition: form-data; name=";
    const std::string field_part = "--tavB\r\n" + form + "\"k\"\r\n\r\nv\r\n";
    const std::string file_part =
        "--tavB\r\n" + form + "\"f\"; filename=\"three.bin\"" + binary + "###\r\n";
    const std::string no_file_part =
        "--tavB\r\n" + form + "\"n\"; filename=\"x.bin\"" + binary + "\r\n";
    const std::string data_part =
        "--tavB\r\n" + form + "\"d\"; filename=\"d.bin\"" + binary + "0123\r\n";
    struct {
        std::vector<std::function<void(request_maker&)>*> entries;
        std::string body;
    } rows[] = {
        {{&file}, file_part},
        {{&no_file}, no_file_part},
        {{&data}, data_part},
        {{&field, &file}, field_part + file_part},
        {{&data, &field, &no_file, &field}, data_part + field_part + no_file_part + field_part},
    };
    for (const auto& row : rows) {
        request_maker maker("http://h/", TAV_HTTP_METHOD_POST);
        maker.session.request->boundary = strdup("tavB");
        for (auto* entry : row.entries) {
            (*entry)(maker);
        }
        std::string head = maker.head();
        std::string expected = row.body + "--tavB--\r\n";
        EXPECT_TRUE(has_line(head, "Content-Type: multipart/form-data; boundary=tavB"));
        EXPECT_TRUE(has_line(head, "Content-Length: " + std::to_string(expected.size())));
        EXPECT_EQ(maker.body(), expected);
        EXPECT_EQ(maker.session.request->total_bytes, (std::int64_t)(head + expected).size());
    }
}

TEST(RequestBody, WhatCannotBePrepared) {
    struct {
        const char* name;
        std::uint32_t method;
        std::function<void(request_maker&)> change;
        std::uint32_t code;
        const char* line;
    } rows[] = {
        {"method", 5, [](request_maker&) {}, 0x40005, "invalid method, id=2, method=5"},
        {"missing upload", 2, [](request_maker& m) { m.set(194, "no/file"); }, 0x100004,
         "_work_init_upload_data, _sync_open_file failed, file=no/file, err=2, No such file"},
        {"missing form file", 2,
         [](request_maker& m) { m.set(192, "f", "no/file", (const char*)nullptr); }, 0x100004,
         "_sync_open_file failed, file=no/file, err=2, "},
        {"entry without value", 2,
         [](request_maker& m) {
             m.set(195, "f", "x", 1, "y");
             text_buffer_release(&((upload_item*)m.session.options->form_list.next)->form_data);
         },
         0x20004, "_work_init_upload_data, invalid form data, value is NULL."},
        {"entry without name", 2,
         [](request_maker& m) {
             m.set(191, "f", "x");
             ((upload_item*)m.session.options->form_list.next)->name[0] = '\0';
         },
         0x20004, "_work_init_upload_data, invalid form data, name is NULL."},
        {"url", 1, [](request_maker& m) { m.session.request->url[0] = '\0'; }, 0x20005,
         "_work_init_upload_data, _build_request_header failed, id=2, method=1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log_capture log;
        request_maker maker("http://h/", row.method);
        row.change(maker);
        EXPECT_EQ(maker.prepare(), row.code);
        EXPECT_TRUE(log.has_line(row.line, 2000));
    }
}

TEST(Boundary, HasItsFormAndMayEndEarly) {
    std::set<std::string> seen;
    bool ended_early = false;
    for (int i = 0; i < 1000; i++) {
        char* boundary = make_boundary();
        std::string text = boundary;
        free(boundary);
        ASSERT_EQ(text.compare(0, 3, "tav"), 0);
        ASSERT_LE(text.size(), 23u);
        ASSERT_EQ(text.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz"
                                         "ABCDEFGHIJKLMNOPQRSTUVWXYZ"),
                  std::string::npos);
        ended_early = ended_early || text.size() < 23;
        seen.insert(text);
    }
    EXPECT_TRUE(ended_early);
    EXPECT_GT(seen.size(), 900u);
}

TEST(Boundary, StaysForTheSession) {
    request_maker maker("http://h/", TAV_HTTP_METHOD_POST);
    maker.set(195, "d", "0123", 4, "d.bin");
    maker.prepare();
    std::string first = maker.session.request->boundary;
    maker.prepare();
    EXPECT_EQ(maker.session.request->boundary, first);
    maker.prepare();
    EXPECT_EQ(maker.session.request->boundary, first);
}

}  // namespace
