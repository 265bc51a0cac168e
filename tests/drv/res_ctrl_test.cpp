#include "drv/res_ctrl.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "drv/res_ctrl_command.h"

namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

std::vector<std::string>& Lines() {
  static std::vector<std::string> lines;
  return lines;
}

class ResCtrlTest : public ::testing::Test {
 protected:
  ResCtrlTest() {
    Lines().clear();
    DrvSetLogFunc([](const char* tag, const char*, uint32_t, const char* text) {
      Lines().push_back(std::string(tag) + ": " + text);
    });
  }
  ~ResCtrlTest() override { DrvSetLogFunc(nullptr); }
};

TEST_F(ResCtrlTest, CommandLinesCarryProcessLimitAndPeriodInThisOrder) {
  char line[kResCtrlCommandSize];
  ASSERT_TRUE(BuildResCtrlCommand(line, kResCtrlCmdSet, 65535, 20, 200));
  EXPECT_STREQ(line, "/etc/init.d/cgrouputil.sh SET 65535 20 200");
  ASSERT_TRUE(BuildResCtrlCommand(line, kResCtrlCmdUnset, 7, 65535, 65535));
  EXPECT_STREQ(line, "/etc/init.d/cgrouputil.sh UNSET 7 65535 65535");
}

TEST_F(ResCtrlTest, WrongCallsAreRefusedBeforeAnyCommandRuns) {
  const DRV_RES_CTRL_S record = {{1, 0, 0}, 1, 20, 200};
  DRV_RES_CTRL_S tooMany = record;
  tooMany.pidNum = 4;
  EXPECT_EQ(DRV_ResCtrlInit(kResCtrlDeviceId), 0);
  EXPECT_EQ(DRV_ResCtrlInit(0x9401), -1);
  EXPECT_EQ(DRV_ResCtrlInit(0x19400), -1) << "an id of more than 16 bits may not be cut to the right one";
  EXPECT_EQ(DRV_ResCtrlIoctl(0x12, kResCtrlCmdSet, &record), -1);
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, nullptr), -1);
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, 4, &record), -1);
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, 1, &record), -1)
      << "a command that does nothing is no success";
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, &tooMany), -1) << "reads past the record";
  EXPECT_THAT(
      Lines(),
      ElementsAre("resctrldriver: DRV_ResCtrlInit id error 9401", "resctrldriver: DRV_CfgInit err 1",
                  "resctrldriver: DRV_ResCtrlIoctl id error 0012",
                  "resctrldriver: DRV_ResCtrlIoctl para is null", "resctrldriver: DRV_ResCtrlIoctl cmd err 4",
                  "resctrldriver: DRV_ResCtrlIoctl cmd err 1",
                  "resctrldriver: DRV_ResCtrlIoctl pid num err 4"));
}

TEST_F(ResCtrlTest, TheFirstFailingCommandEndsTheCallWithItsStatus) {
  if (access("/etc/init.d/cgrouputil.sh", F_OK) == 0) GTEST_SKIP() << "this machine has a real script";
  const DRV_RES_CTRL_S record = {{11, 12, 13}, 3, 20, 200};
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, &record), 127);
  EXPECT_THAT(Lines(), ElementsAre("resctrldriver: excute cmd /etc/init.d/cgrouputil.sh SET 11 20 200 "
                                   "failed, ret:127"));
}

TEST_F(ResCtrlTest, SystemGivesTheStatusAndKeepsDescriptorsFromTheChild) {
  EXPECT_EQ(DRV_System("exit 0"), 0);
  EXPECT_EQ(DRV_System("exit 77"), 77);
  EXPECT_EQ(DRV_System("kill -9 $$"), 128 + 9);
  EXPECT_EQ(DRV_System(nullptr), -1);
  const int open = fcntl(STDIN_FILENO, F_DUPFD, 50);  // not close-on-exec
  ASSERT_GE(open, 50);
  EXPECT_EQ(DRV_System(("test -e /proc/self/fd/" + std::to_string(open)).c_str()), 1)
      << "the command inherited a descriptor of the process";
  EXPECT_EQ(close(open), 0);
}

}  // namespace
