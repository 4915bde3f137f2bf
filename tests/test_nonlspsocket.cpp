// Sockets on the base provider, and the search for it in the catalogue. What a search finds stays
// for the life of the process: each test has one of its own.
#include "tavhttpclient/nonlspsocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tavhttpclient/uvhandle.h"
#include "tavhttpclient/uvhelper.h"
#include "tests/support/fake_system.h"
#include "tests/support/host.h"

namespace {

const GUID base = {0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
const GUID other = {0x11223344, 0, 0, {}};

WSAPROTOCOL_INFOW entry(DWORD id, int family, int type, int protocol, const GUID& provider) {
    WSAPROTOCOL_INFOW made{};
    made.dwCatalogEntryId = id;
    made.iAddressFamily = family;
    made.iSocketType = type;
    made.iProtocol = protocol;
    made.iVersion = 2;
    made.ProtocolChain.ChainLen = 1;
    made.ProviderId = provider;
    wcscpy(made.szProtocol, L"name");
    return made;
}

// Makes a client handle of the family and gives it up again; returns the result. `before_close`
// runs once the handle is made.
std::int32_t make_client(
    std::int32_t family, const std::function<void()>& before_close = [] {}) {
    std::int32_t result = -2;
    on_loop([&] {
        auto* handle = static_cast<uv_tcp_t*>(calloc(1, sizeof(uv_tcp_t)));
        bool initialised = false;
        result = uv_client_tcp_init(get_uv_loop(), handle, family, &initialised);
        before_close();
        if (initialised) {
            close_uv_tcp(&handle);
        }
        free(handle);
    });
    return result;
}

constexpr const char* search_failed = "CreateNonLSPSocket, _GetBaseProviderInfo fail";

TEST(NonLspSocket, ACatalogueWithoutTheBaseEntryIsListedOnceAndSocketsStillWork) {
    WSAPROTOCOL_INFOW catalogue[] = {
        entry(7, AF_INET, SOCK_STREAM, IPPROTO_TCP, other),
        entry(8, AF_INET, SOCK_DGRAM, IPPROTO_UDP, base),
        entry(9, AF_INET6, SOCK_STREAM, IPPROTO_TCP, base),
        entry(10, AF_INET, SOCK_RAW, IPPROTO_ICMP, other),
    };
    platform_set_protocol_catalog(catalogue, 4);
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(1u, log.count(search_failed, 2000));
    EXPECT_EQ(
        1u, log.count("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=2, type=1, protocol=6, "
                      "Protocol List:\n"
                      "EntryId=7, Name=name, ChainLen=1, Version=2, AF=2, SockType=1, Protocol=6, "
                      "Guid={11223344-0000-0000-0000-000000000000}\n"
                      "EntryId=8, Name=name, ChainLen=1, Version=2, AF=2, SockType=2, Protocol=17, "
                      "Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}\n\n"));
    // The other family searches for itself, and the result is kept too.
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(2u, log.count(search_failed, 2000));
}

TEST(NonLspSocket, AnEmptyCatalogueAndAFailingEnumerationAreSurvived) {
    WSAPROTOCOL_INFOW none{};
    platform_set_protocol_catalog(&none, 0);
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(1u, log.count("Protocol List:\n\n", 2000));
    platform_fail_enum_protocols(10050);
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_TRUE(log.has_line("LogWSAProtocols, WSAEnumProtocolsA fail, ret=-1, err=10050", 2000));
    EXPECT_EQ(2u, log.count(search_failed, 2000));
}

TEST(NonLspSocket, ACatalogueLargerThanTheFirstBufferIsReadToItsEnd) {
    std::vector<WSAPROTOCOL_INFOW> catalogue(100,
                                             entry(5, AF_INET, SOCK_STREAM, IPPROTO_TCP, other));
    ASSERT_GT(catalogue.size() * sizeof(catalogue[0]), 8192u * 4);
    catalogue.push_back(entry(6, AF_INET, SOCK_STREAM, IPPROTO_TCP, base));
    platform_set_protocol_catalog(catalogue.data(), static_cast<int>(catalogue.size()));
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(0u, log.count(search_failed));
    char* listing = LogWSAProtocols();
    EXPECT_EQ(101, std::count(listing, listing + strlen(listing), '\n'));
    free(listing);
}

TEST(NonLspSocket, TheSwitchIsReadForEverySocketAndPassesTheCatalogueBy) {
    WSAPROTOCOL_INFOW none{};
    platform_set_protocol_catalog(&none, 0);
    library lib;
    log_capture log;
    tavHTTPSetUseThirdLSP(1);
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(0, make_client(AF_INET6));
    EXPECT_EQ(2u, log.count("uv_client_tcp_init, use_third_lsp, sock=0x", 2000));
    EXPECT_EQ(0u, log.count(search_failed));
    tavHTTPSetUseThirdLSP(0);
    EXPECT_EQ(0, make_client(AF_INET));
    EXPECT_EQ(2u, log.count("use_third_lsp"));
    EXPECT_EQ(1u, log.count(search_failed));
    EXPECT_EQ(-1, make_client(AF_UNIX));
    on_loop([] { EXPECT_EQ(INVALID_SOCKET, CreateNonLSPSocket(AF_UNIX)); });
    EXPECT_EQ(1u, log.count("function=uv_client_tcp_init", 1000));
    EXPECT_EQ(1u, log.count("function=CreateNonLSPSocket", 1000));
}

TEST(NonLspSocket, AFailedStepClosesItsSocketExactlyOnce) {
    const struct {
        std::atomic<int>* error;
        const char* line;
    } rows[] = {
        {&fakes().open_error, "uv_client_tcp_init, uv_tcp_open fail, ret="},
        {&fakes().bind_error, "uv_client_tcp_init, uv_tcp_bind fail, AF_INET, ret="},
    };
    library lib;
    log_capture log;
    EXPECT_EQ(0, make_client(AF_INET));
    descriptor_guard descriptors;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        *row.error = UV_EINVAL;
        int bystander = -1;
        // Takes the number of a socket that was closed already; a second close would hit it.
        EXPECT_EQ(UV_EINVAL,
                  make_client(AF_INET, [&] { bystander = open("/dev/null", O_RDONLY); }));
        on_loop([] {});
        EXPECT_NE(-1, fcntl(bystander, F_GETFD));
        close(bystander);
        EXPECT_EQ(1u, log.count(row.line, 2000));
        EXPECT_TRUE(descriptors.back_to_start());
        *row.error = 0;
    }
}

}  // namespace
