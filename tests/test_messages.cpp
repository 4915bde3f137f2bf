// Responses and their decoders fed whole, per byte and at each split, from heap blocks of exactly
// the piece's size; what comes out must agree.
#include <gtest/gtest.h>
#include <zlib.h>

#include "support/inside.h"
#include "tavhttpclient/contentdecompress.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpresponse_body.h"
#include "tavhttpclient/message_parser.h"
#include "tavhttpclient/session_record.h"

namespace {

std::string text_of(const text_buffer& buffer) {
    return buffer.length != 0 ? std::string(buffer.data, static_cast<std::size_t>(buffer.length))
                              : "";
}

// A response that belongs to a session with nothing but a URL and options.
struct received : not_copied {
    explicit received(bool keep_undecoded = false) {
        options.keep_undecoded_body = keep_undecoded ? 1 : 0;
        request.url = url;
        session.options = &options;
        session.request = &request;
        response = session.response = new_http_response(&session);
    }
    ~received() {
        free_http_response(response);
    }

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
            const auto* header = reinterpret_cast<const response_header*>(link);
            text += "[" + std::string(header->name) + "][" + header->value + "]\n";
        }
        return text;
    }

    char url[32] = "http://host.test/a/b/c?q=1";
    http_options options = {};
    http_request request = {};
    http_session session = {};
    http_response* response;
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
        std::string bytes, expected;  // part of the description
    } rows[] = {
        {response(200, "0123456789",
                  "Connection: Keep-Alive, timeout=5, max=100\r\nContent-Type: a/b\r\n"
                  "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nSet-Cookie: a=1\r\n"
                  "Content-Range: bytes 10-19/100\r\nSet-Cookie: b=2\r\nX-Empty:\r\n"
                  "Location: ../x\r\nContent-Disposition: attachment; filename=f\r\n"),
         "body=0123456789\n"},
        {response(200, "b", "X-Long: one\r\n two\r\n\tthree\r\n"), "body=b\n"},
        {ok + chunked + "\r\n3;ext=1\r\nabc\r\nA\r\n0123456789\r\n0\r\nX: 1\r\nY: 2\r\n\r\n",
         "body=abc0123456789\n"},
        {"HTTP/1.1 200 OK\nContent-Length: 2\n\nok", "body=ok\n"},
        {"HTTP/1.1 404 Not Found\r\nServer: a\r\nX-Ha", "status=404 state=1 "},
        {response(200, gzip_bytes("packed, packed"), gzipped), "body=packed, packed\n"},
        {"HTTP/1.1 100 Continue\r\n\r\n" + response(200, "real"), "body=real\n"},
        {"HTTP/1.1 103 Hints\r\n" + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"),
         "body=second\n"},
        {response(200, "first") + response(404, "second", "Server: b\r\n"), "body=first\n"},
        {ok + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"), "body=\n"},
        {"HTTP/1.1 2x0 OK\r\n\r\n", "refused"},
        {ok + "na(me: x\r\n\r\n", "refused"},
        {ok + std::string("A: x\0y\r\n\r\n", 10), "refused"},
        {ok + chunked + "\r\nxyz\r\n", "refused"},
        {ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\na", "refused"},
        {ok + "Content-Length:\r\n\r\n", "refused"},
    };
    for (const auto& row : rows) {
        std::string seen = fed_in_every_way(row.bytes);
        EXPECT_NE(std::string::npos, seen.find(row.expected)) << row.bytes << "\n" << seen;
    }
}

TEST(MessageParser, HeadersTakeEffect) {
    const struct {
        const char *lines, *expected;  // part of the description
    } rows[] = {
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
        {"Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT", "modified=784111777 "},
        {"Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nLast-Modified: x", "modified=0 "},
        {"Location: //other.test/x", "location=http://other.test/x "},
        {"Server: a\r\nServer: b", "server=b "},
        {"ETag: a\r\neTAG: b\r\nETagX: c\r\nETa: d", "etag=b "},
        {"Content-Type: a\r\nContent-Type: b", "type=b "},
        {"Location: /a\r\nLocation: /b", "location=http://host.test/b "},
        {"B: 1\r\na: 2\r\nB: 3\r\nEmpty:", "[B][1]\n[a][2]\n[B][3]\n[Empty][]\n"},
    };
    allow_assertion("_handle_response_header");  // of headers that may come once
    for (const auto& row : rows) {
        received head;
        EXPECT_TRUE(head.feed(ok + row.lines + "\r\n\r\n"));
        std::string seen = head.describe();
        EXPECT_NE(std::string::npos, seen.find(row.expected)) << row.lines << "\n" << seen;
    }
    received cookies;
    EXPECT_TRUE(cookies.feed(ok + "Set-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n\r\n"));
    EXPECT_EQ(bytes_of("a=1; Path=/\0b=2\0\0"), text_of(cookies.response->set_cookie));
}

TEST(MessageParser, HeaderBytesAreLimited) {
    auto repeat = [](const std::string& text, std::size_t count) {
        std::string all;
        while (count-- > 0) {
            all += text;
        }
        return all;
    };
    const std::string interim = "HTTP/1.1 103 Hints\r\nX: " + std::string(50000, 'x') + "\r\n\r\n";
    const std::string lines = repeat("X-Name: value\r\n", 5000);
    const struct {
        std::string bytes;
        bool ok;
    } rows[] = {
        {repeat(interim, 19) + response(200, "x"), true},
        {repeat(interim, 22) + response(200, "x"), false},
        {repeat("HTTP/1.1 100 \r\n\r\n", 270000), false},
        {repeat(interim, 19) + ok + lines + "\r\n", true},
        {repeat(interim, 19) + ok + lines + chunked + "\r\n0\r\n" + lines, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.ok, received().feed(row.bytes)) << row.bytes.size();
    }
}

TEST(MessageParser, UndecodableBodyIsRefusedOrKept) {
    std::string damaged = gzip_bytes("a body whose check sum is wrong");
    damaged[damaged.size() - 5] ^= 1;
    std::string late = gzip_bytes(std::string(300000, 'z'));
    late[late.size() - 5] ^= 1;  // found only behind the first decoded blocks
    for (const std::string& body : {std::string("plain text"), damaged, late}) {
        for (const std::string& bytes : {response(200, body, gzipped), ok + gzipped + "\r\n" + body,
                                         chunked_response(200, body, body.size(), gzipped)}) {
            received refused;
            EXPECT_FALSE(refused.feed(bytes)) << bytes;
            EXPECT_EQ(0u, refused.response->body_bytes);
        }
        received kept(true);
        EXPECT_TRUE(kept.feed(response(200, body, gzipped)));
        EXPECT_TRUE(body == text_of(kept.response->body_chunk));
    }
}

TEST(MessageParser, TheFirstPieceGivesTheReasonAndTheLoggedHead) {
    const struct {
        std::string piece;
        const char *line, *reason;
    } rows[] = {
        {ok + "A: b\r\n\r\nbody", "rsp-header: HTTP/1.1 200 OK\r\nA: b\n", "OK"},
        {"HTTP/1.1 200 O", "rsp-header: HTTP/1.1 20\n", "K"},
        {"HTT", "rsp-header: \n", "OK"},
    };
    for (const auto& row : rows) {
        log_capture log;
        received head;
        EXPECT_TRUE(head.feed(row.piece));
        EXPECT_EQ(row.line, log.lines().at(0).text);
        if (row.piece.size() < ok.size()) {
            EXPECT_TRUE(head.feed(ok.substr(row.piece.size()) + "\r\n"));
        }
        EXPECT_EQ(1u, log.count("rsp-header")) << row.line;
        EXPECT_STREQ(row.reason, head.response->status_text);
    }
}

// What no server can bring about: lengths at the limits of the numbers, counts that disagree.
TEST(BodyWriter, AnnouncedLengthsAndCountsAreNotTrusted) {
    const struct {
        std::uint64_t announced, delivered, counted;
        const char* code;
    } rows[] = {
        {0, 0, 10, "OK"},
        {1, 0, 10, "OK"},
        {0x100000000ull, 0, 10, "OK"},         // the low half is 0
        {0xFFFFFFFFull - 1023, 0, 10, "OK"},   // the sum is 0
        {0xFFFFFFFFFFFFFFFFull, 0, 10, "OK"},  // the sum is 1023
        {0x7FFFFFFFull, 0, 10, "OUT_OF_MEMORY"},
        {0xF0000000ull, 0, 10, "OUT_OF_MEMORY"},
        {0, 100, 10, "FAIL_OTHER"},
        {0, 0, 1000, "FAIL_OTHER"},
    };
    allow_assertion("");
    for (const auto& row : rows) {
        received one;
        http_connection connection = {};
        one.session.connection = &connection;
        one.request.method = TAV_HTTP_METHOD_GET;
        one.response->status_code = 200;
        one.response->recv_state = RECV_HEADERS_DONE;
        one.response->content_length = row.announced;
        one.response->delivered_bytes = row.delivered;
        text_buffer_append(&one.response->body_chunk, "some bytes", 10);
        one.response->body_bytes = one.response->recv_body_bytes = row.counted;
        EXPECT_EQ(row.code, code_name(write_response_body(&one.session)))
            << row.announced << " " << row.delivered << " " << row.counted;
    }
}

// ---------------------------------------------------------------------------------- the decoder

// One body with its decoder.
struct decoded : not_copied {
    explicit decoded(bool as_gzip) : gzip(as_gzip) {
    }
    ~decoded() {
        release_content_decoder(&decoder);
        text_buffer_release(&output);
    }
    bool feed(const std::string& packed, std::size_t size = SIZE_MAX) {
        for (std::size_t at = 0; at < packed.size(); at += std::min(size, packed.size())) {
            std::string piece = packed.substr(at, size);
            auto decode = gzip ? decompress_gzip : decompress_deflate;
            if (!decode(&decoder, exact_bytes(piece).get(),
                        static_cast<std::uint32_t>(piece.size()), &output)) {
                return false;
            }
        }
        return true;
    }

    bool gzip;
    content_decoder decoder = {};
    text_buffer output = {};
};

const struct {
    std::string (*pack)(const std::string&);
    bool gzip;               // decoder
    std::size_t first_size;  // smallest first piece that shows what the data is
} formats[] = {{gzip_bytes, true, 1},
               {deflate_bytes, true, 1},
               {deflate_bytes, false, 1},
               {raw_deflate_bytes, false, 2},
               {raw_deflate_bytes, true, 2}};

TEST(ContentDecoder, EveryFormatDecodesWholeAndAtEachSplit) {
    std::string plain = sample_bytes(300) + std::string(400, 'z');
    for (const auto& now : formats) {
        std::string packed = now.pack(plain);
        for (std::size_t split = now.first_size; split <= packed.size(); split++) {
            decoded halves(now.gzip);
            ASSERT_TRUE(halves.feed(packed.substr(0, split)));
            ASSERT_EQ(split < packed.size(), halves.decoder.initialised != 0);
            ASSERT_TRUE(halves.feed(packed.substr(split), 1));
            ASSERT_EQ(plain, text_of(halves.output)) << "split at " << split;
        }
        // Around the size of the decoder's block.
        for (std::size_t size : {0, 131071, 131072, 131073, 400000}) {
            for (std::size_t piece : {SIZE_MAX, std::size_t{1000}}) {
                decoded one(now.gzip);
                ASSERT_TRUE(one.feed(now.pack(std::string(size, 'z')), piece));
                EXPECT_TRUE(std::string(size, 'z') == text_of(one.output)) << size;
            }
        }
    }
}

// The byte that crosses the block's end leaves zlib with output but without input.
TEST(ContentDecoder, NoOutputWaitsForTheNextPiece) {
    std::string packed = gzip_bytes(std::string(200000, 'z')), room(210000, '\0');
    for (std::size_t count = 1; count < packed.size(); count++) {
        // What zlib makes of these bytes when it has room for everything at once.
        z_stream stream = {};
        ASSERT_EQ(Z_OK, inflateInit2(&stream, 47));
        stream.next_in = reinterpret_cast<Bytef*>(&packed[0]);
        stream.avail_in = static_cast<uInt>(count);
        stream.next_out = reinterpret_cast<Bytef*>(&room[0]);
        stream.avail_out = static_cast<uInt>(room.size());
        inflate(&stream, Z_SYNC_FLUSH);
        inflateEnd(&stream);
        decoded part(true);
        ASSERT_TRUE(part.feed(packed.substr(0, count)));
        ASSERT_EQ(room.size() - stream.avail_out, text_of(part.output).size()) << count;
    }
}

TEST(ContentDecoder, DamagedDataFailsAndALaterPieceStartsANewStream) {
    std::string bad_zlib = deflate_bytes(sample_bytes(500));
    bad_zlib[bad_zlib.size() - 1] ^= 1;
    const struct {
        bool gzip, ok;
        std::string data;
    } rows[] = {
        {false, false, gzip_bytes(sample_bytes(500))},
        {false, false, bad_zlib},
        {false, false, "\x07\xff\xff\xff"},  // reserved block type
        {true, false, bytes_of("\x1f\x8b\x07\0\0\0\0\0\0\0")},
        {true, true, gzip_bytes("") + "garbage behind it"},
    };
    for (const auto& row : rows) {
        decoded broken(row.gzip);
        EXPECT_EQ(row.ok, broken.feed(row.data));
        EXPECT_TRUE(broken.feed(row.gzip ? gzip_bytes("fresh") : deflate_bytes("fresh")));
        std::string text = text_of(broken.output);
        EXPECT_EQ("fresh", text.substr(text.size() - 5));
    }
}

}  // namespace
