// Every row of the table, run plainly: whole and in pieces, to each target; and ended by its host
// in each way at each of its callbacks.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support/transfers.h"

namespace {

class Rows : public testing::TestWithParam<std::size_t> {
  protected:
    const transfer_row& row = transfer_rows()[GetParam()];
};

void run_row(const transfer_row& row, target where, std::size_t piece) {
    SCOPED_TRACE(row.name + ", target " + std::to_string(static_cast<int>(where)) + ", pieces of " +
                 std::to_string(piece));
    work_dir dir;
    library lib;
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("chosen"));
    row_run run(row, where, piece);
    for (int i = 0; i < row.sessions; i++) {
        std::unique_ptr<transfer> one = run.open();
        EXPECT_EQ(0u, one->refused);
        EXPECT_EQ("", run.judge(*one, one->run(), false));
        EXPECT_TRUE(is_proxied(row.through) || one->address() == "127.0.0.1");
    }
    std::size_t connections = row.connections != 0 ? row.connections : row.serve.size();
    EXPECT_EQ(connections, run.server.connection_count());
    bool body_to_file = row.code == "OK" && row.method != TAV_HTTP_METHOD_HEAD;
    EXPECT_TRUE(read_file("out.bin") == "(none)" ||
                (where == target::file && (body_to_file || row.only_file)));
}

TEST_P(Rows, GiveWhatTheySay) {
    for (target where : {target::memory, target::file, target::chosen_file, target::data}) {
        for (std::size_t piece : {0u, 1u, 997u}) {
            bool small = row.body.size() + row.upload.size() < 2000 && row.serve.size() == 1 &&
                         (row.code == "OK" || !row.body.empty());
            bool cut = !row.whole_only && (piece == 1) == small;
            if (row.takes(where) && (piece == 0 || cut)) {
                run_row(row, where, piece);
            }
        }
    }
}

enum ending {
    by_cancel,
    by_close,
    by_time_out,
    by_shut_down
};

void end_row(const transfer_row& row, const std::string& stage, int how, target where) {
    SCOPED_TRACE("ending " + std::to_string(how) + " in " + stage);
    work_dir dir;
    log_capture log;
    library lib;
    row_run run(row, where);
    std::unique_ptr<transfer> one = run.open();
    one->record();
    std::atomic<bool> reached{false};
    if (how == by_time_out) {
        one->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 8);
    }
    // On the loop thread nothing can be waited for: the session may be faster.
    bool on_loop_thread = stage == "progress";
    one->at(stage, [&](transfer& self) {
        if (reached.exchange(true)) {
            return;
        }
        const char* line = how == by_time_out ? "_on_session_timeout, id=" : "uninit_flow_start";
        EXPECT_TRUE(how == by_cancel  ? self.cancel() == "OK"
                    : how == by_close ? self.close() == "FAIL_START_ASYNC"
                                      : on_loop_thread || log.wait_for_line(line));
    });
    EXPECT_EQ("OK", one->send());
    EXPECT_TRUE(wait_until([&] { return reached || one->completed(); }));
    if (how == by_close) {
        EXPECT_TRUE(wait_until([&] { return one->handle() == nullptr; }));
        // The connections go with the session, not only with the library.
        EXPECT_TRUE(run.server.wait_for_disconnects(run.server.connection_count()));
        lib.shutdown();
        EXPECT_EQ(0, one->completions());
        EXPECT_LE(one->event_count(stage), 1u) << "nothing follows";
        lib.startup();
        return;
    }
    if (how == by_shut_down) {
        lib.shutdown();
        EXPECT_EQ(1, one->completions()) << "told before the shut-down returns";
    }
    std::string code = one->wait();
    bool may_be_faster = on_loop_thread && how != by_cancel;
    EXPECT_TRUE(code == (how == by_time_out ? "SESSION_TIMEOUT" : "CANCEL") ||
                (may_be_faster && code == row.code))
        << code;
    EXPECT_EQ("complete", one->events().back().name);
    lib.startup();
    EXPECT_EQ("", run.judge(*one, code, true));
}

TEST_P(Rows, EndAtEachStage) {
    for (target where : {target::file, target::data}) {
        if (!row.takes(where) || row.sessions > 1 || row.connections > 2) {
            continue;
        }
        std::set<std::string> stages;
        {
            work_dir dir;
            library lib;
            row_run run(row, where);
            std::unique_ptr<transfer> one = run.open();
            one->record();
            one->run();
            for (const event& seen : one->events()) {
                stages.insert(seen.name);
            }
            stages.erase("complete");
        }
        for (const std::string& stage : stages) {
            for (int how : {by_cancel, by_close, by_time_out, by_shut_down}) {
                end_row(row, stage, how, where);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Rows, testing::Range(std::size_t{0}, transfer_rows().size()),
                         [](const auto& param) {
                             std::string name = transfer_rows()[param.param].name;
                             std::replace_if(
                                 name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
                             return name;
                         });

}  // namespace
