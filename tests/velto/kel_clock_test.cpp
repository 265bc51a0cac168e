#include "velto/kel_clock.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/task_turn.h"
#include "support/temp_dir.h"
#include "velto/kel_cfg.h"
#include "velto/kel_clock_control.h"
#include "velto/kel_support.h"
#include "velto/kel_sync.h"

namespace {

using testing::HasSubstr;

constexpr uint64_t kMs = 1'000'000;
constexpr uint32_t kTenMinutes = 600'000;

TEST(KelClock, ManualTimeStandsUntilItIsMovedAndGoesOnFromThereInRealMode) {
  const uint64_t before = KEL_ClockMonotonicNs();
  uint64_t moved = 0;
  {
    const ClockModeScope manual(kKelClockManual);
    const uint64_t stopped = KEL_ClockMonotonicNs();
    EXPECT_GE(stopped, before) << "the switch took time back";
    const uint64_t wall = KEL_ClockWallNs();
    KEL_ClockAdvanceMs(kTenMinutes);
    moved = KEL_ClockMonotonicNs();
    EXPECT_EQ(moved - stopped, kTenMinutes * kMs) << "or manual time moved by itself";
    EXPECT_EQ(KEL_ClockWallNs() - wall, kTenMinutes * kMs) << "the wall clock was left behind";
    KEL_ClockWallSetNs(1000);
    EXPECT_EQ(KEL_ClockWallNs(), 1000u);
    EXPECT_EQ(KEL_ClockMonotonicNs(), moved) << "setting the wall clock moved the monotonic one";
  }
  const uint64_t now = KEL_ClockMonotonicNs();
  EXPECT_GE(now, moved) << "back in real mode the moved time was lost";
  EXPECT_LT(now - moved, 60'000 * kMs) << "the switch back made time jump";
  KEL_ClockAdvanceMs(kTenMinutes);
  EXPECT_LT(KEL_ClockMonotonicNs() - now, kTenMinutes * kMs) << "real time can be moved";
  const ClockModeScope automatic(kKelClockAutoAdvance);
  for (int i = 0; i < 100; ++i) KEL_TaskDelay(30'000);  // 50 minutes, where a delay sleeps
}

// The wait begins on the machine's clock: only a switch that reaches it lets the moved time end it.
TEST(KelClock, AWaitOfTenMinutesAdaptsToTheSwitchAndEndsWhenTheTimeHasBeenMoved) {
  uint32_t sema = 0;
  ASSERT_EQ(KEL_SemaCreate("ten minutes", 0, 0, &sema), 0u);
  TestTask waiter("waiter", [&] { EXPECT_EQ(KEL_SemaP(sema, kTenMinutes), kKelErrTimeout); });
  support::TaskTurns(waiter.id()).Asleep();
  const ClockModeScope manual(kKelClockManual);
  KEL_ClockAdvanceMs(kTenMinutes / 2);
  EXPECT_EQ(KEL_TaskWait(waiter.id(), 0), kKelErrTimeout) << "five minutes ended a wait of ten";
  EXPECT_TRUE(waiter.EndsWhenTimeMoves(kTenMinutes));
  waiter.Join();
  EXPECT_EQ(KEL_SemaDelete(sema), 0u);
}

/// What standard output got while `call` ran.
template <class Call>
std::string Printed(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

// Over the configuration, as a development board uses it: the file is read, the runtime started.
TEST(KelClockControl, ALineMovesTheMonotonicClockOnAndEndsTheWaitsThatItPassesButLeavesTheWallClock) {
  const support::TempDir dir;
  const std::string fifo = dir.File("clock");
  ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.Write("cfg", "clock.control=" + fifo + "\n").c_str()), 0u);
  EXPECT_NE(Printed([] { EXPECT_EQ(KEL_Start(nullptr), 0u); }), "") << "a movable clock must be told of";
  EXPECT_EQ(Printed([] { EXPECT_EQ(KEL_Start(nullptr), 0u); }), "") << "the second start did something";
  EXPECT_EQ(KEL_CfgdbInitByFsldr(dir.Write("cfg", "").c_str()), 0u);
  struct stat status {};
  ASSERT_EQ(stat(fifo.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, mode_t{S_IFIFO | 0600});

  TestTask waiter("waiter", [] { KEL_TaskDelay(kTenMinutes); });
  support::TaskTurns(waiter.id()).Asleep();
  const uint64_t before = KEL_ClockMonotonicNs();
  const uint64_t wall = KEL_ClockWallNs();
  // Each wrong line is skipped by itself: 300000 twice is what counts.
  std::ofstream(fifo) << "300000\n-1\n0\n86400001\n12x\n\n18446744073709551617\n" + std::string(70000, '9') +
                             "\n300000\n";
  waiter.Join();
  const uint64_t passed = KEL_ClockMonotonicNs() - before;
  EXPECT_GE(passed, kTenMinutes * kMs);
  EXPECT_LT(passed, 2 * kTenMinutes * kMs) << "a wrong line moved the clock";
  EXPECT_LT(KEL_ClockWallNs() - wall, kTenMinutes / 2 * kMs) << "what certificates are checked by was moved";
  EXPECT_EQ(Printed([&] { velto::ClockControlStart(fifo.c_str()); }),
            "clock.control " + fifo + ": another process reads it\n");
}

TEST(KelClockControl, WhatIsNoFifoOfThisUserAloneIsLeftAloneWithALine) {
  const support::TempDir dir;
  ASSERT_EQ(mkfifo(dir.File("open").c_str(), 0620), 0);
  ASSERT_EQ(chmod(dir.File("open").c_str(), 0620), 0);
  ASSERT_EQ(symlink(dir.File("open").c_str(), dir.File("link").c_str()), 0);
  const uint32_t tasks = KEL_TaskMaxIdGet();
  for (const auto& [name, reason] : {std::pair{dir.path(), "no FIFO"},
                                     {dir.File("link"), "no FIFO"},
                                     {dir.File("open"), "others may open"},
                                     {dir.File("none/fifo"), "No such file"}}) {
    const std::string& path = name;
    EXPECT_THAT(Printed([&] { velto::ClockControlStart(path.c_str()); }),
                testing::AllOf(HasSubstr(path + ": "), HasSubstr(reason)));
  }
  EXPECT_EQ(KEL_TaskMaxIdGet(), tasks) << "a refused file is read";
}

TEST(KelTick, ArithmeticOnHalvesCarriesAndBorrows) {
  uint32_t high = 0, low = 0, rest = 0;
  EXPECT_EQ(KEL_64Sub64(2, 0, 0, 1, &high, &low), 0u);
  EXPECT_EQ(uint64_t{high} << 32 | low, 0x1FFFFFFFFu);
  EXPECT_EQ(KEL_64Sub64(1, 0, 1, 1, &high, &low), 1u) << "a negative difference";
  EXPECT_EQ(KEL_64Add64(high, low, 0, 1, &high, &low), 0u);
  EXPECT_EQ(uint64_t{high} << 32 | low, 0x200000000u);
  EXPECT_EQ(KEL_64Add64(0xFFFFFFFF, 0xFFFFFFFF, 0, 1, &high, &low), 1u) << "a sum of 65 bits";
  EXPECT_EQ(KEL_64Div32(3, 7, 50000, &high, &low, &rest), 0u);
  EXPECT_EQ((uint64_t{high} << 32 | low) * 50000 + rest, (uint64_t{3} << 32) + 7);
  EXPECT_LT(rest, 50000u);
}

TEST(KelCpuRate, ABusyProcessShowsInPercentOfTheMachine) {
  (void)KEL_CpupUseRateGet();  // sets the mark that the next call compares with
  uint32_t rate = 0;           // a look within one clock tick sees nothing yet
  EXPECT_TRUE(Eventually([&] { return (rate = KEL_CpupUseRateGet()) > 0; })) << "this loop's own load";
  EXPECT_LE(rate, 100u);
}

}  // namespace
