// The decoders, fed from heap blocks of exactly the piece's size.
#include "tavhttpclient/contentdecompress.h"

#include <gtest/gtest.h>

#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

namespace {

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

    // In pieces of the size at most.
    bool feed(const std::string& packed, std::size_t size = SIZE_MAX) {
        for (std::size_t at = 0; at < packed.size(); at += std::min(size, packed.size())) {
            std::string piece = packed.substr(at, size);
            auto decode = gzip_ ? decompress_gzip : decompress_deflate;
            if (!decode(&decoder_, exact_bytes(piece).get(),
                        static_cast<std::uint32_t>(piece.size()), &output_)) {
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

const struct {
    const char* name;
    std::string (*pack)(const std::string&);
    bool gzip;               // decoder
    std::size_t first_size;  // smallest first piece that shows what the data is
} formats[] = {
    {"gzip", gzip_bytes, true, 1},
    {"zlib data called gzip", deflate_bytes, true, 1},
    {"zlib", deflate_bytes, false, 1},
    {"raw deflate", raw_deflate_bytes, false, 2},
    {"raw deflate called gzip", raw_deflate_bytes, true, 2},
};

TEST(ContentDecoder, EveryFormatDecodesWholeAndAtEachSplit) {
    std::string plain = sample_bytes(300) + std::string(400, 'z');
    for (const auto& now : formats) {
        SCOPED_TRACE(now.name);
        std::string packed = now.pack(plain);
        for (std::size_t split = now.first_size; split <= packed.size(); split++) {
            body halves(now.gzip);
            ASSERT_TRUE(halves.feed(packed.substr(0, split)));
            ASSERT_EQ(split < packed.size(), halves.is_open());
            ASSERT_TRUE(halves.feed(packed.substr(split)));
            ASSERT_EQ(plain, halves.text()) << "split at " << split;
            ASSERT_FALSE(halves.is_open());
        }
        body bytes(now.gzip);
        ASSERT_TRUE(bytes.feed(packed.substr(0, now.first_size)));
        ASSERT_TRUE(bytes.feed(packed.substr(now.first_size), 1));
        EXPECT_EQ(plain, bytes.text());
    }
}

TEST(ContentDecoder, OutputsAroundTheBlockSizeAreWhole) {
    for (std::size_t size : {0, 131071, 131072, 131073, 400000}) {
        for (const std::string& plain : {std::string(size, 'z'), sample_bytes(size)}) {
            for (const auto& now : formats) {
                SCOPED_TRACE(std::string(now.name) + " " + std::to_string(size));
                body whole(now.gzip), pieces(now.gzip);
                ASSERT_TRUE(whole.feed(now.pack(plain)));
                EXPECT_TRUE(plain == whole.text());
                ASSERT_TRUE(pieces.feed(now.pack(plain), 1000));
                EXPECT_TRUE(plain == pieces.text());
            }
        }
    }
}

// The byte that crosses the block's end leaves zlib with output but without input.
TEST(ContentDecoder, NoOutputWaitsForTheNextPiece) {
    std::string packed = gzip_bytes(std::string(200000, 'z'));
    std::string room(210000, '\0');
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
        body part(true);
        ASSERT_TRUE(part.feed(packed.substr(0, count)));
        ASSERT_EQ(room.size() - stream.avail_out, part.text().size()) << "after " << count;
    }
}

TEST(ContentDecoder, DamagedDataFailsAndALaterPieceStartsANewStream) {
    std::string gzip = gzip_bytes(sample_bytes(500));
    std::string bad_zlib = deflate_bytes(sample_bytes(500));
    bad_zlib[bad_zlib.size() - 1] ^= 1;
    const struct {
        const char* name;
        bool gzip, ok;
        std::string data;
    } rows[] = {
        {"gzip called deflate", false, false, gzip},
        {"wrong zlib check sum", false, false, bad_zlib},
        {"reserved block type", false, false, std::string("\x07\xff\xff\xff", 4)},
        {"unknown method", true, false, std::string("\x1f\x8b\x07\0\0\0\0\0\0\0", 10)},
        {"bytes behind the end", true, true, gzip_bytes("") + "garbage behind it"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        body broken(row.gzip);
        EXPECT_EQ(row.ok, broken.feed(row.data));
        EXPECT_FALSE(broken.is_open());
        EXPECT_TRUE(broken.feed(row.gzip ? gzip_bytes("fresh") : deflate_bytes("fresh")));
        std::string text = broken.text();
        EXPECT_EQ("fresh", text.substr(text.size() - 5));
    }
    body unfinished(true);
    EXPECT_TRUE(unfinished.feed(gzip.substr(0, gzip.size() / 2)));
    EXPECT_TRUE(unfinished.is_open());  // the leak check sees a stream that is not ended
}

TEST(ContentDecoder, MissingArgumentsFail) {
    content_decoder decoder = {};
    text_buffer output = {};
    EXPECT_FALSE(decompress_gzip(nullptr, "x", 1, &output));
    EXPECT_FALSE(decompress_gzip(&decoder, "x", 1, nullptr));
    EXPECT_FALSE(decompress_deflate(&decoder, nullptr, 1, &output));
    EXPECT_FALSE(inflate_stream(nullptr, &output));
    EXPECT_FALSE(inflate_stream(&decoder, nullptr));
}

}  // namespace
