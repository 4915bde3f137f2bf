// Text functions: what goes in and what comes out, from blocks of their exact size.
#include <gtest/gtest.h>

#include <cstdint>

#include "support/inside.h"
#include "tavhttpclient/contentdecompress.h"
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

std::string stored_for(const std::string& url) {
    char* text = nullptr;
    get_cookie(url.c_str(), &text);
    return text != nullptr ? take(text) : "";
}

// What a request gets: where the first cookie comes from, the cookies (the others come from h/),
// the request. "http://" is added to what does not begin with a mark.
std::string cookies(const std::string& in) {
    auto url = [](const std::string& text) {
        return text[0] == '!' ? text.substr(1) : "http://" + text;
    };
    auto [from, rest] = parts_of(in);
    EXPECT_TRUE(init_cookie_store());
    while (rest.find('|') != std::string::npos) {
        auto [value, next] = parts_of(rest);
        EXPECT_TRUE(set_cookie_by_http_header(url(from).c_str(), exact_text(value).get()));
        EXPECT_TRUE(init_cookie_store()) << "keeps the store that exists";
        from = "h/";
        rest = next;
    }
    std::string sent = stored_for(url(rest));
    uninit_cookie_store();
    EXPECT_EQ("", stored_for(url(rest))) << "ended with its cookies";
    return sent;
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

using text_rows = std::vector<std::pair<std::string, std::string>>;  // what goes in, what comes out

const struct {
    in_out call;
    text_rows rows;
} tables[] = {
    // clang-format off
    {split_url, {{"  x://h/p", "x h=h p=/p"}, {"\tx://h/p", "\tx h=h p=/p"}, {"://h", " h=h"},
     {"x://u:p@h:8/a/b?c=d#e", "x u=u pw=p h=h port=8 p=/a/b q=c=d f=e"}, {"x://u:@h", "x u=u h=h"},
     {"x://u:p:q@h", "x u=u pw=p:q h=h"}, {"x://@h", "x h=h"}, {"x://u:p@", "x h=u port=p"},
     {"x://u@v@h", "x u=u h=v@h"}, {"x://h:/p", "x h=h p=/p"},
     {"x://u@[::1]:81/p", "x u=u h=::1 port=81 p=/p"}, {"x://fe80::1/", "x h=fe80 port=:1"},
     {"x://h?b=1", "x h=h q=b=1"}, {"x://h?#f", "x h=h f=f"}, {"x://h?a/b", "x h=h?a p=/b"},
     {"x://h#f", "x h=h#f"}, {"x://h/?#", "x h=h p=/"}, {"x://h/a#f?q", "x h=h p=/a f=f?q"},
     {"x://h/a://b", "x h=h p=/a://b"}, {"", "refused"}, {"h/p", "refused"}, {"x:/h", "refused"},
     {"x:///p", "refused"}, {"x://@:80/", "refused"}, {"x://::1/", "refused"},
     {"x://[]/", "refused"}, {"x://[::1", "refused"}, {"x://[::1]x/", "refused"},
     {"x://[::1]:/", "refused"}, {"x://[ab", "refused"}}},
    {analyze, {{"https://h", "https h 443 / /"}, {"HTTPS://H/P", "HTTPS H 443 /P /P"},
     {"http://h:8080/a?b=1#c", "http h 8080 /a /a?b=1"}, {"https://h:0/", "https h 443 / /"},
     {"http://h:x/", "http h 80 / /"}, {"http://h:70000/", "http h 4464 / /"},
     {"http://h?b=1", "http h 80 / /"}, {"http://h/%s%n?%d", "http h 80 /%s%n /%s%n?%d"},
     {"http://[::1]:81/p", "http ::1 81 /p /p"}, {"h/p", "refused"}}},
    {absolute, {{"http://h", "yes"}, {" a://b", "yes"}, {"abcdefghijklmno://h", "yes"},
     {"abcdefghijklmnop://h", "no"}, {"http://", "no"}, {"://h", "no"}, {"a?b://h", "no"},
     {"a&b://h", "no"}}},
    {resolve, {{"x://h/a/b/c?o|?q=1", "x://h/a/b/c?q=1"}, {"x://h?a/b|/r", "x://h/r"},
     {"x://h/a?b/c|r", "x://h/r"}, {"x://h/a|../../x", "x://h/x"}, {"x://h|../x", "x://h/x"},
     {"x://h/a/b/c|./../x", "x://h/a/x"}, {"x://h/a/b/c|.././x", "x://h/a/./x"},
     {"x://h/a/b/c|..", "x://h/a/b/.."}, {"x://h/a/b|", "x://h/a/"},
     {"x://h/a/b/c|../", "x://h/a/"}, {"x://h/a#f|x", "x://h/x"}, {"|x", "/x"}}},
    {same_scheme, {{"https://a/x//y|//b/p", "https://b/p"}, {"//a|//b", "//b"},
     {"x:/a|//b", "(null)"}}},
    {escape, {{"-._~0123456789ABCXYZabcxyz", "-._~0123456789ABCXYZabcxyz"},
     {"\x01 !\"+,/:@[`{\x7F\x80\xFF", "%01%20%21%22%2B%2C%2F%3A%40%5B%60%7B%7F%80%FF"}}},
    {split_at, {{"a=b=c", "a|b=c"}, {"abc", "abc-"}, {"=b", "-|b"}, {"a=", "a|-"}, {"=", "-|-"},
     {"", "-"}}},
    {trim, {{" \t a b\t ", "a b"}, {" \t ", ""}, {"\r\nab\n", "\r\nab\n"}, {"", ""}}},
    {date, {{">", "784111777"}, {"GMT>PST", "784111777"}, {"Sun>Mon", "784111777"},
     {"Sun, 0>Sun,", "784111777"}, {"06 Nov 1994>06-Nov-1994", "784111777"},
     {"Sun, 06 Nov>Fri, 15 Jul", "774262177"},
     {"Sun, 06 Nov 1994 08:49:37>Thu, 01 Jan 1970 00:00:01", "1"}}},
    {gmt, {{"0", "Thu, 01 Jan 1970 00:00:00 GMT"}, {"951827696", "Tue, 29 Feb 2000 12:34:56 GMT"},
     {"-1", "(null)"}, {"9223372036854775807", "(null)"}}},
    {base64, {{"", ""}, {"a", "YQ=="}, {"a:", "YTo="}, {"\xFF\xFE\xFD", "//79"},
     {"\xFB\xF0", "+/A="}}},
    {content_range, {{"bytes 0-99/1000", "0 99 1000"}, {"5-9/10", "5 9 10"},
     {"bytes 0-99/*", "0 99 0"},
     {"bytes 4294967296-8589934591/17179869184", "4294967296 8589934591 17179869184"},
     {"bytes 99999999999999999999-1/2", "9223372036854775807 1 2"}, {"bytes 0-/9", "0 0 9"},
     {"bytes */1000", "refused"}, {"bytes 0-99", "refused"}, {"bytes 0/9-1", "refused"},
     {"", "refused"}, {"bytes 5-9/10 trailing", "5 9 10"}}},
    {connection, {{"keep-alive, timeout=15, max=100", "1 15 100"},
     {"KEEP-ALIVE; TIMEOUT = 5; MAX= 7", "1 5 7"}, {"keep-alive, timeout, max=4", "1 4 4"},
     {"keep-alive, timeout=99999999999, max=-99999999999", "1 2147483647 -2147483648"},
     {"close, timeout=15", "0 0 0"}, {"keep-alive, timeout=", "1 0 0"}}},
    {merge, {{"a=1; b=2|b=3;c=4;", "a=1; b=2; c=4"}, {"a=1; a=2|", "a=1"}, {"a=1|A=2;", "a=1; A=2"},
     {" a = 1 ;; =x; flag ;|b=;", "a=1; b="}, {"flag|=", ""}}},
    {cookies, {{"h/|S=1; Path=/; Domain=.b.c|a.b.c/x", "S=1;"},
     {"h/|S=1; Path=/; Domain=b.c|ab.c/", ""}, {"h/|a=1; Path=/; Domain=x.b.c|b.c/", ""},
     {"h/|a=1; PATH=/; DOMAIN=B.c|b.C/", "a=1;"}, {"h/dir?q=1|a=1|h/dir", "a=1;"},
     {"h|a=1|h/any/where", "a=1;"}, {"h/|a=1; Path=/A|h/a", ""},
     {"h/a/b|x=1; Path=y|h/a/by", "x=1;"}, {"h/a/b|x=1; Path=y|h/a/b", ""},
     {"h/a|x=1; Path=|h/a/b", "x=1;"}, {"h/|a=; Path=/|h/", "a=;"},
     {"h/|a=1; path=/|a=; path=/|h/", ""}, {"h/|a=1|A=2|a=3|h/", "a=3;A=2;"},
     {"h/|a=1; Path=/|a=2; Path=/x|h/x", "a=1;a=2;"},
     {"h/|a=1; Path=/; Domain=c|b=2; Path=/; Domain=.b.c|d=3; Path=/; Domain=a.b.c|a.b.c/",
      "d=3;b=2;a=1;"},
     {"h/|x=1; Secure; HttpOnly; Max-Age=60|h/", "x=1;Max-Age=60;"}, {"h/|Path=/; x=1|h/z", "x=1;"},
     {"h/|;; \tx = 1\t ;;;|h/", "x=1;"}, {"h/|x=a=b==|h/", "x=a=b==;"}, {"h/|=1; y=2|h/", "y=2;"},
     {"h/|a=1; expires=Sun, 06-Nov-1994 08:49:37 GMT|h/", ""},
     {"h/|a=1; expires=Fri, 01 Jan 2100 00:00:00 GMT|h/", "a=1;"},
     {"h/|a=1; expires=tomorrow|h/", "a=1;"},
     {"h/|a=1; expires=Sun, 06 Nov 1994 08:49:37 GMT|a=2|h/", ""},
     {"h/|a=1; Path=/; Domain=o|o/", "a=1;"}, {"u:p@h:8080/|a=1|!https://h/", "a=1;"},
     {"!nothing|a=1|nothing/", ""}, {"!nothing|a=1; Path=/; Domain=h|h/", "a=1;"}}},
#if TAV_HTTP_WITH_TLS
    {cname, {{"O=Test\nCN=Mixed.ZEBRA.TEST", "mixed.zebra.test"},
     {"O=Test\nCN=first\nCN=second", "first"}, {"CN=first\nCN=second", "second"},
     {"CN=only", "none"}, {"O=cn=inside\nOU=x", "none"}, {"O=Test\nXCN=host", "none"},
     {"O=Test\nCN", "none"}, {"O=Test\nCN=\nOU=x", ""}}},
    {matches, {{"zebra.test|ZEBRA.Test", "yes"}, {"host.test|a.host.test", "no"},
     {"host.test|host.tes", "no"}, {"*.host.test|a.b.host.test", "yes"},
     {"*.host.test|.host.test", "yes"}, {"*.host.test|ahost.test", "no"},
     {"*.host.test|ost.test", "no"}, {"*|*", "no"}, {"**.host.test|a.host.test", "no"},
     {"a.*.test|a.*.test", "yes"}}},
#endif
    // clang-format on
};

// clang-format off
const char* const dates_refused[] = {
    "Sun>sun", "Nov>nov", "Sun,>Sun", "1994>1899", "06>32", "06>-6", "08>24", "49>60", "37>60",
    "37>-1", ":37 GMT>", "06 Nov 1994>06-Nov-94", "Sun, 06>Sunday, 06", "Sun, 06>Sun Nov 6",
    "06>4294967302", "1994>99999999999999999999", "Sun>SunSunSunSunSun", "Nov>NovNovNovNov"
};
// clang-format on

TEST(Texts, ComeOutAsTheTableSays) {
    for (const auto& table : tables) {
        for (const auto& [in, out] : table.rows) {
            EXPECT_EQ(out, table.call(in)) << in;
        }
    }
    for (const char* change : dates_refused) {
        EXPECT_EQ("refused", date(change)) << change;
    }
}

TEST(Texts, CountsLimitWhatIsRead) {
    char address[64] = "old";
    sockaddr_to_text(nullptr, address);
    EXPECT_STREQ("", address);
    release_content_decoder(nullptr);
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
    text_buffer_release(&one);  // as at its end: it is an empty one then
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

TEST(CookieStore, ServesManyThreads) {
    const std::string a = "a=" + std::string(5000, 'x'), b = "b=" + std::string(5000, 'x');
    EXPECT_EQ(a + "; " + b, take(merge_cookie_text(a.c_str(), b.c_str())));
    EXPECT_EQ("a=1; b=2;", take(merge_cookie_text(nullptr, "a=1; b=2;")));
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
    set(0, 7);
    EXPECT_EQ("n7=v;", stored_for("http://h0/"));
    EXPECT_EQ(0u, stored_for("http://h1/").find("n1=v;"));
    uninit_cookie_store();
}

}  // namespace
