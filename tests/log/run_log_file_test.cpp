/// The log's files: the limit and the turn-over, overwrite mode, what a start finds, and files that vanish.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "log/log_test_support.h"
#include "log/run_log.h"
#include "support/log_capture.h"

namespace {

using support::LogCapture;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kMarker[] = "/**Log file is full!**/";

/// A record whose line has exactly 100 bytes, `text` first in its message.
void LogHundred(std::string text) {
  text.resize(42, '.');
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "%s", text.c_str());
}

uint32_t WordAt(const std::string& bytes, size_t offset) {
  uint32_t word = 0;
  if (bytes.size() >= offset + sizeof(word)) memcpy(&word, bytes.data() + offset, sizeof(word));
  return word;
}

TEST(RunLogFileTest, FileIsTurnedOverByTheRecordThatWouldPassTheLimit) {
  constexpr uint32_t kTenRecords = 1000;
  {
    LogCapture log(kLogErr, kTenRecords + 23);
    for (int i = 0; i < 10; ++i) LogHundred(std::to_string(i));
    EXPECT_THAT(log.Lines(), SizeIs(10)) << "ten records fill it to the byte";
    EXPECT_FALSE(std::filesystem::exists(log.BackupFile()));
    LogHundred("eleventh");
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("eleventh")));
    const std::string backup = ReadAll(log.BackupFile());
    EXPECT_EQ(backup.size(), kTenRecords + 23);
    EXPECT_THAT(backup, EndsWith(kMarker));
    EXPECT_EQ(WordAt(ReadAll(log.FullRecordFile()), 32), kTenRecords + 23) << "the count stops at the size";
    EXPECT_EQ(ModeOf(log.CurrentFile()), 0600u);
  }
  LogCapture log(kLogErr, kTenRecords + 22);
  for (int i = 0; i < 10; ++i) LogHundred(std::to_string(i));
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("9"))) << "one byte less, one record less";
}

TEST(RunLogFileTest, CommandMovesTheFileWhenTheRenameCannot) {
  LogCapture log(kLogErr, 223);
  ASSERT_EQ(mkdir(log.BackupFile().c_str(), 0700), 0);  // no file can be renamed to it, mv moves into it
  for (int i = 0; i < 3; ++i) LogHundred(std::to_string(i));
  EXPECT_EQ(ReadAll(log.BackupFile() + "/run.log").size(), 223u);
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("2")));
}

TEST(RunLogFileTest, FullFileIsCopiedToItsRegisteredPlaceFirst) {
  LogCapture log(kLogErr, 223);
  const std::string current = log.CurrentFile();
  const std::string target = current + ".kept";
  const TOLA_FILE_BACKUP_S table[] = {
      {"/another/file", "/nowhere", 0}, {current.c_str(), nullptr, 0}, {current.c_str(), target.c_str(), 0}};
  EXPECT_EQ(TolaRegFileBackupPath(nullptr, 1), 1u);
  EXPECT_EQ(TolaRegFileBackupPath(table, 0), 1u);
  ASSERT_EQ(TolaRegFileBackupPath(table, 3), 0u);
  for (int i = 0; i < 3; ++i) LogHundred(std::to_string(i));
  EXPECT_EQ(ReadAll(target), ReadAll(log.BackupFile()));
  EXPECT_THAT(ReadAll(target), EndsWith(kMarker));
  static const TOLA_FILE_BACKUP_S none[] = {{nullptr, nullptr, 0}};
  ASSERT_EQ(TolaRegFileBackupPath(none, 1), 0u);
}

TEST(RunLogFileTest, DeletedFileIsMadeAgainWithinAnHourAtTheCostOfOneRecord) {
  const StandingClock clock;
  LogCapture log;
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "before");
  ASSERT_EQ(unlink(log.CurrentFile().c_str()), 0);
  StandingClock::MoveSeconds(3600);
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "into the deleted file");
  EXPECT_FALSE(std::filesystem::exists(log.CurrentFile())) << "looked before the hour was over";
  StandingClock::MoveSeconds(1);
  testing::internal::CaptureStdout();
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "finds no file");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), log.CurrentFile() + " is not exist!");
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "after");
  EXPECT_THAT(log.Lines(), ElementsAre("after"));
  EXPECT_EQ(WordAt(ReadAll(log.FullRecordFile()), 32),
            GetLogFileAddSize() - ReadAll(log.CurrentFile()).size())
      << "the hourly look saves the byte count";
}

/// Starts the log on files that are already there.
uint32_t Restart(const support::TempDir& dir, uint32_t maxSize) {
  if (TOLA_SetRunLogFileName(dir.File("run").c_str()) != 0 || TOLA_PrintInitForArm9(maxSize, nullptr) != 0) {
    return 1;
  }
  return TOLA_LogControl(0, kLogErr, 2);
}

TEST(RunLogFileTest, StartAppendsToWhatStandsThere) {
  const LogCapture settings;  // nothing is folded here, and nothing is logged afterwards
  const support::TempDir dir;
  chmod(dir.Write("run.log", "old line\n").c_str(), 0644);
  dir.Write("run_full_record.tola", std::string(32, '\0') + std::string("\x05\x00\x00\x00", 4));
  ASSERT_EQ(Restart(dir, 1000), 0u);
  EXPECT_EQ(GetLogFileAddSize(), 5u) << "the count goes on";
  EXPECT_EQ(ModeOf(dir.File("run.log")), 0600u) << "the file of an older version is made private";
  LogHundred("new");
  EXPECT_EQ(GetLogFileAddSize(), 105u);
  EXPECT_THAT(ReadAll(dir.File("run.log")), StartsWith("old line\n20"));

  dir.Write("run_full_record.tola", std::string(37, 'x'));
  dir.Write("run.log", std::string(1001, 'x'));
  ASSERT_EQ(Restart(dir, 1000), 0u);
  EXPECT_EQ(ReadAll(dir.File("run.log")), "") << "a file over the limit is made anew";
  EXPECT_EQ(ReadAll(dir.File("run_full_record.tola")), std::string(36, '\0')) << "and so is a broken count";

  const std::string head("\x00\x00\x00\x00\x1d\x00\x00\x00\xab\xab\x00\x00", 12);
  dir.Write("run.log", head + "\nleft by overwriting\n");
  ASSERT_EQ(Restart(dir, 1000), 0u);
  LogHundred("new");
  EXPECT_THAT(ReadAll(dir.File("run.log")), StartsWith(std::string(12, '\0') + "\nleft by overwriting\n20"));
}

TEST(RunLogFileTest, OlderStartGoesOnAtThePositionThatWasKept) {
  LogCapture log;
  LogHundred("before");
  ASSERT_EQ(TOLA_PrintInit(0, nullptr), 0u);
  EXPECT_EQ(GetPrintMaxNumValue(), 200u);
  LogHundred("after");
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("before"), StartsWith("after")));
}

TEST(RunLogFileTest, StartFailsWithoutADirectoryOrAFileOfItsOwnAndTheLogHealsLater) {
  const LogCapture settings;
  const support::TempDir dir;
  ASSERT_EQ(TOLA_SetRunLogFileName(dir.File("late/run").c_str()), 0u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(TOLA_PrintInitForArm9(1000, nullptr), 1u);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), StartsWith("chown：" + dir.File("late/") + " err\n"));
  const std::string secret = dir.Write("secret", "x");
  std::filesystem::create_directory(dir.File("late"));
  std::filesystem::create_hard_link(secret, dir.File("late/run.log"));
  LogHundred("lost");
  LogHundred("lost");
  EXPECT_EQ(ReadAll(secret), "x") << "a planted name let the log write over another's file";
  std::filesystem::remove(dir.File("late/run.log"));
  LogHundred("makes the file");
  LogHundred("written");
  EXPECT_THAT(ReadAll(dir.File("late/run.log")), testing::HasSubstr("]:written"));
  EXPECT_EQ(ReadAll(dir.File("late/run.log")).size(), 100u);
}

TEST(RunLogFileTest, NamesAreTakenAllOrNone) {
  LogCapture log;
  std::string base(99 - 16, 'n');
  EXPECT_EQ(TOLA_SetRunLogFileName(base.c_str()), 1u) << "the longest ending has 17";
  EXPECT_EQ(TOLA_SetRunLogFileName(nullptr), 1u);
  EXPECT_EQ(TOLA_PrintInitForArm9(0, nullptr), 0u);
  TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "old name");
  EXPECT_THAT(log.Lines(), ElementsAre("old name"));
  base.pop_back();
  EXPECT_EQ(TOLA_SetRunLogFileName(base.c_str()), 0u);
}

TEST(RunLogFileTest, InitialisationAsksTheLookUpForEachName) {
  const LogCapture settings;
  static const support::TempDir dir;
  LogSetPathLookup([](const char* name) {
    static std::string mapped;
    return (mapped = dir.File(strrchr(name, '/') + 1)).c_str();
  });
  ASSERT_EQ(TOLA_SetRunLogFileName("/nowhere/at/all/run"), 0u);
  EXPECT_EQ(TOLA_PrintInitForArm9(1000, nullptr), 0u);
  LogSetPathLookup(nullptr);
  LogHundred("mapped");
  EXPECT_EQ(ReadAll(dir.File("run.log")).size(), 100u);
  EXPECT_TRUE(std::filesystem::exists(dir.File("run_full_record.tola")));
}

TEST(RunLogFileTest, OverwriteModeKeepsItsPlaceInTheHeadAndBeginsAgainWhenFull) {
  InFreshProcess([] {
    TOLA_RunLogRecordTypeEnable();
    LogCapture log(kLogErr, 13 + 200 + 23);
    LogHundred("first");
    LogHundred("second");
    const std::string full = ReadAll(log.CurrentFile());
    EXPECT_EQ(full.size(), 213u);
    EXPECT_EQ(full.substr(0, 13), std::string("\0\0\0\0\xD5\0\0\0\xAB\xAB\0\0\n", 13));
    LogHundred("third");
    const std::string again = ReadAll(log.CurrentFile());
    EXPECT_EQ(WordAt(again, 4), 113u);
    EXPECT_EQ(again.size(), 236u);
    EXPECT_EQ(again.substr(113), full.substr(113) + kMarker) << "the older lines stay behind the newer";
    EXPECT_NE(again.substr(13, 100), full.substr(13, 100));
    EXPECT_FALSE(std::filesystem::exists(log.BackupFile()));

    EXPECT_EQ(TOLA_PrintInitForArm9(236, nullptr), 0u);
    LogHundred("fourth");
    EXPECT_EQ(WordAt(ReadAll(log.CurrentFile()), 4), 213u) << "a start goes on where the head says";
  });
}

TEST(RunLogFileTest, OverwriteModeGivesAFileWithoutHeadOne) {
  InFreshProcess([] {
    TOLA_RunLogRecordTypeEnable();
    LogCapture log(kLogErr, 1000);
    const support::TempDir dir;
    dir.Write("run.log", std::string(300, 'x'));
    dir.Write("run_back.log", "old");
    EXPECT_EQ(Restart(dir, 1000), 0u);
    const std::string text = ReadAll(dir.File("run.log"));
    EXPECT_EQ(WordAt(text, 4), 301u);
    EXPECT_EQ(text.substr(12), "\n" + std::string(287, 'x'));
    EXPECT_FALSE(std::filesystem::exists(dir.File("run_back.log")));
    LogHundred("behind it");
    EXPECT_EQ(ReadAll(dir.File("run.log")).size(), 401u);
  });
}

}  // namespace
