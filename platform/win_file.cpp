// File calls with UTF-16 paths and 64-bit positions. Where the systems differ, errors and outcomes
// are those that callers of the wide-character calls know: a directory is no file, and both kinds
// of slash separate the parts of a path.
#define _FILE_OFFSET_BITS 64

#include "platform/win_file.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "files beyond 2 GiB");

static void _turn_separators(char* path) {
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
        _turn_separators(copy);
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
        _turn_separators(narrow);
    }
    return narrow;
}

// Frees without losing the error of the call before.
static void _free_keeping_errno(void* memory) {
    int error = errno;
    free(memory);
    errno = error;
}

// A directory can be opened for reading here; callers expect a refusal.
static FILE* _refuse_directory(FILE* file) {
    struct stat status;
    if (file == nullptr || fstat(fileno(file), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return file;
    }
    fclose(file);
    errno = EACCES;
    return nullptr;
}

FILE* _wfopen(const WCHAR* path, const WCHAR* mode) {
    char* narrow_path = _narrow_path(path);
    char* narrow_mode = _narrow(mode);
    FILE* file = nullptr;
    if (narrow_path != nullptr && narrow_mode != nullptr) {
        file = _refuse_directory(fopen(narrow_path, narrow_mode));
        if (file == nullptr && errno == EISDIR) {
            errno = EACCES;
        }
    }
    _free_keeping_errno(narrow_path);
    _free_keeping_errno(narrow_mode);
    return file;
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
