#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "velto/kel_cfg.h"
#include "velto/kel_support.h"
#include "velto/kel_sync.h"

namespace {

/// Counts its calls, and can hold a call back.
struct Probe {
  std::atomic<uint32_t> calls{0};
  std::atomic<bool> inside{false};
  std::atomic<bool> hold{false};
  uint32_t timer = 0;

  static void Call(uintptr_t arg) {
    auto& probe = *reinterpret_cast<Probe*>(arg);
    probe.inside = true;
    while (probe.hold) std::this_thread::yield();
    ++probe.calls;
    probe.inside = false;
  }
  [[nodiscard]] uint32_t Start(uint32_t intervalMs, uint32_t mode, KelTimerCallback call = Call) {
    return KEL_ReltmrCbkStart(intervalMs, mode, call, reinterpret_cast<uintptr_t>(this), &timer);
  }
};

class KelTimerTest : public testing::Test {
 protected:
  /// Moves the time and lets the timer thread finish what became due.
  static void Advance(uint64_t milliseconds) {
    KEL_ClockAdvanceMs(milliseconds);
    Probe fence;
    ASSERT_EQ(fence.Start(1, kKelTimerOnce), 0u);
    KEL_ClockAdvanceMs(1);
    ASSERT_TRUE(Eventually([&] { return fence.calls == 1; }));
    (void)KEL_ReltmrStop(fence.timer);  // waits for the end of its call, where that still runs
  }

  ClockModeScope manual_{kKelClockManual};
};

TEST_F(KelTimerTest, OnceIsOnceAndRepeatKeepsItsRhythm) {
  Probe once, repeat;
  ASSERT_EQ(once.Start(100, kKelTimerOnce), 0u);
  ASSERT_EQ(repeat.Start(50, kKelTimerRepeat), 0u);
  Advance(48);  // 49 with the fence
  EXPECT_EQ(once.calls + repeat.calls, 0u) << "called before the time";
  Advance(20);  // 70
  EXPECT_EQ(repeat.calls, 1u);
  Advance(30);  // 101
  EXPECT_EQ(repeat.calls, 2u) << "the late first call shifted the rhythm";
  EXPECT_EQ(once.calls, 1u);
  KEL_ClockAdvanceMs(1009);
  Advance(8);  // 1119, where the call for 1100 was made at 1110 or later
  EXPECT_EQ(repeat.calls, 3u) << "missed expiries are made up for by one call";
  Advance(31);  // 1151
  EXPECT_EQ(repeat.calls, 4u) << "the missed expiries shifted the rhythm";
  EXPECT_EQ(once.calls, 1u);
  EXPECT_EQ(KEL_ReltmrStop(once.timer), kKelErrSyncId);
  EXPECT_EQ(KEL_ReltmrStop(repeat.timer), 0u);
  Advance(1000);
  EXPECT_EQ(repeat.calls, 4u) << "a stopped timer was called";
}

TEST_F(KelTimerTest, StopReturnsOnlyWhenNoCallbackRuns) {
  Probe probe;
  probe.hold = true;
  ASSERT_EQ(probe.Start(1, kKelTimerRepeat), 0u);
  KEL_ClockAdvanceMs(1);
  ASSERT_TRUE(Eventually([&] { return probe.inside.load(); }));
  std::thread stopper([&] {
    EXPECT_EQ(KEL_ReltmrStop(probe.timer), 0u);
    EXPECT_FALSE(probe.inside) << "the callback still runs: its data may be gone";
  });
  for (int i = 0; i < 50; ++i) std::this_thread::yield();
  probe.hold = false;
  stopper.join();
  EXPECT_EQ(probe.calls, 1u);
}

TEST_F(KelTimerTest, ATimerMayGiveItsPlaceToAnotherFromItsOwnCallback) {
  static Probe swap, next;
  swap.calls = next.calls = 0;
  const auto giveOn = [](uintptr_t) {
    EXPECT_EQ(KEL_ReltmrStop(swap.timer), 0u) << "it stopped itself in vain";
    do {
      EXPECT_EQ(next.Start(10, kKelTimerOnce), 0u);
    } while (next.timer != swap.timer && KEL_ReltmrStop(next.timer) == 0);
    ++swap.calls;
  };
  ASSERT_EQ(swap.Start(10, kKelTimerRepeat, giveOn), 0u);
  Advance(10);
  EXPECT_EQ(swap.calls, 1u);
  Advance(10);
  EXPECT_EQ(next.calls, 1u) << "the new timer was dropped with the old one, whose place it has";
}

// One wake may serve several moves of the time, so the time is moved until the hook was asked twice.
TEST_F(KelTimerTest, WakesAskTheTickHookAndAddWhatItSays) {
  uint32_t high = 0, before = 0, after = 0;
  ASSERT_EQ(KEL_UserTickGet(&high, &before), 0u);
  __atomic_store_n(
      &g_pfnUsrAdjustHook, +[]() -> uint32_t { return 7; }, __ATOMIC_RELEASE);
  EXPECT_TRUE(Eventually([&] {
    Advance(1);
    return KEL_UserTickGet(&high, &after) == 0 && after - before >= 14;
  })) << after - before;
  __atomic_store_n(&g_pfnUsrAdjustHook, nullptr, __ATOMIC_RELEASE);
  EXPECT_EQ((after - before) % 7, 0u);
}

}  // namespace
