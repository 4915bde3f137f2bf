// https transfers with "openssl s_server", which offers what no test server of ours does: each
// kind of key, a second hello, client certificates, small records, and a death without a word.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

namespace {

using arguments = std::vector<std::string>;

class OpensslServer : public testing::Test {
  protected:
    OpensslServer() {
        make_certificate_files(dir.path(), "rsa", "rsa", "/O=Test/CN=rsa.test");
        make_certificate_files(dir.path(), "ec", "ec", "/O=Test/CN=ec.test");
    }

    bool start(const std::string& key, const arguments& more) {
        return server.start(
            [&](std::uint16_t port) {
                arguments words = {
                    "openssl", "s_server",   "-accept", "127.0.0.1:" + std::to_string(port),
                    "-key",    key + ".key", "-cert",   key + ".crt"};
                words.insert(words.end(), more.begin(), more.end());
                return words;
            },
            dir.path());
    }
    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(server.port()) + path;
    }

    work_dir dir;
    peer_process server;
};

// A server that will not have a client without certificate says so in the handshake, or, in TLS
// 1.3, behind it. Nobody else can be reached with these settings either.
TEST_F(OpensslServer, StatusPageInEachSetting) {
    struct {
        const char* title;
        const char* key;
        arguments more;
        const char* name;  // of the host
        std::uint32_t code;
        const char* protocol;  // on the page
    } cases[] = {
        {"RSA 1.2", "rsa", {"-tls1_2"}, "rsa.test", 0, "TLSv1.2"},
        {"RSA 1.3", "rsa", {"-tls1_3"}, "rsa.test", 0, "TLSv1.3"},
        {"EC 1.2", "ec", {"-tls1_2"}, "ec.test", 0, "TLSv1.2"},
        {"EC 1.3", "ec", {"-tls1_3"}, "ec.test", 0, "TLSv1.3"},
        {"RSA exchange", "rsa", {"-tls1_2", "-cipher", "AES128-SHA"}, "rsa.test", 0, "AES128-SHA"},
        {"a second hello", "ec", {"-tls1_3", "-groups", "P-384"}, "ec.test", 0, "TLSv1.3"},
        {"many tickets", "ec", {"-tls1_3", "-num_tickets", "9"}, "ec.test", 0, "TLSv1.3"},
        {"no tickets", "ec", {"-tls1_3", "-num_tickets", "0"}, "ec.test", 0, "TLSv1.3"},
        {"no ticket", "ec", {"-tls1_2", "-no_ticket"}, "ec.test", 0, "TLSv1.2"},
        {"small records", "ec", {"-tls1_3", "-max_send_frag", "512"}, "ec.test", 0, "TLSv1.3"},
        {"asks 1.2", "ec", {"-tls1_2", "-verify", "1"}, "ec.test", 0, "TLSv1.2"},
        {"asks 1.3", "ec", {"-tls1_3", "-verify", "1"}, "ec.test", 0, "TLSv1.3"},
        {"insists 1.2", "ec", {"-tls1_2", "-Verify", "1"}, nullptr, code::any_negative, ""},
        {"insists 1.3", "ec", {"-tls1_3", "-Verify", "1"}, nullptr, code::any_negative, ""},
        {"other name 1.2", "ec", {"-tls1_2"}, "other.test", code::tls_name, ""},
        {"other name 1.3", "ec", {"-tls1_3"}, "other.test", code::tls_name, ""},
        {"no common cipher",
         "ec",
         {"-tls1_2", "-cipher", "PSK-AES128-CBC-SHA"},
         nullptr,
         code::any_negative,
         ""},
    };
    descriptor_guard descriptors;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        arguments more = now.more;
        more.push_back("-www");
        ASSERT_TRUE(start(now.key, more));
        library lib;
        transfer get(url("/"));
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, now.name);
        expect_code(now.code, get.run());
        EXPECT_NE(std::string::npos, get.body().find(now.protocol)) << get.body();
        EXPECT_EQ(now.code != 0, get.body().empty());
        EXPECT_EQ(1, get.completions());
    }
    server.stop();
    EXPECT_TRUE(descriptors.back_to_start());
}

// The server's user types the response. Whether the user ends the server or somebody kills it: it
// ends the connection without a close-notify, and nobody knows whether that was all.
TEST_F(OpensslServer, EndOfABodyWithoutCloseNotify) {
    for (const char* version : {"-tls1_2", "-tls1_3"}) {
        for (bool killed : {false, true}) {
            SCOPED_TRACE(std::string(version) + (killed ? " killed" : " ended"));
            ASSERT_TRUE(start("ec", {version}));
            library lib;
            transfer get(url("/typed"));
            get.record_data();
            EXPECT_EQ(0u, get.send());
            ASSERT_TRUE(wait_until(
                [&] { return server.output().find("GET /typed") != std::string::npos; }));
            server.write_input("HTTP/1.1 200 OK\r\n\r\nall of it\n");
            ASSERT_TRUE(get.wait_for_event("data"));
            if (killed) {
                server.kill();
            } else {
                server.write_input("Q\n");
            }
            EXPECT_EQ(code::recv, get.wait());
            EXPECT_EQ("all of it\n", get.data());
            EXPECT_EQ(1, get.completions());
        }
    }
}

}  // namespace
