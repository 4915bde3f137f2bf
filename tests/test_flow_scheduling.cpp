// Which sessions run when: kinds, priorities, the limit, the order.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/taskmgr.h"
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

namespace {

// Answers nothing until released, so that sessions keep running.
script hold_then_answer() {
    return {expect_request(), stall(), send_text(response(200, "ok", "Connection: close\r\n")),
            close_now()};
}

std::unique_ptr<transfer> make(scripted_server& server, const std::string& path,
                               uint32_t method = TAV_HTTP_METHOD_GET,
                               int32_t priority = TAV_HTTP_PRIORITY_NORMAL) {
    auto made = std::make_unique<transfer>(server.url(path), method);
    made->set(TAV_HTTP_OPTION_PRIORITY, priority);
    made->set(TAV_HTTP_OPTION_NO_REUSE, 1u);
    return made;
}

TEST(Scheduling, SixOfAKindRunAndHighPriorityComesOnTop) {
    library lib;
    log_capture log;
    scripted_server server(hold_then_answer());
    std::vector<std::unique_ptr<transfer>> all;
    auto send = [&](uint32_t method, int32_t priority) {
        all.push_back(make(server, "/" + std::to_string(all.size()), method, priority));
        ASSERT_EQ(0u, all.back()->send());
    };
    for (int i = 0; i < 8; i++) {
        send(TAV_HTTP_METHOD_GET, TAV_HTTP_PRIORITY_NORMAL);
    }
    ASSERT_TRUE(server.wait_for_requests(6));
    send(TAV_HTTP_METHOD_GET, TAV_HTTP_PRIORITY_LOW);
    for (int i = 0; i < 7; i++) {
        send(TAV_HTTP_METHOD_POST, TAV_HTTP_PRIORITY_NORMAL);
    }
    ASSERT_TRUE(server.wait_for_requests(12)) << "uploads have a limit of their own";
    send(TAV_HTTP_METHOD_GET, TAV_HTTP_PRIORITY_HIGH);
    ASSERT_TRUE(server.wait_for_requests(13));
    ASSERT_TRUE(log.wait_for_line("_schedule_task:\nmax-running-count=6\n"
                                  "download: running=6, high=1, normal=2, low=1\n"
                                  "upload: running=6, high=0, normal=1, low=0"));
    EXPECT_EQ(13u, server.request_count());
    server.release();
    for (auto& one : all) {
        EXPECT_EQ(0u, one->wait());
    }
}

TEST(Scheduling, WaitingSessionsStartInTheirQueuesOrder) {
    const struct {
        uint32_t fifo;
        const char* order;
    } rows[] = {{0, "/c/b/a/low"}, {1, "/a/b/c/low"}};
    for (const auto& row : rows) {
        library lib;
        scripted_server first(hold_then_answer()), others(hold_then_answer());
        scripted_server quick(always(response(200, "q")));
        std::vector<std::unique_ptr<transfer>> all;
        for (int i = 0; i < 6; i++) {
            all.push_back(make(i == 0 ? first : others, "/hold"));
            all.back()->send();
        }
        ASSERT_TRUE(first.wait_for_requests(1));
        ASSERT_TRUE(others.wait_for_requests(5));
        all.push_back(make(quick, "/low", TAV_HTTP_METHOD_GET, TAV_HTTP_PRIORITY_LOW));
        all.back()->send();
        for (const char* name : {"/a", "/b", "/c"}) {
            all.push_back(make(quick, name));
            all.back()->set(TAV_HTTP_OPTION_QUEUE_FIFO, row.fifo);
            all.back()->send();
        }
        // One slot becomes free and serves the waiting four, one after the other.
        first.release();
        ASSERT_TRUE(quick.wait_for_requests(4));
        std::string order;
        for (std::size_t i = 0; i < 4; i++) {
            order += quick.request(i).target;
        }
        EXPECT_EQ(row.order, order);
        others.release();
        for (auto& one : all) {
            EXPECT_EQ(0u, one->wait());
        }
    }
}

TEST(Scheduling, RunningPriorityYieldsForLargeDownloads) {
    library lib;
    auto head = [](const char* length) {
        return std::string("HTTP/1.1 200 OK\r\nContent-Length: ") + length + "\r\n\r\nbegin";
    };
    std::vector<script> scripts;
    for (int i = 0; i < 6; i++) {
        scripts.push_back(
            {expect_request(), send_text(head(i == 0 ? "2000001" : "2000000")), stall()});
    }
    scripted_server server(scripts);
    std::vector<std::unique_ptr<transfer>> all;
    for (int i = 0; i < 6; i++) {
        all.push_back(make(server, "/"));
        all.back()->set(TAV_HTTP_OPTION_IO_TIMEOUT, 60000);
        all.back()->send();
        ASSERT_TRUE(server.wait_for_requests(static_cast<std::size_t>(i) + 1));
    }
    EXPECT_TRUE(wait_until([&] {
        int lowered = 0;
        on_loop([&] {
            for (auto& one : all) {
                lowered += one->handle()->running_priority == TASK_PRIORITY_LOW ? 1 : 0;
            }
        });
        return lowered == 1;
    })) << "one of the six is larger than 2,000,000 bytes";
    for (auto& one : all) {
        one->close();
    }
    server.release();
}

}  // namespace
