#include "tests/soak/soak_servers.h"

#include "tests/soak/soak_bodies.h"
#include "tests/support/host.h"

namespace {

constexpr std::size_t behind_proxies = 7;  // index of a body of some buffers

// One exchange per connection: the TLS server takes one connection after the other.
void answer_one(tls_peer& peer) {
    std::string request;
    if (!peer.accept() || !peer.read_request(&request)) {
        return;
    }
    std::size_t method_end = request.find(' ');
    std::size_t target_end = request.find(' ', method_end + 1);
    std::string answer = answer_request(request.substr(0, method_end),
                                        request.substr(method_end + 1, target_end - method_end - 1),
                                        "", request.substr(request.find("\r\n\r\n") + 4));
    answer.insert(answer.find("\r\n") + 2, "Connection: close\r\n");
    peer.write(answer);
}

void break_tls(tls_peer& peer) {
    std::string request;
    switch (peer.index() % 4) {
    case 0:
        peer.raw_write("this is no handshake\r\n");
        break;
    case 1:
        if (peer.accept() && peer.read_request(&request)) {
            peer.write_damaged(response(200, "damaged"));
        }
        break;
    case 2:
        if (peer.accept() && peer.read_request(&request)) {
            peer.write_half(response(200, "half"));
        }
        break;
    default:
        if (peer.begin_accept(&request)) {
            peer.reset();
        }
        break;
    }
}

std::string closing_response(const std::string& body) {
    return response(200, body, "Connection: close\r\n");
}

}  // namespace

void write_peer_files(const soak_peers& peers) {
    for (std::size_t i = 0; i < soak_bodies().size(); i++) {
        write_file(peers.root + peer_path(i), soak_bodies()[i].bytes);
    }
}

std::string peer_path(std::size_t index) {
    return "/body" + std::to_string(index);
}

std::string soak_servers::proxied_url() {
    return "http://target.test/x";
}

std::size_t soak_servers::proxied_body() {
    return behind_proxies;
}

soak_servers::soak_servers()
    : good_([](const received_request& request) {
          return answer_request(request.method, request.target, request.header("Range"),
                                request.body);
      }) {
    using namespace std::string_literals;
    tls_options bytes_in_pieces;
    bytes_in_pieces.piece = 3000;
    tls_.push_back(std::make_unique<tls_server>(answer_one));
    tls_.push_back(std::make_unique<tls_server>(answer_one, bytes_in_pieces));
    stalling_ = std::make_unique<scripted_server>(script{
        expect_request(), send_text(response(200, sample_bytes(50000)).substr(0, 30000)), stall()});
    const std::string& proxied = soak_bodies()[behind_proxies].bytes;
    http_proxy_ = std::make_unique<scripted_server>(
        script{expect_request(), send_text("HTTP/1.1 200 Established\r\n\r\n"), expect_request(),
               send_text(closing_response(proxied))});
    // A greeting without login, then the name target.test and port 80.
    socks_proxy_ = std::make_unique<scripted_server>(
        script{read_bytes(3), send_text("\x05\x00"s), read_bytes(18),
               send_text("\x05\x00\x00\x01\x7f\x00\x00\x01\x00\x50"s), expect_request(),
               send_text(closing_response(proxied))});

    std::string whole = response(200, sample_bytes(60000));
    add_bad("closes at once", {close_now()});
    add_bad("resets", {expect_request(), reset()});
    add_bad("resets in the body", {expect_request(), send_text(whole.substr(0, 40000)), reset()});
    add_bad("cuts the body",
            {expect_request(), send_text(whole.substr(0, whole.size() - 1)), half_close()});
    add_bad("cuts the head", {expect_request(), send_text("HTTP/1.1 200 O"), close_now()});
    add_bad("no HTTP", {expect_request(), send_text("hello\r\n\r\n"), stall()});
    add_bad(
        "bad chunk",
        {expect_request(),
         send_text("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nxyz\r\n")});
    add_bad("redirects for ever",
            {expect_request(), send_text(response(302, "", "Location: /again\r\n"))});
    add_bad("endless head",
            {expect_request(), send_text("HTTP/1.1 200 OK\r\nX: " + std::string(300000, 'x'))});
    add_bad("error status", {expect_request(), send_text(response(503, "busy"))});
    add_bad("says nothing", {expect_request(), stall()});
    add_bad("does not read", {stall_deaf()}, 2);
    bad_.push_back({"refuses", "http://127.0.0.1:" + std::to_string(refusing_port()) + "/", 1});
    bad_tls_ = std::make_unique<tls_server>(break_tls);
    bad_.push_back({"broken TLS", bad_tls_->url(), 1});
    add_bad("no TLS", {send_text("hello\r\n"), stall()});
    bad_.back().url.insert(4, "s");
}

void soak_servers::add_bad(const std::string& name, script steps, std::uint32_t method) {
    bad_scripts_.push_back(
        std::make_unique<scripted_server>(std::move(steps), server_options{false, 4096}));
    bad_.push_back({name, bad_scripts_.back()->url(), method});
}

std::string soak_servers::tls_url(const std::string& path) {
    return tls_[next_tls_++ % tls_.size()]->url(path);
}
