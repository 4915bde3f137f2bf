// The cookie store: what one response stores and what later requests send.
#include "tavhttpclient/cookiemgr.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

class CookieStore : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(init_cookie_store());
    }
    void TearDown() override {
        uninit_cookie_store();
    }
};

std::string stored_for(const std::string& url) {
    char* text = nullptr;
    bool found = get_cookie(url.c_str(), &text);
    EXPECT_EQ(found, text != nullptr);
    std::string result = text != nullptr ? text : "";
    free(text);
    return result;
}

// The first cookie comes from `from`, the others from http://h/; all are then asked for.
const struct {
    const char* name;
    const char* from;
    std::vector<const char*> stored;
    const char *request, *sent;
} store_rows[] = {
    {"hosts below", "http://h/", {"S=1; Path=/; Domain=.b.c"}, "http://a.b.c/x", "S=1;"},
    {"suffix of whole labels", "http://h/", {"S=1; Path=/; Domain=b.c"}, "http://ab.c/", ""},
    {"a parent host", "http://h/", {"a=1; Path=/; Domain=x.b.c"}, "http://b.c/", ""},
    {"letter case of the domain", "http://h/", {"a=1; PATH=/; DOMAIN=B.c"}, "http://b.C/", "a=1;"},
    {"no query in the path", "http://h/dir?q=1", {"a=1"}, "http://h/dir", "a=1;"},
    {"no path is the root", "http://h", {"a=1"}, "http://h/any/where", "a=1;"},
    {"letter case of the path", "http://h/", {"a=1; Path=/A"}, "http://h/a", ""},
    {"relative path", "http://h/a/b", {"x=1; Path=y"}, "http://h/a/by", "x=1;"},
    {"relative path elsewhere", "http://h/a/b", {"x=1; Path=y"}, "http://h/a/b", ""},
    {"empty path is the request's", "http://h/a", {"x=1; Path="}, "http://h/a/b", "x=1;"},
    {"unknown with an empty value", "http://h/", {"a=; Path=/"}, "http://h/", "a=;"},
    {"in place, by case", "http://h/", {"a=1", "A=2", "a=3"}, "http://h/", "a=3;A=2;"},
    {"two paths", "http://h/", {"a=1; Path=/", "a=2; Path=/x"}, "http://h/x", "a=1;a=2;"},
    {"most specific domain first",
     "http://h/",
     {"a=1; Path=/; Domain=c", "b=2; Path=/; Domain=.b.c", "d=3; Path=/; Domain=a.b.c"},
     "http://a.b.c/",
     "d=3;b=2;a=1;"},
    {"flags are no cookies, other attributes are",
     "http://h/",
     {"x=1; Secure; HttpOnly; Max-Age=60; SameSite=Lax"},
     "http://h/",
     "x=1;Max-Age=60;SameSite=Lax;"},
    {"attributes first", "http://h/", {"Path=/; x=1"}, "http://h/z", "x=1;"},
    {"blanks and empty pieces", "http://h/", {";; \tx = 1\t ;;;"}, "http://h/", "x=1;"},
    {"value with equals signs", "http://h/", {"x=a=b=="}, "http://h/", "x=a=b==;"},
    {"no name", "http://h/", {"=1; y=2"}, "http://h/", "y=2;"},
    {"with dashes", "http://h/", {"a=1; expires=Sun, 06-Nov-1994 08:49:37 GMT"}, "http://h/", ""},
    {"yet to come",
     "http://h/",
     {"a=1; expires=Fri, 01 Jan 2100 00:00:00 GMT"},
     "http://h/",
     "a=1;"},
    {"a date that cannot be read", "http://h/", {"a=1; expires=tomorrow"}, "http://h/", "a=1;"},
    {"a new value keeps the old expiry",
     "http://h/",
     {"a=1; expires=Sun, 06 Nov 1994 08:49:37 GMT", "a=2"},
     "http://h/",
     ""},
    {"any domain may be set", "http://h/", {"a=1; Path=/; Domain=o"}, "http://o/", "a=1;"},
    {"a dot before the host", "http://h/", {"a=1; Path=/; Domain=h"}, "http://.h/", "a=1;"},
    {"user and port do not count", "http://u:p@h:8080/", {"a=1"}, "https://h/", "a=1;"},
    {"from a text that is no URL", "nothing", {"a=1"}, "http://nothing/", ""},
    {"from no URL, but complete", "nothing", {"a=1; Path=/; Domain=h"}, "http://h/", "a=1;"},
};

TEST_F(CookieStore, SendsWhatWasStored) {
    for (const auto& row : store_rows) {
        SCOPED_TRACE(row.name);
        uninit_cookie_store();
        EXPECT_EQ(stored_for(row.request), "") << "ended with its cookies";
        ASSERT_TRUE(init_cookie_store());
        const char* from = row.from;
        for (const char* value : row.stored) {
            EXPECT_TRUE(set_cookie_by_http_header(from, value));
            ASSERT_TRUE(init_cookie_store()) << "keeps the store that exists";
            from = "http://h/";
        }
        EXPECT_EQ(stored_for(row.request), row.sent);
    }
}

TEST_F(CookieStore, ServesManyThreadsAndKeepsManyDomainsApart) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([i] {
            for (int round = 0; round < 300; round++) {
                int number = round * 7919 % 300;
                std::string own = "n" + std::to_string(i) + "=" + std::to_string(number);
                std::string url = "http://h" + std::to_string(number) + "/";
                set_cookie_by_http_header(url.c_str(), (own + "; Path=/").c_str());
                EXPECT_NE(stored_for(url).find(own + ";"), std::string::npos) << own;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int number = 0; number < 300; number++) {
        std::string value = "=" + std::to_string(number) + ";";
        // Each thread's cookie once, and nothing of other domains.
        std::string sent = stored_for("http://h" + std::to_string(number) + "/");
        EXPECT_EQ(sent.size(), 4 * (2 + value.size())) << sent;
    }
}

TEST_F(CookieStore, LogsWhatItCannotReadAndRefusesMissingArguments) {
    log_capture log;
    set_cookie_by_http_header("nothing", "a=1; Path=y; Domain=h");
    EXPECT_TRUE(log.has_line("set_cookie_by_http_header, invalid set-cookie field, "
                             "field=a=1; Path=y; Domain=h"));
    // The path is then the attribute as it stands, which no request path begins with.
    EXPECT_EQ(stored_for("http://h/y"), "");
    EXPECT_EQ(stored_for("nothing"), "");
    EXPECT_TRUE(log.has_line("get_cookie, analyze_url failed, url=nothing"));

    EXPECT_FALSE(get_cookie("http://h/", nullptr));
    EXPECT_EQ(log.count("assert fail", 1000), 1u);
    char* text = (char*)&log;
    EXPECT_FALSE(get_cookie(nullptr, &text));
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(get_cookie("", &text));
    EXPECT_TRUE(set_cookie_by_http_header("http://h/", nullptr));
    EXPECT_TRUE(set_cookie_by_http_header(nullptr, "a=1"));
}

TEST(MergeCookieText, KeepsEachNameOnce) {
    const std::string big(5000, 'x'), a_big = "a=" + big, b_big = "b=" + big,
                                      both = a_big + "; " + b_big;
    const struct {
        const char *first, *second, *result;
    } rows[] = {
        {"a=1; b=2", "b=3;c=4;", "a=1; b=2; c=4"},
        {"a=1; a=2", "", "a=1"},
        {"a=1", "A=2;", "a=1; A=2"},
        {" a = 1 ;; =x; flag ;", "b=;", "a=1; b="},
        {"flag", "=", ""},
        {"a=1; b=2;", nullptr, "a=1; b=2;"},  // One text alone is taken as it is.
        {nullptr, "b=3;b=4;", "b=3;b=4;"},
        {nullptr, nullptr, ""},
        {a_big.c_str(), b_big.c_str(), both.c_str()},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(take(merge_cookie_text(row.first, row.second)), row.result);
    }
}

}  // namespace
