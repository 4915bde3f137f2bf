// https transfers with "openssl s_server", which offers what no test server of ours does: each
// kind of key, a second hello, client certificates, small records, and a death without a word.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using arguments = std::vector<std::string>;

class OpensslServer : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<work_dir>();
        make_certificate_files(dir->path(), "rsa", "rsa", "/O=Test/CN=rsa.test");
        make_certificate_files(dir->path(), "ec", "ec", "/O=Test/CN=ec.test");
        write_file("file.txt", sample_bytes(1000000));
    }
    static void TearDownTestSuite() {
        dir.reset();
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
            dir->path());
    }
    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(server.port()) + path;
    }

    static std::unique_ptr<work_dir> dir;
    peer_process server;
};

std::unique_ptr<work_dir> OpensslServer::dir;

TEST_F(OpensslServer, StatusPageInEachSetting) {
    struct {
        const char* title;
        const char* key;
        arguments more;
        const char* protocol;
    } cases[] = {
        {"RSA", "rsa", {"-tls1_2"}, "TLSv1.2"},
        {"RSA", "rsa", {"-tls1_3"}, "TLSv1.3"},
        {"EC", "ec", {"-tls1_2"}, "TLSv1.2"},
        {"EC", "ec", {"-tls1_3"}, "TLSv1.3"},
        {"RSA key exchange", "rsa", {"-tls1_2", "-cipher", "AES128-SHA"}, "AES128-SHA"},
        {"ChaCha20", "ec", {"-tls1_2", "-cipher", "ECDHE-ECDSA-CHACHA20-POLY1305"}, "CHACHA20"},
        {"a second hello", "ec", {"-tls1_3", "-groups", "P-384"}, "TLSv1.3"},
        {"many tickets", "ec", {"-tls1_3", "-num_tickets", "9"}, "TLSv1.3"},
        {"no tickets", "ec", {"-tls1_3", "-num_tickets", "0"}, "TLSv1.3"},
        {"no ticket", "ec", {"-tls1_2", "-no_ticket"}, "TLSv1.2"},
        {"small records", "ec", {"-tls1_3", "-max_send_frag", "512"}, "TLSv1.3"},
        {"asks for a certificate", "ec", {"-tls1_2", "-verify", "1"}, "TLSv1.2"},
        {"asks for a certificate", "ec", {"-tls1_3", "-verify", "1"}, "TLSv1.3"},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(std::string(now.title) + " " + now.protocol);
        arguments more = now.more;
        more.push_back("-www");
        ASSERT_TRUE(start(now.key, more));
        library lib;
        transfer get(url("/"));
        std::string name = std::string(now.key) + ".test";
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, name.c_str());
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(200u, get.status());
        EXPECT_NE(std::string::npos, get.body().find(now.protocol)) << get.body();
        EXPECT_EQ(1, get.completions());
    }
}

TEST_F(OpensslServer, FilesAreTheSameAsCurls) {
    struct {
        const char* key;
        arguments more;
    } cases[] = {{"rsa", {"-tls1_2"}}, {"ec", {"-tls1_3"}}, {"ec", {"-max_send_frag", "700"}}};
    for (const auto& now : cases) {
        SCOPED_TRACE(now.more[0]);
        arguments more = now.more;
        more.push_back("-WWW");
        ASSERT_TRUE(start(now.key, more));
        library lib;
        transfer get(url("/file.txt"));
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(sample_bytes(1000000) == get.body());
        EXPECT_TRUE(output_of({"curl", "-s", "-k", "--http1.1", url("/file.txt")}) == get.body());
    }
}

// A server that will not have a client without certificate says so in the handshake, or, in TLS
// 1.3, behind it. Nobody else can be reached with these settings either.
TEST_F(OpensslServer, Refusals) {
    struct {
        const char* title;
        arguments more;
        const char* expected_name;
        std::uint32_t code;  // 0xFFFFFFFF: any negative one
    } cases[] = {
        {"certificate wanted", {"-tls1_2", "-Verify", "1"}, nullptr, 0xFFFFFFFF},
        {"certificate wanted", {"-tls1_3", "-Verify", "1"}, nullptr, 0xFFFFFFFF},
        {"other name", {"-tls1_2"}, "other.test", 0x4000a},
        {"other name", {"-tls1_3"}, "other.test", 0x4000a},
        {"no common cipher", {"-tls1_2", "-cipher", "PSK-AES128-CBC-SHA"}, nullptr, 0xFFFFFFFF},
    };
    descriptor_guard descriptors;
    for (const auto& now : cases) {
        SCOPED_TRACE(std::string(now.title) + " " + now.more[0]);
        arguments more = now.more;
        more.push_back("-www");
        ASSERT_TRUE(start("ec", more));
        library lib;
        transfer get(url("/"));
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, now.expected_name);
        std::uint32_t code = get.run();
        if (now.code == 0xFFFFFFFF) {
            EXPECT_LT(static_cast<std::int32_t>(code), 0) << code;
        } else {
            EXPECT_EQ(now.code, code);
        }
        EXPECT_EQ("", get.body());
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
            get.record();
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
            EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_RECV}, get.wait());
            EXPECT_EQ("all of it\n", get.data());
            EXPECT_EQ(1, get.completions());
        }
    }
}

}  // namespace
