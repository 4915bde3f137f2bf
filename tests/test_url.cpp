// Splitting URLs, resolving locations, escaping. All inputs come from blocks of their exact size.
#include <gtest/gtest.h>

#include <algorithm>

#include "tavhttpclient/util.h"
#include "tests/support/exact_buffer.h"

namespace {

// The scheme and the pieces that are there.
std::string describe(const url_info& info) {
    const char* marks[] = {
        "", " user=", " password=", " host=", " port=", " path=", " query=", " fragment="};
    std::string text;
    for (int i = 0; i < 8; i++) {
        const text_view& view = (&info.scheme)[i];
        if (view.data != nullptr) {
            text += marks[i] + std::string(view.data, view.length);
        } else {
            EXPECT_EQ(0u, view.length) << marks[i];
        }
    }
    return text;
}

TEST(Url, SplitsIntoPieces) {
    const struct {
        const char *url, *pieces;
    } rows[] = {
        {"x://h", "x host=h"},
        {"  x://h/p", "x host=h path=/p"},
        {"\tx://h/p", "\tx host=h path=/p"},
        {"://h", " host=h"},
        {"x://u:p@h:8/a/b?c=d#e",
         "x user=u password=p host=h port=8 path=/a/b query=c=d fragment=e"},
        {"x://u:@h", "x user=u host=h"},
        {"x://u:p:q@h", "x user=u password=p:q host=h"},
        {"x://@h", "x host=h"},
        {"x://u@", "x host=u"},
        {"x://u:p@", "x host=u port=p"},
        {"x://u@v@h", "x user=u host=v@h"},
        {"x://h:/p", "x host=h path=/p"},
        {"x://u@[::1]:81/p", "x user=u host=::1 port=81 path=/p"},
        {"x://[::1]", "x host=::1"},
        {"x://fe80::1/", "x host=fe80 port=:1"},
        {"x://h?b=1", "x host=h query=b=1"},
        {"x://h?#f", "x host=h fragment=f"},
        {"x://h?a/b", "x host=h?a path=/b"},
        {"x://h#f", "x host=h#f"},
        {"x://h/?#", "x host=h path=/"},
        {"x://h/a#f?q", "x host=h path=/a fragment=f?q"},
        {"x://h/a://b", "x host=h path=/a://b"},
    };
    url_info info;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        heap_text url = exact_text(row.url);
        std::memset(&info, 0xA5, sizeof(info));
        EXPECT_TRUE(parse_url_info(url.get(), &info));
        EXPECT_EQ(row.pieces, describe(info));
    }
    for (const char* refused :
         {"", " ", "h/p", "x:/h", "x://", "x:///p", "x://?q", "x://:80/", "x://@:80/", "x://:p@h/",
          "x://::1/", "x://[]/", "x://[/", "x://[", "x://[::1", "x://[::1]x/", "x://[::1]:/"}) {
        EXPECT_FALSE(parse_url_info(exact_text(refused).get(), &info)) << refused;
    }
    EXPECT_FALSE(parse_url_info(nullptr, &info));
}

TEST(Url, AnalysisFillsInTheDefaults) {
    const struct {
        const char *url, *pieces;  // scheme, host, port, path and target
    } rows[] = {
        {"http://h", "http h 80 / /"},
        {"https://h", "https h 443 / /"},
        {"HTTPS://H/P", "HTTPS H 443 /P /P"},
        {"abcde://h", "abcde h 443 / /"},
        {"http://h:8080/a", "http h 8080 /a /a"},
        {"https://h:0/", "https h 443 / /"},
        {"http://h:x/", "http h 80 / /"},
        {"http://h:70000/", "http h 4464 / /"},
        {"http://h/a?b=1#c", "http h 80 /a /a?b=1"},
        {"http://h?b=1", "http h 80 / /"},
        {"http://h/%s%n?%d", "http h 80 /%s%n /%s%n?%d"},
        {"http://[::1]:81/p", "http ::1 81 /p /p"},
    };
    char untouched = 0;
    char* texts[4] = {&untouched, &untouched, &untouched, &untouched};
    std::uint16_t port = 7;
    for (const char* url : {"", "h/p", "://h/p", "x://:1/"}) {
        EXPECT_FALSE(analyze_url(url, &texts[0], &texts[1], &port, &texts[2], &texts[3])) << url;
        EXPECT_EQ(4, std::count(texts, texts + 4, &untouched)) << url;
        EXPECT_EQ(7, port) << url;
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        ASSERT_TRUE(analyze_url(exact_text(row.url).get(), &texts[0], &texts[1], &port, &texts[2],
                                &texts[3]));
        EXPECT_EQ(row.pieces, take(texts[0]) + " " + take(texts[1]) + " " + std::to_string(port) +
                                  " " + take(texts[2]) + " " + take(texts[3]));
    }
    EXPECT_TRUE(
        analyze_url("http://h:99999999999999999999/", nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST(Url, AbsoluteUrlsHaveAShortScheme) {
    for (const char* text : {"http://h", " a://b", "abcdefghijklmno://h"}) {
        EXPECT_TRUE(is_absolute_url(exact_text(text).get())) << text;
    }
    for (const char* text : {"abcdefghijklmnop://h", "http://", "http:/", "http", "://h", "/p://h",
                             "//h", "?a://h", "a&b://h", "a?b://h", ""}) {
        EXPECT_FALSE(is_absolute_url(exact_text(text).get())) << text;
    }
    EXPECT_FALSE(is_absolute_url(nullptr));
}

TEST(Url, RelativeLocationsAreResolved) {
    const struct {
        const char *current, *location, *expected;
    } rows[] = {
        {"x://h/a/b/c?o", "?q=1", "x://h/a/b/c?q=1"},
        {"x://h?a/b", "/r", "x://h/r"},
        {"x://h/a?b/c", "r", "x://h/r"},
        {"x://h/a/b", "../../x", "x://h/x"},
        {"x://h/a", "../../x", "x://h/x"},
        {"x://h", "../x", "x://h/x"},
        {"x://h", "/", "x://h/"},
        {"x://h/a/b/c", "./../x", "x://h/a/x"},
        {"x://h/a/b/c", ".././x", "x://h/a/./x"},
        {"x://h/a/b/c", "..", "x://h/a/b/.."},
        {"x://h/a/b", "", "x://h/a/"},
        {"x://h/a/b/c", "../", "x://h/a/"},
        {"x://h/a#f", "x", "x://h/x"},
        {"h/a/b", "x", "h/a/x"},
        {"", "x", "/x"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, take(resolve_relative_url(exact_text(row.current).get(),
                                                          exact_text(row.location).get())))
            << row.current << " + " << row.location;
    }
    EXPECT_EQ(nullptr, resolve_relative_url(nullptr, "x"));
    EXPECT_EQ(nullptr, resolve_relative_url("x://h", nullptr));
}

TEST(Url, SchemeRelativeLocationsTakeTheScheme) {
    EXPECT_EQ("https://b/p", take(make_scheme_relative_url("https://a/x//y", "//b/p")));
    EXPECT_EQ("//b", take(make_scheme_relative_url("//a", "//b")));
    EXPECT_EQ(nullptr, make_scheme_relative_url("x:/a", "//b"));
    EXPECT_EQ(nullptr, make_scheme_relative_url(nullptr, "//b"));
    EXPECT_EQ(nullptr, make_scheme_relative_url("x://a", nullptr));
}

TEST(Url, EscapesAllButUnreservedBytes) {
    const std::string kept = "-._~0123456789ABCXYZabcxyz",
                      escaped = "\x01 !\"+,/:@[`{\x7F\x80\xE4\xFF";
    EXPECT_EQ(kept, take(url_char_escape(exact_text(kept).get())));
    EXPECT_EQ("%01%20%21%22%2B%2C%2F%3A%40%5B%60%7B%7F%80%E4%FF",
              take(url_char_escape(exact_text(escaped).get())));
    EXPECT_EQ("", take(url_char_escape("")));
    EXPECT_EQ(nullptr, url_char_escape(nullptr));
}

TEST(Url, SplitsAtTheFirstSeparator) {
    const struct {
        const char *text, *parts;
        bool found;
    } rows[] = {{"a=b=c", "a|b=c", true}, {"abc", "abc|(none)", false}, {"=b", "(none)|b", true},
                {"a=", "a|(none)", true}, {"=", "(none)|(none)", true}, {"", "|(none)", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        heap_text text = exact_bytes(row.text);
        const char* out[4] = {};
        bool found = !row.found;
        ASSERT_TRUE(split_at_char(text.get(), text.get() + std::strlen(row.text), '=', &out[0],
                                  &out[1], &out[2], &out[3], &found));
        EXPECT_EQ(row.found, found);
        EXPECT_EQ(row.parts, (out[0] != nullptr ? std::string(out[0], out[1]) : "(none)") + "|" +
                                 (out[2] != nullptr ? std::string(out[2], out[3]) : "(none)"));
    }
    const char* out[4] = {"", "", "", ""};
    EXPECT_FALSE(split_at_char(nullptr, "", '=', &out[0], &out[1], &out[2], &out[3], nullptr));
    EXPECT_EQ(4, std::count(out, out + 4, nullptr));
}

}  // namespace
