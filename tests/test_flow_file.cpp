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

TEST(FileTarget, BodyLandsUnderTheName) {
    std::string large = sample_bytes(5000000);
    std::string zipped = gzip_bytes(std::string(400000, 'y'));
    struct {
        const char* name;
        std::string reply;
        std::string content;
    } cases[] = {
        {"empty", response(200, ""), ""},
        {"large", response(200, large), large},
        {"large chunked", chunked_response(200, large, 100000), large},
        {"exactly one block", response(200, large.substr(0, 32768)), large.substr(0, 32768)},
        {"one more", response(200, large.substr(0, 32769)), large.substr(0, 32769)},
        {"until close", "HTTP/1.1 200 OK\r\n\r\n" + large.substr(0, 70000), large.substr(0, 70000)},
        {"compressed", response(200, zipped, "Content-Encoding: gzip\r\n"),
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
            scripted_server server(reply_and_close(now.reply));
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

TEST(FileTarget, FailuresLeaveTheOldFileAndNothingElse) {
    std::string part = response(200, sample_bytes(200000)).substr(0, 120000);
    std::string bad_gzip = gzip_bytes(sample_bytes(10000));
    bad_gzip[bad_gzip.size() - 6] ^= 0x55;  // in the checksum
    struct {
        const char* name;
        script steps;
        std::uint32_t code;
    } cases[] = {
        {"truncated", reply_and_close(part), code::recv},
        {"reset", {expect_request(), send_text(part), reset()}, code::recv},
        {"stalled", {expect_request(), send_text(part), stall()}, code::recv_timeout},
        {"damaged gzip", reply_with(response(200, bad_gzip, "Content-Encoding: gzip\r\n")),
         code::parse},
        {"error status", reply_with(response(404, "gone")), code::status},
        {"not modified", reply_with("HTTP/1.1 304 Same\r\n\r\n"), code::not_modified},
        {"range refused", reply_with(response(416, "no")), code::status},
        {"closed before the head", reply_and_close("HTTP/1.1 20"), code::recv},
    };
    library lib;
    for (const auto& now : cases) {
        for (bool automatic : {false, true}) {
            if (automatic && now.code != code::recv) {
                continue;  // an error's body may stay in such a file
            }
            SCOPED_TRACE(std::string(now.name) + (automatic ? ", automatic name" : ""));
            work_dir dir;
            write_file("out.bin", "old");
            ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
            scripted_server server(now.steps);
            transfer get(server.url("/x.bin"));
            if (automatic) {
                get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
            } else {
                get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            }
            get.set(TAV_HTTP_OPTION_IO_TIMEOUT, 150);
            EXPECT_EQ(now.code, get.run());
            EXPECT_EQ("old", read_file("out.bin"));
            EXPECT_THAT(dir.names(), ElementsAre("files", "out.bin"));
            EXPECT_EQ(0, rmdir("files")) << "something was left in it";
        }
    }
}

TEST(FileTarget, AnErrorBodyGoesThereOnlyOnRequest) {
    library lib;
    for (int kind = 0; kind < 4; kind++) {
        bool keep = (kind & 1) != 0;
        bool to_file = (kind & 2) != 0;
        SCOPED_TRACE(kind);
        work_dir dir;
        scripted_server server(reply_with(response(404, "gone")));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, keep ? 1u : 0u);
        if (to_file) {
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        } else {
            get.record_data();
        }
        get.record();
        EXPECT_EQ(code::status, get.run());
        EXPECT_EQ(keep ? "gone" : "", to_file ? read_file("out.bin") : get.data());
        EXPECT_EQ(keep ? "" : "gone", get.body());
        EXPECT_EQ(keep ? 1u : 0u, get.event_count("start"));
        EXPECT_EQ(keep && to_file, file_exists("out.bin"));
    }
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
        {"missing/out.bin", 0, code::open_file}, {"missing/out.bin", 10, code::open_file},
        {"taken", 0, code::write_file},          {"taken", 10, code::open_file},
        {"full", 10, code::open_file},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(std::string(now.path) + " from " + std::to_string(now.range_start));
        scripted_server server(reply_with(response(206, bytes)));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, now.path);
        get.set(TAV_HTTP_OPTION_RANGE, now.range_start, std::int64_t{now.range_start ? -1 : 0});
        EXPECT_EQ(now.code, get.run());
    }
    EXPECT_FALSE(file_exists("missing"));
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

// A file that is there is gone on with, and what arrives stays, also when the end is a failure.
TEST(Resume, ContinuesBehindTheFile) {
    const std::string bytes = sample_bytes(200000);
    const std::string rest = response(206, bytes.substr(50000));
    const script broken = {expect_request(), send_text(rest.substr(0, 100000)), reset()};
    const script cut = reply_and_close(rest.substr(0, rest.size() - 60000));
    const std::string grown = "bytes=140000-";
    struct {
        const char* name;
        std::size_t present;  // bytes in the file; 0: no file
        std::vector<script> scripts;
        std::uint32_t code;
        std::vector<std::string> ranges;  // of the requests
        std::string content;              // its beginning when the end is a failure
    } cases[] = {
        {"a part", 50000, {reply_with(rest)}, 0, {"bytes=50000-"}, bytes},
        {"nothing yet", 0, {reply_with(response(200, bytes))}, 0, {""}, bytes},
        // The offset follows the request, not the answer.
        {"range ignored",
         50000,
         {reply_with(response(200, bytes))},
         0,
         {"bytes=50000-"},
         bytes.substr(0, 50000) + bytes},
        {"finished, fetched anew",
         200000,
         {reply_with(response(416, "no")), reply_with(response(200, "whole"))},
         0,
         {"bytes=200000-", ""},
         "whole"},
        {"second attempt where the first broke",
         50000,
         {cut, reply_with(response(206, bytes.substr(140000)))},
         0,
         {"bytes=50000-", grown},
         bytes},
        {"broken", 50000, {broken}, code::recv, {"bytes=50000-"}, bytes.substr(0, 50000)},
        {"refused",
         50000,
         {reply_with(response(500, "error"))},
         code::status,
         {"bytes=50000-"},
         bytes.substr(0, 50000)},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        if (now.present > 0) {
            write_file("out.bin", bytes.substr(0, now.present));
        }
        scripted_server server(now.scripts);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(now.code, get.run());
        ASSERT_EQ(now.ranges.size(), server.request_count());
        for (std::size_t i = 0; i < now.ranges.size(); i++) {
            EXPECT_EQ(now.ranges[i], server.request(i).header("Range"));
        }
        std::string content = read_file("out.bin");
        if (now.code == code::recv) {
            EXPECT_LE(now.present, content.size());
            EXPECT_TRUE(content == bytes.substr(0, content.size())) << "what arrived is wrong";
        } else {
            EXPECT_TRUE(now.content == content) << content.size();
        }
        EXPECT_THAT(dir.names(), ElementsAre("out.bin"));
    }
}

TEST(FileRange, IsWrittenInPlace) {
    std::string old(1000, 'o');
    std::string middle = old.substr(0, 100) + "BYTES" + old.substr(105);
    struct {
        const char* name;
        std::int64_t start;
        std::int64_t end;
        const char* range;
        bool old_file;
        std::string content;
    } cases[] = {
        {"middle", 100, 104, "bytes=100-104", true, middle},
        {"beginning", 0, 4, "bytes=0-4", true, "BYTES" + old.substr(5)},
        {"open end", 998, -1, "bytes=998-", true, old.substr(0, 998) + "BYTES"},
        {"last bytes", 0, -5, "bytes=-5", true, "BYTES" + old.substr(5)},
        {"new file", 3, 7, "bytes=3-7", false, bytes_of("\0\0\0BYTES")},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        work_dir dir;
        if (now.old_file) {
            write_file("out.bin", old);
        }
        scripted_server server(reply_with(response(206, "BYTES")));
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
    const std::string hash = "_[0-9a-f]{8}_[0-9a-f]{8}";
    const std::string long_name(500, 'n');
    struct {
        std::string target;
        std::string pattern;
    } cases[] = {
        {"/", "files/here/%2F" + hash + ".tmp"},
        {"/a/b.txt?q=1", "files/here/%2Fa%2Fb" + hash + ".txt"},
        {"/" + long_name + ".dat", "files/here/.{168}"},
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
        EXPECT_EQ("body of " + now.target, read_file(path));
    }
    EXPECT_THAT(dir.names(), ElementsAre("files"));
}

}  // namespace
