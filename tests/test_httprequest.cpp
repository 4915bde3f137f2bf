// The parts of request heads and bodies that the transfers leave open, without a connection.
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httprequest_head.h"
#include "tavhttpclient/httprequest_items.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/upload_item.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

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
            for (const text_buffer* part : {&item->part_header, item->data, &item->part_tailer}) {
                text += part == item->data ? std::string((size_t)item->file_size, '#') : "";
                text += part != nullptr && part->length > 0
                            ? std::string(part->data, (size_t)part->length)
                            : "";
            }
        }
        return text;
    }

    http_session session{};
};

bool has_line(const std::string& head, const std::string& line) {
    return head.find("\r\n" + line + "\r\n") != std::string::npos;
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

TEST(RequestHead, RangeRows) {
    const struct {
        std::int64_t start, end;
        const char* line;  // null: the build fails; empty: no line
    } rows[] = {
        {0, 0, ""},
        {0, -500, "Range: bytes=-500"},
        {0, -1, "Range: bytes=0-"},
        {-5, -7, "Range: bytes=-7"},
        {-5, 10, nullptr},
        {-5, 0, nullptr},
        {INT64_MAX, -1, "Range: bytes=9223372036854775807-"},
        {0, INT64_MIN, "Range: bytes=-9223372036854775808"},
    };
    for (const auto& row : rows) {
        std::string range = std::to_string(row.start) + "-" + std::to_string(row.end);
        SCOPED_TRACE(range);
        log_capture log;
        request_maker maker("http://h/");
        maker.set(103, row.start, row.end);
        if (row.line == nullptr) {
            EXPECT_EQ(maker.prepare(), 0x20005u);
            EXPECT_TRUE(
                log.has_line("_build_request_header, invalid range value, range=" + range, 1000));
            continue;
        }
        std::string head = maker.head();
        bool none = *row.line == 0;
        EXPECT_TRUE(none ? head.find("Range:") == std::string::npos : has_line(head, row.line));
        EXPECT_EQ(none, has_line(head, "Accept-Encoding: gzip, deflate"));
    }
}

TEST(RequestHead, ResumesBehindTheFile) {
    work_dir dir;
    write_file("thousand", std::string(1000, 'x'));
    write_file("empty", "");
    const struct {
        const char *path, *line;
    } rows[] = {{"thousand", "bytes=1000-"}, {"empty", ""}, {"missing", ""}, {"", "bytes=7-9"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        log_capture log;
        request_maker maker("http://u:p@h:81/");
        maker.set(101, row.path);
        maker.set(112, 1u);
        maker.set(103, std::int64_t{7}, std::int64_t{9});  // Counts for nothing with a file.
        std::string head = maker.head();
        EXPECT_TRUE(has_line(head, "Accept-Encoding: identity"));
        EXPECT_TRUE(has_line(head, "Host: h"));
        EXPECT_TRUE(*row.line == 0 ? head.find("Range:") == std::string::npos
                                   : has_line(head, std::string("Range: ") + row.line));
        EXPECT_EQ(head.find("1000") != std::string::npos,
                  log.has_line("resume downloading, range=1000-", 2000));
    }
}

using change = std::function<void(request_maker&)>;

TEST(RequestBody, TypeLengthAndBytes) {
    const char octets[] = "Content-Type: application/octet-stream";
    const change bytes = [](request_maker& m) { m.set(193, "abc", 3u); };
    const change typed = [](request_maker& m) {
        m.set(190, "CONTENT-type", "text/x");
        m.set(193, "abc", 3u);
        m.set(194, "a file that does not exist");  // The bytes win.
    };
    const change form = [](request_maker& m) {
        m.set(190, "content-type", "text/x");
        m.set(191, "a", "x y");
        m.set(191, "\xC3\xA4&", (const char*)nullptr);
    };
    const change nothing = [](request_maker& m) { m.set(194, ""); };
    const struct {
        const char* name;
        std::uint32_t method;
        const change& fill;
        const char *type, *length, *body;
    } rows[] = {
        {"bytes", 2, bytes, octets, "Content-Length: 3", "abc"},
        {"own type", 2, typed, "CONTENT-type: text/x", "Content-Length: 3", "abc"},
        {"form", 2, form, "Content-Type: application/x-www-form-urlencoded; charset=UTF-8",
         "Content-Length: 18", "a=x%20y&%C3%A4%26="},
        {"nothing", 2, nothing, octets, "Content-Length: 0", ""},
        {"no post", 4, bytes, nullptr, nullptr, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log_capture log;
        request_maker maker("http://h/", row.method);
        row.fill(maker);
        std::string head = maker.head();
        EXPECT_EQ(head.find(row.method == 2 ? "POST / " : "OPTIONS / "), 0u);
        EXPECT_TRUE(row.type != nullptr ? has_line(head, row.type) && has_line(head, row.length)
                                        : head.find("Content-") == std::string::npos);
        EXPECT_EQ(row.type == octets, head.find("octet-stream") != std::string::npos);
        EXPECT_EQ(maker.body(), row.body);
        EXPECT_EQ(maker.session.request->total_bytes, (std::int64_t)(head + maker.body()).size());
        // Sent like a GET: no items follow the head.
        EXPECT_EQ(&row.fill == &nothing,
                  log.has_line("no data to upload, change method to 'get', id=2", 2000));
    }
}

// The announced length must be that of the parts whatever kind of part comes last.
TEST(RequestBody, MultipartLengthAndEnd) {
    work_dir dir;
    write_file("three.bin", "abc");
    const change parts[] = {
        [](request_maker& m) { m.set(191, "k", "v"); },
        [](request_maker& m) { m.set(192, "f", "three.bin", (const char*)nullptr); },
        [](request_maker& m) { m.set(192, "n", "", "x.bin"); },
        [](request_maker& m) { m.set(195, "d", "0123", 4, "d.bin"); },
    };
    const std::string ends[] = {"\"k\"\r\n\r\nv\r\n", "binary\r\n\r\n###\r\n", "binary\r\n\r\n\r\n",
                                "binary\r\n\r\n0123\r\n"};
    for (std::size_t last = 0; last < 4; last++) {
        request_maker maker("http://h/", TAV_HTTP_METHOD_POST);
        maker.session.request->boundary = strdup("tavB");
        parts[1](maker);
        parts[last](maker);
        std::string head = maker.head(), body = maker.body(), end = ends[last] + "--tavB--\r\n";
        EXPECT_TRUE(has_line(head, "Content-Length: " + std::to_string(body.size())));
        EXPECT_EQ(body.substr(body.size() - end.size()), end);
        EXPECT_EQ(maker.session.request->total_bytes, (std::int64_t)(head + body).size());
        maker.prepare();
        EXPECT_STREQ(maker.session.request->boundary, "tavB") << "stays for the session";
    }
}

TEST(RequestBody, FailuresAreLogged) {
    const struct {
        std::uint32_t method, code;
        const char* line;
    } rows[] = {
        {5, 0x40005, "invalid method, id=2, method=5"},
        {2, 0x100004,
         "_work_init_upload_data, _sync_open_file failed, file=no/file, err=2, No such file"},
    };
    for (const auto& row : rows) {
        log_capture log;
        request_maker maker("http://h/", row.method);
        maker.set(194, "no/file");
        EXPECT_EQ(maker.prepare(), row.code);
        EXPECT_TRUE(log.has_line(row.line, 2000)) << row.line;
    }
}

TEST(Boundary, HasItsFormAndMayEndEarly) {
    std::set<std::string> seen;
    bool ended_early = false;
    for (int i = 0; i < 1000; i++) {
        std::string text = take(make_boundary());
        ASSERT_EQ(text.compare(0, 3, "tav"), 0) << text;
        ASSERT_LE(text.size(), 23u);
        ASSERT_TRUE(std::all_of(text.begin(), text.end(), isalnum)) << text;
        ended_early = ended_early || text.size() < 23;
        seen.insert(text);
    }
    EXPECT_TRUE(ended_early);
    EXPECT_GT(seen.size(), 900u);
}

}  // namespace
