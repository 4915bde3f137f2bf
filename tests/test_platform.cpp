// The system calls under their Windows names: conversions, time, sockets, the provider catalogue.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
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
        const char *name, *text;
        units wide;
        bool both_ways;
    } rows[] = {
        {"two bytes", "a\xC2\x80\xDF\xBF", {'a', 0x80, 0x7FF}, true},
        {"three", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", {0x800, 0xD7FF, 0xE000}, true},
        {"pairs", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {0xD800, 0xDC00, 0xDBFF, 0xDFFF}, true},
        {"lone continuation", "\x80", {bad}, false},
        {"never a lead", "\xC0\xAF\xFF", {bad, bad, bad}, false},
        {"beyond the last plane", "\xF5\x80\x80\x80", {bad, bad, bad, bad}, false},
        {"over-long three", "\xE0\x80\x80", {bad, bad, bad}, false},
        {"over-long four", "\xF0\x8F\xBF\xBF", {bad, bad, bad, bad}, false},
        {"surrogate", "\xED\xA0\x80", {bad, bad, bad}, false},
        {"too high", "\xF4\x90\x80\x80", {bad, bad, bad, bad}, false},
        {"cut after two", "\xE2\x82", {bad}, false},
        {"cut after three", "\xF0\x9F\x93", {bad}, false},
        {"cut by a letter", "\xE2\x82z", {bad, 'z'}, false},
        {"cut by a lead", "\xF0\x9F\xC3\xA4", {bad, 0xE4}, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.wide, to_units(row.text)) << row.name;
        EXPECT_EQ(row.both_ways, row.text == to_text(row.wide)) << row.name;
    }
    const std::string mark = "\xEF\xBF\xBD";
    EXPECT_EQ(mark, to_text({0xD800}));
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

    BOOL used = 0;
    EXPECT_EQ(0, MultiByteToWideChar(1252, 0, "a", -1, wide, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, nullptr, -1, wide, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, nullptr, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, wide, -1));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 4));
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, L"a", -1, narrow.get(), 4, "?", nullptr));
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, L"a", -1, narrow.get(), 4, nullptr, &used));
    EXPECT_EQ(nullptr, utf8_to_wide(nullptr));
    EXPECT_EQ(nullptr, wide_to_utf8(nullptr));
    EXPECT_EQ("", take(wide_to_utf8(L"")));
}

TEST(PlatformFile, TheTemporaryDirectoryEndsInASeparator) {
    const char* rows[][2] = {
        {"", "/tmp/"}, {"relative", "/tmp/"}, {"/var/x", "/var/x/"}, {"/var/x/", "/var/x/"}};
    for (const auto& row : rows) {
        setenv("TMPDIR", row[0], 1);
        DWORD length = static_cast<DWORD>(std::strlen(row[1]));
        units output(length + 1, 'x');
        EXPECT_EQ(length + 1, GetTempPathW(length, output.data()));
        EXPECT_EQ('x', output[0]);
        EXPECT_EQ(length, GetTempPathW(length + 1, output.data()));
        EXPECT_EQ(row[1], take(wide_to_utf8(output.data())));
    }
    unsetenv("TMPDIR");
}

TEST(PlatformTime, ClocksGoForwardsAndTheCalendarEndsWithTheYear3000) {
    DWORD ticks = GetTickCount();
    EXPECT_LT(GetTickCount() - ticks, 60000u);
    LARGE_INTEGER first, second;
    ASSERT_TRUE(QueryPerformanceCounter(&first) && QueryPerformanceCounter(&second));
    EXPECT_LE(first.QuadPart, second.QuadPart);

    __time64_t seconds = 32535215999;
    const struct tm* time = _gmtime64(&seconds);
    ASSERT_NE(nullptr, time);
    EXPECT_EQ(1100, time->tm_year);
    for (std::int64_t refused : {INT64_C(-1), INT64_C(32535216000), INT64_MAX, INT64_MIN}) {
        seconds = refused;
        EXPECT_EQ(nullptr, _gmtime64(&seconds)) << refused;
    }
    EXPECT_EQ(nullptr, _gmtime64(nullptr));
}

TEST(PlatformFile, NullPathsAreErrors) {
    struct _stat64i32 record;
    EXPECT_TRUE(platform_fopen(nullptr, "rb") == nullptr && !platform_is_special_file(nullptr));
    EXPECT_TRUE(_wremove(nullptr) == -1 && _wmkdir(nullptr) == -1 && _access(nullptr, 0) == -1);
    EXPECT_TRUE(_stat64i32(nullptr, &record) == -1 && _stat64i32("/", nullptr) == -1);
    ASSERT_EQ(0, _stat64i32("/", &record));
    EXPECT_TRUE(record.st_mode & _S_IFDIR);
    ASSERT_EQ(0, _stat64i32("/dev/null", &record));
    EXPECT_FALSE(record.st_mode & _S_IFDIR);
}

// A catalogue for the time of one test.
class Catalog : public ::testing::Test {
  protected:
    void TearDown() override {
        platform_set_protocol_catalog(nullptr, 0);
        platform_fail_enum_protocols(0);
    }
    int filter_[3] = {IPPROTO_TCP, IPPROTO_UDP, 0};
};

TEST_F(Catalog, HasTheBaseEntry) {
    DWORD size = 8192;
    std::vector<WSAPROTOCOL_INFOW> buffer(size / sizeof(WSAPROTOCOL_INFOW) + 1);
    ASSERT_EQ(1, WSAEnumProtocolsW(filter_, buffer.data(), &size));
    EXPECT_EQ(AF_INET, buffer[0].iAddressFamily);
    EXPECT_EQ(SOCK_STREAM, buffer[0].iSocketType);
    EXPECT_EQ(1, buffer[0].ProtocolChain.ChainLen);
    WCHAR text[39];
    EXPECT_EQ(0, StringFromGUID2(buffer[0].ProviderId, text, 38));
    ASSERT_EQ(39, StringFromGUID2(buffer[0].ProviderId, text, 39));
    EXPECT_EQ("{E70F1AA0-AB8B-11CF-8CA3-00805F48A192}", take(wide_to_utf8(text)));
    int udp[] = {IPPROTO_UDP, 0};
    EXPECT_EQ(0, WSAEnumProtocolsW(udp, buffer.data(), &size));
}

TEST(PlatformSocket, SocketsStayInThisProcess) {
    for (int family : {AF_INET, AF_INET6}) {
        SOCKET made = WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        ASSERT_NE(INVALID_SOCKET, made);
        EXPECT_TRUE(fcntl(made, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(0, closesocket(made));
        EXPECT_EQ(SOCKET_ERROR, closesocket(made));
        EXPECT_EQ(EBADF, WSAGetLastError());
    }
    EXPECT_EQ(INVALID_SOCKET, socket(9999, SOCK_STREAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, WSAGetLastError());
}

TEST(PlatformSocket, EveryThreadHasItsOwnErrorsAndABrokenPipeIsOne) {
    EXPECT_EQ(SOCKET_ERROR, closesocket(-1));
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
}

}  // namespace
