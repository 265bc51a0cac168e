/// Batched wake-ups, on a clock that the test moves; in a process of its own, since what is registered stays.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "msg/msg_interface_public.h"
#include "msg/msg_none_realtime_control.h"
#include "support/log_capture.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

using ::testing::ElementsAre;

constexpr uint16_t kSlow = 60;
constexpr uint16_t kSlower = 61;
constexpr uint16_t kPrompt = 62;

uint32_t Events() {
  uint32_t received = 0;
  return KEL_EventRead(7, &received, kKelEventAny, 0) == 0 ? received : 0;
}

/// The events after each of `count` posts, as digits.
std::string Post(uint16_t id, uint32_t count) {
  std::string events;
  for (; count > 0; --count) {
    EXPECT_EQ(SendSimpleFormatMsg(1, id, 1, 1, 0, nullptr), 0u);
    events += std::to_string(Events());
  }
  return events;
}

/// The events after everything that is due in `milliseconds` has happened.
uint32_t EventsAfter(uint32_t milliseconds) {
  static std::atomic<bool> done;
  done = false;
  uint32_t timer = 0;
  const auto finish = [](uintptr_t) { done = true; };
  EXPECT_EQ(KEL_ReltmrCbkStart(milliseconds + 1, kKelTimerOnce, finish, 0, &timer), 0u);
  KEL_ClockAdvanceMs(milliseconds + 1);
  while (!done) sched_yield();
  return Events();
}

void EveryThirdMessageWakesAndTheTimerForTheRest() {
  KEL_ClockModeSet(kKelClockManual);
  uint32_t task = 0;
  ASSERT_EQ(TOLA_MsgManagerInit() + KEL_TaskAdopt("receiver", &task), 0u);
  for (const uint16_t id : {kSlow, kSlower, kPrompt}) {  // module 60 has bit 0
    ASSERT_EQ(TOLA_MsgModuleRegister(id, task, 1U << (id - kSlow), 100), 0u);
  }
  const support::LogCapture log(kLogErr);
  constexpr uint16_t kIds[] = {kSlower, kSlow, 1857};
  EXPECT_EQ(TOLA_NoneRealTimeMsgFuncSwitch(1), 1u);
  EXPECT_EQ(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 0, 0), 1u);
  EXPECT_EQ(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 3, 429496730), 1u) << "x 10 is 4 in 32 bits";
  EXPECT_EQ(TOLA_NoneRealTimeMsgModuleRegist(3, kIds, 3, 5), 1u);
  EXPECT_EQ(Post(kSlow, 2), "11") << "a refused registration holds nothing back";
  EXPECT_EQ(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 3, 5), 0u);

  EXPECT_EQ(Post(kSlow, 7), "0010010");
  EXPECT_EQ(Post(kSlower, 1), "0");
  EXPECT_EQ(Post(kPrompt, 2), "44");
  EXPECT_EQ(EventsAfter(48), 0u);
  EXPECT_EQ(EventsAfter(1), 3u);
  EXPECT_EQ(Post(kSlow, 4), "0010") << "the timer set the count back";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(TOLA_NoneRealTimeMsgFuncSwitch(0), 0u);
  EXPECT_EQ(Events(), 1u) << "what was held back is lost";
  EXPECT_EQ(Post(kSlow, 2), "11");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(TOLA_NoneRealTimeMsgFuncSwitch(1), 0u);
  EXPECT_EQ(Post(kSlow, 1), "0");
  EXPECT_EQ(TOLA_MsgModuleUnregister(kSlow), 0u);  // ... and nobody is left to wake
  EXPECT_EQ(EventsAfter(50), 0u);
  EXPECT_THAT(log.Lines(), ElementsAre("NoneRealTimeMsgModuleInit fail: msgCount:0, timeOut:0",
                                       "NoneRealTimeMsgModuleInit fail: timeOut:0x1999999a",
                                       "timer start:0, interval:50", "timer start:0, interval:50"));
}

TEST(MsgNoneRealTime, WakeUpsAreBatchedAndNoneIsLost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    GTEST_FLAG_SET(throw_on_failure, true);  // says there what failed
    EveryThirdMessageWakesAndTheTimerForTheRest();
    _exit(0);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
