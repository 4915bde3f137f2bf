// The system calls under their Windows names, on Linux: conversions, time, files that are none,
// sockets, the provider catalogue.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "platform/win_file.h"
#include "platform/win_socket.h"
#include "platform/win_text.h"
#include "platform/win_time.h"
#include "support/inside.h"
#include "tavhttpclient/fs.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/utilplatform_win32.h"

namespace {

using units = std::vector<WCHAR>;

units to_units(const std::string& text) {
    heap_text source = exact_bytes(text);
    int length = static_cast<int>(text.size());
    int size = MultiByteToWideChar(CP_UTF8, 0, source.get(), length, nullptr, 0);
    units wide(static_cast<std::size_t>(size));
    EXPECT_EQ(size, MultiByteToWideChar(CP_UTF8, 0, source.get(), length, wide.data(), size));
    return wide;
}

std::string to_text(const units& wide) {
    int length = static_cast<int>(wide.size());
    int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(size), '#');
    EXPECT_EQ(size, WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(), size, nullptr,
                                        nullptr));
    return text;
}

TEST(PlatformText, ValidTextsSurviveAndBrokenOnesBecomeReplacements) {
    const WCHAR bad = 0xFFFD;
    const struct {
        const char* text;
        units wide;
        bool both_ways;
    } rows[] = {
        // clang-format off
        {"a\xC2\x80\xDF\xBF", {'a', 0x80, 0x7FF}, true},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", {0x800, 0xD7FF, 0xE000}, true},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {0xD800, 0xDC00, 0xDBFF, 0xDFFF}, true},
        // No lead, beyond the last plane, over-long, a surrogate.
        {"\x80", {bad}, false}, {"\xC0\xAF\xFF", {bad, bad, bad}, false},
        {"\xF5\x80", {bad, bad}, false}, {"\xF4\x90\x80", {bad, bad, bad}, false},
        {"\xE0\x80\x80", {bad, bad, bad}, false}, {"\xF0\x8F\xBF", {bad, bad, bad}, false},
        {"\xED\xA0\x80", {bad, bad, bad}, false},
        // Cut at the end, by a letter, by a lead.
        {"\xE2\x82", {bad}, false}, {"\xF0\x9F\x93", {bad}, false},
        {"\xE2\x82z", {bad, 'z'}, false}, {"\xF0\x9F\xC3\xA4", {bad, 0xE4}, false},
        // clang-format on
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.wide, to_units(row.text)) << row.text;
        EXPECT_EQ(row.both_ways, row.text == to_text(row.wide)) << row.text;
    }
    const std::string mark = "\xEF\xBF\xBD";
    EXPECT_EQ(mark + "a", to_text({0xD800, 'a'}));
    EXPECT_EQ(mark + "\xF0\x90\x80\x80", to_text({0xD800, 0xD800, 0xDC00}));
    EXPECT_EQ(mark + mark, to_text({0xDC00, 0xD800}));
    EXPECT_EQ(mark, to_text({0x10000}));
}

TEST(PlatformText, OutputsThatAreTooSmallAndBadArgumentsAreRefused) {
    const char* text = "a\xF0\x90\x80\x80";
    WCHAR wide[4] = {7, 7, 7, 7};
    EXPECT_EQ(4, MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 2));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 3));
    EXPECT_EQ(7, wide[3]);
    EXPECT_EQ(4, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 4));
    heap_text narrow = exact_bytes("######");
    for (int size = 0; size <= 6; ++size) {
        EXPECT_EQ(size % 6 == 0 ? 6 : 0,
                  WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow.get(), size, nullptr, nullptr))
            << size;
        EXPECT_EQ(size < 6 ? '#' : 0, narrow.get()[5]);
    }
    EXPECT_STREQ(text, narrow.get());
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, nullptr, -1, wide, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, nullptr, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, wide, -1));
    EXPECT_TRUE(utf8_to_wide(nullptr) == nullptr && wide_to_utf8(nullptr) == nullptr);
    EXPECT_EQ("", take(wide_to_utf8(L"")));
}

TEST(PlatformText, ComparesAsciiWithoutCase) {
    EXPECT_EQ(0, _stricmp("Content-LENGTZ", "content-lengtz"));
    EXPECT_TRUE(_stricmp("a", "B") < 0 && _stricmp("ab", "a") > 0 && _stricmp("\xE4", "z") > 0);
    EXPECT_TRUE(_stricmp("\xC4", "\xE4") != 0 && _stricmp("@", "`") != 0 &&
                _stricmp("[", "{") != 0);
    EXPECT_TRUE(_strnicmp("HTTPx", "httpy", 4) == 0 && _strnicmp("ab", "AB", 99) == 0);
    EXPECT_EQ(INT64_MAX, _atoi64("9223372036854775808"));
    EXPECT_EQ(-12, _atoi64(" -12x"));
}

TEST(PlatformTime, TheCalendarEndsWithTheYear3000) {
    DWORD ticks = GetTickCount();
    EXPECT_LT(GetTickCount() - ticks, 60000u);
    LARGE_INTEGER before, after;
    ASSERT_TRUE(QueryPerformanceCounter(&before) && QueryPerformanceCounter(&after));
    EXPECT_LE(before.QuadPart, after.QuadPart);
    __time64_t seconds = 32535215999;
    const struct tm* time = _gmtime64(&seconds);
    ASSERT_NE(nullptr, time);
    EXPECT_EQ(1100, time->tm_year);
    for (std::int64_t refused : {INT64_C(-1), INT64_C(32535216000), INT64_MAX, INT64_MIN}) {
        seconds = refused;
        EXPECT_EQ(nullptr, _gmtime64(&seconds)) << refused;
    }
}

// Each zone has its own process: the offset is found once in the life of one.
TEST(PlatformTime, DatesReadTheSameInEveryZone) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto read = [](const char* date) {
        std::int64_t seconds = 0;
        return parse_http_date(date, -1, &seconds) ? seconds : -1;
    };
    for (const char* zone :
         {"UTC0", "EST5EDT,M3.2.0,M11.1.0", "NZST-12NZDT,M9.5.0,M4.1.0/3", "<+0545>-5:45"}) {
        EXPECT_EXIT(
            {
                setenv("TZ", zone, 1);
                tzset();
                bool same = true;
                for (int i = 0; i < 2; i++) {
                    same = same && read("Sun, 06 Nov 1994 08:49:37 GMT") == 784111777 &&
                           read("Fri, 15 Jul 1994 08:49:37 GMT") == 774262177 &&
                           read("Thu, 01 Jan 1970 00:00:01 GMT") == 1;
                }
                std::_Exit(same ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "")
            << zone;
    }
}

TEST(PlatformFile, TheTemporaryDirectoryEndsInASeparator) {
    const char* rows[][2] = {
        {"", "/tmp/"}, {"relative", "/tmp/"}, {"/var/x", "/var/x/"}, {"/var/x/", "/var/x/"}};
    const std::string old = getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "";
    for (const auto& row : rows) {
        setenv("TMPDIR", row[0], 1);
        DWORD length = static_cast<DWORD>(std::strlen(row[1]));
        units output(length + 1, 'x');
        EXPECT_EQ(length + 1, GetTempPathW(length, output.data()));
        EXPECT_EQ('x', output[0]);
        EXPECT_EQ(length, GetTempPathW(length + 1, output.data()));
        EXPECT_EQ(row[1], take(wide_to_utf8(output.data())));
    }
    allow_assertion("get_temp_file_path_with_suggest_name");
    library lib;
    char* output = nullptr;
    for (std::size_t length : {259, 260, 400}) {
        setenv("TMPDIR", ("/" + std::string(length, 'x')).c_str(), 1);
        EXPECT_EQ(length < 260, take(get_temp_directory()) != "(null)") << length;
    }
    EXPECT_FALSE(get_temp_file_path_with_suggest_name("n.x", true, &output));
    EXPECT_EQ(nullptr, output);
    EXPECT_EQ(0, old.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", old.c_str(), 1));
}

TEST(PlatformFile, NewFilesAreNewAndStayInThisProcess) {
    work_dir dir;
    ASSERT_EQ(0, symlink("elsewhere", "link"));
    FILE* file = nullptr;
    EXPECT_EQ(EEXIST, tavhttp_fopen("link", "w+bx", &file));
    int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    int err = tavhttp_fopen("new", "w+bx", &file);
    dup2(input, STDIN_FILENO);
    close(input);
    ASSERT_EQ(0, err);
    EXPECT_LT(STDERR_FILENO, fileno(file)) << "it would be the host's standard input";
    EXPECT_TRUE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ("link new", dir.names());
}

TEST(PlatformFile, APipeHasNoSizeAndACloseThatLosesBytesIsReported) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    FILE* end = fdopen(ends[0], "rb");
    std::int64_t size = 9;
    EXPECT_EQ(ESPIPE, tavhttp_fsize(end, &size));
    EXPECT_EQ(0, size);
    EXPECT_EQ(0, fclose(end) + close(ends[1]));
    for (bool flushed : {true, false}) {
        FILE* file = fopen("/dev/full", "wb");
        ASSERT_NE(nullptr, file);
        fputs("x", file);
        EXPECT_EQ(ENOSPC, flushed ? tavhttp_fflush(file) : tavhttp_fclose(file));
        EXPECT_EQ(0, flushed ? tavhttp_fclose(file) : 0);
    }
}

TEST(PlatformSocket, SocketsStayInThisProcessAndEveryThreadHasItsOwnErrors) {
    for (int family : {AF_INET, AF_INET6}) {
        SOCKET made = WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        ASSERT_NE(INVALID_SOCKET, made);
        EXPECT_TRUE(fcntl(made, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(0, closesocket(made));
        EXPECT_EQ(SOCKET_ERROR, closesocket(made));
        EXPECT_EQ(EBADF, WSAGetLastError());
    }
    std::thread([] {
        EXPECT_EQ(0, WSAGetLastError());
        platform_ignore_broken_pipe();
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        close(ends[1]);
        EXPECT_EQ(-1, write(ends[0], "x", 1));
        EXPECT_EQ(EPIPE, errno);
        close(ends[0]);
    }).join();
    EXPECT_EQ(INVALID_SOCKET, socket(9999, SOCK_STREAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, WSAGetLastError());
}

}  // namespace
