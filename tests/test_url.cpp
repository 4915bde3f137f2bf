// Splitting URLs, resolving locations, escaping. All inputs come from blocks of their exact size.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tavhttpclient/util.h"
#include "tests/support/exact_buffer.h"

namespace {

// The pieces that are there, in order; an absent piece is left out, an empty one is "name=".
std::string describe(const url_info& info) {
    const struct {
        const char* name;
        const text_view* view;
    } pieces[] = {{"scheme", &info.scheme},     {"user", &info.user},
                  {"password", &info.password}, {"host", &info.host},
                  {"port", &info.port},         {"path", &info.path},
                  {"query", &info.query},       {"fragment", &info.fragment}};
    std::string text;
    for (const auto& piece : pieces) {
        if (piece.view->data != nullptr) {
            text += std::string(text.empty() ? "" : " ") + piece.name + "=" +
                    std::string(piece.view->data, piece.view->length);
        } else {
            EXPECT_EQ(0u, piece.view->length) << piece.name;
        }
    }
    return text;
}

TEST(Url, SplitsIntoPieces) {
    const struct {
        const char* url;
        const char* pieces;
    } rows[] = {
        {"x://h", "scheme=x host=h"},
        {"x://h/", "scheme=x host=h"},
        {"x://h/p", "scheme=x host=h path=/p"},
        {"  x://h/p", "scheme=x host=h path=/p"},
        {"\tx://h/p", "scheme=\tx host=h path=/p"},
        {"://h", "scheme= host=h"},
        {"x://u:p@h:8/a/b?c=d#e",
         "scheme=x user=u password=p host=h port=8 path=/a/b query=c=d fragment=e"},
        {"x://u@h", "scheme=x user=u host=h"},
        {"x://u:@h", "scheme=x user=u host=h"},
        {"x://u:p:q@h", "scheme=x user=u password=p:q host=h"},
        {"x://@h", "scheme=x host=h"},
        {"x://u@", "scheme=x host=u"},
        {"x://u:p@", "scheme=x host=u port=p"},
        {"x://u@v@h", "scheme=x user=u host=v@h"},
        {"x://h:/p", "scheme=x host=h path=/p"},
        {"x://[::1]:81/p", "scheme=x host=::1 port=81 path=/p"},
        {"x://[::1]", "scheme=x host=::1"},
        {"x://u@[::1]:9", "scheme=x user=u host=::1 port=9"},
        {"x://::1/", nullptr},
        {"x://fe80::1/", "scheme=x host=fe80 port=:1"},
        {"x://h?b=1", "scheme=x host=h query=b=1"},
        {"x://h?", "scheme=x host=h"},
        {"x://h?#f", "scheme=x host=h fragment=f"},
        {"x://h?a/b", "scheme=x host=h?a path=/b"},
        {"x://h#f", "scheme=x host=h#f"},
        {"x://h/#f", "scheme=x host=h path=/ fragment=f"},
        {"x://h/?#", "scheme=x host=h path=/"},
        {"x://h/a#f?q", "scheme=x host=h path=/a fragment=f?q"},
        {"x://h/a://b", "scheme=x host=h path=/a://b"},
        {"", nullptr},
        {"   ", nullptr},
        {"h/p", nullptr},
        {"x:/h", nullptr},
        {"x://", nullptr},
        {"x:///p", nullptr},
        {"x://?q", nullptr},
        {"x://:80/", nullptr},
        {"x://@/", nullptr},
        {"x://@:80/", nullptr},
        {"x://:p@h/", nullptr},
        {"x://[]/", nullptr},
        {"x://[/", nullptr},
        {"x://[", nullptr},
        {"x://[::1", nullptr},
        {"x://[::1]x/", nullptr},
        {"x://[::1]:/", nullptr},
        {"x://[::1]x", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        heap_text url = exact_text(row.url);
        url_info info;
        std::memset(&info, 0xA5, sizeof(info));
        bool ok = parse_url_info(url.get(), &info);
        EXPECT_EQ(row.pieces != nullptr, ok);
        if (ok && row.pieces != nullptr) {
            EXPECT_EQ(row.pieces, describe(info));
        }
    }
    url_info info;
    EXPECT_FALSE(parse_url_info(nullptr, &info));
}

TEST(Url, ViewsOfEveryDamagedUrlStayInsideIt) {
    const std::string whole = "ab://u:p@[::1]:8/a/b?c=d#e";
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        for (char changed : std::string("/?#@:[] \xFF")) {
            std::string text = whole.substr(0, length);
            for (std::size_t at = 0; at < text.size(); ++at) {
                std::string damaged = text;
                damaged[at] = changed;
                heap_text url = exact_text(damaged);
                url_info info;
                parse_url_info(url.get(), &info);
                for (const text_view* view :
                     {&info.scheme, &info.user, &info.password, &info.host, &info.port, &info.path,
                      &info.query, &info.fragment}) {
                    if (view->data != nullptr) {
                        ASSERT_GE(view->data, url.get()) << damaged;
                        ASSERT_LE(view->data + view->length, url.get() + damaged.size()) << damaged;
                    }
                }
                analyze_url(url.get(), nullptr, nullptr, nullptr, nullptr, nullptr);
            }
        }
    }
}

TEST(Url, AnalysisFillsInTheDefaults) {
    const struct {
        const char* url;
        const char *scheme, *host;
        std::uint16_t port;
        const char *path, *target;
    } rows[] = {
        {"http://h", "http", "h", 80, "/", "/"},
        {"http://h/", "http", "h", 80, "/", "/"},
        {"https://h", "https", "h", 443, "/", "/"},
        {"HTTPS://H/P", "HTTPS", "H", 443, "/P", "/P"},
        {"abcde://h", "abcde", "h", 443, "/", "/"},
        {"ftp://h", "ftp", "h", 80, "/", "/"},
        {"http://h:8080/a", "http", "h", 8080, "/a", "/a"},
        {"http://h:/p", "http", "h", 80, "/p", "/p"},
        {"https://h:0/", "https", "h", 443, "/", "/"},
        {"http://h:x/", "http", "h", 80, "/", "/"},
        {"http://h:70000/", "http", "h", 4464, "/", "/"},
        {"http://h:81", "http", "h", 81, "/", "/"},
        {"http://h/a?b=1#c", "http", "h", 80, "/a", "/a?b=1"},
        {"http://h/?b", "http", "h", 80, "/", "/?b"},
        {"http://h?b=1", "http", "h", 80, "/", "/"},
        {"http://h/%s%n?%d", "http", "h", 80, "/%s%n", "/%s%n?%d"},
        {"http://[::1]:81/p", "http", "::1", 81, "/p", "/p"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        heap_text url = exact_text(row.url);
        char *scheme = nullptr, *host = nullptr, *path = nullptr, *target = nullptr;
        std::uint16_t port = 0;
        ASSERT_TRUE(analyze_url(url.get(), &scheme, &host, &port, &path, &target));
        EXPECT_EQ(row.scheme, take(scheme));
        EXPECT_EQ(row.host, take(host));
        EXPECT_EQ(row.port, port);
        EXPECT_EQ(row.path, take(path));
        EXPECT_EQ(row.target, take(target));
    }
}

TEST(Url, FailedAnalysisTouchesNoOutput) {
    char untouched = 0;
    for (const char* url : {"", "h/p", "://h/p", "x://:1/"}) {
        char *scheme = &untouched, *host = &untouched, *path = &untouched, *target = &untouched;
        std::uint16_t port = 7;
        EXPECT_FALSE(analyze_url(url, &scheme, &host, &port, &path, &target)) << url;
        EXPECT_TRUE(scheme == &untouched && host == &untouched && path == &untouched &&
                    target == &untouched && port == 7)
            << url;
    }
    std::uint16_t port = 0;
    EXPECT_TRUE(
        analyze_url("http://h:99999999999999999999/", nullptr, nullptr, &port, nullptr, nullptr));
}

TEST(Url, AbsoluteUrlsHaveAShortScheme) {
    const struct {
        const char* text;
        bool expected;
    } rows[] = {
        {"http://h", true},
        {"a://b", true},
        {" a://b", true},
        {"abcdefghijklmno://h", true},
        {"abcdefghijklmnop://h", false},
        {"http://", false},
        {"http:/", false},
        {"http:", false},
        {"http", false},
        {"://h", false},
        {"/p://h", false},
        {"//h", false},
        {"?a://h", false},
        {"a&b://h", false},
        {"a?b://h", false},
        {"", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, is_absolute_url(exact_text(row.text).get())) << row.text;
    }
    EXPECT_FALSE(is_absolute_url(nullptr));
}

TEST(Url, RelativeLocationsAreResolved) {
    const struct {
        const char *current, *location, *expected;
    } rows[] = {
        {"x://h/a/b/c", "../x", "x://h/a/x"},
        {"x://h/a/b/c", "x", "x://h/a/b/x"},
        {"x://h/a/b/c", "?q=1", "x://h/a/b/c?q=1"},
        {"x://h/a/b/c?o", "?q=1", "x://h/a/b/c?q=1"},
        {"x://h/a/b/c", "/r", "x://h/r"},
        {"x://h?a/b", "/r", "x://h/r"},
        {"x://h/a?b/c", "r", "x://h/r"},
        {"x://h/a/b", "../../x", "x://h/x"},
        {"x://h/a/b/c/d", "../../x", "x://h/a/x"},
        {"x://h/a", "../../x", "x://h/x"},
        {"x://h", "x", "x://h/x"},
        {"x://h", "../x", "x://h/x"},
        {"x://h", "?q", "x://h?q"},
        {"x://h", "/", "x://h/"},
        {"x://h/a/b", "./x", "x://h/a/x"},
        {"x://h/a/b/c", "./../x", "x://h/a/x"},
        {"x://h/a/b/c", ".././x", "x://h/a/./x"},
        {"x://h/a/b/c", "..", "x://h/a/b/.."},
        {"x://h/a/b", "", "x://h/a/"},
        {"x://h/a/b/c", "../", "x://h/a/"},
        {"x://h/a/b", "../", "x://h/"},
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
    EXPECT_EQ("x:" + std::string(3000, '/'),
              take(make_scheme_relative_url("x://a", std::string(3000, '/').c_str())));
    EXPECT_EQ(nullptr, make_scheme_relative_url("x:/a", "//b"));
    EXPECT_EQ(nullptr, make_scheme_relative_url(nullptr, "//b"));
    EXPECT_EQ(nullptr, make_scheme_relative_url("x://a", nullptr));
}

TEST(Url, EscapesAllButUnreservedBytes) {
    std::string all, expected;
    for (int byte = 1; byte < 256; ++byte) {
        char character = static_cast<char>(byte);
        all += character;
        if (byte < 128 && (std::isalnum(byte) || std::strchr("-._~", byte) != nullptr)) {
            expected += character;
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned>(byte));
            expected += escaped;
        }
    }
    EXPECT_EQ(expected, take(url_char_escape(exact_text(all).get())));
    EXPECT_EQ("%20%2F%E4~-._", take(url_char_escape(exact_text(" /\xE4~-._").get())));
    EXPECT_EQ("", take(url_char_escape("")));
    EXPECT_EQ(nullptr, url_char_escape(nullptr));
}

TEST(Url, SplitsAtTheFirstSeparator) {
    const struct {
        const char *text, *first, *second;
        bool found;
    } rows[] = {
        {"a=b=c", "a", "b=c", true}, {"abc", "abc", "(none)", false}, {"=b", "(none)", "b", true},
        {"a=", "a", "(none)", true}, {"=", "(none)", "(none)", true}, {"", "", "(none)", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::size_t size = std::strlen(row.text);
        heap_text text = exact_bytes(row.text);
        const char *first = nullptr, *first_end = nullptr, *second = nullptr, *second_end = nullptr;
        bool found = !row.found;
        ASSERT_TRUE(split_at_char(text.get(), text.get() + size, '=', &first, &first_end, &second,
                                  &second_end, &found));
        EXPECT_EQ(row.found, found);
        EXPECT_EQ(row.first, first != nullptr ? std::string(first, first_end) : "(none)");
        EXPECT_EQ(row.second, second != nullptr ? std::string(second, second_end) : "(none)");
    }
    const char* out[4] = {"", "", "", ""};
    EXPECT_FALSE(split_at_char(nullptr, "", '=', &out[0], &out[1], &out[2], &out[3], nullptr));
    EXPECT_TRUE(out[0] == nullptr && out[1] == nullptr && out[2] == nullptr && out[3] == nullptr);
}

}  // namespace
