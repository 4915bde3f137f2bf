#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

std::string listen_line(const std::string& address, const std::string& more = "") {
    return "    listen " + address + more + ";\n";
}

// nginx wants a place for each kind of temporary file, also for those that it never makes. The
// library's default User-Agent is that of an old browser, for which nginx pads error pages and
// ends connections after a POST, if it is let.
const char* const frame = R"(daemon off;
master_process off;
pid nginx.pid;
error_log nginx-error.log;
events { worker_connections 256; }
http {
    access_log off;
    client_body_temp_path body-files;
    proxy_temp_path proxy-files;
    fastcgi_temp_path fastcgi-files;
    uwsgi_temp_path uwsgi-files;
    scgi_temp_path scgi-files;
    types { text/plain txt; }
    default_type application/octet-stream;
    client_max_body_size 0;
    keepalive_requests 10000;
    keepalive_disable none;
    msie_padding off;
    add_header X-Connection $connection;
    add_header X-Requests $connection_requests;
    add_header X-Protocol $ssl_protocol;
    add_header X-Name $ssl_server_name;
    root ROOT;
)";

const char* const locations = R"(
    location = /say { return 200 "said"; }
    location = /moved { return 302 /hello.txt; }
    location /zip/ { alias ROOT/; gzip on; gzip_types text/plain; }
    location /sink/ { proxy_pass http://127.0.0.1:SINK; }
)";

std::string replaced(std::string text, const std::string& what, const std::string& with) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

std::string server_block(const std::string& lines) {
    return "server {\n" + lines + locations + "}\n";
}

std::string tls_lines(std::uint16_t port, const std::string& version) {
    return listen_line("127.0.0.1:" + std::to_string(port), " ssl") + "    ssl_protocols " +
           version + ";\n    ssl_certificate peer.crt;\n    ssl_certificate_key peer.key;\n";
}

}  // namespace

void make_certificate_files(const std::string& directory, const std::string& name,
                            const std::string& algorithm, const std::string& subject) {
    std::vector<std::string> arguments = {"openssl", "req", "-x509", "-nodes",
                                          "-days",   "2",   "-subj", subject};
    if (algorithm == "ec") {
        arguments.insert(arguments.end(), {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"});
    } else {
        arguments.insert(arguments.end(), {"-newkey", "rsa:2048"});
    }
    std::string path = directory + "/" + name;
    arguments.insert(arguments.end(), {"-keyout", path + ".key", "-out", path + ".crt"});
    int status = -1;
    output_of(arguments, &status);
    EXPECT_EQ(0, status) << "no certificate " << name;
}

bool nginx_server::start(const std::string& directory, bool with_tls) {
    directory_ = directory;
    root_ = directory + "/root";
    with_tls_ = with_tls;
    std::filesystem::create_directories(root_);
    if (with_tls) {
        make_certificate_files(directory, "peer", "ec", "/O=Test/CN=peer.test");
    }
    const char* program = TAV_HTTP_TEST_SOURCE_DIR "/peers/upload_sink.py";
    bool has_sink = sink_.start(
        [&](std::uint16_t port) {
            return std::vector<std::string>{"python3", program, std::to_string(port)};
        },
        directory);
    return has_sink && server_.start(
                           [this](std::uint16_t port) {
                               port6_ = free_port(true);
                               three_port_ = free_port();
                               tls12_port = free_port();
                               tls13_port = free_port();
                               std::ofstream(directory_ + "/nginx.conf") << configuration(port);
                               return std::vector<std::string>{"nginx",
                                                               "-p",
                                                               directory_,
                                                               "-e",
                                                               "nginx-error.log",
                                                               "-c",
                                                               directory_ + "/nginx.conf"};
                           },
                           directory);
}

std::string nginx_server::configuration(std::uint16_t port) const {
    std::string text = frame;
    text += server_block(listen_line("127.0.0.1:" + std::to_string(port)) +
                         listen_line("[::1]:" + std::to_string(port6_)));
    text += server_block(listen_line("127.0.0.1:" + std::to_string(three_port_)) +
                         "    keepalive_requests 3;\n");
    if (with_tls_) {
        text += server_block(tls_lines(tls12_port, "TLSv1.2"));
        text += server_block(tls_lines(tls13_port, "TLSv1.3"));
    }
    text += "}\n";
    return replaced(replaced(text, "ROOT", root_), "SINK", std::to_string(sink_.port()));
}

std::string nginx_server::url(const std::string& path, const std::string& host) const {
    return "http://" + host + ":" + std::to_string(port()) + path;
}

std::string nginx_server::url6(const std::string& path) const {
    return "http://[::1]:" + std::to_string(port6_) + path;
}

std::string nginx_server::three_requests_url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(three_port_) + path;
}
