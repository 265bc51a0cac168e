/// Batched wake-ups, on a clock that the test moves. What is registered stays for the process's life, so each
/// case runs in a process of its own.
#include <gmock/gmock.h>

#include <atomic>
#include <string>

#include "base/check.h"
#include "msg/msg_interface_public.h"
#include "msg/msg_none_realtime_control.h"
#include "support/log_capture.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kSlow = 60;
constexpr uint16_t kSlower = 61;
constexpr uint16_t kPrompt = 62;

/// Three modules of one task, each with an event of its own: module 60 has bit 0.
class Board {
 public:
  Board() {
    KEL_ClockModeSet(kKelClockManual);
    TOLA_CHECK(TOLA_MsgManagerInit() == 0 && KEL_TaskAdopt("receiver", &task_) == 0);
    for (const uint16_t id : {kSlow, kSlower, kPrompt}) {
      TOLA_CHECK(TOLA_MsgModuleRegister(id, task_, 1U << (id - kSlow), 100) == 0);
    }
    log.Clear();
  }
  uint32_t Events() {
    uint32_t received = 0;
    return KEL_EventRead(7, &received, kKelEventAny, 0) == 0 ? received : 0;
  }
  /// The events after each of `count` posts, as digits.
  std::string Post(uint16_t id, uint32_t count) {
    std::string events;
    for (uint32_t i = 0; i < count; ++i) {
      TOLA_CHECK(SendSimpleFormatMsg(1, id, 1, 1, 0, nullptr) == 0);
      events += std::to_string(Events());
    }
    return events;
  }
  /// Moves the time and lets everything that is due happen.
  uint32_t EventsAfter(uint32_t milliseconds) {
    static std::atomic<uint32_t> done{0};
    uint32_t timer = 0;
    const uint32_t before = done.load();
    const auto count = [](uintptr_t) { done.fetch_add(1); };
    TOLA_CHECK(KEL_ReltmrCbkStart(milliseconds + 1, kKelTimerOnce, count, 0, &timer) == 0);
    KEL_ClockAdvanceMs(milliseconds + 1);
    while (done.load() == before) sched_yield();
    return Events();
  }
  std::string Lines() {
    std::string all;
    for (const std::string& line : log.Lines()) all += line + "|";
    log.Clear();
    return all;
  }

 private:
  support::LogCapture log{kLogErr};
  uint32_t task_ = 0;
};

void Expect(const std::string& seen, const std::string& wanted, int line) {
  if (seen == wanted) return;
  fprintf(stderr, "line %d: %s instead of %s\n", line, seen.c_str(), wanted.c_str());
  _exit(1);
}
#define EXPECT_SEEN(seen, wanted) Expect((seen), (wanted), __LINE__)

constexpr uint16_t kIds[] = {kSlower, kSlow};

void EveryThirdMessageWakesAndTheTimerForTheRest() {
  Board board;
  const uint16_t outside[] = {kSlow, 1857};
  TOLA_CHECK(TOLA_NoneRealTimeMsgFuncSwitch(1) == 1);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 0, 0) == 1);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 3, 101) == 1);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 3, 429496730) == 1);  // x 10 is 4 in 32 bits
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, outside, 3, 5) == 1);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, nullptr, 3, 5) == 1);
  EXPECT_SEEN(
      board.Lines(),
      "NoneRealTimeMsgModuleInit fail: msgCount:0, timeOut:0|NoneRealTimeMsgModuleInit fail: timeOut:0x65|"
      "NoneRealTimeMsgModuleInit fail: timeOut:0x1999999a|");
  EXPECT_SEEN(board.Post(kSlow, 2), "11");  // a refused registration holds nothing back
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 3, 5) == 0);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, outside, 0, 0) == 0);
  EXPECT_SEEN(board.Lines(), "timer start:0, interval:50|");

  EXPECT_SEEN(board.Post(kSlow, 7), "0010010");
  EXPECT_SEEN(board.Post(kSlower, 1), "0");
  EXPECT_SEEN(board.Post(kPrompt, 2), "44");
  EXPECT_SEEN(std::to_string(board.EventsAfter(50)), "3");
  EXPECT_SEEN(std::to_string(board.EventsAfter(50)), "0");
  EXPECT_SEEN(board.Post(kSlow, 3), "001");  // the timer set the count back

  EXPECT_SEEN(board.Post(kSlow, 1), "0");
  TOLA_CHECK(TOLA_NoneRealTimeMsgFuncSwitch(0) == 0 && TOLA_NoneRealTimeMsgFuncSwitch(0) == 0);
  EXPECT_SEEN(std::to_string(board.Events()), "1");
  EXPECT_SEEN(board.Post(kSlow, 2), "11");
  TOLA_CHECK(TOLA_NoneRealTimeMsgFuncSwitch(1) == 0 && TOLA_NoneRealTimeMsgFuncSwitch(1) == 0);
  EXPECT_SEEN(board.Lines(), "timer start:0, interval:50|");

  EXPECT_SEEN(board.Post(kSlow, 1), "0");
  TOLA_CHECK(TOLA_MsgModuleUnregister(kSlow) == 0);  // ... and nobody is left to wake
  EXPECT_SEEN(std::to_string(board.EventsAfter(50)), "0");
  EXPECT_SEEN(board.Lines(), "");
}

void WithoutANumberTheTimerAloneWakes() {
  Board board;
  TOLA_CHECK(TOLA_MsgModuleUnregister(kSlower) == 0 && TOLA_MsgModuleRegister(kSlower, 250, 2, 8) == 0);
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 0, 100) == 0);
  EXPECT_SEEN(board.Lines(), "timer start:0, interval:1000|");
  EXPECT_SEEN(board.Post(kSlow, 9), "000000000");
  EXPECT_SEEN(board.Post(kSlower, 1), "0");
  EXPECT_SEEN(std::to_string(board.EventsAfter(998)), "0");
  EXPECT_SEEN(std::to_string(board.EventsAfter(1)), "1");
  EXPECT_SEEN(board.Lines(), "NoneRealTimeMsgProcTimer fail:516|");  // module 61 has no such task
}

void WithoutATimeOutNoTimerRuns() {
  Board board;
  TOLA_CHECK(TOLA_NoneRealTimeMsgModuleRegist(2, kIds, 2, 0) == 0);
  EXPECT_SEEN(board.Lines(), "");
  EXPECT_SEEN(board.Post(kSlow, 3), "010");
  EXPECT_SEEN(std::to_string(board.EventsAfter(5000)), "0");
  TOLA_CHECK(TOLA_NoneRealTimeMsgFuncSwitch(0) == 0);
  EXPECT_SEEN(std::to_string(board.Events()), "1");
}

TEST(MsgNoneRealTime, WakeUpsAreBatchedAndNoneIsLost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (void (*run)() : {EveryThirdMessageWakesAndTheTimerForTheRest, WithoutANumberTheTimerAloneWakes,
                        WithoutATimeOutNoTimerRuns}) {
    EXPECT_EXIT((run(), _exit(0)), ::testing::ExitedWithCode(0), "");
  }
}

}  // namespace
