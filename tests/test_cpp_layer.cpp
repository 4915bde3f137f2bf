// The C++ layer against scripted servers: what each option puts on the wire or does, what each
// query returns, and which functions live until when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <sstream>
#include <thread>

#include "tavhttpclient/tavhttpclient.hpp"
#include "tests/support/host.h"
#include "tests/support/scripted_server.h"

namespace {

using std::chrono::milliseconds;
using tavhttp::errc;
using tavhttp::session_ref;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using options = tavhttp::session&;

constexpr auto get = tavhttp::method::get;
constexpr errc invalid_arg = errc::invalid_arg;

// Sends and waits for the outcome.
std::error_code run(tavhttp::session& session) {
    auto done = std::make_shared<std::promise<std::error_code>>();
    session.on_complete([done](session_ref, std::error_code code) { done->set_value(code); });
    std::error_code sent = session.send();
    if (sent) {
        return sent;
    }
    std::future<std::error_code> result = done->get_future();
    return result.wait_for(default_deadline) == std::future_status::ready
               ? result.get()
               : tavhttp::make_error(not_completed);
}

TEST(CppErrors, SayInWordsWhatHappened) {
    std::error_code code = errc::svr_return_error;
    EXPECT_EQ("the server answered with a status that is no success", code.message());
    EXPECT_EQ("the TLS connection failed", tavhttp::make_error(0xFFFFFFFF).message());
    EXPECT_EQ(tavhttp::make_error(0x40003), code);
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, code);
    EXPECT_NE(std::error_code(0x40003, std::system_category()), code);
    EXPECT_FALSE(tavhttp::make_error(0));
    EXPECT_EQ(std::errc::timed_out, tavhttp::make_error_code(errc::recv_timeout));
    EXPECT_EQ(std::errc::operation_canceled, tavhttp::make_error_code(errc::cancel));
    EXPECT_NE(std::errc::timed_out, tavhttp::make_error_code(errc::fail_connect));
#define EXPECT_TEXT(name, value)                                                                   \
    EXPECT_STRNE("an unknown error", tav_http_error_text(value)) << #name;
    TAV_HTTP_ERROR_CODE_MAP(EXPECT_TEXT)
}

TEST(CppErrors, EmptySessionRefusesEverything) {
    tavhttp::session session;
    EXPECT_FALSE(session);
    EXPECT_EQ(invalid_arg, session.range(0, 9));
    EXPECT_EQ(invalid_arg, session.on_complete({}));
    EXPECT_EQ(invalid_arg, session.send());
    EXPECT_EQ(invalid_arg, session.cancel());
    EXPECT_EQ(std::nullopt, session.status_code());
    EXPECT_EQ(std::nullopt, session.header("Server"));
    EXPECT_THAT(session.header_all("Server"), IsEmpty());
    EXPECT_EQ("", session.peer_address());
}

// -------------------------------------------------------------------------------------- options

TEST(CppOptions, EachHeadOptionWritesItsLine) {
    struct {
        std::error_code (*set)(tavhttp::session& session);
        std::string line;
    } cases[] = {
        {[](options s) { return s.range(5000000000, 5000000009); },
         "Range: bytes=5000000000-5000000009\r\n"},
        {[](options s) { return s.range(0, -500); }, "Range: bytes=-500\r\n"},
        {[](options s) { return s.if_modified_since(4294967296); },
         "If-Modified-Since: Sun, 07 Feb 2106 06:28:16 GMT\r\n"},
        {[](options s) { return s.if_none_match("\"v1\""); }, "If-None-Match: \"v1\"\r\n"},
        {[](options s) { return s.cookie(std::string("a=1")); }, "Cookie: a=1\r\n"},
        {[](options s) { return s.accept("text/html"); }, "Accept: text/html\r\n"},
        {[](options s) { return s.user_agent("probe"); }, "User-Agent: probe\r\n"},
        {[](options s) { return s.connection(tavhttp::connection_mode::close); },
         "Connection: Close\r\n"},
        {[](options s) { return s.no_compression(); }, "Accept-Encoding: identity\r\n"},
        {[](options s) { return s.host("elsewhere"); }, "Host: elsewhere\r\n"},
        {[](options s) { return s.cache_control("max-age=1"); }, "Cache-Control: max-age=1\r\n"},
        // A percent sign is no format.
        {[](options s) { return s.add_header("X-Rate", "100%s %n"); }, "X-Rate: 100%s %n\r\n"},
    };
    scripted_server server(always(response(200, "")));
    tavhttp::library library;
    for (const auto& each : cases) {
        std::size_t count = server.request_count();
        tavhttp::session session(get, server.url());
        EXPECT_FALSE(each.set(session));
        EXPECT_FALSE(run(session));
        EXPECT_THAT(server.request(count).raw, HasSubstr(each.line));
    }
    tavhttp::session cleared(get, server.url());
    cleared.if_none_match("x");
    EXPECT_FALSE(cleared.if_none_match(nullptr));
    EXPECT_FALSE(run(cleared));
    EXPECT_FALSE(server.request(std::size(cases)).has_header("If-None-Match"));
}

TEST(CppOptions, RefusedValuesAreErrors) {
    tavhttp::library library;
    tavhttp::session session(get, "http://127.0.0.1/");
    EXPECT_EQ(invalid_arg, session.cookie(""));
    EXPECT_EQ(invalid_arg, session.add_header("", "x"));
    EXPECT_EQ(invalid_arg, session.add_form_field(nullptr, "x"));
    // More than the library can count: the bytes are not looked at.
    std::size_t too_many = std::size_t{1} << 31;
    EXPECT_EQ(invalid_arg, session.append_body("x", too_many));
    EXPECT_EQ(invalid_arg, session.add_form_data("name", "x", too_many, "file"));
}

TEST(CppOptions, RedirectsAndStoredCookies) {
    scripted_server server([](const received_request& request) {
        bool old = request.target == "/old";
        return response(old ? 302 : 200, "", "Location: /new\r\nSet-Cookie: stored=1; Path=/\r\n");
    });
    tavhttp::library library;
    tavhttp::session stay(get, server.url("/old"));
    EXPECT_FALSE(stay.no_redirect());
    EXPECT_FALSE(stay.option_2(7));
    EXPECT_FALSE(run(stay));
    EXPECT_EQ(302u, stay.status_code());

    // The second value of the other option does the same, and undoes it too.
    for (int kind = 0; kind < 4; kind++) {
        SCOPED_TRACE(kind);
        std::size_t index = server.request_count();
        tavhttp::session session(get, server.url());
        if (kind % 2 != 0) {
            session.no_cookie_store();
        }
        if (kind >= 2) {
            session.keep_undecoded_body(true, kind == 2);
        }
        EXPECT_FALSE(run(session));
        bool is_sent = kind == 0 || kind == 3;
        EXPECT_EQ(is_sent ? "stored=1;" : "", server.request(index).header("Cookie"));
    }
}

TEST(CppOptions, TimeoutsEndTheSession) {
    scripted_server silent(script{expect_request(), stall()});
    tavhttp::library library;
    tavhttp::session whole(get, silent.url()), still(get, silent.url());
    EXPECT_FALSE(whole.session_timeout(milliseconds(50)));
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT, run(whole));
    EXPECT_FALSE(still.session_timeout(std::chrono::hours(24 * 365 * 100))) << "no overflow";
    EXPECT_FALSE(still.connect_timeout(milliseconds(2000)));
    EXPECT_FALSE(still.io_timeout(milliseconds(50)));
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_RECV_TIMEOUT, run(still));
}

TEST(CppOptions, DownloadsToFiles) {
    work_dir directory;
    scripted_server server([](const received_request& request) {
        return request.header("Range") == "bytes=3-" ? response(206, "def")
                                                     : response(200, "abcdef");
    });
    tavhttp::library library;
    write_file("named", "abc");
    tavhttp::session resumed(get, server.url());
    EXPECT_FALSE(resumed.download_file("named"));
    EXPECT_FALSE(resumed.resume());
    EXPECT_FALSE(run(resumed));
    EXPECT_EQ("named", resumed.file_path());
    EXPECT_EQ("abcdef", read_file("named"));
    EXPECT_EQ(std::nullopt, resumed.memory_body());

    EXPECT_EQ("", tavhttp::download_directory());
    std::string name(150, 'd');
    EXPECT_FALSE(tavhttp::set_download_directory(name));
    EXPECT_EQ(name + "/", tavhttp::download_directory());
    tavhttp::session chosen(get, server.url());
    EXPECT_FALSE(chosen.download_to_file());
    EXPECT_FALSE(run(chosen));
    EXPECT_THAT(chosen.file_path().value_or(""), HasSubstr(name + "/"));
    EXPECT_EQ("abcdef", read_file(chosen.file_path().value_or("")));
    EXPECT_FALSE(tavhttp::set_download_directory(nullptr));
    EXPECT_EQ("", tavhttp::download_directory());
}

TEST(CppOptions, Bodies) {
    work_dir directory;
    write_file("upload", "from a file");
    struct {
        void (*set)(tavhttp::session& session);
        std::vector<std::string> parts;
    } cases[] = {
        {[](options s) { s.append_body(std::string_view("one\0", 4)), s.append_body("two", 3); },
         {bytes_of("one\0two")}},
        {[](options s) { s.upload_file("upload"); }, {"from a file"}},
        {[](options s) {
             s.add_form_field("field", "5%d");
             s.add_form_file("file", "upload");
             s.add_form_file("renamed", "upload", "other.txt");
             s.add_form_data("data", "xyz", 2, "data.bin");
         },
         {"name=\"field\"\r\n\r\n5%d\r\n", "filename=\"upload\"", "from a file",
          "filename=\"other.txt\"", "filename=\"data.bin\"", "\r\nxy\r\n"}},
    };
    scripted_server server(always(response(200, "")));
    tavhttp::library library;
    std::size_t count = 0;
    for (const auto& each : cases) {
        SCOPED_TRACE(count);
        std::uint64_t last_end = 0;
        std::uint64_t total = 0;
        tavhttp::session session(tavhttp::method::post, server.url());
        each.set(session);
        session.on_upload_progress([&](session_ref, std::uint64_t sent, const void*,
                                       std::uint32_t length, std::uint64_t all) {
            last_end = sent + length;
            total = all;
        });
        EXPECT_FALSE(run(session));
        received_request request = server.request(count++);
        for (const std::string& part : each.parts) {
            EXPECT_THAT(request.body, HasSubstr(part));
        }
        EXPECT_EQ(request.raw.size(), total);
        EXPECT_EQ(total, last_end);
    }
}

TEST(CppOptions, ProxiesOfTheSessionAndOfTheProcess) {
    scripted_server proxy(script{expect_request(), send_text("HTTP/1.1 200 OK\r\n\r\n"),
                                 expect_request(),
                                 send_text(response(200, "", "Connection: close\r\n"))});
    scripted_server direct(always(response(200, "")));
    tavhttp::proxy_settings settings;
    settings.type = TAV_HTTP_PROXY_HTTP;
    settings.host = "127.0.0.1";
    settings.port = proxy.port();
    settings.user_name = "demo";
    settings.password = "secret";

    tavhttp::library library;
    tavhttp::session opened(get, direct.url(), settings);
    EXPECT_FALSE(run(opened));
    tavhttp::session set(get, direct.url());
    EXPECT_FALSE(set.proxy(settings));
    EXPECT_FALSE(run(set));
    EXPECT_FALSE(tavhttp::set_default_proxy(settings));
    tavhttp::session by_default(get, direct.url());
    EXPECT_FALSE(run(by_default));
    EXPECT_EQ(3u, proxy.connection_count());
    EXPECT_EQ(0u, direct.connection_count());
    EXPECT_EQ("Basic ZGVtbzpzZWNyZXQ=", proxy.request(0).header("Proxy-Authorization"));

    tavhttp::session without(get, direct.url());
    EXPECT_FALSE(without.no_proxy());
    EXPECT_FALSE(run(without));
    tavhttp::session with_none(get, direct.url(), tavhttp::proxy_settings());
    EXPECT_FALSE(run(with_none));
    EXPECT_FALSE(tavhttp::clear_default_proxy());
    tavhttp::session afterwards(get, direct.url());
    EXPECT_FALSE(run(afterwards));
    EXPECT_EQ(3u, proxy.connection_count());
    EXPECT_EQ(3u, direct.request_count());
}

TEST(CppOptions, ConnectionsAndQueue) {
    scripted_server server(always(response(200, "")));
    log_capture log;
    tavhttp::library library;
    EXPECT_FALSE(tavhttp::set_use_third_lsp(false));
    tavhttp::set_max_running_count(4);
    tavhttp::set_keep_alive_max_requests(0);
    for (int i = 0; i < 2; i++) {
        tavhttp::session session(get, server.url("/secret"));
        EXPECT_FALSE(session.keep_alive(true, std::chrono::seconds(5), 3));
        EXPECT_FALSE(session.priority(tavhttp::priority::high));
        EXPECT_FALSE(session.queue_fifo());
        EXPECT_FALSE(session.hide_url());
        EXPECT_FALSE(run(session));
    }
    EXPECT_EQ(1u, server.connection_count());
    EXPECT_EQ(0u, log.count(server.url("/secret")));
    EXPECT_EQ(0u, log.count("assert fail"));
    tavhttp::session alone(get, server.url());
    EXPECT_FALSE(alone.no_reuse());
    EXPECT_FALSE(alone.tls_host_name("server.test"));
    EXPECT_FALSE(run(alone));
    EXPECT_EQ(2u, server.connection_count());
    tavhttp::set_max_running_count(0);
}

// -------------------------------------------------------------------------------------- queries

TEST(CppQueries, ReadTheResponse) {
    scripted_server server(std::vector<script>{
        reply_with(response(302, "", "Location: /new\r\n")),
        reply_with(response(206, gzip_bytes("hello"),
                            "Content-Encoding: gzip\r\nContent-Range: bytes 5000000000-5000000024/"
                            "6000000000\r\nETag: \"v2\"\r\nSet-Cookie: a=1\r\nset-cookie: b=2\r\n"
                            "Last-Modified: Sun, 07 Feb 2106 06:28:16 GMT\r\nX-Empty:\r\n"))});
    tavhttp::library library;
    tavhttp::session session(get, server.url("/old"));
    session.body_md5(true);
    session.range(5000000000, 5000000024);
    EXPECT_EQ(std::nullopt, session.status_code());
    EXPECT_EQ(std::nullopt, session.raw_headers());
    EXPECT_EQ(std::nullopt, session.body_md5());
    EXPECT_EQ(std::nullopt, session.content_encoding());
    EXPECT_EQ(std::nullopt, session.current_url());
    ASSERT_FALSE(run(session));

    EXPECT_EQ(206u, session.status_code());
    EXPECT_EQ("Status", session.status_text());
    EXPECT_EQ(5000000000, session.option_range_start());
    EXPECT_EQ(5000000024, session.option_range_end());
    EXPECT_EQ("hello", session.memory_body());
    EXPECT_EQ(0, session.query_7());
    EXPECT_THAT(session.set_cookie(), ElementsAre(HasSubstr("a=1"), HasSubstr("b=2")));
    std::string raw = session.raw_headers().value_or("");
    EXPECT_THAT(raw, testing::StartsWith("Content-Encoding : gzip\r\nContent-Range : bytes 50"));
    EXPECT_THAT(raw, testing::EndsWith("\r\n\r\n"));
    EXPECT_EQ(gzip_bytes("hello").size(), session.content_length());
    EXPECT_EQ(server.url("/old"), session.url());
    EXPECT_EQ(server.url("/new"), session.current_url());
    EXPECT_EQ(5000000000, session.range_start());
    EXPECT_EQ(5000000024, session.range_end());
    EXPECT_EQ(6000000000, session.range_total());
    EXPECT_EQ(4294967296, session.last_modified());
    EXPECT_EQ("\"v2\"", session.etag());
    EXPECT_EQ("gzip", session.header("content-encoding"));
    EXPECT_EQ(std::nullopt, session.header("Server"));
    EXPECT_EQ(5u, session.body_bytes());
    EXPECT_EQ(tavhttp::content_encoding::gzip, session.content_encoding());
    ASSERT_TRUE(session.body_md5());
    EXPECT_EQ(0x5d, session.body_md5()->at(0));  // 5d41402abc4b2a76b9719d911017c592
    EXPECT_EQ(0x92, session.body_md5()->at(15));
    EXPECT_EQ("127.0.0.1", session.peer_address());
    EXPECT_THAT(session.header_all("set-cookie"), ElementsAre("a=1", "b=2"));
    EXPECT_THAT(session.header_all("Server"), IsEmpty());
}

// ------------------------------------------------------------------------------------ callbacks

TEST(CppCallbacks, ArriveInOrderWithTheirValues) {
    scripted_server server(std::vector<script>{reply_with(response(302, "", "Location: /new\r\n")),
                                               reply_with(response(200, "body"))});
    tavhttp::library library;
    std::vector<std::string> events;
    tavhttp::session session(get, server.url("/old"));
    http_session* handle = session.handle();
    session.on_connecting([&](session_ref s, std::string_view url) {
        EXPECT_EQ(handle, s.handle());
        events.push_back("connecting " + std::string(url));
    });
    session.on_connected([&](session_ref, std::string_view address) {
        events.push_back("connected " + std::string(address));
    });
    session.on_redirect([&](session_ref, std::string_view to, std::string_view from) {
        events.push_back("redirect " + std::string(from) + " " + std::string(to));
    });
    session.on_response_header([&](session_ref s) {
        events.push_back("header " + std::to_string(s.status_code().value_or(0)));
    });
    session.on_download_start(
        [&](session_ref, std::string_view url, std::uint64_t, std::uint64_t, std::uint64_t length) {
            events.push_back("start " + std::string(url) + " " + std::to_string(length));
        });
    session.on_download_data(
        [&](session_ref, std::uint64_t offset, const void* data, std::uint32_t length) {
            events.push_back("data " + std::to_string(offset) + " " +
                             std::string(static_cast<const char*>(data), length));
        });
    ASSERT_FALSE(run(session));
    std::string old_url = server.url("/old");
    std::string new_url = server.url("/new");
    EXPECT_THAT(events, ElementsAre("connecting " + old_url, "connected 127.0.0.1",
                                    "redirect " + old_url + " " + new_url, "connecting " + new_url,
                                    "connected 127.0.0.1", "header 200", "start " + new_url + " 4",
                                    "data 0 body"));
}

TEST(CppCallbacks, EmptyFunctionClears) {
    scripted_server server(reply_with(response(404, "body")));
    tavhttp::library library;
    tavhttp::session session(get, server.url());
    EXPECT_FALSE(session.keep_error_body());
    session.on_download_data([](auto...) { ADD_FAILURE(); });
    session.on_download_data(nullptr);
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, run(session));
    EXPECT_EQ("body", session.memory_body());
}

// A retry sends the body from its start: the sink begins anew, or says that it cannot.
TEST(CppCallbacks, SinkBeginsAnew) {
    struct {
        std::string second;
        bool can_go_back;
        errc code;
        std::string written;
    } cases[] = {
        {"abcdef", true, errc::ok, "abcdef"},
        {"ab", true, errc::fail_write_response_file, "abcd"},
        {"abcdef", false, errc::fail_write_response_file, "abcd"},
    };
    struct one_way : std::stringbuf {
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override {
            return off_type(-1);
        }
    };
    for (const auto& each : cases) {
        scripted_server server(std::vector<script>{
            {expect_request(), send_text(response(200, "")), expect_request(),
             send_text("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabcd"), close_now()},
            reply_with(response(200, each.second))});
        tavhttp::library library;
        tavhttp::session first(get, server.url()), session(get, server.url());
        EXPECT_FALSE(first.keep_alive(true));
        ASSERT_FALSE(run(first));
        std::stringbuf there_and_back;
        one_way only_there;
        std::ostream stream(each.can_go_back ? &there_and_back : &only_there);
        EXPECT_FALSE(session.body_to(stream));
        EXPECT_EQ(each.code, run(session));
        EXPECT_EQ(each.can_go_back ? 2u : 1u, server.connection_count());
        EXPECT_EQ(each.written, (each.can_go_back ? there_and_back : only_there).str());
    }
}

// A value that tells when the last function that captured it is gone.
std::pair<std::shared_ptr<int>, std::weak_ptr<int>> watched() {
    auto value = std::make_shared<int>(0);
    return {value, value};
}

// The session is gone while its callback runs on another thread: what the callback captured lives
// until it returns, and not longer.
TEST(CppCallbacks, OutliveTheSessionWhileTheyRun) {
    scripted_server server(reply_with(response(200, "body")));
    tavhttp::library library;
    auto [value, watch] = watched();
    std::promise<void> entered;
    std::promise<void> go_on;
    std::shared_future<void> may_return = go_on.get_future().share();
    {
        tavhttp::session session(get, server.url());
        session.on_response_header([&entered, may_return, held = value](session_ref s) {
            entered.set_value();
            may_return.wait();
            ++*held;
            EXPECT_EQ(200u, s.status_code());
        });
        session.on_complete([](auto...) { ADD_FAILURE() << "called after the close"; });
        value.reset();
        ASSERT_FALSE(session.send());
        ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(default_deadline));
    }
    EXPECT_FALSE(watch.expired());
    go_on.set_value();
    EXPECT_TRUE(wait_until([&watch = watch] { return watch.expired(); }));
}

// The owner goes inside the last callback, or behind it when other functions held it too.
TEST(CppCallbacks, MayDestroyTheirSession) {
    scripted_server server(always(response(200, "body")));
    tavhttp::library library;
    for (bool is_held_twice : {false, true}) {
        auto [value, watch] = watched();
        auto done = std::make_shared<std::promise<std::string>>();
        auto session = std::make_shared<tavhttp::session>(get, server.url());
        if (is_held_twice) {
            session->on_connecting([session](auto...) {});
        }
        session->on_complete([session, done, held = value](session_ref s, std::error_code) mutable {
            session.reset();
            done->set_value(s.memory_body().value_or(""));
        });
        value.reset();
        std::weak_ptr<tavhttp::session> owner = session;
        ASSERT_FALSE(session->send());
        session.reset();
        std::future<std::string> body = done->get_future();
        ASSERT_EQ(std::future_status::ready, body.wait_for(default_deadline));
        EXPECT_EQ("body", body.get());
        EXPECT_TRUE(
            wait_until([&owner, &watch = watch] { return owner.expired() && watch.expired(); }));
    }
}

TEST(CppSessions, MoveCarriesTheCallbacks) {
    scripted_server server(always(response(200, "body")));
    tavhttp::library library;
    tavhttp::session first(get, server.url("/first"));
    tavhttp::session second(get, server.url("/second"));
    auto [value, watch] = watched();
    second.on_connecting([held = value](auto...) { ADD_FAILURE(); });
    value.reset();
    second = std::move(first);
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(first);
    EXPECT_FALSE(run(second));
    EXPECT_EQ(server.url("/first"), second.url());
}

// Closed while the library is stopped: released by the next start, which the leak checker sees.
TEST(CppSessions, WithoutLibrary) {
    auto library = std::make_unique<tavhttp::library>();
    tavhttp::session session(get, "http://127.0.0.1/");
    library.reset();
    EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC, session.send());
    session.close();
    EXPECT_FALSE(session);
    library = std::make_unique<tavhttp::library>();
    EXPECT_FALSE(library->error());
    EXPECT_THAT(tavhttp::detail::get_registry().unreleased, IsEmpty());
}

// --------------------------------------------------------------------------------------- client

TEST(CppClient, WaitsOrGivesAFuture) {
    scripted_server server([](const received_request& request) {
        return response(request.target == "/none" ? 404 : 200, request.body + "body",
                        "X-Own: 1\r\n");
    });
    tavhttp::client client;
    ASSERT_FALSE(client.error());
    std::future<tavhttp::result> later = client.start(get, server.url());
    tavhttp::result result = client.post(server.url(), "sent ");
    EXPECT_TRUE(result);
    EXPECT_EQ(200u, result.status);
    EXPECT_EQ("sent body", result.body);
    EXPECT_EQ("1", result.header("x-own"));
    EXPECT_EQ(server.url(), result.url);
    EXPECT_EQ("body", later.get().body);
    EXPECT_EQ("the server answered 404 Status", client.get(server.url("/none")).message());
    EXPECT_EQ(errc::invalid_url, client.get("nonsense").code);
}

TEST(CppClient, GoesWithItsTransfers) {
    scripted_server silent(script{expect_request(), stall()});
    std::future<tavhttp::result> future;
    {
        tavhttp::client client;
        future = client.start(get, silent.url());
        EXPECT_TRUE(wait_until([&] { return silent.request_count() == 1; }));
    }
    ASSERT_EQ(std::future_status::ready, future.wait_for(milliseconds(0)));
    EXPECT_EQ(errc::cancel, future.get().code);
}

// To another host a redirect is followed with everything, without headers, or not at all.
TEST(CppClient, RedirectsToAnotherHost) {
    using policy = tavhttp::redirect_policy;
    struct {
        policy set;
        std::string path;
        std::uint32_t status;
        std::string header;  // of the request at the other host
    } cases[] = {
        {policy::follow, "/away", 200, "secret"}, {policy::same_host, "/away", 302, ""},
        {policy::same_host, "/stay", 200, ""},    {policy::without_headers, "/away", 200, ""},
        {policy::none, "/stay", 302, ""},
    };
    scripted_server other(always(response(200, "there")));
    std::string away = "http://LOCALHOST:" + std::to_string(other.port()) + "/";
    scripted_server server([&away](const received_request& request) {
        bool stays = request.target == "/stay";
        return request.target == "/"
                   ? response(200, "here")
                   : response(302, "", "Location: " + (stays ? "/" : away) + "\r\n");
    });
    tavhttp::client client;
    for (const auto& each : cases) {
        SCOPED_TRACE(static_cast<int>(each.set));
        std::size_t count = other.request_count();
        tavhttp::result result = client.get(server.url(each.path), [&](tavhttp::session& session) {
            session.redirects(each.set);
            session.add_header("X-Own", "secret");
            session.cookie("own=secret");
        });
        EXPECT_TRUE(result) << result.message();
        EXPECT_EQ(each.status, result.status);
        if (each.status == 200 && each.path == "/away") {
            EXPECT_EQ(each.header, other.request(count).header("X-Own"));
            EXPECT_EQ(!each.header.empty(), other.request(count).has_header("Cookie"));
        } else {
            EXPECT_EQ(count, other.request_count());
        }
    }
    for (const char* url :
         {"http://a@h/", "http://h?x/", "http://h#x", "http://i/", "ftp", "http://h\\x/"}) {
        EXPECT_FALSE(tavhttp::detail::is_same_host(url, "http://h/")) << url;
    }
    EXPECT_TRUE(tavhttp::detail::is_same_host("https://[::1]:8/", "http://[::1]/x"));
    EXPECT_FALSE(tavhttp::detail::is_same_host("http://h/", "https://h/"));
}

TEST(CppSettings, LogFunctionIsReplaced) {
    auto [value, watch] = watched();
    auto lines = std::make_shared<std::atomic<int>>(0);
    tavhttp::set_log(
        [lines, held = value](std::int32_t level, std::string_view tag, std::string_view text) {
            EXPECT_THAT(level, testing::AnyOf(1000, 2000, 3000));
            EXPECT_EQ("tavhttp", tag);
            *lines += text.empty() ? 0 : 1;
        });
    value.reset();
    {
        tavhttp::library library;
        tavhttp::session session(get, "http://127.0.0.1/");
        EXPECT_EQ(errc::TAV_HTTP_ERROR_CODE_OK, session.cancel());
        EXPECT_FALSE(session.send());
    }
    EXPECT_GT(*lines, 0);
    tavhttp::set_log(nullptr);
    EXPECT_TRUE(watch.expired());
}

}  // namespace
