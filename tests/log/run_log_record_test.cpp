/// What one record becomes: filter, line, names, the message's limits, hooks, and who may log when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "log/log_test_support.h"
#include "log/run_log.h"
#include "support/log_capture.h"

namespace {

using support::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint16_t kModule = 7;

TEST(RunLogRecordTest, OnlyLevelsOneToFiveThatReachTheThresholdAreWritten) {
  LogCapture log(kLogErr);
  for (uint32_t level = 0; level <= 6; ++level) TOLA_LogPrint(kModule, level, "a.cpp", 1, "level %u", level);
  EXPECT_THAT(log.Lines(), ElementsAre("level 4", "level 5"));

  ASSERT_EQ(TOLA_LogControl(kModule, 2, 2), 0u);
  log.Clear();
  for (uint32_t level = 1; level <= 3; ++level) TOLA_LogPrint(kModule, level, "a.cpp", 1, "level %u", level);
  TOLA_LogPrint(8, kLogWrn, "a.cpp", 1, "another module");
  EXPECT_THAT(log.Lines(), ElementsAre("level 2", "level 3")) << "a module's own threshold";

  log.Clear();
  SetPrintPara(kModule, 15 | kLogParaFile);
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "error");
  SetPrintPara(kModule, 0);
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "neither file nor console");
  void (*const unchecked)(uint16_t, uint32_t, const char*, uint32_t, const char*, ...) = TOLA_LogPrint;
  unchecked(8, kLogErr, "a.cpp", 1, nullptr);
  EXPECT_THAT(log.Lines(), ElementsAre("error")) << "no threshold holds levels 4 and 5 back";
}

TEST(RunLogRecordTest, EachIdHasItsOwnParameterAndOnlyTheseIds) {
  LogCapture log;
  struct {
    uint16_t id;
    bool isKept;
  } const cases[] = {{1, true},    {1856, true}, {1857, false}, {4095, false},
                     {4096, true}, {4287, true}, {4288, false}, {65535, false}};
  for (const auto& c : cases) {
    SetPrintPara(c.id, kLogParaFile | 3);
    EXPECT_EQ(GetPrintPara(c.id), c.isKept ? (kLogParaFile | 3) : 0) << "id " << c.id;
    TOLA_LogPrint(c.id, kLogErr, "a.cpp", 1, "of %u", c.id);
  }
  EXPECT_THAT(log.Lines(), ElementsAre("of 1", "of 1856", "of 4096", "of 4287"));
  EXPECT_EQ(GetPrintPara(2), kLogParaFile | kLogDbg) << "a neighbour's parameter changed";
}

TEST(RunLogRecordTest, LineHasDateTagNameFileAndPlaceAndIsEchoedAsItIs) {
  const StandingClock clock;
  LogCapture log;
  testing::internal::CaptureStdout();
  SetPrintPara(kModule, kLogParaEcho | kLogParaFile);
  SetPrintPara(9, kLogParaEcho);
  TOLA_LogPrint(kModule, kLogErr, "C:\\src/lib\\sub/cfg_module.cpp", 812, "open %s", "failed");
  StandingClock::MoveSeconds(1);
  TOLA_LogPrint(4200, kLogEvt, nullptr, 4294967295u, "component");
  TOLA_LogPrint(9, kLogWrn, "a.cpp", 5, "on the console");
  const std::string first = "2024-03-05 14:02:07 ERR M07 cfg_module.cpp           [812]:open failed\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            first + "2024-03-05 14:02:08 WRN M09 a.cpp                    [5]:on the console\n");
  EXPECT_EQ(ReadAll(log.CurrentFile()),
            first + "2024-03-05 14:02:08 EVT M4200                          [-1]:component\n");
}

TEST(RunLogRecordTest, MessageIsCutAt199AndStaysOnOneLine) {
  LogCapture log;
  for (const std::string& text : {std::string(199, 'a'), std::string(250, 'b'), std::string("one\r\ntwo\n"),
                                  std::string(198, 'c') + "\n\n"})
    TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "%s", text.c_str());
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "text%cafter its end", 0);
  EXPECT_THAT(log.Lines(), ElementsAre(std::string(199, 'a'), std::string(199, 'b'), "one  two ",
                                       std::string(198, 'c') + " ", "text"));

  log.Clear();
  testing::internal::CaptureStdout();
  const std::string longName(250, 'n');
  TOLA_LogPrint(kModule, kLogErr, longName.c_str(), 12, "%s", std::string(199, 'd').c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "err " + longName + ",12\n");
  EXPECT_THAT(log.Lines(), IsEmpty()) << "a line that does not fit is dropped whole";
}

TEST(RunLogRecordTest, FirstNameOfAnIdCountsAndNewNamesStandInFront) {
  LogCapture log;
  const auto add = [](const std::vector<TOLA_MODULE_NAME_S>& names) {
    const TOLA_MODULE_NAME_TABLE_S table = {static_cast<uint16_t>(names.size()), names.data()};
    return RegLogModuleInfo(&table);
  };
  ASSERT_EQ(add({{900, ""}, {900, "OLD"}, {900, "OLDER"}, {901, "tenletters"}}), 0u);
  TOLA_LogPrint(900, kLogErr, "a.cpp", 1, "text");
  ASSERT_EQ(add({{900, "NEW"}}), 0u);
  EXPECT_EQ(add({{902, "good"}, {901, "elevenchars"}}), kLogErrNameTooLong);
  for (const uint16_t id : std::initializer_list<uint16_t>{900, 901, 902})
    TOLA_LogPrint(id, kLogErr, "a.cpp", 1, "text");

  std::vector<std::string> names;
  for (const auto& record : log.Records()) names.push_back(record.module);
  EXPECT_THAT(names, ElementsAre("OLD", "NEW", "tenletters", "M902")) << "a refused table must add no name";
}

uint32_t LogFromHook(uint16_t moduleId, const void*, uint32_t) {
  TOLA_LogPrint(moduleId, kLogErr, "hook.cpp", 1, "from the hook");
  return 3;
}

TEST(RunLogRecordTest, NestedCallIsDroppedInsteadOfWaitingForItself) {
  LogCapture log;
  SetRunLogReport(kModule, LogFromHook);
  testing::internal::CaptureStdout();
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "outer");
  SetRunLogReport(0, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "!3\n") << "the hook's result is told";
  EXPECT_THAT(log.Lines(), ElementsAre("outer")) << "and does not hold the record back";
}

TEST(RunLogRecordTest, FlowControlSkipsTheWriteAndLeavesNoGap) {
  LogCapture log;
  RegLogFileOprateFunc([](uint32_t operation, FILE*, const char*) -> uint32_t { return operation == 2; });
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "held back");
  RegLogFileOprateFunc(nullptr);
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "written");
  EXPECT_THAT(log.Lines(), ElementsAre("written"));
  EXPECT_EQ(ReadAll(log.CurrentFile()).substr(0, 2), "20") << "the line stands at the start of the file";
}

TEST(RunLogRecordTest, StoppedLogTakesNothingAndSeparatePrintTakesAll) {
  const StandingClock clock;
  LogCapture log(kLogErr);
  StopLogPrint();
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "stopped");
  RestartLogPrint();
  static std::string seen;
  RegLogSeparatePrintFunc([](const TOLA_LOG_PARA_S* para, const char* fmt, va_list) {
    seen = std::to_string(para->moduleId) + " " + std::to_string(para->year) + " " + fmt;
  });
  TOLA_LogPrint(kModule, kLogDbg, "a.cpp", 1, "below the threshold");
  RegLogSeparatePrintFunc(nullptr);
  EXPECT_EQ(seen, "7 2024 below the threshold");
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(RunLogRecordTest, MemoryDumpFollowsTheLevelRule) {
  LogCapture log(kLogWrn);
  static std::string seen;
  RegMemoryPrintFunc(
      [](uint16_t, const char*, uint32_t line, const void*, uint32_t) { seen += std::to_string(line); });
  for (uint32_t level = 0; level <= 6; ++level)
    MemoryPrintWithLevel(kModule, level, "a.cpp", level, "dump", 4);
  MemoryPrintWithLevel(kModule, kLogErr, "a.cpp", 7, nullptr, 4);
  RegMemoryPrintFunc(nullptr);
  EXPECT_EQ(seen, "345");
}

TEST(RunLogRecordTest, NothingHappensBeforeTheSemaphoreIsMade) {
  InFreshProcess([] {
    testing::internal::CaptureStdout();
    SetPrintPara(kModule, kLogParaEcho | kLogParaFile);
    TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "too early");
    const uint8_t on = 1;
    EXPECT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &on), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(GetSemaLogPrint(), 0u);
  });
}

TEST(RunLogRecordTest, LinesOfThreadsThatLogAtOnceStayWhole) {
  constexpr int kPerThread = 2000;
  LogCapture log;
  const auto writer = [](uint16_t module) {
    for (int i = 0; i < kPerThread; ++i)
      TOLA_LogPrint(module, kLogErr, "thread.cpp", module, "%d of %u", i, module);
  };
  std::thread one(writer, 11);
  std::thread two(writer, 12);
  const TOLA_MODULE_NAME_S names[] = {{903, "THIRD"}};
  const TOLA_MODULE_NAME_TABLE_S table = {1, names};
  for (int i = 0; i < 20; ++i) {
    (void)RegLogModuleInfo(&table);
    SetPrintPara(13, static_cast<uint8_t>(i));
    DbgPrint(nullptr, "", 0);
  }
  one.join();
  two.join();

  int next[] = {0, 0};
  for (const auto& record : log.Records()) {
    ASSERT_TRUE(record.line == 11 || record.line == 12) << record.message;
    const std::string expected = std::to_string(next[record.line - 11]++);
    ASSERT_EQ(record.message, expected + " of " + std::to_string(record.line)) << "torn or lost";
  }
  EXPECT_EQ(next[0] + next[1], 2 * kPerThread);
}

TEST(RunLogTraceTest, MessageIsTracedForTheModuleThatSendsOrReceivesIt) {
  const StandingClock clock;
  LogCapture log(kLogErr);
  const uint16_t message[] = {20, 21, 0x0102, 3, 0xFF00, 2, 0xABCD};
  SetPrintPara(20, 1);
  testing::internal::CaptureStdout();
  TOLA_dbg_send(message, "dir/msg.cpp", 9);
  TOLA_dbg_recv(message, "dir/msg.cpp", 9);
  const TOLA_DBG_MSG_S otherHead = {message, 16, true};
  DbgPrint(&otherHead, "msg.cpp", 9);
  StopLogPrint();
  TOLA_dbg_send(message, "dir/msg.cpp", 9);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "msg.cpp                       [9   ][14:02:07.0]: >>Send msg[  2]:"
            " 14 00 15 00 02 01 03 00 00 FF 02 00 :: CD AB\n")
      << "threshold 4 of the receiver, another head and a stopped log give nothing";
}

}  // namespace
