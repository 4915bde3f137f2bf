// Wide-character and 64-bit file calls of the Windows runtime library under their own names: on
// Windows that library's headers, elsewhere stand-ins.
//
// On both, a backslash in a path separates as a slash does, and opening or removing a directory as
// a file fails with EACCES.
#ifndef PLATFORM_WIN_FILE_H
#define PLATFORM_WIN_FILE_H

#include <stdio.h>
#include <time.h>

#include "platform/win_text.h"

#if defined(_WIN32)
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#else

#include <stdint.h>

// fpos_t is a number on Windows; here it is opaque, so the two calls are replaced.
typedef int64_t platform_fpos_t;
int platform_fgetpos(FILE* file, platform_fpos_t* position);
int platform_fsetpos(FILE* file, const platform_fpos_t* position);
#define fpos_t platform_fpos_t
#define fgetpos platform_fgetpos
#define fsetpos platform_fsetpos

typedef int64_t __time64_t;

// A record and a function share the name, as on Windows; the macro touches calls only.
struct _stat64i32 {
    unsigned short st_mode;
    int32_t st_size;
};
#define _S_IFDIR 0x4000

int _wremove(const WCHAR* path);
int _wmkdir(const WCHAR* path);
int _chsize(int descriptor, long size);
int _access(const char* path, int mode);
int _fileno(FILE* file);
int platform_stat64i32(const char* path, struct _stat64i32* record);
#define _stat64i32(path, record) platform_stat64i32(path, record)

__time64_t _time64(__time64_t* output);
__time64_t _mktime64(struct tm* time);
struct tm* _gmtime64(const __time64_t* seconds);

#endif

// Opens as _wfopen does in "rb", "r+b" or "w+b" mode, but a regular file only: a directory fails
// with EACCES, any other thing with EINVAL, and neither is waited for. With an "x" in the mode the
// file is made, and it is an error (EEXIST) when the name is taken, be it by a link. Processes
// started meanwhile do not inherit the file.
FILE* platform_fopen(const WCHAR* path, const char* mode);
// True when the path leads to a device, a pipe or a socket.
bool platform_is_special_file(const WCHAR* path);
// libuv takes UTF-8 paths: gives one the separators with which it finds what the wide calls find.
void platform_turn_separators(char* path);

#endif
