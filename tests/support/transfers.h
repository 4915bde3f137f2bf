// The one table of transfers. Every row is run plainly in every way, with each of its calls failing
// in turn, ended by its host at each of its stages, and at random by the soak; what must hold then
// is checked here, once and for all.
#ifndef TESTS_SUPPORT_TRANSFERS_H
#define TESTS_SUPPORT_TRANSFERS_H

#include <string>
#include <vector>

#include "support/host.h"

// How the target is reached.
enum class way {
    plain,
    http_proxy,
    socks5,
    tls12,
    tls13,
    http_proxy_tls,
    socks5_tls,
    by_default
};

bool is_tls(way through);
bool is_proxied(way through);
// What the peer says and does before the request comes. Both proxies want the login user, secret.
script open_way(way through);
peer_options options_of(way through);

// Where the body goes.
enum class target {
    memory,
    file,
    chosen_file,
    data
};

struct row_options {
    std::string code = "OK";  // otherwise the body stays in memory and no file is written
    std::uint32_t method = TAV_HTTP_METHOD_GET;
    transfer::action set = [](transfer&) {};
    way through = way::plain;
    std::string head = "";        // a piece of the last request's head
    std::string upload = "";      // its body; @ stands for the boundary of a form
    std::string before = "";      // in the file at the start
    std::string after = "";       // in the file, where what arrives stays; empty: the body
    bool whole_only = false;      // not in pieces
    int sessions = 1;             // one after the other
    std::size_t connections = 0;  // that they make; 0: one per script
};

struct transfer_row : row_options {
    transfer_row(std::string named, std::vector<script> scripts, std::string gives,
                 row_options more = {})
        : row_options(std::move(more)), name(std::move(named)), serve(std::move(scripts)),
          body(std::move(gives)), only_file(!before.empty() || !after.empty()) {
    }
    transfer_row(std::string named, const std::string& answer, std::string gives,
                 row_options more = {})
        : transfer_row(std::move(named), std::vector<script>{reply_with(answer)}, std::move(gives),
                       std::move(more)) {
    }
    bool takes(target where) const {
        return !only_file || where == target::file;
    }

    std::string name;
    std::vector<script> serve;  // behind the way
    std::string body;           // that the host gets
    bool only_file;
};

const std::vector<transfer_row>& transfer_rows();

// One run of a row, with files below the current directory. Nothing is asserted when it has been
// disturbed, by a failing call or by its host, but what holds nevertheless.
class row_run : not_copied {
  public:
    // `piece`: the peer's bytes leave in pieces of that size; 0: whole.
    row_run(const transfer_row& row, target where, std::size_t piece = 0,
            const std::string& file = "out.bin");

    // The next session; its options are set.
    std::unique_ptr<transfer> open();
    // Behind the end of one. An empty text: all is as it should be.
    std::string judge(const transfer& one, const std::string& code, bool disturbed) const;

    const transfer_row& row;
    peer server;
    int opened = 0;  // sessions so far; the last one's request is judged

  private:
    std::string judge_body(const transfer& one) const;
    std::string judge_request(bool disturbed) const;
    std::string judge_file(const std::string& code) const;

    const target where_;
    const std::string file_;
};

#endif
