// Transfers with nginx, a server that knows nothing of this library; curl, asked for the same,
// must get the same.
#include "tests/support/host.h"
#include "tests/support/peer_servers.h"

#include <gtest/gtest.h>

namespace {

using arguments = std::vector<std::string>;

// What curl gets: the status, and the body.
struct outcome {
    std::string status;
    std::string body;
};

outcome curl(const arguments& more) {
    arguments all = {"curl", "-s", "-k", "--max-time", "20", "-w", "\n%{http_code}"};
    all.insert(all.end(), more.begin(), more.end());
    std::string out = output_of(all);
    std::size_t line = out.rfind('\n');
    EXPECT_NE(std::string::npos, line);
    return {out.substr(line + 1), out.substr(0, line)};
}

class Nginx : public testing::Test {
  protected:
    void SetUp() override {
        for (int i = 0; i < 5000; i++) {
            text += "line " + std::to_string(i) + " of the text\n";
        }
        ASSERT_TRUE(server.start(dir.path(), TAV_HTTP_WITH_TLS != 0));
        write_file(server.root() + "/hello.txt", "hello");
        write_file(server.root() + "/empty", "");
        write_file(server.root() + "/lines.txt", text);
        write_file(server.root() + "/bytes", bytes);
    }

    work_dir dir;
    nginx_server server;
    std::string text;
    const std::string bytes = sample_bytes(8000000);
};

TEST_F(Nginx, SameAsCurl) {
    struct {
        const char* path;
        std::uint32_t method;
        arguments more;  // for curl
        std::uint32_t code;
    } cases[] = {
        {"/hello.txt", TAV_HTTP_METHOD_GET, {}, 0},
        {"/empty", TAV_HTTP_METHOD_GET, {}, 0},
        {"/zip/lines.txt", TAV_HTTP_METHOD_GET, {"--compressed"}, 0},
        {"/zip/lines.txt", TAV_HTTP_METHOD_GET, {}, 0},
        {"/bytes", TAV_HTTP_METHOD_GET, {}, 0},
        {"/bytes", TAV_HTTP_METHOD_HEAD, {"--head", "-o", "/dev/null"}, 0},
        {"/hello.txt", TAV_HTTP_METHOD_POST, {"-d", "x"}, code::status},
        {"/say", TAV_HTTP_METHOD_POST, {"-d", "x"}, 0},
        {"/say?query=a%20b", TAV_HTTP_METHOD_GET, {}, 0},
        {"/say", TAV_HTTP_METHOD_OPTIONS, {"-X", "OPTIONS"}, 0},
        {"/moved", TAV_HTTP_METHOD_GET, {"-L"}, 0},
        {"/missing", TAV_HTTP_METHOD_GET, {}, code::status},
    };
    library lib;
    for (const auto& now : cases) {
        SCOPED_TRACE(now.path);
        arguments more = now.more;
        more.push_back(server.url(now.path));
        outcome expected = curl(more);
        transfer get(server.url(now.path), now.method);
        get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
        if (now.method == TAV_HTTP_METHOD_POST) {
            get.set_body("x");
        }
        if (now.more.empty()) {
            get.set(TAV_HTTP_OPTION_NO_COMPRESSION, 1u);
        }
        get.set(TAV_HTTP_OPTION_BODY_MD5, 1u);
        EXPECT_EQ(now.code, get.run());
        EXPECT_EQ(expected.status, std::to_string(get.status()));
        EXPECT_TRUE(expected.body.empty() || md5_hex(expected.body) == get.md5());
        EXPECT_TRUE(expected.body == get.body()) << expected.body.size() << get.body().size();
        bool zipped = now.more == arguments{"--compressed"};
        EXPECT_EQ(zipped ? 1 : 0, get.number(TAV_HTTP_QUERY_CONTENT_ENCODING));
        if (now.method == TAV_HTTP_METHOD_HEAD) {
            EXPECT_EQ(8000000, get.number(TAV_HTTP_QUERY_CONTENT_LENGTH));
        }
    }
}

TEST_F(Nginx, Resume) {
    library lib;
    for (std::size_t present :
         {std::size_t{0}, std::size_t{3000001}, bytes.size() - 1, bytes.size(), bytes.size() + 4}) {
        SCOPED_TRACE(present);
        write_file("resumed", (bytes + "more").substr(0, present));
        transfer get(server.url("/bytes"));
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "resumed");
        get.set(TAV_HTTP_OPTION_RESUME, 1u);
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(bytes == read_file("resumed"));
    }
}

TEST_F(Nginx, NotModified) {
    library lib;
    transfer first(server.url("/hello.txt"));
    EXPECT_EQ(0u, first.run());
    std::string etag = first.text(TAV_HTTP_QUERY_ETAG);
    std::int64_t modified = first.number(TAV_HTTP_QUERY_LAST_MODIFIED);
    EXPECT_NE("", etag);
    EXPECT_GT(modified, 1500000000);

    for (bool by_tag : {false, true}) {
        for (bool changed : {false, true}) {
            SCOPED_TRACE(testing::Message() << "tag " << by_tag << ", changed " << changed);
            transfer get(server.url("/hello.txt"));
            if (by_tag) {
                get.set(TAV_HTTP_OPTION_IF_NONE_MATCH, changed ? "\"other\"" : etag.c_str());
            } else {
                get.set(TAV_HTTP_OPTION_IF_MODIFIED_SINCE, modified - (changed ? 1 : 0));
            }
            EXPECT_EQ(changed ? 0u : code::not_modified, get.run());
            EXPECT_EQ(changed ? "hello" : "", get.body());
        }
    }
}

// The Host line names an IPv6 address without its brackets, which nginx does not take; the host can
// give the line a value of its own.
TEST_F(Nginx, Ipv6) {
    library lib;
    transfer bare(server.url6("/lines.txt"));
    EXPECT_EQ(code::status, bare.run());
    EXPECT_EQ(400u, bare.status());
    EXPECT_EQ("::1", bare.peer());
    transfer get(server.url6("/lines.txt"));
    get.set(TAV_HTTP_OPTION_HOST, "[::1]");
    EXPECT_EQ(0u, get.run());
    EXPECT_TRUE(text == get.body());
}

// How often the connection of each of the requests has been used.
std::string uses_of_connections(const std::string& url, int requests) {
    std::string counts;
    for (int i = 0; i < requests; i++) {
        transfer get(url);
        EXPECT_EQ(0u, get.run());
        counts += get.header("X-Requests");
    }
    return counts;
}

TEST_F(Nginx, ConnectionsAreReusedAsLongAsTheServerLikes) {
    library lib;
    EXPECT_EQ("12345", uses_of_connections(server.url("/say"), 5));
    transfer other(server.url("/say"));
    other.set(TAV_HTTP_OPTION_NO_REUSE, 1u);
    EXPECT_EQ(0u, other.run());
    EXPECT_EQ("1", other.header("X-Requests"));
    EXPECT_EQ("1231231", uses_of_connections(server.three_requests_url("/say"), 7))
        << "the server ends each connection after three responses";
}

// ------------------------------------------------------------------------------------ uploads

TEST_F(Nginx, RawUploads) {
    std::vector<std::string> urls = {server.url("/sink/raw")};
    for (std::uint16_t port : {server.tls12_port, server.tls13_port}) {
        if (TAV_HTTP_WITH_TLS) {
            urls.push_back("https://127.0.0.1:" + std::to_string(port) + "/sink/raw");
        }
    }
    library lib;
    for (const std::string& url : urls) {
        for (std::size_t size : {std::size_t{16384}, std::size_t{3000000}}) {
            const std::string sent = sample_bytes(size);
            write_file("upload", sent);
            outcome expected = curl({"--data-binary", "@upload", "-H", "Content-Type: a/b", url});
            EXPECT_EQ("200", expected.status);
            for (bool from_file : {false, true}) {
                SCOPED_TRACE(testing::Message() << url << ' ' << size << " file " << from_file);
                transfer post(url, TAV_HTTP_METHOD_POST);
                post.set(TAV_HTTP_OPTION_ADD_HEADER, "Content-Type", "%s", "a/b");
                if (from_file) {
                    post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload");
                } else {
                    post.set_body(sent);
                }
                EXPECT_EQ(0u, post.run());
                EXPECT_EQ(expected.body, post.body());
            }
        }
    }
}

// What a reader of multipart bodies finds in ours and in curl's is the same.
TEST_F(Nginx, MultipartUpload) {
    library lib;
    const std::string small = bytes_of("\r\n--\r\n\0--") + sample_bytes(1000);
    const std::string large = sample_bytes(2000000);
    write_file("small.bin", small);
    write_file("large.bin", large);
    outcome expected = curl({"-F", "field=a value", "-F", "none=", "-F", "f1=@small.bin", "-F",
                             "f2=@large.bin;filename=renamed", "-F",
                             "f3=@small.bin;filename=memory", server.url("/sink/form")});
    EXPECT_EQ("200", expected.status);

    transfer post(server.url("/sink/form"), TAV_HTTP_METHOD_POST);
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "a value");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "none", "");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f1", "small.bin", "small.bin");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f2", "large.bin", "renamed");
    post.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f3", small.data(),
             static_cast<std::int32_t>(small.size()), "memory");
    EXPECT_EQ(0u, post.run());
    // Without the line of the whole: boundaries differ.
    auto parts = [](const std::string& list) { return list.substr(list.find('\n') + 1); };
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
            transfer one(server.url("/say"), method);
            if (method == TAV_HTTP_METHOD_POST) {
                one.set_body("small");
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
    library lib;
    for (const std::string name : {"TLSv1.2", "TLSv1.3"}) {
        std::uint16_t port = name == "TLSv1.2" ? server.tls12_port : server.tls13_port;
        std::string base = "https://127.0.0.1:" + std::to_string(port);
        for (const char* path : {"/hello.txt", "/bytes", "/zip/lines.txt", "/missing"}) {
            SCOPED_TRACE(name + path);
            outcome expected = curl({"--compressed", base + path});
            transfer get(base + path);
            get.set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, 1u);
            EXPECT_EQ(expected.status == "404" ? code::status : 0u, get.run());
            EXPECT_EQ(expected.status, std::to_string(get.status()));
            EXPECT_TRUE(expected.body == get.body());
            EXPECT_EQ(expected.status == "200" ? name : "", get.header("X-Protocol"));
        }
        lib.shutdown();
        lib.startup();
        EXPECT_EQ("123", uses_of_connections(base + "/say", 3)) << name;
    }
}

#endif

}  // namespace
