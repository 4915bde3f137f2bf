// Files as the library opens them, on Windows.
#include <errno.h>
#include <fcntl.h>
#include <share.h>
#include <string.h>

#include "platform/win_file.h"

static int _open_flags(const char* mode) {
    int flags = strchr(mode, '+') != nullptr ? _O_RDWR : (mode[0] == 'r' ? _O_RDONLY : _O_WRONLY);
    if (mode[0] != 'r') {
        flags |= _O_CREAT | (strchr(mode, 'x') != nullptr ? _O_EXCL : _O_TRUNC);
    }
    return flags | _O_BINARY | _O_NOINHERIT;
}

static bool _is_disk_file(int descriptor) {
    return GetFileType((HANDLE)_get_osfhandle(descriptor)) == FILE_TYPE_DISK;
}

FILE* platform_fopen(const WCHAR* path, const char* mode) {
    int descriptor = _wsopen(path, _open_flags(mode), _SH_DENYNO, _S_IREAD | _S_IWRITE);
    if (descriptor < 0) {
        return nullptr;
    }
    if (!_is_disk_file(descriptor)) {
        _close(descriptor);
        errno = EINVAL;
        return nullptr;
    }
    // The runtime's own streams know no "x".
    FILE* file =
        _fdopen(descriptor, strchr(mode, '+') == nullptr ? (mode[0] == 'r' ? "rb" : "wb") : "r+b");
    if (file == nullptr) {
        _close(descriptor);
        errno = ENOMEM;
    }
    return file;
}

bool platform_is_special_file(const WCHAR* path) {
    HANDLE file = CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    bool special = GetFileType(file) != FILE_TYPE_DISK;
    CloseHandle(file);
    return special;
}

void platform_turn_separators(char* path) {
    (void)path;  // Both kinds separate.
}
