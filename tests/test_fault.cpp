// Every row of the table again and again, each time with the next of the library's calls failing:
// the session ends once, the log says why, and nothing is left.
#include <gtest/gtest.h>

#include <future>
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

// Runs point after point until there are not so many calls, and looks for what each leaves behind.
void run_points(const std::string& name, const std::function<void(long point)>& body) {
    for (long point = 1; point == 1 || !failed_at().empty(); point++) {
        resources before = count_resources(), after;
        body(point);
        fail_nothing();
        EXPECT_TRUE(wait_until(
            [&] { return (after = count_resources()).descriptors <= before.descriptors; },
            milliseconds(3000)))
            << "descriptors were left open";
        EXPECT_EQ(before.blocks, after.blocks) << "blocks of memory were left";
        ASSERT_FALSE(testing::Test::HasFailure())
            << name << ", point " << point << ", failed call: " << failed_at();
    }
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
            std::string code = one->refused != 0 ? "FAIL_START_ASYNC" : one->send();
            if (code != "OK") {
                EXPECT_EQ("FAIL_START_ASYNC", code);
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
    run_points(row.name, [this](long point) { run_row(point); });
}

INSTANTIATE_TEST_SUITE_P(Table, Fault, testing::Range(std::size_t{0}, transfer_rows().size()));

// Cancelled, closed or left to the shut-down while the server has said half of its answer.
void end_in_flight(int ending, long point) {
    work_dir dir;
    peer server(script{expect_request(), send_text(response(200, "body").substr(0, 30)), stall(),
                       close_now()});
    library lib;
    fail_calls("", point);
    transfer get(server.url());
    std::string sent = get.set(TAV_HTTP_OPTION_DOWNLOAD_FILE, "out") == 0 ? get.send() : "";
    server.wait_for_requests(1, milliseconds(20));
    std::future<void> stopped;
    if (ending == 0) {
        get.cancel();
    } else if (ending == 1) {
        get.close();
    } else {
        stopped = std::async(std::launch::async, [&] { lib.shutdown(); });
    }
    server.release();
    if (ending == 2) {
        stopped.wait();
    }
    EXPECT_TRUE(sent != "OK" || ending == 1 || get.wait() != not_completed);
    lib.shutdown();
    fail_nothing();
    lib.startup();
    get.close();
    EXPECT_EQ("", dir.names());
}

TEST(FaultInFlight, AtEachCall) {
    allow_assertion("");
    for (int ending = 0; ending < 3; ending++) {
        run_points("ending " + std::to_string(ending),
                   [ending](long point) { end_in_flight(ending, point); });
    }
}

void expect_works() {
    peer server(always(response(200, "works")));
    transfer get(server.url());
    EXPECT_EQ("OK", get.run());
    EXPECT_EQ("works", get.body());
}

// A start, and settings behind it; then everything works, now and behind the next start.
void start_at_point(long point) {
    fail_calls("", point);
    std::uint32_t code = tavHTTPStartup();
    EXPECT_EQ(code == 0 ? "OK" : "FAIL_RUN_EVENT_LOOP", code_name(code));
    EXPECT_TRUE(code == 0 || !failed_at().empty());
    bool refused = tavHTTPSetDownloadDirectory("a/b") != 0;
    char directory[64] = "";
    std::int32_t length = sizeof directory;
    tavHTTPGetDownloadDirectory(directory, &length);
    EXPECT_TRUE(directory == std::string() || (!refused && directory == std::string("a/b/")));
    proxy through(TAV_HTTP_PROXY_HTTP, 1, "user", "secret");
    tavHTTPSetDefaultProxy(&through);
    tavHTTPSetUseThirdLSP(1);
    fail_nothing();
    if (code == 0) {
        tavHTTPSetDefaultProxy(nullptr);
        expect_works();
    }
    EXPECT_EQ(0u, tavHTTPShutdown());
    library again;
    expect_works();
}

TEST(FaultInStart, AtEachCall) {
    allow_assertion("");
    work_dir dir;
    start_at_point(0);
    run_points("start", start_at_point);
}

// Locks are made by the first start of a process alone: each point has a process of its own.
TEST(FirstStart, AtEachCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    work_dir dir;
    for (long point = 1; point < 12; point++) {
        EXPECT_EXIT((start_at_point(point), std::_Exit(testing::Test::HasFailure() ? 1 : 0)),
                    testing::ExitedWithCode(0), "")
            << point;
    }
}

}  // namespace
