// Sockets, and a catalogue of service providers for a system that has none: one base TCP/IP entry,
// or what a test puts in its place.
#include "platform/win_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#undef socket

#define WSAEFAULT 10014

static thread_local int last_error;

// Changed by tests only, while nothing else uses sockets.
static const WSAPROTOCOL_INFOW* catalog;
static int catalog_count;
static int enum_error;

// Function-local data would need a guard; a fill at each use is cheap enough.
static void _fill_base_entry(WSAPROTOCOL_INFOW* entry) {
    static const GUID provider = {
        0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
    memset(entry, 0, sizeof(*entry));
    entry->dwServiceFlags1 = 0x20066;  // Ordered, reliable, graceful close, real handles.
    entry->dwProviderFlags = 0x8;      // Also serves protocol 0.
    entry->ProviderId = provider;
    entry->dwCatalogEntryId = 1001;
    entry->ProtocolChain.ChainLen = 1;
    entry->iVersion = 2;
    entry->iAddressFamily = AF_INET;
    entry->iMaxSockAddr = (int)sizeof(struct sockaddr_in);
    entry->iMinSockAddr = (int)sizeof(struct sockaddr_in);
    entry->iSocketType = SOCK_STREAM;
    entry->iProtocol = IPPROTO_TCP;
    wcscpy(entry->szProtocol, L"Tcpip [TCP/IP]");
}

static bool _is_wanted(const int* protocols, int protocol) {
    if (protocols == nullptr) {
        return true;
    }
    for (; *protocols != 0; ++protocols) {
        if (*protocols == protocol) {
            return true;
        }
    }
    return false;
}

// Number of wanted entries, all of which fit in the buffer; or SOCKET_ERROR.
static int _begin_enumeration(const WSAPROTOCOL_INFOW* entries, int count, const int* protocols,
                              const void* buffer, DWORD entry_size, DWORD* size) {
    if (enum_error != 0 || size == nullptr) {
        last_error = size == nullptr ? WSAEFAULT : enum_error;
        return SOCKET_ERROR;
    }
    int wanted = 0;
    for (int index = 0; index < count; ++index) {
        wanted += _is_wanted(protocols, entries[index].iProtocol) ? 1 : 0;
    }
    DWORD needed = (DWORD)wanted * entry_size;
    if (*size < needed || (buffer == nullptr && needed != 0)) {
        *size = needed;
        last_error = WSAENOBUFS;
        return SOCKET_ERROR;
    }
    return wanted;
}

int WSAEnumProtocolsW(int* protocols, WSAPROTOCOL_INFOW* buffer, DWORD* size) {
    WSAPROTOCOL_INFOW base;
    _fill_base_entry(&base);
    const WSAPROTOCOL_INFOW* entries = catalog != nullptr ? catalog : &base;
    int count = catalog != nullptr ? catalog_count : 1;
    int wanted =
        _begin_enumeration(entries, count, protocols, buffer, (DWORD)sizeof(*buffer), size);
    for (int index = 0; wanted > 0 && index < count; ++index) {
        if (_is_wanted(protocols, entries[index].iProtocol)) {
            *buffer++ = entries[index];
        }
    }
    return wanted;
}

// The records differ in their last field only.
static void _narrow_entry(const WSAPROTOCOL_INFOW* wide, WSAPROTOCOL_INFOA* narrow) {
    static_assert(offsetof(WSAPROTOCOL_INFOW, szProtocol) ==
                      offsetof(WSAPROTOCOL_INFOA, szProtocol),
                  "same fields before the name");
    memset(narrow, 0, sizeof(*narrow));
    memcpy(narrow, wide, offsetof(WSAPROTOCOL_INFOA, szProtocol));
    for (int index = 0; index < WSAPROTOCOL_LEN && wide->szProtocol[index] != 0; ++index) {
        WCHAR unit = wide->szProtocol[index];
        narrow->szProtocol[index] = unit > 0 && unit < 0x80 ? (char)unit : '?';
    }
}

int WSAEnumProtocolsA(int* protocols, WSAPROTOCOL_INFOA* buffer, DWORD* size) {
    WSAPROTOCOL_INFOW base;
    _fill_base_entry(&base);
    const WSAPROTOCOL_INFOW* entries = catalog != nullptr ? catalog : &base;
    int count = catalog != nullptr ? catalog_count : 1;
    int wanted =
        _begin_enumeration(entries, count, protocols, buffer, (DWORD)sizeof(*buffer), size);
    for (int index = 0; wanted > 0 && index < count; ++index) {
        if (_is_wanted(protocols, entries[index].iProtocol)) {
            _narrow_entry(&entries[index], buffer++);
        }
    }
    return wanted;
}

SOCKET platform_socket(int family, int type, int protocol) {
    SOCKET sock = socket(family, type | SOCK_CLOEXEC, protocol);
    if (sock == INVALID_SOCKET) {
        last_error = errno;
    }
    return sock;
}

SOCKET WSASocketW(int family, int type, int protocol, WSAPROTOCOL_INFOW* info, uint32_t group,
                  DWORD flags) {
    // There is one provider per family here, so the choice changes nothing.
    (void)info;
    (void)group;
    (void)flags;
    return platform_socket(family, type, protocol);
}

int closesocket(SOCKET sock) {
    if (close(sock) != 0) {
        last_error = errno;
        return SOCKET_ERROR;
    }
    return 0;
}

int ioctlsocket(SOCKET sock, long command, u_long* argument) {
    int value = (int)*argument;
    if (ioctl(sock, (unsigned long)command, &value) != 0) {
        last_error = errno;
        return SOCKET_ERROR;
    }
    *argument = (u_long)value;
    return 0;
}

int WSAGetLastError(void) {
    return last_error;
}

int StringFromGUID2(const GUID& guid, WCHAR* output, int size) {
    const int needed = 39;
    if (output == nullptr || size < needed) {
        return 0;
    }
    const uint8_t* tail = guid.Data4;
    char text[needed];
    snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1,
             guid.Data2, guid.Data3, tail[0], tail[1], tail[2], tail[3], tail[4], tail[5], tail[6],
             tail[7]);
    for (int index = 0; index < needed; ++index) {
        output[index] = (WCHAR)text[index];
    }
    return needed;
}

void platform_ignore_broken_pipe(void) {
    // The signal goes to the thread that writes, so the host's own handling stays as it is.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void platform_fill_standard_descriptors(void) {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDWR);  // The lowest that is free.
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

void platform_set_protocol_catalog(const WSAPROTOCOL_INFOW* entries, int count) {
    catalog = entries;
    catalog_count = count;
}

void platform_fail_enum_protocols(int error) {
    enum_error = error;
}
