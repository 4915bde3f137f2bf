// Options as the host sets them, queries as it reads them, requests as they are made of both, and
// files: on records without a transfer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include "support/inside.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httprequest_head.h"
#include "tavhttpclient/httprequest_items.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/session_record.h"
#include "tavhttpclient/upload_item.h"

namespace {

struct Options : testing::Test {
    ~Options() override {
        free_http_options(session.options);
    }
    template <typename... values> std::string set(std::uint32_t option, values... given) {
        return code_name(tavHTTPSetOption(&session, option, given...));
    }
    upload_item* last_entry() {
        return (upload_item*)options->form_list.prev;
    }

    http_session session{};
    http_options* options = session.options = new_http_options();
};

TEST_F(Options, TakeTheirWidthAndNumber) {
    // The second value of 207 is that of 110.
    for (const std::string& code :
         {set(109, 3u), set(104, std::int64_t{0x1FFFFFFFF}), set(110, 1u), set(207, 3u, 0u),
          set(103, std::int64_t{0x123456789A}, std::int64_t{-1}), set(205, 1u, -5, 8)}) {
        EXPECT_EQ("OK", code);
    }
    EXPECT_TRUE(options->connection == 0 && options->if_modified_since == 0x1FFFFFFFF);
    EXPECT_TRUE(options->keep_undecoded_body == 3 && options->no_cookie_store == 0);
    EXPECT_TRUE(options->range_start == 0x123456789A && options->range_end == -1);
    EXPECT_TRUE(options->keep_alive_timeout == -5 && options->keep_alive_max == 8);
    allow_assertion("tavHTTPSetOption");
    set(201, 10000);
    EXPECT_EQ("OK", set(201, 500));
    EXPECT_EQ(options->priority, 1000) << "outside its values";
}

TEST_F(Options, TextsAreCopiedReplacedAndCleared) {
    const struct {
        std::uint32_t option;
        char* http_options::*field;
        bool keeps_empty;
    } rows[] = {
        {105, &http_options::if_none_match, false}, {107, &http_options::accept, true},
        {115, &http_options::tls_host_name, false}, {116, &http_options::host, false},
        {117, &http_options::cache_control, false}, {194, &http_options::upload_file, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        std::string text = "first";
        set(row.option, text.c_str());
        text = "other";
        EXPECT_STREQ(options->*row.field, "first");
        set(row.option, "");
        EXPECT_STREQ(options->*row.field, row.keeps_empty ? "" : nullptr);
        set(row.option, (const char*)nullptr);
        EXPECT_EQ(options->*row.field, nullptr);
    }
    set(101, "dir/file");
    EXPECT_EQ(options->download_to_file, 1u);
    set(102, 9u);
    EXPECT_EQ(options->download_file, nullptr) << "the free choice excludes it";
    set(101, "");
    EXPECT_EQ(options->download_to_file, 0u);
    set(106, "a=1; a-very-long-first-value=xxxxxxxxxxxxxxxxxxxxx");
    set(106, "b=%s%n");
    EXPECT_EQ(std::string(options->cookie.data, (size_t)options->cookie.length), "b=%s%n");
}

TEST_F(Options, ProxiesAreCopied) {
    char host[] = "proxy";
    proxy_info through = {TAV_HTTP_PROXY_HTTP, host, 8080, nullptr, nullptr, nullptr};
    EXPECT_EQ("OK", set(203, &through));
    host[0] = 'X';
    EXPECT_STREQ("proxy", options->proxy->host);
    EXPECT_EQ("OK", set(203, (proxy_info*)nullptr));
    EXPECT_EQ(nullptr, options->proxy);
}

TEST_F(Options, RefuseUnknownIdsAndEmptyNames) {
    for (std::uint32_t id :
         {0u, 6u, 9u, 100u, 118u, 189u, 196u, 200u, 208u, 900u, 905u, 910u, 0xFFFFFFFFu}) {
        EXPECT_EQ("INVALID_ARG", set(id, 1u)) << id;
    }
    EXPECT_EQ(tavHTTPSetOption(nullptr, 1, 1u), 0x20002u);
    for (const char* name : {(const char*)nullptr, ""}) {
        EXPECT_EQ("INVALID_ARG", set(106, name));
        EXPECT_EQ("INVALID_ARG", set(190, name, "v"));
        EXPECT_EQ("INVALID_ARG", set(191, name, "v"));
        EXPECT_EQ("INVALID_ARG", set(192, name, "path", "file"));
        EXPECT_EQ("INVALID_ARG", set(195, name, "bytes", 5, "file"));
    }
    EXPECT_TRUE(list_empty(&options->header_list) && list_empty(&options->form_list));
}

TEST_F(Options, FormEntries) {
    const struct {
        const char *path, *announced, *expected;
    } files[] = {
        {"a/b.txt", "x.txt", "x.txt"}, {"a/b.txt", nullptr, "b.txt"}, {"a\\b/c\\d", "", "d"},
        {"c:file", "", "file"},        {"dir/", nullptr, ""},         {nullptr, nullptr, ""},
    };
    for (const auto& row : files) {
        EXPECT_EQ("OK", set(192, "f", row.path, row.announced));
        EXPECT_STREQ(last_entry()->file_name, row.expected);
        EXPECT_STREQ(last_entry()->form_path, row.path != nullptr ? row.path : "");
    }
    const char bytes[] = {'a', 0, 'b', 0};
    set(193, bytes, 4u);
    set(193, (const void*)nullptr, 4u);
    set(193, bytes, 2u);
    EXPECT_EQ(std::string(options->body.data, (size_t)options->body.length), bytes_of("a\0b\0a\0"));
    const struct {
        const void* bytes;
        int length, stored;
    } blocks[] = {{bytes, 4, 4}, {bytes, 0, 0}, {bytes, -1, 0}, {nullptr, 4, 0}};
    for (const auto& row : blocks) {
        EXPECT_EQ("OK", set(195, "f", row.bytes, row.length, (const char*)nullptr));
        EXPECT_EQ(last_entry()->form_data.length, row.stored);
    }
}

// ------------------------------------------------------------------------------------- queries

struct Queries : testing::Test {
    void SetUp() override {
        list_init(&head);
        response.header_list = &head;
        session.response = &response;
        for (response_header& entry : entries) {
            list_append(&head, &entry.link);
        }
    }
    std::uint32_t query(std::uint32_t id, const char* a, void* b, std::int32_t* c = nullptr) {
        return tavHTTPQueryInfo(&session, id, (char*)a, b, c);
    }

    char texts[8][16] = {"Content-Type", "text/plain", "X-Two", "one",
                         "X-Empty",      "",           "x-two", "three"};
    response_header entries[4] = {{{}, texts[0], texts[1]},
                                  {{}, texts[2], texts[3]},
                                  {{}, texts[4], texts[5]},
                                  {{}, texts[6], texts[7]}};
    http_session session{};
    http_response response{};
    list_link head{};
    std::int32_t length = 0;
};

TEST_F(Queries, HeaderTextsAndLengths) {
    const std::string raw = bytes_of("Content-Type : text/plain\r\nX-Two : one\r\nX-Empty : \r\n"
                                     "x-two : three\r\n\r\n\0");
    const int all = (int)raw.size();
    const struct {
        std::uint32_t query;
        const char* name;
        int size;
        std::uint32_t code;
        int length;
        std::string text;
    } rows[] = {
        {10, nullptr, all, 0, all, raw},
        {10, nullptr, all - 1, 0, all, bytes_of("\0#")},
        {19, "content-type", 11, 0, 11, bytes_of("text/plain\0")},
        {19, "content-type", 10, 0, 11, bytes_of("\0#")},
        {19, "X-Empty", 3, 0, 1, bytes_of("\0#")},
        {19, "Content", 3, 0x20006, 0, bytes_of("\0#")},
        {24, "x-two", 11, 0, 11, bytes_of("one\0three\0\0")},
        {24, "x-two", 13, 0, 11, bytes_of("one\0three\0\0#")},
        {24, "x-two", 10, 0x20007, 11, bytes_of("one\0three\0")},
        {24, "x-none", 2, 0x20006, 0, bytes_of("\0#")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.query << " " << row.size);
        // Of exactly this size, so that a byte too much is noticed.
        heap_text buffer = exact_bytes(std::string((size_t)row.size, '#'));
        length = row.size;
        EXPECT_EQ(row.code, row.name == nullptr
                                ? query(row.query, buffer.get(), &length)
                                : query(row.query, row.name, buffer.get(), &length));
        EXPECT_EQ(row.length, length);
        EXPECT_EQ(row.text, std::string(buffer.get(), row.text.size()));
    }
}

TEST_F(Queries, NeedTheirArgumentsAndTheirRecord) {
    char buffer[64] = "xxx";
    for (std::uint32_t id : {19u, 24u}) {
        EXPECT_EQ(0x20002u, query(id, "a", buffer));
        EXPECT_EQ(0x20002u, query(id, nullptr, buffer, &length));
        EXPECT_EQ(0x20002u, query(id, "", buffer, &length));
        length = 100;
        EXPECT_EQ(0u, query(id, "x-two", nullptr, &length));
        EXPECT_EQ(id == 19 ? 4 : 11, length) << "told without a buffer";
    }
    EXPECT_EQ(0u, query(10, nullptr, &length));
    EXPECT_EQ(0x20002u, query(10, buffer, nullptr));
    EXPECT_EQ(0x20002u, tavHTTPQueryInfo(nullptr, 1, buffer, nullptr, nullptr));
    for (std::uint32_t id : {22u, 23u, 0u, 9u, 25u, 0xFFFFFFFFu}) {
        EXPECT_EQ(0x20002u, query(id, nullptr, nullptr)) << id;
    }
    session.response = nullptr;
    for (std::uint32_t id : {1, 2, 3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18, 20, 21, 22}) {
        EXPECT_EQ(0x20006u, query(id, buffer, nullptr)) << id;
    }
    EXPECT_EQ(0u, query(23, buffer, nullptr));
    EXPECT_STREQ("", buffer) << "no address yet";
}

// ------------------------------------------------------------------------------------- requests

// A session that is never sent; its request is prepared on the test's thread.
struct request_maker : not_copied {
    explicit request_maker(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET) {
        session.id = 2;
        session.options = new_http_options();
        session.options->session = &session;
        session.options->method = method;
        session.request = new_http_request(&session);
        string_replace(&session.request->url, url.c_str());
    }
    ~request_maker() {
        free_http_options(session.options);
        free_http_request(session.request);
    }
    template <typename... values> void set(std::uint32_t option, values... given) {
        EXPECT_EQ(tavHTTPSetOption(&session, option, given...), 0u);
    }
    std::string head() {  // or the code that the preparation ends with
        std::uint32_t code = http_request_prepare(&session);
        const text_buffer& text = session.request->header;
        return code == 0 ? std::string(text.data, (size_t)text.length) : code_name(code);
    }
    // All memory pieces that would be sent behind the head; files give as many '#'.
    std::string body() const {
        std::string text;
        list_link* end = &session.request->upload_item_list;
        for (list_link* link = end->next; link != end; link = link->next) {
            auto* item = (upload_item*)link;
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

using change = std::function<void(request_maker&)>;

TEST(RequestHead, Rows) {
    work_dir dir;
    write_file("thousand", std::string(1000, 'x'));
    write_file("empty", "");
    const std::string nothing = "\r\nContent-Length: 0\r\n";  // POSTed is sent like a GET
    auto range = [](std::int64_t start, std::int64_t end) {
        return [=](request_maker& m) { m.set(103, start, end); };
    };
    auto resume = [](const char* path) {
        return [=](request_maker& m) {
            m.set(101, path);
            m.set(112, 1u);
            m.set(103, std::int64_t{7}, std::int64_t{9});  // Counts for nothing with a file.
        };
    };
    auto typed = [](request_maker& m) {
        m.set(190, "CONTENT-type", "text/x");
        m.set(193, "abc", 3u);
        m.set(194, "a file that does not exist");  // The bytes win.
    };
    auto form = [](request_maker& m) {
        m.set(190, "content-type", "text/x");
        m.set(191, "a", "x y");
        m.set(191, "\xC3\xA4&", (const char*)nullptr);
    };
    const struct {
        std::uint32_t method;
        change set;
        std::string with, without, body;
    } rows[] = {
        {1, range(0, 0), "\r\nAccept-Encoding: gzip, deflate\r\n", "Range:", ""},
        {1, range(0, -500), "\r\nAccept-Encoding: identity\r\nRange: bytes=-500\r\n", "gzip", ""},
        {1, range(0, -1), "\r\nRange: bytes=0-\r\n", "gzip", ""},
        {1, range(-5, -7), "\r\nRange: bytes=-7\r\n", "gzip", ""},
        {1, range(-5, 10), "INVALID_REQUEST_HEADER", "HTTP", ""},
        {1, range(INT64_MAX, -1), "\r\nRange: bytes=9223372036854775807-\r\n", "gzip", ""},
        {1, range(0, INT64_MIN), "\r\nRange: bytes=-9223372036854775808\r\n", "gzip", ""},
        {1, resume("thousand"), "\r\nAccept-Encoding: identity\r\nRange: bytes=1000-\r\n", "gzip",
         ""},
        {1, resume("empty"), "\r\nHost: h\r\n", "Range:", ""},
        {1, resume("missing"), "\r\nAccept-Encoding: identity\r\n", "Range:", ""},
        {1, resume(""), "\r\nRange: bytes=7-9\r\n", "gzip", ""},
        {2, typed, "\r\nCONTENT-type: text/x\r\n", "octet-stream", "abc"},
        {2, form, "urlencoded; charset=UTF-8\r\nContent-Length: 18\r\n", "octet-stream",
         "a=x%20y&%C3%A4%26="},
        {2, [](request_maker& m) { m.set(194, ""); }, nothing, "chunked", ""},
        {4, typed, "OPTIONS / HTTP/1.1\r\n", "Content-Length", ""},
        {5, [](request_maker&) {}, "METHOD_NOT_SUPPORT", "HTTP", ""},
        {2, [](request_maker& m) { m.set(194, "no/file"); }, "FAIL_OPEN_UPLOAD_FILE", "HTTP", ""},
    };
    allow_assertion("_add_header_field_range");
    for (const auto& row : rows) {
        request_maker maker("http://u:p@h:81/", row.method);
        row.set(maker);
        std::string head = maker.head();
        EXPECT_NE(std::string::npos, head.find(row.with)) << row.with << "\n" << head;
        EXPECT_EQ(std::string::npos, head.find(row.without)) << head;
        EXPECT_EQ(row.body, maker.body());
        EXPECT_TRUE(row.with != nothing || maker.session.request->method == 1);
        EXPECT_TRUE(row.body.empty() || maker.session.request->total_bytes ==
                                            (std::int64_t)(head.size() + row.body.size()));
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
        string_replace(&maker.session.request->boundary, "tavB");
        parts[1](maker);
        parts[last](maker);
        std::string head = maker.head(), body = maker.body(), end = ends[last] + "--tavB--\r\n";
        EXPECT_THAT(head, testing::HasSubstr("Content-Length: " + std::to_string(body.size())));
        EXPECT_THAT(body, testing::EndsWith(end));
        maker.head();
        EXPECT_STREQ(maker.session.request->boundary, "tavB") << "stays for the session";
    }
    std::set<std::string> seen;
    for (int i = 0; i < 1000; i++) {
        std::string text = take(make_boundary());
        ASSERT_TRUE(text.compare(0, 3, "tav") == 0 && text.size() <= 23) << text;
        ASSERT_TRUE(std::all_of(text.begin(), text.end(), isalnum)) << text;
        seen.insert(text);
    }
    EXPECT_GT(seen.size(), 900u);
}

// ---------------------------------------------------------------------------------------- files

FILE* open(const char* path, const char* mode) {
    FILE* file = nullptr;
    EXPECT_EQ(0, tavhttp_fopen(path, mode, &file)) << path;
    return file;
}

TEST(Files, Utf8PathsAndOffsetsBeyondFourGigabytes) {
    work_dir dir;
    const char* path = "gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\x84.bin";
    const std::int64_t offset = INT64_C(5) << 30;
    FILE* file = open(path, "w+b");
    ASSERT_EQ(3u, tavhttp_fwrite_at(file, "end", offset, 3));
    ASSERT_EQ(5u, tavhttp_fwrite_at(file, "begin", 0, 5));
    std::int64_t size = 0;
    EXPECT_EQ(0, tavhttp_fsize(file, &size));
    EXPECT_EQ(offset + 3, size);
    EXPECT_EQ(5, ftell(file)) << "the size leaves the position";
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(nullptr, "x", 0, 1));
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(file, "x", -1, 1));
    EXPECT_EQ(0, tavhttp_ftruncate(file));
    EXPECT_EQ(3u, tavhttp_fwrite_at(file, "new", 0, 3));
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ(0, tavhttp_file_size(path, &size));
    EXPECT_EQ(3, size);
    file = open(path, "rb");
    EXPECT_EQ(0u, tavhttp_fwrite_at(file, "x", 0, 1));
    EXPECT_NE(0, tavhttp_ftruncate(file));
    tavhttp_fclose(file);
    EXPECT_EQ(0, tavhttp_remove(path));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Files, ErrorsAreNumbers) {
    work_dir dir;
    FILE* file = open("x", "w+b");
    EXPECT_FALSE(tavhttp_async_close(file)) << "without a loop";
    EXPECT_EQ(4u, tavhttp_fwrite_at(file, "open", 0, 4));
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ(1, tavhttp_ftruncate(nullptr));
    std::int64_t size = 0;
    std::filesystem::create_directory("dir");
    write_file("taken", "old");
    for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(14, tavhttp_fopen(empty, "rb", &file));
        EXPECT_EQ(14, tavhttp_remove(empty));
        EXPECT_EQ(14, tavhttp_file_size(empty, &size));
    }
    EXPECT_EQ(EEXIST, tavhttp_fopen("taken", "w+bx", &file));
    EXPECT_EQ(ENOENT, tavhttp_fopen("missing", "rb", &file));
    EXPECT_EQ(EACCES, tavhttp_fopen("dir", "rb", &file));
    EXPECT_EQ(EACCES, tavhttp_fopen("dir", "w+b", &file));
    EXPECT_EQ(ENOENT, tavhttp_file_size("missing", &size));
    EXPECT_EQ(ENOENT, tavhttp_remove("missing"));
    EXPECT_EQ(EACCES, tavhttp_remove("dir"));
    EXPECT_EQ("old", read_file("taken"));
}

TEST(Files, DirectoriesAreMadeComponentByComponent) {
    work_dir dir;
    write_file("file", "");
    const struct {
        const char* path;
        bool expected;
        const char* made;
    } rows[] = {
        {"a\\b/c", true, "a/b/c"}, {"a//b//d/", true, "a/b/d"}, {"\xC3\xA4/b", true, "\xC3\xA4/b"},
        {"./e/../f", true, "f"},   {"file/h", false, "file"},   {"", false, "."},
        {nullptr, false, "."},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, tavhttp_mkdir(row.path)) << row.made;
        EXPECT_TRUE(std::filesystem::exists(row.made)) << row.made;
    }
}

TEST(Files, TemporaryNamesKeepTheExtension) {
    const char* rows[][2] = {
        {"x.tar.gz", "x.tar@.gz"},
        {"dir/a.b/file", "dir/a.b/file@.tmp"},
        {"dir\\a.b\\file", "dir\\a.b\\file@.tmp"},
        {"dir/.hidden", "dir/@.hidden"},
        {"x.", "x@."},
        {"%s%n.%d", "%s%n@.%d"},
        {"", "@.tmp"},
    };
    for (const auto& row : rows) {  // @: the unique part
        char* output = nullptr;
        ASSERT_TRUE(get_temp_file_path_with_suggest_name(exact_text(row[0]).get(), false, &output));
        std::string path = take(output), expected = row[1];
        std::size_t at = expected.find('@');
        ASSERT_LE(at + 18, path.size()) << path;
        EXPECT_EQ(expected, path.replace(at, 18, "@"));
    }
    EXPECT_FALSE(get_temp_file_path_with_suggest_name("x", false, nullptr));
}

}  // namespace
