// File calls with UTF-16 paths and 64-bit positions. Where the systems differ, errors and outcomes
// are those that callers of the wide-character calls know: a directory is no file, and both kinds
// of slash separate the parts of a path.
#define _FILE_OFFSET_BITS 64

#include "platform/win_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "files beyond 2 GiB");

void platform_turn_separators(char* path) {
    for (; *path != 0; ++path) {
        if (*path == '\\') {
            *path = '/';
        }
    }
}

// Texts for the system's calls; null with errno set.
static char* _copy_path(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    char* copy = strdup(path);
    if (copy != nullptr) {
        platform_turn_separators(copy);
    }
    return copy;
}

static char* _narrow(const WCHAR* text) {
    int size = text != nullptr
                   ? WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr)
                   : 0;
    if (size <= 0) {
        errno = EINVAL;
        return nullptr;
    }
    char* narrow = (char*)malloc((size_t)size);
    if (narrow == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow, size, nullptr, nullptr);
    return narrow;
}

static char* _narrow_path(const WCHAR* path) {
    char* narrow = _narrow(path);
    if (narrow != nullptr) {
        platform_turn_separators(narrow);
    }
    return narrow;
}

// Frees without losing the error of the call before.
static void _free_keeping_errno(void* memory) {
    int error = errno;
    free(memory);
    errno = error;
}

// True, with errno set, for what is no regular file.
static bool _is_refused(const struct stat* status) {
    if (S_ISREG(status->st_mode)) {
        return false;
    }
    errno = S_ISDIR(status->st_mode) ? EACCES : EINVAL;
    return true;
}

static int _open_flags(const char* mode) {
    int flags = strchr(mode, '+') != nullptr ? O_RDWR : (mode[0] == 'r' ? O_RDONLY : O_WRONLY);
    if (mode[0] != 'r') {
        flags |= O_CREAT | (strchr(mode, 'x') != nullptr ? O_EXCL | O_NOFOLLOW : O_TRUNC);
    }
    // Without O_NONBLOCK a fifo would wait for its other end.
    return flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

// In a process without standard streams a new descriptor would become one of them.
static int _move_above_standard(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) {
        return descriptor;
    }
    int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close(descriptor);
    errno = error;
    return moved;
}

// The name is checked first, because opening a device or a fifo can itself have an effect; the
// descriptor, because the name may mean something else by then.
static int _open_regular(const char* path, const char* mode) {
    struct stat status;
    if (stat(path, &status) == 0 && _is_refused(&status)) {
        return -1;
    }
    int descriptor = _move_above_standard(open(path, _open_flags(mode), 0666));
    if (descriptor < 0) {
        errno = errno == EISDIR ? EACCES : errno;
        return -1;
    }
    if (fstat(descriptor, &status) != 0 || _is_refused(&status)) {
        int error = errno;
        close(descriptor);
        errno = error;
        return -1;
    }
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    return descriptor;
}

FILE* platform_fopen(const WCHAR* path, const char* mode) {
    char* narrow = _narrow_path(path);
    if (narrow == nullptr) {
        return nullptr;
    }
    FILE* file = nullptr;
    int descriptor = _open_regular(narrow, mode);
    if (descriptor >= 0) {
        file = fdopen(descriptor, mode);
        if (file == nullptr) {
            close(descriptor);
            errno = ENOMEM;
        }
    }
    _free_keeping_errno(narrow);
    return file;
}

bool platform_is_special_file(const WCHAR* path) {
    char* narrow = _narrow_path(path);
    struct stat status;
    bool special = narrow != nullptr && stat(narrow, &status) == 0 && !S_ISREG(status.st_mode) &&
                   !S_ISDIR(status.st_mode);
    free(narrow);
    return special;
}

int _wremove(const WCHAR* path) {
    char* narrow = _narrow_path(path);
    if (narrow == nullptr) {
        return -1;
    }
    // remove() would also take empty directories.
    int result = unlink(narrow);
    if (result != 0 && (errno == EISDIR || errno == EPERM)) {
        errno = EACCES;
    }
    _free_keeping_errno(narrow);
    return result;
}

int _wmkdir(const WCHAR* path) {
    char* narrow = _narrow_path(path);
    if (narrow == nullptr) {
        return -1;
    }
    int result = mkdir(narrow, 0777);
    _free_keeping_errno(narrow);
    return result;
}

int _chsize(int descriptor, long size) {
    return ftruncate(descriptor, size);
}

int _access(const char* path, int mode) {
    char* copy = _copy_path(path);
    if (copy == nullptr) {
        return -1;
    }
    int result = access(copy, mode);
    _free_keeping_errno(copy);
    return result;
}

int _fileno(FILE* file) {
    return fileno(file);
}

int platform_stat64i32(const char* path, struct _stat64i32* record) {
    char* copy = _copy_path(path);
    if (copy == nullptr) {
        return -1;
    }
    struct stat status;
    int result = stat(copy, &status);
    _free_keeping_errno(copy);
    if (result != 0) {
        return -1;
    }
    if (record == nullptr || status.st_size > INT32_MAX) {
        errno = record == nullptr ? EINVAL : EOVERFLOW;
        return -1;
    }
    unsigned kind = S_ISDIR(status.st_mode) ? _S_IFDIR : 0;
    record->st_mode = (unsigned short)(kind | (status.st_mode & 0777));
    record->st_size = (int32_t)status.st_size;
    return 0;
}

int platform_fgetpos(FILE* file, platform_fpos_t* position) {
    off_t offset = ftello(file);
    if (offset < 0) {
        return -1;
    }
    *position = offset;
    return 0;
}

int platform_fsetpos(FILE* file, const platform_fpos_t* position) {
    return fseeko(file, *position, SEEK_SET);
}

__time64_t _time64(__time64_t* output) {
    __time64_t now = (__time64_t)time(nullptr);
    if (output != nullptr) {
        *output = now;
    }
    return now;
}

__time64_t _mktime64(struct tm* time) {
    return (__time64_t)mktime(time);
}

struct tm* _gmtime64(const __time64_t* seconds) {
    // One record per thread, as callers expect. The range ends with the year 3000.
    static thread_local struct tm result;
    if (seconds == nullptr || *seconds < 0 || *seconds > INT64_C(32535215999) ||
        (__time64_t)(time_t)*seconds != *seconds) {
        errno = EINVAL;
        return nullptr;
    }
    time_t value = (time_t)*seconds;
    return gmtime_r(&value, &result);
}
