// The decoders, fed from heap blocks of exactly the piece's size.
#include "tavhttpclient/contentdecompress.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

enum {
    BITS_GZIP = 31,
    BITS_ZLIB = 15,
    BITS_RAW = -15
};

std::string compress(const std::string& plain, int window_bits, int level = 6) {
    z_stream stream = {};
    EXPECT_EQ(Z_OK, deflateInit2(&stream, level, Z_DEFLATED, window_bits, 8, Z_DEFAULT_STRATEGY));
    std::string packed(deflateBound(&stream, static_cast<uLong>(plain.size())) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = reinterpret_cast<Bytef*>(&packed[0]);
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&stream, Z_FINISH));
    packed.resize(packed.size() - stream.avail_out);
    deflateEnd(&stream);
    return packed;
}

// What zlib makes of the beginning of a stream when it has room for everything at once.
std::string decode_prefix(const std::string& packed, std::size_t count, std::size_t room) {
    std::string plain(room, '\0');
    z_stream stream = {};
    EXPECT_EQ(Z_OK, inflateInit2(&stream, 47));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(count);
    stream.next_out = reinterpret_cast<Bytef*>(&plain[0]);
    stream.avail_out = static_cast<uInt>(room);
    inflate(&stream, Z_SYNC_FLUSH);
    plain.resize(room - stream.avail_out);
    inflateEnd(&stream);
    return plain;
}

std::string mixed_text(std::size_t size) {
    std::string text;
    std::uint32_t state = 12345;
    while (text.size() < size) {
        state = state * 1664525u + 1013904223u;
        text += (state >> 30) == 0 ? "the same words again and again " : std::to_string(state);
    }
    text.resize(size);
    return text;
}

// One body with its decoder.
class body {
  public:
    explicit body(bool gzip) : gzip_(gzip) {
        std::memset(&decoder_, 0, sizeof(decoder_));
    }
    ~body() {
        release_content_decoder(&decoder_);
        text_buffer_release(&output_);
    }
    body(const body&) = delete;
    body& operator=(const body&) = delete;

    bool feed(const std::string& piece) {
        std::unique_ptr<char[]> block(new char[piece.size()]);
        std::memcpy(block.get(), piece.data(), piece.size());
        std::uint32_t length = static_cast<std::uint32_t>(piece.size());
        return gzip_ ? decompress_gzip(&decoder_, block.get(), length, &output_)
                     : decompress_deflate(&decoder_, block.get(), length, &output_);
    }
    bool feed_in_pieces(const std::string& packed, std::size_t size) {
        for (std::size_t at = 0; at < packed.size(); at += size) {
            if (!feed(packed.substr(at, size))) {
                return false;
            }
        }
        return true;
    }
    std::string text() const {
        return std::string(output_.data != nullptr ? output_.data : "",
                           static_cast<std::size_t>(output_.length));
    }
    bool is_open() const {
        return decoder_.initialised != 0;
    }

  private:
    bool gzip_;
    content_decoder decoder_;
    text_buffer output_ = {};
};

struct format_case {
    const char* name;
    int window_bits;
    bool gzip;               // decoder
    std::size_t first_size;  // smallest first piece that shows what the data is
};

const format_case formats[] = {
    {"gzip", BITS_GZIP, true, 1},
    {"zlib data called gzip", BITS_ZLIB, true, 1},
    {"zlib", BITS_ZLIB, false, 1},
    {"raw deflate", BITS_RAW, false, 2},
    {"raw deflate called gzip", BITS_RAW, true, 2},
};

TEST(ContentDecoder, EveryFormatDecodesWholeAndAtEachSplit) {
    std::string plain = mixed_text(700);
    for (const format_case& now : formats) {
        SCOPED_TRACE(now.name);
        std::string packed = compress(plain, now.window_bits);
        for (std::size_t split = now.first_size; split <= packed.size(); split++) {
            body halves(now.gzip);
            ASSERT_TRUE(halves.feed(packed.substr(0, split)));
            if (split < packed.size()) {
                ASSERT_TRUE(halves.is_open());
                ASSERT_TRUE(halves.feed(packed.substr(split)));
            }
            ASSERT_EQ(plain, halves.text()) << "split at " << split;
            ASSERT_FALSE(halves.is_open());
        }
        body bytes(now.gzip);
        ASSERT_TRUE(bytes.feed(packed.substr(0, now.first_size)));
        ASSERT_TRUE(bytes.feed_in_pieces(packed.substr(now.first_size), 1));
        EXPECT_EQ(plain, bytes.text());
    }
}

TEST(ContentDecoder, OutputsAroundTheBlockSizeAreWhole) {
    for (std::size_t size : {0, 1, 131071, 131072, 131073, 262143, 262144, 400000}) {
        for (const std::string& plain : {std::string(size, 'z'), mixed_text(size)}) {
            for (const format_case& now : formats) {
                SCOPED_TRACE(std::string(now.name) + " " + std::to_string(size));
                body whole(now.gzip);
                ASSERT_TRUE(whole.feed(compress(plain, now.window_bits)));
                EXPECT_TRUE(plain == whole.text());
                body pieces(now.gzip);
                ASSERT_TRUE(pieces.feed_in_pieces(compress(plain, now.window_bits), 1000));
                EXPECT_TRUE(plain == pieces.text());
            }
        }
    }
}

// The byte that crosses the block's end leaves zlib with output but without input.
TEST(ContentDecoder, NoOutputWaitsForTheNextPiece) {
    std::string packed = compress(std::string(200000, 'z'), BITS_GZIP, 9);
    for (std::size_t count = 1; count < packed.size(); count++) {
        body part(true);
        ASSERT_TRUE(part.feed(packed.substr(0, count)));
        ASSERT_EQ(decode_prefix(packed, count, 210000).size(), part.text().size())
            << "after " << count;
    }
}

TEST(ContentDecoder, DamagedDataFailsAndEndsTheStream) {
    std::string gzip = compress(mixed_text(500), BITS_GZIP);
    std::string bad_sum = gzip;
    bad_sum[bad_sum.size() - 8] ^= 1;
    std::string bad_zlib = compress(mixed_text(500), BITS_ZLIB);
    bad_zlib[bad_zlib.size() - 1] ^= 1;
    struct {
        const char* name;
        bool gzip;
        std::string data;
    } cases[] = {
        {"plain text", true, "<html>no compression at all</html>"},
        {"gzip called deflate", false, gzip},
        {"wrong check sum", true, bad_sum},
        {"wrong zlib check sum", false, bad_zlib},
        {"reserved block type", false, std::string("\x07\xff\xff\xff", 4)},
        {"unknown method", true, std::string("\x1f\x8b\x07\0\0\0\0\0\0\0", 10)},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.name);
        body broken(now.gzip);
        EXPECT_FALSE(broken.feed(now.data));
        EXPECT_FALSE(broken.is_open());
    }
}

TEST(ContentDecoder, BytesBehindTheEndOfTheStreamAreDropped) {
    std::string packed = compress("the body", BITS_GZIP);
    body with_garbage(true);
    EXPECT_TRUE(with_garbage.feed(packed + "garbage behind it"));
    EXPECT_EQ("the body", with_garbage.text());
    EXPECT_FALSE(with_garbage.is_open());
}

TEST(ContentDecoder, ALaterPieceStartsANewStream) {
    body members(true);
    EXPECT_TRUE(members.feed(compress("first ", BITS_GZIP)));
    EXPECT_TRUE(members.feed(compress("second", BITS_GZIP)));
    EXPECT_EQ("first second", members.text());

    body after_failure(true);
    EXPECT_FALSE(after_failure.feed("not compressed, really"));
    EXPECT_TRUE(after_failure.feed(compress("fresh", BITS_GZIP)));
    EXPECT_EQ("fresh", after_failure.text());
}

TEST(ContentDecoder, AnUnfinishedStreamIsReleased) {
    std::string packed = compress(mixed_text(5000), BITS_GZIP);
    body unfinished(true);
    EXPECT_TRUE(unfinished.feed(packed.substr(0, packed.size() / 2)));
    EXPECT_TRUE(unfinished.is_open());  // the leak check sees a stream that is not ended
}

TEST(ContentDecoder, MissingArgumentsFail) {
    content_decoder decoder = {};
    text_buffer output = {};
    for (auto decode : {decompress_gzip, decompress_deflate}) {
        EXPECT_FALSE(decode(nullptr, "x", 1, &output));
        EXPECT_FALSE(decode(&decoder, "x", 1, nullptr));
        EXPECT_FALSE(decode(&decoder, nullptr, 1, &output));
    }
    EXPECT_FALSE(inflate_stream(nullptr, &output));
    EXPECT_FALSE(inflate_stream(&decoder, nullptr));
    release_content_decoder(nullptr);
    EXPECT_EQ(0u, decoder.initialised);
}

}  // namespace
