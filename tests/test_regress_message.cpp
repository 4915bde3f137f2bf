// Files and responses that once did harm.
#include "tests/support/host.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "tavhttpclient/fs.h"

using testing::ElementsAre;

namespace {

TEST(RegressFile, ATargetIsSettledUnderTheNameUnderWhichItWasOpened) {
    library lib;
    const std::string whole = response(200, "new");
    for (const std::string target : {"in\\out.bin", "in/\xFF\xFE.bin"}) {
        for (bool ok : {true, false}) {
            SCOPED_TRACE(target + (ok ? "" : ", cut short"));
            work_dir dir;
            ASSERT_EQ(0, mkdir("in", 0700));
            std::string stored =
                target[2] == '/' ? "in/\xEF\xBF\xBD\xEF\xBF\xBD.bin" : "in/out.bin";
            write_file(stored, "old");
            scripted_server server(reply_and_close(ok ? whole : whole.substr(0, whole.size() - 1)));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, target.c_str());
            EXPECT_EQ(ok ? 0u : code::recv, get.run());
            EXPECT_EQ(ok ? "new" : "old", read_file(stored));
            EXPECT_EQ(0, unlink(stored.c_str()));
            EXPECT_EQ(0, rmdir("in")) << "something was left in it";
        }
    }
}

void make_socket(const char* path) {
    int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    EXPECT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(descriptor);
}

TEST(RegressFile, SpecialFilesAreNeitherReadNorReplacedNorWaitedFor) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    ASSERT_EQ(0, symlink("/dev/null", "device"));
    make_socket("socket");
    scripted_server server(reply_with(response(200, "body")));
    for (const char* path : {"fifo", "device", "socket"}) {
        SCOPED_TRACE(path);
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path);
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE}, post.run());
        for (std::uint32_t resume : {0u, 1u}) {
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path);
            get.set(TAV_HTTP_OPTION_RESUME, resume);
            EXPECT_EQ(code::open_file, get.run());
        }
    }
    EXPECT_THAT(dir.names(), ElementsAre("device", "fifo", "socket"));
}

TEST(RegressFile, NewFilesAreNewAndStayInThisProcess) {
    work_dir dir;
    write_file("taken", "old");
    ASSERT_EQ(0, symlink("elsewhere", "link"));
    FILE* file = nullptr;
    EXPECT_EQ(EEXIST, tavhttp_fopen("taken", "w+bx", &file));
    EXPECT_EQ(EEXIST, tavhttp_fopen("link", "w+bx", &file));
    EXPECT_EQ("old", read_file("taken"));
    EXPECT_FALSE(file_exists("elsewhere"));

    int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    int err = tavhttp_fopen("new", "w+bx", &file);
    dup2(input, STDIN_FILENO);
    close(input);
    ASSERT_EQ(0, err);
    EXPECT_LT(STDERR_FILENO, fileno(file)) << "it would be the host's standard input";
    EXPECT_TRUE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, tavhttp_fclose(file));
}

}  // namespace
