// The text buffer: growth to exact sizes, the zero behind formatted text, and refused growth.
#include <gtest/gtest.h>

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
    bool append(const std::string& bytes) {
        auto count = static_cast<std::uint32_t>(bytes.size());
        return text_buffer_append(this, exact_bytes(bytes).get(), count);
    }
};

bool append_list(text_buffer* buffer, const char* format, ...) LOG_PRINTF(2, 3);

bool append_list(text_buffer* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    bool ok = text_buffer_append_vformat(buffer, format, arguments);
    va_end(arguments);
    return ok;
}

TEST(TextBuffer, AppendsGrowAsNeededAndFormattedOnesFindRoomForTheirZero) {
    for (std::uint32_t capacity : {0u, 19u, 20u, 21u}) {
        SCOPED_TRACE(capacity);
        std::string bytes(10, 'a'), number(8, 'x');
        owned_buffer appended(capacity), formatted(capacity), listed(capacity);
        ASSERT_TRUE(appended.append(bytes) && appended.append(bytes));
        EXPECT_EQ(bytes + bytes, appended.text());
        char* storage = appended.data;
        EXPECT_TRUE(text_buffer_append(&appended, nullptr, 5));
        EXPECT_TRUE(text_buffer_append(&appended, "x", 0));
        EXPECT_EQ(20, appended.length);
        EXPECT_TRUE(text_buffer_assign(&appended, nullptr, 7));
        EXPECT_EQ(0, appended.length);
        EXPECT_EQ(storage, appended.data);
        // Twenty bytes; read again, all of them, when the text is formatted again.
        ASSERT_TRUE(
            text_buffer_append_format(&formatted, "%s%s%d", bytes.c_str(), number.c_str(), 42));
        ASSERT_TRUE(append_list(&listed, "%s%s%d", bytes.c_str(), number.c_str(), 42));
        EXPECT_EQ(bytes + number + "42", formatted.data);
        EXPECT_EQ(bytes + number + "42", listed.data);
    }
    for (std::size_t length : {0u, 511u, 512u, 5000u}) {
        std::string text(length, 'z');
        EXPECT_EQ(text + "!", take(string_format("%s!", text.c_str())));
    }
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
    ASSERT_TRUE(buffer.append("0123456789"));
    // The source is never read.
    EXPECT_FALSE(text_buffer_append(&buffer, "x", UINT32_MAX));
    EXPECT_FALSE(text_buffer_append(&buffer, "x", 0x7FFFFFFF));
    EXPECT_FALSE(text_buffer_assign(&buffer, "x", 0x80000000u));
    EXPECT_FALSE(text_buffer_set_length(&buffer, -1));
    EXPECT_TRUE(text_buffer_reserve(&buffer, -1));
    EXPECT_EQ("0123456789", buffer.text());
    EXPECT_EQ(16, buffer.capacity);

    EXPECT_TRUE(text_buffer_set_length(&buffer, 2));
    EXPECT_TRUE(text_buffer_set_length(&buffer, 33));
    EXPECT_EQ(33, buffer.length);
    EXPECT_EQ("0123456789", buffer.text().substr(0, 10));

    text_buffer refused;
    EXPECT_FALSE(text_buffer_init(&refused, 0x80000000u));
    EXPECT_EQ(nullptr, refused.data);
    EXPECT_EQ(0, refused.capacity);
    EXPECT_FALSE(text_buffer_init(nullptr, 1) || text_buffer_reserve(nullptr, 1) ||
                 text_buffer_set_length(nullptr, 1) || text_buffer_append(nullptr, "x", 1) ||
                 text_buffer_assign(nullptr, "x", 1) || text_buffer_append_format(nullptr, "x"));
    text_buffer_release(nullptr);
}

}  // namespace
