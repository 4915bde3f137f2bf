// Responses fed whole, per byte and at each split, from heap blocks of exactly the piece's size;
// the records that come out must agree.
#include "tavhttpclient/message_parser.h"

#include <gtest/gtest.h>

#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/session_record.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

namespace {

std::string text_of(const text_buffer& buffer) {
    return buffer.length != 0 ? std::string(buffer.data, static_cast<std::size_t>(buffer.length))
                              : "";
}

// A response that belongs to a session with nothing but a URL and an option.
class received {
  public:
    explicit received(bool keep_undecoded = false) {
        options_.keep_undecoded_body = keep_undecoded ? 1 : 0;
        request_.url = url_;
        session_.options = &options_;
        session_.request = &request_;
        response = new_http_response(&session_);
    }
    ~received() {
        free_http_response(response);
    }
    received(const received&) = delete;
    received& operator=(const received&) = delete;

    // In pieces of the size at most.
    bool feed(const std::string& bytes, std::size_t size = SIZE_MAX) {
        for (std::size_t at = 0; at < bytes.size(); at += std::min(size, bytes.size())) {
            std::string piece = bytes.substr(at, size);
            if (!parse_response_message(response, exact_bytes(piece).get(),
                                        static_cast<std::uint32_t>(piece.size()))) {
                return false;
            }
        }
        return true;
    }

    // Everything that must not depend on how the bytes were cut (the reason phrase may).
    std::string describe() const {
        const http_response& r = *response;
        auto or_none = [](const char* value) { return value != nullptr ? value : "none"; };
        std::string text = take(string_format(
            "status=%u state=%u mode=%u timeout=%d max=%d length=%llu encoding=%u chunked=%u "
            "range=%lld-%lld/%lld modified=%lld received=%llu decoded=%llu type=%s disposition=%s "
            "transfer=%s location=%s server=%s etag=%s cookies=",
            r.status_code, r.recv_state, r.connection_mode, r.keep_alive_timeout, r.keep_alive_max,
            (unsigned long long)r.content_length, r.content_encoding, r.chunked,
            (long long)r.range_start, (long long)r.range_end, (long long)r.range_total,
            (long long)r.last_modified, (unsigned long long)r.recv_body_bytes,
            (unsigned long long)r.body_bytes, or_none(r.content_type),
            or_none(r.content_disposition), or_none(r.transfer_encoding), or_none(r.location),
            or_none(r.server), or_none(r.etag)));
        text += text_of(r.set_cookie) + "\nbody=" + text_of(r.body_chunk) + "\n";
        for (list_link* link = r.header_list != nullptr ? r.header_list->next : nullptr;
             link != nullptr && link != r.header_list; link = link->next) {
            const response_header* header = reinterpret_cast<const response_header*>(link);
            text += "[" + std::string(header->name) + "][" + header->value + "]\n";
        }
        return text;
    }

    http_response* response;

  private:
    char url_[32] = "http://host.test/a/b/c?q=1";
    http_options options_ = {};
    http_request request_ = {};
    http_session session_ = {};
};

// Feeds the bytes whole, per byte and in two pieces at each split: all agree with the whole, whose
// description is returned; "refused" when they are not taken.
std::string fed_in_every_way(const std::string& bytes) {
    auto describe = [](const std::string& first, const std::string& second, std::size_t size) {
        received one;
        return one.feed(first, size) && one.feed(second, size) ? one.describe() : "refused";
    };
    std::string whole = describe(bytes, "", SIZE_MAX);
    EXPECT_EQ(whole, describe(bytes, "", 1));
    for (std::size_t split = 1; split < bytes.size() && !testing::Test::HasFailure(); split++) {
        EXPECT_EQ(whole, describe(bytes.substr(0, split), bytes.substr(split), SIZE_MAX))
            << "split at " << split;
    }
    return whole;
}

const std::string ok = "HTTP/1.1 200 OK\r\n", chunked = "Transfer-Encoding: chunked\r\n",
                  gzipped = "Content-Encoding: gzip\r\n";

TEST(MessageParser, EveryCutGivesTheSameResponse) {
    const struct {
        const char* name;
        std::string bytes;
        std::uint32_t state;
        std::string body;
    } rows[] = {
        {"many headers",
         response(200, "0123456789",
                  "Connection: Keep-Alive, timeout=5, max=100\r\nContent-Type: a/b\r\n"
                  "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nSet-Cookie: a=1\r\n"
                  "Content-Range: bytes 10-19/100\r\nSet-Cookie: b=2\r\nX-Empty:\r\n"
                  "Location: ../x\r\nContent-Disposition: attachment; filename=f\r\n"),
         RECV_COMPLETE, "0123456789"},
        {"folded value", response(200, "b", "X-Long: one\r\n two\r\n\tthree\r\n"), RECV_COMPLETE,
         "b"},
        {"chunked with a trailer",
         ok + chunked + "\r\n3;ext=1\r\nabc\r\nA\r\n0123456789\r\n0\r\nX: 1\r\nY: 2\r\n\r\n",
         RECV_COMPLETE, "abc0123456789"},
        {"bare line feeds", "HTTP/1.1 200 OK\nContent-Length: 2\n\nok", RECV_COMPLETE, "ok"},
        {"head cut short", "HTTP/1.1 404 Not Found\r\nServer: a\r\nX-Ha", RECV_BEGUN, ""},
        {"gzip", response(200, gzip_bytes("packed, packed"), gzipped), RECV_COMPLETE,
         "packed, packed"},
        {"interim", "HTTP/1.1 100 Continue\r\n\r\n" + response(200, "real"), RECV_COMPLETE, "real"},
        {"interim with a trailer",
         "HTTP/1.1 103 Hints\r\n" + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"),
         RECV_COMPLETE, "second"},
        {"another behind it", response(200, "first") + response(404, "second", "Server: b\r\n"),
         RECV_COMPLETE, "first"},
        {"another behind a trailer",
         ok + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"), RECV_COMPLETE, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fed_in_every_way(row.bytes);
        received whole;
        ASSERT_TRUE(whole.feed(row.bytes));
        EXPECT_EQ(row.state, whole.response->recv_state);
        EXPECT_EQ(row.body, text_of(whole.response->body_chunk));
        EXPECT_EQ(row.body.size(), whole.response->body_bytes);
    }
}

TEST(MessageParser, BadBytesAreRefusedWhereverTheyAreCut) {
    for (const std::string& bytes :
         {std::string("HTTP/1.1 2x0 OK\r\n\r\n"), ok + "na(me: x\r\n\r\n",
          ok + std::string("A: x\0y\r\n\r\n", 10), ok + chunked + "\r\nxyz\r\n",
          ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\na", ok + "Content-Length:\r\n\r\n",
          response(200, "x", "Connection: close\r\n") + "more"}) {
        EXPECT_EQ("refused", fed_in_every_way(bytes)) << bytes;
    }
    received endless;
    EXPECT_FALSE(endless.feed(ok + "X: " + std::string(100000, 'x'), 1000));
}

TEST(MessageParser, UndecodableBodyIsRefusedInEveryFramingOrKept) {
    std::string damaged = gzip_bytes("a body whose check sum is wrong");
    damaged[damaged.size() - 5] ^= 1;
    std::string late = gzip_bytes(std::string(300000, 'z'));
    late[late.size() - 5] ^= 1;  // found only behind the first decoded blocks
    for (const std::string& body : {std::string("plain text"), damaged, late}) {
        // The refused piece may end with the chunk, where the parser has used every byte.
        for (const std::string& bytes :
             {response(200, body, gzipped), ok + gzipped + "\r\n" + body,
              chunked_response(200, body, body.size(), gzipped)
                  .substr(0, chunked_response(200, body, body.size(), gzipped).size() - 7)}) {
            received refused;
            EXPECT_FALSE(refused.feed(bytes)) << bytes;
            EXPECT_EQ(0u, refused.response->body_bytes);
        }
        received kept(true);
        EXPECT_TRUE(kept.feed(response(200, body, gzipped)));
        EXPECT_EQ(std::uint32_t{RECV_COMPLETE}, kept.response->recv_state);
        EXPECT_TRUE(body == text_of(kept.response->body_chunk));
        EXPECT_EQ(body.size(), kept.response->body_bytes);
        EXPECT_EQ(body.size(), kept.response->recv_body_bytes);
    }
}

TEST(MessageParser, HeadersTakeEffect) {
    const struct {
        const char *lines, *expected;  // part of the description
    } rows[] = {
        {"Connection: keep-alive", "mode=1 timeout=0 max=0 "},
        {"Connection: close, timeout=5", "mode=2 timeout=0 max=0 "},
        {"X: y", "mode=0 timeout=0 max=0 "},
        {"CONTENT-ENCODING: DEFLATE", "encoding=2"},
        {"Content-Encoding: gzip, gzip", "encoding=0"},
        {"Content-Encoding: gzip\r\nContent-Encoding: br", "encoding=1"},
        {"Transfer-Encoding: abcdefg", "chunked=1"},
        {"Transfer-Encoding: gzip, xyz", "chunked=0"},
        {"Content-Range: bytes 5000000000-6000000000/7000000000",
         "range=5000000000-6000000000/7000000000 "},
        {"Content-Range: bytes 1-2/3\r\nContent-Range: bytes */1000", "range=1-2/3 "},
        {"Content-Length: 5000000000", "length=5000000000 "},
        {"Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nLast-Modified: x", "modified=0 "},
        {"Location: //other.test/x", "location=http://other.test/x "},
        {"Server: a\r\nServer: b", "server=b "},
        {"ETag: a\r\neTAG: b\r\nETagX: c\r\nETa: d", "etag=b "},
        {"Content-Type: a\r\nContent-Type: b", "type=b "},
        {"Content-Disposition: a\r\nContent-Disposition: b", "disposition=b "},
        {"Location: /a\r\nLocation: /b", "location=http://host.test/b "},
        {"B: 1\r\na: 2\r\nB: 3\r\nEmpty:", "[B][1]\n[a][2]\n[B][3]\n[Empty][]\n"},
    };
    log_capture log;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lines);
        received head;
        EXPECT_TRUE(head.feed(ok + row.lines + "\r\n\r\n"));
        std::string description = head.describe();
        EXPECT_NE(std::string::npos, description.find(row.expected)) << description;
    }
    // Of those that may come once, all but the ETag are reported.
    EXPECT_EQ(4u, log.count("assert fail"));
    EXPECT_EQ(4u, log.count("function=_handle_response_header"));
    received cookies;
    EXPECT_TRUE(cookies.feed(ok + "Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n\r\n"));
    EXPECT_EQ(std::string("a=1; Path=/\0b=2\0\0", 17), text_of(cookies.response->set_cookie));
}

TEST(MessageParser, TheFirstPieceGivesTheReasonAndTheLoggedHead) {
    const struct {
        std::string piece;
        const char *line, *reason;
    } rows[] = {
        {ok + "A: b\r\n\r\nbody", "rsp-header: HTTP/1.1 200 OK\r\nA: b\n", "OK"},
        {ok + "\r\n", "rsp-header: HTTP/1.1 200 OK\n", "OK"},
        {"HTTP/1.1 200 O", "rsp-header: HTTP/1.1 20\n", "K"},
        {"HTT", "rsp-header: \n", "OK"},
    };
    for (const auto& row : rows) {
        log_capture log;
        received head;
        EXPECT_TRUE(head.feed(row.piece));
        ASSERT_FALSE(log.lines().empty());
        EXPECT_EQ(row.line, log.lines()[0].text);
        if (row.piece.size() < ok.size()) {
            EXPECT_TRUE(head.feed(ok.substr(row.piece.size()) + "\r\n"));
        }
        EXPECT_EQ(1u, log.count("rsp-header")) << row.line;
        EXPECT_STREQ(row.reason, head.response->status_text);
        EXPECT_EQ(std::uint32_t{RECV_HEADERS_DONE}, head.response->recv_state);
        EXPECT_EQ(row.piece.back() == 'y' ? 0u : 1u,
                  log.count("on_headers_complete, invalid state, name="));
    }
    received empty;
    EXPECT_FALSE(parse_response_message(nullptr, "x", 1));
    EXPECT_FALSE(parse_response_message(empty.response, nullptr, 1));
    EXPECT_FALSE(parse_response_message(empty.response, "x", 0));
    EXPECT_EQ(nullptr, empty.response->parser);
}

}  // namespace
