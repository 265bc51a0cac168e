/// A daemon that is ended by a fatal signal: what it leaves, and what its next start does with it.

#include <gmock/gmock.h>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

constexpr char kException[] = "/log/root_log/fault_manager_except_sys_info_update_active.tola";
constexpr char kBackup[] = "/log/root_log/fault_manager_except_sys_info_update_active_back.tola";
#ifdef TOLA_EMULATED  // the emulator has a thread of its own and maps the program where it was built
constexpr char kCountTasks[] = "/task | tail -n +2 | wc -l";
constexpr char kProgram[] = TOLA_BUILD_DIR "/bin/emulated/update_active";
#else
constexpr char kCountTasks[] = "/task | wc -l";
constexpr char kProgram[] = "/app_run/app_bin/update_active";
#endif

TEST(CrashTest, EveryTaskStandsInTheExceptionFileOfTheNextStart) {
  const Board board;
  const auto end = [&board](const std::string& signal) {
    board.Shell("kill -" + signal + " " + board.PidOf("update_active") +
                "; while pidof update_active; do sleep 0.05; done");
    board.StartDaemon();
    return board.Read(kException);
  };
  board.StartDaemon();
  const std::string process = "/proc/" + board.PidOf("update_active");
  EXPECT_EQ(board.Shell("grep 'core file size  *0  *0 ' " + process + "/limits").status, 0)
      << "a core would hold more than the box";
  const std::string tasks = board.Shell("ls " + process + kCountTasks).output;
  const std::string first = end("SEGV");
  EXPECT_THAT(first, HasSubstr("Exception Signal      : 11\n"));
  if (kSignalsReachWaits) {
    EXPECT_EQ(board.Shell(std::string("grep -c '^Exception Task ' ") + kException).output, tasks);
    for (const char* task : {"main", "FaultMgr", "SCRIPT_EXECUTOR_COMP"}) {
      EXPECT_THAT(first, HasSubstr("Exception Task        : " + std::string(task) + "(TaskId = "));
    }
  }
  EXPECT_THAT(first, HasSubstr(" " + std::string(kProgram) + "\n")) << "the memory map";

  EXPECT_THAT(end("ABRT"), HasSubstr("Exception Signal      : 6\n"));
  EXPECT_EQ(board.Read(kBackup), first);
  EXPECT_EQ(board.Shell("stat -c %a /log/root_log/fault_manager_*").output, "600\n600\n600\n600\n");
}

}  // namespace
}  // namespace system_test
