// Responses and their decoders fed whole, per byte and at each split, from heap blocks of exactly
// the piece's size; what comes out must agree.
#include <gtest/gtest.h>
#include <zlib.h>

#include <map>

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

// In pieces of the size at most; false at the first one that is refused.
template <typename taker>
bool in_pieces(const std::string& bytes, std::size_t size, const taker& take_piece) {
    for (std::size_t at = 0; at < bytes.size(); at += std::min(size, bytes.size())) {
        std::string piece = bytes.substr(at, size);
        if (!take_piece(exact_bytes(piece).get(), static_cast<std::uint32_t>(piece.size()))) {
            return false;
        }
    }
    return true;
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

    bool feed(const std::string& bytes, std::size_t size = SIZE_MAX) {
        return in_pieces(bytes, size, [this](const char* piece, std::uint32_t length) {
            return parse_response_message(response, piece, length);
        });
    }

    // Everything that must not depend on how the bytes were cut (the reason phrase may).
    std::string describe() const {
        const http_response& r = *response;
        auto or_none = [](const char* value) { return value != nullptr ? value : "none"; };
        std::string text = take(string_format(
            "status=%u state=%u mode=%u timeout=%d max=%d length=%llu encoding=%u chunked=%u "
            "range=%lld-%lld/%lld modified=%lld received=%llu decoded=%llu type=%s disposition=%s "
            "transfer=%s location=%s server=%s etag=%s surplus=%u cookies=",
            r.status_code, r.recv_state, r.connection_mode, r.keep_alive_timeout, r.keep_alive_max,
            (unsigned long long)r.content_length, r.content_encoding, r.chunked,
            (long long)r.range_start, (long long)r.range_end, (long long)r.range_total,
            (long long)r.last_modified, (unsigned long long)r.recv_body_bytes,
            (unsigned long long)r.body_bytes, or_none(r.content_type),
            or_none(r.content_disposition), or_none(r.transfer_encoding), or_none(r.location),
            or_none(r.server), or_none(r.etag), r.has_surplus));
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
    const std::string date = "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n";
    auto head = [](const std::string& lines) { return ok + lines + "\r\n\r\n"; };
    const struct {
        std::string bytes, expected;  // part of the description
    } rows[] = {
        // clang-format off
        {response(200, "0123456789",
                  "Set-Cookie: a=1; Path=/\r\n" + date + "Set-Cookie: b=2\r\nE:\r\nServer: s\r\n"),
         "status=200 state=3 mode=0 timeout=0 max=0 length=10 encoding=0 chunked=0 range=0-0/0 "
         "modified=784111777 received=10 decoded=10 type=none disposition=none transfer=none "
         "location=none server=s etag=none surplus=0 cookies=" +
             bytes_of("a=1; Path=/\0b=2\0\0\nbody=0123456789\n[Set-Cookie][a=1; Path=/]\n")},
        {response(200, "b", "X-Long: one\r\n two\r\n\tthree\r\n"), "body=b\n"},
        {ok + chunked + "\r\n3;ext=1\r\nabc\r\nA\r\n0123456789\r\n0\r\nX: 1\r\nY: 2\r\n\r\n",
         "body=abc0123456789\n"},
        {"HTTP/1.1 200 OK\nContent-Length: 2\n\nok", "body=ok\n"},
        {"HTTP/1.1 404 Not Found\r\nServer: a\r\nX-Ha", "status=404 state=1 "},
        {response(200, gzip_bytes("packed, packed"), gzipped), "body=packed, packed\n"},
        {"HTTP/1.1 100 Continue\r\n\r\n" + response(200, "real"),
         "surplus=0 cookies=\nbody=real\n"},
        {"HTTP/1.1 103 Hints\r\n" + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"),
         "body=second\n[Transfer-Encoding][chunked]\n[Content-Length][6]\n"},
        {response(200, "first") + response(404, "second", "Server: b\r\n"),
         "server=none etag=none surplus=1 cookies=\nbody=first\n[Content-Length][5]\n"},
        {ok + chunked + "\r\n0\r\nX: y\r\n\r\n" + response(200, "second"), "body=\n"},
        {"HTTP/1.1 2x0 OK\r\n\r\n", "refused"}, {head("na(me: x"), "refused"},
        {head(bytes_of("A: x\0y")), "refused"}, {ok + chunked + "\r\nxyz\r\n", "refused"},
        {head("Content-Length: 1\r\nContent-Length: 2") + "a", "refused"},
        {head("Content-Length:"), "refused"},
        {response(200, "x", "Connection: close\r\n") + "more", "refused"},
        {head("Connection: Keep-Alive, timeout=5, max=100"), "mode=1 timeout=5 max=100 "},
        {head("Connection: close, timeout=5"), "mode=2 timeout=0 max=0 "},
        {head("CONTENT-ENCODING: DEFLATE"), "encoding=2"},
        {head("Content-Encoding: gzip, gzip"), "encoding=0"},
        {head("Content-Encoding: gzip\r\nContent-Encoding: br"), "encoding=1"},
        {head("Transfer-Encoding: abcdefg"), "chunked=1"},
        {head("Transfer-Encoding: gzip, xyz"), "chunked=0"},
        {head("Content-Range: bytes 5000000000-6000000000/7000000000"),
         "range=5000000000-6000000000/7000000000 "},
        {head("Content-Range: bytes 1-2/3\r\nContent-Range: bytes */1000"), "range=1-2/3 "},
        {head("Content-Length: 5000000000"), "length=5000000000 "},
        {head(date + "Last-Modified: x"), "modified=0 "},
        {head("Location: ../x"), "location=http://host.test/a/x "},
        {head("Location: //other.test/x"), "location=http://other.test/x "},
        {head("Server: a\r\nServer: b"), "server=b "},
        {head("ETag: a\r\neTAG: b\r\nETa: c"), "etag=b "},
        {head("Content-Type: a\r\nContent-Type: b"), "type=b "},
        {head("Content-Disposition: a\r\nContent-Disposition: b"), "disposition=b "},
        {head("Location: /a\r\nLocation: /b"), "location=http://host.test/b "},
        {head("B: 1\r\na: 2\r\nB: 3\r\nEmpty:"), "[B][1]\n[a][2]\n[B][3]\n[Empty][]\n"},
        // clang-format on
    };
    allow_assertion("_handle_response_header");  // of headers that may come once
    for (const auto& row : rows) {
        std::string seen = fed_in_every_way(row.bytes);
        EXPECT_NE(std::string::npos, seen.find(row.expected)) << row.bytes << "\n" << seen;
    }
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
    // Each interim head counts as 50,014 bytes, and the last one as 11 more than its value.
    const std::size_t last = 1048576 - 20 * 50014 - 11;
    const struct {
        std::string bytes;
        bool ok;
    } rows[] = {
        {repeat(interim, 19) + response(200, "x"), true},
        {repeat(interim, 22) + response(200, "x"), false},
        {repeat("HTTP/1.1 100 \r\n\r\n", 270000), false},
        {repeat(interim, 19) + ok + lines + "\r\n", true},
        {repeat(interim, 19) + ok + lines + chunked + "\r\n0\r\n" + lines, false},
        {repeat(interim, 20) + ok + "X: " + std::string(last, 'x'), true},
        {repeat(interim, 20) + ok + "X: " + std::string(last + 1, 'x'), false},
    };
    for (const auto& row : rows) {
        log_capture log;
        EXPECT_EQ(row.ok, received().feed(row.bytes)) << row.bytes.size();
        EXPECT_NE(row.ok, log.has_line("too many header bytes"));
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

TEST(MessageParser, TheFirstPieceGivesTheLoggedHeadAndTheLastOneTheReason) {
    for (const auto& [piece, line] :
         std::map<std::string, std::string>{{ok + "A: b\r\n\r\nbody", "HTTP/1.1 200 OK\r\nA: b"},
                                            {ok.substr(0, 14), "HTTP/1.1 20"},
                                            {"HTT", ""}}) {
        log_capture log;
        received head;
        EXPECT_TRUE(head.feed(piece));
        EXPECT_EQ("rsp-header: " + line + "\n", log.lines().at(0).text);
        EXPECT_TRUE(piece.size() > ok.size() || head.feed(ok.substr(piece.size()) + "\r\n"));
        EXPECT_EQ(1u, log.count("rsp-header")) << line;
        EXPECT_STREQ(piece.size() == 14 ? "K" : "OK", head.response->status_text);
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
        return in_pieces(packed, size, [this](const char* piece, std::uint32_t length) {
            auto decode = gzip ? decompress_gzip : decompress_deflate;
            return decode(&decoder, piece, length, &output);
        });
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
