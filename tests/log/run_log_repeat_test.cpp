/// Repeats: what is folded, when the count is written, and the settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "log/log_test_support.h"
#include "log/run_log.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class RunLogRepeatTest : public testing::Test {
 protected:
  RunLogRepeatTest() { Switch(true); }
  ~RunLogRepeatTest() override { Switch(false); }

  static void Switch(bool isOn) {
    const uint8_t flag = isOn ? 1 : 0;
    ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &flag), 0u);
  }
  static void Log(const std::string& text) { TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "%s", text.c_str()); }

  const StandingClock clock;
  support::LogCapture log;
};

TEST_F(RunLogRepeatTest, RepeatIsCountedUntilItsTimeIsOver) {
  const auto same = [] { TOLA_LogPrint(4200, kLogEvt, "some.cpp", 77, "same"); };
  same();
  StandingClock::MoveSeconds(100);
  for (int i = 0; i < 17; ++i) same();
  TOLA_LogPrint(4200, kLogEvt, "some.cpp", 78, "same");
  TOLA_LogPrint(4201, kLogEvt, "some.cpp", 77, "same");
  TOLA_LogPrint(4200, kLogEvt, "other.cpp", 77, "same");
  EXPECT_THAT(log.Lines(), ElementsAre("same", "same", "same", "same"))
      << "line, module and file make another record";
  log.Clear();
  StandingClock::MoveSeconds(199);
  same();
  EXPECT_THAT(log.Lines(), IsEmpty()) << "299 s are within the time";
  StandingClock::MoveSeconds(1);
  Log("next");
  EXPECT_THAT(log.Lines(), ElementsAre("T Cnt:0x12,same 2024-03-05 14:02:07", "next"))
      << "only the record that came again is summed up, without the first one";
  const auto summary = log.Records().at(0);
  EXPECT_EQ(summary.date + summary.level + summary.module + summary.file,
            "2024-03-05 14:07:07EVTM4200some.cpp");
  EXPECT_EQ(summary.line, 77u);
  log.Clear();
  same();
  same();
  EXPECT_THAT(log.Lines(), ElementsAre("same")) << "its time over, it is new again, and folded again";
}

TEST_F(RunLogRepeatTest, ClockThatGoesBackEndsTheFoldingToo) {
  Log("same");
  Log("same");
  log.Clear();
  KEL_ClockWallSetNs(KEL_ClockWallNs() - 300'000'000'000u);
  Log("same");
  EXPECT_THAT(log.Lines(), ElementsAre("T Cnt:0x1,same 2024-03-05 14:02:07", "same"));
}

TEST_F(RunLogRepeatTest, RecordIsForgottenWithoutTheOlderOneInFrontOfIt) {
  Log("front");
  KEL_ClockWallSetNs(KEL_ClockWallNs() - 100'000'000'000u);
  Log("behind");
  StandingClock::MoveSeconds(300);
  log.Clear();
  for (const char* text : {"front", "behind", "behind", "front"}) Log(text);
  EXPECT_THAT(log.Lines(), ElementsAre("behind"));
}

TEST_F(RunLogRepeatTest, ThirtyFirstRecordPushesOutTheOldest) {
  Log("first");
  Log("first");
  Log("second");
  for (int i = 3; i <= 30; ++i) Log("record " + std::to_string(i));
  log.Clear();
  Log("first");
  EXPECT_THAT(log.Lines(), IsEmpty()) << "thirty are remembered";
  Log("31");
  Log("32");
  EXPECT_THAT(log.Lines(), ElementsAre("Q Cnt:0x2,first 2024-03-05 14:02:07", "31", "32"))
      << "a count of 0 is pushed out in silence";
}

TEST_F(RunLogRepeatTest, SwitchingOffWritesEveryCount) {
  Log("alone");
  Log("twice");
  Log("twice");
  Switch(true);  // changes nothing while it is on
  log.Clear();
  Switch(false);
  Log("twice");
  Log("twice");
  EXPECT_THAT(log.Lines(), ElementsAre("F Cnt:0x0,alone 2024-03-05 14:02:07",
                                       "F Cnt:0x1,twice 2024-03-05 14:02:07", "twice", "twice"));
}

TEST_F(RunLogRepeatTest, LongerQueueRemembersMoreAndAShorterOnePushesOut) {
  const uint16_t longer = 40;
  ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatQueueLength, &longer), 0u);
  for (int i = 0; i < 40; ++i) Log(std::to_string(i));
  for (int i = 0; i < 40; ++i) Log(std::to_string(i));
  EXPECT_THAT(log.Lines(), SizeIs(40)) << "all forty were remembered";
  const uint16_t shorter = 3;
  ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatQueueLength, &shorter), 0u);
  log.Clear();
  Log("new");
  EXPECT_THAT(log.Lines(), SizeIs(12)) << "eleven summaries and the record: thirty is the least";
}

TEST_F(RunLogRepeatTest, TimeoutOfZeroFoldsNothing) {
  const uint32_t none = 0;
  ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatTimeout, &none), 0u);
  for (int i = 0; i < 3; ++i) Log("same");
  const uint32_t usual = 300;
  ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatTimeout, &usual), 0u);
  EXPECT_THAT(log.Lines(), ElementsAre("same", "same", "same"));
}

TEST(RunLogRepeatSettingsTest, ExceptionsAreAcceptedOnceAndAreNotFolded) {
  InFreshProcess([] {
    support::LogCapture log;
    uint16_t ids[] = {70, 71};  // and 5, always
    const TOLA_LOG_EXCEPTION_S exceptions = {2, ids};
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatExceptions, &exceptions), 0u);
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatExceptions, &exceptions), 14666u);
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, nullptr), 14659u);
    EXPECT_EQ(TOLA_LogRepeatControl(4, &exceptions), 14665u);
    ids[1] = 72;  // the list was copied
    const uint8_t on = 1;
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &on), 0u);
    for (const uint16_t module : std::initializer_list<uint16_t>{71, 72, 5, 71, 72, 5})
      TOLA_LogPrint(module, kLogErr, "a.cpp", 1, "%u", module);
    EXPECT_THAT(log.Lines(), ElementsAre("71", "72", "5", "71", "5"));
  });
}

}  // namespace
