// Mends of the sessions and the task manager.
#include "tavhttpclient/taskmgr.h"
#include "tests/support/host.h"

#include <gtest/gtest.h>

namespace {

TEST(TaskManager, StopWithoutOneIsLogged) {
    log_capture log;
    EXPECT_FALSE(start_stop_default_task_mgr(nullptr));
    EXPECT_TRUE(log.has_line("function=start_stop_default_task_mgr", 1000));
}

}  // namespace
