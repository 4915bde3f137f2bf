// Files, directories and temporary names, in a directory of each test's own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"

namespace {

namespace files = std::filesystem;

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class Fs : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/test_fs_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        before_ = files::current_path();
        directory_ = name;
        files::current_path(directory_);
    }
    void TearDown() override {
        files::current_path(before_);
        files::remove_all(directory_);
    }
    static FILE* open(const char* path, const char* mode) {
        FILE* file = nullptr;
        EXPECT_EQ(0, tavhttp_fopen(path, mode, &file)) << path;
        return file;
    }

    files::path before_;
    std::string directory_;
};

TEST_F(Fs, OpensByUtf8Path) {
    const char* path = "gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\x84.bin";
    FILE* file = open(path, "w+b");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(5u, tavhttp_fwrite_at(file, "bytes", 0, 5));
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ("bytes", contents(path));
    std::int64_t size = 0;
    EXPECT_EQ(0, tavhttp_file_size(path, &size));
    EXPECT_EQ(5, size);
    EXPECT_EQ(0, tavhttp_remove(path));
    EXPECT_FALSE(files::exists(path));
}

TEST_F(Fs, ErrorsAreNumbers) {
    log_capture log;
    FILE* file = nullptr;
    std::int64_t size = 0;
    files::create_directory("dir");
    EXPECT_EQ(14, tavhttp_fopen(nullptr, "rb", &file));
    EXPECT_EQ(14, tavhttp_fopen("", "rb", &file));
    EXPECT_EQ(14, tavhttp_fopen("x", nullptr, &file));
    EXPECT_EQ(14, tavhttp_fopen("x", "", &file));
    EXPECT_EQ(14, tavhttp_fopen("x", "rb", nullptr));
    EXPECT_EQ(14, tavhttp_fsize(nullptr, &size));
    EXPECT_EQ(14, tavhttp_remove(nullptr));
    EXPECT_EQ(14, tavhttp_remove(""));
    EXPECT_EQ(14, tavhttp_file_size(nullptr, &size));
    EXPECT_EQ(14, tavhttp_file_size("", &size));
    EXPECT_EQ(1, tavhttp_ftruncate(nullptr));
    EXPECT_EQ(0, tavhttp_fclose(nullptr));
    EXPECT_TRUE(tavhttp_async_close(nullptr));
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(ENOENT, tavhttp_fopen("missing", "rb", &file));
    EXPECT_EQ(ENOENT, tavhttp_fopen("missing/x", "w+b", &file));
    EXPECT_EQ(EACCES, tavhttp_fopen("dir", "rb", &file));
    EXPECT_EQ(EACCES, tavhttp_fopen("dir", "w+b", &file));
    EXPECT_EQ(ENOENT, tavhttp_file_size("missing", &size));
    EXPECT_EQ(nullptr, file);
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(ENOENT, tavhttp_remove("missing"));
    EXPECT_EQ(1u, log.count("tavhttp_remove remove fail, path=missing, err=2, ", LOG_LEVEL_INFO));
    EXPECT_EQ(EACCES, tavhttp_remove("dir"));
    EXPECT_TRUE(files::exists("dir"));
}

TEST_F(Fs, TextModeOpensButIsReported) {
    write_file("x", "1");
    log_capture log;
    FILE* file = open("x", "r");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(1u, log.count("function=tavhttp_fopen", LOG_LEVEL_ERROR));
    tavhttp_fclose(file);
}

TEST_F(Fs, SizeKeepsThePosition) {
    FILE* file = open("x", "w+b");
    std::string bytes(1000, 'x');
    ASSERT_EQ(1000u, tavhttp_fwrite_at(file, bytes.data(), 0, 1000));
    ASSERT_EQ(4u, tavhttp_fwrite_at(file, "1234", 10, 4));
    std::int64_t size = -1;
    EXPECT_EQ(0, tavhttp_fsize(file, &size));
    EXPECT_EQ(1000, size);
    EXPECT_EQ(14, ftell(file));
    EXPECT_EQ(0, tavhttp_fsize(file, nullptr));
    tavhttp_fclose(file);
}

TEST_F(Fs, OffsetsGoBeyondFourGigabytes) {
    FILE* file = open("sparse", "w+b");
    const std::int64_t offset = INT64_C(5) << 30;
    ASSERT_EQ(3u, tavhttp_fwrite_at(file, "end", offset, 3));
    ASSERT_EQ(5u, tavhttp_fwrite_at(file, "begin", 0, 5));
    std::int64_t size = 0;
    EXPECT_EQ(0, tavhttp_fsize(file, &size));
    EXPECT_EQ(offset + 3, size);
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ(0, tavhttp_file_size("sparse", &size));
    EXPECT_EQ(offset + 3, size);
}

TEST_F(Fs, WritesThatCannotBeTriedAreMarked) {
    FILE* file = open("x", "w+b");
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(nullptr, "x", 0, 1));
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(file, nullptr, 0, 1));
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(file, "x", -1, 1));
    EXPECT_EQ(0u, tavhttp_fwrite_at(file, "x", 0, 0));
    tavhttp_fclose(file);
    write_file("read", "abc");
    file = open("read", "rb");
    EXPECT_EQ(0u, tavhttp_fwrite_at(file, "x", 0, 1));
    tavhttp_fclose(file);
}

TEST_F(Fs, TruncationTakesBufferedBytesToo) {
    FILE* file = open("x", "w+b");
    std::string bytes(1000, 'x');
    ASSERT_EQ(1000u, tavhttp_fwrite_at(file, bytes.data(), 0, 1000));
    EXPECT_EQ(0, tavhttp_ftruncate(file));
    EXPECT_EQ(3u, tavhttp_fwrite_at(file, "new", 0, 3));
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_EQ("new", contents("x"));

    file = open("x", "rb");
    log_capture log;
    EXPECT_NE(0, tavhttp_ftruncate(file));
    EXPECT_EQ(1u, log.count("tavhttp_ftruncate chsize fail, err=", LOG_LEVEL_INFO));
    tavhttp_fclose(file);
    EXPECT_EQ("new", contents("x"));
}

TEST_F(Fs, PipesHaveNoSize) {
    ASSERT_EQ(0, mkfifo("pipe", 0600));
    FILE* file = fopen("pipe", "r+b");
    ASSERT_NE(nullptr, file);
    log_capture log;
    std::int64_t size = 9;
    EXPECT_EQ(ESPIPE, tavhttp_fsize(file, &size));
    EXPECT_EQ(0, size);
    EXPECT_EQ(1u, log.count("tavhttp_fsize fgetpos fail, err=29, ", LOG_LEVEL_INFO));
    fclose(file);
}

TEST_F(Fs, ACloseThatLosesBytesIsReported) {
    FILE* file = fopen("/dev/full", "wb");
    if (file == nullptr) {
        GTEST_SKIP() << "no /dev/full";
    }
    fputs("x", file);
    log_capture log;
    EXPECT_EQ(ENOSPC, tavhttp_fclose(file));
    EXPECT_EQ(1u, log.count("tavhttp_fclose fclose fail, err=28, ", LOG_LEVEL_INFO));
}

struct close_call {
    FILE* file;
    bool result;
};

void run_close(void* argument) {
    auto* call = static_cast<close_call*>(argument);
    call->result = tavhttp_async_close(call->file);
}

TEST_F(Fs, AsyncCloseEndsBeforeTheLibraryStops) {
    close_call call = {open("x", "w+b"), false};
    ASSERT_NE(nullptr, call.file);
    int descriptor = fileno(call.file);
    ASSERT_EQ(4u, tavhttp_fwrite_at(call.file, "tail", 0, 4));
    library lib;
    ASSERT_TRUE(async_run_safe(run_close, &call));
    EXPECT_TRUE(wait_until([&] { return fcntl(descriptor, F_GETFD) == -1; }));
    lib.shutdown();
    EXPECT_TRUE(call.result);
    EXPECT_EQ("tail", contents("x"));
}

TEST_F(Fs, AsyncCloseElsewhereLeavesTheFileOpen) {
    FILE* file = open("x", "w+b");
    log_capture log;
    EXPECT_FALSE(tavhttp_async_close(file));
    EXPECT_EQ(1u, tavhttp_fwrite_at(file, "x", 0, 1));
    EXPECT_EQ(0, tavhttp_fclose(file));
}

TEST_F(Fs, DirectoriesAreMadeComponentByComponent) {
    write_file("file", "");
    const struct {
        const char* path;
        bool expected;
        const char* made;
        std::size_t failures;
    } rows[] = {
        {"a\\b/c", true, "a/b/c", 0},
        {"a//b//d/", true, "a/b/d", 0},
        {"a/b/c", true, "a/b/c", 0},
        {"\xC3\xA4/b", true, "\xC3\xA4/b", 0},
        {"D:\\data", true, "D:/data", 0},
        {"./e/../f", true, "f", 0},
        // Made below the current directory, looked for at the root.
        {"/no_such_root/g", false, "no_such_root/g", 0},
        {"file/h", false, nullptr, 1},
        {"file", false, nullptr, 0},
        {"/", true, nullptr, 0},
        {"", false, nullptr, 0},
        {nullptr, false, nullptr, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path != nullptr ? row.path : "null");
        log_capture log;
        EXPECT_EQ(row.expected, tavhttp_mkdir(row.path));
        EXPECT_TRUE(row.made == nullptr || files::is_directory(row.made));
        EXPECT_EQ(row.failures, log.count("tavhttp_mkdir, mkdir fail, err=20, ", LOG_LEVEL_INFO));
        EXPECT_EQ(row.failures, log.lines().size());
    }
}

// "_", eight hexadecimal digits, "_" and eight more.
bool is_unique_part(const std::string& text) {
    const std::string digits = "0123456789abcdef";
    return text.size() == 18 && text[0] == '_' && text[9] == '_' &&
           text.find_first_not_of(digits, 1) == 9 &&
           text.find_first_not_of(digits, 10) == std::string::npos;
}

TEST_F(Fs, TemporaryNamesKeepTheExtension) {
    const struct {
        const char *name, *begin, *end;
    } rows[] = {
        {"x.tar.gz", "x.tar", ".gz"},
        {"dir/a.b/file", "dir/a.b/file", ".tmp"},
        {"dir\\a.b\\file", "dir\\a.b\\file", ".tmp"},
        {"a\\b/c.d", "a\\b/c", ".d"},
        {"file", "file", ".tmp"},
        {"dir/.hidden", "dir/", ".hidden"},
        {"x.", "x", "."},
        {"%s%n.%d", "%s%n", ".%d"},
        {"", "", ".tmp"},
        {nullptr, "", ".tmp"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name != nullptr ? row.name : "null");
        heap_text name(row.name != nullptr ? exact_text(row.name).release() : nullptr);
        char* output = nullptr;
        ASSERT_TRUE(get_temp_file_path_with_suggest_name(name.get(), false, &output));
        std::string path = take(output), begin = row.begin, end = row.end;
        ASSERT_EQ(begin.size() + 18 + end.size(), path.size()) << path;
        EXPECT_EQ(begin, path.substr(0, begin.size()));
        EXPECT_TRUE(is_unique_part(path.substr(begin.size(), 18))) << path;
        EXPECT_EQ(end, path.substr(begin.size() + 18));
    }
    EXPECT_FALSE(get_temp_file_path_with_suggest_name("x", false, nullptr));
}

TEST_F(Fs, AFilledOutputIsReportedAndReplaced) {
    char old[] = "old";
    char* output = old;
    log_capture log;
    ASSERT_TRUE(get_temp_file_path_with_suggest_name("x", false, &output));
    EXPECT_EQ(1u, log.count("function=get_temp_file_path_with_suggest_name", LOG_LEVEL_ERROR));
    EXPECT_NE("old", take(output));
}

TEST_F(Fs, TemporaryFilesLieInTheDownloadDirectory) {
    library lib;
    setenv("TMPDIR", directory_.c_str(), 1);
    EXPECT_EQ(directory_ + "/", take(get_temp_directory()));
    std::set<std::string> names;
    for (int count = 0; count < 20; ++count) {
        char* output = nullptr;
        ASSERT_TRUE(get_temp_file_path_with_suggest_name("n.x", true, &output));
        std::string path = take(output);
        EXPECT_EQ(0u, path.find(directory_ + "/n_")) << path;
        write_file(path, "");
        EXPECT_TRUE(names.insert(path).second) << path;
    }
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("own\\place"));
    EXPECT_EQ("own/place/", take(get_temp_directory()));
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory(nullptr));
    setenv("TMPDIR", ("/" + std::string(400, 'x')).c_str(), 1);
    EXPECT_EQ(nullptr, get_temp_directory());
    log_capture log;
    char* output = nullptr;
    EXPECT_FALSE(get_temp_file_path_with_suggest_name("n.x", true, &output));
    EXPECT_EQ(nullptr, output);
    EXPECT_EQ(1u, log.count("function=get_temp_file_path_with_suggest_name", LOG_LEVEL_ERROR));
    unsetenv("TMPDIR");
}

}  // namespace
