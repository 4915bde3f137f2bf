// What single transfers of the table leave open: answers and what they lead to, what goes out and
// how the host hears of it, which connections serve again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/host.h"

namespace {

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
const char* const keep = "Connection: Keep-Alive\r\n";

std::string with_lines(std::size_t count, const std::string& line) {
    std::string head = ok;
    for (std::size_t i = 0; i < count; i++) {
        head += line + "\r\n";
    }
    return head + "Content-Length: 4\r\n\r\nbody";
}

TEST(Answer, DecidesTheCode) {
    const std::string bytes = sample_bytes(100000), gzip = "Content-Encoding: gzip\r\n";
    const std::string length = response(200, bytes), chunks = chunked_response(200, bytes, 7000);
    const std::string zipped = response(200, gzip_bytes(bytes), gzip);
    const struct {
        const char* code;
        std::vector<std::string> answers;
    } rows[] = {
        {"OK", {response(206, "why"), with_lines(1, "X: " + std::string(65536, 'x'))}},
        {"SVR_RETURN_ERROR",
         {response(201, "why"), "HTTP/1.1 204 None\r\n\r\n", response(300, "why"),
          response(302, "no location"), response(308, "x", "Location: /to\r\n"), response(416, "x"),
          response(599, "why")}},
        {"INVALID_URL", {response(302, "x", "Location: ftp://h/x\r\n")}},
        {"FAIL_PARSE_RESPONSE",
         {std::string(1000, '\0'), "GET / HTTP/1.1\r\n\r\n", ok + "(AB)\r\n\r\n",
          ok + "Content-Length: -5\r\n\r\n", ok + "Content-Length: 99999999999999999999999\r\n\r\n",
          ok + "Content-Length: 2\r\n\r\nabcdef", chunked + "2\r\nabxxyyzz\r\n0\r\n\r\n",
          chunked + "fffffffffffffffffff\r\nabc\r\n", with_lines(10000, "X-Header: value"),
          response(200, gzip_bytes("plain"), "Content-Encoding: deflate\r\n"),
          ok + "X: " + std::string(1000000, 'x')}},
        // Cut short: the last byte, the last line, a half.
        {"FAIL_RECV",
         {length.substr(0, length.size() - 1), chunks.substr(0, chunks.size() - 1),
          chunks.substr(0, chunks.size() - 5), zipped.substr(0, zipped.size() - 1),
          zipped.substr(0, zipped.size() / 2)}},
    };
    library lib;
    work_dir dir;
    for (const auto& row : rows) {
        for (const std::string& answer : row.answers) {
            SCOPED_TRACE(answer.substr(0, 90));
            bool ends = row.code == std::string("FAIL_RECV"),
                 refuses = answer.substr(9, 3) == "416";
            peer server(ends ? reply_and_close(answer) : reply_with(answer));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            EXPECT_EQ(row.code, get.run());
            EXPECT_EQ(ends || refuses ? 2u : 1u, server.connection_count());
            EXPECT_EQ(row.code == std::string("OK") ? "out.bin" : "", dir.names());
            std::filesystem::remove("out.bin");
        }
    }
}

TEST(Answer, AnErrorBodyGoesToTheTargetOnlyOnRequest) {
    library lib;
    work_dir dir;
    peer server(always(response(404, "gone")));
    for (bool to_file : {false, true}) {
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
        get.record();
        if (to_file) {
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        } else {
            get.record_data();
        }
        EXPECT_EQ("SVR_RETURN_ERROR", get.run());
        EXPECT_EQ("gone", to_file ? read_file("out.bin") : get.data());
        EXPECT_EQ("", get.body());
        EXPECT_EQ(1u, get.event_count("start"));
    }
}

TEST(Call, WrongOnesEndAsCodes) {
    allow_assertion("_add_header_field_range");
    library lib;
    peer server(script{expect_request()});
    const std::string refused = "http://127.0.0.1:" + std::to_string(refusing_port()) + "/";
    const struct {
        std::uint32_t method;
        std::string url;
        std::int64_t range_start;
        const char* code;
    } rows[] = {
        {5, "http://127.0.0.1:1/", 0, "METHOD_NOT_SUPPORT"},
        {1, "ftp://127.0.0.1/", 0, "INVALID_URL"},
        {1, "http://", 0, "INVALID_URL"},
        {1, refused, 0, "FAIL_CONNECT"},
        {1, refused, -5, "FAIL_CONNECT"},  // the head is built later
        {1, server.url(), -5, "INVALID_REQUEST_HEADER"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        transfer bad(row.url, row.method);
        bad.set_range(row.range_start, row.range_start != 0 ? 10 : 0);
        EXPECT_EQ(row.code, bad.run());
    }
    EXPECT_EQ(0u, server.request_count());
}

TEST(Callbacks, ComeInOrderOnLibraryThreads) {
    library lib;
    std::string bytes = sample_bytes(500000);
    peer server(always(response(206, bytes)));
    transfer get(server.url("/file"));
    get.set_range(1000, -1);
    get.record();
    get.record_data();
    EXPECT_EQ("OK", get.run());
    EXPECT_EQ("connecting connected progress header start data complete", get.event_names());
    EXPECT_EQ(server.url("/file"), get.detail("connecting"));
    EXPECT_EQ("127.0.0.1", get.detail("connected"));
    EXPECT_EQ(server.url("/file") + " 1000 -1 500000", get.detail("start"));
    EXPECT_EQ(1000, get.number(TAV_HTTP_QUERY_OPTION_RANGE_START));
    unsigned long long next = 1000, at = 0, length = 0;
    for (const event& one : get.events()) {
        EXPECT_NE(std::this_thread::get_id(), one.thread) << one.name;
        if (one.name == "data" && sscanf(one.detail.c_str(), "%llu %llu", &at, &length) == 2) {
            EXPECT_EQ(next, at);
            next = at + length;
        }
    }
    EXPECT_EQ(501000u, next);
}

TEST(Connection, IsReusedWhenBothSidesLike) {
    const std::string silent = response(200, "x"), kept = response(200, "x", keep);
    const struct {
        const char* name;
        std::string answer;
        std::uint32_t no_reuse, keeps;
        std::size_t connections;
    } rows[] = {
        {"the server says keep-alive", kept, 0, 0, 1},
        {"the server says nothing", silent, 0, 0, 2},
        {"the server says nothing, the host keeps", silent, 0, 1, 1},
        {"the server says close", response(200, "x", "Connection: close\r\n"), 0, 0, 2},
        {"the host wants new ones", kept, 1, 0, 2},
        {"an unchanged resource", "HTTP/1.1 304 x\r\nConnection: Keep-Alive\r\n\r\n", 0, 0, 1},
        {"an error response", response(500, "x", keep), 0, 0, 2},
        {"one reuse", response(200, "x", "Connection: Keep-Alive, max=1\r\n"), 0, 0, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        library lib;
        peer server(always(row.answer));
        for (int i = 0; i < (std::string(row.name) == "one reuse" ? 3 : 2); i++) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_NO_REUSE, row.no_reuse);
            get.set(TAV_HTTP_OPTION_KEEP_ALIVE, row.keeps, 0, 0);
            get.run();
        }
        EXPECT_EQ(row.connections, server.connection_count());
    }
}

TEST(Connection, ToAnIpv6Address) {
    library lib;
    peer server(always(response(200, "six")), {.ipv6 = true});
    transfer get(server.url());
    EXPECT_EQ("OK", get.run());
    EXPECT_EQ("::1", get.address());
    EXPECT_EQ("::1", server.request(0).header("Host"));
}

// ------------------------------------------------------------------------ redirects and cookies

// Each keeps the method and the body; the host option serves the first request alone. A redirecting
// connection is never kept.
TEST(Redirect, LocationsAreResolved) {
    const struct {
        int status;
        const char *from, *location;  // @ stands for the server's host and port
        const char* current;          // behind host and port
    } rows[] = {
        {301, "/a/b/c", "http://@/abs?x=1", "/abs?x=1"},
        {302, "/a/b/c", "//@/p", "/p"},
        {303, "/a/b/c", "../../../x", "/x"},
        {307, "/a/b?q=/1", "?r=2", "/a/b?r=2"},
        {301, "/f#top", "/to", "/to#top"},
    };
    library lib;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.location);
        std::string location = row.location, target = row.current;
        peer server([&](const received_request& request) {
            return request.connection != 0
                       ? response(200, "x")
                       : response(row.status, "", keep + ("Location: " + location) + "\r\n");
        });
        if (location.find('@') != std::string::npos) {
            location.replace(location.find('@'), 1, server.url("").substr(7));
        }
        transfer post(server.url(row.from), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_HOST, "named.example");
        post.set_body("data");
        post.record();
        EXPECT_EQ("OK", post.run());
        EXPECT_EQ(server.url(row.current), post.text(TAV_HTTP_QUERY_CURRENT_URL));
        EXPECT_EQ(server.url(row.from), post.text(TAV_HTTP_QUERY_URL));
        EXPECT_EQ(server.url(row.current) + " " + server.url(row.from), post.detail("redirect"));
        received_request second = server.request(1);
        EXPECT_EQ("POST " + target.substr(0, target.find('#')) + " data",
                  second.method + " " + second.target + " " + second.body);
        EXPECT_EQ("named.example", server.request(0).header("Host"));
        EXPECT_EQ("127.0.0.1", second.header("Host"));
        EXPECT_EQ("connecting connected progress redirect connecting connected progress header "
                  "start complete",
                  post.event_names());
    }
}

TEST(Cookies, OwnOnesComeFirstAndTheStoreCanBeLeftOut) {
    const struct {
        const char* own;
        std::uint32_t off;
        const char* sent;
    } rows[] = {{nullptr, 0, "a=1;b=2;"}, {"b=own; c=3", 0, "b=own; c=3; a=1"}, {nullptr, 1, ""}};
    library lib;
    peer server(
        always(response(200, "", "Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2; Path=/\r\n")));
    transfer first(server.url());
    EXPECT_EQ("OK", first.run());
    for (const auto& row : rows) {
        transfer get(server.url());
        if (row.own != nullptr) {
            get.set(TAV_HTTP_OPTION_COOKIE, row.own);
        }
        get.set(TAV_HTTP_OPTION_NO_COOKIE_STORE, row.off);
        EXPECT_EQ("OK", get.run());
        EXPECT_EQ(row.sent, server.requests().back().header("Cookie"));
    }
    lib.shutdown();
    lib.startup();
    transfer anew(server.url());
    EXPECT_EQ("OK", anew.run());
    EXPECT_FALSE(server.requests().back().has_header("Cookie")) << "each start has an empty store";
}

// -------------------------------------------------------------------------------- files, uploads

TEST(ChosenFile, LiesInTheDownloadDirectory) {
    library lib;
    work_dir dir;
    const std::string hash = "_[0-9a-f]+_[0-9a-f]+", long_name(500, 'n');
    const struct {
        const char* directory;
        std::string target, pattern;
    } rows[] = {
        {"files\\here", "/", "files/here/%2F" + hash + ".tmp"},
        {"files/here/", "/a/b.txt?q=1", "files/here/%2Fa%2Fb" + hash + ".txt"},
        {"files/here", "/" + long_name + ".dat", "files/here/n+" + hash + ".dat"},
    };
    peer server([](const received_request& request) { return response(200, request.target); });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        ASSERT_EQ(0u, tavHTTPSetDownloadDirectory(row.directory));
        transfer get(server.url(row.target));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "elsewhere");
        get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
        EXPECT_EQ("OK", get.run());
        std::string path = get.text(TAV_HTTP_QUERY_FILE_PATH);
        EXPECT_THAT(path, testing::MatchesRegex(row.pattern));
        EXPECT_GE(200u, path.size());
        EXPECT_EQ(row.target, read_file(path));
    }
}

TEST(File, RangesAreWrittenInPlace) {
    const std::string old(1000, 'o');
    const struct {
        const char* path;
        std::int64_t start, end;
        const char *range, *code;
        std::string before, content;
    } rows[] = {
        {"out", 0, 4, "bytes=0-4", "OK", old, "BYTES" + old.substr(5)},
        {"out", 998, -1, "bytes=998-", "OK", old, old.substr(0, 998) + "BYTES"},
        {"out", 0, -5, "bytes=-5", "OK", old, "BYTES" + old.substr(5)},
        {"out", 3, 7, "bytes=3-7", "OK", "", bytes_of("\0\0\0BYTES")},
        {"missing/out", 0, 0, "", "FAIL_OPEN_RESPONSE_FILE", "", "(none)"},
        {"missing/out", 10, -1, "bytes=10-", "FAIL_OPEN_RESPONSE_FILE", "", "(none)"},
        {"taken", 0, 0, "", "FAIL_WRITE_RESPONSE_FILE", "", "(folder)"},
        {"taken", 10, -1, "bytes=10-", "FAIL_OPEN_RESPONSE_FILE", "", "(folder)"},
    };
    library lib;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.path) + " " + row.range);
        work_dir dir;
        std::filesystem::create_directory("taken");
        write_file("out", row.before);
        peer server(always(response(206, "BYTES")));
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, row.path);
        get.set_range(row.start, row.end);
        EXPECT_EQ(row.code, get.run());
        EXPECT_EQ(row.range, server.request(0).header("Range"));
        bool stays_folder = std::filesystem::is_directory(row.path);
        EXPECT_EQ(row.content, stays_folder ? "(folder)" : read_file(row.path));
        EXPECT_EQ("out", dir.names());
    }
}

constexpr std::size_t piece = 16384;

TEST(Upload, LeavesInPiecesThatTheHostHearsOf) {
    library lib;
    work_dir dir;
    peer server(always(response(200, "ok")));
    for (std::size_t size :
         {std::size_t{0}, std::size_t{1}, piece - 1, piece, piece + 1, std::size_t{1000003}}) {
        for (bool from_file : {false, true}) {
            SCOPED_TRACE(testing::Message() << size << (from_file ? " file" : " memory"));
            std::string bytes = sample_bytes(size), expected, seen;
            transfer post(server.url("/up"), TAV_HTTP_METHOD_POST);
            post.record();
            if (from_file) {
                write_file("upload.bin", bytes);
                post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
            } else if (size > 0) {
                post.set_body(bytes.substr(0, 1));
                post.set_body(bytes.substr(1));
            }
            ASSERT_EQ("OK", post.run());
            received_request request = server.requests().back();
            EXPECT_EQ(std::to_string(size), request.header("Content-Length"));
            EXPECT_TRUE(request.body == bytes);
            std::size_t all = request.raw.size(), next = all - size;  // the head comes first
            for (std::size_t at = 0; at < all; at += next, next = std::min(piece, all - at)) {
                expected += std::to_string(at) + " " + std::to_string(next) + " " +
                            std::to_string(all) + "\n";
            }
            for (const event& one : post.events()) {
                seen += one.name == "progress" ? one.detail + "\n" : "";
            }
            EXPECT_EQ(expected, seen);
        }
    }
}

void set_upload(transfer& post, bool in_form, const char* path) {
    if (in_form) {
        post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", path, "name");
    } else {
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path);
    }
}

TEST(Upload, MissingFilesSendNothing) {
    library lib;
    work_dir dir;
    for (bool in_form : {false, true}) {
        peer server(always(response(200, "ok")));
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.record();
        set_upload(post, in_form, "missing");
        EXPECT_EQ("FAIL_OPEN_UPLOAD_FILE", post.run());
        EXPECT_EQ("connecting connected complete", post.event_names());
        post.close();  // Only now does its connection end.
        ASSERT_TRUE(server.wait_for_disconnects(1));
        EXPECT_EQ(0u, server.request_count());
    }
}

TEST(Upload, AFileMayChangeItsSize) {
    const std::string bytes = sample_bytes(40000);
    library lib;
    work_dir dir;
    for (std::size_t now : {std::size_t{0}, piece, std::size_t{20000}, std::size_t{90000}}) {
        SCOPED_TRACE(now);
        write_file("upload.bin", bytes);
        peer server(always(response(200, "ok")));
        std::atomic<bool> changed{false};
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        post.keep_alive();
        // At the first call, for the head, the file is open and sized.
        post.at("progress", [&](transfer&) {
            if (!changed.exchange(true)) {
                std::filesystem::resize_file("upload.bin", now);
            }
        });
        if (now < bytes.size()) {
            EXPECT_EQ("FAIL_READ_UPLOAD_FILE", post.run());
            continue;
        }
        EXPECT_EQ("OK", post.run()) << "what was announced is sent";
        transfer next(server.url());
        EXPECT_EQ("OK", next.run());
        EXPECT_EQ(1u, server.connection_count());
        EXPECT_TRUE(server.request(0).body == bytes);
        EXPECT_EQ("GET", server.request(1).method) << "bytes too many have spoilt the next request";
    }
}

// The size of a file beyond 32 bits must survive into the head and the progress figures; and a
// cancel between two pieces is the end.
TEST(Upload, FilesBeyondFourGigabytes) {
    library lib;
    work_dir dir;
    const std::uint64_t size = (std::uint64_t{5} << 30) + 7;
    write_file("sparse.bin", "");
    std::filesystem::resize_file("sparse.bin", size);
    for (bool in_form : {false, true}) {
        peer server(script{read_bytes(600)});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        set_upload(post, in_form, "sparse.bin");
        post.at("progress", [](transfer& self) {
            if (self.event_count("progress") == 5) {
                self.cancel();
            }
        });
        EXPECT_EQ("CANCEL", post.run());
        EXPECT_TRUE(server.wait_for_requests(1));
        EXPECT_EQ(5u, post.event_count("progress")) << "a piece went out after the cancel";
        received_request request = server.request(0);
        std::uint64_t announced =
            std::strtoull(request.header("Content-Length").c_str(), nullptr, 10);
        EXPECT_GE(announced, size);
        EXPECT_LE(announced, size + (in_form ? 400 : 0));
        std::size_t head = request.raw.find("\r\n\r\n") + 4;
        EXPECT_EQ("0 " + std::to_string(head) + " " + std::to_string(head + announced),
                  post.detail("progress"));
    }
}

// Whatever a body is made of, it is built again for the next request of its session: behind a
// redirect, and on a new connection when a kept one breaks at the body.
TEST(Upload, BodiesAreRebuilt) {
    const transfer::action bodies[] = {
        [](transfer& post) { post.set_body("some bytes"); },
        [](transfer& post) { set_upload(post, false, "upload.bin"); },
        [](transfer& post) { post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d", 1); },
        [](transfer& post) { set_upload(post, true, "upload.bin"); }};
    const script first = reply_with(response(200, "first")),
                 second = reply_with(response(200, "second"));
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(200000));
    for (bool breaks : {false, true}) {
        for (const transfer::action& set : bodies) {
            SCOPED_TRACE(testing::Message() << breaks << ", body " << &set - bodies);
            peer server(std::vector<script>{
                breaks ? first + script{expect_request(), close_now()}
                       : first + reply_with(response(307, "", "Location: /to\r\n")),
                second});
            transfer get(server.url());
            get.keep_alive();
            ASSERT_EQ("OK", get.run());
            transfer post(server.url(), TAV_HTTP_METHOD_POST);
            set(post);
            ASSERT_EQ("OK", post.run());
            EXPECT_EQ("second", post.body());
            ASSERT_EQ(3u, server.request_count());
            received_request before = server.request(1), last = server.request(2);
            EXPECT_EQ("POST", last.method);
            EXPECT_FALSE(last.body.empty());
            EXPECT_TRUE(before.body == last.body);
            EXPECT_EQ(before.header("Content-Type"), last.header("Content-Type"));
        }
    }
}

}  // namespace
