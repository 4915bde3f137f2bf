// Files and responses that once did harm.
#include "tests/support/host.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/message_parser.h"

using testing::ElementsAre;

namespace {

TEST(RegressFile, ATargetIsSettledUnderTheNameUnderWhichItWasOpened) {
    library lib;
    const std::string whole = response(200, "new");
    for (const std::string target : {"in\\out.bin", "in/\xFF\xFE.bin"}) {
        for (bool ok : {true, false}) {
            SCOPED_TRACE(target + (ok ? "" : ", cut short"));
            work_dir dir;
            ASSERT_EQ(0, mkdir("in", 0700));
            std::string stored =
                target[2] == '/' ? "in/\xEF\xBF\xBD\xEF\xBF\xBD.bin" : "in/out.bin";
            write_file(stored, "old");
            scripted_server server(reply_and_close(ok ? whole : whole.substr(0, whole.size() - 1)));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, target.c_str());
            EXPECT_EQ(ok ? 0u : code::recv, get.run());
            EXPECT_EQ(ok ? "new" : "old", read_file(stored));
            EXPECT_EQ(0, unlink(stored.c_str()));
            EXPECT_EQ(0, rmdir("in")) << "something was left in it";
        }
    }
}

void make_socket(const char* path) {
    int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    EXPECT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(descriptor);
}

TEST(RegressFile, SpecialFilesAreNeitherReadNorReplacedNorWaitedFor) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    ASSERT_EQ(0, symlink("/dev/null", "device"));
    make_socket("socket");
    scripted_server server(reply_with(response(200, "body")));
    for (const char* path : {"fifo", "device", "socket"}) {
        SCOPED_TRACE(path);
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path);
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE}, post.run());
        for (std::uint32_t resume : {0u, 1u}) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path);
            get.set(TAV_HTTP_OPTION_RESUME, resume);
            EXPECT_EQ(code::open_file, get.run());
        }
        scripted_server refusing(reply_with(response(416, "no")));
        transfer get(refusing.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path);
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(code::status, get.run());
    }
    EXPECT_THAT(dir.names(), ElementsAre("device", "fifo", "socket"));
}

TEST(RegressFile, NewFilesAreNewAndStayInThisProcess) {
    work_dir dir;
    write_file("taken", "old");
    ASSERT_EQ(0, symlink("elsewhere", "link"));
    FILE* file = nullptr;
    EXPECT_EQ(EEXIST, tavhttp_fopen("taken", "w+bx", &file));
    EXPECT_EQ(EEXIST, tavhttp_fopen("link", "w+bx", &file));
    EXPECT_EQ("old", read_file("taken"));
    EXPECT_FALSE(file_exists("elsewhere"));

    int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    int err = tavhttp_fopen("new", "w+bx", &file);
    dup2(input, STDIN_FILENO);
    close(input);
    ASSERT_EQ(0, err);
    EXPECT_LT(STDERR_FILENO, fileno(file)) << "it would be the host's standard input";
    EXPECT_TRUE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, tavhttp_fclose(file));
}

// ----------------------------------------------------------------------------------- responses

std::string repeat(const std::string& text, std::size_t count) {
    std::string all;
    while (count-- > 0) {
        all += text;
    }
    return all;
}

TEST(RegressResponse, HeaderBytesAreLimited) {
    const std::string interim = "HTTP/1.1 103 Hints\r\nX: " + std::string(50000, 'x') + "\r\n\r\n";
    const std::string trailer = "Transfer-Encoding: chunked\r\n\r\n0\r\n";
    const std::string lines = repeat("X-Name: value\r\n", 5000);
    const struct {
        const char* name;
        std::string bytes;
        bool ok;
    } rows[] = {
        {"a few interim heads", repeat(interim, 19) + response(200, "x"), true},
        {"too many", repeat(interim, 22) + response(200, "x"), false},
        {"without headers", repeat("HTTP/1.1 100 \r\n\r\n", 270000), false},
        {"with the final head", repeat(interim, 19) + "HTTP/1.1 200 OK\r\n" + lines + "\r\n", true},
        {"and its trailer",
         repeat(interim, 19) + "HTTP/1.1 200 OK\r\n" + lines + trailer + lines + "\r\n", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log_capture log;
        auto* got = static_cast<http_response*>(std::calloc(1, sizeof(http_response)));
        EXPECT_EQ(row.ok, parse_response_message(got, row.bytes.data(),
                                                 static_cast<std::uint32_t>(row.bytes.size())));
        EXPECT_EQ(row.ok ? 0u : 1u, log.count("too many header bytes"));
        free_http_response(got);
    }
}

TEST(RegressResponse, WhatFollowsItIsDroppedAndTheConnectionToo) {
    const std::string alive = "Connection: keep-alive\r\n";
    const struct {
        std::uint32_t method;
        std::string reply;
        int connections;
    } rows[] = {
        {TAV_HTTP_METHOD_GET, response(200, "first", alive), 1},
        {TAV_HTTP_METHOD_GET, response(200, "first", alive) + response(404, "second", alive), 2},
        {TAV_HTTP_METHOD_GET, response(200, "first", alive) + "HTTP/1.1 20", 2},
        {TAV_HTTP_METHOD_HEAD, response(200, "first", alive).substr(0, 70), 2},
    };
    library lib;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reply);
        scripted_server server(
            script{expect_request(), send_text(row.reply), expect_request(), send_text(row.reply)});
        int connection = 0;
        for (int i = 0; i < 2; i++) {
            transfer one(server.url(), row.method);
            EXPECT_EQ(0u, one.run());
            EXPECT_EQ(200u, one.status());
            EXPECT_EQ(row.method == TAV_HTTP_METHOD_HEAD ? "firs" : "first", one.body());
            connection = server.requests().back().connection;
        }
        EXPECT_EQ(row.connections, connection + 1);
    }
}

TEST(RegressCookies, TheOldestGiveWay) {
    ASSERT_TRUE(init_cookie_store());
    auto set = [](int domain, int number) {
        std::string value =
            "n" + std::to_string(number) + "=v; Path=/; Domain=h" + std::to_string(domain);
        set_cookie_by_http_header("http://h/", value.c_str());
    };
    auto sent_to = [](int domain) {
        char* text = nullptr;
        get_cookie(("http://h" + std::to_string(domain) + "/").c_str(), &text);
        std::string sent = text != nullptr ? text : "";
        std::free(text);
        return sent;
    };
    for (int number = 0; number < 1003; number++) {
        set(0, number);
    }
    std::string sent = sent_to(0);
    EXPECT_EQ(1000, std::count(sent.begin(), sent.end(), ';'));
    EXPECT_EQ(0u, sent.find("n3=v;n4=v;"));
    for (int domain = 1; domain <= 9; domain++) {
        for (int number = 0; number < 1000; number++) {
            set(domain, number);
        }
    }
    EXPECT_EQ(sent, sent_to(0)) << "ten thousand";
    for (int number = 0; number < 999; number++) {
        set(10, number);
    }
    EXPECT_EQ("n1002=v;", sent_to(0));
    set(10, 999);
    EXPECT_EQ("", sent_to(0));
    set(0, 7);
    EXPECT_EQ("n7=v;", sent_to(0));
    EXPECT_EQ(0u, sent_to(1).find("n1=v;"));
    uninit_cookie_store();
}

}  // namespace
