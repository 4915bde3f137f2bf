// Options as the host sets them and queries as the host reads them, on records without a transfer.
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/upload_item.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

class Options : public testing::Test {
  protected:
    ~Options() override {
        free_http_options(session.options);
    }
    template <typename... values> std::uint32_t set(std::uint32_t option, values... given) {
        return tavHTTPSetOption(&session, option, given...);
    }
    upload_item* last_entry() {
        return (upload_item*)options->form_list.prev;
    }

    http_session session{};
    http_options* options = session.options = new_http_options();
};

TEST_F(Options, NumbersTakeTheirWidthAndNumber) {
    EXPECT_EQ(set(2, 77u), 0u);
    EXPECT_EQ(options->option_2, 77u);
    EXPECT_EQ(set(109, 2u), 0u);
    EXPECT_EQ(set(109, 3u), 0u);
    EXPECT_EQ(options->connection, 0u) << "neither of its values";
    EXPECT_EQ(set(103, std::int64_t{0x123456789A}, std::int64_t{-1}), 0u);
    EXPECT_EQ(options->range_start, 0x123456789A);
    EXPECT_EQ(options->range_end, -1);
    EXPECT_EQ(set(104, std::int64_t{0x1FFFFFFFF}), 0u);
    EXPECT_EQ(options->if_modified_since, 0x1FFFFFFFF);
    EXPECT_EQ(set(205, 1u, -5, 8), 0u);
    EXPECT_EQ(options->keep_alive_timeout, -5);
    EXPECT_EQ(options->keep_alive_max, 8);
    EXPECT_EQ(set(110, 1u), 0u);
    EXPECT_EQ(set(207, 3u, 0u), 0u);  // The second value is that of option 110.
    EXPECT_EQ(options->keep_undecoded_body, 3u);
    EXPECT_EQ(options->no_cookie_store, 0u);
    log_capture log;
    set(201, 10000);
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(set(201, 500), 0u);
    EXPECT_EQ(options->priority, 1000) << "outside its values";
    EXPECT_EQ(log.count("function=tavHTTPSetOption", 1000), 1u);
}

TEST_F(Options, TextsAreCopiedReplacedAndCleared) {
    struct {
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
    EXPECT_EQ(options->download_to_file, 1u);
    set(101, "");
    EXPECT_EQ(options->download_to_file, 0u);
    set(106, "a=1; a-very-long-first-value=xxxxxxxxxxxxxxxxxxxxx");
    set(106, "b=%s%n");
    EXPECT_EQ(std::string(options->cookie.data, (size_t)options->cookie.length), "b=%s%n");
}

TEST_F(Options, RefusesUnknownIdsAndEmptyNames) {
    for (std::uint32_t id :
         {0u, 6u, 9u, 100u, 118u, 189u, 196u, 200u, 208u, 900u, 905u, 910u, 0xFFFFFFFFu}) {
        EXPECT_EQ(set(id, 1u), 0x20002u) << id;
    }
    EXPECT_EQ(tavHTTPSetOption(nullptr, 1, 1u), 0x20002u);
    EXPECT_EQ(set(106, ""), 0x20002u);
    EXPECT_EQ(set(106, (const char*)nullptr), 0x20002u);
    for (const char* name : {(const char*)nullptr, ""}) {
        EXPECT_EQ(set(190, name, "v"), 0x20002u);
        EXPECT_EQ(set(191, name, "v"), 0x20002u);
        EXPECT_EQ(set(192, name, "path", "file"), 0x20002u);
        EXPECT_EQ(set(195, name, "bytes", 5, "file"), 0x20002u);
    }
    EXPECT_TRUE(list_empty(&options->header_list));
    EXPECT_TRUE(list_empty(&options->form_list));
}

TEST_F(Options, AnnouncedNameOfAFormFile) {
    struct {
        const char *path, *announced, *expected;
    } rows[] = {
        {"a/b.txt", "x.txt", "x.txt"}, {"a/b.txt", nullptr, "b.txt"}, {"a\\b/c\\d", "", "d"},
        {"c:file", "", "file"},        {"plain", nullptr, "plain"},   {"dir/", nullptr, ""},
        {nullptr, nullptr, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(set(192, "f", row.path, row.announced), 0u);
        EXPECT_STREQ(last_entry()->file_name, row.expected);
        EXPECT_STREQ(last_entry()->form_path, row.path != nullptr ? row.path : "");
        EXPECT_EQ(last_entry()->form_value.data, nullptr);
    }
}

TEST_F(Options, BytesMayHoldZeros) {
    const char bytes[] = {'a', 0, 'b', 0};
    set(193, bytes, 4u);
    set(193, (const void*)nullptr, 4u);
    set(193, bytes, 0u);
    set(193, bytes, 2u);
    EXPECT_EQ(std::string(options->body.data, (size_t)options->body.length),
              std::string("a\0b\0a\0", 6));
    struct {
        const void* bytes;
        int length, stored;
    } rows[] = {{bytes, 4, 4}, {bytes, 0, 0}, {bytes, -1, 0}, {nullptr, 4, 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(set(195, "f", row.bytes, row.length, (const char*)nullptr), 0u);
        ASSERT_NE(last_entry()->form_data.data, nullptr);
        EXPECT_EQ(last_entry()->form_data.length, row.stored);
        EXPECT_EQ(memcmp(last_entry()->form_data.data, bytes, (size_t)row.stored), 0);
        EXPECT_STREQ(last_entry()->data_file_name, "");
    }
}

TEST(OptionsRecord, IsMadeForASessionWithoutOneAndCopiesItsProxy) {
    http_session session{};
    char host[] = "proxy";
    proxy_info proxy = {TAV_HTTP_PROXY_HTTP, host, 8080, nullptr, nullptr, nullptr};
    EXPECT_EQ(tavHTTPSetOption(&session, 203, &proxy), 0u);
    host[0] = 'X';
    EXPECT_STREQ(session.options->proxy->host, "proxy");
    EXPECT_EQ(session.options->priority, 1000);
    free_http_options(session.options);
    free_http_options(nullptr);
}

// A session with a response of these header lines.
class Queries : public testing::Test {
  protected:
    void SetUp() override {
        list_init(&head);
        response.header_list = &head;
        session.response = &response;
        const char* lines[][2] = {{"Content-Type", "text/plain"},
                                  {"X-Two", "one"},
                                  {"X-Empty", ""},
                                  {"x-two", ""},
                                  {"X-TWO", "three"}};
        for (int i = 0; i < 5; i++) {
            entries[i].name = (char*)lines[i][0];
            entries[i].value = (char*)lines[i][1];
            list_append(&head, &entries[i].link);
        }
    }
    // Asks with a heap buffer of exactly `size` bytes, so that a byte too much is noticed; a buffer
    // that is given always has room for the empty text.
    std::uint32_t ask(std::uint32_t query, const char* name, int size) {
        heap_text buffer = exact_bytes(std::string(size > 0 ? (size_t)size : 1, '#'));
        length = size;
        bool raw = query == TAV_HTTP_QUERY_RAW_HEADERS;
        std::uint32_t code =
            tavHTTPQueryInfo(&session, query, raw ? buffer.get() : (void*)name,
                             raw ? (void*)&length : buffer.get(), raw ? nullptr : &length);
        text.assign(buffer.get(), (size_t)size);
        return code;
    }

    http_session session{};
    http_response response{};
    list_link head{};
    response_header entries[5] = {};
    std::int32_t length = 0;
    std::string text;
};

using std::string_literals::operator""s;

TEST_F(Queries, HeaderTextsAndLengths) {
    const std::string raw = "Content-Type : text/plain\r\nX-Two : one\r\nX-Empty : \r\n"
                            "x-two : \r\nX-TWO : three\r\n\r\n";
    const int all = (int)raw.size() + 1;
    struct {
        std::uint32_t query;
        const char* name;
        int size;
        std::uint32_t code;
        int length;
        std::string text;
    } rows[] = {
        {10, nullptr, all, 0, all, raw + "\0"s},
        {10, nullptr, all - 1, 0, all, "\0"s + std::string(raw.size() - 1, '#')},
        {10, nullptr, 0, 0, all, ""},
        {19, "content-type", 11, 0, 11, "text/plain\0"s},
        {19, "content-type", 10, 0, 11, "\0#########"s},
        {19, "X-Empty", 3, 0, 1, "\0##"s},
        {19, "Content", 3, 0x20006, 0, "\0##"s},
        {24, "x-two", 11, 0, 11, "one\0three\0\0"s},
        {24, "x-two", 13, 0, 11, "one\0three\0\0##"s},
        {24, "x-two", 10, 0x20007, 11, "one\0three\0"s},
        {24, "x-two", 0, 0x20007, 11, ""},
        {24, "x-none", 2, 0x20006, 0, "\0#"s},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.query << " " << row.size);
        EXPECT_EQ(ask(row.query, row.name, row.size), row.code);
        EXPECT_EQ(length, row.length);
        EXPECT_EQ(text, row.text);
    }
}

TEST_F(Queries, RefuseMissingArgumentsButTellLengthsWithoutABuffer) {
    char buffer[8] = "xxx";
    for (std::uint32_t query : {19u, 24u}) {
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, (void*)"a", buffer, nullptr), 0x20002u);
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, nullptr, buffer, &length), 0x20002u);
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, (void*)"", buffer, &length), 0x20002u);
        length = 100;
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, (void*)"x-two", nullptr, &length), 0u);
        EXPECT_EQ(length, query == 19 ? 4 : 11);
    }
    EXPECT_EQ(tavHTTPQueryInfo(&session, 10, nullptr, &length, nullptr), 0u);
    EXPECT_GT(length, 11);
    EXPECT_EQ(tavHTTPQueryInfo(&session, 10, buffer, nullptr, nullptr), 0x20002u);
    EXPECT_EQ(tavHTTPQueryInfo(nullptr, 1, buffer, nullptr, nullptr), 0x20002u);
    for (std::uint32_t query : {22u, 23u, 0u, 9u, 25u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, nullptr, nullptr, nullptr), 0x20002u) << query;
    }
    EXPECT_EQ(tavHTTPQueryInfo(&session, 1, nullptr, nullptr, nullptr), 0u);
}

TEST_F(Queries, NeedTheirRecord) {
    session.response = nullptr;
    char buffer[64] = "xxx";
    for (std::uint32_t query :
         {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 11u, 12u, 13u, 14u, 15u, 16u, 17u, 18u, 20u, 21u, 22u}) {
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, buffer, nullptr, nullptr), 0x20006u) << query;
    }
    EXPECT_EQ(tavHTTPQueryInfo(&session, 23, buffer, nullptr, nullptr), 0u);
    EXPECT_STREQ(buffer, "");  // No address yet.

    tavHTTPSetOption(&session, 103, std::int64_t{5}, std::int64_t{0x123456789});
    std::int64_t end = 0;
    EXPECT_EQ(tavHTTPQueryInfo(&session, 4, &end, nullptr, nullptr), 0u);
    EXPECT_EQ(end, 0x123456789);
    free_http_options(session.options);
}

}  // namespace
