/// What one record becomes: filter, line, names, the message's limits, hooks, and who may log when.
#include <thread>

#include "log/log_test_support.h"

namespace logtest {
namespace {

constexpr uint16_t kModule = 7;

TEST(RunLogRecordTest, OnlyLevelsOneToFiveThatReachTheThresholdAreWritten) {
  LogCapture log(kLogErr);
  const auto logAll = [](uint16_t module) {
    for (uint32_t level = 0; level <= 6; ++level)
      TOLA_LogPrint(module, level, "a.cpp", 1, "%u:%u", module, level);
  };
  logAll(kModule);
  ASSERT_EQ(TOLA_LogControl(kModule, 2, 2), 0u);
  for (const uint16_t module : {kModule, uint16_t{8}}) logAll(module);
  EXPECT_THAT(log.Lines(), ElementsAre("7:4", "7:5", "7:2", "7:3", "7:4", "7:5", "8:4", "8:5"));

  log.Clear();
  SetPrintPara(kModule, 15 | kLogParaFile);
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "error");
  SetPrintPara(kModule, 0);
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "neither file nor console");
  StopLogPrint();
  TOLA_LogPrint(8, kLogErr, "a.cpp", 1, "stopped");
  RestartLogPrint();
  void (*const unchecked)(uint16_t, uint32_t, const char*, uint32_t, const char*, ...) = TOLA_LogPrint;
  unchecked(8, kLogErr, "a.cpp", 1, nullptr);
  EXPECT_THAT(log.Lines(), ElementsAre("error")) << "no threshold holds levels 4 and 5 back";
}

TEST(RunLogRecordTest, EachIdHasItsOwnParameterAndOnlyTheseIds) {
  LogCapture log;
  for (const uint32_t id : {1u, 1856u, 1857u, 4095u, 4096u, 4287u, 4288u, 65535u}) {
    SetPrintPara(static_cast<uint16_t>(id), kLogParaFile | 3);
    TOLA_LogPrint(static_cast<uint16_t>(id), kLogErr, "a.cpp", 1, "of %u", id);
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
  TOLA_LogPrint(4200, kLogEvt, nullptr, 4294967295u, "component");
  TOLA_LogPrint(9, kLogWrn, "a.cpp", 5, "on the console");
  const std::string date = "2024-03-05 14:02:07 ",
                    first = date + "ERR M07 cfg_module.cpp           [812]:open failed\n" + date;
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            first + "WRN M09 a.cpp                    [5]:on the console\n");
  EXPECT_EQ(ReadAll(log.CurrentFile()), first + "EVT M4200                          [-1]:component\n");
}

TEST(RunLogRecordTest, MessageIsCutAt199AndStaysOnOneLine) {
  LogCapture log;
  const std::string full(199, 'a');
  for (const std::string& text : {full, full + "bbb", std::string("one\r\ntwo\n"), full.substr(1) + "\n\n"})
    TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "%s", text.c_str());
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "text%cafter its end", 0);
  testing::internal::CaptureStdout();
  const std::string longName(250, 'n');
  TOLA_LogPrint(kModule, kLogErr, longName.c_str(), 12, "%s", full.c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "err " + longName + ",12\n");
  EXPECT_THAT(log.Lines(), ElementsAre(full, full, "one  two ", full.substr(1) + " ", "text"))
      << "a line that does not fit is dropped whole";
}

TEST(RunLogRecordTest, FirstNameOfAnIdCountsAndNewNamesStandInFront) {
  LogCapture log;
  const auto add = [](const std::vector<TOLA_MODULE_NAME_S>& names) {
    const TOLA_MODULE_NAME_TABLE_S table = {static_cast<uint16_t>(names.size()), names.data()};
    return RegLogModuleInfo(&table);
  };
  ASSERT_EQ(add({{900, ""}, {900, "OLD"}, {900, "OLDER"}, {901, "tenletters"}, {903, "OLD"}}), 0u);
  ASSERT_EQ(add({{903, "NEW"}}), 0u);
  EXPECT_EQ(add({{902, "good"}, {901, "elevenchars"}}), kLogErrNameTooLong);
  for (uint16_t id = 900; id < 904; ++id) TOLA_LogPrint(id, kLogErr, "a.cpp", 1, "text");
  std::string names;
  for (const auto& record : log.Records()) names += record.module + " ";
  EXPECT_EQ(names, "OLD tenletters M902 NEW ") << "a refused table must add no name";
}

TEST(RunLogRecordTest, HooksOfAWriteHoldNothingUp) {
  LogCapture log;
  RegLogFileOprateFunc([](uint32_t operation, FILE*, const char*) -> uint32_t { return operation == 2; });
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "held back");
  RegLogFileOprateFunc(nullptr);
  SetRunLogReport(kModule, [](uint16_t moduleId, const void*, uint32_t) -> uint32_t {
    TOLA_LogPrint(moduleId, kLogErr, "hook.cpp", 1, "would wait for itself");
    return 3;
  });
  testing::internal::CaptureStdout();
  TOLA_LogPrint(kModule, kLogErr, "a.cpp", 1, "written");
  SetRunLogReport(0, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "!3\n") << "the hook's result is told";
  EXPECT_THAT(log.Lines(), ElementsAre("written"));
  EXPECT_EQ(ReadAll(log.CurrentFile()).substr(0, 2), "20") << "the line stands at the start of the file";
}

TEST(RunLogRecordTest, LinesOfThreadsThatLogAtOnceStayWhole) {
  LogCapture log;
  const auto writer = [](uint16_t module) {
    for (int i = 0; i < 2000; ++i) TOLA_LogPrint(module, kLogErr, "a.cpp", module, "%d of %u", i, module);
  };
  std::thread one(writer, 1), two(writer, 2);
  const TOLA_MODULE_NAME_S names[] = {{905, "THIRD"}};
  const TOLA_MODULE_NAME_TABLE_S table = {1, names};
  for (int i = 0; i < 20; ++i) (void)RegLogModuleInfo(&table);
  one.join();
  two.join();
  int next[3] = {};
  for (const auto& record : log.Records()) {
    ASSERT_LT(record.line, 3u) << record.message;
    const std::string expected = std::to_string(next[record.line]++) + " of " + std::to_string(record.line);
    ASSERT_EQ(record.message, expected) << "torn or lost";
  }
  EXPECT_EQ(next[1] + next[2], 4000);
}

TEST(RunLogTraceTest, MessageIsTracedForTheModuleThatSendsOrReceivesIt) {
  const StandingClock clock;
  LogCapture log(kLogErr);
  const uint16_t message[] = {20, 21, 0x0102, 3, 0xFF00, 2, 0xABCD};
  const TOLA_DBG_MSG_S otherHead = {message, 16, true};
  SetPrintPara(20, 1);
  testing::internal::CaptureStdout();
  TOLA_dbg_send(message, "dir/msg.cpp", 9);
  TOLA_dbg_recv(message, "dir/msg.cpp", 9);
  DbgPrint(&otherHead, "msg.cpp", 9);
  StopLogPrint();
  TOLA_dbg_send(message, "dir/msg.cpp", 9);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "msg.cpp                       [9   ][14:02:07.0]: >>Send msg[  2]:"
            " 14 00 15 00 02 01 03 00 00 FF 02 00 :: CD AB\n")
      << "threshold 4 of the receiver, another head and a stopped log give nothing";
}

}  // namespace
}  // namespace logtest
