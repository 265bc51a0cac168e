/// The log's files: the limit and the turn-over, overwrite mode, what a start finds, and files that vanish.
#include <string.h>

#include "log/log_test_support.h"

namespace logtest {
namespace {

constexpr char kMarker[] = "/**Log file is full!**/";

/// Logs records whose lines have exactly 100 bytes, each text first in its message.
void LogHundreds(const std::vector<std::string>& texts) {
  for (std::string text : texts) {
    text.resize(42, '.');
    TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "%s", text.c_str());
  }
}

uint32_t WordAt(const std::string& bytes, size_t offset) {
  uint32_t word = 0;
  if (bytes.size() >= offset + sizeof(word)) memcpy(&word, bytes.data() + offset, sizeof(word));
  return word;
}

/// Starts the log on files that are already there.
uint32_t Restart(const support::TempDir& dir, uint32_t maxSize) {
  if (TOLA_SetRunLogFileName(dir.File("run").c_str()) != 0) return 2;
  return TOLA_PrintInitForArm9(maxSize, nullptr) + TOLA_LogControl(0, kLogErr, 2);
}

TEST(RunLogFileTest, FileIsTurnedOverByTheRecordThatWouldPassTheLimit) {
  for (const uint32_t spare : {0u, 1u}) {  // one byte less, one record less
    LogCapture log(kLogErr, 223 - spare);
    const std::string current = log.CurrentFile(), copy = current + ".kept";
    const TOLA_FILE_BACKUP_S table[] = {{"/another/file", "/nowhere", 0}, {current.c_str(), copy.c_str(), 0}};
    static const TOLA_FILE_BACKUP_S none[] = {{nullptr, nullptr, 0}};
    EXPECT_EQ(TolaRegFileBackupPath(nullptr, 1) + TolaRegFileBackupPath(table, 0), 2u);
    ASSERT_EQ(TolaRegFileBackupPath(table, 2), 0u);
    LogHundreds({"first", "second"});
    EXPECT_THAT(log.Lines(), SizeIs(2 - spare)) << "two records fill it to the byte";
    LogHundreds({"third"});
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("third")));
    const std::string backup = ReadAll(log.BackupFile());
    EXPECT_EQ(backup.substr(backup.size() - 23), kMarker);
    EXPECT_EQ(backup.size(), 223 - spare * 100);
    EXPECT_EQ(ReadAll(copy), backup) << "the registered place";
    EXPECT_EQ(WordAt(ReadAll(log.FullRecordFile()), 32), 223 - spare) << "the count stops at the size";
    ASSERT_EQ(TolaRegFileBackupPath(none, 1), 0u);
  }
}

TEST(RunLogFileTest, CommandMovesTheFileWhenTheRenameCannot) {
  LogCapture log(kLogErr, 223);
  fs::create_directory(log.BackupFile());  // no file can be renamed to it, mv moves into it
  LogHundreds({"0", "1", "2"});
  EXPECT_EQ(ReadAll(log.BackupFile() + "/run.log").size(), 223u);
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("2")));
}

TEST(RunLogFileTest, DeletedFileIsMadeAgainWithinAnHourAtTheCostOfOneRecord) {
  const StandingClock clock;
  LogCapture log;
  LogHundreds({"before"});
  fs::remove(log.CurrentFile());
  StandingClock::MoveSeconds(3600);
  LogHundreds({"into the deleted file"});
  EXPECT_FALSE(fs::exists(log.CurrentFile())) << "looked before the hour was over";
  StandingClock::MoveSeconds(1);
  testing::internal::CaptureStdout();
  LogHundreds({"finds no file"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), log.CurrentFile() + " is not exist!");
  LogHundreds({"after"});
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("after")));
  EXPECT_EQ(WordAt(ReadAll(log.FullRecordFile()), 32), 300u) << "a crash loses no count";
}

TEST(RunLogFileTest, StartAppendsToWhatStandsThere) {
  const LogCapture settings;  // nothing is folded here, and nothing is logged afterwards
  const support::TempDir dir;
  const std::string current = dir.File("run.log"), count = dir.File("run_full_record.tola");
  fs::permissions(dir.Write("run.log", "old line\n"), fs::perms{0644});
  dir.Write("run_full_record.tola", std::string(32, '\0') + std::string("\x05\x00\x00\x00", 4));
  ASSERT_EQ(Restart(dir, 1000), 0u);
  EXPECT_EQ(ModeOf(current), 0600u) << "the file of an older version is made private";
  LogHundreds({"new"});
  EXPECT_EQ(GetLogFileAddSize(), 105u) << "the count goes on";
  ASSERT_EQ(TOLA_PrintInit(0, nullptr), 0u);  // the older start
  LogHundreds({"newer"});
  EXPECT_THAT(ReadAll(current), StartsWith("old line\n20"));
  EXPECT_EQ(ReadAll(current).size(), 209u);

  dir.Write("run_full_record.tola", std::string(37, 'x'));
  dir.Write("run.log", std::string(1001, 'x'));
  ASSERT_EQ(Restart(dir, 1000), 0u);
  EXPECT_EQ(ReadAll(current), "") << "a file over the limit is made anew";
  EXPECT_EQ(ReadAll(count), std::string(36, '\0')) << "and so is a broken count";

  const std::string head("\x00\x00\x00\x00\x1d\x00\x00\x00\xab\xab\x00\x00", 12);
  dir.Write("run.log", head + "\nleft by overwriting\n");
  ASSERT_EQ(Restart(dir, 1000), 0u);
  LogHundreds({"new"});
  EXPECT_THAT(ReadAll(current), StartsWith(std::string(12, '\0') + "\nleft by overwriting\n20"));
}

TEST(RunLogFileTest, StartFailsWithoutADirectoryOrAFileOfItsOwnAndTheLogHealsLater) {
  const LogCapture settings;
  const support::TempDir dir;
  const std::string late = dir.File("late/run.log"), secret = dir.Write("secret", "x");
  ASSERT_EQ(TOLA_SetRunLogFileName(dir.File("late/run").c_str()), 0u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(TOLA_PrintInitForArm9(1000, nullptr), 1u);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), StartsWith("chown：" + dir.File("late/") + " err\n"));
  fs::create_directory(dir.File("late"));
  fs::create_hard_link(secret, late);
  LogHundreds({"lost", "lost"});
  EXPECT_EQ(ReadAll(secret), "x") << "a planted name let the log write over another's file";
  fs::remove(late);
  dir.Write("late/run.log", "old line\n");
  LogHundreds({"opens the file", "written"});
  EXPECT_THAT(ReadAll(late), StartsWith("old line\n20")) << "nothing was wrong with the file";
}

TEST(RunLogFileTest, NamesAreTakenAllOrNoneAndLookedUpAtTheStart) {
  LogCapture log;
  EXPECT_EQ(TOLA_SetRunLogFileName(std::string(99 - 16, 'n').c_str()), 1u) << "the longest ending has 17";
  EXPECT_EQ(TOLA_PrintInitForArm9(1000, nullptr), 0u);
  LogHundreds({"old name"});
  EXPECT_THAT(log.Lines(), SizeIs(1));
  static const support::TempDir dir;
  LogSetPathLookup([](const char* name) {
    static std::string mapped;
    return (mapped = dir.File(strrchr(name, '/') + 1)).c_str();
  });
  ASSERT_EQ(TOLA_SetRunLogFileName("/nowhere/at/all/run"), 0u);
  EXPECT_EQ(TOLA_PrintInitForArm9(1000, nullptr), 0u);
  LogSetPathLookup(nullptr);
  EXPECT_TRUE(fs::exists(dir.File("run.log")) && fs::exists(dir.File("run_full_record.tola")));
}

TEST(RunLogFileTest, OverwriteModeKeepsItsPlaceInTheHeadAndBeginsAgainWhenFull) {
  InFreshProcess([] {
    TOLA_RunLogRecordTypeEnable();
    LogCapture log(kLogErr, 13 + 200 + 23);
    LogHundreds({"first", "second"});
    const std::string full = ReadAll(log.CurrentFile());
    EXPECT_EQ(full.size(), 213u);
    EXPECT_EQ(full.substr(0, 13), std::string("\0\0\0\0\xD5\0\0\0\xAB\xAB\0\0\n", 13));
    LogHundreds({"third"});
    const std::string again = ReadAll(log.CurrentFile());
    EXPECT_EQ(WordAt(again, 4), 113u);
    EXPECT_EQ(again.substr(113), full.substr(113) + kMarker) << "the older lines stay behind the newer";
    EXPECT_NE(again.substr(13, 100), full.substr(13, 100));
    EXPECT_FALSE(fs::exists(log.BackupFile()));
    EXPECT_EQ(TOLA_PrintInitForArm9(236, nullptr), 0u);
    LogHundreds({"fourth"});
    EXPECT_EQ(WordAt(ReadAll(log.CurrentFile()), 4), 213u) << "a start goes on where the head says";

    const support::TempDir dir;
    const std::string headless = dir.Write("run.log", std::string(300, 'x'));
    dir.Write("run_back.log", "old");
    EXPECT_EQ(Restart(dir, 1000), 0u);
    LogHundreds({"behind it"});
    EXPECT_EQ(WordAt(ReadAll(headless), 4), 401u);
    EXPECT_EQ(ReadAll(headless).substr(12, 288), "\n" + std::string(287, 'x'));
    EXPECT_FALSE(fs::exists(dir.File("run_back.log")));
  });
}

}  // namespace
}  // namespace logtest
