// https transfers against a TLS server: versions, names, keep-alive, ends of all kinds, and servers
// that speak something else.
#include "tests/support/host.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

namespace {

const char* const keep_alive = "Connection: keep-alive\r\n";

constexpr std::uint32_t name_refused = 0x4000a;

// What the server saw, written on its thread and read after the transfer.
class notes {
  public:
    void add(const std::string& text) {
        std::lock_guard<std::mutex> guard(mutex_);
        texts_.push_back(text);
    }
    std::vector<std::string> all() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return texts_;
    }
    std::string first() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return texts_.empty() ? "" : texts_[0];
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

tls_options of_version(int version) {
    tls_options options;
    options.version = version;
    return options;
}

bool is_negative(std::uint32_t code) {
    return static_cast<std::int32_t>(code) < 0;
}

TEST(Tls, RequestAndResponseInEachVersion) {
    struct {
        int version;
        const char* name;
    } cases[] = {{TLS1_2_VERSION, "TLSv1.2"}, {TLS1_3_VERSION, "TLSv1.3"}};
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        notes seen;
        tls_server server(
            [&](tls_peer& peer) {
                std::string request;
                if (peer.accept() && peer.read_request(&request)) {
                    seen.add(peer.version());
                    seen.add(request);
                    peer.write(response(200, "hello"));
                    peer.wait_for_close();
                }
            },
            of_version(now.version));
        transfer post(server.url("/path"), TAV_HTTP_METHOD_POST);
        post.record();
        post.set(TAV_HTTP_OPTION_APPEND_BODY, "the body", 8u);
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ(200u, post.status());
        EXPECT_EQ("hello", post.body());
        EXPECT_EQ("127.0.0.1", post.peer());
        EXPECT_EQ("connecting connected progress header start complete", post.event_names());
        EXPECT_EQ(now.name, seen.first());
        ASSERT_EQ(2u, seen.all().size());
        EXPECT_EQ(0u, seen.all()[1].find("POST /path HTTP/1.1\r\n"));
        EXPECT_EQ("the body", seen.all()[1].substr(seen.all()[1].size() - 8));
        EXPECT_EQ(1, post.completions());
    }
}

// Every byte of the server comes alone: in the handshake, and in the response.
TEST(Tls, BytewiseServer) {
    library lib;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        tls_options options = of_version(version);
        options.piece = 1;
        tls_server server(answer_all(response(200, sample_bytes(300))), options);
        transfer get(server.url());
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(sample_bytes(300), get.body());
    }
}

TEST(Tls, CertificateNames) {
    using entries = std::vector<std::pair<std::string, std::string>>;
    struct {
        const char* title;
        entries subject;
        bool expired;
        const char* expected;  // null: not set
        std::uint32_t code;
        const char* line;  // of the log
    } cases[] = {
        {"any", {{"O", "Test"}, {"CN", "other.test"}}, false, nullptr, 0, nullptr},
        {"expired", {{"CN", "other.test"}}, true, nullptr, 0, nullptr},
        {"empty name", {{"CN", "other.test"}}, false, "", 0, nullptr},
        {"same", {{"O", "Test"}, {"CN", "a.host.test"}}, false, "a.host.test", 0, nullptr},
        {"same, expired", {{"O", "Test"}, {"CN", "a.host.test"}}, true, "a.host.test", 0, nullptr},
        {"case", {{"O", "Test"}, {"CN", "A.Host.Test"}}, false, "a.hOST.test", 0, nullptr},
        {"wildcard, none", {{"O", "Test"}, {"CN", "*.host.test"}}, false, "host.test", 0, nullptr},
        {"wildcard, two",
         {{"O", "Test"}, {"CN", "*.host.test"}},
         false,
         "a.b.host.test",
         0,
         nullptr},
        {"entries behind",
         {{"O", "Test"}, {"CN", "a.test"}, {"OU", "x"}},
         false,
         "a.test",
         0,
         nullptr},
        {"other name",
         {{"O", "Test"}, {"CN", "b.test"}},
         false,
         "a.test",
         name_refused,
         "_verify_cname, host does not match cn, host=127.0.0.1, cname=b.test<->a.test"},
        {"asterisk alone",
         {{"O", "Test"}, {"CN", "*host.test"}},
         false,
         "host.test",
         name_refused,
         "_verify_cname, host does not match cn, host=127.0.0.1, cname=*host.test<->host.test"},
        {"name alone",
         {{"CN", "a.test"}},
         false,
         "a.test",
         name_refused,
         "_verify_cname, cname is empty, host=127.0.0.1"},
        {"no name",
         {{"O", "Test"}, {"OU", "a.test"}},
         false,
         "a.test",
         name_refused,
         "_verify_cname, cname is empty, host=127.0.0.1"},
        {"no subject",
         {},
         false,
         "a.test",
         name_refused,
         "_verify_cname, cname is empty, host=127.0.0.1"},
        {"beyond the readable part",
         {{"O", std::string(64, 'x')},
          {"OU", std::string(64, 'x')},
          {"L", std::string(128, 'x')},
          {"ST", std::string(128, 'x')},
          {"street", std::string(600, 'x')},
          {"title", std::string(64, 'x')},
          {"CN", "a.test"}},
         false,
         "a.test",
         name_refused,
         "_verify_cname, cname is empty, host=127.0.0.1"},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        log_capture log;
        notes names;
        tls_options options;
        options.subject = now.subject;
        options.expired = now.expired;
        tls_server server(
            [&](tls_peer& peer) {
                std::string request;
                if (peer.accept()) {
                    names.add(peer.server_name());
                    if (peer.read_request(&request)) {
                        peer.write(response(200, "ok"));
                        peer.wait_for_close();
                    }
                }
            },
            options);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, now.expected);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(now.code == 0 ? "ok" : "", get.body());
        if (now.line != nullptr) {
            EXPECT_TRUE(log.has_line(now.line, 2000));
        }
        if (now.code == 0) {
            bool named = now.expected != nullptr && now.expected[0] != '\0';
            EXPECT_EQ(named ? now.expected : "127.0.0.1", names.first());
        }
    }
}

TEST(Tls, HostOfTheUrlIsAskedFor) {
    library lib;
    notes names;
    tls_server server([&](tls_peer& peer) {
        std::string request;
        if (peer.accept()) {
            names.add(peer.server_name());
            if (peer.read_request(&request) && peer.write(response(200, "ok"))) {
                peer.wait_for_close();
            }
        }
    });
    transfer get(server.url("/", "localhost"));
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("localhost", names.first());
}

// New tickets and new keys come with and between the responses; one connection carries them all.
TEST(Tls, TicketsAndKeyUpdatesBetweenResponses) {
    library lib;
    const std::string body = sample_bytes(40000);
    tls_server server(
        [&](tls_peer& peer) {
            std::string request;
            if (!peer.accept()) {
                return;
            }
            while (peer.read_request(&request)) {
                bool ok = peer.new_ticket() && peer.update_keys() &&
                          peer.write(response(200, body, keep_alive)) && peer.update_keys() &&
                          peer.new_ticket();
                if (!ok) {
                    return;
                }
            }
        },
        of_version(TLS1_3_VERSION));
    for (int i = 0; i < 5; i++) {
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_APPEND_BODY, body.data(), static_cast<std::uint32_t>(body.size()));
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ(body, post.body());
    }
    EXPECT_EQ(1, server.connection_count());
}

// A request head in one send of many records: all of it must leave before the answer is waited for.
TEST(Tls, SendLargerThanTheStagingBuffer) {
    library lib;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        notes seen;
        tls_server server(
            [&](tls_peer& peer) {
                std::string request;
                if (peer.accept() && peer.read_request(&request)) {
                    seen.add(request);
                    peer.write(response(200, "ok"));
                    peer.wait_for_close();
                }
            },
            of_version(version));
        const std::string value(500000, 'v');
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_ADD_HEADER, "X-Large", "%s", value.c_str());
        EXPECT_EQ(0u, get.run());
        EXPECT_NE(std::string::npos, seen.first().find("X-Large: " + value + "\r\n"));
    }
}

TEST(Tls, LargeBodiesBothWays) {
    library lib;
    const std::string body = sample_bytes(3000000);
    notes seen;
    tls_server server([&](tls_peer& peer) {
        std::string request;
        if (peer.accept() && peer.read_request(&request)) {
            seen.add(request.substr(request.find("\r\n\r\n") + 4));
            peer.write(response(200, body));
            peer.wait_for_close();
        }
    });
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.set(TAV_HTTP_OPTION_APPEND_BODY, body.data(), static_cast<std::uint32_t>(body.size()));
    EXPECT_EQ(0u, post.run());
    EXPECT_TRUE(body == post.body());
    EXPECT_TRUE(body == seen.first());
}

// A body without announced length ends with the connection; only a close-notify makes that an
// orderly end.
TEST(Tls, EndsOfABody) {
    const std::string open_end = "HTTP/1.1 200 OK\r\n\r\nall of it";
    const std::string announced = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nall of it";
    enum end {
        notify,
        bare,
        half_record,
        damaged
    };
    struct {
        const char* title;
        const std::string& head;
        end how;
        std::uint32_t code;  // 0xFFFFFFFF: any negative one
        const char* line;
    } cases[] = {
        {"close-notify", open_end, notify, 0, nullptr},
        {"bare close", open_end, bare, TAV_HTTP_ERROR_CODE_FAIL_RECV,
         "_handle_pending_io_recv_callback, buf_len==0, conn-id="},
        {"bare close, announced", announced, bare, TAV_HTTP_ERROR_CODE_FAIL_RECV,
         "_handle_pending_io_recv_callback, buf_len==0, conn-id="},
        {"half a record", announced, half_record, TAV_HTTP_ERROR_CODE_FAIL_RECV,
         "_handle_pending_io_recv_callback, buf_len==0, conn-id="},
        {"damaged record", announced, damaged, 0xFFFFFFFF,
         "_handle_pending_io, fatal error, result=-1, err=1, msg="},
    };
    library lib;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const auto& now : cases) {
            SCOPED_TRACE(now.title);
            log_capture log;
            tls_server server(
                [&](tls_peer& peer) {
                    std::string request;
                    if (!peer.accept() || !peer.read_request(&request) || !peer.write(now.head)) {
                        return;
                    }
                    switch (now.how) {
                    case notify:
                        peer.close_notify();
                        break;
                    case half_record:
                        peer.write_half("the rest");
                        break;
                    case damaged:
                        peer.write_damaged("the rest");
                        peer.wait_for_close();
                        break;
                    case bare:
                        break;
                    }
                },
                of_version(version));
            transfer get(server.url());
            std::uint32_t code = get.run();
            if (now.code == 0xFFFFFFFF) {
                EXPECT_TRUE(get.completed());
                EXPECT_TRUE(is_negative(code)) << code;
            } else {
                EXPECT_EQ(now.code, code);
            }
            if (now.code == 0) {
                EXPECT_EQ("all of it", get.body());
            }
            if (now.line != nullptr) {
                EXPECT_TRUE(log.has_line(now.line, 2000));
            }
            EXPECT_EQ(1, get.completions());
            EXPECT_EQ(1, server.connection_count()) << "a new connection's failure is no retry";
        }
    }
}

// An idle connection that the server has left is given up, and the request made on a new one.
TEST(Tls, ReusedConnectionThatEndedIsReplaced) {
    library lib;
    for (bool with_notify : {false, true}) {
        SCOPED_TRACE(with_notify);
        notes seen;
        tls_server server([&](tls_peer& peer) {
            std::string request;
            if (peer.accept() && peer.read_request(&request)) {
                peer.write(response(200, std::to_string(peer.index()), keep_alive));
                if (peer.index() == 0) {
                    peer.wait_for_release();
                    if (with_notify) {
                        peer.close_notify();
                    }
                } else {
                    peer.wait_for_close();
                }
            }
            seen.add("closed");
        });
        transfer first(server.url());
        EXPECT_EQ(0u, first.run());
        server.release();
        EXPECT_TRUE(wait_until([&] { return !seen.all().empty(); }));
        transfer second(server.url());
        EXPECT_EQ(0u, second.run());
        EXPECT_EQ("1", second.body());
        EXPECT_EQ(2, server.connection_count());
    }
}

TEST(Tls, SomethingElseInsteadOfAHandshake) {
    const std::string alert("\x15\x03\x03\x00\x02\x02\x28", 7);  // fatal, handshake failure
    const std::string half_record("\x16\x03\x03\x40\x00\x02\x00", 7);
    struct {
        const char* title;
        script steps;
        std::uint32_t code;  // 0xFFFFFFFF: any negative one
    } cases[] = {
        {"a plain response", {send_text(response(400, "no")), stall()}, 0xFFFFFFFF},
        {"noise", {send_text(sample_bytes(5000)), stall()}, 0xFFFFFFFF},
        {"noise, bytewise", {send_bytewise(std::string(200, '\xee')), stall()}, 0xFFFFFFFF},
        {"zeros", {send_text(std::string(100, '\0')), stall()}, 0xFFFFFFFF},
        {"an alert", {send_text(alert), stall()}, 0xFFFFFFFF},
        {"a close", {read_bytes(1), half_close(), stall()}, TAV_HTTP_ERROR_CODE_FAIL_RECV},
        {"half a record",
         {send_text(half_record), half_close(), stall()},
         TAV_HTTP_ERROR_CODE_FAIL_RECV},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        log_capture log;
        scripted_server server(now.steps);
        transfer get("https://127.0.0.1:" + std::to_string(server.port()) + "/");
        get.record();
        std::uint32_t code = get.run();
        EXPECT_TRUE(get.completed());
        if (now.code == 0xFFFFFFFF) {
            EXPECT_TRUE(is_negative(code)) << code;
            EXPECT_TRUE(log.has_line("_handle_pending_io, fatal error, result=-1, err=1", 2000));
        } else {
            EXPECT_EQ(now.code, code);
        }
        EXPECT_EQ("connecting complete", get.event_names());
        EXPECT_TRUE(server.wait_for_disconnects(1)) << "a failed connection must not stay open";
    }
}

// The handshake stalls beyond the session's time; the session ends with the step that it waits in.
TEST(Tls, SessionTimeOutDuringAStalledHandshake) {
    library lib;
    log_capture log;
    scripted_server server({read_bytes(1), stall(), close_now()});
    transfer get("https://127.0.0.1:" + std::to_string(server.port()) + "/");
    get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 50);
    get.send();
    EXPECT_TRUE(log.wait_for_line("_on_session_timeout, id="));
    EXPECT_FALSE(get.completed());
    server.release();
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT}, get.wait());
}

// Closing the session at any moment of a TLS transfer ends it without a trace.
TEST(Tls, ClosedAtEveryStage) {
    descriptor_guard descriptors;
    {
        library lib;
        tls_server server(answer_all(response(200, sample_bytes(200000))));
        for (const char* stage : {"connecting", "connected", "progress", "header", "start"}) {
            SCOPED_TRACE(stage);
            std::atomic<bool> closed{false};
            transfer get(server.url());
            get.record();
            get.at(stage, [&](transfer& self) {
                self.close();
                closed = true;
            });
            get.send();
            EXPECT_TRUE(wait_until([&] { return closed.load(); }));
        }
        for (int i = 0; i < 10; i++) {
            transfer get(server.url());
            get.send();  // Closed by its destructor, wherever it is by then.
        }
        transfer last(server.url());
        EXPECT_EQ(0u, last.run());
        EXPECT_EQ(sample_bytes(200000), last.body());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// Many connections at once: each has its own engine, and the workers are shared.
TEST(Tls, ManyAtOnce) {
    library lib;
    std::vector<std::unique_ptr<tls_server>> servers;
    std::vector<std::unique_ptr<transfer>> transfers;
    const std::string body = sample_bytes(100000);
    for (int i = 0; i < 8; i++) {
        servers.push_back(std::make_unique<tls_server>(answer_all(response(200, body))));
    }
    for (int i = 0; i < 8; i++) {
        transfers.push_back(std::make_unique<transfer>(servers[i]->url()));
        transfers.back()->send();
    }
    for (auto& get : transfers) {
        EXPECT_EQ(0u, get->wait());
        EXPECT_TRUE(body == get->body());
    }
}

}  // namespace
