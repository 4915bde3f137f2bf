// The cookie store: what one response stores and what later requests send.
#include "tavhttpclient/cookiemgr.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

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

std::string merged(const char* first, const char* second) {
    char* text = merge_cookie_text(first, second);
    std::string result = text != nullptr ? text : "(null)";
    free(text);
    return result;
}

struct received {
    const char* url;
    const char* value;
};

struct store_row {
    const char* name;
    std::vector<received> stored;
    const char* request;
    const char* sent;
};

const store_row store_rows[] = {
    {"domain without its dot serves hosts below it",
     {{"http://h/", "SID=1; Path=/; Domain=.b.c"}},
     "http://a.b.c/x",
     "SID=1;"},
    {"a domain is a suffix of whole labels",
     {{"http://h/", "SID=1; Path=/; Domain=b.c"}},
     "http://ab.c/",
     ""},
    {"a parent host gets nothing", {{"http://h/", "a=1; Path=/; Domain=x.b.c"}}, "http://b.c/", ""},
    {"letter case of the domain",
     {{"http://h/", "a=1; PATH=/; DOMAIN=B.c"}},
     "http://b.C/",
     "a=1;"},
    {"the whole request path by default", {{"http://h/dir/page", "a=1"}}, "http://h/dir/other", ""},
    {"default path as a prefix", {{"http://h/dir", "a=1"}}, "http://h/dir/other", "a=1;"},
    {"no query in the default path", {{"http://h/dir?q=1", "a=1"}}, "http://h/dir", "a=1;"},
    {"no path is the root", {{"http://h", "a=1"}}, "http://h/any/where", "a=1;"},
    {"prefix of bytes", {{"http://h/", "a=1; Path=/a"}}, "http://h/ab", "a=1;"},
    {"letter case of the path", {{"http://h/", "a=1; Path=/A"}}, "http://h/a", ""},
    {"relative path", {{"http://h/a/b", "x=1; Path=y"}}, "http://h/a/by", "x=1;"},
    {"relative path elsewhere", {{"http://h/a/b", "x=1; Path=y"}}, "http://h/a/b", ""},
    {"empty path is the request's", {{"http://h/a", "x=1; Path="}}, "http://h/a/b", "x=1;"},
    {"removed by an empty value",
     {{"http://h/", "a=1; Path=/"}, {"http://h/", "a=; Path=/"}},
     "http://h/",
     ""},
    {"unknown with an empty value", {{"http://h/", "a=; Path=/"}}, "http://h/", "a=;"},
    {"replaced in its place",
     {{"http://h/", "a=1"}, {"http://h/", "b=2"}, {"http://h/", "a=3"}},
     "http://h/",
     "a=3;b=2;"},
    {"names differ by case", {{"http://h/", "a=1"}, {"http://h/", "A=2"}}, "http://h/", "a=1;A=2;"},
    {"one name under two paths",
     {{"http://h/", "a=1; Path=/"}, {"http://h/", "a=2; Path=/x"}},
     "http://h/x",
     "a=1;a=2;"},
    {"most specific domain first",
     {{"http://h/", "a=1; Path=/; Domain=c"},
      {"http://h/", "b=2; Path=/; Domain=.b.c"},
      {"http://h/", "d=3; Path=/; Domain=a.b.c"}},
     "http://a.b.c/",
     "d=3;b=2;a=1;"},
    {"flags are no cookies", {{"http://h/", "x=1; Secure; HttpOnly"}}, "http://h/", "x=1;"},
    {"unknown attributes are cookies",
     {{"http://h/", "x=1; Max-Age=60; SameSite=Lax"}},
     "http://h/",
     "x=1;Max-Age=60;SameSite=Lax;"},
    {"attributes before the cookie", {{"http://h/", "Path=/; x=1"}}, "http://h/z", "x=1;"},
    {"blanks and empty pieces", {{"http://h/", ";; \tx = 1\t ;;;"}}, "http://h/", "x=1;"},
    {"value with equals signs", {{"http://h/", "x=a=b=="}}, "http://h/", "x=a=b==;"},
    {"no name", {{"http://h/", "=1; y=2"}}, "http://h/", "y=2;"},
    {"expired",
     {{"http://h/", "a=1; Expires=Sun, 06 Nov 1994 08:49:37 GMT"}, {"http://h/", "b=2"}},
     "http://h/",
     "b=2;"},
    {"expired date with dashes",
     {{"http://h/", "a=1; expires=Sun, 06-Nov-1994 08:49:37 GMT"}},
     "http://h/",
     ""},
    {"not yet expired",
     {{"http://h/", "a=1; expires=Fri, 01 Jan 2100 00:00:00 GMT"}},
     "http://h/",
     "a=1;"},
    {"a date that cannot be read", {{"http://h/", "a=1; expires=tomorrow"}}, "http://h/", "a=1;"},
    {"a new value keeps the old expiry",
     {{"http://h/", "a=1; expires=Sun, 06 Nov 1994 08:49:37 GMT"}, {"http://h/", "a=2"}},
     "http://h/",
     ""},
    {"any response may set any domain",
     {{"http://h/", "a=1; Path=/; Domain=other"}},
     "http://other/",
     "a=1;"},
    {"a dot before the request's host",
     {{"http://h/", "a=1; Path=/; Domain=h"}},
     "http://.h/",
     "a=1;"},
    {"user and port are no part of the domain",
     {{"http://u:p@h:8080/", "a=1"}},
     "https://h/",
     "a=1;"},
    {"from a text that is no URL", {{"nothing", "a=1"}}, "http://nothing/", ""},
    {"from no URL, but complete", {{"nothing", "a=1; Path=/; Domain=h"}}, "http://h/", "a=1;"},
};

TEST_F(CookieStore, SendsWhatWasStored) {
    for (const store_row& row : store_rows) {
        SCOPED_TRACE(row.name);
        uninit_cookie_store();
        ASSERT_TRUE(init_cookie_store());
        for (const received& from : row.stored) {
            EXPECT_TRUE(set_cookie_by_http_header(from.url, from.value));
        }
        EXPECT_EQ(stored_for(row.request), row.sent);
    }
}

TEST_F(CookieStore, ManyDomainsStayApart) {
    for (int i = 0; i < 500; i++) {
        std::string host = "h" + std::to_string(i * 7919 % 500) + ".test";
        set_cookie_by_http_header(("http://" + host + "/").c_str(), ("n=" + host).c_str());
    }
    for (int i = 0; i < 500; i++) {
        std::string host = "h" + std::to_string(i) + ".test";
        EXPECT_EQ(stored_for("http://" + host + "/"), "n=" + host + ";");
    }
}

TEST_F(CookieStore, LogsWhatItCannotRead) {
    log_capture log;
    set_cookie_by_http_header("nothing", "a=1; Path=y; Domain=h");
    EXPECT_TRUE(log.has_line("set_cookie_by_http_header, invalid set-cookie field, "
                             "field=a=1; Path=y; Domain=h"));
    // The path is then the attribute as it stands, which no request path begins with.
    EXPECT_EQ(stored_for("http://h/y"), "");

    EXPECT_EQ(stored_for("nothing"), "");
    EXPECT_TRUE(log.has_line("get_cookie, analyze_url failed, url=nothing"));
}

TEST_F(CookieStore, RefusesMissingArguments) {
    log_capture log;
    EXPECT_FALSE(get_cookie("http://h/", nullptr));
    EXPECT_EQ(log.count("assert fail", 1000), 1u);
    char* text = (char*)&log;
    EXPECT_FALSE(get_cookie(nullptr, &text));
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(get_cookie("", &text));
    EXPECT_TRUE(set_cookie_by_http_header("http://h/", nullptr));
    EXPECT_TRUE(set_cookie_by_http_header(nullptr, "a=1"));
}

TEST(CookieStoreLife, EndsWithItsCookiesAndBeginsEmpty) {
    EXPECT_EQ(stored_for("http://h/"), "");
    EXPECT_TRUE(set_cookie_by_http_header("http://h/", "a=1"));
    ASSERT_TRUE(init_cookie_store());
    EXPECT_EQ(stored_for("http://h/"), "");
    set_cookie_by_http_header("http://h/", "a=1");
    ASSERT_TRUE(init_cookie_store());  // The store that exists is kept.
    EXPECT_EQ(stored_for("http://h/"), "a=1;");
    uninit_cookie_store();
    uninit_cookie_store();
    EXPECT_EQ(stored_for("http://h/"), "");
}

TEST_F(CookieStore, ServesManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([i] {
            std::string own = "n" + std::to_string(i);
            for (int round = 0; round < 300; round++) {
                std::string value = own + "=" + std::to_string(round) + "; Path=/";
                set_cookie_by_http_header("http://h/", value.c_str());
                std::string sent = stored_for("http://h/");
                EXPECT_NE(sent.find(own + "=" + std::to_string(round) + ";"), std::string::npos);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(MergeCookieText, KeepsEachNameOnce) {
    struct {
        const char* first;
        const char* second;
        const char* result;
    } rows[] = {
        {"a=1; b=2", "b=3;c=4;", "a=1; b=2; c=4"},
        {"a=1; a=2", "", "a=1"},
        {"a=1", "A=2;", "a=1; A=2"},
        {" a = 1 ;; =x; flag ;", "b=;", "a=1; b="},
        {"flag", "=", ""},
        {"a=1; b=2;", nullptr, "a=1; b=2;"},  // One text alone is taken as it is.
        {nullptr, "b=3;b=4;", "b=3;b=4;"},
        {nullptr, nullptr, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(merged(row.first, row.second), row.result);
    }
    std::string big(5000, 'x');
    EXPECT_EQ(merged(("a=" + big).c_str(), ("b=" + big).c_str()), "a=" + big + "; b=" + big);
}

}  // namespace
