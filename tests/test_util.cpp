// Texts, HTTP dates, Base64 and the readers of header values.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tavhttpclient/util.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

namespace {

TEST(Text, CopiesStopAtTheCountOrTheZero) {
    EXPECT_EQ("abc", take(string_dup(exact_text("abc").get())));
    EXPECT_EQ(nullptr, string_dup(nullptr));
    const struct {
        std::int32_t count;
        const char* expected;
    } rows[] = {{-1, "abcd"}, {0, ""}, {2, "ab"}, {4, "abcd"}, {INT32_MAX, "abcd"}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(string_dup_n(exact_text("abcd").get(), row.count)));
    }
    EXPECT_EQ("abcd", take(string_dup_n(exact_bytes("abcd").get(), 4)));
    EXPECT_EQ(nullptr, string_dup_n(nullptr, 3));
}

TEST(Text, AFieldIsReplacedEvenByAPartOfItself) {
    char* field = nullptr;
    string_replace(&field, "some value");
    string_replace(&field, field + 5);
    EXPECT_STREQ("value", field);
    string_replace(&field, nullptr);
    EXPECT_EQ(nullptr, field);
}

TEST(Text, TrimsSpacesAndTabsOnly) {
    const struct {
        const char* text;
        std::int32_t length;
        const char* expected;
    } rows[] = {
        {" \t a b\t ", 0, "a b"},    {" \t ", 0, ""},        {"", 0, ""},
        {"ab cd", 3, "ab"},          {"ab cd", -1, "ab cd"}, {"ab", 99, "ab"},
        {"\r\nab\n", 0, "\r\nab\n"}, {"  x  ", 2, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(trim_string(exact_text(row.text).get(), row.length)))
            << row.text << ", " << row.length;
    }
    EXPECT_EQ("b", take(trim_string(exact_bytes(" b ").get(), 3)));
    log_capture log;
    EXPECT_EQ(nullptr, trim_string(nullptr, 0));
    EXPECT_EQ(1u, log.count("function=trim_string", LOG_LEVEL_ERROR));
}

TEST(Text, BoundedFormatsAlwaysEnd) {
    const struct {
        std::int32_t size;
        const char* expected;
    } rows[] = {{1, ""}, {2, "a"}, {5, "abcd"}, {6, "abcde"}, {9, "abcde"}};
    for (const auto& row : rows) {
        heap_text array = exact_bytes(std::string(static_cast<std::size_t>(row.size), '#'));
        EXPECT_EQ(5, string_printf_bounded(array.get(), row.size, "%s", "abcde"));
        EXPECT_STREQ(row.expected, array.get());
        EXPECT_EQ(0, array.get()[row.size - 1]);
    }
    char byte = 'k';
    EXPECT_EQ(0, string_printf_bounded(&byte, 0, "x"));
    EXPECT_EQ('k', byte);
    EXPECT_EQ(0, string_printf_bounded(nullptr, 9, "x"));
}

TEST(Text, NumbersOfAllSizesFit) {
    heap_text array = exact_bytes(std::string(21, '#'));
    EXPECT_STREQ("-9223372036854775808", int64_to_text(INT64_MIN, array.get()));
    EXPECT_STREQ("9223372036854775807", int64_to_text(INT64_MAX, array.get()));
    EXPECT_STREQ("18446744073709551615", uint64_to_text(UINT64_MAX, array.get()));
    EXPECT_STREQ("0", int64_to_text(0, array.get()));
}

const struct date_row {
    const char* text;
    std::int64_t expected;  // -1: refused
} date_rows[] = {
    {"Sun, 06 Nov 1994 08:49:37 GMT", 784111777},
    {"Sun, 06-Nov-1994 08:49:37 GMT", 784111777},
    {"Fri, 15 Jul 1994 08:49:37 GMT", 774262177},
    {"Thu, 01 Jan 1970 00:00:01 GMT", 1},
    {"Sun, 06 Nov 1994 08:49:37", 784111777},
    {"Sun, 06 Nov 1994 08:49:37 PST", 784111777},
    {"Sun,6 Nov 1994 8:49:37", 784111777},
    {"Mon, 06 Nov 1994 08:49:37 GMT", 784111777},
    {"sun, 06 Nov 1994 08:49:37 GMT", -1},
    {"Sun, 06 nov 1994 08:49:37 GMT", -1},
    {"Sun 06 Nov 1994 08:49:37 GMT", -1},
    {"Sunday, 06-Nov-94 08:49:37 GMT", -1},
    {"Sun Nov  6 08:49:37 1994", -1},
    {"Sun, 06 Nov 1899 08:49:37 GMT", -1},
    {"Sun, 06-Nov-94 08:49:37 GMT", -1},
    {"Sun, 32 Nov 1994 08:49:37 GMT", -1},
    {"Sun, -6 Nov 1994 08:49:37 GMT", -1},
    {"Sun, 06 Nov 1994 24:49:37 GMT", -1},
    {"Sun, 06 Nov 1994 08:60:37 GMT", -1},
    {"Sun, 06 Nov 1994 08:49:60 GMT", -1},
    {"Sun, 06 Nov 1994 08:49:-1 GMT", -1},
    {"Sun, 06 Nov 1994 08:49", -1},
    {"Sun, 4294967302 Nov 1994 08:49:37 GMT", -1},
    {"Sun, 06 Nov 99999999999999999999 08:49:37 GMT", -1},
    {"SunSunSunSunSun, 06 Nov 1994 08:49:37 GMT", -1},
    {"Sun, 06 NovNovNovNov 1994 08:49:37 GMT", -1},
    {"", -1},
};

bool read_all_dates() {
    for (const date_row& row : date_rows) {
        std::int64_t output = 5;
        bool ok = parse_http_date(exact_text(row.text).get(), -1, &output);
        if (ok != (row.expected != -1) || output != (ok ? row.expected : 0)) {
            std::fprintf(stderr, "%s: %d, %lld\n", row.text, ok, static_cast<long long>(output));
            return false;
        }
    }
    return true;
}

// Each zone has its own process: the offset is found once in the life of one.
TEST(Date, ReadsTheSameInEveryZone) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* zone :
         {"UTC0", "EST5EDT,M3.2.0,M11.1.0", "NZST-12NZDT,M9.5.0,M4.1.0/3", "<+0545>-5:45"}) {
        EXPECT_EXIT(
            {
                setenv("TZ", zone, 1);
                tzset();
                std::_Exit(read_all_dates() && read_all_dates() ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "")
            << zone;
    }
}

TEST(Date, ReadsNoFurtherThanTheLength) {
    std::string text = "Sun, 06 Nov 1994 08:49:37";
    std::int64_t output = 0;
    EXPECT_TRUE(parse_http_date(exact_bytes(text).get(), 25, &output));
    EXPECT_EQ(784111777, output);
    // Without its last digit the second is still a number, without both it is none.
    EXPECT_TRUE(parse_http_date(text.c_str(), 24, &output));
    EXPECT_EQ(784111743, output);
    EXPECT_FALSE(parse_http_date(text.c_str(), 23, &output));
    EXPECT_EQ(0, output);
    EXPECT_FALSE(parse_http_date(nullptr, 3, &output));
    EXPECT_FALSE(parse_http_date(text.c_str(), 25, nullptr));
}

TEST(Date, WritesTheFixedForm) {
    const struct {
        std::int64_t seconds;
        const char* expected;
    } rows[] = {
        {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
        {784111777, "Sun, 06 Nov 1994 08:49:37 GMT"},
        {951827696, "Tue, 29 Feb 2000 12:34:56 GMT"},
        {-1, "(null)"},
        {INT64_MAX, "(null)"},
        {INT64_MIN, "(null)"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(time_to_http_gmt_time(row.seconds)));
    }
    struct tm time = {};
    time.tm_wday = 7;
    EXPECT_EQ(nullptr, tm_struct_to_http_gmt_time(&time));
    time.tm_wday = 0;
    time.tm_mon = -1;
    EXPECT_EQ(nullptr, tm_struct_to_http_gmt_time(&time));
    time.tm_mon = 0;
    time.tm_year = INT_MAX;
    EXPECT_EQ(nullptr, tm_struct_to_http_gmt_time(&time));
    log_capture log;
    EXPECT_EQ(nullptr, tm_struct_to_http_gmt_time(nullptr));
    EXPECT_EQ(1u, log.count("function=tm_struct_to_http_gmt_time", LOG_LEVEL_ERROR));
    EXPECT_EQ(-1, utc_tm_to_time(nullptr));
}

TEST(Base64, PadsEveryRemainder) {
    const struct {
        std::string bytes;
        const char* expected;
    } rows[] = {
        {"a", "YQ=="},
        {"a:", "YTo="},
        {"abc", "YWJj"},
        {"user:secret", "dXNlcjpzZWNyZXQ="},
        {"\xFF\xFE\xFD", "//79"},
        {std::string(4, '\0'), "AAAAAA=="},
        {"\xFB\xF0", "+/A="},
    };
    for (const auto& row : rows) {
        char* text = nullptr;
        std::uint32_t length = 0;
        ASSERT_TRUE(base64_encode(exact_bytes(row.bytes).get(),
                                  static_cast<std::uint32_t>(row.bytes.size()), &text, &length));
        EXPECT_EQ(std::strlen(row.expected), length);
        EXPECT_EQ(row.expected, take(text));
    }
    char* text = nullptr;
    std::uint32_t length = 9;
    ASSERT_TRUE(base64_encode(exact_text("abcd").get(), 0, &text, &length));
    EXPECT_EQ("YWJjZA==", take(text));
    ASSERT_TRUE(base64_encode("", 0, &text, &length));
    EXPECT_EQ(0u, length);
    EXPECT_EQ("", take(text));
    EXPECT_FALSE(base64_encode(nullptr, 3, &text, &length));
    EXPECT_EQ(nullptr, text);
}

TEST(HeaderValue, ContentRange) {
    const struct {
        const char* text;
        std::int32_t length;
        bool expected;
        std::int64_t first, last, complete;
    } rows[] = {
        {"bytes 0-99/1000", -1, true, 0, 99, 1000},
        {"bytes 5-9/10 trailing", -1, true, 5, 9, 10},
        {"5-9/10", -1, true, 5, 9, 10},
        {"bytes 0-99/1000", 13, true, 0, 99, 10},
        {"bytes 0-99/1000", 99, true, 0, 99, 1000},
        {"bytes 0-99/*", -1, true, 0, 99, 0},
        {"bytes 4294967296-8589934591/17179869184", -1, true, INT64_C(4294967296),
         INT64_C(8589934591), INT64_C(17179869184)},
        {"bytes 99999999999999999999-1/2", -1, true, INT64_MAX, 1, 2},
        {"bytes 0-/9", -1, true, 0, 0, 9},
        {"bytes */1000", -1, false, 0, 0, 0},
        {"bytes 0-99/", -1, false, 0, 0, 0},
        {"bytes 0-99/1000", 11, false, 0, 0, 0},
        {"bytes 0-99", -1, false, 0, 0, 0},
        {"bytes 0/9-1", -1, false, 0, 0, 0},
        {"bytes -/", -1, false, 0, 0, 0},
        {"bytes", -1, false, 0, 0, 0},
        {"bytes 0-99/1000", 0, false, 0, 0, 0},
        {"", -1, false, 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        heap_text text = exact_text(row.text);
        std::int64_t first = 7, last = 7, complete = 7;
        EXPECT_EQ(row.expected,
                  parse_content_range(text.get(), row.length, &first, &last, &complete));
        EXPECT_EQ(row.first, first);
        EXPECT_EQ(row.last, last);
        EXPECT_EQ(row.complete, complete);
        EXPECT_EQ(row.expected,
                  parse_content_range(text.get(), row.length, nullptr, nullptr, nullptr));
    }
    EXPECT_FALSE(parse_content_range(nullptr, -1, nullptr, nullptr, nullptr));
}

TEST(HeaderValue, Connection) {
    const struct {
        const char* text;
        std::int32_t keep_alive, timeout, max;
    } rows[] = {
        {"Keep-Alive", 1, 0, 0},
        {"keep-alive, timeout=15, max=100", 1, 15, 100},
        {"KEEP-ALIVE; TIMEOUT = 5; MAX= 7", 1, 5, 7},
        {"max=3, keep-alive", 1, 0, 3},
        {"keep-alive, timeout, max=4", 1, 4, 4},
        {"keep-alive, timeout=x", 1, 0, 0},
        {"keep-alive, timeout=-5", 1, -5, 0},
        {"keep-alive, timeout=99999999999, max=-99999999999999999999", 1, INT32_MAX, INT32_MIN},
        {"keep-alive, timeout", 1, 0, 0},
        {"keep-alive, timeout=", 1, 0, 0},
        {"close, timeout=15", 0, 0, 0},
        {"", 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::int32_t keep_alive = 9, timeout = 9, max = 9;
        parse_connection_value(exact_text(row.text).get(), &keep_alive, &timeout, &max);
        EXPECT_EQ(row.keep_alive, keep_alive);
        EXPECT_EQ(row.timeout, timeout);
        EXPECT_EQ(row.max, max);
    }
}

TEST(HeaderValue, RedirectsAreFour) {
    std::string redirects;
    for (std::uint32_t status = 0; status < 1000; ++status) {
        redirects += is_redirect_status(status) ? std::to_string(status) + " " : "";
    }
    EXPECT_EQ("301 302 303 307 ", redirects);
}

TEST(Address, TextHasNoPort) {
    const struct {
        int family;
        const char* address;
    } rows[] = {{AF_INET, "127.0.0.1"},
                {AF_INET6, "::1"},
                {AF_INET6, "1111:2222:3333:4444:5555:6666:7777:8888"}};
    for (const auto& row : rows) {
        sockaddr_storage storage = {};
        storage.ss_family = static_cast<sa_family_t>(row.family);
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        v4->sin_port = htons(80);
        void* bytes = row.family == AF_INET ? static_cast<void*>(&v4->sin_addr) : &v6->sin6_addr;
        ASSERT_EQ(1, inet_pton(row.family, row.address, bytes));
        heap_text text = exact_bytes(std::string(64, '#'));
        sockaddr_to_text(reinterpret_cast<sockaddr*>(&storage), text.get());
        EXPECT_STREQ(row.address, text.get());
    }
    sockaddr unknown = {};
    unknown.sa_family = AF_UNIX;
    char text[64] = "old";
    sockaddr_to_text(&unknown, text);
    EXPECT_STREQ("", text);
    sockaddr_to_text(nullptr, text);
    sockaddr_to_text(nullptr, nullptr);
}

}  // namespace
