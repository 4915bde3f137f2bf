// Every way to the target, broken in every way at every step of the conversation, while the host
// leaves the session alone or ends it in one of its ways: each session ends as it should, once,
// and leaves nothing open.
#include "tests/support/host.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

template <std::size_t size> std::string bytes(const char (&literal)[size]) {
    return std::string(literal, size - 1);
}

// Counts what the peer's thread does, for the test's thread to wait for.
class tally {
  public:
    void add() {
        std::lock_guard<std::mutex> guard(mutex_);
        count_++;
        changed_.notify_all();
    }
    bool wait_for(int count) {
        std::unique_lock<std::mutex> guard(mutex_);
        return changed_.wait_for(guard, default_deadline, [&] { return count_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

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

enum class moment {
    accepted,    // nothing answered yet
    greeted,     // SOCKS5: the greeting has come
    logging_in,  // SOCKS5: the login has come
    asked,       // a proxy: the target has come
    in_hello,    // TLS: half of the server's first messages are out
    requested,   // the request has come
    in_head,     // half of the response's head is out
    headed,      // all of it
    in_body,     // a part of the body too
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

std::vector<moment> moments_of(const route& way) {
    std::vector<moment> all = {moment::accepted};
    if (way.proxy == TAV_HTTP_PROXY_SOCKS5) {
        all.push_back(moment::greeted);
        if (way.login) {
            all.push_back(moment::logging_in);
        }
    }
    if (way.proxy != TAV_HTTP_PROXY_NONE) {
        all.push_back(moment::asked);
    }
    if (way.tls_version != 0) {
        all.push_back(moment::in_hello);
    }
    for (moment each : {moment::requested, moment::in_head, moment::headed, moment::in_body}) {
        all.push_back(each);
    }
    return all;
}

bool makes_sense(const plan& now) {
    bool proxied = before_the_tunnel(now.way, now.when);
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
    conversation(tls_peer& peer, const plan& now, tally& reached)
        : peer_(peer), plan_(now), reached_(reached) {
    }

    void run() {
        std::string request;
        if (!at(moment::accepted) || !open_tunnel() || !open_tls() || !read_request(&request) ||
            !at(moment::requested) || !write(head.substr(0, head.size() / 2)) ||
            !at(moment::in_head) || !write(head.substr(head.size() / 2)) || !at(moment::headed) ||
            !write(chunk_of(body.substr(0, 200))) || !at(moment::in_body)) {
            return;
        }
        write(chunk_of(body.substr(200)) + "0\r\n\r\n");
        peer_.wait_for_close();
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
        reached_.add();
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
        if (!peer_.raw_read(3, &seen) || !at(moment::greeted) ||
            !peer_.raw_write(plan_.way.login ? bytes("\x05\x02") : bytes("\x05\x00"))) {
            return false;
        }
        if (plan_.way.login && (!peer_.raw_read(11, &seen) || !at(moment::logging_in) ||
                                !peer_.raw_write(bytes("\x01\x00")))) {
            return false;
        }
        return peer_.raw_read(18, &seen) && at(moment::asked) &&
               peer_.raw_write(bytes("\x05\x00\x00\x01\x7f\x00\x00\x01\x1f\x90"));
    }

    bool open_tls() {
        std::string rest;
        return plan_.way.tls_version == 0 || (peer_.begin_accept(&rest) && at(moment::in_hello) &&
                                              peer_.raw_write(rest) && peer_.accept());
    }

    bool read_request(std::string* request) {
        return plan_.way.tls_version != 0 ? peer_.read_request(request)
                                          : peer_.raw_read_head(request);
    }

    bool write(const std::string& text) {
        return plan_.way.tls_version != 0 ? peer_.write(text) : peer_.raw_write(text);
    }

    tls_peer& peer_;
    const plan& plan_;
    tally& reached_;
};

tls_options options_of(const route& way) {
    tls_options options;
    options.version = way.tls_version;
    return options;
}

// ------------------------------------------------------------------------------------- the host

std::unique_ptr<transfer> open_transfer(const route& way, const tls_server& server,
                                        std::uint32_t method = TAV_HTTP_METHOD_GET) {
    char host[] = "127.0.0.1";
    char name[] = "user";
    proxy_info proxy = {};
    proxy.type = way.proxy;
    proxy.host = host;
    proxy.port = server.port();
    proxy.user_name = way.login ? name : nullptr;
    proxy.password = way.login ? name : nullptr;
    std::string scheme = way.tls_version != 0 ? "https://" : "http://";
    bool direct = way.proxy == TAV_HTTP_PROXY_NONE;
    std::string authority =
        direct ? "127.0.0.1:" + std::to_string(server.port()) : "target.test:8080";
    return std::make_unique<transfer>(scheme + authority + "/", method, direct ? nullptr : &proxy);
}

constexpr std::uint32_t any_negative = 0xFFFFFFFF;

// What becomes of a session that the host leaves alone.
std::uint32_t code_of(const plan& now) {
    if (now.what == fault::bytewise) {
        return 0;
    }
    if (before_the_tunnel(now.way, now.when)) {
        if (now.way.proxy == TAV_HTTP_PROXY_HTTP) {
            return now.what == fault::garbage ? TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT
                                              : TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV;
        }
        if (now.what == fault::garbage) {
            return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
        }
        // An empty reply is judged as a reply where a login or a target was sent.
        if (now.what == fault::close && now.when == moment::logging_in) {
            return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY;
        }
        if (now.what == fault::close && now.when == moment::asked) {
            return TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV;
        }
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
    switch (now.what) {
    case fault::garbage:
        return now.way.tls_version != 0 ? any_negative
                                        : std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE};
    case fault::stall:
        return TAV_HTTP_ERROR_CODE_RECV_TIMEOUT;
    default:
        return TAV_HTTP_ERROR_CODE_FAIL_RECV;
    }
}

// A plain connection that ends in order is tried once more; nothing else is.
int connections_of(const plan& now) {
    bool tried_again = now.what == fault::close && now.way.tls_version == 0 &&
                       !before_the_tunnel(now.way, now.when);
    return tried_again ? 2 : 1;
}

void expect_code(std::uint32_t expected, std::uint32_t code) {
    if (expected == any_negative) {
        EXPECT_LT(static_cast<std::int32_t>(code), 0) << code;
    } else {
        EXPECT_EQ(expected, code);
    }
}

// Waits until the session has got to the fault, ends it, and lets the fault happen.
void end_session(transfer& get, const plan& now, library& lib, tls_server& server, tally& reached,
                 const log_capture& log) {
    std::thread stopper;
    // A time-out that is early on a slow machine ends the session on its way there, just as well.
    EXPECT_TRUE(now.host == action::time_out || reached.wait_for(1));
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
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC}, get.close());
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
    tally reached, ended;
    tls_server server(
        [&](tls_peer& peer) {
            conversation(peer, now, reached).run();
            ended.add();
        },
        options_of(now.way));
    std::unique_ptr<transfer> get = open_transfer(now.way, server);
    if (now.what == fault::stall) {
        get->set(TAV_HTTP_OPTION_IO_TIMEOUT, 50);
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
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_CANCEL}, get->wait());
        break;
    case action::time_out:
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT}, get->wait());
        break;
    case action::close:
        EXPECT_TRUE(ended.wait_for(1)) << "the connection is not closed";
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
        for (moment when : moments_of(now.way)) {
            for (fault what :
                 {fault::close, fault::reset, fault::stall, fault::garbage, fault::bytewise}) {
                now.when = when;
                now.what = what;
                if (makes_sense(now)) {
                    SCOPED_TRACE(std::string(fault_names[static_cast<int>(what)]) + ", " +
                                 moment_names[static_cast<int>(when)]);
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

struct reuse_peer {
    const reuse_plan& now;
    tally first_done, broken;

    bool read(tls_peer& peer, std::string* request) const {
        std::size_t content = now.with_body && peer.index() > 0 ? body.size() : 0;
        if (now.way.tls_version != 0) {
            return peer.read_request(request);
        }
        std::string rest;
        if (!peer.raw_read_head(request) || !peer.raw_read(content, &rest)) {
            return false;
        }
        *request += rest;
        return true;
    }

    bool write(tls_peer& peer, const std::string& text) const {
        return now.way.tls_version != 0 ? peer.write(text) : peer.raw_write(text);
    }

    bool open(tls_peer& peer) const {
        std::string seen;
        bool ok = true;
        if (now.way.proxy == TAV_HTTP_PROXY_HTTP) {
            ok = peer.raw_read_head(&seen) && peer.raw_write("HTTP/1.1 200 OK\r\n\r\n");
        } else if (now.way.proxy == TAV_HTTP_PROXY_SOCKS5) {
            ok = peer.raw_read(3, &seen) &&
                 peer.raw_write(now.way.login ? bytes("\x05\x02") : bytes("\x05\x00")) &&
                 (!now.way.login ||
                  (peer.raw_read(11, &seen) && peer.raw_write(bytes("\x01\x00")))) &&
                 peer.raw_read(18, &seen) &&
                 peer.raw_write(bytes("\x05\x00\x00\x01\x7f\x00\x00\x01\x1f\x90"));
        }
        return ok && (now.way.tls_version == 0 || peer.accept());
    }

    void end(tls_peer& peer) {
        if (now.with_reset) {
            peer.reset();
            return;
        }
        peer.half_close();
        broken.add();
        peer.wait_for_close();
    }

    void first_connection(tls_peer& peer) {
        std::string request;
        if (!read(peer, &request) ||
            !write(peer, response(200, "1", "Connection: keep-alive\r\n"))) {
            return;
        }
        if (now.where == second_break::while_idle) {
            peer.wait_for_release();
        } else if (!read(peer, &request)) {
            return;
        }
        if (now.where == second_break::in_the_response) {
            write(peer, "HTTP/1.1 200 OK\r\nContent-Le");
        }
        end(peer);
    }

    void operator()(tls_peer& peer) {
        if (!open(peer)) {
            return;
        }
        if (peer.index() == 0) {
            first_connection(peer);
            broken.add();
            return;
        }
        std::string request;
        if (!read(peer, &request)) {
            return;
        }
        if (now.again) {
            end(peer);
            return;
        }
        std::string content = request.substr(request.find("\r\n\r\n") + 4);
        EXPECT_EQ(now.with_body ? body : "", content);
        write(peer, response(200, "2", "Connection: close\r\n"));
        peer.wait_for_close();
    }
};

void run_reuse(const reuse_plan& now) {
    reuse_peer peer{now, {}, {}};
    tls_server server([&](tls_peer& each) { peer(each); }, options_of(now.way));
    std::unique_ptr<transfer> first = open_transfer(now.way, server);
    EXPECT_EQ(0u, first->run());
    EXPECT_EQ("1", first->body());
    if (now.where == second_break::while_idle) {
        server.release();
        EXPECT_TRUE(peer.broken.wait_for(1));
    }
    std::uint32_t method = now.with_body ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET;
    std::unique_ptr<transfer> second = open_transfer(now.way, server, method);
    if (now.with_body) {
        second->set(TAV_HTTP_OPTION_APPEND_BODY, body.data(),
                    static_cast<std::uint32_t>(body.size()));
    }
    EXPECT_EQ(now.again ? std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_RECV} : 0u, second->run());
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
