// Every row of the table, run plainly: whole and in pieces, to each target; and ended by its host
// in each way at each of its callbacks.
#include <gtest/gtest.h>

#include "support/transfers.h"

namespace {

const char* const target_names[] = {"memory", "file", "chosen file", "data"};

class Rows : public testing::TestWithParam<std::size_t> {
  protected:
    const transfer_row& row = transfer_rows()[GetParam()];
};

void run_row(const transfer_row& row, target where, std::size_t piece) {
    SCOPED_TRACE(row.name + ", to " + target_names[static_cast<int>(where)] + ", pieces of " +
                 std::to_string(piece));
    work_dir dir;
    library lib;
    ASSERT_EQ(0u, tavHTTPSetDownloadDirectory("chosen"));
    row_run run(row, where, piece);
    for (int i = 0; i < row.sessions; i++) {
        std::unique_ptr<transfer> one = run.open();
        EXPECT_EQ(0u, one->refused);
        EXPECT_EQ("", run.judge(*one, one->run(), false));
        if (!is_proxied(row.through)) {
            EXPECT_EQ("127.0.0.1", one->address());
        }
    }
    std::size_t connections = row.connections != 0 ? row.connections : row.serve.size();
    EXPECT_EQ(connections, run.server.connection_count());
    std::string names = dir.names();
    bool body_to_file = row.code == "OK" && row.method != TAV_HTTP_METHOD_HEAD;
    bool may_have_out = where == target::file && (body_to_file || row.only_file);
    EXPECT_EQ(may_have_out && read_file("out.bin") != "(none)",
              names.find("out.bin") != std::string::npos);
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

enum class ending {
    cancel,
    close,
    time_out,
    shut_down
};
const char* const ending_names[] = {"cancel", "close", "time-out", "shut-down"};

void end_row(const transfer_row& row, const std::string& stage, ending how, target where) {
    SCOPED_TRACE(std::string(ending_names[static_cast<int>(how)]) + " in " + stage);
    work_dir dir;
    log_capture log;
    library lib;
    row_run run(row, where);
    std::unique_ptr<transfer> one = run.open();
    one->record();
    std::atomic<bool> reached{false};
    if (how == ending::time_out) {
        one->set(TAV_HTTP_OPTION_SESSION_TIMEOUT, 8);
    }
    one->at(stage, [&](transfer& self) {
        if (reached.exchange(true)) {
            return;
        }
        if (how == ending::cancel) {
            EXPECT_EQ("OK", self.cancel());
        } else if (how == ending::close) {
            EXPECT_EQ("FAIL_START_ASYNC", self.close());
        } else if (stage != "progress" || how == ending::shut_down) {
            // On the loop thread the time-out would have to wait for its end.
            bool on_loop_thread = stage == "progress";
            EXPECT_TRUE(on_loop_thread ||
                        log.wait_for_line(how == ending::time_out ? "_on_session_timeout, id="
                                                                  : "uninit_flow_start"));
        }
    });
    EXPECT_EQ("OK", one->send());
    EXPECT_TRUE(wait_until([&] { return reached || one->completed(); }));
    if (how == ending::close) {
        EXPECT_TRUE(wait_until([&] { return one->handle() == nullptr; }));
        // The connections go with the session, not only with the library.
        EXPECT_TRUE(run.server.wait_for_disconnects(run.server.connection_count()));
        lib.shutdown();
        EXPECT_EQ(0, one->completions());
        EXPECT_LE(one->event_count(stage), 1u) << "nothing follows";
    } else {
        if (how == ending::shut_down) {
            lib.shutdown();
            EXPECT_EQ(1, one->completions()) << "told before the shut-down returns";
        }
        std::string code = one->wait();
        std::string expected = how == ending::time_out ? "SESSION_TIMEOUT" : "CANCEL";
        // On the loop thread nothing can be waited for: the session may be faster.
        bool may_be_faster = stage == "progress" && how != ending::cancel;
        EXPECT_TRUE(code == expected || (may_be_faster && code == row.code)) << code;
        EXPECT_EQ("complete", one->events().back().name);
        lib.startup();
        EXPECT_EQ("", run.judge(*one, code, true));
    }
    lib.startup();
}

TEST_P(Rows, EndAtEachStage) {
    std::string stages = "connecting connected progress redirect header start data";
    for (target where : {target::file, target::data}) {
        if (!row.takes(where) || row.sessions > 1 || row.connections > 2) {
            continue;
        }
        std::string seen;
        {
            work_dir dir;
            library lib;
            row_run run(row, where);
            std::unique_ptr<transfer> one = run.open();
            one->record();
            one->run();
            seen = one->event_names();
        }
        std::istringstream all(stages);
        for (std::string stage; all >> stage;) {
            for (int how = 0; how < 4 && seen.find(stage) != std::string::npos; how++) {
                end_row(row, stage, static_cast<ending>(how), where);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Rows, testing::Range(std::size_t{0}, transfer_rows().size()),
                         [](const auto& param) {
                             std::string name;
                             for (char c : transfer_rows()[param.param].name) {
                                 name += isalnum(c) ? c : '_';
                             }
                             return name;
                         });

}  // namespace
