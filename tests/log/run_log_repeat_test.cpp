/// Repeats: what is folded, when the count is written, and the settings.
#include "log/log_test_support.h"

namespace logtest {
namespace {

class RunLogRepeatTest : public testing::Test {
 protected:
  RunLogRepeatTest() { Set<uint8_t>(kLogRepeatEnable, 1); }
  ~RunLogRepeatTest() override { Set<uint8_t>(kLogRepeatEnable, 0); }

  template <class Value>
  static void Set(uint32_t command, Value value) {
    ASSERT_EQ(TOLA_LogRepeatControl(command, &value), 0u);
  }
  static void Log(const std::vector<const char*>& texts) {
    for (const char* text : texts) TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "%s", text);
  }
  static void LogNumbers(int from, int to) {
    for (int i = from; i <= to; ++i) TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "%d", i);
  }
  std::vector<std::string> NewLines() {
    const auto lines = log.Lines();
    log.Clear();
    return lines;
  }

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
  EXPECT_THAT(NewLines(), SizeIs(4)) << "line, module and file make another record";
  StandingClock::MoveSeconds(199);
  same();
  EXPECT_THAT(NewLines(), IsEmpty()) << "299 s are within the time";
  StandingClock::MoveSeconds(1);
  Log({"next"});
  const auto summary = log.Records().at(0);
  EXPECT_EQ(summary.date + summary.level + summary.module + summary.file + std::to_string(summary.line),
            "2024-03-05 14:07:07EVTM4200some.cpp77");
  EXPECT_THAT(NewLines(), ElementsAre("T Cnt:0x12,same 2024-03-05 14:02:07", "next"))
      << "only the record that came again is summed up, without the first one";
  same();
  same();
  EXPECT_THAT(NewLines(), ElementsAre("same")) << "its time over, it is new again, and folded again";
  KEL_ClockWallSetNs(KEL_ClockWallNs() - 300'000'000'000u);
  same();
  EXPECT_THAT(NewLines(), ElementsAre("T Cnt:0x1,same 2024-03-05 14:07:07", "same"))
      << "a clock that goes back ends the folding too";
}

TEST_F(RunLogRepeatTest, RecordIsForgottenWithoutTheOlderOneInFrontOfIt) {
  Log({"front"});
  KEL_ClockWallSetNs(KEL_ClockWallNs() - 100'000'000'000u);
  Log({"behind"});
  StandingClock::MoveSeconds(300);
  log.Clear();
  Log({"front", "behind", "behind", "front"});
  EXPECT_THAT(log.Lines(), ElementsAre("behind"));
}

TEST_F(RunLogRepeatTest, ThirtyFirstRecordPushesOutTheOldestAndTheEndAllOthers) {
  Log({"first", "first", "second"});
  LogNumbers(3, 30);
  log.Clear();
  Log({"first"});
  EXPECT_THAT(NewLines(), IsEmpty()) << "thirty are remembered";
  Log({"31", "32", "32"});
  EXPECT_THAT(NewLines(), ElementsAre("Q Cnt:0x2,first 2024-03-05 14:02:07", "31", "32"))
      << "a count of 0 is pushed out in silence";
  Set<uint8_t>(kLogRepeatEnable, 1);  // changes nothing while it is on
  Set<uint8_t>(kLogRepeatEnable, 0);
  Log({"32", "32"});
  const auto lines = NewLines();
  ASSERT_THAT(lines, SizeIs(32)) << "a count of 0 is told at the end";
  EXPECT_EQ(lines[0], "F Cnt:0x0,3 2024-03-05 14:02:07");
  EXPECT_EQ(lines[29], "F Cnt:0x1,32 2024-03-05 14:02:07");

  Set<uint8_t>(kLogRepeatEnable, 1);
  Log({"first", "first"});
  log.Clear();
  StopLogPrint();
  Set<uint8_t>(kLogRepeatEnable, 0);
  RestartLogPrint();
  EXPECT_THAT(log.Lines(), IsEmpty()) << "the files were to be left alone";
}

TEST_F(RunLogRepeatTest, QueueLengthAndTimeAreSettings) {
  Set<uint16_t>(kLogRepeatQueueLength, 40);
  LogNumbers(1, 40);
  LogNumbers(1, 40);
  EXPECT_THAT(NewLines(), SizeIs(40)) << "all forty were remembered";
  Set<uint16_t>(kLogRepeatQueueLength, 3);
  Log({"new"});
  EXPECT_THAT(NewLines(), SizeIs(12)) << "eleven summaries and the record: thirty is the least";
  Set<uint32_t>(kLogRepeatTimeout, 0);
  Log({"unique"});
  log.Clear();
  Log({"same", "same", "same"});
  Set<uint32_t>(kLogRepeatTimeout, 300);
  EXPECT_THAT(log.Lines(), ElementsAre("same", "same", "same")) << "no time folds nothing";
}

TEST(RunLogRepeatSettingsTest, ExceptionsAreAcceptedOnceAndAreNotFolded) {
  InFreshProcess([] {
    support::LogCapture log;
    uint16_t ids[] = {70, 71};  // and 5, always
    const TOLA_LOG_EXCEPTION_S exceptions = {2, ids};
    for (const uint32_t result : {0u, 14666u})
      EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatExceptions, &exceptions), result);
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, nullptr), 14659u);
    EXPECT_EQ(TOLA_LogRepeatControl(4, &exceptions), 14665u);
    ids[1] = 72;  // the list was copied
    const uint8_t on = 1;
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &on), 0u);
    for (const int id : {71, 72, 5, 71, 72, 5})
      TOLA_LogPrint(static_cast<uint16_t>(id), kLogErr, "a", 1, "%d", id);
    EXPECT_THAT(log.Lines(), ElementsAre("71", "72", "5", "71", "5"));
  });
}

}  // namespace
}  // namespace logtest
