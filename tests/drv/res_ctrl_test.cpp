#include "drv/res_ctrl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "drv/res_ctrl_command.h"

namespace {

std::vector<std::string> g_lines;

TEST(ResCtrlTest, CommandLinesCarryProcessLimitAndPeriodInThisOrder) {
  char line[kResCtrlCommandSize];
  ASSERT_TRUE(BuildResCtrlCommand(line, kResCtrlCmdSet, 65535, 20, 200));
  EXPECT_STREQ(line, "/etc/init.d/cgrouputil.sh SET 65535 20 200");
  ASSERT_TRUE(BuildResCtrlCommand(line, kResCtrlCmdUnset, 7, 65535, 65535));
  EXPECT_STREQ(line, "/etc/init.d/cgrouputil.sh UNSET 7 65535 65535");
}

TEST(ResCtrlTest, WrongCallsAreRefusedAndTheFirstFailingCommandEndsTheCall) {
  g_lines.clear();
  DrvSetLogFunc([](const char* tag, const char*, uint32_t, const char* text) {
    g_lines.push_back(std::string(tag) + ": " + text);
  });
  DRV_RES_CTRL_S record = {{11, 12, 13}, 4, 20, 200};
  EXPECT_EQ(DRV_ResCtrlInit(0x19400), -1) << "an id of more than 16 bits may not be cut to the right one";
  EXPECT_EQ(DRV_ResCtrlIoctl(0x12, kResCtrlCmdSet, &record), -1);
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, 1, &record), -1) << "what does nothing is no success";
  EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, &record), -1) << "reads past the record";
  EXPECT_EQ(g_lines.size(), 4u) << "a refusal without its line, or a command that ran";
  EXPECT_EQ(g_lines.at(1), "resctrldriver: DRV_ResCtrlIoctl id error 0012");
  record.pidNum = 3;
  if (access("/etc/init.d/cgrouputil.sh", F_OK) != 0) {
    EXPECT_EQ(DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, &record), 127);
    EXPECT_EQ(g_lines.size(), 5u);
    EXPECT_EQ(g_lines.back(),
              "resctrldriver: excute cmd /etc/init.d/cgrouputil.sh SET 11 20 200 failed, ret:127");
  }
  DrvSetLogFunc(nullptr);
}

TEST(ResCtrlTest, SystemGivesTheStatusAndKeepsDescriptorsFromTheChild) {
  EXPECT_EQ(DRV_System("exit 77"), 77);
  EXPECT_EQ(DRV_System("kill -9 $$"), 128 + 9);
  const int open = fcntl(STDIN_FILENO, F_DUPFD, 50);  // not close-on-exec
  EXPECT_EQ(DRV_System(("test -e /proc/self/fd/" + std::to_string(open)).c_str()), 1)
      << "the command inherited a descriptor of the process";
  EXPECT_EQ(close(open), 0);
}

}  // namespace
