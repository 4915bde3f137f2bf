// Every way to the target, broken in every manner at every step of the conversation, while the host
// leaves the session alone or ends it in one of its ways: each session ends as it should, once.
#include <gtest/gtest.h>

#include "support/transfers.h"

namespace {

const std::vector<way> ways = {
    way::plain, way::http_proxy, way::socks5,
#if TAV_HTTP_WITH_TLS
    way::tls12, way::tls13,      way::http_proxy_tls, way::socks5_tls,
#endif
};
const char* const way_names[] = {"Plain", "HttpProxy",    "Socks5",   "Tls12",
                                 "Tls13", "HttpProxyTls", "Socks5Tls"};

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
enum class fault {
    close,
    reset,
    stall,
    garbage,
    bytewise
};  // the last is none
enum class action {
    none,
    cancel,
    time_out,
    close,
    shut_down
};
const char* const action_names[] = {"Alone", "Cancelled", "TimedOut", "Closed", "ShutDown"};

struct plan {
    way through;
    moment when;
    fault what;
    action host;
};

bool is_socks(way through) {
    return through == way::socks5 || through == way::socks5_tls;
}

bool before_the_tunnel(const plan& now) {
    return is_proxied(now.through) && now.when <= moment::asked;
}

bool makes_sense(const plan& now) {
    if (((now.when == moment::greeted || now.when == moment::logging_in) &&
         !is_socks(now.through)) ||
        (now.when == moment::asked && !is_proxied(now.through)) ||
        (now.when == moment::in_hello && !is_tls(now.through))) {
        return false;
    }
    if (now.what == fault::stall) {
        // Only plain responses have a time-out that can be set. To a host that ends the session, a
        // stall that ends is a close.
        return now.host == action::none && !before_the_tunnel(now) && !is_tls(now.through);
    }
    // Proxies' replies are judged by what the first read brings.
    return now.what != fault::bytewise || !before_the_tunnel(now);
}

const std::string body = sample_bytes(600);
const std::string head =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n";
const std::string chunks[] = {"c8\r\n" + body.substr(0, 200) + "\r\n",
                              "190\r\n" + body.substr(200) + "\r\n0\r\n\r\n"};

// The peer's side of one connection, up to the fault. False ends the connection.
bool converse(wire& w, const plan& now, std::atomic<int>& reached) {
    auto at = [&](moment here) {  // true when the conversation goes on
        std::string first;
        if (here != now.when) {
            return true;
        }
        if (here == moment::accepted && now.what != fault::bytewise && !w.read(1, &first)) {
            return false;  // By its first byte the client knows of the connection.
        }
        reached++;
        if (now.host != action::none && !w.wait_for_release()) {
            return false;
        }
        if (now.what == fault::bytewise) {
            w.piece = 1;
            return true;
        }
        if (now.what == fault::close) {
            w.half_close();
        } else if (now.what == fault::reset) {
            w.reset();
        } else if (now.what == fault::garbage) {
            w.write_raw(std::string(20000, '\x01'));  // more than a begun record can still hold
        }
        return now.what != fault::reset && w.wait_for_close() && false;
    };
    received_request request;
    std::string seen, rest;
    bool open = at(moment::accepted);
    if (open && is_socks(now.through)) {
        open = w.read(3, &seen) && at(moment::greeted) && w.write_whole("\5\2") &&
               w.read(13, &seen) && at(moment::logging_in) && w.write_whole(bytes_of("\1\0")) &&
               w.read(18, &seen) && at(moment::asked) &&
               w.write_whole(bytes_of("\5\0\0\1\x7f\0\0\1\x1f\x90"));
    } else if (open && is_proxied(now.through)) {
        open = w.read_request(&request) && at(moment::asked) &&
               w.write_whole("HTTP/1.1 200 OK\r\n\r\n");
    }
    if (open && is_tls(now.through)) {
        open = w.begin_tls(&rest) && at(moment::in_hello) && w.write_raw(rest) && w.start_tls();
    }
    return open && w.read_request(&request) && at(moment::requested) &&
           w.write(head.substr(0, head.size() / 2)) && at(moment::in_head) &&
           w.write(head.substr(head.size() / 2)) && at(moment::headed) && w.write(chunks[0]) &&
           at(moment::in_body) && w.write(chunks[1]);
}

// What becomes of a session that the host leaves alone.
std::string code_of(const plan& now) {
    if (now.what == fault::bytewise) {
        return "OK";
    }
    bool garbage = now.what == fault::garbage, closed = now.what == fault::close;
    if (!before_the_tunnel(now)) {
        return garbage && is_tls(now.through) ? "negative"
               : garbage                      ? "FAIL_PARSE_RESPONSE"
               : now.what == fault::stall     ? "RECV_TIMEOUT"
                                              : "FAIL_RECV";
    }
    if (!is_socks(now.through)) {
        return garbage ? "CONNECT_PROXY_FAIL_CONNECT" : "CONNECT_PROXY_FAIL_RECV";
    }
    // An empty reply is judged as a reply where a login or a target was sent.
    return garbage || (closed && now.when == moment::logging_in) ? "CONNECT_PROXY_SVR_DENY"
           : closed && now.when == moment::asked                 ? "CONNECT_PROXY_FAIL_RECV"
                                                                 : "FAIL_RECV";
}

std::unique_ptr<transfer> open_transfer(way through, const peer& server,
                                        std::uint32_t method = TAV_HTTP_METHOD_GET) {
    proxy info(is_socks(through) ? TAV_HTTP_PROXY_SOCKS5 : TAV_HTTP_PROXY_HTTP, server.port(),
               "user", "secret");
    std::string scheme = is_tls(through) ? "https" : "http";
    return is_proxied(through)
               ? std::make_unique<transfer>(scheme + "://target.test:8080/", method, &info)
               : std::make_unique<transfer>(server.url("/", scheme), method);
}

void run_plan(const plan& now, library& lib) {
    log_capture log;
    std::atomic<int> reached{0};
    peer server([&](wire& w) { return converse(w, now, reached); }, options_of(now.through));
    std::unique_ptr<transfer> get = open_transfer(now.through, server);
    if (now.what == fault::stall) {
        get->set(TAV_HTTP_OPTION_IO_TIMEOUT, 100);
    }
    if (now.host == action::time_out) {
        get->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 15);
    }
    EXPECT_EQ("OK", get->send());
    // A time-out that is early on a slow machine ends the session on its way there, just as well.
    EXPECT_TRUE(now.host == action::time_out || wait_until([&] { return reached >= 1; }));
    std::thread stopper;
    if (now.host == action::cancel) {
        EXPECT_EQ("OK", get->cancel());
    } else if (now.host == action::time_out) {
        EXPECT_TRUE(log.wait_for_line("_on_session_timeout, id="));
    } else if (now.host == action::close) {
        EXPECT_EQ("FAIL_START_ASYNC", get->close());
    } else if (now.host == action::shut_down) {
        stopper = std::thread([&] { lib.shutdown(); });
        EXPECT_TRUE(log.wait_for_line("uninit_flow_start"));
    }
    server.release();
    if (stopper.joinable()) {
        stopper.join();
    }
    if (now.host == action::close) {
        EXPECT_TRUE(server.wait_for_disconnects(1)) << "the connection is not closed";
    } else if (now.host == action::none) {
        EXPECT_EQ(code_of(now), get->wait());
        EXPECT_TRUE(now.what != fault::bytewise || get->body() == body);
        // A plain connection that ends in order is tried once more; nothing else is.
        bool tried_again =
            now.what == fault::close && !is_tls(now.through) && !before_the_tunnel(now);
        EXPECT_EQ(tried_again ? 2u : 1u, server.connection_count());
    } else {
        EXPECT_EQ(now.host == action::time_out ? "SESSION_TIMEOUT" : "CANCEL", get->wait());
    }
    EXPECT_EQ(now.host == action::close ? 0 : 1, get->completions());
    lib.startup();  // The session is released while the library runs.
}

class Breaks : public testing::TestWithParam<std::tuple<std::size_t, int>> {};

TEST_P(Breaks, EndOnceAndLeaveNothing) {
    allow_assertion("_internal_notify_download_complete");  // for the engine's codes
    library lib;
    plan now = {ways[std::get<0>(GetParam())], moment::accepted, fault::close,
                static_cast<action>(std::get<1>(GetParam()))};
    for (int when = 0; when < static_cast<int>(moment::never); when++) {
        for (int what = 0; what <= static_cast<int>(fault::bytewise); what++) {
            now.when = static_cast<moment>(when);
            now.what = static_cast<fault>(what);
            if (makes_sense(now)) {
                SCOPED_TRACE("fault " + std::to_string(what) + ", moment " + std::to_string(when));
                run_plan(now, lib);
            }
        }
    }
}

std::string way_name(std::size_t number) {
    return way_names[static_cast<int>(ways[number])];
}

INSTANTIATE_TEST_SUITE_P(Every, Breaks,
                         testing::Combine(testing::Range(std::size_t{0}, ways.size()),
                                          testing::Range(0, 5)),
                         [](const auto& param) {
                             return way_name(std::get<0>(param.param)) +
                                    action_names[std::get<1>(param.param)];
                         });

// --------------------------------------------------------------------------- kept connections

enum class second_break {
    while_idle,
    at_the_request,
    in_the_response
};

struct reuse_plan {
    way through;
    second_break where;
    bool with_reset, with_body;
    bool again;  // the connection of the second attempt breaks too, at the request
};

bool serve_reuse(wire& w, const reuse_plan& now) {
    received_request request;
    if (w.index == 0) {
        if (!w.read_request(&request) ||
            !w.write(response(200, "1", "Connection: keep-alive\r\n"))) {
            return false;
        }
        if (now.where == second_break::while_idle) {
            w.wait_for_release();
        } else if (!w.read_request(&request)) {
            return false;
        }
        if (now.where == second_break::in_the_response) {
            w.write("HTTP/1.1 200 OK\r\nContent-Le");
        }
    } else if (!w.read_request(&request)) {
        return false;
    } else if (!now.again) {
        EXPECT_EQ(now.with_body ? body : "", request.body);
        return w.write(response(200, "2", "Connection: close\r\n"));
    }
    if (now.with_reset) {
        w.reset();
        return false;
    }
    if (is_tls(now.through) && now.with_body) {
        SSL_shutdown(w.ssl());
        w.flush();
    }
    w.half_close();
    w.owner.record({});
    return true;
}

void run_reuse(const reuse_plan& now) {
    peer server(open_way(now.through) + script{[&](wire& w) { return serve_reuse(w, now); }},
                options_of(now.through));
    std::unique_ptr<transfer> first = open_transfer(now.through, server);
    EXPECT_EQ("OK", first->run());
    EXPECT_EQ("1", first->body());
    if (now.where == second_break::while_idle) {
        server.release();
        EXPECT_TRUE(now.with_reset ? server.wait_for_disconnects(1) : server.wait_for_requests(1));
    }
    std::unique_ptr<transfer> second = open_transfer(now.through, server, now.with_body ? 2 : 1);
    if (now.with_body) {
        second->set_body(body);
    }
    EXPECT_EQ(now.again ? "FAIL_RECV" : "OK", second->run());
    EXPECT_EQ(now.again ? "" : "2", second->body());
    EXPECT_EQ(2u, server.connection_count()) << "one connection more, not two";
}

class Reuse : public testing::TestWithParam<std::size_t> {};

// A kept connection that breaks under a request: the request is made once more, with its body, on
// a new connection.
TEST_P(Reuse, BrokenConnectionIsReplacedOnce) {
    library lib;
    for (second_break where :
         {second_break::while_idle, second_break::at_the_request, second_break::in_the_response}) {
        for (int kind = 0; kind < 8; kind++) {
            reuse_plan now = {ways[GetParam()], where, (kind & 1) != 0, (kind & 2) != 0,
                              (kind & 4) != 0};
            SCOPED_TRACE("break " + std::to_string(static_cast<int>(where)) +
                         (now.with_reset ? ", reset" : ", close") +
                         (now.with_body ? ", POST" : ", GET") + (now.again ? ", again" : ""));
            run_reuse(now);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Every, Reuse, testing::Range(std::size_t{0}, ways.size()),
                         [](const auto& param) { return way_name(param.param); });

}  // namespace
