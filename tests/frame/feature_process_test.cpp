#include "frame/feature_process.h"

#include <gtest/gtest.h>

#include <string>

#include "base/result_codes.h"
#include "frame/feature_app.h"
#include "frame/user_tick.h"
#include "velto/kel_clock.h"

namespace {

constexpr char kName[] = "update_active";

TEST(AppEnv, TakesTheDirectoryByLengthAlone) {
  char env[256] = {};
  EXPECT_EQ(TolaOsGetAppEnv("/app_run/app_bin/update_active", kName, env, sizeof(env)), 0u);
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/app_run/app_bin/");
  EXPECT_EQ(TolaOsGetAppEnv("/a/some_other_nam", kName, env, sizeof(env)), 0u) << "the name is not compared";
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/a/s");
}

TEST(AppEnv, RefusesPathsWithoutADirectoryAndTooLongOnes) {
  char env[256] = {};
  EXPECT_EQ(TolaOsGetAppEnv(kName, kName, env, sizeof(env)), 1u) << "started by its bare name";
  EXPECT_EQ(TolaOsGetAppEnv("x", kName, env, sizeof(env)), 1u);
  const std::string longest = "/" + std::string(254, 'd') + kName;
  EXPECT_EQ(TolaOsGetAppEnv(longest.c_str(), kName, env, sizeof(env)), kErrTextFormat)
      << "255 characters fit the scratch buffer, not the entry";
  EXPECT_EQ(TolaOsGetAppEnv(("/" + longest).c_str(), kName, env, sizeof(env)), 1u);
}

TEST(UnSamePid, TakesTheFirstThatIsNeitherZeroNorOwn) {
  struct Row {
    std::string line;
    uint32_t expected;
  };
  for (Row row : {Row{"17", kNoSuchProcess}, Row{"17 18\t19\n", 18}, Row{"0 17\n", kNoSuchProcess},
                  Row{"x 21", 21}, Row{"", kNoSuchProcess}, Row{"99999999999999999999 5", 5}}) {
    const std::string shown = row.line;
    EXPECT_EQ(TolaOsGetUnSamePid(row.line.data(), 17), row.expected) << shown;
  }
}

TEST(UserTick, CountsTicksKeepsTheRemainderAndReportsAJump) {
  KEL_ClockModeSet(kKelClockManual);
  EXPECT_EQ(TolaOsUserTickAdjust(), 1u) << "the first call starts the count";
  KEL_ClockAdvanceMs(1);  // one million ticks of the CPU at 50000 a user tick
  EXPECT_EQ(TolaOsUserTickAdjust(), 20u);
  EXPECT_EQ(TolaOsUserTickAdjust(), 0u) << "no time has passed";
  KEL_ClockAdvanceMs(500);
  EXPECT_EQ(TolaOsUserTickAdjust(), 10000u) << "the largest step that is no jump";
  testing::internal::CaptureStdout();
  KEL_ClockAdvanceMs(501);
  EXPECT_EQ(TolaOsUserTickAdjust(), 1000u);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("tick error : jump 10020 last(", 0), 0u);
  KEL_ClockModeSet(kKelClockReal);
}

}  // namespace
