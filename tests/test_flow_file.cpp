// Downloads to files: where the bytes go, what a failure leaves behind, resuming and ranges.
#include "tests/support/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

script answer_once(const std::string& reply) {
    return {expect_request(), send_text(reply)};
}

script answer_and_close(const std::string& reply) {
    return {expect_request(), send_text(reply), half_close()};
}

TEST(FileTarget, BodyLandsUnderTheName) {
    std::string large = sample_bytes(5000000);
    struct {
        const char* name;
        std::string reply;
        std::string content;
    } cases[] = {
        {"small", response(200, "hello"), "hello"},
        {"empty", response(200, ""), ""},
        {"large", response(200, large), large},
        {"large chunked", chunked_response(200, large, 100000), large},
        {"exactly one block", response(200, large.substr(0, 32768)), large.substr(0, 32768)},
        {"one more", response(200, large.substr(0, 32769)), large.substr(0, 32769)},
        {"until close", "HTTP/1.1 200 OK\r\n\r\n" + large.substr(0, 70000), large.substr(0, 70000)},
        {"compressed",
         response(200, gzip_bytes(std::string(400000, 'y')), "Content-Encoding: gzip\r\n"),
         std::string(400000, 'y')},
    };
    library lib;
    for (const auto& now : cases) {
        for (bool old_file : {false, true}) {
            SCOPED_TRACE(std::string(now.name) + (old_file ? ", over an old file" : ""));
            work_dir dir;
            if (old_file) {
                write_file("out.bin", std::string(100000, 'o'));
            }
            scripted_server server(answer_and_close(now.reply));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
            EXPECT_EQ(0u, get.run());
            EXPECT_TRUE(now.content == read_file("out.bin"));
            EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
            EXPECT_EQ("out.bin", get.text(TAV_HTTP_QUERY_FILE_PATH));
            EXPECT_EQ("", get.body());
            EXPECT_EQ(md5_hex(now.content), get.md5());
        }
    }
}

TEST(FileTarget, BytesAreKeptAsideUntilTheEnd) {
    library lib;
    work_dir dir;
    write_file("out.bin", "old");
    std::string bytes = sample_bytes(200000);
    scripted_server server(script{expect_request(),
                                  send_text(response(200, bytes).substr(0, 150000)), stall(),
                                  send_text(response(200, bytes).substr(150000))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    EXPECT_EQ(0u, get.send());
    EXPECT_TRUE(wait_until([&] { return dir.names().size() == 2; }));
    EXPECT_EQ("old", read_file("out.bin"));
    std::vector<std::string> names = dir.names();
    ASSERT_EQ(2u, names.size());
    EXPECT_THAT(names[1], testing::MatchesRegex("out_[0-9a-f]{8}_[0-9a-f]{8}.bin"));
    server.release();
    EXPECT_EQ(0u, get.wait());
    EXPECT_TRUE(bytes == read_file("out.bin"));
    EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
}

TEST(FileTarget, FailuresLeaveTheOldFileAndNothingElse) {
    std::string bytes = sample_bytes(200000);
    std::string bad_gzip = gzip_bytes(bytes.substr(0, 10000));
    bad_gzip[bad_gzip.size() - 6] ^= 0x55;  // in the checksum
    struct {
        const char* name;
        script steps;
        std::uint32_t code;
    } cases[] = {
        {"truncated", answer_and_close(response(200, bytes).substr(0, 120000)),
         TAV_HTTP_ERROR_CODE_FAIL_RECV},
        {"reset",
         {expect_request(), send_text(response(200, bytes).substr(0, 120000)), reset()},
         TAV_HTTP_ERROR_CODE_FAIL_RECV},
        {"bad chunk",
         answer_once("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nxyz\r\n"),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"damaged gzip", answer_once(response(200, bad_gzip, "Content-Encoding: gzip\r\n")),
         TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE},
        {"stalled",
         {expect_request(), send_text(response(200, bytes).substr(0, 120000)), stall()},
         TAV_HTTP_ERROR_CODE_RECV_TIMEOUT},
        {"error status", answer_once(response(404, "gone")), TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {"not modified", answer_once("HTTP/1.1 304 Same\r\n\r\n"),
         TAV_HTTP_ERROR_CODE_NOT_MODIFIED},
        {"range refused", answer_once(response(416, "no")), TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR},
        {"closed before the head", answer_and_close("HTTP/1.1 20"), TAV_HTTP_ERROR_CODE_FAIL_RECV},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        write_file("out.bin", "old");
        scripted_server server(now.steps);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_IO_TIMEOUT, 150);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ("old", read_file("out.bin"));
        EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
    }
}

TEST(FileTarget, BrokenConnectionIsTriedAgainFromTheStart) {
    library lib;
    work_dir dir;
    std::string bytes = sample_bytes(200000);
    scripted_server server(
        std::vector<script>{answer_and_close(response(200, bytes).substr(0, 120000)),
                            answer_once(response(200, bytes))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    EXPECT_EQ(0u, get.run());
    EXPECT_TRUE(bytes == read_file("out.bin"));
    EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
    EXPECT_EQ("", server.request(1).header("Range"));
}

TEST(FileTarget, UnusableTargets) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0, mkdir("taken", 0700));
    ASSERT_EQ(0, symlink("/dev/full", "full"));
    std::string bytes = sample_bytes(400000);
    struct {
        const char* path;
        std::int64_t range_start;
        std::uint32_t code;
    } cases[] = {
        {"missing/out.bin", 0, TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE},
        {"missing/out.bin", 10, TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE},
        {"taken", 0, TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE},
        {"taken", 10, TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE},
        {"full", 10, TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(std::string(now.path) + " from " + std::to_string(now.range_start));
        scripted_server server(answer_once(response(206, bytes)));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, now.path);
        get.set(TAV_HTTP_OPTION_RANGE, now.range_start, std::int64_t{now.range_start ? -1 : 0});
        EXPECT_EQ(now.code, get.run());
    }
    EXPECT_FALSE(file_exists("missing"));
}

TEST(FileTarget, ErrorBodyOnRequest) {
    library lib;
    for (std::uint32_t keep : {0u, 1u}) {
        SCOPED_TRACE(keep);
        work_dir dir;
        scripted_server server(answer_once(response(404, "gone")));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, keep);
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, get.run());
        EXPECT_EQ(keep != 0 ? "gone" : "", read_file("out.bin"));
        EXPECT_EQ(keep != 0 ? "" : "gone", get.body());
        EXPECT_EQ(keep != 0, file_exists("out.bin"));
    }
}

TEST(FileTarget, HeadAndRedirectWriteNothingOfTheirOwn) {
    library lib;
    work_dir dir;
    scripted_server server([](const received_request& request) {
        if (request.method == "HEAD") {
            return std::string("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n");
        }
        return request.target == "/from"
                   ? response(302, std::string(50000, 'r'), "Location: /to\r\n")
                   : response(200, "target");
    });
    transfer head(server.url(), TAV_HTTP_METHOD_HEAD);
    head.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "head.bin");
    EXPECT_EQ(0u, head.run());
    EXPECT_THAT(dir.names(), IsEmpty());
    transfer get(server.url("/from"));
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("target", read_file("out.bin"));
    EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
}

TEST(Resume, ContinuesBehindTheFile) {
    std::string bytes = sample_bytes(100000);
    struct {
        const char* name;
        std::size_t present;  // bytes in the file; 0: no file
        std::string reply;
        const char* range;
        std::string content;
    } cases[] = {
        {"half", 40000, response(206, bytes.substr(40000)), "bytes=40000-", bytes},
        {"nothing yet", 0, response(200, bytes), "", bytes},
        // The offset follows the request, not the answer.
        {"range ignored", 40000, response(200, bytes), "bytes=40000-",
         bytes.substr(0, 40000) + bytes},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        if (now.present > 0) {
            write_file("out.bin", bytes.substr(0, now.present));
        }
        scripted_server server(answer_once(now.reply));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(now.range, server.request(0).header("Range"));
        EXPECT_TRUE(now.content == read_file("out.bin"));
        EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
    }
}

TEST(Resume, FinishedFileIsFetchedAnew) {
    library lib;
    work_dir dir;
    write_file("out.bin", "too long already");
    scripted_server server(
        std::vector<script>{answer_once(response(416, "no")), answer_once(response(200, "whole"))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    get.set(TAV_HTTP_OPTION_RESUME, 1u);
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("bytes=16-", server.request(0).header("Range"));
    EXPECT_FALSE(server.request(1).has_header("Range"));
    EXPECT_EQ("whole", read_file("out.bin"));
}

TEST(Resume, FailureKeepsWhatArrived) {
    std::string bytes = sample_bytes(200000);
    std::string rest = bytes.substr(50000);
    script broken = {expect_request(), send_text(response(206, rest).substr(0, 100000)), reset()};
    script refused = answer_once(response(500, "error"));
    struct {
        const char* name;
        script steps;
        std::uint32_t code;
        bool grew;
    } cases[] = {
        {"broken", broken, TAV_HTTP_ERROR_CODE_FAIL_RECV, true},
        {"refused", refused, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR, false},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        write_file("out.bin", bytes.substr(0, 50000));
        scripted_server server(now.steps);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(now.code, get.run());
        std::string content = read_file("out.bin");
        EXPECT_LE(50000u, content.size());
        EXPECT_TRUE(now.grew || content.size() == 50000);
        EXPECT_TRUE(bytes.substr(0, content.size()) == content);
    }
}

TEST(Resume, RetryContinuesWhereTheFirstAttemptBroke) {
    library lib;
    work_dir dir;
    std::string bytes = sample_bytes(200000);
    write_file("out.bin", bytes.substr(0, 50000));
    std::string first = response(206, bytes.substr(50000));
    std::size_t cut = first.size() - 60000;  // the second attempt has to bring these
    scripted_server server(std::vector<script>{answer_and_close(first.substr(0, cut)),
                                               answer_once(response(206, bytes.substr(140000)))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    get.set(TAV_HTTP_OPTION_RESUME, 1u);
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("bytes=140000-", server.request(1).header("Range"));
    EXPECT_TRUE(bytes == read_file("out.bin"));
}

TEST(FileRange, IsWrittenInPlace) {
    std::string old(1000, 'o');
    struct {
        const char* name;
        std::int64_t start;
        std::int64_t end;
        const char* range;
        bool old_file;
        std::string content;
    } cases[] = {
        {"middle", 100, 104, "bytes=100-104", true, old.substr(0, 100) + "BYTES" + old.substr(105)},
        {"beginning", 0, 4, "bytes=0-4", true, "BYTES" + old.substr(5)},
        {"open end", 998, -1, "bytes=998-", true, old.substr(0, 998) + "BYTES"},
        {"last bytes", 0, -5, "bytes=-5", true, "BYTES" + old.substr(5)},
        {"new file", 3, 7, "bytes=3-7", false, std::string("\0\0\0BYTES", 8)},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        if (now.old_file) {
            write_file("out.bin", old);
        }
        scripted_server server(answer_once(response(206, "BYTES")));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_RANGE, now.start, now.end);
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(now.range, server.request(0).header("Range"));
        EXPECT_EQ(now.content, read_file("out.bin"));
        EXPECT_EQ(now.start, get.number(TAV_HTTP_QUERY_OPTION_RANGE_START));
        EXPECT_EQ(now.end, get.number(TAV_HTTP_QUERY_OPTION_RANGE_END));
        EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
    }
}

TEST(AutoFile, LiesInTheDownloadDirectory) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files\\here"));
    struct {
        const char* target;
        const char* pattern;
    } cases[] = {
        {"/", "files/here/%2F_[0-9a-f]{8}_[0-9a-f]{8}.tmp"},
        {"/a/b.txt?q=1", "files/here/%2Fa%2Fb_[0-9a-f]{8}_[0-9a-f]{8}.txt"},
        {"/plain", "files/here/%2Fplain_[0-9a-f]{8}_[0-9a-f]{8}.tmp"},
    };
    scripted_server server(
        [](const received_request& request) { return response(200, "body of " + request.target); });
    for (const auto& now : cases) {
        SCOPED_TRACE(now.target);
        transfer get(server.url(now.target));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "elsewhere");
        get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
        EXPECT_EQ(0u, get.run());
        std::string path = get.text(TAV_HTTP_QUERY_FILE_PATH);
        EXPECT_THAT(path, testing::MatchesRegex(now.pattern));
        EXPECT_EQ(std::string("body of ") + now.target, read_file(path));
        unlink(path.c_str());
    }
    std::string long_target = "/" + std::string(500, 'n') + ".dat";
    transfer get(server.url(long_target));
    get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
    EXPECT_EQ(0u, get.run());
    std::string path = get.text(TAV_HTTP_QUERY_FILE_PATH);
    EXPECT_EQ(strlen("files/here/") + 150 + 18, path.size());
    EXPECT_EQ("body of " + long_target, read_file(path));
    EXPECT_THAT(dir.names(), ElementsAre("files"));
}

TEST(AutoFile, FailureRemovesIt) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
    std::string bytes = sample_bytes(100000);
    script cases[] = {
        {expect_request(), send_text(response(200, bytes).substr(0, 70000)), reset()},
        answer_and_close(response(200, bytes).substr(0, 70000)),
        answer_and_close("HTTP/1.1 2"),
    };
    for (const script& steps : cases) {
        scripted_server server(steps);
        transfer get(server.url("/x.bin"));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
        EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_RECV, get.run());
        EXPECT_FALSE(file_exists(get.text(TAV_HTTP_QUERY_FILE_PATH)));
    }
    EXPECT_EQ(0, rmdir("files")) << "something was left in it";
}

TEST(FileTarget, ManyAtOnce) {
    descriptor_guard descriptors;
    work_dir dir;
    {
        library lib;
        scripted_server server([](const received_request& request) {
            return response(200, std::string(60000, request.target[1]) + request.target);
        });
        std::vector<std::unique_ptr<transfer>> all;
        for (int i = 0; i < 60; i++) {
            std::string name = std::to_string(i);
            all.push_back(std::make_unique<transfer>(server.url("/" + name)));
            all.back()->set(TAV_HTTP_OPTION_DOWNLOAD_FILE, name.c_str());
            EXPECT_EQ(0u, all.back()->send());
        }
        for (int i = 0; i < 60; i++) {
            std::string name = std::to_string(i);
            EXPECT_EQ(0u, all[static_cast<std::size_t>(i)]->wait());
            EXPECT_TRUE(std::string(60000, name[0]) + "/" + name == read_file(name));
        }
    }
    EXPECT_EQ(60u, dir.names().size());
    EXPECT_TRUE(descriptors.back_to_start());
}

}  // namespace
