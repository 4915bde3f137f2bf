// The text buffer: growth to exact sizes, the zero behind formatted text, and refused growth.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tavhttpclient/util.h"
#include "tests/support/exact_buffer.h"

namespace {

struct owned_buffer : text_buffer {
    explicit owned_buffer(std::uint32_t size = 0) {
        EXPECT_TRUE(text_buffer_init(this, size));
    }
    ~owned_buffer() {
        text_buffer_release(this);
    }
    std::string text() const {
        return length != 0 ? std::string(data, static_cast<std::size_t>(length)) : "";
    }
};

bool append(text_buffer* buffer, const std::string& bytes) {
    heap_text source = exact_bytes(bytes);
    return text_buffer_append(buffer, source.get(), static_cast<std::uint32_t>(bytes.size()));
}

bool append_list(text_buffer* buffer, const char* format, ...) LOG_PRINTF(2, 3);

bool append_list(text_buffer* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    bool ok = text_buffer_append_vformat(buffer, format, arguments);
    va_end(arguments);
    return ok;
}

TEST(TextBuffer, ByteAppendsGrowToTwiceTheTotal) {
    struct {
        const char* name;
        std::uint32_t capacity;
        std::size_t first, second;
        std::int32_t expected;
    } const rows[] = {
        {"fits exactly", 20, 10, 10, 20}, {"one too many", 19, 10, 10, 40},
        {"twice twenty", 16, 10, 10, 40}, {"no storage", 0, 3, 4, 14},
        {"grows once", 0, 3, 3, 6},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        owned_buffer buffer(row.capacity);
        ASSERT_TRUE(append(&buffer, std::string(row.first, 'a')));
        ASSERT_TRUE(append(&buffer, std::string(row.second, 'b')));
        EXPECT_EQ(row.expected, buffer.capacity);
        EXPECT_EQ(std::string(row.first, 'a') + std::string(row.second, 'b'), buffer.text());
    }
}

TEST(TextBuffer, NothingToAppendSucceedsAndChangesNothing) {
    owned_buffer buffer;
    EXPECT_TRUE(text_buffer_append(&buffer, nullptr, 5));
    EXPECT_TRUE(text_buffer_append(&buffer, "x", 0));
    EXPECT_EQ(nullptr, buffer.data);
    EXPECT_EQ(0, buffer.capacity);

    ASSERT_TRUE(append(&buffer, "kept storage"));
    char* storage = buffer.data;
    EXPECT_TRUE(text_buffer_assign(&buffer, "x", 0));
    EXPECT_EQ(0, buffer.length);
    EXPECT_TRUE(text_buffer_assign(&buffer, nullptr, 7));
    EXPECT_EQ(storage, buffer.data);
}

TEST(TextBuffer, FormattedTextNeedsRoomForItsZero) {
    struct {
        const char* name;
        std::uint32_t capacity;
        std::size_t length;
        std::int32_t doubled, by_result;
    } const rows[] = {
        {"no storage", 0, 5, 1024, 1024},
        {"zero fits", 9, 8, 9, 9},
        {"zero does not fit", 8, 8, 16, 32},
        {"one retry or several", 8, 100, 128, 216},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string text(row.length, 'x');
        owned_buffer doubled(row.capacity);
        owned_buffer by_result(row.capacity);
        ASSERT_TRUE(text_buffer_append_format(&doubled, "%s", text.c_str()));
        ASSERT_TRUE(append_list(&by_result, "%s", text.c_str()));
        EXPECT_EQ(text, doubled.data);
        EXPECT_EQ(text, by_result.data);
        EXPECT_EQ(row.doubled, doubled.capacity);
        EXPECT_EQ(row.by_result, by_result.capacity);
    }
}

TEST(TextBuffer, ArgumentsAreReadAgainWhenTheTextIsFormattedAgain) {
    owned_buffer buffer(4);
    ASSERT_TRUE(append_list(&buffer, "%d %s %s", 42, "a text of some length", "and another"));
    EXPECT_STREQ("42 a text of some length and another", buffer.data);
    ASSERT_TRUE(text_buffer_append_format(&buffer, ", %s %d", std::string(500, 'y').c_str(), 7));
    EXPECT_EQ("42 a text of some length and another, " + std::string(500, 'y') + " 7",
              buffer.text());
}

TEST(TextBuffer, AFormatThatFailsLeavesTheContents) {
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    owned_buffer buffer(64);
    ASSERT_TRUE(text_buffer_append_format(&buffer, "before"));
    EXPECT_FALSE(text_buffer_append_format(&buffer, "partial %ls", unencodable));
    EXPECT_FALSE(append_list(&buffer, "partial %ls", unencodable));
    EXPECT_EQ(6, buffer.length);
    EXPECT_STREQ("before", buffer.data);
}

TEST(TextBuffer, SizesBeyondTheCounterAreRefused) {
    owned_buffer buffer(16);
    ASSERT_TRUE(append(&buffer, "0123456789"));
    // The source is never read.
    EXPECT_FALSE(text_buffer_append(&buffer, "x", UINT32_MAX));
    EXPECT_FALSE(text_buffer_append(&buffer, "x", 0x7FFFFFFF));
    EXPECT_FALSE(text_buffer_assign(&buffer, "x", 0x80000000u));
    EXPECT_FALSE(text_buffer_set_length(&buffer, -1));
    EXPECT_TRUE(text_buffer_reserve(&buffer, -1));
    EXPECT_EQ("0123456789", buffer.text());
    EXPECT_EQ(16, buffer.capacity);

    text_buffer refused;
    EXPECT_FALSE(text_buffer_init(&refused, 0x80000000u));
    EXPECT_EQ(nullptr, refused.data);
    EXPECT_EQ(0, refused.capacity);
}

TEST(TextBuffer, LengthAndCapacityAreSetExactly) {
    owned_buffer buffer;
    ASSERT_TRUE(append(&buffer, "abcdef"));
    EXPECT_TRUE(text_buffer_set_length(&buffer, 2));
    EXPECT_EQ(12, buffer.capacity);
    EXPECT_TRUE(text_buffer_set_length(&buffer, 6));
    EXPECT_EQ("abcdef", buffer.text());
    EXPECT_TRUE(text_buffer_set_length(&buffer, 33));
    EXPECT_EQ(33, buffer.capacity);
    EXPECT_TRUE(text_buffer_reserve(&buffer, 20));
    EXPECT_EQ(33, buffer.capacity);
    EXPECT_TRUE(text_buffer_reserve(&buffer, 34));
    EXPECT_EQ(34, buffer.capacity);
    EXPECT_EQ("abcdef", buffer.text().substr(0, 6));
}

TEST(TextBuffer, NullRecordsAreRefused) {
    EXPECT_FALSE(text_buffer_init(nullptr, 1));
    EXPECT_FALSE(text_buffer_reserve(nullptr, 1));
    EXPECT_FALSE(text_buffer_set_length(nullptr, 1));
    EXPECT_FALSE(text_buffer_append(nullptr, "x", 1));
    EXPECT_FALSE(text_buffer_assign(nullptr, "x", 1));
    EXPECT_FALSE(text_buffer_append_format(nullptr, "x"));
    text_buffer_release(nullptr);
}

TEST(TextBuffer, AReleasedRecordCanBeUsedAgain) {
    owned_buffer buffer(8);
    text_buffer_release(&buffer);
    text_buffer_release(&buffer);
    EXPECT_EQ(nullptr, buffer.data);
    ASSERT_TRUE(append(&buffer, "again"));
    EXPECT_EQ("again", buffer.text());
}

TEST(TextBuffer, StringFormatReturnsTextsOfEveryLength) {
    for (std::size_t length : {0u, 1u, 511u, 512u, 5000u}) {
        std::string text(length, 'z');
        EXPECT_EQ(text + "!", take(string_format("%s!", text.c_str())));
    }
}

}  // namespace
