// What takes a system of its own: clocks that run ahead, names that never resolve, calls that fail,
// killed hosts, full disks, queues of many thousands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/inside.h"
#include "support/transfers.h"

namespace {

std::unique_ptr<transfer> send_to_hanging_name(std::int32_t timeout) {
    auto get = std::make_unique<transfer>("http://hang/");
    get->set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, timeout);
    EXPECT_EQ("OK", get->send());
    return get;
}

bool hangs(int count) {
    return wait_until([count] { return hanging_lookups() == count; });
}

// ------------------------------------------------------------------------------- name lookups

TEST(HungLookup, EndsWithTheTimeOutsOfItsSession) {
    held_lookups held;
    {
        library lib;
        std::unique_ptr<transfer> late = send_to_hanging_name(20000);
        std::unique_ptr<transfer> cancelled = send_to_hanging_name(20000);
        EXPECT_EQ("OK", cancelled->cancel());
        int seconds = seconds_until([&] { return late->completed() && cancelled->completed(); });
        EXPECT_LE(18, seconds);
        EXPECT_EQ("FAIL_CONNECT", late->wait());
        EXPECT_EQ("CANCEL", cancelled->wait());
    }
    release_lookups();
    EXPECT_TRUE(hangs(0));
    { library once_more; }  // clears away what is left of the first
}

// Stops while names hang, starts again beside them, and ends with nothing left of the old loops.
TEST(HungLookup, HoldsUpNeitherAStopNorTheNextStart) {
    held_lookups held;
    log_capture log;
    {
        library lib;
        peer server(always(response(200, "x")));
        for (int round = 1; round <= 3; round++) {
            std::unique_ptr<transfer> get = send_to_hanging_name(300);
            // With both workers that look names up taken, a third lookup is taken back unbegun.
            EXPECT_TRUE(round == 3 ? on_loop([] {}) : hangs(round));
            lib.shutdown();
            EXPECT_EQ(1, get->completions());
            EXPECT_EQ("CANCEL", get->wait());
            lib.startup();
            if (round == 1) {  // the second of the two is still free
                transfer other(server.url());
                EXPECT_EQ("OK", other.run());
            }
        }
        EXPECT_EQ(2, hanging_lookups());
        release_lookups();
        ASSERT_TRUE(hangs(0));
        EXPECT_EQ(0u, log.count("function=_drain_loop"));
    }
    { library once_more; }  // clears away what the last of them left
}

// Lookups take at most half of the workers: what runs already goes on with its files.
TEST(HungLookup, LeavesWorkersForFilesAndCallbacks) {
    held_lookups held;
    work_dir dir;
    library lib;
    std::string bytes = sample_bytes(3000000), reply = response(200, bytes);
    peer server(script{expect_request(), send_text(reply.substr(0, 100000)), stall(),
                       send_text(reply.substr(100000))});
    transfer get(server.url());
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    get.record();
    EXPECT_EQ("OK", get.send());
    ASSERT_TRUE(get.wait_for_event("start"));
    transfers hanging;
    for (int i = 0; i < 5; i++) {
        hanging.push_back(send_to_hanging_name(60000));
    }
    ASSERT_TRUE(hangs(2));
    server.release();
    EXPECT_EQ("OK", get.wait());
    EXPECT_TRUE(bytes == read_file("out.bin"));
    EXPECT_EQ(2, hanging_lookups());
    release_lookups();
    for (auto& one : hanging) {
        EXPECT_EQ("FAIL_CONNECT", one->wait());
    }
}

// ---------------------------------------------------------------------------------- the queue

std::atomic<int> ended{0}, schedule_lines{0};

void count_end(http_session*, void* user_data, std::uint32_t) {
    (*static_cast<std::atomic<int>*>(user_data))++;
    ended++;
}

void count_schedule_lines(std::int32_t, const char*, const char* text) {
    schedule_lines += strncmp(text, "_schedule_task:", 15) == 0 ? 1 : 0;
}

// `count` sessions wait behind six, which wait for their server; then one after the other gets its
// turn. They are refused for their method when they start, so that only the queue has work. One
// more has short time-outs, which begin with its turn.
TEST(Queue, SchedulesOncePerEndAndNeedsLittleMemory) {
    const int count = 10000;
    library lib;
    peer server(script{expect_request(), stall(), send_text(response(200, "x"))});
    transfers all;
    std::vector<http_session*> queued;
    std::vector<std::atomic<int>> ends(count);
    for (std::int32_t timeout :
         {86400000, 86400000, 86400000, 86400000, 86400000, 86400000, 20000}) {
        EXPECT_TRUE(server.wait_for_requests(all.size()));
        all.push_back(std::make_unique<transfer>(server.url()));
        for (std::uint32_t option : {TAV_HTTP_OPTION_CONNECT_TIMEOUT, TAV_HTTP_OPTION_IO_TIMEOUT,
                                     TAV_HTTP_OPTION_SESSION_TIMEOUT}) {
            all.back()->set(option, timeout);
        }
        EXPECT_EQ("OK", all.back()->send());
    }
    ended = schedule_lines = 0;
    tavHTTPSetLogCallback(count_schedule_lines);
    std::size_t bytes = mallinfo2().uordblks;
    for (int i = 0; i < count; i++) {
        std::atomic<int>* own = &ends[static_cast<std::size_t>(i)];
        queued.push_back(tavHTTPOpen(9, server.url().c_str(), nullptr, own, count_end));
        tavHTTPSetOption(queued.back(), TAV_HTTP_OPTION_QUEUE_FIFO, i % 2 != 0 ? 1u : 0u);
        EXPECT_EQ(0u, tavHTTPSendRequest(queued.back()));
    }
    on_loop([] {});  // behind the last send
    EXPECT_GT(8192u * count, mallinfo2().uordblks - bytes);
    EXPECT_EQ(0, ended) << "nobody's turn yet";
    for (int i = 0; i < 10; i++) {
        advance_clock(60);
    }
    EXPECT_FALSE(all.back()->completed());
    server.release();
    EXPECT_TRUE(wait_until([] { return ended == count; }));
    for (auto& one : all) {
        EXPECT_EQ("OK", one->wait());
    }
    for (std::size_t i = 0; i < queued.size(); i++) {
        EXPECT_EQ(1, ends[i]);
        tavHTTPClose(queued[i]);
    }
    // Once for each that is added, once for each that ends, the seven included.
    EXPECT_GE(2 * (count + 7), schedule_lines);
    watch_assertions();
}

// ----------------------------------------------------------------------------- silent servers

TEST(SilentServer, EveryStepHasItsTimeOut) {
    allow_assertion("");
    library lib;
    blackhole nobody;
    peer deaf(stall(), {.receive_buffer = 4096}), mute(expect_request());
    peer half(reply_with(response(200, sample_bytes(90000)).substr(0, 50000)));
    peer http_peer(script{read_bytes(10)}), socks_peer(script{read_bytes(3)});
    peer tls_peer(script{tls(), expect_request()});
    static const std::string upload(20000000, 'u');
#if TAV_HTTP_WITH_TLS
    // A peer that sends a record a byte at a time is in time with every one of them.
    auto drip = [](const std::string& head) {
        return [head](wire& w) {
            for (bool open = w.write_raw(head); open; open = w.write_raw("x")) {
                usleep(1000);
            }
            return false;
        };
    };
    peer drip_hello(script{read_bytes(1), drip(bytes_of("\x16\3\3\x40\0"))});
    peer drip_body(script{tls(), expect_request(), drip(bytes_of("\x17\3\3\x40\0"))});
#endif
    const std::string nobody_url = "http://127.0.0.1:" + std::to_string(nobody.port) + "/";
    // The host sets seven seconds; some steps have a time-out of their own.
    const struct {
        const char* title;
        std::string url;
        peer* server;  // that has seen something before the clock runs
        std::uint32_t proxy_type;
        int least;  // seconds
        const char* code;
    } rows[] = {
        {"connect", nobody_url, nullptr, 0, 6, "FAIL_CONNECT"},
        {"connect to a proxy", "http://a.test/", nullptr, 2, 6, "FAIL_CONNECT"},
        {"send", deaf.url(), nullptr, 0, 6, "SEND_TIMEOUT"},
        {"no head", mute.url(), &mute, 0, 6, "RECV_TIMEOUT"},
        {"half a body", half.url(), &half, 0, 6, "RECV_TIMEOUT"},
        {"HTTP proxy", "http://a.test/", &http_peer, 1, 29, "CONNECT_PROXY_FAIL_RECV"},
        {"SOCKS5 proxy", "http://a.test/", &socks_peer, 2, 29, "RECV_TIMEOUT"},
#if TAV_HTTP_WITH_TLS
        {"TLS handshake", http_peer.url("/", "https"), &http_peer, 0, 29, "RECV_TIMEOUT"},
        {"TLS response", tls_peer.url("/", "https"), &tls_peer, 0, 29, "RECV_TIMEOUT"},
        {"dripping hello", drip_hello.url("/", "https"), &drip_hello, 0, 6, "RECV_TIMEOUT"},
        {"dripping body", drip_body.url("/", "https"), &drip_body, 0, 6, "RECV_TIMEOUT"},
#endif
    };
    for (const auto& row : rows) {
        for (const std::string end : {"step", "cancel", "session", "close", "stop"}) {
            bool whole = end == "session", drips = strncmp(row.title, "drip", 4) == 0;
            SCOPED_TRACE(row.title + (", end of " + end));
            log_capture log;
            proxy info(row.proxy_type, row.server != nullptr ? row.server->port() : nobody.port);
            transfer one(row.url, row.url == deaf.url() ? 2 : 1, row.proxy_type ? &info : nullptr);
            if (row.url == deaf.url()) {
                one.set_body(upload);
            }
            one.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, whole ? 600000 : 7000);
            one.set(TAV_HTTP_OPTION_IO_TIMEOUT, whole ? 600000 : 7000);
            one.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, !whole ? 100000 : drips ? 300 : 3000);
            std::size_t before = row.server != nullptr ? row.server->request_count() : 0;
            EXPECT_EQ("OK", one.send());
            EXPECT_TRUE(row.server != nullptr
                            ? row.server->wait_for_requests(before + 1)
                            : log.wait_for_line(row.url == deaf.url() ? "req header, "
                                                                      : "_start_connect, ctx="));
            if (end == "close" || end == "stop") {  // neither waits for the network
                auto begin = std::chrono::steady_clock::now();
                if (end == "close") {
                    EXPECT_EQ("FAIL_START_ASYNC", one.close());
                    EXPECT_TRUE(log.wait_for_line("session canceled, id="));
                } else {
                    lib.shutdown();
                    EXPECT_EQ(1, one.completions()) << "told before the shut-down returns";
                    EXPECT_EQ("CANCEL", one.wait());
                    lib.startup();
                }
                EXPECT_GT(std::chrono::seconds(5), std::chrono::steady_clock::now() - begin);
                continue;
            }
            if (drips && end != "step") {  // by the real clock: the fake one outruns the bytes
                EXPECT_TRUE(whole || one.cancel() == "OK");
                EXPECT_EQ(whole ? "SESSION_TIMEOUT" : "CANCEL", one.wait());
                continue;
            }
            bool cancels = end == "cancel";  // which waits for the step
            EXPECT_TRUE(!cancels || one.cancel() == "OK");
            int seconds = seconds_until([&] { return one.completed(); });
            EXPECT_EQ(cancels ? "CANCEL" : whole ? "SESSION_TIMEOUT" : row.code, one.wait());
            EXPECT_LE(cancels ? 0 : whole ? 2 : row.least, seconds);
        }
    }
    deaf.release();
}

// A callback of the host that holds the loop thread up times nothing out.
TEST(SlowHost, LosesNoAnswerThatIsThere) {
    library lib;
    for (bool uploads : {true, false}) {
        peer server(uploads ? reply_with(response(200, "late"))
                            : script{expect_request(), stall(), send_text(response(200, "late"))});
        transfer one(server.url(), uploads ? 2 : 1);
        one.set(TAV_HTTP_OPTION_IO_TIMEOUT, 100);
        one.set_body("bytes");
        if (uploads) {
            one.at("progress", [](transfer&) { usleep(250000); });
        }
        EXPECT_EQ("OK", one.send());
        EXPECT_TRUE(server.wait_for_requests(1));
        on_loop([&] {
            server.release();
            usleep(uploads ? 0 : 250000);
        });
        EXPECT_EQ("OK", one.wait());
        EXPECT_EQ("late", one.body());
    }
}

TEST(SlowHost, HasItsTimeOutsWholeBehindACallback) {
    library lib;
    peer server(script{expect_request(), stall(), send_text(response(200, "x"))});
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.set(TAV_HTTP_OPTION_IO_TIMEOUT, 20000);
    post.set_body("bytes");
    post.at("progress", [](transfer&) { advance_clock(60); });
    EXPECT_EQ("OK", post.send());
    // Each of the two calls may end a wait as well, whose clock is the same.
    EXPECT_TRUE(server.wait_for_requests(1) || server.wait_for_requests(1) ||
                server.wait_for_requests(1));
    EXPECT_FALSE(wait_until([&] { return post.completed(); }, milliseconds(100)));
    server.release();
    EXPECT_EQ("OK", post.wait());
}

// ------------------------------------------------------------------------------- single failures

// The write itself begins; what it reports later is an error.
TEST(SingleFailure, OfAWriteInItsCallback) {
    const struct {
        way through;
        long write;
        const char* code;
    } rows[] = {{way::socks5, 1, "CONNECT_PROXY_FAIL_SEND"},
                {way::socks5, 2, "CONNECT_PROXY_FAIL_SEND"},
                {way::socks5, 3, "CONNECT_PROXY_FAIL_SEND"},
                {way::http_proxy, 1, "CONNECT_PROXY_FAIL_SEND"},
                {way::plain, 1, "FAIL_SEND"}};
    library lib;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.write);
        peer server(open_way(row.through) + reply_with(response(200, "x")));
        proxy info(row.through == way::socks5 ? 2 : 1, server.port(), "user", "secret");
        bool direct = row.through == way::plain;
        transfer one(direct ? server.url() : "http://target.test:8080/", 1,
                     direct ? nullptr : &info);
        fail_calls("uv_write callback", row.write);
        EXPECT_EQ(row.code, one.run());
        fail_nothing();
    }
}

TEST(SingleFailure, OfThePool) {
    allow_assertion("");
    library lib;
    peer server(always(response(200, "x")));
    // Steps that find no worker looking for them are given to the pool again.
    for (long first : {1, 2, 3, 5, 8}) {
        transfers all;
        fail_calls("uv_queue_work", first, 2);
        for (int i = 0; i < 4; i++) {
            all.push_back(std::make_unique<transfer>(server.url()));
            EXPECT_EQ("OK", all.back()->send());
        }
        for (auto& one : all) {
            EXPECT_NE(not_completed, one->wait());
        }
        fail_nothing();
    }
}

// ------------------------------------------------------------------------------- partial files

// A host that downloads until a part has been written, and is killed then.
[[noreturn]] void download_until_killed() {
    std::filesystem::current_path(getenv("KILLED_HOST_DIRECTORY"));
    library lib;
    transfer get(getenv("KILLED_HOST_URL"));
    get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
    get.send();
    for (;;) {
        for (const std::string& file : list_files(".")) {
            if (file != "./out.bin" && std::filesystem::file_size(file) >= 100000) {
                kill(getpid(), SIGKILL);
            }
        }
    }
}

TEST(PartialFile, AKilledHostLeavesNoneUnderTheName) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    work_dir dir;
    write_file("out.bin", "old");
    peer server(
        script{expect_request(), send_text(response(200, sample_bytes(400000)).substr(0, 300000))});
    // The child finds the server's address, and its directory, in the environment.
    setenv("KILLED_HOST_URL", server.url().c_str(), 0);
    setenv("KILLED_HOST_DIRECTORY", dir.path().c_str(), 0);
    EXPECT_EXIT(download_until_killed(), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ("old", read_file("out.bin"));
    unsetenv("KILLED_HOST_URL");
    unsetenv("KILLED_HOST_DIRECTORY");
}

// No file may grow beyond `bytes`, as on a full disk.
rlim_t limit_files(rlim_t bytes) {
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    std::swap(limit.rlim_cur, bytes);
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    return bytes;
}

TEST(PartialFile, AFullDiskLeavesNone) {
    // Small bodies wait in the stream until it is closed: the failure comes at the last moment.
    const struct {
        std::size_t body;
        rlim_t room;
    } rows[] = {{400000, 100000}, {400000, 399999}, {5000, 4999}};
    signal(SIGXFSZ, SIG_IGN);
    library lib;
    for (const auto& row : rows) {
        for (bool chosen : {false, true}) {
            SCOPED_TRACE(std::to_string(row.body) + (chosen ? ", chosen name" : ", own name"));
            work_dir dir;
            write_file("out.bin", "old");
            ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("files"));
            peer server(always(response(200, sample_bytes(row.body))));
            transfer get(server.url("/x.bin"));
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            if (chosen) {
                get.set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
            }
            rlim_t before = limit_files(row.room);
            EXPECT_EQ("FAIL_WRITE_RESPONSE_FILE", get.run());
            limit_files(before);
            EXPECT_EQ("old", read_file("out.bin"));
            EXPECT_EQ("out.bin", dir.names());
        }
    }
}

TEST(SpecialFile, IsNeitherReadNorReplacedNorWaitedFor) {
    library lib;
    work_dir dir;
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    ASSERT_EQ(0, symlink("/dev/null", "device"));
    sockaddr_un address = {AF_UNIX, "socket"};
    int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(descriptor);
    peer server(always(response(200, "body"))), refusing(always(response(416, "no")));
    for (const char* path : {"fifo", "device", "socket"}) {
        SCOPED_TRACE(path);
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, path);
        EXPECT_EQ("FAIL_OPEN_UPLOAD_FILE", post.run());
        for (std::uint32_t resume : {0u, 1u, 2u}) {
            transfer get(resume == 2 ? refusing.url() : server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path);
            get.set(TAV_HTTP_OPTION_RESUME, resume != 0 ? 1u : 0u);
            EXPECT_EQ(resume == 2 ? "SVR_RETURN_ERROR" : "FAIL_OPEN_RESPONSE_FILE", get.run());
        }
    }
    EXPECT_EQ("device fifo socket", dir.names());
}

TEST(PartialFile, IsSettledUnderTheNameUnderWhichItWasOpened) {
    library lib;
    for (const std::string target : {"in\\out.bin", "in/\xFF.bin"}) {
        work_dir dir;
        ASSERT_EQ(0, mkdir("in", 0700));
        std::string stored = target[2] == '/' ? "in/\xEF\xBF\xBD.bin" : "in/out.bin";
        write_file(stored, "old");
        for (bool ok : {false, true}) {
            std::string whole = response(200, "new");
            peer server(reply_and_close(ok ? whole : whole.substr(0, whole.size() - 1)));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, target.c_str());
            EXPECT_EQ(ok ? "OK" : "FAIL_RECV", get.run());
            EXPECT_EQ(ok ? "new" : "old", read_file(stored));
            EXPECT_EQ(stored, dir.names());
        }
    }
}

TEST(PartialFile, AVanishedFolderIsAnError) {
    std::string reply = response(200, sample_bytes(400000));
    library lib;
    for (const std::string fate : {"removed", "replaced", "moved"}) {
        SCOPED_TRACE(fate);
        work_dir dir;
        ASSERT_EQ(0, mkdir("folder", 0700));
        peer server(script{expect_request(), send_text(reply.substr(0, 300000)), stall(),
                           send_text(reply.substr(300000))});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "folder/out.bin");
        get.record();
        EXPECT_EQ("OK", get.send());
        ASSERT_TRUE(get.wait_for_event("start"));
        if (fate == "moved") {
            EXPECT_EQ(0, rename("folder", "elsewhere"));
        } else {
            remove_folder("folder");
            EXPECT_TRUE(fate == "removed" || mkdir("folder", 0700) == 0);
        }
        server.release();
        EXPECT_EQ("FAIL_WRITE_RESPONSE_FILE", get.wait());
        EXPECT_EQ(std::string::npos, dir.names().find("out.bin "));
    }
}

}  // namespace
