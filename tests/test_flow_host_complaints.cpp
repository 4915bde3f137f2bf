// What hosts of such libraries complain of: calls inside callbacks, callbacks behind a close, races
// with a stop, half files under their final name, responses cut short.
#include "tests/support/host.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

extern char** environ;

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A session without a transfer around it, and how often it was reported.
struct bare_session {
    std::atomic<int> ends{0};
    http_session* handle = nullptr;
};

void count_end(http_session*, void* user_data, std::uint32_t) {
    static_cast<bare_session*>(user_data)->ends++;
}

// ---------------------------------------------------------------------------- inside callbacks

// The whole interface but start and stop.
void call_everything(transfer& self, scripted_server& other, bare_session& side) {
    proxy_info none = {};
    char directory[256];
    std::int32_t length = sizeof directory;
    for (std::uint32_t query = 0; query < 30; query++) {
        char first[4096] = "Content-Length";
        char second[8192] = "";
        std::int32_t size = sizeof first;
        std::int32_t room = sizeof second;
        bool is_raw = query == TAV_HTTP_QUERY_RAW_HEADERS;
        tavHTTPQueryInfo(self.handle(), query, first, is_raw ? static_cast<void*>(&size) : second,
                         &room);
    }
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_INVALID_ARG}, self.send()) << "sent already";
    EXPECT_EQ(0, tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0));
    EXPECT_EQ(0u, tavHTTPSetDefaultProxy(&none));
    EXPECT_EQ(0u, tavHTTPSetDefaultProxy(nullptr));
    EXPECT_EQ(0u, tavHTTPSetUseThirdLSP(0));
    EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OTHER},
              tavHTTPGetDownloadDirectory(directory, &length));
    EXPECT_EQ(0u, tavHTTPSetLogCallback(nullptr));
    EXPECT_EQ(code::closing,
              tavHTTPClose(tavHTTPOpen(1, "http://127.0.0.1/", nullptr, nullptr, count_end)));
    side.handle = tavHTTPOpen(1, other.url().c_str(), nullptr, &side, count_end);
    EXPECT_EQ(0u, tavHTTPSetOption(side.handle, TAV_HTTP_OPTION_USER_AGENT, "side"));
    EXPECT_EQ(0u, tavHTTPSendRequest(side.handle));
}

TEST(InsideCallbacks, EveryFunctionMayBeCalled) {
    const std::string body = sample_bytes(100000);
    descriptor_guard descriptors;
    work_dir dir;
    for (const char* name : {"connecting", "connected", "progress", "redirect", "header", "start",
                             "data", "complete"}) {
        SCOPED_TRACE(name);
        library lib;
        scripted_server server(std::vector<script>{
            reply_with(response(302, "", "Location: /2\r\n")), reply_with(response(200, body))});
        scripted_server other(always(response(200, "side")));
        bare_session side;
        std::atomic<bool> called{false};
        transfer get(server.url("/1"));
        get.record();
        get.record_data();
        get.at(name, [&](transfer& self) {
            if (!called.exchange(true)) {
                call_everything(self, other, side);
            }
        });
        EXPECT_EQ(0u, get.run());
        EXPECT_TRUE(called);
        EXPECT_TRUE(body == get.data());
        EXPECT_TRUE(wait_until([&] { return side.ends == 1; })) << "the session sent inside";
        EXPECT_EQ(code::closing, tavHTTPClose(side.handle));
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(InsideCallbacks, ACompletionMayCloseItsSessionAndSendTheNext) {
    library lib;
    scripted_server server(always(response(200, "x")));
    const std::size_t count = 50;
    std::vector<std::unique_ptr<transfer>> chain;
    for (std::size_t i = 0; i < count; i++) {
        chain.push_back(std::make_unique<transfer>(server.url()));
        chain[i]->at("complete", [&, i](transfer& self) {
            EXPECT_EQ("x", self.body());
            self.close();
            if (i + 1 < count) {
                EXPECT_EQ(0u, chain[i + 1]->send());
            }
        });
    }
    EXPECT_EQ(0u, chain[0]->send());
    for (auto& one : chain) {
        EXPECT_EQ(0u, one->wait());
    }
}

std::atomic<int> log_calls{0};

// A host that uses the library for its log lines, on whatever thread they come.
void busy_log(std::int32_t, const char*, const char*) {
    static thread_local bool inside = false;
    if (!inside) {
        inside = true;
        char directory[256];
        std::int32_t length = sizeof directory;
        tavHTTPGetDownloadDirectory(directory, &length);
        tavHTTPSetDefaultProxy(nullptr);
        tavHTTPSetConfig(TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS, 0);
        log_calls++;
        inside = false;
    }
}

TEST(InsideCallbacks, TheLogMayUseTheSettings) {
    tavHTTPSetLogCallback(busy_log);
    {
        library lib;
        work_dir dir;
        write_file("taken", "");
        tavHTTPSetDownloadDirectory("taken/sub");  // fails with a log line of its own
        scripted_server server(always(response(200, "x", "Set-Cookie: a=b\r\nSet-Cookie: c\r\n")));
        for (int i = 0; i < 5; i++) {
            transfer get(server.url());
            get.record();
            EXPECT_EQ(0u, get.run());
        }
    }
    tavHTTPSetLogCallback(nullptr);
    EXPECT_LT(100, log_calls);
}

// ----------------------------------------------------------------------------- behind a close

// A callback that runs while the close is called may still be running behind it; none begins.
TEST(Close, IsTheEndOfCallbacks) {
    constexpr std::size_t threads = 4;
    constexpr std::size_t each = 60;
    std::vector<std::unique_ptr<transfer>> all(threads * each);
    std::vector<std::size_t> events_at_close(threads * each);
    library lib;
    scripted_server server([](const received_request& request) {
        return request.target == "/r" ? response(302, "", "Location: /x\r\n")
                                      : response(200, sample_bytes(50000));
    });
    std::vector<std::thread> hosts;
    for (std::size_t thread = 0; thread < threads; thread++) {
        hosts.emplace_back([&, thread] {
            for (std::size_t i = 0; i < each; i++) {
                std::size_t index = thread * each + i;
                all[index] = std::make_unique<transfer>(server.url(i % 2 == 0 ? "/r" : "/x"));
                transfer& get = *all[index];
                get.record();
                get.record_data();
                get.set(TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
                get.send();
                // Closed behind a different number of callbacks each, some cancelled before.
                wait_until([&] { return get.events().size() >= i % 9 || get.completed(); });
                if (i % 4 == 0) {
                    get.cancel();
                }
                get.close();
                events_at_close[index] = get.events().size();
            }
        });
    }
    for (std::thread& host : hosts) {
        host.join();
    }
    lib.shutdown();
    std::size_t late = 0;
    for (std::size_t i = 0; i < all.size(); i++) {
        std::size_t behind = all[i]->events().size() - events_at_close[i];
        late += behind;
        EXPECT_LE(behind, 1u) << all[i]->event_names();
        EXPECT_LE(all[i]->completions(), 1);
        if (all[i]->completions() == 1) {
            EXPECT_EQ("complete", all[i]->events().back().name);
        }
    }
    EXPECT_LT(late, all.size() / 4) << "one that had begun and was not yet seen is rare";
}

// -------------------------------------------------------------------------- races with a stop

// Threads of a host that know nothing of each other, and one that starts and stops the library.
class Race : public testing::Test {
  protected:
    Race() : server(always(response(200, sample_bytes(3000)))) {
    }

    void play_host(int thread) {
        for (int i = 0; !finished; i++) {
            auto* record = new bare_session;  // callbacks may come until the next stop is over
            {
                std::lock_guard<std::mutex> guard(mutex);
                records.emplace_back(record);
            }
            record->handle = tavHTTPOpen(1, server.url().c_str(), nullptr, record, count_end);
            tavHTTPSetOption(record->handle, TAV_HTTP_OPTION_IO_TIMEOUT, 5000);
            int stops_before = stops;
            bool sent = tavHTTPSendRequest(record->handle) == 0;
            if ((i + thread) % 3 == 0) {
                tavHTTPCancelRequest(record->handle);
            }
            if (sent && (i + thread) % 4 != 0) {
                // Reported, or dropped by a stop that began after the send.
                if (!wait_until([&] { return record->ends == 1 || stops > stops_before; })) {
                    lost++;
                }
            }
            refused += sent ? 0 : 1;
            accepted += sent ? 1 : 0;
            if (tavHTTPClose(record->handle) != 0) {
                record->handle = nullptr;
            }
        }
    }

    scripted_server server;
    std::atomic<bool> finished{false};
    std::atomic<int> stops{0}, accepted{0}, refused{0}, lost{0};
    std::mutex mutex;  // guards what follows
    std::vector<std::unique_ptr<bare_session>> records;
};

TEST_F(Race, ManyThreadsAgainstStartAndStop) {
    descriptor_guard descriptors;
    std::vector<std::thread> hosts;
    for (int thread = 0; thread < 8; thread++) {
        hosts.emplace_back([this, thread] { play_host(thread); });
    }
    for (int round = 0; round < 25; round++) {
        EXPECT_EQ(0u, tavHTTPStartup());
        int before = accepted;
        EXPECT_TRUE(wait_until([&] { return accepted >= before + 20; }));
        EXPECT_EQ(0u, tavHTTPShutdown());
        stops++;
        before = refused;
        EXPECT_TRUE(wait_until([&] { return refused >= before + 4; }));
    }
    finished = true;
    for (std::thread& host : hosts) {
        host.join();
    }
    EXPECT_EQ(0, lost) << "neither reported nor dropped by a stop";
    library lib;
    for (const auto& record : records) {
        EXPECT_LE(record->ends, 1);
        if (record->handle != nullptr) {
            EXPECT_EQ(code::closing, tavHTTPClose(record->handle));
        }
    }
    lib.shutdown();
    EXPECT_TRUE(descriptors.back_to_start());
}

// ------------------------------------------------------------------------------- partial files

constexpr char child_url[] = "KILLED_HOST_URL";

// In the child process of the next test: a host that downloads until it is killed.
class killed_host : public testing::Environment {
  public:
    void SetUp() override {
        const char* url = getenv(child_url);
        if (url == nullptr) {
            return;
        }
        library lib;
        transfer get(url);
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
        get.run(milliseconds(60000));
        _exit(0);
    }
};

testing::Environment* const environment = testing::AddGlobalTestEnvironment(new killed_host);

pid_t start_killed_host(const std::string& url) {
    setenv(child_url, url.c_str(), 1);
    char program[] = "/proc/self/exe";
    char* arguments[] = {program, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, program, &actions, nullptr, arguments, environ));
    unsetenv(child_url);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

TEST(PartialFile, AKilledHostLeavesNoneUnderTheName) {
    EXPECT_NE(nullptr, environment);
    std::string reply = response(200, sample_bytes(400000));
    for (bool old_file : {false, true}) {
        SCOPED_TRACE(old_file ? "over an old file" : "no file");
        work_dir dir;
        if (old_file) {
            write_file("out.bin", "old");
        }
        scripted_server server(
            script{expect_request(), send_text(reply.substr(0, 300000)), stall()});
        pid_t pid = start_killed_host(server.url());
        ASSERT_LT(0, pid);
        EXPECT_TRUE(wait_until([&] {
            std::vector<std::string> names = dir.names();
            return std::any_of(names.begin(), names.end(), [](const std::string& name) {
                return name != "out.bin" && read_file(name).size() >= 100000;
            });
        })) << "the download has not begun";
        EXPECT_EQ(0, kill(pid, SIGKILL));
        int status = 0;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(old_file ? "old" : "", read_file("out.bin"));
        EXPECT_EQ(old_file, file_exists("out.bin"));
    }
}

// No file may grow beyond `bytes` while it lives, as on a full disk.
class full_disk {
  public:
    explicit full_disk(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = bytes;
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    }
    ~full_disk() {
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before_));
        signal(SIGXFSZ, SIG_DFL);
    }

  private:
    rlimit before_ = {};
};

TEST(PartialFile, AFullDiskLeavesNone) {
    // Small bodies wait in the stream until it is closed: the failure comes at the last moment.
    const struct {
        std::size_t body;
        rlim_t room;
    } rows[] = {{400000, 100000}, {400000, 399999}, {5000, 4999}};
    for (const auto& row : rows) {
        for (bool chosen : {false, true}) {
            SCOPED_TRACE(std::to_string(row.body) + (chosen ? ", automatic name" : ", own name"));
            work_dir dir;
            write_file("out.bin", "old");
            library lib;
            ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
            scripted_server server(reply_with(response(200, sample_bytes(row.body))));
            transfer get(server.url("/x.bin"));
            if (chosen) {
                get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
            } else {
                get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            }
            std::uint32_t code = 0;
            {
                full_disk full(row.room);
                code = get.run();
            }
            EXPECT_EQ(code::write_file, code);
            EXPECT_EQ("old", read_file("out.bin"));
            EXPECT_THAT(dir.names(), ElementsAre("files", "out.bin"));
            EXPECT_EQ(0, rmdir("files")) << "something was left in it";
        }
    }
}

TEST(PartialFile, AVanishedFolderIsAnError) {
    std::string reply = response(200, sample_bytes(400000));
    for (const std::string fate : {"removed", "replaced", "moved"}) {
        SCOPED_TRACE(fate);
        work_dir dir;
        library lib;
        ASSERT_EQ(0, mkdir("folder", 0700));
        scripted_server server(script{expect_request(), send_text(reply.substr(0, 300000)), stall(),
                                      send_text(reply.substr(300000))});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "folder/out.bin");
        get.record();
        EXPECT_EQ(0u, get.send());
        ASSERT_TRUE(get.wait_for_event("start"));
        if (fate == "moved") {
            EXPECT_EQ(0, rename("folder", "elsewhere"));
        } else {
            std::filesystem::remove_all("folder");
            EXPECT_TRUE(fate == "removed" || mkdir("folder", 0700) == 0);
        }
        server.release();
        EXPECT_EQ(code::write_file, get.wait());
        EXPECT_FALSE(file_exists("folder/out.bin"));
        EXPECT_FALSE(file_exists("elsewhere/out.bin"));
    }
}

// ------------------------------------------------------------------------------- lost requests

TEST(CutShort, IsNeverComplete) {
    work_dir dir;
    library lib;
    std::string bytes = sample_bytes(100000);
    std::string plain = response(200, bytes);
    std::string part = response(206, bytes, "Content-Range: bytes 0-99999/200000\r\n");
    std::string chunked = chunked_response(200, bytes, 7000);
    std::string zipped = response(200, gzip_bytes(bytes), "Content-Encoding: gzip\r\n");
    for (const std::string& whole : {plain, part, chunked, zipped}) {
        // The last byte, the last line, a half, all but the head.
        for (std::size_t missing :
             {std::size_t{1}, std::size_t{5}, whole.size() / 2, bytes.size()}) {
            for (bool to_file : {false, true}) {
                SCOPED_TRACE(whole.substr(0, 90) + ", missing " + std::to_string(missing));
                scripted_server server(reply_and_close(whole.substr(0, whole.size() - missing)));
                transfer get(server.url());
                if (to_file) {
                    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
                }
                EXPECT_EQ(code::recv, get.run());
                EXPECT_THAT(dir.names(), IsEmpty());
            }
        }
    }
}

}  // namespace
