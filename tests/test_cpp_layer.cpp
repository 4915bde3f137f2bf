// The C++ layer: what each option puts on the wire or does, what each query returns, which
// functions live until when, and whole transfers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <sstream>

#include "support/fakes.h"
#include "tavhttpclient/tavhttpclient.hpp"

namespace {

using std::chrono::seconds;
using tavhttp::errc;
using tavhttp::session;
using tavhttp::session_ref;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr auto get = tavhttp::method::get;
constexpr auto post = tavhttp::method::post;

// Sends and waits for the outcome.
std::error_code run(session& sent) {
    auto done = std::make_shared<std::promise<std::error_code>>();
    sent.on_complete([done](session_ref, std::error_code code) { done->set_value(code); });
    std::error_code code = sent.send();
    return code ? code : done->get_future().get();
}

template <typename... values> std::string words(const values&... all) {
    std::ostringstream text;
    ((text << ' ' << all), ...);
    return text.str();
}

TEST(CppErrors, SayInWordsWhatHappened) {
    std::error_code code = errc::svr_return_error;
    EXPECT_EQ("the server answered with a status that is no success", code.message());
    EXPECT_EQ("the TLS connection failed", tavhttp::make_error(0xFFFFFFFF).message());
    EXPECT_EQ(tavhttp::make_error(0x40003), code);
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, code);
    EXPECT_NE(std::error_code(0x40003, std::system_category()), code);
    EXPECT_EQ(std::errc::timed_out, tavhttp::make_error_code(errc::recv_timeout));
    EXPECT_EQ(std::errc::operation_canceled, tavhttp::make_error_code(errc::cancel));
    EXPECT_NE(std::errc::timed_out, tavhttp::make_error_code(errc::fail_connect));
#define EXPECT_TEXT(name, value)                                                                   \
    EXPECT_STRNE("an unknown error", tav_http_error_text(value)) << #name;                         \
    EXPECT_STREQ(#name, tav_http_error_name(value));
    TAV_HTTP_ERROR_CODE_MAP(EXPECT_TEXT)
}

TEST(CppErrors, RefusedValuesAndEmptySessions) {
    tavhttp::library started;
    session some(get, "http://127.0.0.1/"), empty;
    std::size_t too_many = std::size_t{1} << 31;  // bytes that are not looked at
    for (std::error_code code :
         {some.cookie(""), some.add_header("", "x"), some.add_form_field(nullptr, "x"),
          some.append_body("x", too_many), some.add_form_data("name", "x", too_many, "file"),
          empty.range(0, 9), empty.on_complete({}), empty.body_to(std::cerr), empty.send(),
          empty.redirects(tavhttp::redirect_policy::none), empty.cancel()}) {
        EXPECT_EQ(errc::invalid_arg, code);
    }
    EXPECT_FALSE(empty.status_code() || empty.header("Server") || empty.raw_headers());
    EXPECT_THAT(empty.header_all("Server"), IsEmpty());
    EXPECT_EQ("", empty.peer_address());
}

void set_whole_head(session& s) {
    s.range(5000000000, 5000000009), s.if_modified_since(4294967296), s.if_none_match("\"v1\"");
    s.cookie(std::string("a=1")), s.accept("text/html"), s.user_agent("probe");
    s.connection(tavhttp::connection_mode::close), s.host("elsewhere");
    s.cache_control("max-age=1"),
        s.add_header("X-Rate", "100%s %n");  // a percent sign is no format
}

void set_form(session& s) {
    s.add_form_field("field", "5%d"), s.add_form_file("file", "upload");
    s.add_form_file("renamed", "upload", "other.txt");
    s.add_form_data("data", "xyz", 2, "data.bin");
}

TEST(CppOptions, AreInTheRequest) {
    work_dir directory;
    write_file("upload", "from a file");
    struct {
        tavhttp::method method;
        void (*set)(session& each);
        std::vector<std::string> parts;
    } rows[] = {
        {get,
         set_whole_head,
         {"Range: bytes=5000000000-5000000009\r\n", "Cookie: a=1\r\n",
          "If-Modified-Since: Sun, 07 Feb 2106 06:28:16 GMT\r\n", "If-None-Match: \"v1\"\r\n",
          "Accept: text/html\r\n", "User-Agent: probe\r\n", "Connection: Close\r\n",
          "Host: elsewhere\r\n", "Cache-Control: max-age=1\r\n", "X-Rate: 100%s %n\r\n"}},
        {get, [](session& s) { s.range(0, -500); }, {"Range: bytes=-500\r\n"}},
        {get, [](session& s) { s.no_compression(); }, {"Accept-Encoding: identity\r\n"}},
        {post,
         [](session& s) { s.append_body(std::string_view("one\0", 4)), s.append_body("two"); },
         {bytes_of("\r\n\r\none\0two")}},
        {post, [](session& s) { s.upload_file("upload"); }, {"from a file"}},
        {post,
         set_form,
         {"name=\"field\"\r\n\r\n5%d\r\n", "filename=\"upload\"", "from a file",
          "filename=\"other.txt\"", "filename=\"data.bin\"", "\r\nxy\r\n"}},
    };
    peer server(always(response(200, "", "Set-Cookie: stored=1; Path=/\r\n")));
    tavhttp::library started;
    std::size_t count = 0;
    for (const auto& row : rows) {
        session each(row.method, server.url());
        std::uint64_t end = 0, total = 0;
        row.set(each);
        each.no_cookie_store();
        each.on_upload_progress([&](auto, auto sent, auto, auto length, auto all) {
            end = sent + length;
            total = all;
        });
        EXPECT_FALSE(run(each));
        std::string raw = server.request(count++).raw;
        for (const std::string& part : row.parts) {
            EXPECT_THAT(raw, HasSubstr(part));
        }
        EXPECT_THAT(raw, testing::Not(HasSubstr("stored=1")));
        EXPECT_EQ(raw.size(), total);
        EXPECT_EQ(total, end);
    }
    session undone(get, server.url());  // the second value of the one is the other option
    undone.no_cookie_store();
    undone.keep_undecoded_body(true, false);
    EXPECT_FALSE(run(undone));
    EXPECT_EQ("stored=1;", server.request(count).header("Cookie"));
}

TEST(CppOptions, TimesFilesAndConnections) {
    work_dir directory;
    peer silent(script{expect_request(), stall()}), server([](const received_request&request) {
        return request.header("Range") == "bytes=3-" ? response(206, "def")
                                                     : response(200, "abcdef");
    });
    log_capture log;
    tavhttp::library started;
    session whole(get, silent.url()), still(get, silent.url());
    EXPECT_FALSE(whole.session_timeout(milliseconds(50)));
    EXPECT_EQ(errc::session_timeout, run(whole));
    EXPECT_FALSE(still.session_timeout(std::chrono::hours(24 * 365 * 100))) << "no overflow";
    EXPECT_FALSE(still.connect_timeout(seconds(2)) || still.io_timeout(milliseconds(50)));
    EXPECT_EQ(errc::recv_timeout, run(still));

    write_file("named", "abc");
    session resumed(get, server.url());
    EXPECT_FALSE(resumed.download_file("named") || resumed.resume() || run(resumed));
    EXPECT_EQ("named", resumed.file_path());
    EXPECT_EQ("abcdef", read_file("named"));

    std::string name(150, 'd');
    EXPECT_EQ("", tavhttp::download_directory());
    EXPECT_FALSE(tavhttp::set_download_directory(name) || tavhttp::set_use_third_lsp(false));
    EXPECT_EQ(name + "/", tavhttp::download_directory());
    tavhttp::set_max_running_count(0);
    tavhttp::set_keep_alive_max_requests(0);
    for (int i = 0; i < 2; i++) {
        session chosen(get, server.url("/secret"));
        EXPECT_FALSE(chosen.download_to_file() || chosen.keep_alive(true, seconds(5), 3) ||
                     chosen.priority(tavhttp::priority::high) || chosen.queue_fifo() ||
                     chosen.hide_url() || chosen.option_2(7) || run(chosen));
        EXPECT_THAT(chosen.file_path().value_or(""), HasSubstr(name + "/"));
        EXPECT_EQ("abcdef", read_file(chosen.file_path().value_or("")));
    }
    EXPECT_EQ(2u, server.connection_count()) << "with that of the resumed one";
    EXPECT_EQ(0u, log.count(server.url("/secret")));
    session alone(get, server.url());
    EXPECT_FALSE(alone.no_reuse() || run(alone));
    EXPECT_EQ(3u, server.connection_count());
}

TEST(CppOptions, ProxiesOfTheSessionAndOfTheProcess) {
    peer through(script{expect_request(), send_text("HTTP/1.1 200 OK\r\n\r\n"), expect_request(),
                        send_text(response(200, "", "Connection: close\r\n"))});
    peer direct(always(response(200, "")));
    tavhttp::proxy_settings settings{TAV_HTTP_PROXY_HTTP, "127.0.0.1", through.port(), "demo",
                                     "secret"};
    tavhttp::library started;
    session opened(get, direct.url(), settings), set(get, direct.url());
    EXPECT_FALSE(set.proxy(settings) || tavhttp::set_default_proxy(settings));
    session by_default(get, direct.url()), without(get, direct.url());
    session with_none(get, direct.url(), tavhttp::proxy_settings());
    EXPECT_FALSE(without.no_proxy() || tavhttp::clear_default_proxy());
    session afterwards(get, direct.url());
    for (session* each : {&opened, &set, &by_default, &without, &with_none, &afterwards}) {
        EXPECT_FALSE(run(*each));
    }
    EXPECT_EQ(3u, through.connection_count());
    EXPECT_EQ(3u, direct.request_count());
    EXPECT_EQ("Basic ZGVtbzpzZWNyZXQ=", through.request(0).header("Proxy-Authorization"));
}

TEST(CppQueries, AndCallbacksTellOfTheResponse) {
    std::string packed = gzip_bytes("hello"), length = std::to_string(packed.size());
    peer server({reply_with(response(302, "", "Location: /new\r\n")),
                 reply_with(response(206, packed,
                                     "Content-Encoding: gzip\r\nContent-Range: bytes "
                                     "5000000000-5000000024/6000000000\r\nETag: \"v2\"\r\n"
                                     "Set-Cookie: a=1\r\nset-cookie: b=2\r\n"
                                     "Last-Modified: Sun, 07 Feb 2106 06:28:16 GMT\r\n"))});
    tavhttp::library started;
    std::string old_url = server.url("/old"), new_url = server.url("/new"), events;
    session each(get, old_url);
    each.body_md5(true);
    each.range(5000000000, 5000000024);
    EXPECT_FALSE(each.status_code() || each.body_md5() || each.current_url());
    each.on_connecting([&](auto, std::string_view url) { events += words("to", url); });
    each.on_connected([&](auto, std::string_view address) { events += words("at", address); });
    each.on_redirect([&](auto, auto url, auto from) { events += words("from", from, url); });
    each.on_response_header([&](session_ref s) { events += words(*s.status_code()); });
    each.on_download_start(
        [&](auto, auto, auto first, auto, auto bytes) { events += words(first, bytes); });
    ASSERT_FALSE(run(each));
    EXPECT_EQ(words("to", old_url, "at 127.0.0.1 from", old_url, new_url, "to", new_url,
                    "at 127.0.0.1 206 5000000000", length),
              events);
    EXPECT_EQ(words("Status 5000000000 5000000024 hello 0", length,
                    "5000000000 5000000024 6000000000 4294967296 \"v2\" gzip 5 127.0.0.1"),
              words(each.status_text().value_or(""), each.option_range_start(),
                    each.option_range_end(), each.memory_body().value_or(""),
                    each.query_7().value_or(-1), each.content_length(),
                    each.range_start().value_or(-1), each.range_end().value_or(-1),
                    each.range_total().value_or(-1), each.last_modified().value_or(-1),
                    each.etag().value_or(""), each.header("content-encoding").value_or(""),
                    each.body_bytes(), each.peer_address()));
    EXPECT_EQ(old_url, each.url());
    EXPECT_EQ(new_url, each.current_url());
    EXPECT_EQ(tavhttp::content_encoding::gzip, each.content_encoding());
    EXPECT_EQ(0x5d, each.body_md5().value_or(std::array<std::uint8_t, 16>{}).at(0));
    EXPECT_EQ(std::nullopt, each.header("Server"));
    EXPECT_THAT(each.set_cookie(), ElementsAre(HasSubstr("a=1"), HasSubstr("b=2")));
    EXPECT_THAT(each.header_all("set-cookie"), ElementsAre("a=1", "b=2"));
    EXPECT_THAT(each.raw_headers().value_or(""),
                testing::EndsWith("\r\nContent-Length : 25\r\n\r\n"));
}

// What callbacks capture: the weak one tells when the last function that holds it is gone.
struct CppCallbacks : testing::Test {
    peer server{always(response(200, "body"))};
    std::optional<tavhttp::library> started{std::in_place};
    std::shared_ptr<int> value = std::make_shared<int>(0);
    std::weak_ptr<int> watch = value;
};

// The session is gone while its callback runs on another thread: what the callback captured lives
// until it returns, and not longer.
TEST_F(CppCallbacks, OutliveTheSessionWhileTheyRun) {
    std::promise<void> entered, go_on;
    {
        session each(get, server.url());
        each.on_response_header([&, held = std::move(value)](session_ref s) {
            entered.set_value();
            go_on.get_future().wait();
            EXPECT_EQ(200u, s.status_code());
        });
        each.on_complete([](auto...) { ADD_FAILURE() << "called after the close"; });
        ASSERT_FALSE(each.send());
        entered.get_future().wait();
    }
    EXPECT_FALSE(watch.expired());
    go_on.set_value();
    EXPECT_TRUE(wait_until([&] { return watch.expired(); }));
}

// The owner goes inside the last callback, or behind it when other functions held it too.
TEST_F(CppCallbacks, MayDestroyTheirSession) {
    for (bool is_held_twice : {false, true}) {
        watch = value = std::make_shared<int>(0);
        std::promise<std::string> done;
        auto each = std::make_shared<session>(get, server.url());
        if (is_held_twice) {
            each->on_connecting([each](auto...) {});
        }
        each->on_complete([each, &done, held = std::move(value)](session_ref s, auto) mutable {
            each.reset();
            done.set_value(s.memory_body().value_or(""));
        });
        std::weak_ptr<session> owner = each;
        ASSERT_FALSE(each->send());
        each.reset();
        EXPECT_EQ("body", done.get_future().get());
        EXPECT_TRUE(wait_until([&] { return owner.expired() && watch.expired(); }));
    }
}

TEST_F(CppCallbacks, AreReplacedAndMoveWithTheSession) {
    session first(get, server.url("/first")), second(get, server.url("/second"));
    first.on_download_data([](auto...) { ADD_FAILURE(); });
    first.on_download_data(nullptr);
    second.on_connecting([held = std::move(value)](auto...) { ADD_FAILURE(); });
    second = std::move(first);
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(run(second));
    EXPECT_EQ(server.url("/first"), second.url());
    EXPECT_EQ("body", second.memory_body());
}

// A retry sends the body from its start: the sink begins anew, or says that it cannot.
TEST(CppSink, BeginsAnew) {
    struct one_way : std::stringbuf {
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override {
            return off_type(-1);
        }
    };
    struct {
        std::string second;
        bool can_go_back;
        errc code;
        std::string written;
    } rows[] = {{"abcdef", true, errc::ok, "abcdef"},
                {"ab", true, errc::fail_write_response_file, "abcd"},
                {"abcdef", false, errc::fail_write_response_file, "abcd"}};
    for (const auto& row : rows) {
        peer server({{expect_request(), send_text(response(200, "")), expect_request(),
                      send_text("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabcd"), close_now()},
                     reply_with(response(200, row.second))});
        tavhttp::library started;
        session first(get, server.url()), each(get, server.url());
        first.keep_alive(true);
        ASSERT_FALSE(run(first));
        std::stringbuf there_and_back;
        one_way only_there;
        std::stringbuf& buffer = row.can_go_back ? there_and_back : only_there;
        std::ostream stream(&buffer);
        EXPECT_FALSE(each.body_to(stream));
        EXPECT_EQ(row.code, run(each));
        EXPECT_EQ(row.can_go_back ? 2u : 1u, server.connection_count());
        EXPECT_EQ(row.written, buffer.str());
    }
}

// A session that is closed while the library is stopped is released by the next start.
TEST_F(CppCallbacks, OfTheLogAndSessionsWithoutLibrary) {
    std::atomic<int> lines{0};
    tavhttp::set_log([&lines, held = std::move(value)](auto level, auto tag, auto text) {
        EXPECT_THAT(level, testing::AnyOf(1000, 2000, 3000));
        EXPECT_EQ("tavhttp", tag);
        lines += text.empty() ? 0 : 1;
    });
    session cancelled(get, server.url()), each(get, server.url());
    EXPECT_FALSE(cancelled.cancel());
    EXPECT_EQ(errc::cancel, run(cancelled));
    started.reset();
    EXPECT_EQ(errc::fail_start_async, each.send());
    each.close();
    EXPECT_GT(lines, 0);
    tavhttp::set_log(nullptr);
    EXPECT_TRUE(watch.expired());
    watch_assertions();
    started.emplace();
    EXPECT_FALSE(started->error());
    EXPECT_THAT(tavhttp::detail::get_registry().unreleased, IsEmpty());
}

TEST(CppClient, WaitsOrGivesAFuture) {
    peer silent(script{expect_request(), stall()});
    peer server([](const received_request& request) {
        return response(request.target == "/none" ? 404 : 200, request.body + "body",
                        "X-Own: 1\r\n");
    });
    std::future<tavhttp::result> left;
    {
        tavhttp::client client;
        ASSERT_FALSE(client.error());
        std::future<tavhttp::result> later = client.start(get, server.url());
        tavhttp::result result = client.post(server.url(), "sent ");
        EXPECT_TRUE(result);
        EXPECT_EQ(
            words(200, "sent body", 1, server.url()),
            words(result.status, result.body, result.header("x-own").value_or(""), result.url));
        EXPECT_EQ("body", later.get().body);
        EXPECT_EQ("the server answered 404 Status", client.get(server.url("/none")).message());
        EXPECT_EQ(errc::invalid_url, client.get("nonsense").code);
        left = client.start(get, silent.url());
        EXPECT_TRUE(silent.wait_for_requests(1));
    }
    ASSERT_EQ(std::future_status::ready, left.wait_for(seconds(0)));
    EXPECT_EQ(errc::cancel, left.get().code);
}

// To another host a redirect is followed with everything, without headers, or not at all.
TEST(CppClient, RedirectsToAnotherHost) {
    using policy = tavhttp::redirect_policy;
    struct {
        policy set;
        std::string path;
        std::uint32_t status;
        std::string header;  // of the request at the other host
    } rows[] = {{policy::follow, "/away", 200, "secret"},
                {policy::same_host, "/away", 302, ""},
                {policy::same_host, "/stay", 200, ""},
                {policy::without_headers, "/away", 200, ""},
                {policy::none, "/stay", 302, ""}};
    peer other(always(response(200, "there")));
    set_name("other.test", {"127.0.0.1"});
    std::string away = "http://other.test:" + std::to_string(other.port()) + "/";
    peer server([&away](const received_request& request) {
        bool stays = request.target == "/stay";
        return request.target == "/"
                   ? response(200, "here")
                   : response(302, "", "Location: " + (stays ? "/" : away) + "\r\n");
    });
    tavhttp::client client;
    for (const auto& row : rows) {
        std::size_t count = other.request_count();
        tavhttp::result result = client.get(server.url(row.path), [&](session& each) {
            each.redirects(row.set);
            each.add_header("X-Own", "secret");
            each.cookie("own=secret");
        });
        EXPECT_TRUE(result) << result.message();
        EXPECT_EQ(row.status, result.status);
        EXPECT_EQ(count + (row.status == 200 && row.path == "/away"), other.request_count());
        EXPECT_EQ(row.header, other.request(count).header("X-Own"));
        EXPECT_EQ(!row.header.empty(), other.request(count).has_header("Cookie"));
    }
    for (const char* url :
         {"http://a@h/", "http://h?x/", "http://h#x", "http://i/", "ftp", "http://h\\x/"}) {
        EXPECT_FALSE(tavhttp::detail::is_same_host(url, "http://h/")) << url;
    }
    EXPECT_TRUE(tavhttp::detail::is_same_host("https://[::1]:8/", "http://[::1]/x"));
    EXPECT_FALSE(tavhttp::detail::is_same_host("http://h/", "https://h/"));
}

}  // namespace
