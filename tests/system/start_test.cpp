/// The daemon's start on a board, and what a wrong configuration does.

#include <gmock/gmock.h>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

class StartTest : public testing::Test {
 protected:
  /// Starts the daemon after `change` on the board and returns what it printed until it was gone: only then
  /// does nobody hold its output any more.
  std::string FailedStart(const std::string& change) {
    return board_.Shell(change + "; exec /app_run/app_bin/update_active").output;
  }

  Board board_;
};

TEST_F(StartTest, EachFailureBeforeTheLoopSaysWhereAndWhy) {
  const std::string cfg = "/mnt/config/feature.cfg";
  EXPECT_THAT(FailedStart("mv " + cfg + " /mnt/away"), HasSubstr("init velto fail:0x101"));
  std::string printed = FailedStart("printf '# a comment\\ndms.answer_ms=soon\\n' >" + cfg);
  EXPECT_THAT(printed, HasSubstr(cfg + ":2: "));
  EXPECT_THAT(printed, HasSubstr("init velto fail:0x102"));
  EXPECT_THAT(FailedStart(": >" + cfg + "; mv /app_run/app_bin/app_config/tola.cfg /mnt/away"),
              HasSubstr("tola cfg fail:0x396c"));
}

TEST_F(StartTest, StartedByItsBareNameItHasNoDirectory) {
  EXPECT_THAT(board_.Shell("cd /app_run/app_bin && PLACED_AS=update_active update_active").output,
              HasSubstr("set env fail:0x1"));
}

TEST_F(StartTest, FailedStageEndsTheTableAndTheProcess) {
  const std::string printed = FailedStart(
      "echo "
      "'<module_cfg><comp><local_comp_ip>100.100.100.1000</local_comp_ip><dest_comp_ip>127.0.0.1</"
      "dest_comp_ip>"
      "</comp></module_cfg>' >/app_run/app_bin/accountlib/update_active.xml");
  EXPECT_THAT(printed, HasSubstr("\n=====init fail:0x1\n"));
  EXPECT_THAT(printed,
              HasSubstr("\n==================== update_active_main process exit ================\n"));
  const std::string log = board_.RunLog();
  EXPECT_THAT(log, HasSubstr("CompMgr, ret=0x1"));
  EXPECT_THAT(log, testing::Not(HasSubstr("AfterComp Init"))) << "a stage behind the failed one ran";
}

TEST_F(StartTest, StagesRunInTheOrderOfTheTable) {
  board_.StartDaemon();
  // The box stands before the run log does: its lines go nowhere.
  EXPECT_EQ(board_
                .Shell("sed -n 's/.*function_feature_sys_init.cpp.*:\\(.*\\), ret=0$/\\1/p' "
                       "/mnt/sub_bin/sys_log/update_active_run_log.log | tr '\\n' ' '")
                .output,
            "runlog PduVersion msgMgr ipcMgr TaskHeartMgr faultMgr AfterCfg BeforeComp NotifyMclEnd CompMgr "
            "AfterComp ");
  EXPECT_TRUE(board_.Exists("/log/root_log/fault_manager_except_sys_info_update_active.tola.tmp"));
}

TEST_F(StartTest, SecondProcessOfTheNameEndsBeforeItTakesAnythingFromTheFirst) {
  board_.StartDaemon();
  EXPECT_THAT(FailedStart(":"), HasSubstr("= update_active runs already ="));
  EXPECT_EQ(board_.Shell("grep -c 'PduVersion Init' /mnt/sub_bin/sys_log/update_active_run_log.log").output,
            "1\n");
}

TEST_F(StartTest, DaemonIsDetachedAndKeepsNoDescriptor) {
  EXPECT_EQ(board_.Shell("exec 7</etc/passwd; /app_run/app_bin/script/update_common.sh").status, 0);
  EXPECT_TRUE(board_.Comes("grep -q 'AfterComp, ret=0$' /mnt/sub_bin/sys_log/update_active_run_log.log"));
  const auto facts = board_.Shell("p=" + board_.PidOf("update_active") +
                                  "; readlink /proc/$p/cwd; ls -l /proc/$p/fd | grep -c passwd;"
                                  "cut -d' ' -f4,7 </proc/$p/stat; tr '\\0' '\\n' </proc/$p/environ | wc -l");
  EXPECT_EQ(facts.output.rfind("/tmp\n0\n1 0\n", 0), 0u)
      << "working directory, inherited descriptors, parent and terminal:\n"
      << facts.output;
}

}  // namespace
}  // namespace system_test
