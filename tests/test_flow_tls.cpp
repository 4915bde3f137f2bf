// https transfers against a TLS server: versions, names, keep-alive, ends of all kinds, and servers
// that speak something else. Breaks in the middle are a matter of the fault matrix.
#include "tests/support/host.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>

#include <mutex>

namespace {

const char* const keep_alive = "Connection: keep-alive\r\n";

// What the server saw, written on its thread and read after the transfer.
class notes {
  public:
    void add(const std::string& text) {
        std::lock_guard<std::mutex> guard(mutex_);
        texts_.push_back(text);
    }
    std::string at(std::size_t index) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return index < texts_.size() ? texts_[index] : "";
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

// Notes the version, the asked name and the request, and answers once.
tls_server::behaviour answer_once(notes& seen, const std::string& answer) {
    return [&seen, answer](tls_peer& peer) {
        std::string request;
        if (peer.accept()) {
            seen.add(peer.version());
            seen.add(peer.server_name());
            if (peer.read_request(&request)) {
                seen.add(request);
                peer.write(answer);
                peer.wait_for_close();
            }
        }
    };
}

tls_options of_version(int version) {
    tls_options options;
    options.version = version;
    return options;
}

// One send of many records: a long head must leave whole before the answer is waited for.
TEST(Tls, RequestAndResponseInEachVersion) {
    const std::string body = sample_bytes(3000000);
    const std::string value(500000, 'v');
    library lib;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SCOPED_TRACE(version == TLS1_2_VERSION ? "1.2" : "1.3");
        notes seen;
        tls_server server(answer_once(seen, response(200, body)), of_version(version));
        transfer post(server.url("/path", "localhost"), TAV_HTTP_METHOD_POST);
        post.record();
        post.set(TAV_HTTP_OPTION_ADD_HEADER, "X-Large", "%s", value.c_str());
        post.set_body(body);
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ(200u, post.status());
        EXPECT_TRUE(body == post.body());
        EXPECT_EQ("127.0.0.1", post.peer());
        EXPECT_EQ("connecting connected progress header start complete", post.event_names());
        EXPECT_EQ(version == TLS1_2_VERSION ? "TLSv1.2" : "TLSv1.3", seen.at(0));
        EXPECT_EQ("localhost", seen.at(1));
        std::string request = seen.at(2);
        EXPECT_EQ(0u, request.find("POST /path HTTP/1.1\r\n"));
        EXPECT_NE(std::string::npos, request.find("X-Large: " + value + "\r\n"));
        EXPECT_TRUE(body == request.substr(request.find("\r\n\r\n") + 4));
        EXPECT_EQ(1, post.completions());
    }
}

TEST(Tls, CertificateNames) {
    using entries = std::vector<std::pair<std::string, std::string>>;
    auto named = [](const char* name) { return entries{{"O", "Test"}, {"CN", name}}; };
    const entries unnamed = {{"O", "Test"}, {"OU", "a.test"}};
    const std::string x(128, 'x');
    const entries far = {
        {"O", x.substr(64)},     {"L", x},        {"ST", x}, {"street", x + x + x + x + x},
        {"title", x.substr(64)}, {"CN", "a.test"}};
    const char* const none = "cname is empty, host=127.0.0.1";
    const char* const other = "host does not match cn, host=127.0.0.1, cname=b.test<->a.test";
    struct {
        const char* title;
        entries subject;
        bool expired;
        const char* expected;  // null: not set
        const char* line;      // of the log; null: accepted
    } cases[] = {
        {"any, expired", {{"CN", "other.test"}}, true, nullptr, nullptr},
        {"same", named("a.host.test"), false, "a.host.test", nullptr},
        {"case", named("A.Host.Test"), false, "a.hOST.test", nullptr},
        {"wildcard, none", named("*.host.test"), false, "host.test", nullptr},
        {"wildcard, two", named("*.host.test"), false, "a.b.host.test", nullptr},
        {"other name", named("b.test"), false, "a.test", other},
        {"name alone", {{"CN", "a.test"}}, false, "a.test", none},
        {"no name", unnamed, false, "a.test", none},
        {"beyond the readable part", far, false, "a.test", none},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        log_capture log;
        notes seen;
        tls_options options;
        options.subject = now.subject;
        options.expired = now.expired;
        tls_server server(answer_once(seen, response(200, "ok")), options);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, now.expected);
        EXPECT_EQ(now.line == nullptr ? 0u : code::tls_name, get.run());
        EXPECT_EQ(now.line == nullptr ? "ok" : "", get.body());
        if (now.line != nullptr) {
            EXPECT_TRUE(log.has_line(std::string("_verify_cname, ") + now.line, 2000));
        } else {
            bool asks = now.expected != nullptr && now.expected[0] != '\0';
            EXPECT_EQ(asks ? now.expected : "127.0.0.1", seen.at(1));
        }
    }
}

// New tickets and new keys come with and between the responses; one connection carries them all.
TEST(Tls, TicketsAndKeyUpdatesBetweenResponses) {
    library lib;
    const std::string body = sample_bytes(40000);
    tls_server server(
        [&](tls_peer& peer) {
            std::string request;
            bool ok = peer.accept();
            while (ok && peer.read_request(&request)) {
                ok = peer.new_ticket() && peer.update_keys() &&
                     peer.write(response(200, body, keep_alive)) && peer.update_keys() &&
                     peer.new_ticket();
            }
        },
        of_version(TLS1_3_VERSION));
    for (int i = 0; i < 5; i++) {
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set_body(body);
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ(body, post.body());
    }
    EXPECT_EQ(1, server.connection_count());
}

// A body without announced length ends with the connection; only a close-notify makes that an
// orderly end.
TEST(Tls, EndsOfABody) {
    const std::string open_end = "HTTP/1.1 200 OK\r\n\r\nall of it";
    const std::string announced = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nall of it";
    const char* const no_bytes = "_handle_pending_io_recv_callback, buf_len==0, conn-id=";
    const char* const fatal = "_handle_pending_io, fatal error, result=-1, err=1, msg=";
    auto notify = [](tls_peer& peer) { peer.close_notify(); };
    auto bare = [](tls_peer&) {};
    auto half_record = [](tls_peer& peer) { peer.write_half("the rest"); };
    auto damaged = [](tls_peer& peer) {
        peer.write_damaged("the rest");
        peer.wait_for_close();
    };
    struct {
        const char* title;
        const std::string& head;
        tls_server::behaviour end;
        std::uint32_t code;
        const char* line;
    } cases[] = {
        {"close-notify", open_end, notify, 0, ""},
        {"bare close", open_end, bare, code::recv, no_bytes},
        {"bare close, announced", announced, bare, code::recv, no_bytes},
        {"half a record", announced, half_record, code::recv, no_bytes},
        {"damaged record", announced, damaged, code::any_negative, fatal},
    };
    library lib;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const auto& now : cases) {
            SCOPED_TRACE(testing::Message() << now.title << ", version " << version);
            log_capture log;
            tls_server server(
                [&](tls_peer& peer) {
                    std::string request;
                    if (peer.accept() && peer.read_request(&request) && peer.write(now.head)) {
                        now.end(peer);
                    }
                },
                of_version(version));
            transfer get(server.url());
            expect_code(now.code, get.run());
            EXPECT_TRUE(now.code != 0 || get.body() == "all of it");
            EXPECT_TRUE(*now.line == 0 || log.has_line(now.line, 2000));
            EXPECT_EQ(1, get.completions());
            EXPECT_EQ(1, server.connection_count()) << "a new connection's failure is no retry";
        }
    }
}

TEST(Tls, SomethingElseInsteadOfAHandshake) {
    const step alert = send_text(bytes_of("\x15\x03\x03\x00\x02\x02\x28"));  // handshake failure
    const step half_record = send_text(bytes_of("\x16\x03\x03\x40\x00\x02\x00"));
    struct {
        const char* title;
        script steps;
        std::uint32_t code;
    } cases[] = {
        {"a plain response", {send_text(response(400, "no")), stall()}, code::any_negative},
        {"noise", {send_text(sample_bytes(5000)), stall()}, code::any_negative},
        {"an alert", {alert, stall()}, code::any_negative},
        {"a close", {read_bytes(1), half_close(), stall()}, code::recv},
        {"half a record", {half_record, half_close(), stall()}, code::recv},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        log_capture log;
        scripted_server server(now.steps);
        transfer get("https" + server.url().substr(4));
        get.record();
        expect_code(now.code, get.run());
        if (now.code == code::any_negative) {
            EXPECT_TRUE(log.has_line("_handle_pending_io, fatal error, result=-1, err=1", 2000));
        }
        EXPECT_EQ("connecting complete", get.event_names());
        EXPECT_TRUE(server.wait_for_disconnects(1)) << "a failed connection must not stay open";
    }
}

// Many connections at once: each has its own engine, and the workers are shared.
TEST(Tls, ManyAtOnce) {
    library lib;
    std::vector<std::unique_ptr<tls_server>> servers;
    std::vector<std::unique_ptr<transfer>> transfers;
    const std::string body = sample_bytes(100000);
    for (int i = 0; i < 8; i++) {
        servers.push_back(std::make_unique<tls_server>(answer_all(response(200, body))));
        transfers.push_back(std::make_unique<transfer>(servers.back()->url()));
    }
    for (auto& get : transfers) {
        get->send();
    }
    for (auto& get : transfers) {
        EXPECT_EQ(0u, get->wait());
        EXPECT_TRUE(body == get->body());
    }
}

}  // namespace
