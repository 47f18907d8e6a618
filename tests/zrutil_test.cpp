// The utility stand-in: log sinks and the level override. (mkpath is
// exercised by the blob file tests.)
#include "log_capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

TEST(Log, HandlerSeesEveryPriorityUpToItsCeiling)
{
    zrlog_init_raw("t", 0, 1, 0);
    zrtest::log_capture logs;
    zrlog_log_prio_codepos("src/x", "fn", 12, 7, "debug %d", 7);
    zrlog_set_handler_ceiling(5);
    zrlog_log_prio_codepos("src/x", "fn", 13, 6, "above the ceiling");
    zrlog_log_prio_codepos("src/x", "fn", 14, 5, "at the ceiling");
    zrlog_set_handler_ceiling(7);
    ASSERT_EQ(logs.lines.size(), 2u);
    EXPECT_EQ(logs.lines[0].message, "debug 7");
    EXPECT_EQ(logs.lines[1].message, "at the ceiling");
}

TEST(Log, StandardErrorLineAndPriorityLimitWithEnvironmentOverride)
{
    zrlog_init_raw("ident", 0, 1, 4);
    testing::internal::CaptureStderr();
    zrlog_log_prio_codepos("src/a", "f", 7, 4, "shown");
    zrlog_log_prio_codepos("src/a", "f", 8, 6, "dropped");
    zrlog_log_prio_codepos("src/a", "f", 9, 3, "has newline\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ident: src/a:f:7: shown\nident: src/a:f:9: has newline\n");

    setenv("ZRLOG_LEVEL", "7", 1);
    zrlog_init_raw("ident", 0, 1, 3);
    unsetenv("ZRLOG_LEVEL");
    testing::internal::CaptureStderr();
    zrlog_log_prio_codepos("src/a", "f", 1, 7, "debug line");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ident: src/a:f:1: debug line\n");

    // Information is not printed by default, even when the caller asks up to 6.
    zrlog_init_raw("ident", 0, 1, 6);
    testing::internal::CaptureStderr();
    zrlog_log_prio_codepos("src/a", "f", 2, 6, "information");
    zrlog_log_prio_codepos("src/a", "f", 3, 5, "notice");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ident: src/a:f:3: notice\n");
}
