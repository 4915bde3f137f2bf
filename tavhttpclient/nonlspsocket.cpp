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

enum {
    CATALOG_SIZE_W = 8192,
    CATALOG_SIZE_A = 4096,
    CATALOG_LINE = 512,
    GUID_TEXT = 64
};

// The operating system's own TCP/IP service provider.
static const GUID base_provider = {
    0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};

// The base provider's catalogue entry for the sockets of a family; searched for the first of them.
struct provider_cache {
    bool searched;
    WSAPROTOCOL_INFOW* entry;  // null: not found
};

static provider_cache cache4;
static provider_cache cache6;

// ---------------------------------------------------------------------------------- catalogue

typedef int (*enum_function)(int* filter, void* entries, DWORD* size);

static int _enum_w(int* filter, void* entries, DWORD* size) {
    return WSAEnumProtocolsW(filter, (WSAPROTOCOL_INFOW*)entries, size);
}

static int _enum_a(int* filter, void* entries, DWORD* size) {
    return WSAEnumProtocolsA(filter, (WSAPROTOCOL_INFOA*)entries, size);
}

// The TCP and UDP entries in a new array; null with the result in `*count` when that fails. `size`
// is what is tried first, in bytes.
static void* _enum_protocols(enum_function enumerate, DWORD size, int* count) {
    int filter[] = {IPPROTO_TCP, IPPROTO_UDP, 0};
    void* entries = malloc(size);
    while (entries != nullptr) {
        *count = enumerate(filter, entries, &size);
        if (*count != SOCKET_ERROR) {
            return entries;
        }
        bool too_small = WSAGetLastError() == WSAENOBUFS;
        free(entries);
        entries = too_small ? malloc(size) : nullptr;
    }
    *count = SOCKET_ERROR;
    return nullptr;
}

// Copies the base provider's entry to `output`. The IPv4 entry serves both families.
static bool _GetBaseProviderInfo(int socket_type, WSAPROTOCOL_INFOW* output) {
    int count = 0;
    bool found = false;
    WSAPROTOCOL_INFOW* entries =
        (WSAPROTOCOL_INFOW*)_enum_protocols(_enum_w, CATALOG_SIZE_W, &count);
    for (int i = 0; entries != nullptr && i < count && !found; ++i) {
        const WSAPROTOCOL_INFOW* entry = &entries[i];
        found = entry->iAddressFamily == AF_INET && entry->iSocketType == socket_type &&
                memcmp(&entry->ProviderId, &base_provider, sizeof(GUID)) == 0;
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
    StringFromGUID2(entry->ProviderId, guid, GUID_TEXT);
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
    WSAPROTOCOL_INFOA* entries =
        (WSAPROTOCOL_INFOA*)_enum_protocols(_enum_a, CATALOG_SIZE_A, &count);
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

static void _log_missing_provider(int32_t family) {
    char* listing = LogWSAProtocols();
    LOG_INFO("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=%d, type=%d, protocol=%d, "
             "Protocol List:\n%s\n",
             family, (int)SOCK_STREAM, (int)IPPROTO_TCP, listing != nullptr ? listing : "");
    free(listing);
}

static WSAPROTOCOL_INFOW* _base_provider_info(int32_t family) {
    provider_cache* cache = family == AF_INET ? &cache4 : &cache6;
    if (!cache->searched) {
        cache->searched = true;
        cache->entry = (WSAPROTOCOL_INFOW*)calloc(1, sizeof(WSAPROTOCOL_INFOW));
        if (cache->entry == nullptr || !_GetBaseProviderInfo(SOCK_STREAM, cache->entry)) {
            free(cache->entry);
            cache->entry = nullptr;
            _log_missing_provider(family);
        }
    }
    return cache->entry;
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
    struct sockaddr_storage any;
    memset(&any, 0, sizeof(any));
    any.ss_family = family == AF_INET ? AF_INET : AF_INET6;  // The rest of both is zero.
    int32_t ret = uv_tcp_bind(handle, (const struct sockaddr*)&any, 0);
    if (ret != 0) {
        LOG_INFO("uv_client_tcp_init, uv_tcp_bind fail, %s, ret=%d",
                 family == AF_INET ? "AF_INET" : "AF_INET6", ret);
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
