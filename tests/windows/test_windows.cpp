// What only Windows has: its catalogue of providers, its paths, files that somebody holds, and the
// life of a DLL.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/win_file.h"
#include "platform/win_thread.h"
#include "support/host.h"
#include "tavhttpclient/nonlspsocket.h"

namespace fs = std::filesystem;

namespace {

std::wstring wide(const std::string& text) {
    return fs::path(std::u8string(text.begin(), text.end())).wstring();
}

std::string narrow(const fs::path& path) {
    std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

struct provider_row {
    const char* name;
    std::uint8_t third_party;
    bool ipv6;
    const char* line;  // logged, or with a '!' in front not logged
};

// The first socket of a family looks for the provider, so these come first.
TEST(Provider, TheBaseProviderIsFoundAndUsed) {
    const provider_row rows[] = {
        {"base", 0, false, "!_GetBaseProviderInfo fail"},
        {"base, the family that its entry does not name", 0, true, "!_GetBaseProviderInfo fail"},
        {"whatever comes first", 1, false, "use_third_lsp, sock=0x"},
    };
    for (const provider_row& row : rows) {
        SCOPED_TRACE(row.name);
        library lib;
        log_capture log;
        tavHTTPSetUseThirdLSP(row.third_party);
        peer_options options;
        options.ipv6 = row.ipv6;
        peer server(always(response(200, "body")), options);
        transfer get(server.url());
        EXPECT_EQ("OK", get.run());
        bool wanted = row.line[0] != '!';
        EXPECT_EQ(wanted, log.has_line(row.line + (wanted ? 0 : 1)));
    }
}

TEST(Provider, TheListingShowsTheBaseEntry) {
    WSADATA data;
    ASSERT_EQ(0, WSAStartup(MAKEWORD(2, 2), &data));
    char* listing = LogWSAProtocols();
    std::string text = listing;
    free(listing);
    WSACleanup();
    EXPECT_NE(std::string::npos, text.find("SockType=1, Protocol=6, "
                                           "Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"))
        << text;
}

// Files of these names take a download, give an upload, and leave nothing beside them.
TEST(Path, EveryFormIsOpened) {
    library lib;
    work_dir dir;
    const std::string here = narrow(fs::current_path());
    ASSERT_EQ(':', here[1]);
    ASSERT_EQ(0, _wmkdir(L"sub"));
    const std::string umlaut = "\xC3\xBC \xE6\x96\x87 \xF0\x9F\x98\x80.bin";
    const std::string rows[] = {
        "plain.bin",
        "sub\\back.bin",
        "sub/forward.bin",
        here + "\\drive.bin",
        here + "/sub/mix.bin",
        here.substr(2) + "\\no drive.bin",
        umlaut,
        here + "\\sub\\" + umlaut,
        std::string(200, 'l'),
        here + "\\sub\\" + std::string(180, 'l') + ".bin",
    };
    peer server(answer_all([](const received_request& request) {
        return response(200, request.method == "POST" ? request.body : "downloaded");
    }));
    for (const std::string& path : rows) {
        SCOPED_TRACE(path);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path.c_str());
        EXPECT_EQ("OK", get.run());
        EXPECT_TRUE(fs::exists(fs::path(wide(path))));
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path.c_str());
        EXPECT_EQ("OK", post.run());
        EXPECT_EQ("downloaded", post.body());
        EXPECT_TRUE(fs::remove(fs::path(wide(path))));
    }
    EXPECT_EQ("", dir.names());
}

TEST(Path, DevicesAreNeitherReadNorWritten) {
    library lib;
    work_dir dir;
    peer server(always(response(200, "body")));
    for (const char* path : {"NUL", "nul.txt", "\\\\.\\NUL"}) {
        SCOPED_TRACE(path);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path);
        EXPECT_EQ("FAIL_OPEN_RESPONSE_FILE", get.run());
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path);
        EXPECT_EQ("FAIL_OPEN_UPLOAD_FILE", post.run());
    }
    EXPECT_EQ("", dir.names());
}

TEST(Path, AFileOfTheLibrarysChoosingIsInTheTemporaryDirectory) {
    WCHAR expected[MAX_PATH + 1];
    ASSERT_NE(0u, GetTempPathW(MAX_PATH + 1, expected));
    library lib;
    peer server(always(response(200, "body")));
    transfer get(server.url("/name.ext"));
    get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1);
    EXPECT_EQ("OK", get.run());
    fs::path file = wide(get.text(TAV_HTTP_QUERY_FILE_PATH));
    EXPECT_EQ(fs::path(expected), file.parent_path() / "");
    EXPECT_EQ("body", read_file(narrow(file)));
    fs::remove(file);
}

TEST(Path, DirectoriesAreMadeAsFarAsTheyAreMissing) {
    library lib;
    work_dir dir;
    const std::string here = narrow(fs::current_path());
    for (const std::string& path : {std::string("one\\two/three"), here + "\\one\\four"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(0u, tavHTTPSetDownloadDirectory(path.c_str()));
        EXPECT_TRUE(fs::is_directory(fs::path(wide(path))));
    }
    write_file("file", "");
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY},
              tavHTTPSetDownloadDirectory("file\\below"));
}

// Lets others do what `sharing` says until its end. The system asks nobody which process it is.
struct held_file {
    held_file(const char* path, DWORD sharing)
        : file(CreateFileW(wide(path).c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING, 0,
                           nullptr)) {
        EXPECT_NE(INVALID_HANDLE_VALUE, file);
    }
    ~held_file() {
        CloseHandle(file);
    }
    HANDLE file;
};

// Under Wine root may write what is read-only.
bool refuses_writers(const char* path) {
    SetFileAttributesW(wide(path).c_str(), FILE_ATTRIBUTE_READONLY);
    FILE* file = platform_fopen(wide(path).c_str(), "r+b");
    if (file != nullptr) {
        fclose(file);
    }
    return file == nullptr;
}

struct taken_row {
    const char* name;
    DWORD sharing;  // of the handle that somebody has; read_only: none, and a read-only file
    std::uint32_t resume;
    const char* code;
};
const DWORD read_only = ~0u;

// The old file stays as it was, whoever wins; no temporary file is left.
TEST(TakenTarget, KeepsItsContent) {
    const taken_row rows[] = {
        {"held", 0, 0, "FAIL_WRITE_RESPONSE_FILE"},
        {"held, resumed", 0, 1, "FAIL_OPEN_RESPONSE_FILE"},
        {"read by somebody", FILE_SHARE_READ | FILE_SHARE_WRITE, 0, "FAIL_WRITE_RESPONSE_FILE"},
        {"read-only, resumed", read_only, 1, "FAIL_OPEN_RESPONSE_FILE"},
    };
    library lib;
    peer server(always(response(200, "new")));
    for (const taken_row& row : rows) {
        SCOPED_TRACE(row.name);
        work_dir dir;
        write_file("target", "old");
        if (row.sharing == read_only && !refuses_writers("target")) {
            continue;
        }
        {
            std::unique_ptr<held_file> held(
                row.sharing != read_only ? new held_file("target", row.sharing) : nullptr);
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "target");
            get.set(TAV_HTTP_OPTION_RESUME, row.resume);
            EXPECT_EQ(row.code, get.run());
        }
        SetFileAttributesW(L"target", FILE_ATTRIBUTE_NORMAL);
        EXPECT_EQ("target", dir.names());
        EXPECT_EQ("old", read_file("target"));
    }
}

TEST(TakenTarget, WhatIsReadOnlyIsReplaced) {
    library lib;
    work_dir dir;
    peer server(always(response(200, "new")));
    write_file("target", "old");
    ASSERT_TRUE(SetFileAttributesW(L"target", FILE_ATTRIBUTE_READONLY));
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "target");
    EXPECT_EQ("OK", get.run());
    EXPECT_EQ("new", read_file("target"));
}

TEST(Clock, TicksAndCountsGoOn) {
    DWORD tick = GetTickCount();
    LARGE_INTEGER count, later;
    ASSERT_TRUE(QueryPerformanceCounter(&count));
    EXPECT_TRUE(wait_until([tick] { return GetTickCount() - tick - 1 < 1000000; }));
    ASSERT_TRUE(QueryPerformanceCounter(&later));
    EXPECT_LT(count.QuadPart, later.QuadPart);
}

// ---------------------------------------------------------------------------- the DLL's life

std::wstring beside(const wchar_t* name) {
    WCHAR own[4096];
    GetModuleFileNameW(nullptr, own, 4096);
    return (fs::path(own).parent_path() / name).wstring();
}

template <typename function> function symbol(HMODULE module, const char* name) {
    return reinterpret_cast<function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

struct loaded {
    HMODULE module = LoadLibraryW(beside(L"tavhttpclient.dll").c_str());
    std::uint32_t (*startup)() = symbol<std::uint32_t (*)()>(module, "tavHTTPStartup");
    std::uint32_t (*shutdown)() = symbol<std::uint32_t (*)()>(module, "tavHTTPShutdown");
    decltype(&tavHTTPOpen) open = symbol<decltype(&tavHTTPOpen)>(module, "tavHTTPOpen");
    decltype(&tavHTTPSendRequest) send =
        symbol<decltype(&tavHTTPSendRequest)>(module, "tavHTTPSendRequest");
    decltype(&tavHTTPClose) close = symbol<decltype(&tavHTTPClose)>(module, "tavHTTPClose");
};

std::atomic<std::uint32_t> completed{~0u};

void keep_code(http_session*, void*, std::uint32_t code) {
    completed = code;
}

void load_and_unload(const std::string& url) {
    loaded dll;
    ASSERT_NE(nullptr, dll.module);
    ASSERT_EQ(0u, dll.startup());
    completed = ~0u;
    http_session* session = dll.open(TAV_HTTP_METHOD_GET, url.c_str(), nullptr, nullptr, keep_code);
    EXPECT_EQ(0u, dll.send(session));
    EXPECT_TRUE(wait_until([] { return completed != ~0u; }));
    EXPECT_EQ(0u, completed.load());
    dll.close(session);
    dll.shutdown();
    EXPECT_TRUE(FreeLibrary(dll.module));
}

TEST(Dll, UnusedItGoesWithItsLastUser) {
    for (int i = 0; i < 3; i++) {
        HMODULE module = LoadLibraryW(beside(L"tavhttpclient.dll").c_str());
        ASSERT_NE(nullptr, module);
        EXPECT_TRUE(FreeLibrary(module));
        EXPECT_EQ(nullptr, GetModuleHandleW(L"tavhttpclient.dll"));
    }
}

// What the first use makes is used by the next: main.cpp looks at the handles, threads are handles
// of libuv's.
TEST(Dll, UsedItStaysAndEachUseLeavesNothing) {
    peer server(always(response(200, "body")));
    load_and_unload(server.url());
    EXPECT_NE(nullptr, GetModuleHandleW(L"tavhttpclient.dll"));
    resources before = count_resources();
    for (int i = 0; i < 10; i++) {
        load_and_unload(server.url());
    }
    EXPECT_TRUE(
        wait_until([&] { return count_resources().descriptors <= before.descriptors + 1; }));
}

// Run in a process of its own by the next test.
TEST(Dll, DISABLED_ExitsWhileATransferWaits) {
    loaded dll;
    ASSERT_EQ(0u, dll.startup());
    peer server(script{expect_request(), stall()});
    http_session* session = dll.open(TAV_HTTP_METHOD_GET, server.url("/", "https").c_str(), nullptr,
                                     nullptr, keep_code);
    ASSERT_EQ(0u, dll.send(session));
    ASSERT_TRUE(server.wait_for_connections(1));
    ExitProcess(7);
}

TEST(Dll, AProcessMayEndWithoutShutDown) {
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION process;
    std::wstring command = L"\"" + beside(L"test_windows.exe") +
                           L"\" --gtest_also_run_disabled_tests --gtest_filter=*ExitsWhile*";
    ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &start, &process));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process.hProcess, 60000));
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    EXPECT_EQ(7u, code);
    TerminateProcess(process.hProcess, 1);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
}

}  // namespace
