// Transfers with nginx, a server that knows nothing of this library; curl, asked for the same,
// must get the same.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

namespace {

using arguments = std::vector<std::string>;

// What curl gets: the status, and the body.
struct answer {
    std::string status;
    std::string body;
};

answer curl(const arguments& more) {
    arguments all = {"curl", "-s", "-k", "--max-time", "20", "-w", "\n%{http_code}"};
    all.insert(all.end(), more.begin(), more.end());
    std::string out = output_of(all);
    std::size_t line = out.rfind('\n');
    return line == std::string::npos ? answer() : answer{out.substr(line + 1), out.substr(0, line)};
}

class Nginx : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<work_dir>();
        server = std::make_unique<nginx_server>();
        text.clear();
        for (int i = 0; i < 5000; i++) {
            text += "line " + std::to_string(i) + " of the text\n";
        }
        bytes = sample_bytes(8000000);
        if (TAV_HTTP_WITH_TLS) {
            make_certificate_files(dir->path(), "peer", "rsa", "/O=Test/CN=peer.test");
            make_certificate_files(dir->path(), "bare", "ec", "/CN=peer.test");
        }
        started = server->start(dir->path(), TAV_HTTP_WITH_TLS != 0);
        write_file(server->root() + "/hello.txt", "hello");
        write_file(server->root() + "/empty", "");
        write_file(server->root() + "/lines.txt", text);
        write_file(server->root() + "/bytes", bytes);
    }
    static void TearDownTestSuite() {
        server.reset();
        dir.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(started);
    }

    static std::unique_ptr<work_dir> dir;
    static std::unique_ptr<nginx_server> server;
    static std::string text;
    static std::string bytes;
    static bool started;
};

std::unique_ptr<work_dir> Nginx::dir;
std::unique_ptr<nginx_server> Nginx::server;
std::string Nginx::text;
std::string Nginx::bytes;
bool Nginx::started = false;

constexpr std::uint32_t refused = TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR;

TEST_F(Nginx, SameAsCurl) {
    struct {
        const char* path;
        std::uint32_t method;
        arguments more;  // for curl
        std::uint32_t code;
    } cases[] = {
        {"/hello.txt", TAV_HTTP_METHOD_GET, {}, 0},
        {"/empty", TAV_HTTP_METHOD_GET, {}, 0},
        {"/lines.txt", TAV_HTTP_METHOD_GET, {}, 0},
        {"/zip/lines.txt", TAV_HTTP_METHOD_GET, {"--compressed"}, 0},
        {"/zip/lines.txt", TAV_HTTP_METHOD_GET, {}, 0},
        {"/bytes", TAV_HTTP_METHOD_GET, {}, 0},
        {"/bytes", TAV_HTTP_METHOD_HEAD, {"--head", "-o", "/dev/null"}, 0},
        {"/hello.txt", TAV_HTTP_METHOD_POST, {"-d", "x"}, refused},
        {"/say", TAV_HTTP_METHOD_POST, {"-d", "x"}, 0},
        {"/say?query=a%20b", TAV_HTTP_METHOD_GET, {}, 0},
        {"/say", TAV_HTTP_METHOD_OPTIONS, {"-X", "OPTIONS"}, 0},
        {"/moved", TAV_HTTP_METHOD_GET, {"-L"}, 0},
        {"/missing", TAV_HTTP_METHOD_GET, {}, refused},
        {"/zip", TAV_HTTP_METHOD_GET, {"-L"}, refused},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.path);
        arguments more = now.more;
        more.push_back(server->url(now.path));
        answer expected = curl(more);
        transfer get(server->url(now.path), now.method);
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
        if (now.method == TAV_HTTP_METHOD_POST) {
            get.set(TAV_HTTP_OPTION_APPEND_BODY, "x", 1u);
        }
        if (now.more.empty()) {
            get.set(TAV_HTTP_OPTION_NO_COMPRESSION, 1u);
        }
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(expected.status, std::to_string(get.status()));
        EXPECT_TRUE(expected.body == get.body()) << expected.body.size() << get.body().size();
        bool zipped = now.more == arguments{"--compressed"};
        EXPECT_EQ(zipped ? 1 : 0, get.number(TAV_HTTP_QUERY_CONTENT_ENCODING));
    }
}

TEST_F(Nginx, HeadTellsTheLength) {
    library lib;
    transfer head(server->url("/bytes"), TAV_HTTP_METHOD_HEAD);
    EXPECT_EQ(0u, head.run());
    EXPECT_EQ(8000000, head.number(TAV_HTTP_QUERY_CONTENT_LENGTH));
    EXPECT_EQ("", head.body());
}

TEST_F(Nginx, LargeFileKeepsItsChecksum) {
    library lib;
    for (bool zipped : {false, true}) {
        SCOPED_TRACE(zipped);
        const std::string& wanted = zipped ? text : bytes;
        transfer get(server->url(zipped ? "/zip/lines.txt" : "/bytes"));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "fetched");
        get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
        EXPECT_EQ(0u, get.run());
        EXPECT_EQ(md5_hex(wanted), get.md5());
        EXPECT_TRUE(wanted == read_file("fetched"));
    }
}

TEST_F(Nginx, Ranges) {
    struct {
        std::int64_t first, last;
        const char* range;  // for curl
        std::uint32_t code;
    } cases[] = {
        {0, 1, "0-1", 0},
        {100, 199, "100-199", 0},
        {7999990, -1, "7999990-", 0},
        {0, -50, "-50", 0},
        {7999990, 9000000, "7999990-9000000", 0},
        {8000000, 8000010, "8000000-8000010", refused},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.range);
        answer expected = curl({"-r", now.range, server->url("/bytes")});
        transfer get(server->url("/bytes"));
        get.set(TAV_HTTP_OPTION_RANGE, now.first, now.last);
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(expected.status, std::to_string(get.status()));
        // The page that comes with a refused range is no body to keep.
        EXPECT_TRUE((now.code == 0 ? expected.body : "") == get.body());
    }
}

TEST_F(Nginx, Resume) {
    struct {
        const char* title;
        std::string present;
    } cases[] = {
        {"none", ""},
        {"a part", bytes.substr(0, 3000001)},
        {"all but one", bytes.substr(0, bytes.size() - 1)},
        {"all", bytes},
        {"more than all", bytes + "more"},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        write_file("resumed", now.present);
        transfer get(server->url("/bytes"));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "resumed");
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(bytes == read_file("resumed"));
    }
}

TEST_F(Nginx, NotModified) {
    library lib;
    transfer first(server->url("/hello.txt"));
    EXPECT_EQ(0u, first.run());
    std::string etag = first.text(TAV_HTTP_QUERY_ETAG);
    std::int64_t modified = first.number(TAV_HTTP_QUERY_LAST_MODIFIED);
    EXPECT_NE("", etag);
    EXPECT_GT(modified, 1500000000);

    struct {
        std::string etag;  // empty: none
        std::int64_t since;
        std::uint32_t code;
    } cases[] = {
        {etag, 0, TAV_HTTP_ERROR_CODE_NOT_MODIFIED},
        {"", modified, TAV_HTTP_ERROR_CODE_NOT_MODIFIED},
        {etag, modified, TAV_HTTP_ERROR_CODE_NOT_MODIFIED},
        {"\"other\"", 0, 0},
        {"", modified - 1, 0},
    };
    for (const auto& now : cases) {
        transfer get(server->url("/hello.txt"));
        get.set(TAV_HTTP_OPTION_IF_MODIFIED_SINCE, now.since);
        if (!now.etag.empty()) {
            get.set(TAV_HTTP_OPTION_IF_NONE_MATCH, now.etag.c_str());
        }
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(now.code == 0 ? "hello" : "", get.body());
    }
}

TEST_F(Nginx, RedirectIsFollowedAndTold) {
    library lib;
    transfer get(server->url("/moved"));
    get.record();
    EXPECT_EQ(0u, get.run());
    EXPECT_EQ("hello", get.body());
    EXPECT_EQ(server->url("/hello.txt"), get.text(TAV_HTTP_QUERY_CURRENT_URL));
    EXPECT_EQ(server->url("/hello.txt") + " " + server->url("/moved"), get.detail("redirect"));
}

// The Host line names an IPv6 address without its brackets, which nginx does not take; the host can
// give the line a value of its own.
TEST_F(Nginx, Ipv6) {
    library lib;
    transfer bare(server->url6("/lines.txt"));
    EXPECT_EQ(refused, bare.run());
    EXPECT_EQ(400u, bare.status());
    EXPECT_EQ("::1", bare.peer());
    transfer get(server->url6("/lines.txt"));
    get.set(TAV_HTTP_OPTION_HOST, "[::1]");
    EXPECT_EQ(0u, get.run());
    EXPECT_TRUE(text == get.body());
}

TEST_F(Nginx, ConnectionsAreReusedAsLongAsTheServerLikes) {
    library lib;
    std::set<std::string> connections;
    for (int i = 1; i <= 5; i++) {
        transfer get(server->url("/say"));
        EXPECT_EQ(0u, get.run());
        connections.insert(get.header("X-Connection"));
        EXPECT_EQ(std::to_string(i), get.header("X-Requests"));
    }
    EXPECT_EQ(1u, connections.size());

    transfer other(server->url("/say"));
    other.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
    EXPECT_EQ(0u, other.run());
    EXPECT_EQ("1", other.header("X-Requests"));

    std::string counts;
    for (int i = 0; i < 7; i++) {
        transfer get(server->three_requests_url("/say"));
        EXPECT_EQ(0u, get.run());
        counts += get.header("X-Requests");
    }
    EXPECT_EQ("1231231", counts) << "the server ends each connection after three responses";
}

// Idle connections that a restart of the server has ended: nobody notices.
TEST_F(Nginx, RestartBetweenTwoRequests) {
    library lib;
    const std::string body = sample_bytes(100000);
    for (bool with_body : {false, true}) {
        SCOPED_TRACE(with_body);
        transfer before(server->url("/say"));
        EXPECT_EQ(0u, before.run());
        ASSERT_TRUE(server->restart());
        transfer after(server->url("/say"), with_body ? 2u : 1u);
        after.record();
        if (with_body) {
            after.set(TAV_HTTP_OPTION_APPEND_BODY, body.data(),
                      static_cast<std::uint32_t>(body.size()));
        }
        EXPECT_EQ(0u, after.run());
        EXPECT_EQ("said", after.body());
        EXPECT_EQ("1", after.header("X-Requests"));
        EXPECT_EQ(1, after.completions());
    }
}

// ------------------------------------------------------------------------------------ uploads

TEST_F(Nginx, RawUploads) {
    library lib;
    for (std::size_t size : {std::size_t{1}, std::size_t{16384}, std::size_t{3000000}}) {
        SCOPED_TRACE(size);
        const std::string sent = sample_bytes(size);
        write_file("upload", sent);
        answer expected =
            curl({"--data-binary", "@upload", "-H", "Content-Type: application/octet-stream",
                  server->url("/sink/raw")});
        EXPECT_EQ("200", expected.status);
        for (bool from_file : {false, true}) {
            transfer post(server->url("/sink/raw"), TAV_HTTP_METHOD_POST);
            post.set(TAV_HTTP_OPTION_ADD_HEADER, "Content-Type", "%s", "application/octet-stream");
            if (from_file) {
                post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload");
            } else {
                post.set(TAV_HTTP_OPTION_APPEND_BODY, sent.data(),
                         static_cast<std::uint32_t>(sent.size()));
            }
            EXPECT_EQ(0u, post.run());
            EXPECT_EQ(expected.body, post.body());
        }
    }
}

// What a reader of multipart bodies finds in ours and in curl's is the same.
TEST_F(Nginx, MultipartUpload) {
    library lib;
    const std::string small = std::string("\r\n--\r\n\0--", 9) + sample_bytes(1000);
    const std::string large = sample_bytes(2000000);
    write_file("small.bin", small);
    write_file("large.bin", large);
    answer expected = curl({"-F", "field=a value", "-F", "none=", "-F", "f1=@small.bin", "-F",
                            "f2=@large.bin;filename=renamed", "-F", "f3=@small.bin;filename=memory",
                            server->url("/sink/form")});
    EXPECT_EQ("200", expected.status);

    transfer post(server->url("/sink/form"), TAV_HTTP_METHOD_POST);
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "a value");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "none", "");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f1", "small.bin", "small.bin");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f2", "large.bin", "renamed");
    post.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f3", small.data(),
             static_cast<std::int32_t>(small.size()), "memory");
    EXPECT_EQ(0u, post.run());
    auto parts = [](const std::string& list) {
        return list.substr(list.find('\n') +
                           1);  // Without the line of the whole: boundaries differ.
    };
    EXPECT_EQ(parts(expected.body), parts(post.body()));
    EXPECT_EQ(0u, post.body().find("POST /sink/form multipart/form-data "));
    EXPECT_NE(std::string::npos, post.body().find("part f2 renamed 2000000 " + md5_hex(large)));
}

// A request that leaves in two sends must not wait for the acknowledgement of the first: with the
// usual delay of 40 ms that would be felt in each request.
TEST_F(Nginx, SmallPostsAreNotDelayed) {
    constexpr int count = 50;
    constexpr milliseconds delayed_acknowledgement{40};
    library lib;
    auto time_of = [&](std::uint32_t method) {
        auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < count; i++) {
            transfer one(server->url("/say"), method);
            if (method == TAV_HTTP_METHOD_POST) {
                one.set(TAV_HTTP_OPTION_APPEND_BODY, "small", 5u);
            }
            EXPECT_EQ(0u, one.run());
            EXPECT_TRUE(i == 0 || one.header("X-Requests") != "1") << "the connection is kept";
        }
        return std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - begin);
    };
    // A busy machine may slow one run; the delay would slow them all.
    std::chrono::microseconds posts = std::chrono::microseconds::max();
    for (int run = 0; run < 3 && posts >= count * delayed_acknowledgement; run++) {
        std::chrono::microseconds gets = time_of(TAV_HTTP_METHOD_GET);
        posts = time_of(TAV_HTTP_METHOD_POST);
        RecordProperty("post_to_get_percent", std::to_string(100 * posts.count() / gets.count()));
    }
    EXPECT_LT(posts, count * delayed_acknowledgement);
}

// ---------------------------------------------------------------------------------------- https

#if TAV_HTTP_WITH_TLS

TEST_F(Nginx, HttpsInEachVersion) {
    struct {
        const char* name;
        std::uint16_t port;
    } cases[] = {{"TLSv1.2", server->tls12_port}, {"TLSv1.3", server->tls13_port}};
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        std::string base = "https://127.0.0.1:" + std::to_string(now.port);
        for (const char* path : {"/hello.txt", "/bytes", "/zip/lines.txt", "/say", "/missing"}) {
            SCOPED_TRACE(path);
            answer expected = curl({"--compressed", base + path});
            transfer get(base + path);
            get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
            EXPECT_EQ(expected.status == "404" ? refused : 0u, get.run());
            EXPECT_EQ(expected.status, std::to_string(get.status()));
            EXPECT_TRUE(expected.body == get.body());
            if (expected.status == "200") {
                EXPECT_EQ(now.name, get.header("X-Protocol"));
            }
        }
        write_file("upload", bytes);
        answer expected = curl({"--data-binary", "@upload", base + "/sink/raw"});
        transfer post(base + "/sink/raw", TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_ADD_HEADER, "Content-Type", "%s",
                 "application/x-www-form-urlencoded");
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload");
        EXPECT_EQ(0u, post.run());
        EXPECT_EQ(expected.body, post.body());

        std::string counts;
        for (int i = 0; i < 3; i++) {
            transfer get(base + "/say");
            EXPECT_EQ(0u, get.run());
            counts += get.header("X-Connection") + " ";
        }
        std::string one = counts.substr(0, counts.find(' ') + 1);
        EXPECT_EQ(one + one + one, counts) << "one connection";
    }
}

TEST_F(Nginx, HttpsNames) {
    constexpr std::uint32_t name_refused = 0x4000a;
    struct {
        const char* title;
        std::uint16_t port;
        const char* expected;
        std::uint32_t code;
    } cases[] = {
        {"not looked at", server->tls13_port, nullptr, 0},
        {"same", server->tls12_port, "peer.test", 0},
        {"same", server->tls13_port, "peer.test", 0},
        {"other", server->tls13_port, "other.test", name_refused},
        {"name in the subject's first place", server->bare_port, "peer.test", name_refused},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.title);
        transfer get("https://localhost:" + std::to_string(now.port) + "/say");
        get.set(TAV_HTTP_OPTION_TLS_HOST_NAME, now.expected);
        get.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
        EXPECT_EQ(now.code, get.run());
        if (now.code == 0) {
            EXPECT_EQ("said", get.body());
            EXPECT_EQ(now.expected != nullptr ? now.expected : "localhost", get.header("X-Name"));
        }
    }
}

#endif

}  // namespace
