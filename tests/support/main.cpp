// Runs the tests, and checks after each of them what every test has to leave as it was.
#include <gtest/gtest.h>

#include "support/host.h"

namespace {

// What the library and the system make once and keep for the life of the process.
void warm_up() {
    for (bool ipv6 : {false, true}) {
        library lib;
        peer_options options;
        options.ipv6 = ipv6;
        peer server(always(response(200, "")), options);
        transfer get(server.url());
        EXPECT_EQ("OK", get.run());
    }
    refusing_port();
}

class watch : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override {
        if (!warm_ && std::string(test.test_suite_name()) != "FirstStart") {
            warm_up();
            warm_ = true;
        }
        watch_assertions();
        before_ = count_resources();
    }
    void OnTestEnd(const testing::TestInfo&) override {
        // libuv's closes come a little later than its answers.
        wait_until([this] { return count_resources().descriptors <= before_.descriptors; },
                   milliseconds(3000));
        resources after = count_resources();
        EXPECT_LE(after.descriptors, before_.descriptors) << "descriptors were left open";
        EXPECT_LE(after.blocks, before_.blocks) << "blocks of memory were left";
        for (const std::string& line : failed_assertions()) {
            ADD_FAILURE() << line;
        }
        tavHTTPSetLogCallback(nullptr);
    }

    bool warm_ = false;
    resources before_;
};

}  // namespace

std::vector<std::string>& program_arguments() {
    static std::vector<std::string> arguments;
    return arguments;
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    program_arguments().assign(argv, argv + argc);
    testing::UnitTest::GetInstance()->listeners().Append(new watch);
    return RUN_ALL_TESTS();
}
