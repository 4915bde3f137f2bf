// Log lines: short and long ones, and what stands in for absent arguments.
#include "tavhttpclient/log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct received_line {
    int count = 0;
    std::int32_t level = 0;
    std::string tag;
    std::string text;
};

received_line received;

void receive(std::int32_t level, const char* tag, const char* text) {
    received.count++;
    received.level = level;
    received.tag = tag;
    received.text = text;
}

class Log : public testing::Test {
  protected:
    void SetUp() override {
        received = {};
        set_log_callback(receive);
    }
    void TearDown() override {
        set_log_callback(nullptr);
    }
};

TEST_F(Log, LinesOfEveryLengthArriveWhole) {
    for (std::size_t length : {0, 1, 127, 128, 511, 512, 513, 1024, 3000, 100000}) {
        std::string text(length, 'x');
        // Used twice when the line is long, so no argument may be used up.
        LOG_INFO("%s|%d|%.*s", text.c_str(), 42, 3, "abcdef");
        EXPECT_EQ(text + "|42|abc", received.text) << length;
        EXPECT_EQ(2000, received.level);
        EXPECT_EQ("tavhttp", received.tag);
    }
    EXPECT_EQ(10, received.count);
}

TEST_F(Log, AbsentTextsAreEmpty) {
    const char* volatile absent = nullptr;
    write_log(1234, absent, 1, "%s", "text");
    EXPECT_EQ(1234, received.level);
    EXPECT_EQ("", received.tag);
    EXPECT_EQ("text", received.text);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    write_log(1000, "tag", 1, const_cast<const char*>(absent));
#pragma GCC diagnostic pop
    EXPECT_EQ("tag", received.tag);
    EXPECT_EQ("", received.text);
}

TEST_F(Log, WithoutAReceiverNothingArrives) {
    set_log_callback(nullptr);
    LOG_ERROR("nobody %s", "listens");
    EXPECT_FALSE(LOG_ASSERT(received.count != 0));
    EXPECT_EQ(0, received.count);
}

}  // namespace
