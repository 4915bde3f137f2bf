// Sessions that end before their time: cancelled, closed in flight, shut down, timed out. Each is
// reported once, or not at all when its handle is closed, and nothing stays open. The fault matrix
// has the same for each step of a conversation; here are the callbacks, the queue, and the stages
// in which a session waits with a file or an upload in hand.
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Callbacks, CancelOrCloseInsideEachOfThem) {
    // A redirect, then a body of several receives: every callback has something behind it.
    const std::vector<script> scripts = {reply_with(response(302, "", "Location: /2\r\n")),
                                         reply_with(response(200, sample_bytes(100000)))};
    descriptor_guard descriptors;
    for (const std::string name :
         {"connecting", "connected", "progress", "redirect", "header", "start", "data"}) {
        for (int kind = 0; kind < 4; kind++) {
            bool to_file = (kind & 1) != 0;
            bool closes = (kind & 2) != 0;
            SCOPED_TRACE((closes ? "close in " : "cancel in ") + name + (to_file ? ", file" : ""));
            work_dir dir;
            scripted_server server(scripts);
            std::unique_ptr<transfer> get;
            {
                library lib;
                get = std::make_unique<transfer>(server.url("/1"));
                if (to_file) {
                    get->set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
                }
                get->record();
                get->record_data();
                get->at(name, [closes](transfer& self) {
                    EXPECT_EQ(closes ? code::closing : 0u, closes ? self.close() : self.cancel());
                });
                EXPECT_EQ(0u, get->send());
                EXPECT_TRUE(get->wait_for_event(name));
                if (closes) {
                    EXPECT_TRUE(wait_until([&] { return get->handle() == nullptr; }));
                    // The connections go with the session, not only with the library.
                    EXPECT_TRUE(server.wait_for_disconnects(server.connection_count()));
                } else {
                    EXPECT_EQ(code::cancel, get->wait());
                    EXPECT_EQ("complete", get->events().back().name);
                    get->close();
                }
            }
            EXPECT_EQ(1u, get->event_count(name)) << "nothing follows";
            EXPECT_EQ(closes ? 0 : 1, get->completions());
            EXPECT_TRUE(dir.names().empty());
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(Callbacks, CloseInsideTheCompletion) {
    descriptor_guard descriptors;
    {
        library lib;
        for (std::uint32_t keep_alive : {0u, 1u}) {
            scripted_server server(reply_with(response(200, "x")));
            transfer get(server.url());
            get.set(TAV_HTTP_OPTION_KEEP_ALIVE, keep_alive, std::int32_t{0}, std::int32_t{0});
            get.at("complete", [](transfer& self) {
                EXPECT_EQ("x", self.body());
                EXPECT_EQ(0u, self.cancel()) << "harmless by now";
                EXPECT_EQ(code::closing, self.close());
            });
            EXPECT_EQ(0u, get.run());
            EXPECT_EQ(1, get.completions());
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// A transfer that succeeds, and leaves nothing behind when it returns.
void fetch_one() {
    scripted_server server(reply_with(response(200, "x")));
    {
        transfer get(server.url());
        EXPECT_EQ(0u, get.run());
    }
    EXPECT_TRUE(server.wait_for_disconnects(1));
}

TEST(Stages, CancelCloseAndShutdownWhileWaiting) {
    struct {
        const char* name;
        script steps;      // none: nobody answers the connect
        const char* line;  // logged when the session has got there
        std::size_t requests;
    } stages[] = {
        {"connecting", {}, "_start_connect, ctx=", 0},
        {"sending", {stall_deaf()}, "req header, ", 0},
        {"receiving",
         {expect_request(), send_text(response(200, sample_bytes(90000)).substr(0, 50000)),
          stall()},
         "download_start_callback, ",
         1},
    };
    const std::string upload(20000000, 'u');
    blackhole_listener nobody;
    descriptor_guard descriptors;
    for (const auto& now : stages) {
        for (const std::string how : {"cancel", "close", "shutdown"}) {
            SCOPED_TRACE(how + " while " + now.name);
            work_dir dir;
            log_capture log;
            library lib;
            scripted_server server(now.steps, server_options{false, 4096});
            fetch_one();  // the first socket makes the loop open what it keeps
            std::size_t before = open_descriptors();
            bool uploads = now.steps.size() == 1;
            transfer session(now.steps.empty() ? nobody.url() : server.url(), uploads ? 2u : 1u);
            if (uploads) {
                session.set_body(upload);
            } else {
                session.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin");
            }
            session.set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, 100);  // it gets its second all the same
            session.set(TAV_HTTP_OPTION_IO_TIMEOUT, 200);
            std::size_t lines = log.count(now.line);
            EXPECT_EQ(0u, session.send());
            EXPECT_TRUE(wait_until([&] { return log.count(now.line) > lines; }));
            EXPECT_TRUE(server.wait_for_requests(now.requests));
            if (how == "cancel") {
                EXPECT_EQ(0u, session.cancel());
                EXPECT_EQ(code::cancel, session.wait());
            } else if (how == "close") {
                EXPECT_EQ(code::closing, session.close());
                // A server that does not read keeps its side of the connection.
                EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before + uploads; }));
                fetch_one();  // the library goes on serving others
            } else {
                lib.shutdown();
                EXPECT_EQ(1, session.completions()) << "told before the shut-down returns";
                EXPECT_EQ(code::cancel, session.wait());
                EXPECT_EQ(0u, tavHTTPClose(session.handle())) << "kept while nothing runs";
            }
            lib.shutdown();
            EXPECT_EQ(how == "close" ? 0 : 1, session.completions());
            lib.startup();
            EXPECT_TRUE(dir.names().empty());
        }
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

TEST(Shutdown, EndsQueuedAndRunningSessionsOnce) {
    descriptor_guard descriptors;
    {
        library lib;
        log_capture log;
        scripted_server server(script{expect_request(), stall()});
        std::vector<std::unique_ptr<transfer>> all;
        for (std::uint32_t i = 0; i < 40; i++) {
            all.push_back(std::make_unique<transfer>(server.url(), 1 + i % 2));
            all.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 200);
            all.back()->set(TAV_HTTP_OPTION_PRIORITY, i % 3 == 0 ? 100 : 1000);
            EXPECT_EQ(0u, all.back()->send());
        }
        EXPECT_TRUE(server.wait_for_requests(12)) << "six downloads and six uploads";
        lib.shutdown();
        for (auto& session : all) {
            EXPECT_EQ(1, session->completions());
            EXPECT_EQ(code::cancel, session->wait());
        }
        EXPECT_EQ(12u, server.connection_count());
        EXPECT_EQ(1u, log.count("task mgr, stop ok, tick="));
        lib.startup();
        fetch_one();
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

struct running_limit {
    explicit running_limit(std::uint32_t count) {
        tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, count);
    }
    ~running_limit() {
        tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 0);
    }
};

// Three running downloads leave no room for a fourth: what is cancelled or closed behind them never
// connects, and the next one is not held up by it.
TEST(Queue, CancelledAndClosedSessionsConnectNowhere) {
    running_limit limit{3};  // taken over when the library starts
    library lib;
    log_capture log;
    scripted_server server(script{expect_request(), stall(), send_text(response(200, "x"))});
    std::vector<std::unique_ptr<transfer>> running;
    for (int i = 0; i < 3; i++) {
        running.push_back(std::make_unique<transfer>(server.url("/running")));
        EXPECT_EQ(0u, running.back()->send());
    }
    EXPECT_TRUE(server.wait_for_requests(3));
    transfer cancelled(server.url("/cancelled")), closed(server.url("/closed"));
    transfer behind(server.url("/behind"));
    for (transfer* one : {&cancelled, &closed, &behind}) {
        one->record();
        EXPECT_EQ(0u, one->send());
    }
    EXPECT_EQ(0u, cancelled.cancel());
    EXPECT_EQ(code::closing, closed.close());
    EXPECT_TRUE(log.wait_for_line("_check_session_cancel_and_notify, session canceled, id="))
        << "a closed session does not wait for its turn";
    EXPECT_FALSE(cancelled.completed());
    server.release();
    EXPECT_EQ(code::cancel, cancelled.wait());
    EXPECT_EQ("complete", cancelled.event_names());
    EXPECT_EQ(0u, behind.wait());
    EXPECT_EQ("", closed.event_names());
    for (auto& session : running) {
        EXPECT_EQ(0u, session->wait());
    }
    EXPECT_EQ(4u, server.connection_count());
}

TEST(Timeout, CancelAfterTheTimeoutIsACancel) {
    library lib;
    log_capture log;
    // The time-out strikes while a callback keeps the session busy, so its end can be decided.
    scripted_server server(script{expect_request(), send_text(response(200, "x")), stall()});
    for (bool cancel : {false, true}) {
        SCOPED_TRACE(cancel);
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 50);
        std::size_t before = log.count("_on_session_timeout, id=");
        get.at("header", [&](transfer& self) {
            EXPECT_TRUE(wait_until([&] { return log.count("_on_session_timeout, id=") > before; }));
            if (cancel) {
                // The flags are set right behind the log line, by the loop thread; a session that
                // is refused for its method needs a whole turn of that thread.
                transfer probe("http://127.0.0.1/", 9);
                EXPECT_EQ(0u, probe.send());
                EXPECT_TRUE(log.wait_for_line("_on_async_start_connect, invalid method"));
                EXPECT_EQ(0u, self.cancel());
            }
        });
        get.send();
        EXPECT_EQ(cancel ? code::cancel : code::session_timeout, get.wait());
    }
}

}  // namespace
