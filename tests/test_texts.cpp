// Text functions: what goes in and what comes out, from blocks of their exact size.
#include <gtest/gtest.h>

#include <cstdint>

#include "support/inside.h"
#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/netbasehttps_openssl.h"
#include "tavhttpclient/util.h"

namespace {

using in_out = std::string (*)(const std::string&);

// An input of two parts, separated by a bar.
std::pair<std::string, std::string> parts_of(const std::string& in) {
    std::size_t bar = in.find('|');
    return {in.substr(0, bar), bar == std::string::npos ? "" : in.substr(bar + 1)};
}

std::string split_url(const std::string& in) {
    url_info info;
    std::memset(&info, 0xA5, sizeof(info));
    heap_text url = exact_text(in);
    if (!parse_url_info(url.get(), &info)) {
        return "refused";
    }
    const char* marks[] = {"", " u=", " pw=", " h=", " port=", " p=", " q=", " f="};
    std::string text;
    for (int i = 0; i < 8; i++) {
        const text_view& view = (&info.scheme)[i];
        text += view.data != nullptr ? marks[i] + std::string(view.data, view.length) : "";
    }
    return text;
}

std::string analyze(const std::string& in) {
    char* texts[4] = {};
    std::uint16_t port = 7;
    if (!analyze_url(exact_text(in).get(), &texts[0], &texts[1], &port, &texts[2], &texts[3])) {
        return "refused";
    }
    std::string text = take(texts[0]) + " " + take(texts[1]) + " " + std::to_string(port);
    return text + " " + take(texts[2]) + " " + take(texts[3]);
}

std::string absolute(const std::string& in) {
    return is_absolute_url(exact_text(in).get()) ? "yes" : "no";
}

std::string resolve(const std::string& in) {
    auto [current, location] = parts_of(in);
    return take(resolve_relative_url(exact_text(current).get(), exact_text(location).get()));
}

std::string same_scheme(const std::string& in) {
    auto [current, location] = parts_of(in);
    return take(make_scheme_relative_url(exact_text(current).get(), exact_text(location).get()));
}

std::string escape(const std::string& in) {
    return take(url_char_escape(exact_text(in).get()));
}

std::string split_at(const std::string& in) {
    heap_text text = exact_bytes(in);
    const char* out[4] = {};
    bool found = false;
    split_at_char(text.get(), text.get() + in.size(), '=', &out[0], &out[1], &out[2], &out[3],
                  &found);
    return (out[0] != nullptr ? std::string(out[0], out[1]) : "-") + (found ? "|" : "") +
           (out[2] != nullptr ? std::string(out[2], out[3]) : "-");
}

std::string trim(const std::string& in) {
    return take(trim_string(exact_bytes(in).get(), static_cast<std::int32_t>(in.size())));
}

// The instant of a date; a change "a>b" of the usual one.
std::string date(const std::string& in) {
    std::string text = "Sun, 06 Nov 1994 08:49:37 GMT", part = in.substr(0, in.find('>'));
    text.replace(text.find(part), part.size(), in.substr(part.size() + 1));
    std::int64_t seconds = 5;
    bool ok = parse_http_date(exact_text(text).get(), -1, &seconds);
    return ok ? std::to_string(seconds) : "refused";
}

std::string gmt(const std::string& in) {
    return take(time_to_http_gmt_time(std::stoll(in)));
}

std::string base64(const std::string& in) {
    char* text = nullptr;
    std::uint32_t length = 0;
    base64_encode(exact_bytes(in).get(), static_cast<std::uint32_t>(in.size()), &text, &length);
    std::string out = take(text);
    EXPECT_EQ(out.size(), length);
    return out;
}

std::string content_range(const std::string& in) {
    std::int64_t a = 7, b = 7, c = 7;
    bool ok = parse_content_range(exact_text(in).get(), -1, &a, &b, &c);
    std::string text = std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c);
    EXPECT_TRUE(ok || text == "0 0 0");
    return ok ? text : "refused";
}

std::string connection(const std::string& in) {
    std::int32_t keep = 9, timeout = 9, max = 9;
    parse_connection_value(exact_text(in).get(), &keep, &timeout, &max);
    return std::to_string(keep) + " " + std::to_string(timeout) + " " + std::to_string(max);
}

std::string merge(const std::string& in) {
    auto [first, second] = parts_of(in);
    return take(merge_cookie_text(exact_text(first).get(), exact_text(second).get()));
}

#if TAV_HTTP_WITH_TLS
std::string cname(const std::string& in) {
    heap_text subject = exact_text(in);
    const char* name = find_common_name(subject.get());
    return name != nullptr ? name : "none";
}

std::string matches(const std::string& in) {
    auto [name, expected] = parts_of(in);
    return common_name_matches(exact_text(name).get(), exact_text(expected).get()) ? "yes" : "no";
}
#endif

const std::string dates_refused[] = {"Sun>sun",
                                     "Nov>nov",
                                     "Sun,>Sun",
                                     "1994>1899",
                                     "06>32",
                                     "06>-6",
                                     "08>24",
                                     "49>60",
                                     "37>60",
                                     "37>-1",
                                     ":37 GMT>",
                                     "06 Nov 1994>06-Nov-94",
                                     "Sun, 06>Sunday, 06",
                                     "Sun, 06>Sun Nov 6",
                                     "06>4294967302",
                                     "1994>99999999999999999999",
                                     "Sun>SunSunSunSunSun",
                                     "Nov>NovNovNovNov"};

const struct {
    in_out call;
    std::string in, out;
} rows[] = {
    {split_url, "  x://h/p", "x h=h p=/p"},
    {split_url, "\tx://h/p", "\tx h=h p=/p"},
    {split_url, "://h", " h=h"},
    {split_url, "x://u:p@h:8/a/b?c=d#e", "x u=u pw=p h=h port=8 p=/a/b q=c=d f=e"},
    {split_url, "x://u:@h", "x u=u h=h"},
    {split_url, "x://u:p:q@h", "x u=u pw=p:q h=h"},
    {split_url, "x://@h", "x h=h"},
    {split_url, "x://u:p@", "x h=u port=p"},
    {split_url, "x://u@v@h", "x u=u h=v@h"},
    {split_url, "x://h:/p", "x h=h p=/p"},
    {split_url, "x://u@[::1]:81/p", "x u=u h=::1 port=81 p=/p"},
    {split_url, "x://fe80::1/", "x h=fe80 port=:1"},
    {split_url, "x://h?b=1", "x h=h q=b=1"},
    {split_url, "x://h?#f", "x h=h f=f"},
    {split_url, "x://h?a/b", "x h=h?a p=/b"},
    {split_url, "x://h#f", "x h=h#f"},
    {split_url, "x://h/?#", "x h=h p=/"},
    {split_url, "x://h/a#f?q", "x h=h p=/a f=f?q"},
    {split_url, "x://h/a://b", "x h=h p=/a://b"},
    {split_url, "", "refused"},
    {split_url, "h/p", "refused"},
    {split_url, "x:/h", "refused"},
    {split_url, "x:///p", "refused"},
    {split_url, "x://@:80/", "refused"},
    {split_url, "x://::1/", "refused"},
    {split_url, "x://[]/", "refused"},
    {split_url, "x://[::1", "refused"},
    {split_url, "x://[::1]x/", "refused"},
    {split_url, "x://[::1]:/", "refused"},
    {analyze, "https://h", "https h 443 / /"},
    {analyze, "HTTPS://H/P", "HTTPS H 443 /P /P"},
    {analyze, "http://h:8080/a?b=1#c", "http h 8080 /a /a?b=1"},
    {analyze, "https://h:0/", "https h 443 / /"},
    {analyze, "http://h:x/", "http h 80 / /"},
    {analyze, "http://h:70000/", "http h 4464 / /"},
    {analyze, "http://h?b=1", "http h 80 / /"},
    {analyze, "http://h/%s%n?%d", "http h 80 /%s%n /%s%n?%d"},
    {analyze, "http://[::1]:81/p", "http ::1 81 /p /p"},
    {analyze, "h/p", "refused"},
    {absolute, "http://h", "yes"},
    {absolute, " a://b", "yes"},
    {absolute, "abcdefghijklmno://h", "yes"},
    {absolute, "abcdefghijklmnop://h", "no"},
    {absolute, "http://", "no"},
    {absolute, "://h", "no"},
    {absolute, "a?b://h", "no"},
    {absolute, "a&b://h", "no"},
    {resolve, "x://h/a/b/c?o|?q=1", "x://h/a/b/c?q=1"},
    {resolve, "x://h?a/b|/r", "x://h/r"},
    {resolve, "x://h/a?b/c|r", "x://h/r"},
    {resolve, "x://h/a|../../x", "x://h/x"},
    {resolve, "x://h|../x", "x://h/x"},
    {resolve, "x://h/a/b/c|./../x", "x://h/a/x"},
    {resolve, "x://h/a/b/c|.././x", "x://h/a/./x"},
    {resolve, "x://h/a/b/c|..", "x://h/a/b/.."},
    {resolve, "x://h/a/b|", "x://h/a/"},
    {resolve, "x://h/a/b/c|../", "x://h/a/"},
    {resolve, "x://h/a#f|x", "x://h/x"},
    {resolve, "|x", "/x"},
    {same_scheme, "https://a/x//y|//b/p", "https://b/p"},
    {same_scheme, "//a|//b", "//b"},
    {same_scheme, "x:/a|//b", "(null)"},
    {escape, "-._~0123456789ABCXYZabcxyz", "-._~0123456789ABCXYZabcxyz"},
    {escape, "\x01 !\"+,/:@[`{\x7F\x80\xFF", "%01%20%21%22%2B%2C%2F%3A%40%5B%60%7B%7F%80%FF"},
    {split_at, "a=b=c", "a|b=c"},
    {split_at, "abc", "abc-"},
    {split_at, "=b", "-|b"},
    {split_at, "a=", "a|-"},
    {trim, " \t a b\t ", "a b"},
    {trim, " \t ", ""},
    {trim, "\r\nab\n", "\r\nab\n"},
    {date, ">", "784111777"},
    {date, "GMT>PST", "784111777"},
    {date, "Sun>Mon", "784111777"},
    {date, "Sun, 0>Sun,", "784111777"},
    {date, "06 Nov 1994>06-Nov-1994", "784111777"},
    {date, "Sun, 06 Nov>Fri, 15 Jul", "774262177"},
    {date, "Sun, 06 Nov 1994 08:49:37>Thu, 01 Jan 1970 00:00:01", "1"},
    {gmt, "0", "Thu, 01 Jan 1970 00:00:00 GMT"},
    {gmt, "951827696", "Tue, 29 Feb 2000 12:34:56 GMT"},
    {gmt, "-1", "(null)"},
    {gmt, "9223372036854775807", "(null)"},
    {base64, "", ""},
    {base64, "a", "YQ=="},
    {base64, "a:", "YTo="},
    {base64, "\xFF\xFE\xFD", "//79"},
    {base64, "\xFB\xF0", "+/A="},
    {content_range, "bytes 0-99/1000", "0 99 1000"},
    {content_range, "5-9/10", "5 9 10"},
    {content_range, "bytes 0-99/*", "0 99 0"},
    {content_range, "bytes 4294967296-8589934591/17179869184", "4294967296 8589934591 17179869184"},
    {content_range, "bytes 99999999999999999999-1/2", "9223372036854775807 1 2"},
    {content_range, "bytes 0-/9", "0 0 9"},
    {content_range, "bytes */1000", "refused"},
    {content_range, "bytes 0-99", "refused"},
    {content_range, "bytes 0/9-1", "refused"},
    {connection, "keep-alive, timeout=15, max=100", "1 15 100"},
    {connection, "KEEP-ALIVE; TIMEOUT = 5; MAX= 7", "1 5 7"},
    {connection, "keep-alive, timeout, max=4", "1 4 4"},
    {connection, "keep-alive, timeout=99999999999, max=-99999999999", "1 2147483647 -2147483648"},
    {connection, "close, timeout=15", "0 0 0"},
    {merge, "a=1; b=2|b=3;c=4;", "a=1; b=2; c=4"},
    {merge, "a=1; a=2|", "a=1"},
    {merge, "a=1|A=2;", "a=1; A=2"},
    {merge, " a = 1 ;; =x; flag ;|b=;", "a=1; b="},
    {merge, "flag|=", ""},
#if TAV_HTTP_WITH_TLS
    {cname, "O=Test\nCN=Mixed.ZEBRA.TEST", "mixed.zebra.test"},
    {cname, "O=Test\nCN=first\nCN=second", "first"},
    {cname, "CN=first\nCN=second", "second"},
    {cname, "CN=only", "none"},
    {cname, "O=cn=inside\nOU=x", "none"},
    {cname, "O=Test\nXCN=host", "none"},
    {cname, "O=Test\nCN", "none"},
    {matches, "zebra.test|ZEBRA.Test", "yes"},
    {matches, "host.test|a.host.test", "no"},
    {matches, "host.test|host.tes", "no"},
    {matches, "*.host.test|a.b.host.test", "yes"},
    {matches, "*.host.test|.host.test", "yes"},
    {matches, "*.host.test|ahost.test", "no"},
    {matches, "*.host.test|ost.test", "no"},
    {matches, "*|*", "no"},
    {matches, "**.host.test|a.host.test", "no"},
    {matches, "a.*.test|a.*.test", "yes"},
#endif
};

TEST(Texts, ComeOutAsTheTableSays) {
    for (const auto& row : rows) {
        EXPECT_EQ(row.out, row.call(row.in)) << row.in;
    }
    for (const std::string& change : dates_refused) {
        EXPECT_EQ("refused", date(change)) << change;
    }
}

TEST(Texts, CountsLimitWhatIsRead) {
    std::int64_t seconds = 0;
    const std::string text = "Sun, 06 Nov 1994 08:49:37";
    EXPECT_TRUE(parse_http_date(exact_bytes(text).get(), 25, &seconds));
    EXPECT_EQ(784111777, seconds);
    EXPECT_TRUE(parse_http_date(text.c_str(), 24, &seconds));
    EXPECT_EQ(784111743, seconds) << "without its last digit the second is still a number";
    EXPECT_FALSE(parse_http_date(text.c_str(), 23, &seconds));
    EXPECT_FALSE(parse_content_range("bytes 0-99/1000", 11, nullptr, nullptr, nullptr));
    EXPECT_EQ("ab", take(string_dup_n(exact_text("abcd").get(), 2)));
    EXPECT_EQ("abcd", take(string_dup_n(exact_text("abcd").get(), INT32_MAX)));
    EXPECT_EQ("abcd", take(string_dup_n(exact_bytes("abcd").get(), 4)));
    for (std::int32_t size : {1, 5, 6, 9}) {
        heap_text array = exact_bytes(std::string(static_cast<std::size_t>(size), '#'));
        EXPECT_EQ(5, string_printf_bounded(array.get(), size, "%s", "abcde"));
        EXPECT_EQ(std::string("abcde").substr(0, static_cast<std::size_t>(size) - 1), array.get());
    }
    heap_text array = exact_bytes(std::string(21, '#'));
    EXPECT_STREQ("-9223372036854775808", int64_to_text(INT64_MIN, array.get()));
    EXPECT_STREQ("18446744073709551615", uint64_to_text(UINT64_MAX, array.get()));
    char* field = nullptr;
    string_replace(&field, "some value");
    string_replace(&field, field + 5);
    EXPECT_STREQ("value", field) << "replaced by a part of itself";
    string_replace(&field, nullptr);
}

// ----------------------------------------------------------------------------------- the buffer

struct buffer : text_buffer, not_copied {
    explicit buffer(std::uint32_t size) : text_buffer() {
        EXPECT_TRUE(text_buffer_init(this, size));
    }
    ~buffer() {
        text_buffer_release(this);
    }
    std::string text() const {
        return length != 0 ? std::string(data, static_cast<std::size_t>(length)) : "";
    }
};

TEST(TextBuffer, GrowsAtItsEdge) {
    for (std::uint32_t capacity : {0u, 19u, 20u, 21u}) {
        SCOPED_TRACE(capacity);
        std::string bytes(10, 'a');
        buffer appended(capacity), formatted(capacity);
        ASSERT_TRUE(text_buffer_append(&appended, exact_bytes(bytes).get(), 10) &&
                    text_buffer_append(&appended, exact_bytes(bytes).get(), 10));
        EXPECT_EQ(bytes + bytes, appended.text());
        char* storage = appended.data;
        EXPECT_TRUE(text_buffer_append(&appended, nullptr, 5));
        EXPECT_TRUE(text_buffer_assign(&appended, nullptr, 7));
        EXPECT_EQ(0, appended.length);
        EXPECT_EQ(storage, appended.data);
        // Twenty bytes; all arguments are read again when the text is formatted again.
        ASSERT_TRUE(text_buffer_append_format(&formatted, "%sxxxxxxxx%d", bytes.c_str(), 42));
        EXPECT_EQ(bytes + "xxxxxxxx42", formatted.data);
    }
    for (std::size_t length : {0u, 511u, 512u, 5000u}) {
        std::string text(length, 'z');
        EXPECT_EQ(text + "!", take(string_format("%s!", text.c_str())));
    }
}

TEST(TextBuffer, RefusalsLeaveTheContents) {
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    buffer one(16);
    ASSERT_TRUE(text_buffer_append(&one, "0123456789", 10));
    EXPECT_FALSE(text_buffer_append_format(&one, "partial %ls", unencodable));
    EXPECT_FALSE(text_buffer_append(&one, "x", UINT32_MAX));
    EXPECT_FALSE(text_buffer_append(&one, "x", 0x7FFFFFFF));
    EXPECT_FALSE(text_buffer_assign(&one, "x", 0x80000000u));
    EXPECT_FALSE(text_buffer_set_length(&one, -1));
    EXPECT_EQ("0123456789", one.text());
    EXPECT_EQ(16, one.capacity);
    EXPECT_TRUE(text_buffer_set_length(&one, 33));
    EXPECT_EQ("0123456789", one.text().substr(0, 10));
}

TEST(Log, LinesOfEveryLengthArriveWhole) {
    log_capture log;
    for (std::size_t length : {0, 506, 507, 508, 100000}) {
        std::string text(length, 'x');
        // Used twice when the line is long, so no argument may be used up.
        LOG_INFO("%s%d%.*s", text.c_str(), 42, 3, "abcdef");
        EXPECT_EQ(text + "42abc", log.lines().back().text) << length;
    }
    EXPECT_EQ("tavhttp", log.lines().back().tag);
    EXPECT_EQ(2000, log.lines().back().level);
}

// ---------------------------------------------------------------------------------- the cookies

std::string stored_for(const std::string& url) {
    char* text = nullptr;
    get_cookie(url.c_str(), &text);
    return text != nullptr ? take(text) : "";
}

// The first cookie comes from `from`, the others from http://h/; all are then asked for.
const struct {
    const char* from;
    std::vector<const char*> stored;
    const char *request, *sent;
} cookie_rows[] = {
    {"http://h/", {"S=1; Path=/; Domain=.b.c"}, "http://a.b.c/x", "S=1;"},
    {"http://h/", {"S=1; Path=/; Domain=b.c"}, "http://ab.c/", ""},
    {"http://h/", {"a=1; Path=/; Domain=x.b.c"}, "http://b.c/", ""},
    {"http://h/", {"a=1; PATH=/; DOMAIN=B.c"}, "http://b.C/", "a=1;"},
    {"http://h/dir?q=1", {"a=1"}, "http://h/dir", "a=1;"},
    {"http://h", {"a=1"}, "http://h/any/where", "a=1;"},
    {"http://h/", {"a=1; Path=/A"}, "http://h/a", ""},
    {"http://h/a/b", {"x=1; Path=y"}, "http://h/a/by", "x=1;"},
    {"http://h/a/b", {"x=1; Path=y"}, "http://h/a/b", ""},
    {"http://h/a", {"x=1; Path="}, "http://h/a/b", "x=1;"},
    {"http://h/", {"a=; Path=/"}, "http://h/", "a=;"},
    {"http://h/", {"a=1; path=/", "a=; path=/"}, "http://h/", ""},
    {"http://h/", {"a=1", "A=2", "a=3"}, "http://h/", "a=3;A=2;"},
    {"http://h/", {"a=1; Path=/", "a=2; Path=/x"}, "http://h/x", "a=1;a=2;"},
    {"http://h/",
     {"a=1; Path=/; Domain=c", "b=2; Path=/; Domain=.b.c", "d=3; Path=/; Domain=a.b.c"},
     "http://a.b.c/",
     "d=3;b=2;a=1;"},
    {"http://h/", {"x=1; Secure; HttpOnly; Max-Age=60"}, "http://h/", "x=1;Max-Age=60;"},
    {"http://h/", {"Path=/; x=1"}, "http://h/z", "x=1;"},
    {"http://h/", {";; \tx = 1\t ;;;"}, "http://h/", "x=1;"},
    {"http://h/", {"x=a=b=="}, "http://h/", "x=a=b==;"},
    {"http://h/", {"=1; y=2"}, "http://h/", "y=2;"},
    {"http://h/", {"a=1; expires=Sun, 06-Nov-1994 08:49:37 GMT"}, "http://h/", ""},
    {"http://h/", {"a=1; expires=Fri, 01 Jan 2100 00:00:00 GMT"}, "http://h/", "a=1;"},
    {"http://h/", {"a=1; expires=tomorrow"}, "http://h/", "a=1;"},
    {"http://h/", {"a=1; expires=Sun, 06 Nov 1994 08:49:37 GMT", "a=2"}, "http://h/", ""},
    {"http://h/", {"a=1; Path=/; Domain=o"}, "http://o/", "a=1;"},
    {"http://u:p@h:8080/", {"a=1"}, "https://h/", "a=1;"},
    {"nothing", {"a=1"}, "http://nothing/", ""},
    {"nothing", {"a=1; Path=/; Domain=h"}, "http://h/", "a=1;"},
};

TEST(CookieStore, SendsWhatWasStored) {
    for (const auto& row : cookie_rows) {
        SCOPED_TRACE(std::string(row.stored[0]) + " for " + row.request);
        ASSERT_TRUE(init_cookie_store());
        const char* from = row.from;
        for (const char* value : row.stored) {
            EXPECT_TRUE(set_cookie_by_http_header(from, value));
            ASSERT_TRUE(init_cookie_store()) << "keeps the store that exists";
            from = "http://h/";
        }
        EXPECT_EQ(stored_for(row.request), row.sent);
        uninit_cookie_store();
        EXPECT_EQ(stored_for(row.request), "") << "ended with its cookies";
    }
    const std::string a = "a=" + std::string(5000, 'x'), b = "b=" + std::string(5000, 'x');
    EXPECT_EQ(a + "; " + b, take(merge_cookie_text(a.c_str(), b.c_str())));
}

TEST(CookieStore, ServesManyThreads) {
    ASSERT_TRUE(init_cookie_store());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([i] {
            for (int round = 0; round < 300; round++) {
                std::string number = std::to_string(round * 7919 % 300), url = "http://h" + number;
                std::string own = "n" + std::to_string(i) + "=" + number;
                set_cookie_by_http_header(url.c_str(), (own + "; Path=/").c_str());
                EXPECT_NE(stored_for(url + "/").find(own + ";"), std::string::npos) << own;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(4 * std::string("n0=299;").size(), stored_for("http://h299/").size());
    uninit_cookie_store();
}

TEST(CookieStore, TheOldestGiveWay) {
    ASSERT_TRUE(init_cookie_store());
    auto set = [](int domain, int number) {
        std::string value =
            "n" + std::to_string(number) + "=v; Path=/; Domain=h" + std::to_string(domain);
        set_cookie_by_http_header("http://h/", value.c_str());
    };
    for (int number = 0; number < 1003; number++) {
        set(0, number);
    }
    std::string sent = stored_for("http://h0/");
    EXPECT_EQ(1000, std::count(sent.begin(), sent.end(), ';'));
    EXPECT_EQ(0u, sent.find("n3=v;n4=v;"));
    for (int number = 0; number < 9000; number++) {
        set(1 + number / 1000, number % 1000);
    }
    EXPECT_EQ(sent, stored_for("http://h0/")) << "ten thousand";
    for (int number = 0; number < 999; number++) {
        set(10, number);
    }
    EXPECT_EQ("n1002=v;", stored_for("http://h0/"));
    set(10, 999);
    EXPECT_EQ("", stored_for("http://h0/"));
    EXPECT_EQ(0u, stored_for("http://h1/").find("n0=v;"));
    uninit_cookie_store();
}

}  // namespace
