// Options as the host sets them and queries as the host reads them, on records without a transfer.
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace {

class Options : public testing::Test {
  protected:
    void SetUp() override {
        session.options = new_http_options();
        ASSERT_NE(session.options, nullptr);
        options = session.options;
    }
    void TearDown() override {
        free_http_options(session.options);
    }

    template <typename... values> std::uint32_t set(std::uint32_t option, values... given) {
        return tavHTTPSetOption(&session, option, given...);
    }
    header_entry* last_header() {
        return (header_entry*)options->header_list.prev;
    }
    upload_item* last_entry() {
        return (upload_item*)options->form_list.prev;
    }

    http_session session{};
    http_options* options = nullptr;
};

TEST_F(Options, NumbersAreStoredOrReducedToSwitches) {
    struct {
        std::uint32_t option;
        std::uint32_t value;
        std::uint32_t http_options::*field;
        std::uint32_t stored;
    } rows[] = {
        {1, 5, &http_options::no_redirect, 1},      {1, 0, &http_options::no_redirect, 0},
        {2, 77, &http_options::option_2, 77},       {102, 9, &http_options::download_to_file, 1},
        {109, 1, &http_options::connection, 1},     {109, 2, &http_options::connection, 2},
        {109, 3, &http_options::connection, 0},     {110, 4, &http_options::no_cookie_store, 1},
        {111, 4, &http_options::no_compression, 1}, {112, 4, &http_options::resume, 1},
        {113, 4, &http_options::body_md5, 1},       {114, 4, &http_options::keep_error_body, 1},
        {202, 7, &http_options::no_reuse, 7},       {204, 7, &http_options::queue_fifo, 7},
        {206, 7, &http_options::hide_url, 7},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        EXPECT_EQ(set(row.option, row.value), 0u);
        EXPECT_EQ(options->*row.field, row.stored);
    }
    EXPECT_EQ(set(3, -1), 0u);
    EXPECT_EQ(set(4, 250), 0u);
    EXPECT_EQ(set(5, 0x7FFFFFFF), 0u);
    EXPECT_EQ(options->connect_timeout, -1);
    EXPECT_EQ(options->io_timeout, 250);
    EXPECT_EQ(options->session_timeout, 0x7FFFFFFF);
}

TEST_F(Options, SixtyFourBitAndSeveralValues) {
    EXPECT_EQ(set(103, std::int64_t{0x123456789A}, std::int64_t{-1}), 0u);
    EXPECT_EQ(options->range_start, 0x123456789A);
    EXPECT_EQ(options->range_end, -1);
    EXPECT_EQ(set(104, std::int64_t{0x1FFFFFFFF}), 0u);
    EXPECT_EQ(options->if_modified_since, 0x1FFFFFFFF);
    EXPECT_EQ(set(205, 1u, -5, 8), 0u);
    EXPECT_EQ(options->keep_connection, 1u);
    EXPECT_EQ(options->keep_alive_timeout, -5);
    EXPECT_EQ(options->keep_alive_max, 8);

    EXPECT_EQ(set(110, 1u), 0u);
    EXPECT_EQ(set(207, 3u, 0u), 0u);  // The second value is that of option 110.
    EXPECT_EQ(options->keep_undecoded_body, 3u);
    EXPECT_EQ(options->no_cookie_store, 0u);
}

TEST_F(Options, TextsAreCopiedReplacedAndCleared) {
    struct {
        std::uint32_t option;
        char* http_options::*field;
        bool keeps_empty;
    } rows[] = {
        {105, &http_options::if_none_match, false}, {107, &http_options::accept, true},
        {108, &http_options::user_agent, false},    {115, &http_options::tls_host_name, false},
        {116, &http_options::host, false},          {117, &http_options::cache_control, false},
        {194, &http_options::upload_file, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        std::string text = "first";
        EXPECT_EQ(set(row.option, text.c_str()), 0u);
        text = "other";
        EXPECT_STREQ(options->*row.field, "first");
        EXPECT_EQ(set(row.option, "second"), 0u);
        EXPECT_STREQ(options->*row.field, "second");
        EXPECT_EQ(set(row.option, ""), 0u);
        EXPECT_STREQ(options->*row.field, row.keeps_empty ? "" : nullptr);
        EXPECT_EQ(set(row.option, (const char*)nullptr), 0u);
        EXPECT_EQ(options->*row.field, nullptr);
    }
}

TEST_F(Options, DownloadFileAndFreeChoiceExcludeEachOther) {
    set(101, "dir/file");
    EXPECT_STREQ(options->download_file, "dir/file");
    EXPECT_EQ(options->download_to_file, 1u);
    set(102, 1u);
    EXPECT_EQ(options->download_file, nullptr);
    EXPECT_EQ(options->download_to_file, 1u);
    set(101, "");
    EXPECT_EQ(options->download_file, nullptr);
    EXPECT_EQ(options->download_to_file, 0u);
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

TEST_F(Options, PriorityOutsideItsValuesIsNormal) {
    log_capture log;
    for (int priority : {100, 10000, 1000}) {
        set(201, priority);
        EXPECT_EQ(options->priority, priority);
    }
    EXPECT_EQ(log.lines().size(), 0u);
    set(201, 100);
    EXPECT_EQ(set(201, 500), 0u);
    EXPECT_EQ(options->priority, 1000);
    EXPECT_EQ(log.count("function=tavHTTPSetOption", 1000), 1u);
}

TEST_F(Options, CookieIsReplacedAndTakenLiterally) {
    set(106, "a=1; a-very-long-first-value=xxxxxxxxxxxxxxxxxxxxx");
    set(106, "b=%s%n");
    EXPECT_EQ(std::string(options->cookie.data, (size_t)options->cookie.length), "b=%s%n");
}

TEST_F(Options, FormattedValues) {
    std::string big(1000, 'z');
    EXPECT_EQ(set(190, "X-A", "%d-%s", 7, big.c_str()), 0u);
    EXPECT_STREQ(last_header()->name, "X-A");
    EXPECT_EQ(last_header()->value, "7-" + big);
    EXPECT_EQ(set(191, "f", "%s%%", big.c_str()), 0u);
    EXPECT_EQ(last_entry()->form_value.data, big + "%");
    EXPECT_EQ(last_entry()->form_value.length, 1001);
    EXPECT_EQ(set(191, "empty", (const char*)nullptr), 0u);
    EXPECT_STREQ(last_entry()->form_value.data, "");  // Has storage, so it is a field.
    EXPECT_EQ(last_entry()->form_value.length, 0);
}

TEST_F(Options, AnnouncedNameOfAFormFile) {
    struct {
        const char* path;
        const char* announced;
        const char* expected;
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
    EXPECT_EQ(set(193, bytes, 4u), 0u);
    EXPECT_EQ(set(193, (const void*)nullptr, 4u), 0u);
    EXPECT_EQ(set(193, bytes, 0u), 0u);
    EXPECT_EQ(set(193, bytes, 2u), 0u);
    EXPECT_EQ(std::string(options->body.data, (size_t)options->body.length),
              std::string("a\0b\0a\0", 6));

    struct {
        const void* bytes;
        int length;
        int stored;
    } rows[] = {{bytes, 4, 4}, {bytes, 0, 0}, {bytes, -1, 0}, {nullptr, 4, 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(set(195, "f", row.bytes, row.length, (const char*)nullptr), 0u);
        ASSERT_NE(last_entry()->form_data.data, nullptr);
        EXPECT_EQ(last_entry()->form_data.length, row.stored);
        EXPECT_EQ(memcmp(last_entry()->form_data.data, bytes, (size_t)row.stored), 0);
        EXPECT_STREQ(last_entry()->data_file_name, "");
    }
}

TEST_F(Options, ProxyIsCopiedAndNullMeansDirect) {
    char host[] = "proxy";
    proxy_info proxy = {TAV_HTTP_PROXY_HTTP, host, 8080, nullptr, nullptr, nullptr};
    set(203, &proxy);
    host[0] = 'X';
    ASSERT_NE(options->proxy, nullptr);
    EXPECT_STREQ(options->proxy->host, "proxy");
    set(203, (const proxy_info*)nullptr);
    EXPECT_EQ(options->proxy, nullptr);
}

void on_complete(http_session*, void*, std::uint32_t) {
}
void on_connecting(http_session*, void*, const char*) {
}

TEST_F(Options, CallbacksGoToTheSession) {
    set(907, on_complete);
    set(901, on_connecting);
    EXPECT_EQ(session.complete_cb, on_complete);
    EXPECT_EQ(session.connecting_cb, on_connecting);
    set(907, (complete_callback) nullptr);
    EXPECT_EQ(session.complete_cb, nullptr);
}

TEST(OptionsRecord, IsMadeForASessionWithoutOne) {
    http_session session{};
    EXPECT_EQ(tavHTTPSetOption(&session, 4, 5), 0u);
    ASSERT_NE(session.options, nullptr);
    EXPECT_EQ(session.options->session, &session);
    EXPECT_EQ(session.options->priority, 1000);
    EXPECT_EQ(session.options->io_timeout, 5);
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
        add("Content-Type", "text/plain");
        add("X-Two", "one");
        add("X-Empty", "");
        add("x-two", "");
        add("X-TWO", "three");
    }
    void add(const char* name, const char* value) {
        entries.emplace_back();
        entries.back().name = (char*)name;
        entries.back().value = (char*)value;
        list_append(&head, &entries.back().link);
    }
    // Asks with a heap buffer of exactly `size` bytes, so that a byte too much is noticed; a buffer
    // that is given always has room for the empty text. Returns the code, the length, the buffer.
    std::uint32_t ask(std::uint32_t query, const char* name, int size) {
        std::size_t room = size > 0 ? (size_t)size : 1;
        std::unique_ptr<char[]> buffer(new char[room]);
        memset(buffer.get(), '#', room);
        length = size;
        std::uint32_t code =
            query == TAV_HTTP_QUERY_RAW_HEADERS
                ? tavHTTPQueryInfo(&session, query, buffer.get(), &length, nullptr)
                : tavHTTPQueryInfo(&session, query, (void*)name, buffer.get(), &length);
        text.assign(buffer.get(), (size_t)size);
        return code;
    }

    http_session session{};
    http_response response{};
    list_link head{};
    std::deque<response_header> entries;
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
        {19, "Content-Type", 0, 0, 11, ""},
        {19, "X-Empty", 3, 0, 1, "\0##"s},
        {19, "Content", 3, 0x20006, 0, "\0##"s},
        {24, "x-two", 11, 0, 11, "one\0three\0\0"s},
        {24, "x-two", 13, 0, 11, "one\0three\0\0##"s},
        {24, "x-two", 10, 0x20007, 11, "one\0three\0"s},
        {24, "x-two", 9, 0x20007, 11, "one\0#####"s},
        {24, "x-two", 1, 0x20007, 11, "\0"s},
        {24, "x-two", 0, 0x20007, 11, ""},
        {24, "x-empty", 2, 0, 1, "\0#"s},
        {24, "x-none", 2, 0x20006, 0, "\0#"s},
        {24, "x-none", 0, 0x20006, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.query << " " << row.size);
        EXPECT_EQ(ask(row.query, row.name, row.size), row.code);
        EXPECT_EQ(length, row.length);
        EXPECT_EQ(text, row.text);
    }
}

TEST_F(Queries, HeaderLengthsWithoutABuffer) {
    length = 100;
    EXPECT_EQ(tavHTTPQueryInfo(&session, 19, (void*)"x-two", nullptr, &length), 0u);
    EXPECT_EQ(length, 4);
    length = 100;
    EXPECT_EQ(tavHTTPQueryInfo(&session, 24, (void*)"x-two", nullptr, &length), 0u);
    EXPECT_EQ(length, 11);
    EXPECT_EQ(tavHTTPQueryInfo(&session, 10, nullptr, &length, nullptr), 0u);
    EXPECT_GT(length, 11);
}

TEST_F(Queries, RefusesMissingArguments) {
    char buffer[8] = "xxx";
    for (std::uint32_t query : {19u, 24u}) {
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, (void*)"a", buffer, nullptr), 0x20002u);
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, nullptr, buffer, &length), 0x20002u);
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, (void*)"", buffer, &length), 0x20002u);
    }
    EXPECT_EQ(tavHTTPQueryInfo(&session, 10, buffer, nullptr, nullptr), 0x20002u);
    EXPECT_EQ(tavHTTPQueryInfo(&session, 22, nullptr, nullptr, nullptr), 0x20002u);
    EXPECT_EQ(tavHTTPQueryInfo(&session, 23, nullptr, nullptr, nullptr), 0x20002u);
    EXPECT_EQ(tavHTTPQueryInfo(nullptr, 1, buffer, nullptr, nullptr), 0x20002u);
    for (std::uint32_t query : {0u, 9u, 25u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tavHTTPQueryInfo(&session, query, buffer, nullptr, nullptr), 0x20002u);
    }
    EXPECT_EQ(tavHTTPQueryInfo(&session, 1, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(tavHTTPQueryInfo(&session, 5, nullptr, nullptr, nullptr), 0u);
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
