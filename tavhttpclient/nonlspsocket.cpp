// A socket on the base TCP/IP provider, handed to libuv:
//
//   uv_client_tcp_init -> _create_client_socket -> CreateNonLSPSocket -> _GetBaseProviderInfo
//     -> uv_tcp_init -> uv_tcp_open -> uv_tcp_bind
#include "tavhttpclient/nonlspsocket.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/log.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/util.h"

#define CATALOG_SIZE_W 8192
#define CATALOG_SIZE_A 4096
#define CATALOG_LINE 512
#define GUID_TEXT 64

// Cache content after a search without result; no entry lives at this address.
#define NO_PROVIDER ((WSAPROTOCOL_INFOW*)(intptr_t)-1)

// The operating system's own TCP/IP service provider.
static const GUID _base_provider = {
    0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};

// The base provider's catalogue entry per family: null before the first socket, then a heap copy or
// NO_PROVIDER for the rest of the process.
static WSAPROTOCOL_INFOW* _provider4 = nullptr;
static WSAPROTOCOL_INFOW* _provider6 = nullptr;

// ---------------------------------------------------------------------------------- catalogue

// The TCP and UDP entries in a new array; null with the result in `*count` when that fails.
static WSAPROTOCOL_INFOW* _enum_protocols_w(int* count) {
    int filter[] = {IPPROTO_TCP, IPPROTO_UDP, 0};
    DWORD size = CATALOG_SIZE_W;
    WSAPROTOCOL_INFOW* entries = (WSAPROTOCOL_INFOW*)malloc(size);
    while (entries != nullptr) {
        *count = WSAEnumProtocolsW(filter, entries, &size);
        if (*count != SOCKET_ERROR) {
            return entries;
        }
        bool too_small = WSAGetLastError() == WSAENOBUFS;
        free(entries);
        entries = too_small ? (WSAPROTOCOL_INFOW*)malloc(size) : nullptr;
    }
    *count = SOCKET_ERROR;
    return nullptr;
}

static WSAPROTOCOL_INFOA* _enum_protocols_a(int* count) {
    int filter[] = {IPPROTO_TCP, IPPROTO_UDP, 0};
    DWORD size = CATALOG_SIZE_A;
    WSAPROTOCOL_INFOA* entries = (WSAPROTOCOL_INFOA*)malloc(size);
    while (entries != nullptr) {
        *count = WSAEnumProtocolsA(filter, entries, &size);
        if (*count != SOCKET_ERROR) {
            return entries;
        }
        bool too_small = WSAGetLastError() == WSAENOBUFS;
        free(entries);
        entries = too_small ? (WSAPROTOCOL_INFOA*)malloc(size) : nullptr;
    }
    *count = SOCKET_ERROR;
    return nullptr;
}

// Copies the base provider's entry to `output`. The IPv4 entry serves both families.
static bool _GetBaseProviderInfo(int socket_type, WSAPROTOCOL_INFOW* output) {
    int count = 0;
    bool found = false;
    WSAPROTOCOL_INFOW* entries = _enum_protocols_w(&count);
    for (int i = 0; entries != nullptr && i < count && !found; ++i) {
        const WSAPROTOCOL_INFOW* entry = &entries[i];
        found = entry->iAddressFamily == AF_INET && entry->iSocketType == socket_type &&
                memcmp(&entry->ProviderId, &_base_provider, sizeof(GUID)) == 0;
        if (found) {
            *output = *entry;
        }
    }
    free(entries);
    return found;
}

static void _append_protocol_line(text_buffer* listing, const WSAPROTOCOL_INFOA* entry) {
    WCHAR guid[GUID_TEXT];
    char line[CATALOG_LINE];
    memset(guid, 0, sizeof(guid));
    StringFromGUID2(&entry->ProviderId, guid, GUID_TEXT);
    string_printf_bounded(line, CATALOG_LINE,
                          "EntryId=%d, Name=%s, ChainLen=%d, Version=%d, AF=%d, SockType=%d, "
                          "Protocol=%d, Guid=%S\n",
                          (int)entry->dwCatalogEntryId, entry->szProtocol,
                          entry->ProtocolChain.ChainLen, entry->iVersion, entry->iAddressFamily,
                          entry->iSocketType, entry->iProtocol, guid);
    text_buffer_append(listing, line, (uint32_t)strlen(line));
}

char* LogWSAProtocols(void) {
    text_buffer listing = {nullptr, 0, 0};
    int count = 0;
    WSAPROTOCOL_INFOA* entries = _enum_protocols_a(&count);
    if (entries == nullptr) {
        LOG_INFO("LogWSAProtocols, WSAEnumProtocolsA fail, ret=%d, err=%d", count,
                 WSAGetLastError());
        return string_dup("");
    }
    for (int i = 0; i < count; ++i) {
        if (entries[i].iAddressFamily == AF_INET) {
            _append_protocol_line(&listing, &entries[i]);
        }
    }
    free(entries);
    char* text = string_dup_n(listing.data != nullptr ? listing.data : "", listing.length);
    text_buffer_release(&listing);
    return text;
}

// ------------------------------------------------------------------------------------ sockets

// The family's cached entry, or null; searches the catalogue for the first socket of the family.
static WSAPROTOCOL_INFOW* _base_provider_info(int32_t family) {
    WSAPROTOCOL_INFOW** cache = family == AF_INET ? &_provider4 : &_provider6;
    if (*cache == nullptr) {
        WSAPROTOCOL_INFOW* copy = (WSAPROTOCOL_INFOW*)calloc(1, sizeof(WSAPROTOCOL_INFOW));
        *cache = copy;
        if (copy == nullptr || !_GetBaseProviderInfo(SOCK_STREAM, copy)) {
            free(copy);
            *cache = NO_PROVIDER;
            char* listing = LogWSAProtocols();
            LOG_INFO("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=%d, type=%d, protocol=%d, "
                     "Protocol List:\n%s\n",
                     family, (int)SOCK_STREAM, (int)IPPROTO_TCP, listing != nullptr ? listing : "");
            free(listing);
        }
    }
    return *cache == NO_PROVIDER ? nullptr : *cache;
}

static SOCKET _plain_socket(int32_t family, int protocol) {
    SOCKET sock = socket(family, SOCK_STREAM, protocol);
    if (sock == INVALID_SOCKET) {
        LOG_INFO("CreateNonLSPSocket, socket fail, af=%d, type=%d, protocol=%d, err=%d", family,
                 (int)SOCK_STREAM, protocol, WSAGetLastError());
    }
    return sock;
}

SOCKET CreateNonLSPSocket(int32_t family) {
    if (!LOG_ASSERT(family == AF_INET || family == AF_INET6)) {
        return INVALID_SOCKET;
    }
    WSAPROTOCOL_INFOW* info = _base_provider_info(family);
    SOCKET sock = WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, info, 0, WSA_FLAG_OVERLAPPED);
    if (sock != INVALID_SOCKET) {
        return sock;
    }
    LOG_INFO("CreateNonLSPSocket, WSASocket fail, af=%d, type=%d, protocol=%d, info=0x%p, err=%d",
             family, (int)SOCK_STREAM, (int)IPPROTO_TCP, (void*)info, WSAGetLastError());
    sock = _plain_socket(family, IPPROTO_TCP);
    return sock != INVALID_SOCKET ? sock : _plain_socket(family, 0);
}

static SOCKET _create_client_socket(int32_t family) {
    if (!get_use_third_lsp()) {
        return CreateNonLSPSocket(family);
    }
    SOCKET sock = socket(family, SOCK_STREAM, IPPROTO_TCP);
    LOG_INFO("uv_client_tcp_init, use_third_lsp, sock=0x%p, err=%d.", (void*)(intptr_t)sock, errno);
    return sock;
}

static void _close_socket(SOCKET sock) {
    if (sock != INVALID_SOCKET) {
        closesocket(sock);
    }
}

static int32_t _bind_any_address(uv_tcp_t* handle, int32_t family) {
    struct sockaddr_in any4;
    struct sockaddr_in6 any6;
    int32_t ret = 0;
    if (family == AF_INET) {
        uv_ip4_addr("0.0.0.0", 0, &any4);
        ret = uv_tcp_bind(handle, (const struct sockaddr*)&any4, 0);
        if (ret != 0) {
            LOG_INFO("uv_client_tcp_init, uv_tcp_bind fail, AF_INET, ret=%d", ret);
        }
        return ret;
    }
    uv_ip6_addr("::", 0, &any6);
    ret = uv_tcp_bind(handle, (const struct sockaddr*)&any6, 0);
    if (ret != 0) {
        LOG_INFO("uv_client_tcp_init, uv_tcp_bind fail, AF_INET6, ret=%d", ret);
    }
    return ret;
}

int32_t uv_client_tcp_init(uv_loop_t* loop, uv_tcp_t* handle, int32_t family, bool* initialised) {
    *initialised = false;
    if (!LOG_ASSERT(loop != nullptr && handle != nullptr)) {
        return -1;
    }
    if (!LOG_ASSERT(family == AF_INET || family == AF_INET6)) {
        return -1;
    }
    SOCKET sock = _create_client_socket(family);
    int32_t ret = uv_tcp_init(loop, handle);
    if (ret != 0) {
        LOG_INFO("uv_client_tcp_init, uv_tcp_init fail, ret=%d", ret);
        _close_socket(sock);
        return ret;
    }
    *initialised = true;
    ret = uv_tcp_open(handle, sock);
    if (ret != 0) {
        LOG_INFO("uv_client_tcp_init, uv_tcp_open fail, ret=%d", ret);
        _close_socket(sock);
        return ret;
    }
    // From here on the socket belongs to the handle: the caller's uv_close closes it, and closing
    // it here as well could hit a descriptor that another thread has just been given. Small
    // requests must not wait for the peer's delayed acknowledgements; without it all still works.
    uv_tcp_nodelay(handle, 1);
    return _bind_any_address(handle, family);
}
