// Files over the runtime library's streams: 64-bit positions, one place for the log of failures, a
// close that does not block the loop thread, and names for temporary files.
//
// tavhttp_async_close -> _work_close_file -> _work_after_close_file
#include "tavhttpclient/fs.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <uv.h>

#include "platform/win_file.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/settings.h"
#include "tavhttpclient/util.h"
#include "tavhttpclient/utilplatform_win32.h"
#include "tavhttpclient/worker.h"

enum {
    BAD_ARGUMENT = 14,
    STREAM_BUFFER_SIZE = 0x10000,
    TEMP_DIRECTORY_SIZE = 262,
    TEMP_NAME_ATTEMPTS = 3
};

static const char SEPARATORS[] = "/\\";

// What a failed call reports: its errno, or its own result when it left none.
static int32_t _error_of(int result) {
    return errno != 0 ? errno : result;
}

// ------------------------------------------------------------------------------------ streams

// Null with errno set.
static FILE* _open_wide(const char* path, const char* mode) {
    WCHAR* wide = utf8_to_wide(path);
    errno = wide != nullptr ? 0 : ENOMEM;
    FILE* file = wide != nullptr ? platform_fopen(wide, mode) : nullptr;
    int error = errno;
    free(wide);
    errno = error;
    return file;
}

int32_t tavhttp_fopen(const char* path, const char* mode, FILE** file) {
    if (path == nullptr || mode == nullptr || file == nullptr || *path == 0 || *mode == 0) {
        return BAD_ARGUMENT;
    }
    // Text mode would change line ends and with them every offset.
    (void)LOG_ASSERT(strchr(mode, 'b') != nullptr);
    FILE* opened = _open_wide(path, mode);
    if (opened == nullptr) {
        return _error_of(EINVAL);
    }
    setvbuf(opened, nullptr, _IOFBF, STREAM_BUFFER_SIZE);
    *file = opened;
    return 0;
}

int32_t tavhttp_fclose(FILE* file) {
    if (file == nullptr) {
        return 0;
    }
    errno = 0;
    int result = fclose(file);
    if (result == 0) {
        return 0;
    }
    int32_t err = _error_of(result);
    LOG_INFO("tavhttp_fclose fclose fail, err=%d, %s", err, strerror(err));
    return err;
}

static int32_t _fail_fsize(const char* call, int result) {
    int32_t err = _error_of(result);
    LOG_INFO("tavhttp_fsize %s fail, err=%d, %s", call, errno, strerror(errno));
    return err;
}

int32_t tavhttp_fsize(FILE* file, int64_t* size) {
    if (file == nullptr) {
        return BAD_ARGUMENT;
    }
    if (size != nullptr) {
        *size = 0;
    }
    fpos_t position;
    fpos_t end;
    errno = 0;
    int result = fgetpos(file, &position);
    if (result != 0) {
        return _fail_fsize("fgetpos", result);
    }
    result = fseek(file, 0, SEEK_END);
    if (result != 0) {
        return _fail_fsize("fseek", result);
    }
    result = fgetpos(file, &end);
    if (result != 0) {
        return _fail_fsize("fgetpos", result);
    }
    result = fsetpos(file, &position);
    if (result != 0) {
        return _fail_fsize("fsetpos", result);
    }
    if (size != nullptr) {
        *size = end;
    }
    return 0;
}

uint32_t tavhttp_fwrite_at(FILE* file, const void* bytes, int64_t offset, uint32_t count) {
    if (file == nullptr || bytes == nullptr) {
        return UINT32_MAX;
    }
    fpos_t position = offset;
    if (fsetpos(file, &position) != 0) {
        return UINT32_MAX;
    }
    return (uint32_t)fwrite(bytes, 1, count, file);
}

int32_t tavhttp_fflush(FILE* file) {
    errno = 0;
    int result = fflush(file);
    return result != 0 ? _error_of(result) : 0;
}

int32_t tavhttp_ftruncate(FILE* file) {
    if (file == nullptr) {
        return 1;
    }
    errno = 0;
    // What waits in the stream's buffer would come back behind the cut.
    int result = fflush(file);
    if (result == 0) {
        result = _chsize(_fileno(file), 0);
    }
    if (result == 0) {
        return 0;
    }
    int32_t err = _error_of(result);
    LOG_INFO("tavhttp_ftruncate chsize fail, err=%d, %s", err, strerror(err));
    return err;
}

// ------------------------------------------------------------------------------ close, off-loop

// Worker thread. From tavhttp_async_close; next _work_after_close_file.
static void _work_close_file(worker_step* req) {
    FILE* file = (FILE*)req->data;
    req->data = nullptr;
    fclose(file);
}

// Loop thread. From _work_close_file; last.
static void _work_after_close_file(worker_step* req, int status) {
    FILE* file = (FILE*)req->data;
    free(req);
    if (status != 0) {
        LOG_INFO("_work_after_close_file fail, status=%d", status);
    }
    // The work was cancelled, and nobody else holds the stream any more.
    if (file != nullptr) {
        fclose(file);
    }
}

bool tavhttp_async_close(FILE* file) {
    if (file == nullptr) {
        return true;
    }
    uv_loop_t* loop = get_uv_loop();
    worker_step* req = loop != nullptr ? (worker_step*)calloc(1, sizeof(worker_step)) : nullptr;
    if (req == nullptr) {
        return false;
    }
    req->data = file;
    int ret = queue_worker_step(req, _work_close_file, _work_after_close_file);
    if (ret != 0) {
        LOG_INFO("tavhttp_async_close, uv_queue_work fail, ret=%d, %s", ret, uv_strerror(ret));
        free(req);
        return false;
    }
    return true;
}

// -------------------------------------------------------------------------------------- paths

// The text under which libuv finds the file that the calls with wide paths find; null without
// memory.
static char* _libuv_path(const char* path) {
    WCHAR* wide = utf8_to_wide(path);
    char* text = wide_to_utf8(wide);
    free(wide);
    if (text != nullptr) {
        platform_turn_separators(text);
    }
    return text;
}

int tavhttp_start_unlink(uv_fs_t* request, const char* path, uv_fs_cb callback) {
    uv_loop_t* loop = get_uv_loop();
    char* text = _libuv_path(path);
    int ret = UV_EINVAL;
    if (loop != nullptr && text != nullptr) {
        ret = uv_fs_unlink(loop, request, text, callback);
    }
    free(text);
    return ret;
}

int tavhttp_start_rename(uv_fs_t* request, const char* path, const char* new_path,
                         uv_fs_cb callback) {
    uv_loop_t* loop = get_uv_loop();
    char* text = _libuv_path(path);
    char* new_text = _libuv_path(new_path);
    int ret = UV_EINVAL;
    if (loop != nullptr && text != nullptr && new_text != nullptr) {
        ret = uv_fs_rename(loop, request, text, new_text, callback);
    }
    free(text);
    free(new_text);
    return ret;
}

bool tavhttp_is_special_file(const char* path) {
    WCHAR* wide = utf8_to_wide(path);
    bool special = wide != nullptr && platform_is_special_file(wide);
    free(wide);
    return special;
}

int32_t tavhttp_remove(const char* path) {
    if (path == nullptr || *path == 0) {
        return BAD_ARGUMENT;
    }
    WCHAR* wide = utf8_to_wide(path);
    errno = wide != nullptr ? 0 : ENOMEM;
    int result = wide != nullptr ? _wremove(wide) : -1;
    int32_t err = result != 0 ? _error_of(result) : 0;
    free(wide);
    if (err != 0) {
        LOG_INFO("tavhttp_remove remove fail, path=%s, err=%d, %s", path, err, strerror(err));
    }
    return err;
}

int32_t tavhttp_file_size(const char* path, int64_t* size) {
    if (path == nullptr || *path == 0) {
        return BAD_ARGUMENT;
    }
    FILE* file = nullptr;
    int32_t err = tavhttp_fopen(path, "rb", &file);
    if (err == 0) {
        err = tavhttp_fsize(file, size);
    }
    tavhttp_fclose(file);
    return err;
}

static void _make_one_directory(const char* path) {
    WCHAR* wide = utf8_to_wide(path);
    errno = ENOMEM;
    int result = wide != nullptr ? _wmkdir(wide) : -1;
    int error = errno;
    free(wide);
    if (result != 0 && error != EEXIST) {
        LOG_INFO("tavhttp_mkdir, mkdir fail, err=%d, %s", error, strerror(error));
    }
}

// Follows the components of `path` and makes each; a leading separator is not a component.
static void _make_components(const char* path, text_buffer* made) {
    path += strspn(path, SEPARATORS);
    while (*path != 0) {
        size_t length = strcspn(path, SEPARATORS);
        if (!text_buffer_append_format(made, "%.*s/", (int)length, path)) {
            return;
        }
        _make_one_directory(made->data);
        path += length;
        path += strspn(path, SEPARATORS);
    }
}

bool tavhttp_mkdir(const char* path) {
    if (path == nullptr || *path == 0) {
        return false;
    }
    text_buffer made;
    text_buffer_init(&made, 64);
    _make_components(path, &made);
    text_buffer_release(&made);
    // The text as it was given: an absolute path is made below the current directory but sought
    // where it says.
    struct _stat64i32 record;
    return _stat64i32(path, &record) == 0 && (record.st_mode & _S_IFDIR) != 0;
}

// ---------------------------------------------------------------------------- temporary files

char* get_temp_directory(void) {
    char* custom = get_custom_download_directory();
    if (custom != nullptr) {
        return custom;
    }
    WCHAR wide[TEMP_DIRECTORY_SIZE];
    memset(wide, 0, sizeof(wide));
    DWORD length = GetTempPathW(TEMP_DIRECTORY_SIZE, wide);
    if (length == 0 || length >= TEMP_DIRECTORY_SIZE) {
        return nullptr;
    }
    return wide_to_utf8(wide);
}

// The last dot of the last component, or null.
static const char* _find_extension(const char* name) {
    const char* start = name;
    for (const char* at = name; *at != 0; ++at) {
        if (*at == '/' || *at == '\\') {
            start = at + 1;
        }
    }
    return strrchr(start, '.');
}

// Time and counter make a clash unlikely; the caller checks that the name is free all the same.
static bool _append_unique_name(text_buffer* buffer, const char* name) {
    LARGE_INTEGER counter;
    counter.QuadPart = 0;
    QueryPerformanceCounter(&counter);
    uint32_t seconds = (uint32_t)_time64(nullptr);
    uint32_t unique = ((uint32_t)counter.QuadPart << 16) | ((uint32_t)rand() & 0xFF);
    const char* extension = _find_extension(name);
    if (extension == nullptr) {
        return text_buffer_append_format(buffer, "%s_%08x_%08x.tmp", name, seconds, unique);
    }
    return text_buffer_append_format(buffer, "%.*s_%08x_%08x%s", (int)(extension - name), name,
                                     seconds, unique, extension);
}

bool get_temp_file_path_with_suggest_name(const char* name, bool use_directory, char** output) {
    if (output == nullptr) {
        return false;
    }
    (void)LOG_ASSERT(*output == nullptr);
    *output = nullptr;
    text_buffer buffer;
    text_buffer_init(&buffer, 260);
    if (use_directory) {
        char* directory = get_temp_directory();
        bool ok =
            LOG_ASSERT(directory != nullptr) && text_buffer_append_format(&buffer, "%s", directory);
        free(directory);
        if (!ok) {
            text_buffer_release(&buffer);
            return false;
        }
    }
    int32_t prefix = buffer.length;
    for (int attempt = 0; attempt < TEMP_NAME_ATTEMPTS; ++attempt) {
        text_buffer_set_length(&buffer, prefix);
        if (!_append_unique_name(&buffer, name != nullptr ? name : "")) {
            break;
        }
        if (_access(buffer.data, 0) != 0) {
            *output = buffer.data;
            return true;
        }
    }
    text_buffer_release(&buffer);
    return false;
}
