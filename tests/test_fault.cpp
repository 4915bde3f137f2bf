// Every row of the table again and again, each time with the next of the library's calls failing:
// the session ends once, the log says why, and nothing is left.
#include <gtest/gtest.h>

#include <set>

#include "support/inside.h"
#include "support/transfers.h"

namespace {

// What a line says before its first value: the same in every run.
std::set<std::string> kinds_of_lines(const log_capture& log) {
    std::set<std::string> kinds;
    for (const log_line& line : log.lines()) {
        kinds.insert(line.text.substr(0, line.text.find_first_of("=0123456789")));
    }
    return kinds;
}

// Runs one point, and looks for what it has left behind. False: there are not so many calls.
bool run_point(const std::string& name, long point, const std::function<void()>& body) {
    resources before = count_resources();
    body();
    fail_nothing();
    resources after;
    EXPECT_TRUE(
        wait_until([&] { return (after = count_resources()).descriptors <= before.descriptors; },
                   milliseconds(3000)))
        << "descriptors were left open";
    EXPECT_EQ(before.blocks, after.blocks) << "blocks of memory were left";
    if (testing::Test::HasFailure()) {
        ADD_FAILURE() << name << ", point " << point << ", failed call: " << failed_at();
    }
    return !failed_at().empty() && !testing::Test::HasFailure();
}

class Fault : public testing::TestWithParam<std::size_t> {
  protected:
    void SetUp() override {
        allow_assertion("");  // many an assertion is how the library notices
        where = row.only_file ? target::file : static_cast<target>(GetParam() % 4);
    }

    void run_row(long point) {
        work_dir dir;
        log_capture log;
        library lib;
        EXPECT_EQ(0u, tavHTTPSetDownloadDirectory("chosen"));
        row_run run(row, where);
        fail_calls("", point);
        for (int i = 0; i < row.sessions; i++) {
            std::unique_ptr<transfer> one = run.open();
            std::string code = one->refused != 0 ? "refused" : one->send();
            if (code != "OK") {
                EXPECT_TRUE(code == "refused" || code == "FAIL_START_ASYNC") << code;
                break;
            }
            code = one->wait();
            EXPECT_NE(not_completed, code);
            EXPECT_EQ("", run.judge(*one, code, point != 0));
            if (point == 0) {
                usual = kinds_of_lines(log);
            } else if (row.code == "OK" && code != "OK") {
                std::set<std::string> kinds = kinds_of_lines(log);
                EXPECT_FALSE(std::includes(usual.begin(), usual.end(), kinds.begin(), kinds.end()))
                    << "the log does not tell of " << code;
            }
        }
        // A release that could not be handed over is made up for by the destructor.
        lib.shutdown();
        fail_nothing();
    }

    const transfer_row& row = transfer_rows()[GetParam()];
    target where = target::memory;
    std::set<std::string> usual;
};

TEST_P(Fault, AtEachCallOfARow) {
    if (row.connections > 2) {
        return;  // the same again and again
    }
    run_row(0);
    for (long point = 1; run_point(row.name, point, [&] { run_row(point); }); point++) {
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Fault, testing::Range(std::size_t{0}, transfer_rows().size()));

// Cancelled, closed or left to the shut-down while the server has said half of its answer.
TEST(FaultInFlight, AtEachCall) {
    allow_assertion("");
    for (int ending = 0; ending < 3; ending++) {
        auto body = [&](long point) {
            work_dir dir;
            peer server(script{expect_request(), send_text(response(200, "body").substr(0, 30)),
                               stall(), close_now()});
            library lib;
            fail_calls("", point);
            transfer get(server.url());
            std::string sent = get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out") == 0 ? get.send() : "";
            server.wait_for_requests(1, milliseconds(20));
            std::thread stop;
            if (ending == 0) {
                get.cancel();
            } else if (ending == 1) {
                get.close();
            } else {
                stop = std::thread([&] { lib.shutdown(); });
            }
            server.release();
            if (stop.joinable()) {
                stop.join();
            }
            if (sent == "OK" && ending != 1) {
                EXPECT_NE(not_completed, get.wait());
            }
            lib.shutdown();
            fail_nothing();
            lib.startup();
            get.close();
            EXPECT_EQ("", dir.names());
        };
        for (long point = 1;
             run_point("ending " + std::to_string(ending), point, [&] { body(point); }); point++) {
        }
    }
}

TEST(FaultInSettings, AtEachCall) {
    allow_assertion("");
    auto body = [](long point) {
        work_dir dir;
        library lib;
        fail_calls("", point);
        bool refused = tavHTTPSetDownloadDirectory("a/b") != 0;
        char directory[64] = "";
        std::int32_t length = sizeof directory;
        tavHTTPGetDownloadDirectory(directory, &length);
        EXPECT_TRUE(directory == std::string() || (!refused && directory == std::string("a/b/")));
        proxy through(TAV_HTTP_PROXY_HTTP, 1, "user", "secret");
        tavHTTPSetDefaultProxy(&through);
        tavHTTPSetUseThirdLSP(1);
        lib.shutdown();
    };
    for (long point = 1; run_point("settings", point, [&] { body(point); }); point++) {
    }
}

void expect_works() {
    peer server(always(response(200, "works")));
    transfer get(server.url());
    EXPECT_EQ("OK", get.run());
    EXPECT_EQ("works", get.body());
}

// Returns false when the point was not reached.
bool start_at_point(long point) {
    fail_calls("", point);
    std::uint32_t code = tavHTTPStartup();
    fail_nothing();
    bool reached = !failed_at().empty();
    if (code != 0) {
        EXPECT_EQ("FAIL_RUN_EVENT_LOOP", code_name(code));
        EXPECT_TRUE(reached);
    } else {
        expect_works();
    }
    EXPECT_EQ(0u, tavHTTPShutdown());
    library again;
    expect_works();
    return reached;
}

TEST(FaultInStart, AtEachCall) {
    allow_assertion("");
    start_at_point(0);
    for (long point = 1; run_point("start", point, [&] { start_at_point(point); }); point++) {
    }
}

// Locks are made by the first start of a process alone: each point has a process of its own.
TEST(FirstStart, AtEachCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (long point = 1; point < 12; point++) {
        EXPECT_EXIT(
            {
                start_at_point(point);
                std::_Exit(testing::Test::HasFailure() ? 1 : 0);
            },
            testing::ExitedWithCode(0), "")
            << point;
    }
}

}  // namespace
