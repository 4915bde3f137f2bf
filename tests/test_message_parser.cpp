// Responses fed whole, per byte and at each split, from heap blocks of exactly the piece's size;
// the records that come out must agree.
#include "tavhttpclient/message_parser.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/httpsession.h"

namespace {

std::mutex log_mutex;
std::vector<std::string> log_lines;

void keep_log(std::int32_t, const char*, const char* text) {
    std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.push_back(text);
}

class log_capture {
  public:
    log_capture() {
        log_lines.clear();
        set_log_callback(keep_log);
    }
    ~log_capture() {
        set_log_callback(nullptr);
    }
    int count(const std::string& part) const {
        int found = 0;
        for (const std::string& line : log_lines) {
            found += line.find(part) != std::string::npos ? 1 : 0;
        }
        return found;
    }
};

std::string quoted(const char* text) {
    return text != nullptr ? "'" + std::string(text) + "'" : "none";
}

// A response that belongs to a session with nothing but a URL and an option.
class received {
  public:
    explicit received(bool keep_undecoded = false) {
        options_.keep_undecoded_body = keep_undecoded ? 1 : 0;
        std::strcpy(url_, "http://host.test/a/b/c?q=1");
        request_.url = url_;
        session_.options = &options_;
        session_.request = &request_;
        response = static_cast<http_response*>(std::calloc(1, sizeof(http_response)));
        response->session = &session_;
    }
    ~received() {
        free_http_response(response);
    }
    received(const received&) = delete;
    received& operator=(const received&) = delete;

    bool feed(const std::string& piece) {
        std::unique_ptr<char[]> block(new char[piece.size()]);
        std::memcpy(block.get(), piece.data(), piece.size());
        return parse_response_message(response, block.get(),
                                      static_cast<std::uint32_t>(piece.size()));
    }
    bool feed_in_pieces(const std::string& bytes, std::size_t size) {
        for (std::size_t at = 0; at < bytes.size(); at += size) {
            if (!feed(bytes.substr(at, size))) {
                return false;
            }
        }
        return true;
    }
    std::string body() const {
        const text_buffer& chunk = response->body_chunk;
        return std::string(chunk.data != nullptr ? chunk.data : "",
                           static_cast<std::size_t>(chunk.length));
    }
    std::string set_cookie() const {
        const text_buffer& list = response->set_cookie;
        return std::string(list.data != nullptr ? list.data : "",
                           static_cast<std::size_t>(list.length));
    }

    // Everything that must not depend on how the bytes were cut (the reason phrase may).
    std::string describe() const {
        const http_response& r = *response;
        std::string text = "status=" + std::to_string(r.status_code) +
                           " state=" + std::to_string(r.recv_state) + "\n";
        text += "mode=" + std::to_string(r.connection_mode) +
                " timeout=" + std::to_string(r.keep_alive_timeout) +
                " max=" + std::to_string(r.keep_alive_max) + "\n";
        text += "length=" + std::to_string(r.content_length) +
                " encoding=" + std::to_string(r.content_encoding) +
                " chunked=" + std::to_string(r.chunked) + "\n";
        text += "range=" + std::to_string(r.range_start) + "-" + std::to_string(r.range_end) + "/" +
                std::to_string(r.range_total) + "\n";
        text += "modified=" + std::to_string(r.last_modified) + "\n";
        text += "type=" + quoted(r.content_type) + "\n";
        text += "disposition=" + quoted(r.content_disposition) + "\n";
        text += "transfer=" + quoted(r.transfer_encoding) + "\n";
        text += "location=" + quoted(r.location) + "\n";
        text += "server=" + quoted(r.server) + "\n";
        text += "etag=" + quoted(r.etag) + "\n";
        text += "received=" + std::to_string(r.recv_body_bytes) +
                " decoded=" + std::to_string(r.body_bytes) + "\n";
        text += "cookies=" + set_cookie() + "\nbody=" + body() + "\n";
        for (list_link* link = r.header_list != nullptr ? r.header_list->next : nullptr;
             link != nullptr && link != r.header_list; link = link->next) {
            const response_header* header = reinterpret_cast<const response_header*>(link);
            text += "[" + std::string(header->name) + "][" + header->value + "]\n";
        }
        return text;
    }

    http_response* response;

  private:
    char url_[64];
    http_options options_ = {};
    http_request request_ = {};
    http_session session_ = {};
};

std::string gzip(const std::string& plain) {
    z_stream stream = {};
    EXPECT_EQ(Z_OK, deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY));
    std::string packed(plain.size() + 200, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = reinterpret_cast<Bytef*>(&packed[0]);
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&stream, Z_FINISH));
    packed.resize(packed.size() - stream.avail_out);
    deflateEnd(&stream);
    return packed;
}

std::string with_length(const std::string& header_lines, const std::string& body) {
    return "HTTP/1.1 200 OK\r\n" + header_lines + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string gzip_response(const std::string& packed) {
    return with_length("Content-Encoding: gzip\r\n", packed);
}

struct response_case {
    const char* name;
    std::string bytes;
    std::uint32_t state;
    std::string body;
};

std::vector<response_case> whole_responses() {
    std::string packed = gzip("packed body, packed body");
    return {
        {"plain", with_length("Server: x\r\nETag: \"1\"\r\n", "hello"), RECV_COMPLETE, "hello"},
        {"many headers",
         with_length("Connection: Keep-Alive, timeout=5, max=100\r\nContent-Type: a/b\r\n"
                     "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nSet-Cookie: a=1\r\n"
                     "Content-Range: bytes 10-19/100\r\nSet-Cookie: b=2\r\nX-Empty:\r\n"
                     "Location: ../x\r\nContent-Disposition: attachment; filename=f\r\n",
                     "0123456789"),
         RECV_COMPLETE, "0123456789"},
        {"folded value", with_length("X-Long: one\r\n two\r\n\tthree\r\n", "b"), RECV_COMPLETE,
         "b"},
        {"chunked",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
         "3;ext=1\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\n",
         RECV_COMPLETE, "abc0123456789"},
        {"trailer",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\nX: 1\r\nY: 2\r\n\r\n",
         RECV_COMPLETE, "a"},
        {"until close", "HTTP/1.1 200 OK\r\nX: y\r\n\r\nno end yet", RECV_HEADERS_DONE,
         "no end yet"},
        {"no header line", "HTTP/1.0 200 OK\r\n\r\nbody", RECV_HEADERS_DONE, "body"},
        {"no reason phrase", "HTTP/1.1 204\r\nX: y\r\n\r\n", RECV_COMPLETE, ""},
        {"bare line feeds", "HTTP/1.1 200 OK\nContent-Length: 2\n\nok", RECV_COMPLETE, "ok"},
        {"head cut short", "HTTP/1.1 404 Not Found\r\nServer: a\r\nX-Ha", RECV_BEGUN, ""},
        {"gzip", gzip_response(packed), RECV_COMPLETE, "packed body, packed body"},
        {"interim before it", "HTTP/1.1 100 Continue\r\n\r\n" + with_length("X: y\r\n", "real"),
         RECV_COMPLETE, "real"},
        {"interim with a trailer before it",
         "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nX: y\r\n\r\n" +
             with_length("", "second"),
         RECV_COMPLETE, "second"},
    };
}

TEST(MessageParser, EveryCutGivesTheSameResponse) {
    for (const response_case& now : whole_responses()) {
        SCOPED_TRACE(now.name);
        received whole;
        ASSERT_TRUE(whole.feed(now.bytes));
        EXPECT_EQ(now.state, whole.response->recv_state);
        EXPECT_EQ(now.body, whole.body());
        EXPECT_EQ(now.body.size(), whole.response->body_bytes);
        std::string expected = whole.describe();

        received per_byte;
        ASSERT_TRUE(per_byte.feed_in_pieces(now.bytes, 1));
        EXPECT_EQ(expected, per_byte.describe());
        for (std::size_t split = 1; split < now.bytes.size(); split++) {
            received halves;
            ASSERT_TRUE(halves.feed(now.bytes.substr(0, split)));
            ASSERT_TRUE(halves.feed(now.bytes.substr(split)));
            ASSERT_EQ(expected, halves.describe()) << "split at " << split;
        }
    }
}

TEST(MessageParser, BadBytesAreRefusedWhereverTheyAreCut) {
    struct {
        const char* name;
        std::string bytes;
    } cases[] = {
        {"not http", "SSH-2.0-server\r\n"},
        {"status line", "HTTP/1.1 2x0 OK\r\n\r\n"},
        {"header name", "HTTP/1.1 200 OK\r\nna(me: x\r\n\r\n"},
        {"zero in a value", std::string("HTTP/1.1 200 OK\r\nA: x\0y\r\n\r\n", 26)},
        {"chunk size", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"},
        {"two lengths", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\na"},
        {"length too large", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n"},
        {"empty length", "HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\n"},
        {"negative length", "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n"},
        {"bytes behind the end", with_length("Connection: close\r\n", "x") + "more"},
        {"endless head", "HTTP/1.1 200 OK\r\nX: " + std::string(100000, 'x')},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        received whole;
        EXPECT_FALSE(whole.feed(now.bytes));
        if (now.bytes.size() > 1000) {
            received blocks;
            EXPECT_FALSE(blocks.feed_in_pieces(now.bytes, 1000));
            continue;
        }
        received per_byte;
        EXPECT_FALSE(per_byte.feed_in_pieces(now.bytes, 1));
        for (std::size_t split = 1; split < now.bytes.size(); split++) {
            received halves;
            EXPECT_FALSE(halves.feed(now.bytes.substr(0, split)) &&
                         halves.feed(now.bytes.substr(split)))
                << "split at " << split;
        }
    }
}

// Also when the refused piece ends with the chunk, where the parser has used every byte.
TEST(MessageParser, UndecodableBodyIsRefusedInEveryFraming) {
    std::string damaged = gzip("a body whose check sum is wrong");
    damaged[damaged.size() - 5] ^= 1;
    for (const std::string& body : {std::string("plain text"), damaged}) {
        char size[16];
        std::snprintf(size, sizeof(size), "%zx", body.size());
        for (const std::string& bytes :
             {gzip_response(body), "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n\r\n" + body,
              "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n" +
                  std::string(size) + "\r\n" + body}) {
            received whole;
            EXPECT_FALSE(whole.feed(bytes)) << bytes;
        }
    }
}

TEST(MessageParser, MissingArgumentsFail) {
    received empty;
    EXPECT_FALSE(parse_response_message(nullptr, "x", 1));
    EXPECT_FALSE(parse_response_message(empty.response, nullptr, 1));
    EXPECT_FALSE(parse_response_message(empty.response, "x", 0));
    EXPECT_EQ(nullptr, empty.response->parser);
}

struct header_case {
    const char* lines;
    const char* expected;  // part of the description
};

const header_case header_cases[] = {
    {"Connection: Keep-Alive, timeout=5, max=100", "mode=1 timeout=5 max=100\n"},
    {"Connection: keep-alive", "mode=1 timeout=0 max=0\n"},
    {"Connection: close, timeout=5", "mode=2 timeout=0 max=0\n"},
    {"X: y", "mode=0 timeout=0 max=0\n"},
    {"CONTENT-ENCODING: DEFLATE", "encoding=2"},
    {"Content-Encoding: GZIP", "encoding=1"},
    {"Content-Encoding: x-gzip", "encoding=0"},
    {"Content-Encoding: gzip, gzip", "encoding=0"},
    {"Content-Encoding: gzip\r\nContent-Encoding: br", "encoding=1"},
    {"Transfer-Encoding: abcdefg", "chunked=1"},
    {"Transfer-Encoding: gzip, xyz", "chunked=0"},
    {"Content-Range: bytes 0-99/1000", "range=0-99/1000\n"},
    {"Content-Range: bytes 5000000000-6000000000/7000000000",
     "range=5000000000-6000000000/7000000000\n"},
    {"Content-Range: bytes 1-2/3\r\nContent-Range: bytes */1000", "range=1-2/3\n"},
    {"Content-Length: 5000000000", "length=5000000000 "},
    {"Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT", "modified=784111777\n"},
    {"Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nLast-Modified: yesterday", "modified=0\n"},
    {"Location: http://other.test/x", "location='http://other.test/x'\n"},
    {"Location: //other.test/x", "location='http://other.test/x'\n"},
    {"Location: ../x", "location='http://host.test/a/x'\n"},
    {"Location: /x", "location='http://host.test/x'\n"},
    {"Server: a\r\nServer: b", "server='b'\n"},
    {"ETag: a\r\neTAG: b", "etag='b'\n"},
    {"Content-Type: a\r\nContent-Type: b", "type='b'\n"},
    {"Content-Disposition: a\r\nContent-Disposition: b", "disposition='b'\n"},
    {"Location: /a\r\nLocation: /b", "location='http://host.test/b'\n"},
    {"B: 1\r\na: 2\r\nB: 3\r\nEmpty:", "[B][1]\n[a][2]\n[B][3]\n[Empty][]\n"},
    {"ETagX: a\r\nETa: b", "etag=none\n"},
};

TEST(MessageParser, HeadersTakeEffect) {
    for (const header_case& now : header_cases) {
        SCOPED_TRACE(now.lines);
        received head;
        EXPECT_TRUE(head.feed("HTTP/1.1 200 OK\r\n" + std::string(now.lines) + "\r\n\r\n"));
        std::string description = head.describe();
        EXPECT_NE(std::string::npos, description.find(now.expected)) << description;
    }
}

TEST(MessageParser, RepeatedSingleHeadersAreReported) {
    log_capture log;
    received head;
    EXPECT_TRUE(
        head.feed("HTTP/1.1 200 OK\r\nETag: a\r\nETag: b\r\nLocation: /a\r\nLocation: /b\r\n"
                  "Content-Type: a\r\nContent-Type: b\r\nServer: a\r\nServer: b\r\n"
                  "Content-Disposition: a\r\nContent-Disposition: b\r\n\r\n"));
    EXPECT_EQ(4, log.count("assert fail"));
    EXPECT_EQ(4, log.count("function=_handle_response_header"));
}

TEST(MessageParser, StatusTextIsTheReasonPhrase) {
    received whole;
    EXPECT_TRUE(whole.feed("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_STREQ("Not Found", whole.response->status_text);
    received cut;
    EXPECT_TRUE(cut.feed("HTTP/1.1 404 Not"));
    EXPECT_TRUE(cut.feed(" Found\r\n"));
    EXPECT_STREQ(" Found", cut.response->status_text);
}

TEST(MessageParser, HeadersAreFoundByNameInOrder) {
    received head;
    EXPECT_EQ(nullptr, find_response_header(head.response, "A", nullptr));
    EXPECT_TRUE(head.feed("HTTP/1.1 200 OK\r\nA: 1\r\nB: 2\r\na: 3\r\n\r\n"));
    response_header* first = find_response_header(head.response, "a", nullptr);
    ASSERT_NE(nullptr, first);
    EXPECT_STREQ("1", first->value);
    response_header* second = find_response_header(head.response, "a", first);
    ASSERT_NE(nullptr, second);
    EXPECT_STREQ("3", second->value);
    EXPECT_EQ(nullptr, find_response_header(head.response, "a", second));
}

TEST(MessageParser, CookiesGoIntoTheListAndTheStore) {
    ASSERT_TRUE(init_cookie_store());
    received head;
    EXPECT_TRUE(
        head.feed("HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/\r\nSet-Cookie: b=2; Path=/\r\n\r\n"));
    EXPECT_EQ(std::string("a=1; Path=/\0b=2; Path=/\0\0", 25), head.set_cookie());
    char* text = nullptr;
    EXPECT_TRUE(get_cookie("http://host.test/", &text));
    EXPECT_STREQ("a=1;b=2;", text);
    free(text);
    uninit_cookie_store();
}

TEST(MessageParser, UndecodableBodyCanBeKept) {
    std::string late = gzip(std::string(300000, 'z'));
    late[late.size() - 5] ^= 1;  // found only behind the first decoded blocks
    for (const std::string& body : {std::string("plain text"), late}) {
        received refused;
        EXPECT_FALSE(refused.feed(gzip_response(body)));
        EXPECT_EQ(0u, refused.response->body_bytes);

        received kept(true);
        EXPECT_TRUE(kept.feed(gzip_response(body)));
        EXPECT_EQ(static_cast<std::uint32_t>(RECV_COMPLETE), kept.response->recv_state);
        EXPECT_TRUE(body == kept.body());
        EXPECT_EQ(body.size(), kept.response->body_bytes);
        EXPECT_EQ(body.size(), kept.response->recv_body_bytes);
    }
}

TEST(MessageParser, OnlyTheHeadOfTheFirstChunkIsLogged) {
    struct {
        const char* chunk;
        const char* line;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", "rsp-header: HTTP/1.1 200 OK\r\nA: b\n"},
        {"HTTP/1.1 200 OK\r\n\r\n", "rsp-header: HTTP/1.1 200 OK\n"},
        {"HTTP/1.1 200", "rsp-header: HTTP/1.1 \n"},
        {"HTT", "rsp-header: \n"},
    };
    for (const auto& now : cases) {
        log_capture log;
        received head;
        EXPECT_TRUE(head.feed(now.chunk));
        ASSERT_FALSE(log_lines.empty());
        EXPECT_EQ(now.line, log_lines[0]);
    }
    log_capture log;
    received pieces;
    EXPECT_TRUE(pieces.feed_in_pieces("HTTP/1.1 200 OK\r\nA: b\r\n\r\n", 5));
    EXPECT_EQ(1, log.count("rsp-header"));
}

TEST(MessageParser, AHeadWithoutLinesIsLoggedAndComplete) {
    log_capture log;
    received head;
    EXPECT_TRUE(head.feed("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(static_cast<std::uint32_t>(RECV_HEADERS_DONE), head.response->recv_state);
    EXPECT_EQ(1, log.count("on_headers_complete, invalid state, name="));
}

}  // namespace
