// File access with UTF-8 paths and 64-bit offsets, and names for temporary files. Errors are errno
// numbers (0 is success, 14 for bad arguments); failures are logged here.
#ifndef TAVHTTPCLIENT_FS_H
#define TAVHTTPCLIENT_FS_H

#include <stdint.h>
#include <stdio.h>
#include <uv.h>

// Opens the regular file `path` in a binary `mode`: "rb", "r+b", "w+b", or "w+bx" for a file that
// must be new. `*file` belongs to the caller. A directory gives EACCES; a device, a pipe or a
// socket EINVAL, without waiting for it.
int32_t tavhttp_fopen(const char* path, const char* mode, FILE** file);
// Null gives 0.
int32_t tavhttp_fclose(FILE* file);
// Size in bytes; keeps the position. `size` may be null.
int32_t tavhttp_fsize(FILE* file, int64_t* size);
// Bytes written at `offset`; 0xFFFFFFFF when nothing could be tried.
uint32_t tavhttp_fwrite_at(FILE* file, const void* bytes, int64_t offset, uint32_t count);
// Writes out what waits in the stream.
int32_t tavhttp_fflush(FILE* file);
// Cuts the file to length 0; a null file gives 1.
int32_t tavhttp_ftruncate(FILE* file);
// Closes on a worker thread. Loop thread; false: the file is still open. Null succeeds.
bool tavhttp_async_close(FILE* file);
// Start uv_fs_unlink and uv_fs_rename on what tavhttp_fopen opens under the same path. Loop thread.
// 0: `callback` is called once, later, and `request` must stay valid until then; a negative code of
// libuv: it is not. The paths are copied.
int tavhttp_start_unlink(uv_fs_t* request, const char* path, uv_fs_cb callback);
int tavhttp_start_rename(uv_fs_t* request, const char* path, const char* new_path,
                         uv_fs_cb callback);
// True for a device, a pipe or a socket, or a link to one; false for what does not exist.
bool tavhttp_is_special_file(const char* path);
int32_t tavhttp_remove(const char* path);
int32_t tavhttp_file_size(const char* path, int64_t* size);
// Creates every component of `path`, relative to the current directory; true when `path` names a
// directory afterwards. Blocks.
bool tavhttp_mkdir(const char* path);

// The custom download directory or the system's temporary directory, ending in a separator; new
// text, or null.
char* get_temp_directory(void);
// A new path, made of `name` and a unique part, of a file that does not exist.
//
// name           suggested name, may be null; the unique part goes before its extension.
// use_directory  true: below get_temp_directory(); false: `name` carries its own directory.
// output         must hold null; gets a text that belongs to the caller.
bool get_temp_file_path_with_suggest_name(const char* name, bool use_directory, char** output);

#endif
