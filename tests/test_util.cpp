// Texts, HTTP dates, Base64 and the readers of header values.
#include <gtest/gtest.h>

#include <cstdint>

#include "tavhttpclient/util.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

namespace {

TEST(Text, CopiesStopAtTheCountOrTheZero) {
    const struct {
        std::int32_t count;
        const char* expected;
    } rows[] = {{-1, "abcd"}, {0, ""}, {2, "ab"}, {4, "abcd"}, {INT32_MAX, "abcd"}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(string_dup_n(exact_text("abcd").get(), row.count)));
    }
    EXPECT_EQ("abcd", take(string_dup_n(exact_bytes("abcd").get(), 4)));
    EXPECT_EQ(nullptr, string_dup_n(nullptr, 3));
    EXPECT_EQ(nullptr, string_dup(nullptr));
    char* field = nullptr;
    string_replace(&field, "some value");
    string_replace(&field, field + 5);
    EXPECT_STREQ("value", field) << "replaced by a part of itself";
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

TEST(Text, BoundedFormatsAndNumbersFit) {
    const struct {
        std::int32_t size;
        const char* expected;
    } rows[] = {{1, ""}, {5, "abcd"}, {6, "abcde"}, {9, "abcde"}};
    for (const auto& row : rows) {
        heap_text array = exact_bytes(std::string(static_cast<std::size_t>(row.size), '#'));
        EXPECT_EQ(5, string_printf_bounded(array.get(), row.size, "%s", "abcde"));
        EXPECT_STREQ(row.expected, array.get());
        EXPECT_EQ(0, array.get()[row.size - 1]);
    }
    EXPECT_EQ(0, string_printf_bounded(nullptr, 9, "x"));
    heap_text array = exact_bytes(std::string(21, '#'));
    EXPECT_EQ(0, string_printf_bounded(array.get(), 0, "x"));
    EXPECT_EQ('#', array.get()[0]);
    EXPECT_STREQ("-9223372036854775808", int64_to_text(INT64_MIN, array.get()));
    EXPECT_STREQ("18446744073709551615", uint64_to_text(UINT64_MAX, array.get()));
}

const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT";

bool read_all_dates() {
    bool all = true;
    // A part of the date and what stands in its place.
    auto read = [&all](const std::string& change, std::int64_t expected) {
        std::string text = date, part = change.substr(0, change.find('>'));
        text.replace(text.find(part), part.size(), change.substr(part.size() + 1));
        std::int64_t output = 5;
        bool ok = parse_http_date(exact_text(text).get(), -1, &output);
        if (output != expected || ok != (expected != 0)) {
            std::fprintf(stderr, "%s: %lld\n", text.c_str(), static_cast<long long>(output));
            all = false;
        }
    };
    for (const char* change : {">", " GMT>", "GMT>PST", "Sun>Mon", "Sun, 0>Sun,"}) {
        read(change, 784111777);
    }
    read("06 Nov 1994>06-Nov-1994", 784111777);
    read("Sun, 06 Nov>Fri, 15 Jul", 774262177);
    read("Sun, 06 Nov 1994 08:49:37>Thu, 01 Jan 1970 00:00:01", 1);
    for (const char* change :
         {"Sun>sun", "Nov>nov", "Sun,>Sun", "1994>1899", "06>32", "06>-6", "08>24", "49>60",
          "37>60", "37>-1", ":37 GMT>", "06 Nov 1994>06-Nov-94", "Sun, 06>Sunday, 06",
          "Sun, 06>Sun Nov 6", "06>4294967302", "1994>99999999999999999999", "Sun>SunSunSunSunSun",
          "Nov>NovNovNovNov", "Sun, 06 Nov 1994 08:49:37 GMT>"}) {
        read(change, 0);
    }
    return all;
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
    std::int64_t output = 0;
    EXPECT_TRUE(parse_http_date(exact_bytes(date.substr(0, 25)).get(), 25, &output));
    EXPECT_EQ(784111777, output);
    // Without its last digit the second is still a number, without both it is none.
    EXPECT_TRUE(parse_http_date(date.c_str(), 24, &output));
    EXPECT_EQ(784111743, output);
    EXPECT_FALSE(parse_http_date(date.c_str(), 23, &output));
    EXPECT_FALSE(parse_http_date(nullptr, 3, &output));
    EXPECT_FALSE(parse_http_date(date.c_str(), 25, nullptr));
}

TEST(Date, WritesTheFixedForm) {
    const struct {
        std::int64_t seconds;
        const char* expected;
    } rows[] = {{0, "Thu, 01 Jan 1970 00:00:00 GMT"},
                {951827696, "Tue, 29 Feb 2000 12:34:56 GMT"},
                {-1, "(null)"},
                {INT64_MAX, "(null)"},
                {INT64_MIN, "(null)"}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(time_to_http_gmt_time(row.seconds)));
    }
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
        {"\xFF\xFE\xFD", "//79"},
        {"\xFB\xF0", "+/A="},
        {std::string(4, '\0'), "AAAAAA=="},
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
    ASSERT_TRUE(base64_encode(exact_text("abcd").get(), 0, &text, &length)) << "0: up to the zero";
    EXPECT_EQ("YWJjZA==", take(text));
    ASSERT_TRUE(base64_encode("", 0, &text, &length));
    EXPECT_EQ("", take(text));
    EXPECT_FALSE(base64_encode(nullptr, 3, &text, &length));
    EXPECT_EQ(nullptr, text);
}

TEST(HeaderValue, ContentRange) {
    const struct {
        const char* text;
        std::int32_t length;
        const char* numbers;  // null: refused
    } rows[] = {
        {"bytes 0-99/1000", -1, "0 99 1000"},
        {"bytes 5-9/10 trailing", -1, "5 9 10"},
        {"5-9/10", -1, "5 9 10"},
        {"bytes 0-99/1000", 13, "0 99 10"},
        {"bytes 0-99/*", -1, "0 99 0"},
        {"bytes 4294967296-8589934591/17179869184", -1, "4294967296 8589934591 17179869184"},
        {"bytes 99999999999999999999-1/2", -1, "9223372036854775807 1 2"},
        {"bytes 0-/9", -1, "0 0 9"},
        {"bytes */1000", -1, nullptr},
        {"bytes 0-99/1000", 11, nullptr},
        {"bytes 0-99", -1, nullptr},
        {"bytes 0/9-1", -1, nullptr},
        {"bytes 0-99/1000", 0, nullptr},
        {"", -1, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        heap_text text = exact_text(row.text);
        std::int64_t numbers[] = {7, 7, 7};
        EXPECT_EQ(row.numbers != nullptr, parse_content_range(text.get(), row.length, &numbers[0],
                                                              &numbers[1], &numbers[2]));
        EXPECT_EQ(row.numbers != nullptr ? row.numbers : "0 0 0",
                  std::to_string(numbers[0]) + " " + std::to_string(numbers[1]) + " " +
                      std::to_string(numbers[2]));
    }
    EXPECT_TRUE(parse_content_range("1-2/3", -1, nullptr, nullptr, nullptr));
    EXPECT_FALSE(parse_content_range(nullptr, -1, nullptr, nullptr, nullptr));
}

TEST(HeaderValue, Connection) {
    const struct {
        const char* text;
        std::int32_t keep_alive, timeout, max;
    } rows[] = {
        {"keep-alive, timeout=15, max=100", 1, 15, 100},
        {"KEEP-ALIVE; TIMEOUT = 5; MAX= 7", 1, 5, 7},
        {"keep-alive, timeout, max=4", 1, 4, 4},
        {"keep-alive, timeout=99999999999, max=-99999999999999999999", 1, INT32_MAX, INT32_MIN},
        {"keep-alive, timeout=", 1, 0, 0},
        {"close, timeout=15", 0, 0, 0},
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

}  // namespace
