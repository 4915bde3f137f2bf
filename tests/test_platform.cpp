// The system calls under their Windows names: conversions, time, sockets, the provider catalogue.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/win_file.h"
#include "platform/win_socket.h"
#include "platform/win_text.h"
#include "platform/win_time.h"
#include "tavhttpclient/utilplatform_win32.h"
#include "tests/support/exact_buffer.h"

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

TEST(PlatformText, ValidTextsSurviveBothWays) {
    const struct {
        const char* text;
        units wide;
    } rows[] = {
        {"a", {'a'}},
        {"\xC2\x80\xDF\xBF", {0x80, 0x7FF}},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", {0x800, 0xD7FF, 0xE000, 0xFFFF}},
        {"\xF0\x90\x80\x80", {0xD800, 0xDC00}},
        {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
        {"x\xF0\x9F\x93\x84y", {'x', 0xD83D, 0xDCC4, 'y'}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.wide, to_units(row.text)) << row.text;
        EXPECT_EQ(row.text, to_text(row.wide)) << row.text;
    }
}

TEST(PlatformText, BrokenUtf8BecomesReplacements) {
    const WCHAR bad = 0xFFFD;
    const struct {
        const char* name;
        std::string text;
        units wide;
    } rows[] = {
        {"lone continuation", "\x80", {bad}},
        {"never a lead", "\xC0\xAF\xFF", {bad, bad, bad}},
        {"beyond the last plane", "\xF5\x80\x80\x80", {bad, bad, bad, bad}},
        {"over-long three", "\xE0\x80\x80", {bad, bad, bad}},
        {"over-long four", "\xF0\x8F\xBF\xBF", {bad, bad, bad, bad}},
        {"surrogate", "\xED\xA0\x80", {bad, bad, bad}},
        {"too high", "\xF4\x90\x80\x80", {bad, bad, bad, bad}},
        {"cut after two", "\xE2\x82", {bad}},
        {"cut after three", "\xF0\x9F\x93", {bad}},
        {"cut by a letter", "\xE2\x82z", {bad, 'z'}},
        {"cut by a lead", "\xF0\x9F\xC3\xA4", {bad, 0xE4}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.wide, to_units(row.text)) << row.name;
    }
}

TEST(PlatformText, LoneSurrogatesBecomeReplacements) {
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(bad, to_text({0xD800}));
    EXPECT_EQ(bad, to_text({0xDC00}));
    EXPECT_EQ(bad + "a", to_text({0xD800, 'a'}));
    EXPECT_EQ(bad + "\xF0\x90\x80\x80", to_text({0xD800, 0xD800, 0xDC00}));
    EXPECT_EQ(bad + bad, to_text({0xDC00, 0xD800}));
    EXPECT_EQ(bad, to_text({0x10000}));
}

TEST(PlatformText, OutputsThatAreTooSmallAreRefused) {
    const char* text = "a\xF0\x90\x80\x80";
    WCHAR wide[4] = {7, 7, 7, 7};
    EXPECT_EQ(4, MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 2));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 3));
    EXPECT_EQ(7, wide[3]);
    EXPECT_EQ(4, MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, 4));

    heap_text narrow = exact_bytes("######");
    EXPECT_EQ(6, WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr));
    for (int size = 1; size < 6; ++size) {
        EXPECT_EQ(0,
                  WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow.get(), size, nullptr, nullptr));
        EXPECT_EQ('#', narrow.get()[5]);
    }
    EXPECT_EQ(6, WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow.get(), 6, nullptr, nullptr));
    EXPECT_STREQ(text, narrow.get());
}

TEST(PlatformText, BadArgumentsAreRefused) {
    WCHAR wide[4];
    char narrow[4];
    BOOL used = 0;
    EXPECT_EQ(0, MultiByteToWideChar(1252, 0, "a", -1, wide, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, nullptr, -1, wide, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, nullptr, 4));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", -1, wide, -1));
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 4));
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, L"a", -1, narrow, 4, "?", nullptr));
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, L"a", -1, narrow, 4, nullptr, &used));
    EXPECT_EQ(nullptr, utf8_to_wide(nullptr));
    EXPECT_EQ(nullptr, wide_to_utf8(nullptr));
    WCHAR* empty = utf8_to_wide("");
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ("", take(wide_to_utf8(empty)));
    free(empty);
}

TEST(PlatformText, ComparesAsciiWithoutCase) {
    EXPECT_EQ(0, _stricmp("Content-LENGTH", "content-length"));
    EXPECT_LT(_stricmp("a", "B"), 0);
    EXPECT_GT(_stricmp("ab", "a"), 0);
    EXPECT_GT(_stricmp("\xE4", "z"), 0);
    EXPECT_NE(0, _stricmp("\xC4", "\xE4"));
    EXPECT_NE(0, _stricmp("@", "`"));
    EXPECT_EQ(0, _strnicmp("HTTPx", "httpy", 4));
    EXPECT_EQ(0, _strnicmp("a", "b", 0));
    EXPECT_EQ(0, _strnicmp("ab", "AB", 99));
    EXPECT_EQ(INT64_MAX, _atoi64("9223372036854775808"));
    EXPECT_EQ(INT64_MIN, _atoi64("-9223372036854775809"));
    EXPECT_EQ(-12, _atoi64(" -12x"));
}

TEST(PlatformText, TheTemporaryDirectoryEndsInASeparator) {
    const struct {
        const char *variable, *expected;
    } rows[] = {{nullptr, "/tmp/"},    {"", "/tmp/"},          {"relative", "/tmp/"},
                {"/var/x", "/var/x/"}, {"/var/x/", "/var/x/"}, {"/", "/"}};
    for (const auto& row : rows) {
        if (row.variable == nullptr) {
            unsetenv("TMPDIR");
        } else {
            setenv("TMPDIR", row.variable, 1);
        }
        DWORD length = static_cast<DWORD>(std::strlen(row.expected));
        units output(length + 1, 'x');
        EXPECT_EQ(length + 1, GetTempPathW(length, output.data()));
        EXPECT_EQ('x', output[0]);
        EXPECT_EQ(length, GetTempPathW(length + 1, output.data()));
        EXPECT_EQ(row.expected, take(wide_to_utf8(output.data())));
    }
    unsetenv("TMPDIR");
}

TEST(PlatformTime, ClocksGoForwards) {
    DWORD ticks = GetTickCount();
    EXPECT_NE(0u, ticks);
    EXPECT_LT(GetTickCount() - ticks, 60000u);
    LARGE_INTEGER first, second;
    ASSERT_TRUE(QueryPerformanceCounter(&first));
    ASSERT_TRUE(QueryPerformanceCounter(&second));
    EXPECT_LE(first.QuadPart, second.QuadPart);
}

TEST(PlatformTime, AdditionsAreNotLost) {
    volatile LONG counter = INT32_MAX;
    EXPECT_EQ(INT32_MAX, InterlockedExchangeAdd(&counter, 1));
    EXPECT_EQ(INT32_MIN, counter);
    counter = 1;
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&counter] {
            for (int count = 0; count < 10000; ++count) {
                InterlockedExchangeAdd(&counter, 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(40001, counter);
}

TEST(PlatformFile, BrokenDownTimeEndsWithTheYear3000) {
    __time64_t seconds = 784111777;
    const struct tm* time = _gmtime64(&seconds);
    ASSERT_NE(nullptr, time);
    EXPECT_EQ(94, time->tm_year);
    EXPECT_EQ(37, time->tm_sec);
    for (std::int64_t refused : {INT64_C(-1), INT64_C(32535216000), INT64_MAX, INT64_MIN}) {
        seconds = refused;
        EXPECT_EQ(nullptr, _gmtime64(&seconds)) << refused;
    }
    EXPECT_EQ(nullptr, _gmtime64(nullptr));
}

TEST(PlatformFile, NullPathsAreErrors) {
    struct _stat64i32 record;
    EXPECT_EQ(nullptr, _wfopen(nullptr, L"rb"));
    EXPECT_EQ(nullptr, _wfopen(L"x", nullptr));
    EXPECT_EQ(-1, _wremove(nullptr));
    EXPECT_EQ(-1, _wmkdir(nullptr));
    EXPECT_EQ(-1, _access(nullptr, 0));
    EXPECT_EQ(-1, _stat64i32(nullptr, &record));
    EXPECT_EQ(-1, _stat64i32("/", nullptr));
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
    EXPECT_EQ(0, StringFromGUID2(&buffer[0].ProviderId, text, 38));
    ASSERT_EQ(39, StringFromGUID2(&buffer[0].ProviderId, text, 39));
    EXPECT_EQ("{E70F1AA0-AB8B-11CF-8CA3-00805F48A192}", take(wide_to_utf8(text)));
    int udp[] = {IPPROTO_UDP, 0};
    EXPECT_EQ(0, WSAEnumProtocolsW(udp, buffer.data(), &size));
}

TEST_F(Catalog, SaysHowMuchRoomItNeeds) {
    std::vector<WSAPROTOCOL_INFOW> entries(30);
    for (std::size_t index = 0; index < entries.size(); ++index) {
        entries[index] = {};
        entries[index].iProtocol = index % 3 == 0 ? 99 : index % 3 == 1 ? IPPROTO_TCP : IPPROTO_UDP;
        entries[index].dwCatalogEntryId = static_cast<DWORD>(index);
        for (int unit = 0; unit < WSAPROTOCOL_LEN; ++unit) {
            entries[index].szProtocol[unit] = unit % 2 == 0 ? L'n' : 0x4E2D;
        }
    }
    platform_set_protocol_catalog(entries.data(), static_cast<int>(entries.size()));

    DWORD size = sizeof(WSAPROTOCOL_INFOA) * 20 - 1;
    std::vector<WSAPROTOCOL_INFOA> buffer(20);
    EXPECT_EQ(SOCKET_ERROR, WSAEnumProtocolsA(filter_, buffer.data(), &size));
    EXPECT_EQ(WSAENOBUFS, WSAGetLastError());
    EXPECT_EQ(sizeof(WSAPROTOCOL_INFOA) * 20, size);
    ASSERT_EQ(20, WSAEnumProtocolsA(filter_, buffer.data(), &size));
    EXPECT_EQ(1u, buffer[0].dwCatalogEntryId);
    EXPECT_EQ(29u, buffer[19].dwCatalogEntryId);
    std::string name = buffer[19].szProtocol;
    EXPECT_EQ(255u, name.size());
    EXPECT_EQ("n?n?", name.substr(0, 4));

    size = 0;
    EXPECT_EQ(SOCKET_ERROR, WSAEnumProtocolsW(nullptr, nullptr, &size));
    EXPECT_EQ(sizeof(WSAPROTOCOL_INFOW) * 30, size);
    EXPECT_EQ(SOCKET_ERROR, WSAEnumProtocolsW(nullptr, nullptr, nullptr));

    platform_fail_enum_protocols(10050);
    size = 1 << 20;
    EXPECT_EQ(SOCKET_ERROR, WSAEnumProtocolsA(filter_, buffer.data(), &size));
    EXPECT_EQ(10050, WSAGetLastError());
}

TEST(PlatformSocket, SocketsStayInThisProcess) {
    for (int family : {AF_INET, AF_INET6}) {
        SOCKET first =
            WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        ASSERT_NE(INVALID_SOCKET, first);
        EXPECT_TRUE(fcntl(first, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(0, closesocket(first));
        EXPECT_EQ(SOCKET_ERROR, closesocket(first));
        EXPECT_EQ(EBADF, WSAGetLastError());
    }
    EXPECT_EQ(INVALID_SOCKET, socket(9999, SOCK_STREAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, WSAGetLastError());
    int other = -1;
    std::thread([&other] { other = WSAGetLastError(); }).join();
    EXPECT_EQ(0, other);
}

TEST(PlatformSocket, ABrokenPipeIsAnError) {
    int result = 0, error = 0;
    std::thread([&] {
        platform_ignore_broken_pipe();
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        close(ends[1]);
        result = static_cast<int>(write(ends[0], "x", 1));
        error = errno;
        close(ends[0]);
    }).join();
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EPIPE, error);
}

}  // namespace
