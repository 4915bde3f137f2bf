// Files, directories and temporary names, in a directory of each test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <set>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/log.h"
#include "tests/support/exact_buffer.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

namespace files = std::filesystem;

class Fs : public ::testing::Test {
  protected:
    static FILE* open(const char* path, const char* mode) {
        FILE* file = nullptr;
        EXPECT_EQ(0, tavhttp_fopen(path, mode, &file)) << path;
        return file;
    }
    work_dir dir_;
};

TEST_F(Fs, Utf8PathsAndOffsetsBeyondFourGigabytes) {
    const char* path = "gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\x84.bin";
    const std::int64_t offset = INT64_C(5) << 30;
    FILE* file = open(path, "w+b");
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(3u, tavhttp_fwrite_at(file, "end", offset, 3));
    ASSERT_EQ(5u, tavhttp_fwrite_at(file, "begin", 0, 5));
    std::int64_t size = 0;
    EXPECT_EQ(0, tavhttp_fsize(file, &size));
    EXPECT_EQ(offset + 3, size);
    EXPECT_EQ(5, ftell(file)) << "the size leaves the position";
    EXPECT_EQ(0, tavhttp_fsize(file, nullptr));
    EXPECT_EQ(0, tavhttp_fclose(file));
    EXPECT_TRUE(files::exists(path));
    EXPECT_EQ(0, tavhttp_file_size(path, &size));
    EXPECT_EQ(offset + 3, size);
    EXPECT_EQ(0, tavhttp_remove(path));
    EXPECT_FALSE(files::exists(path));
}

TEST_F(Fs, ErrorsAreNumbers) {
    log_capture log;
    FILE* file = nullptr;
    std::int64_t size = 0;
    files::create_directory("dir");
    for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(14, tavhttp_fopen(empty, "rb", &file));
        EXPECT_EQ(14, tavhttp_fopen("x", empty, &file));
        EXPECT_EQ(14, tavhttp_remove(empty));
        EXPECT_EQ(14, tavhttp_file_size(empty, &size));
    }
    EXPECT_EQ(14, tavhttp_fopen("x", "rb", nullptr));
    EXPECT_EQ(14, tavhttp_fsize(nullptr, &size));
    EXPECT_EQ(1, tavhttp_ftruncate(nullptr));
    EXPECT_EQ(0, tavhttp_fclose(nullptr));
    EXPECT_TRUE(tavhttp_async_close(nullptr));
    EXPECT_EQ(ENOENT, tavhttp_fopen("missing", "rb", &file));
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

TEST_F(Fs, WritesAreMarkedOrShortAndTruncationTakesBufferedBytes) {
    log_capture log;
    tavhttp_fclose(open("text", "w"));
    EXPECT_EQ(1u, log.count("function=tavhttp_fopen", LOG_LEVEL_ERROR)) << "in text mode";
    FILE* file = open("x", "w+b");
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(nullptr, "x", 0, 1));
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(file, nullptr, 0, 1));
    EXPECT_EQ(UINT32_MAX, tavhttp_fwrite_at(file, "x", -1, 1));
    EXPECT_EQ(0u, tavhttp_fwrite_at(file, "x", 0, 0));
    ASSERT_EQ(1000u, tavhttp_fwrite_at(file, std::string(1000, 'x').data(), 0, 1000));
    EXPECT_EQ(0, tavhttp_ftruncate(file));
    EXPECT_EQ(3u, tavhttp_fwrite_at(file, "new", 0, 3));
    EXPECT_EQ(0, tavhttp_fclose(file));

    file = open("x", "rb");
    EXPECT_EQ(0u, tavhttp_fwrite_at(file, "x", 0, 1));
    EXPECT_NE(0, tavhttp_ftruncate(file));
    EXPECT_EQ(1u, log.count("tavhttp_ftruncate chsize fail, err=", LOG_LEVEL_INFO));
    tavhttp_fclose(file);
    EXPECT_EQ("new", read_file("x"));
}

TEST_F(Fs, PipesHaveNoSizeAndACloseThatLosesBytesIsReported) {
    ASSERT_EQ(0, mkfifo("pipe", 0600));
    FILE* file = fopen("pipe", "r+b");
    ASSERT_NE(nullptr, file);
    log_capture log;
    std::int64_t size = 9;
    EXPECT_EQ(ESPIPE, tavhttp_fsize(file, &size));
    EXPECT_EQ(0, size);
    EXPECT_EQ(1u, log.count("tavhttp_fsize fgetpos fail, err=29, ", LOG_LEVEL_INFO));
    fclose(file);
    file = fopen("/dev/full", "wb");
    if (file == nullptr) {
        GTEST_SKIP() << "no /dev/full";
    }
    fputs("x", file);
    EXPECT_EQ(ENOSPC, tavhttp_fclose(file));
    EXPECT_EQ(1u, log.count("tavhttp_fclose fclose fail, err=28, ", LOG_LEVEL_INFO));
}

TEST_F(Fs, AsyncCloseEndsBeforeTheLibraryStopsAndElsewhereDoesNothing) {
    FILE* file = open("x", "w+b");
    ASSERT_NE(nullptr, file);
    int descriptor = fileno(file);
    EXPECT_FALSE(tavhttp_async_close(file)) << "without a loop";
    ASSERT_EQ(4u, tavhttp_fwrite_at(file, "tail", 0, 4)) << "still open";
    library lib;
    on_loop([&] { EXPECT_TRUE(tavhttp_async_close(file)); });
    EXPECT_TRUE(wait_until([&] { return fcntl(descriptor, F_GETFD) == -1; }));
    lib.shutdown();
    EXPECT_EQ("tail", read_file("x"));
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
        {"\xC3\xA4/b", true, "\xC3\xA4/b", 0},
        {"D:\\data", true, "D:/data", 0},
        {"./e/../f", true, "f", 0},
        // Made below the current directory, looked for at the root.
        {"/no_such_root/g", false, "no_such_root/g", 0},
        {"file/h", false, nullptr, 1},
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

TEST_F(Fs, TemporaryNamesKeepTheExtension) {
    const struct {
        const char *name, *expected;  // @: the unique part
    } rows[] = {
        {"x.tar.gz", "x.tar@.gz"},
        {"dir/a.b/file", "dir/a.b/file@.tmp"},
        {"dir\\a.b\\file", "dir\\a.b\\file@.tmp"},
        {"a\\b/c.d", "a\\b/c@.d"},
        {"dir/.hidden", "dir/@.hidden"},
        {"x.", "x@."},
        {"%s%n.%d", "%s%n@.%d"},
        {"", "@.tmp"},
        {nullptr, "@.tmp"},
    };
    log_capture log;
    for (const auto& row : rows) {
        heap_text name(row.name != nullptr ? exact_text(row.name).release() : nullptr);
        char* output = nullptr;
        ASSERT_TRUE(get_temp_file_path_with_suggest_name(name.get(), false, &output));
        std::string path = take(output), expected = row.expected;
        std::size_t at = expected.find('@');
        ASSERT_LE(at + 18, path.size()) << path;
        EXPECT_THAT(path.substr(at, 18), testing::MatchesRegex("_[0-9a-f]{8}_[0-9a-f]{8}"));
        EXPECT_EQ(expected, path.replace(at, 18, "@"));
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(get_temp_file_path_with_suggest_name("x", false, nullptr));
    char old[] = "old";
    char* output = old;
    ASSERT_TRUE(get_temp_file_path_with_suggest_name("x", false, &output));
    EXPECT_NE("old", take(output)) << "reported and replaced";
    EXPECT_EQ(1u, log.count("function=get_temp_file_path_with_suggest_name", LOG_LEVEL_ERROR));
}

TEST_F(Fs, TemporaryFilesLieInTheDownloadDirectory) {
    library lib;
    setenv("TMPDIR", dir_.path().c_str(), 1);
    EXPECT_EQ(dir_.path() + "/", take(get_temp_directory()));
    std::set<std::string> names;
    for (int count = 0; count < 20; ++count) {
        char* output = nullptr;
        ASSERT_TRUE(get_temp_file_path_with_suggest_name("n.x", true, &output));
        std::string path = take(output);
        EXPECT_EQ(0u, path.find(dir_.path() + "/n_")) << path;
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
