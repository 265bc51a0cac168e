/// A daemon that is ended by a fatal signal: what it leaves, and what its next start does with it.

#include <gmock/gmock.h>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

constexpr char kException[] = "/log/root_log/fault_manager_except_sys_info_update_active.tola";
constexpr char kBackup[] = "/log/root_log/fault_manager_except_sys_info_update_active_back.tola";

class CrashTest : public testing::Test {
 protected:
  /// Sends the daemon a fatal signal and returns when it is gone.
  void End(const std::string& signal) const {
    board_.Shell("kill -" + signal +
                 " $(pidof update_active); while pidof update_active >/dev/null; do sleep 0.05; done");
  }

  Board board_;
};

TEST_F(CrashTest, EveryTaskStandsInTheExceptionFileOfTheNextStart) {
  board_.StartDaemon();
  EXPECT_EQ(board_.Shell("grep -c 'core file size  *0  *0 ' /proc/$(pidof update_active)/limits").status, 0)
      << "a core would hold more than the box";
  const int tasks = std::stoi(board_.Shell("ls /proc/$(pidof update_active)/task | wc -l").output);
  End("SEGV");
  board_.StartDaemon();
  const std::string first = board_.Read(kException);
  size_t blocks = 0;
  for (size_t at = first.find("Exception Task "); at != std::string::npos; ++blocks) {
    at = first.find("Exception Task ", at + 1);
  }
  EXPECT_EQ(blocks, static_cast<size_t>(tasks)) << first;
  EXPECT_THAT(first, HasSubstr("Exception Signal      : 11\n"));
  for (const char* task : {"main", "FaultMgr", "SCRIPT_EXECUTOR_COMP"}) {
    EXPECT_THAT(first, HasSubstr("Exception Task        : " + std::string(task) + "(TaskId = "));
  }
  EXPECT_THAT(first, HasSubstr(" /app_run/app_bin/update_active\n")) << "the memory map";

  End("ABRT");
  board_.StartDaemon();
  EXPECT_THAT(board_.Read(kException), HasSubstr("Exception Signal      : 6\n"));
  EXPECT_EQ(board_.Read(kBackup), first);
  EXPECT_EQ(board_.Shell("stat -c %a /log/root_log/fault_manager_*").output, "600\n600\n600\n600\n");
}

}  // namespace
}  // namespace system_test
