#include "frame/path_cfg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "frame/public_file_cfg.h"
#include "support/temp_dir.h"

namespace {

using testing::HasSubstr;

constexpr char kRunLog[] = "/mnt/sub_bin/sys_log/run_log.log";

/// The lists only grow, as in the process: each case uses keys of its own, or relies on the last line
/// winning.
class PathCfgTest : public testing::Test {
 protected:
  /// Reads `text` as a path configuration and returns what was printed.
  std::string Start(const std::string& text) {
    dir_.Write("tola.cfg", text);
    testing::internal::CaptureStdout();
    EXPECT_EQ(TOLA_Start(dir_.File("tola.cfg").c_str(), nullptr), 0u);
    return testing::internal::GetCapturedStdout();
  }

  support::TempDir dir_;
};

bool IsDirectory(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

TEST_F(PathCfgTest, EntryMovesDirectoryAndFilesAndMakesTheDirectory) {
  const std::string logs = dir_.path() + "/data/logs/";
  const std::string printed = Start("x.log.run='" + logs + "'\r\n");
  EXPECT_THAT(printed, HasSubstr("[599]:parse cfg start: "));
  EXPECT_TRUE(IsDirectory(logs)) << "a missing directory is made";
  EXPECT_EQ(TOLA_GetPathName("/mnt/sub_bin/sys_log/", "log.run"), logs);
  EXPECT_EQ(TOLA_GetFileFullName(kRunLog), logs + "run_log.log");
  EXPECT_STREQ(TOLA_GetFileFullName("/nowhere/else"), "/nowhere/else");
  EXPECT_STREQ(TOLA_GetPathName("/default/", "log.RUN"), "/default/") << "keys are case-sensitive";
}

TEST_F(PathCfgTest, LaterLineWinsAndAValueWithoutSlashIsJoinedAsItIs) {
  const std::string first = dir_.path() + "/first/";
  const std::string second = dir_.path() + "/second";
  Start("x.log.run='" + first + "'\ny.log.run='" + second + "\n");
  EXPECT_EQ(TOLA_GetPathName("/d/", "log.run"), second) << "end of line ends a value too";
  EXPECT_EQ(TOLA_GetFileFullName(kRunLog), second + "run_log.log");
}

TEST_F(PathCfgTest, PrefixAndPatternRowsAreTextNotFormats) {
  const std::string place = dir_.path() + "/p/";
  Start("x.cfg.bin='" + place + "'\nx.cfg.challenge='" + place + "'\n");
  EXPECT_EQ(TOLA_GetFileFullName("/home/sys_cfg/bin%d_plugin_cfg_info.tola"),
            place + "bin%d_plugin_cfg_info.tola");
  EXPECT_EQ(TOLA_GetFileFullName("/home/sys_cfg/challenge_auth_"), place + "challenge_auth_");
}

TEST_F(PathCfgTest, WrongLinesArePrintedAndCostOnlyThemselves) {
  const std::string good = dir_.path() + "/good/";
  const std::string printed = Start(
      "no entry at all\nx.cfg.web=" + good + "\nx.='" + good + "'\nx." + std::string(64, 'k') + "='" + good +
      "'\n# x.cfg.web='/c/'\n\tx.cfg.web='/t/'\nx.tola_config.version='1'\nx.cfg.web='" + good + "'\n");
  size_t refused = 0;
  for (size_t at = 0; (at = printed.find("[538]:create err: ", at)) != std::string::npos; ++at) ++refused;
  EXPECT_EQ(refused, 4u) << printed;
  EXPECT_EQ(TOLA_GetPathName("/d/", "cfg.web"), good);
}

TEST_F(PathCfgTest, UnsafeDirectoryIsNotMadeAndTooLongValueIsNotListed) {
  const std::string longValue = "/" + std::string(299, 'v') + "/";
  const std::string printed =
      Start("x.cfg.wifi='" + dir_.path() + "/a;touch b/'\nx.cfg.snmp='" + longValue + "'\n");
  EXPECT_THAT(printed, HasSubstr("Check path error: 1\n"));
  EXPECT_FALSE(IsDirectory(dir_.path() + "/a;touch b"));
  EXPECT_THAT(printed, HasSubstr("Create new path error: -1, "));
  EXPECT_THAT(printed, HasSubstr("[469]:insert tolacfg cfg.snmp, "));
  EXPECT_THAT(printed, HasSubstr("[421]:insert filepath /home/sys_cfg/snmp.tola, cfg.snmp, "));
  EXPECT_STREQ(TOLA_GetPathName("/d/", "cfg.snmp"), "/d/");
}

TEST_F(PathCfgTest, FileFaultsFailTheStart) {
  EXPECT_EQ(TOLA_Start(nullptr, nullptr), 14690u);
  EXPECT_EQ(TOLA_Start(dir_.File("missing").c_str(), nullptr), 14700u) << "its real name cannot be resolved";
  EXPECT_EQ(TOLA_Start(std::string(513, 'a').c_str(), nullptr), 14700u);
  EXPECT_EQ(TOLA_GetPathName("/d/", nullptr), nullptr);
  EXPECT_EQ(TOLA_GetFileFullName(nullptr), nullptr);
}

TEST_F(PathCfgTest, CallbacksReplaceTheLists) {
  SetCfgCallBackFunc([](const char*) { return "/by/callback"; },
                     [](const char*, const char* key) { return key; });
  EXPECT_STREQ(TOLA_GetFileFullName(kRunLog), "/by/callback");
  EXPECT_STREQ(TOLA_GetPathName("/d/", "log.run"), "log.run");
  SetCfgCallBackFunc(nullptr, nullptr);
}

}  // namespace
