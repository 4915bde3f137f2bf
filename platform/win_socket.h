// Winsock under its own names: on Windows the system's headers, elsewhere stand-ins.
#ifndef PLATFORM_WIN_SOCKET_H
#define PLATFORM_WIN_SOCKET_H

#include "platform/win_text.h"

#if defined(_WIN32)
#include <ws2tcpip.h>

// As <objbase.h> declares it, which brings all of COM and common names with it.
extern "C" __declspec(dllimport) int __stdcall StringFromGUID2(const GUID& guid, WCHAR* output,
                                                               int size);

// Writes to a closed connection end in an error code.
inline void platform_ignore_broken_pipe(void) {
}
// Sockets and files are no descriptors of one table.
inline void platform_fill_standard_descriptors(void) {
}
#else

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/types.h>

typedef int SOCKET;
#define INVALID_SOCKET ((SOCKET)-1)
#define SOCKET_ERROR (-1)
#define WSA_FLAG_OVERLAPPED 0x01
#define WSAENOBUFS 10055
#define MAX_PROTOCOL_CHAIN 7
#define WSAPROTOCOL_LEN 255

typedef struct {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID;

typedef struct {
    int ChainLen;
    DWORD ChainEntries[MAX_PROTOCOL_CHAIN];
} WSAPROTOCOLCHAIN;

typedef struct {
    DWORD dwServiceFlags1, dwServiceFlags2, dwServiceFlags3, dwServiceFlags4;
    DWORD dwProviderFlags;
    GUID ProviderId;
    DWORD dwCatalogEntryId;
    WSAPROTOCOLCHAIN ProtocolChain;
    int iVersion;
    int iAddressFamily;
    int iMaxSockAddr;
    int iMinSockAddr;
    int iSocketType;
    int iProtocol;
    int iProtocolMaxOffset;
    int iNetworkByteOrder;
    int iSecurityScheme;
    DWORD dwMessageSize;
    DWORD dwProviderReserved;
    WCHAR szProtocol[WSAPROTOCOL_LEN + 1];
} WSAPROTOCOL_INFOW;

typedef struct {
    DWORD dwServiceFlags1, dwServiceFlags2, dwServiceFlags3, dwServiceFlags4;
    DWORD dwProviderFlags;
    GUID ProviderId;
    DWORD dwCatalogEntryId;
    WSAPROTOCOLCHAIN ProtocolChain;
    int iVersion;
    int iAddressFamily;
    int iMaxSockAddr;
    int iMinSockAddr;
    int iSocketType;
    int iProtocol;
    int iProtocolMaxOffset;
    int iNetworkByteOrder;
    int iSecurityScheme;
    DWORD dwMessageSize;
    DWORD dwProviderReserved;
    char szProtocol[WSAPROTOCOL_LEN + 1];
} WSAPROTOCOL_INFOA;

// Catalogue entries whose protocol is in the zero-terminated list `protocols` (null: all). Too
// small a buffer: SOCKET_ERROR, WSAGetLastError() == WSAENOBUFS, *size set to the bytes needed.
int WSAEnumProtocolsW(int* protocols, WSAPROTOCOL_INFOW* buffer, DWORD* size);
int WSAEnumProtocolsA(int* protocols, WSAPROTOCOL_INFOA* buffer, DWORD* size);
// As socket(); sockets are not inherited by child processes.
SOCKET WSASocketW(int family, int type, int protocol, WSAPROTOCOL_INFOW* info, uint32_t group,
                  DWORD flags);
SOCKET platform_socket(int family, int type, int protocol);
#define socket(family, type, protocol) platform_socket(family, type, protocol)
int closesocket(SOCKET sock);
// As ioctl(). FIONREAD: the bytes that can be read at once.
int ioctlsocket(SOCKET sock, long command, u_long* argument);
int WSAGetLastError(void);
// "{E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"; characters written with the zero, 0 when too small.
int StringFromGUID2(const GUID& guid, WCHAR* output, int size);

// A write to a connection that the peer has closed must end in an error code, not in a signal that
// kills the host. Called once on the thread that writes to sockets.
void platform_ignore_broken_pipe(void);
// Makes descriptors 0 to 2 valid where the host has closed them, so that nothing opened from here
// on gets one of them, and what the host prints does not end up in it. They stay: by the time of a
// stop they may be the host's own again. Nothing to do on Windows.
void platform_fill_standard_descriptors(void);

// For tests: the catalogue that the enumeration shows from now on (not copied; null: the one base
// TCP/IP entry of this machine), and what WSAGetLastError() an enumeration fails with (0: none).
void platform_set_protocol_catalog(const WSAPROTOCOL_INFOW* entries, int count);
void platform_fail_enum_protocols(int error);

#endif
#endif
