// Log lines: short and long ones, and what stands in for absent arguments.
#include "tavhttpclient/log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

int lines;
std::string last;  // level, tag and text

void receive(std::int32_t level, const char* tag, const char* text) {
    lines++;
    last = std::to_string(level) + "|" + tag + "|" + text;
}

TEST(Log, LinesOfEveryLengthArriveWholeOrNowhere) {
    set_log_callback(receive);
    for (std::size_t length : {0, 506, 507, 508, 100000}) {
        std::string text(length, 'x');
        // Used twice when the line is long, so no argument may be used up.
        LOG_INFO("%s%d%.*s", text.c_str(), 42, 3, "abcdef");
        EXPECT_EQ("2000|tavhttp|" + text + "42abc", last) << length;
    }
    EXPECT_EQ(5, lines);
    const char* volatile absent = nullptr;
    write_log(1234, absent, 1, "%s", "text");
    EXPECT_EQ("1234||text", last);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    write_log(1000, "tag", 1, const_cast<const char*>(absent));
#pragma GCC diagnostic pop
    EXPECT_EQ("1000|tag|", last);

    set_log_callback(nullptr);
    LOG_ERROR("nobody %s", "listens");
    EXPECT_FALSE(LOG_ASSERT(lines == 0));
    EXPECT_EQ(7, lines);
}

}  // namespace
