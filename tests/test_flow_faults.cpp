// Every way to the target, broken in every way at every step of the conversation, while the host
// leaves the session alone or ends it in one of its ways: each session ends as it should, once,
// and leaves nothing open.
#include "tests/support/host.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using counter = std::atomic<int>;  // of what the peer's thread has done

bool wait_for_one(const counter& count) {
    return wait_until([&] { return count >= 1; });
}

// ------------------------------------------------------------------------------- the dimensions

struct route {
    const char* name;
    std::uint32_t proxy;
    bool login;       // the proxy wants one
    int tls_version;  // 0: plain
};

constexpr route routes[] = {
    {"Plain", TAV_HTTP_PROXY_NONE, false, 0},
    {"HttpProxy", TAV_HTTP_PROXY_HTTP, true, 0},
    {"Socks5", TAV_HTTP_PROXY_SOCKS5, true, 0},
#if TAV_HTTP_WITH_TLS
    {"Tls12", TAV_HTTP_PROXY_NONE, false, TLS1_2_VERSION},
    {"Tls13", TAV_HTTP_PROXY_NONE, false, TLS1_3_VERSION},
    {"HttpProxyTls", TAV_HTTP_PROXY_HTTP, false, TLS1_3_VERSION},
    {"Socks5Tls", TAV_HTTP_PROXY_SOCKS5, false, TLS1_2_VERSION},
#endif
};

// What the peer has seen or done when the fault comes.
enum class moment {
    accepted,
    greeted,     // SOCKS5: the greeting has come
    logging_in,  // SOCKS5: the login has come
    asked,       // a proxy: the target has come
    in_hello,    // TLS: half of the server's first messages are out
    requested,
    in_head,  // half of the response's head is out
    headed,   // all of it
    in_body,  // a part of the body too
    never,
};

const char* const moment_names[] = {"accepted",  "greeted", "logging in", "asked",  "in hello",
                                    "requested", "in head", "headed",     "in body"};

enum class fault {
    close,  // the peer ends its sending direction
    reset,
    stall,  // nothing more comes
    garbage,
    bytewise,  // no fault: the rest comes byte by byte
};

const char* const fault_names[] = {"close", "reset", "stall", "garbage", "bytewise"};

enum class action {
    none,
    cancel,
    time_out,
    close,
    shut_down
};

const char* const action_names[] = {"Alone", "Cancelled", "TimedOut", "Closed", "ShutDown"};

struct plan {
    route way;
    moment when;
    fault what;
    action host;
};

bool before_the_tunnel(const route& way, moment when) {
    return way.proxy != TAV_HTTP_PROXY_NONE && when <= moment::asked;
}

bool makes_sense(const plan& now) {
    bool proxied = before_the_tunnel(now.way, now.when);
    if ((now.when == moment::greeted && now.way.proxy != TAV_HTTP_PROXY_SOCKS5) ||
        (now.when == moment::logging_in &&
         (now.way.proxy != TAV_HTTP_PROXY_SOCKS5 || !now.way.login)) ||
        (now.when == moment::asked && now.way.proxy == TAV_HTTP_PROXY_NONE) ||
        (now.when == moment::in_hello && now.way.tls_version == 0)) {
        return false;
    }
    switch (now.what) {
    case fault::stall:
        // Only plain responses have a time-out that can be set. To a host that ends the session, a
        // stall that ends is a close.
        return now.host == action::none && !proxied && now.way.tls_version == 0;
    case fault::bytewise:
        return !proxied;  // Proxies' replies are judged by what the first read brings.
    default:
        return true;
    }
}

// ------------------------------------------------------------------------------------- the peer

const std::string body = sample_bytes(600);

const std::string head =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n";

std::string chunk_of(const std::string& data) {
    char size[16];
    std::snprintf(size, sizeof size, "%zx\r\n", data.size());
    return size + data + "\r\n";
}

// The peer's side of one connection, up to the fault.
class conversation {
  public:
    conversation(tls_peer& peer, const plan& now, counter& reached)
        : peer_(peer), plan_(now), reached_(reached) {
    }

    void run() {
        std::string request;
        if (open() && read_request(&request) && at(moment::requested) &&
            write(head.substr(0, head.size() / 2)) && at(moment::in_head) &&
            write(head.substr(head.size() / 2)) && at(moment::headed) &&
            write(chunk_of(body.substr(0, 200))) && at(moment::in_body)) {
            write(chunk_of(body.substr(200)) + "0\r\n\r\n");
            peer_.wait_for_close();
        }
    }

    bool open() {
        return at(moment::accepted) && open_tunnel() && open_tls();
    }

    bool read_request(std::string* request, std::size_t content = 0) {
        if (plan_.way.tls_version != 0) {
            return peer_.read_request(request);
        }
        std::string rest;
        bool complete = peer_.raw_read_head(request) && peer_.raw_read(content, &rest);
        *request += rest;
        return complete;
    }

    bool write(const std::string& text) {
        return plan_.way.tls_version != 0 ? peer_.write(text) : peer_.raw_write(text);
    }

  private:
    // True when the conversation goes on.
    bool at(moment here) {
        if (here != plan_.when) {
            return true;
        }
        std::string first;
        if (here == moment::accepted && plan_.what != fault::bytewise &&
            !peer_.raw_read(1, &first)) {
            return false;  // By its first byte the client knows of the connection.
        }
        reached_++;
        if (plan_.host != action::none && !peer_.wait_for_release()) {
            return false;
        }
        switch (plan_.what) {
        case fault::close:
            peer_.half_close();
            break;
        case fault::reset:
            peer_.reset();
            return false;
        case fault::garbage:
            // More than any record that has been begun can still hold.
            peer_.raw_write(std::string(20000, '\x01'));
            break;
        case fault::stall:
            break;
        case fault::bytewise:
            peer_.send_in_pieces(1);
            return true;
        }
        peer_.wait_for_close();
        return false;
    }

    bool open_tunnel() {
        std::string seen;
        if (plan_.way.proxy == TAV_HTTP_PROXY_HTTP) {
            return peer_.raw_read_head(&seen) && at(moment::asked) &&
                   peer_.raw_write("HTTP/1.1 200 OK\r\n\r\n");
        }
        if (plan_.way.proxy == TAV_HTTP_PROXY_NONE) {
            return true;
        }
        const bool login = plan_.way.login;
        return peer_.raw_read(3, &seen) && at(moment::greeted) &&
               peer_.raw_write(login ? bytes_of("\x05\x02") : bytes_of("\x05\x00")) &&
               (!login || (peer_.raw_read(11, &seen) && at(moment::logging_in) &&
                           peer_.raw_write(bytes_of("\x01\x00")))) &&
               peer_.raw_read(18, &seen) && at(moment::asked) &&
               peer_.raw_write(bytes_of("\x05\x00\x00\x01\x7f\x00\x00\x01\x1f\x90"));
    }

    bool open_tls() {
        std::string rest;
        return plan_.way.tls_version == 0 || (peer_.begin_accept(&rest) && at(moment::in_hello) &&
                                              peer_.raw_write(rest) && peer_.accept());
    }

    tls_peer& peer_;
    const plan& plan_;
    counter& reached_;
};

tls_options options_of(const route& way) {
    tls_options options;
    options.version = way.tls_version;
    return options;
}

// ------------------------------------------------------------------------------------- the host

std::unique_ptr<transfer> open_transfer(const route& way, const tls_server& server,
                                        std::uint32_t method = TAV_HTTP_METHOD_GET) {
    const char* user = way.login ? "user" : nullptr;
    proxy_record proxy(way.proxy, server.port(), user, user);
    std::string scheme = way.tls_version != 0 ? "https://" : "http://";
    bool direct = way.proxy == TAV_HTTP_PROXY_NONE;
    std::string authority =
        direct ? "127.0.0.1:" + std::to_string(server.port()) : "target.test:8080";
    return std::make_unique<transfer>(scheme + authority + "/", method,
                                      direct ? nullptr : proxy.get());
}

// What becomes of a session that the host leaves alone.
std::uint32_t code_of(const plan& now) {
    if (now.what == fault::bytewise) {
        return 0;
    }
    if (!before_the_tunnel(now.way, now.when)) {
        bool garbage = now.what == fault::garbage;
        return garbage && now.way.tls_version != 0 ? code::any_negative
               : garbage                           ? code::parse
               : now.what == fault::stall          ? code::recv_timeout
                                                   : code::recv;
    }
    if (now.way.proxy == TAV_HTTP_PROXY_HTTP) {
        return now.what == fault::garbage ? code::proxy_connect : code::proxy_recv;
    }
    // An empty reply is judged as a reply where a login or a target was sent.
    bool closed = now.what == fault::close;
    bool denied = now.what == fault::garbage || (closed && now.when == moment::logging_in);
    return denied                                ? code::proxy_denied
           : closed && now.when == moment::asked ? code::proxy_recv
                                                 : code::recv;
}

// A plain connection that ends in order is tried once more; nothing else is.
int connections_of(const plan& now) {
    bool tried_again = now.what == fault::close && now.way.tls_version == 0 &&
                       !before_the_tunnel(now.way, now.when);
    return tried_again ? 2 : 1;
}

// Waits until the session has got to the fault, ends it, and lets the fault happen.
void end_session(transfer& get, const plan& now, library& lib, tls_server& server, counter& reached,
                 const log_capture& log) {
    std::thread stopper;
    // A time-out that is early on a slow machine ends the session on its way there, just as well.
    EXPECT_TRUE(now.host == action::time_out || wait_for_one(reached));
    switch (now.host) {
    case action::none:
        break;
    case action::cancel:
        EXPECT_EQ(0u, get.cancel());
        break;
    case action::time_out:
        EXPECT_TRUE(log.wait_for_line("_on_session_timeout, id="));
        break;
    case action::close:
        EXPECT_EQ(code::closing, get.close());
        break;
    case action::shut_down:
        stopper = std::thread([&] { lib.shutdown(); });
        EXPECT_TRUE(log.wait_for_line("uninit_flow_start"));
        break;
    }
    server.release();
    if (stopper.joinable()) {
        stopper.join();
    }
}

void run_plan(const plan& now, library& lib) {
    log_capture log;
    counter reached{0}, ended{0};
    tls_server server(
        [&](tls_peer& peer) {
            conversation(peer, now, reached).run();
            ended++;
        },
        options_of(now.way));
    std::unique_ptr<transfer> get = open_transfer(now.way, server);
    if (now.what == fault::stall) {
        get->set(TAV_HTTP_OPTION_IO_TIMEOUT, 300);
    }
    if (now.host == action::time_out) {
        get->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 25);
    }
    EXPECT_EQ(0u, get->send());
    end_session(*get, now, lib, server, reached, log);
    switch (now.host) {
    case action::none:
        expect_code(code_of(now), get->wait());
        EXPECT_EQ(connections_of(now), server.connection_count());
        EXPECT_TRUE(now.what != fault::bytewise || get->body() == body);
        break;
    case action::cancel:
    case action::shut_down:
        EXPECT_EQ(code::cancel, get->wait());
        break;
    case action::time_out:
        EXPECT_EQ(code::session_timeout, get->wait());
        break;
    case action::close:
        EXPECT_TRUE(wait_for_one(ended)) << "the connection is not closed";
        break;
    }
    EXPECT_EQ(now.host == action::close ? 0 : 1, get->completions());
    lib.startup();  // The session is released while the library runs.
}

class Faults : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(Faults, EndOnceAndLeaveNothing) {
    descriptor_guard descriptors;
    {
        library lib;
        plan now = {};
        now.way = routes[std::get<0>(GetParam())];
        now.host = static_cast<action>(std::get<1>(GetParam()));
        for (int when = 0; when < static_cast<int>(moment::never); when++) {
            for (int what = 0; what < static_cast<int>(std::size(fault_names)); what++) {
                now.when = static_cast<moment>(when);
                now.what = static_cast<fault>(what);
                if (makes_sense(now)) {
                    SCOPED_TRACE(std::string(fault_names[what]) + ", " + moment_names[when]);
                    run_plan(now, lib);
                }
            }
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

INSTANTIATE_TEST_SUITE_P(Every, Faults,
                         testing::Combine(testing::Range(0, static_cast<int>(std::size(routes))),
                                          testing::Range(0, 5)),
                         [](const auto& param) {
                             return std::string(routes[std::get<0>(param.param)].name) +
                                    action_names[std::get<1>(param.param)];
                         });

// --------------------------------------------------------------------------- kept connections

// Where the second exchange on a kept connection breaks.
enum class second_break {
    while_idle,
    at_the_request,
    in_the_response
};

const char* const break_names[] = {"while idle", "at the request", "in the response"};

struct reuse_plan {
    route way;
    second_break where;
    bool with_reset;
    bool with_body;
    bool again;  // the connection of the second attempt breaks too, at the request
};

// The server's side of both connections. `broken` counts the ends of the first.
void serve_reuse(tls_peer& peer, const reuse_plan& now, counter& broken) {
    counter unused{0};
    const plan quiet = {now.way, moment::never, fault::close, action::none};
    conversation talk(peer, quiet, unused);
    std::string request;
    std::size_t content = now.with_body && peer.index() > 0 ? body.size() : 0;
    if (!talk.open() || !talk.read_request(&request, content)) {
        return;
    }
    if (peer.index() == 0) {
        if (!talk.write(response(200, "1", "Connection: keep-alive\r\n"))) {
            return;
        }
        if (now.where == second_break::while_idle) {
            peer.wait_for_release();
        } else if (!talk.read_request(&request)) {
            return;
        }
        if (now.where == second_break::in_the_response) {
            talk.write("HTTP/1.1 200 OK\r\nContent-Le");
        }
    } else if (!now.again) {
        EXPECT_EQ(now.with_body ? body : "", request.substr(request.find("\r\n\r\n") + 4));
        talk.write(response(200, "2", "Connection: close\r\n"));
        peer.wait_for_close();
        return;
    }
    if (now.with_reset) {
        peer.reset();
        broken++;
        return;
    }
    if (now.way.tls_version != 0 && now.with_body) {
        peer.close_notify();
    }
    peer.half_close();
    broken++;
    peer.wait_for_close();
}

void run_reuse(const reuse_plan& now) {
    counter broken{0};
    tls_server server([&](tls_peer& peer) { serve_reuse(peer, now, broken); }, options_of(now.way));
    std::unique_ptr<transfer> first = open_transfer(now.way, server);
    EXPECT_EQ(0u, first->run());
    EXPECT_EQ("1", first->body());
    if (now.where == second_break::while_idle) {
        server.release();
        EXPECT_TRUE(wait_for_one(broken));
    }
    std::uint32_t method = now.with_body ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET;
    std::unique_ptr<transfer> second = open_transfer(now.way, server, method);
    if (now.with_body) {
        second->set_body(body);
    }
    EXPECT_EQ(now.again ? code::recv : 0u, second->run());
    EXPECT_EQ(now.again ? "" : "2", second->body());
    EXPECT_EQ(2, server.connection_count()) << "one connection more, not two";
    EXPECT_EQ(1, second->completions());
}

class Reuse : public testing::TestWithParam<int> {};

// A kept connection that breaks under a request: the request is made once more, with its body, on
// a new connection.
TEST_P(Reuse, BrokenConnectionIsReplacedOnce) {
    descriptor_guard descriptors;
    {
        library lib;
        for (second_break where : {second_break::while_idle, second_break::at_the_request,
                                   second_break::in_the_response}) {
            for (int kind = 0; kind < 8; kind++) {
                reuse_plan now = {routes[GetParam()], where, (kind & 1) != 0, (kind & 2) != 0,
                                  (kind & 4) != 0};
                SCOPED_TRACE(std::string(break_names[static_cast<int>(where)]) +
                             (now.with_reset ? ", reset" : ", close") +
                             (now.with_body ? ", POST" : ", GET") + (now.again ? ", again" : ""));
                run_reuse(now);
            }
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

INSTANTIATE_TEST_SUITE_P(Every, Reuse, testing::Range(0, static_cast<int>(std::size(routes))),
                         [](const auto& param) { return std::string(routes[param.param].name); });

}  // namespace
