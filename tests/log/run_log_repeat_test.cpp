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

constexpr uint16_t kModule = 7;

class RunLogRepeatTest : public testing::Test {
 protected:
  RunLogRepeatTest() { Switch(true); }
  ~RunLogRepeatTest() override { Switch(false); }

  static void Switch(bool isOn) {
    const uint8_t flag = isOn ? 1 : 0;
    ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &flag), 0u);
  }
  static void Log(const std::string& text, uint32_t line = 1, uint16_t module = kModule) {
    TOLA_LogPrint(module, kLogErr, "a.cpp", line, "%s", text.c_str());
  }

  const StandingClock clock;
  support::LogCapture log;
};

TEST_F(RunLogRepeatTest, RepeatIsCountedUntilItsTimeIsOver) {
  Log("same");
  StandingClock::MoveSeconds(100);
  for (int i = 0; i < 17; ++i) Log("same");
  Log("same", 2);
  Log("same", 1, 8);
  TOLA_LogPrint(kModule, kLogErr, "b.cpp", 1, "same");
  EXPECT_THAT(log.Lines(), ElementsAre("same", "same", "same", "same"))
      << "line, module and file make another record";
  log.Clear();
  StandingClock::MoveSeconds(199);
  Log("same");
  EXPECT_THAT(log.Lines(), IsEmpty()) << "299 s are within the time";
  StandingClock::MoveSeconds(1);
  Log("other");
  EXPECT_THAT(log.Lines(), ElementsAre("T Cnt:0x12,same 2024-03-05 14:02:07", "other"))
      << "only the record that came again is summed up, without the first one";
  log.Clear();
  Log("same");
  Log("same");
  EXPECT_THAT(log.Lines(), ElementsAre("same")) << "its time over, it is new again, and folded again";
}

TEST_F(RunLogRepeatTest, SummaryCarriesThePlaceOfTheRecordAndTheTimeOfNow) {
  TOLA_LogPrint(4200, kLogEvt, "some.cpp", 77, "event");
  TOLA_LogPrint(4200, kLogEvt, "some.cpp", 77, "event");
  log.Clear();
  StandingClock::MoveSeconds(300);
  Log("next");
  const auto record = log.Records().at(0);
  EXPECT_EQ(record.date + record.level + record.module + record.file, "2024-03-05 14:07:07EVTM4200some.cpp");
  EXPECT_EQ(record.line, 77u);
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

TEST_F(RunLogRepeatTest, ModuleFiveIsNeverFolded) {
  Log("same", 1, 5);
  Log("same", 1, 5);
  EXPECT_THAT(log.Lines(), ElementsAre("same", "same"));
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

TEST_F(RunLogRepeatTest, SettingsRefuseWhatTheyDoNotKnow) {
  EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, nullptr), 14659u);
  const uint32_t word = 1;
  EXPECT_EQ(TOLA_LogRepeatControl(4, &word), 14665u);
}

TEST(RunLogRepeatSettingsTest, ExceptionsAreAcceptedOnceAndAreNotFolded) {
  InFreshProcess([] {
    support::LogCapture log;
    uint16_t ids[] = {70, 71};
    const TOLA_LOG_EXCEPTION_S exceptions = {2, ids};
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatExceptions, &exceptions), 0u);
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatExceptions, &exceptions), 14666u);
    ids[1] = 72;  // the list was copied
    const uint8_t on = 1;
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &on), 0u);
    for (const uint16_t module : std::initializer_list<uint16_t>{71, 72, 71, 72})
      TOLA_LogPrint(module, kLogErr, "a.cpp", 1, "%u", module);
    EXPECT_THAT(log.Lines(), ElementsAre("71", "72", "71"));
  });
}

}  // namespace
