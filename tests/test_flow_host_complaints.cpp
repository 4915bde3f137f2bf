// What hosts of such libraries complain of: calls inside callbacks, callbacks behind a close, races
// with a stop, half files under their final name, requests that get lost.
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

// ---------------------------------------------------------------------------- inside callbacks

const char* const callback_names[] = {"connecting", "connected", "progress", "redirect",
                                      "header",     "start",     "data",     "complete"};

std::vector<script> redirect_then_body() {
    return {{expect_request(), send_text(response(302, "", "Location: /2\r\n"))},
            {expect_request(), send_text(response(200, sample_bytes(100000)))}};
}

// Sessions that callbacks have opened; closed when the library cannot have released them.
struct side_session {
    std::atomic<int> ends{0};
    http_session* handle = nullptr;
};

void end_side_session(http_session*, void* user_data, std::uint32_t) {
    static_cast<side_session*>(user_data)->ends++;
}

// Every query, on whatever there is yet. The buffers are large enough for each of them.
void ask_everything(http_session* session) {
    for (std::uint32_t query = 0; query < 30; query++) {
        char first[4096] = "Content-Length";
        char second[8192] = "";
        std::int32_t length = sizeof second;
        std::int32_t size = sizeof first;
        bool is_raw = query == TAV_HTTP_QUERY_RAW_HEADERS;
        tavHTTPQueryInfo(session, query, first, is_raw ? static_cast<void*>(&size) : second,
                         &length);
    }
}

// The whole interface but start and stop.
void call_everything(transfer& self, scripted_server& other, side_session& side) {
    proxy_info none = {};
    char directory[256];
    std::int32_t length = sizeof directory;
    ask_everything(self.handle());
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_INVALID_ARG}, self.send()) << "sent already";
    EXPECT_EQ(0, tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0));
    EXPECT_EQ(0u, tavHTTPSetDefaultProxy(&none));
    EXPECT_EQ(0u, tavHTTPSetDefaultProxy(nullptr));
    EXPECT_EQ(0u, tavHTTPSetUseThirdLSP(0));
    EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OTHER},
              tavHTTPGetDownloadDirectory(directory, &length));
    EXPECT_EQ(0u, tavHTTPSetLogCallback(nullptr));
    http_session* unsent =
        tavHTTPOpen(TAV_HTTP_METHOD_GET, "http://127.0.0.1/", nullptr, nullptr, end_side_session);
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC}, tavHTTPClose(unsent));
    side.handle =
        tavHTTPOpen(TAV_HTTP_METHOD_GET, other.url().c_str(), nullptr, &side, end_side_session);
    EXPECT_EQ(0u, tavHTTPSetOption(side.handle, TAV_HTTP_OPTION_USER_AGENT, "side"));
    EXPECT_EQ(0u, tavHTTPSendRequest(side.handle));
}

TEST(InsideCallbacks, EveryFunctionMayBeCalled) {
    descriptor_guard descriptors;
    work_dir dir;
    for (const char* name : callback_names) {
        SCOPED_TRACE(name);
        library lib;
        scripted_server server(redirect_then_body());
        scripted_server other([](const received_request&) { return response(200, "side"); });
        side_session side;
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
        EXPECT_EQ(sample_bytes(100000), get.data());
        EXPECT_TRUE(wait_until([&] { return side.ends == 1; })) << "the session sent inside";
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC}, tavHTTPClose(side.handle));
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// Completion chains of hosts: the next session is sent, and this one closed, inside the completion.
TEST(InsideCallbacks, ACompletionMayCloseItsSessionAndSendTheNext) {
    descriptor_guard descriptors;
    {
        library lib;
        scripted_server server([](const received_request&) { return response(200, "x"); });
        const std::size_t count = 50;
        std::vector<std::unique_ptr<transfer>> chain;
        for (std::size_t i = 0; i < count; i++) {
            chain.push_back(std::make_unique<transfer>(server.url()));
        }
        for (std::size_t i = 0; i < count; i++) {
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
    EXPECT_TRUE(descriptors.back_to_start());
}

thread_local bool inside_log = false;
std::atomic<int> log_calls{0};

// A host that uses the library for its log lines, on whatever thread they come.
void busy_log(std::int32_t, const char*, const char*) {
    if (inside_log) {
        return;
    }
    inside_log = true;
    char directory[256];
    std::int32_t length = sizeof directory;
    tavHTTPGetDownloadDirectory(directory, &length);
    tavHTTPSetDefaultProxy(nullptr);
    tavHTTPSetConfig(TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS, 0);
    log_calls++;
    inside_log = false;
}

TEST(InsideCallbacks, TheLogMayUseTheSettings) {
    tavHTTPSetLogCallback(busy_log);
    {
        library lib;
        work_dir dir;
        write_file("taken", "");
        // Fails with a log line of its own.
        tavHTTPSetDownloadDirectory("taken/sub");
        scripted_server server([](const received_request&) {
            return response(200, "x", "Set-Cookie: a=b\r\nSet-Cookie: c\r\n");
        });
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
    const int threads = 4;
    std::vector<std::unique_ptr<transfer>> all;
    std::vector<std::size_t> events_at_close(threads * 60);
    for (int i = 0; i < threads * 60; i++) {
        all.push_back(nullptr);
    }
    library lib;
    scripted_server server([](const received_request& request) {
        return request.target == "/r" ? response(302, "", "Location: /x\r\n")
                                      : response(200, sample_bytes(50000));
    });
    std::vector<std::thread> hosts;
    for (int thread = 0; thread < threads; thread++) {
        hosts.emplace_back([&, thread] {
            for (int i = 0; i < 60; i++) {
                auto index = static_cast<std::size_t>(thread * 60 + i);
                all[index] = std::make_unique<transfer>(server.url(i % 2 == 0 ? "/r" : "/x"));
                transfer& get = *all[index];
                get.record();
                get.record_data();
                get.set(TAV_HTTP_OPTION_PRIORITY, TAV_HTTP_PRIORITY_HIGH);
                get.send();
                // Closed behind a different number of callbacks each.
                std::size_t seen = static_cast<std::size_t>(i % 9);
                wait_until([&] { return get.events().size() >= seen || get.completed(); });
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
    // One that had begun and was not yet seen is rare.
    EXPECT_LT(late, all.size() / 4);
}

// -------------------------------------------------------------------------- races with a stop

struct raced_session {
    std::atomic<int> ends{0};
};

void end_raced_session(http_session*, void* user_data, std::uint32_t) {
    static_cast<raced_session*>(user_data)->ends++;
}

// Threads of a host that know nothing of each other, and one that starts and stops the library.
class Race : public testing::Test {
  protected:
    Race() : server([](const received_request&) { return response(200, sample_bytes(3000)); }) {
    }

    void play_host(int thread) {
        for (int i = 0; !finished; i++) {
            auto* record = new raced_session;  // callbacks may come until the next stop is over
            {
                std::lock_guard<std::mutex> guard(mutex);
                records.emplace_back(record);
            }
            http_session* session = tavHTTPOpen(TAV_HTTP_METHOD_GET, server.url().c_str(), nullptr,
                                                record, end_raced_session);
            tavHTTPSetOption(session, TAV_HTTP_OPTION_IO_TIMEOUT, 5000);
            int stops_before = stops;
            bool sent = tavHTTPSendRequest(session) == 0;
            if ((i + thread) % 3 == 0) {
                tavHTTPCancelRequest(session);
            }
            if (sent && (i + thread) % 4 != 0) {
                // Reported, or dropped by a stop that began after the send.
                if (!wait_until([&] { return record->ends == 1 || stops > stops_before; })) {
                    lost++;
                }
            }
            refused += sent ? 0 : 1;
            accepted += sent ? 1 : 0;
            if (tavHTTPClose(session) == 0) {
                std::lock_guard<std::mutex> guard(mutex);
                unclosed.push_back(session);
            }
        }
    }

    scripted_server server;
    std::atomic<bool> finished{false};
    std::atomic<int> stops{0};
    std::atomic<int> accepted{0};
    std::atomic<int> refused{0};
    std::atomic<int> lost{0};
    std::mutex mutex;  // guards what follows
    std::vector<std::unique_ptr<raced_session>> records;
    std::vector<http_session*> unclosed;
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
    for (const auto& record : records) {
        EXPECT_LE(record->ends, 1);
    }
    library lib;
    for (http_session* session : unclosed) {
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC}, tavHTTPClose(session));
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
    std::string setting = std::string(child_url) + "=" + url;
    std::vector<char*> variables;
    for (char** one = environ; *one != nullptr; one++) {
        if (strncmp(*one, "GTEST_", 6) != 0) {
            variables.push_back(*one);
        }
    }
    variables.push_back(&setting[0]);
    variables.push_back(nullptr);
    char program[] = "/proc/self/exe";
    char* arguments[] = {program, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, program, &actions, nullptr, arguments, variables.data()));
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

TEST(PartialFile, AKilledHostLeavesNoneUnderTheName) {
    EXPECT_NE(nullptr, environment);
    std::string reply = response(200, sample_bytes(400000));
    for (bool old_file : {false, true}) {
        SCOPED_TRACE(old_file);
        work_dir dir;
        if (old_file) {
            write_file("out.bin", "old");
        }
        scripted_server server(
            script{expect_request(), send_text(reply.substr(0, 300000)), stall()});
        pid_t pid = start_killed_host(server.url());
        ASSERT_LT(0, pid);
        auto has_bytes = [&] {
            for (const std::string& name : dir.names()) {
                if (name != "out.bin" && read_file(name).size() >= 100000) {
                    return true;
                }
            }
            return false;
        };
        EXPECT_TRUE(wait_until(has_bytes)) << "the download has not begun";
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
        std::uint32_t code;
    } rows[] = {{400000, 100000, TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE},
                {400000, 399999, 0},
                {5000, 4999, 0},
                {5000, 0, 0}};
    for (const auto& row : rows) {
        for (bool chosen : {false, true}) {
            SCOPED_TRACE(std::to_string(row.body) + (chosen ? " option 102" : " option 101"));
            work_dir dir;
            write_file("out.bin", "old");
            library lib;
            ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
            scripted_server server(
                script{expect_request(), send_text(response(200, sample_bytes(row.body)))});
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
            EXPECT_TRUE(row.code != 0 ? code == row.code : code != 0) << code;
            EXPECT_EQ("old", read_file("out.bin"));
            EXPECT_THAT(dir.names(), ElementsAre("files", "out.bin"));
            EXPECT_EQ(0, rmdir("files")) << "something was left in it";
        }
    }
}

TEST(PartialFile, AVanishedFolderIsAnError) {
    std::string reply = response(200, sample_bytes(400000));
    for (const char* fate : {"removed", "replaced", "moved"}) {
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
        if (std::string("moved") == fate) {
            EXPECT_EQ(0, rename("folder", "elsewhere"));
        } else {
            std::filesystem::remove_all("folder");
        }
        if (std::string("replaced") == fate) {
            EXPECT_EQ(0, mkdir("folder", 0700));
        }
        server.release();
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE}, get.wait());
        EXPECT_FALSE(file_exists("folder/out.bin"));
        EXPECT_FALSE(file_exists("elsewhere/out.bin"));
    }
}

// ------------------------------------------------------------------------------- lost requests

// The server promises to keep each connection and closes it at once: some requests meet the close.
TEST(IdleClose, LosesNoRequest) {
    descriptor_guard descriptors;
    {
        library lib;
        scripted_server server(script{expect_request(),
                                      send_text(response(200, "x", "Connection: keep-alive\r\n")),
                                      close_now()});
        for (std::uint32_t i = 0; i < 100; i++) {
            bool posts = i % 2 != 0;
            transfer one(server.url(), posts ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET);
            if (posts) {
                one.set(TAV_HTTP_OPTION_APPEND_BODY, "body", 4u);
            }
            EXPECT_EQ(0u, one.run());
            EXPECT_EQ("x", one.body());
            EXPECT_EQ(1, one.completions());
        }
        EXPECT_EQ(100u, server.connection_count());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

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
                if (missing >= whole.size()) {
                    continue;
                }
                scripted_server server(script{expect_request(),
                                              send_text(whole.substr(0, whole.size() - missing)),
                                              half_close()});
                transfer get(server.url());
                if (to_file) {
                    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
                }
                EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_RECV}, get.run());
                EXPECT_THAT(dir.names(), IsEmpty());
            }
        }
    }
}

// Proxies that answer one byte at a time are judged by what comes first; the verdict is early, but
// it is a verdict, and the next session is not touched by it.
TEST(SlowProxy, EndsWithACodeAndLeavesNothingBehind) {
    using namespace std::string_literals;
    descriptor_guard descriptors;
    struct {
        std::uint32_t type;
        script steps;
        std::uint32_t code;
    } rows[] = {
        {TAV_HTTP_PROXY_HTTP,
         {expect_request(), send_text("H"), stall(),
          send_bytewise("TTP/1.1 200 Connection established\r\n\r\n")},
         TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT},
        {TAV_HTTP_PROXY_SOCKS5,
         {read_bytes(3), send_text("\x05"s), stall(), send_text("\x00"s)},
         TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY},
        {TAV_HTTP_PROXY_SOCKS5,
         {read_bytes(3), send_text("\x05\x00"s), read_bytes(18), send_text("\x05"s), stall(),
          send_bytewise("\x00\x00\x01\x7f\x00\x00\x01\x00\x50"s)},
         TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY},
    };
    {
        library lib;
        scripted_server direct([](const received_request&) { return response(200, "x"); });
        for (auto& row : rows) {
            scripted_server server(row.steps);
            char host[] = "127.0.0.1";
            proxy_info proxy = {};
            proxy.type = row.type;
            proxy.host = host;
            proxy.port = server.port();
            transfer get("http://target.test:8080/path", TAV_HTTP_METHOD_GET, &proxy);
            get.record();
            EXPECT_EQ(row.code, get.run());
            EXPECT_EQ("connecting complete", get.event_names());
            server.release();
            EXPECT_TRUE(server.wait_for_disconnects(1));
            transfer next(direct.url());
            EXPECT_EQ(0u, next.run());
            EXPECT_EQ("x", next.body());
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

}  // namespace
