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
  const std::string logs = dir_.File("data/logs/");
  EXPECT_THAT(Start("x.log.run='" + logs + "'\r\n"), HasSubstr("[599]:parse cfg start: "));
  EXPECT_TRUE(IsDirectory(logs)) << "a missing directory is made";
  EXPECT_EQ(TOLA_GetPathName("/mnt/sub_bin/sys_log/", "log.run"), logs);
  EXPECT_EQ(TOLA_GetFileFullName(kRunLog), logs + "run_log.log");
  EXPECT_STREQ(TOLA_GetFileFullName("/nowhere/else"), "/nowhere/else");
  EXPECT_STREQ(TOLA_GetPathName("/default/", "log.RUN"), "/default/") << "keys are case-sensitive";

  const std::string second = dir_.File("second");
  Start("x.log.run='" + dir_.File("first/") + "'\ny.log.run='" + second + "\n");
  EXPECT_EQ(TOLA_GetPathName("/d/", "log.run"), second)
      << "the later line wins; end of line ends a value too";
  EXPECT_EQ(TOLA_GetFileFullName(kRunLog), second + "run_log.log") << "kept: no slash is put in between";

  Start("x.cfg.bin='" + logs + "'\nx.cfg.challenge='" + logs + "'\n");
  EXPECT_EQ(TOLA_GetFileFullName("/home/sys_cfg/bin%d_plugin_cfg_info.tola"),
            logs + "bin%d_plugin_cfg_info.tola")
      << "text, no format";
  EXPECT_EQ(TOLA_GetFileFullName("/home/sys_cfg/challenge_auth_"), logs + "challenge_auth_") << "a prefix";
}

TEST_F(PathCfgTest, WrongLinesArePrintedAndCostOnlyThemselves) {
  const std::string good = dir_.File("good/");
  std::string printed =
      Start("no entry at all\nx.cfg.web=" + good + "\nx.='" + good + "'\nx." + std::string(64, 'k') + "='" +
            good + "'\n# x.cfg.web='/c/'\n\tx.cfg.web='/t/'\nx.tola_config.version='1'\n" + "x.cfg.wifi='" +
            dir_.path() + "/a b/'\nx.cfg.snmp='/" + std::string(299, 'v') + "/'\nx.cfg.web='" + good + "'\n");
  EXPECT_EQ(TOLA_GetPathName("/d/", "cfg.web"), good);
  for (const char* line :
       {"Check path error: 1\n", "Create new path error: -1, ", "[469]:insert tolacfg cfg.snmp, ",
        "[421]:insert filepath /home/sys_cfg/snmp.tola, cfg.snmp, "}) {
    EXPECT_THAT(printed, HasSubstr(line));
  }
  EXPECT_FALSE(IsDirectory(dir_.File("a"))) << "a blank made two directories of one";
  EXPECT_STREQ(TOLA_GetPathName("/d/", "cfg.snmp"), "/d/") << "a value that does not fit";
  size_t refused = 0;
  for (size_t at = 0; (at = printed.find("[538]:create err: ", at)) != std::string::npos; ++at) ++refused;
  EXPECT_EQ(refused, 4u) << printed;
}

TEST_F(PathCfgTest, FileFaultsFailTheStart) {
  EXPECT_EQ(TOLA_Start(nullptr, nullptr), 14690u);
  EXPECT_EQ(TOLA_Start(dir_.File("missing").c_str(), nullptr), 14700u) << "its real name cannot be resolved";
}

TEST_F(PathCfgTest, CallbacksReplaceTheLists) {
  SetCfgCallBackFunc([](const char*) { return "/by/callback"; },
                     [](const char*, const char* key) { return key; });
  EXPECT_STREQ(TOLA_GetFileFullName(kRunLog), "/by/callback");
  EXPECT_STREQ(TOLA_GetPathName("/d/", "log.run"), "log.run");
  SetCfgCallBackFunc(nullptr, nullptr);
}

}  // namespace
