// Mended faults of the network's layers.
#include "tests/support/host.h"
#include "tests/support/on_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

// Longer than the time-outs below: a callback of the host that holds the loop thread.
void hold_up() {
    std::this_thread::sleep_for(milliseconds(250));
}

TEST(RegressNet, ACallbackThatHoldsTheLoopUpTimesNothingOut) {
    library lib;
    const script answer_late = {expect_request(), stall(), send_text(response(200, "late"))};
    const struct {
        const char* name;
        bool uploads;  // held up by its progress callback; else while the answer arrives
    } rows[] = {{"armed behind it", true}, {"arrived meanwhile", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        scripted_server server(row.uploads ? reply_with(response(200, "late")) : answer_late);
        transfer one(server.url(), row.uploads ? TAV_HTTP_METHOD_POST : TAV_HTTP_METHOD_GET);
        one.set(TAV_HTTP_OPTION_IO_TIMEOUT, 100);
        if (row.uploads) {
            one.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "f", "bytes", 5, "f");
            one.at("progress", [](transfer&) { hold_up(); });
            one.send();
        } else {
            one.send();
            ASSERT_TRUE(server.wait_for_requests(1));
            on_loop([&] {
                server.release();
                hold_up();
            });
        }
        expect_code(0, one.wait());
        EXPECT_EQ("late", one.body());
    }
}

}  // namespace
