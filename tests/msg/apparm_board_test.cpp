/// Runs on a board: the counter that a supervisor outside watches. Key 1234 is the board's own there.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "msg/heart_beat_manager.h"
#include "velto/kel_task.h"

namespace {

/// Ten seconds of a process whose only task is overdue in the third.
int RunChild() {
  uint32_t task = 0;
  uint32_t ret = KEL_TaskAdopt("late", &task) + TOLA_HeartBeatManagerInit(2) + TOLA_RegThreadHeartBeat(3, 0);
  for (uint32_t second = 0; second < 10; ++second) ret += TOLA_HeartBeatProcessSecondEvent();
  return ret == 0 ? 0 : 1;
}

const char* g_program = nullptr;

/// Runs the child under the name `name`, a link to this program. Its wait status.
int RunAs(const char* name) {
  (void)unlink(name);  // of an earlier run
  EXPECT_EQ(symlink(g_program, name), 0) << name;
  const pid_t child = fork();
  if (child == 0) _exit(execl(name, name, "child", nullptr));
  int status = -1;
  return waitpid(child, &status, 0) == child ? status : -1;
}

TEST(ApparmCounter, OnlyTheMainProcessCountsAndStopsWhenATaskIsOverdue) {
  ASSERT_EQ(chdir("/tmp"), 0);
  ASSERT_EQ(mkdir("app_arm_folder", 0700), 0);
  ASSERT_EQ(RunAs("/tmp/app_arm_folder/update_active"), 0);
  EXPECT_EQ(shmget(1234, 0, 0), -1) << "another process made the counter";
  for (const char* name : {"/tmp/app_arm_x", "app_arm"}) {  // the second finds the first one's count
    ASSERT_EQ(RunAs(name), 0) << name;
    const int segment = shmget(1234, 4, 0);
    shmid_ds about{};
    ASSERT_EQ(shmctl(segment, IPC_STAT, &about), 0);
    EXPECT_EQ(about.shm_perm.mode & 0777, 0600);
    const void* memory = shmat(segment, nullptr, SHM_RDONLY);
    ASSERT_NE(memory, reinterpret_cast<void*>(-1));
    EXPECT_EQ(memcmp(memory, "\3\0\0", 4), 0) << name;  // the boards' processors are little-endian
  }
  EXPECT_EQ(shmctl(shmget(1234, 4, 0), IPC_RMID, nullptr), 0);
  const int tooSmall = shmget(1234, 2, IPC_CREAT | IPC_EXCL | 0600);
  EXPECT_NE(RunAs("app_arm_x"), 0) << "a counter that cannot be had must fail the initialisation";
  EXPECT_EQ(shmctl(tooSmall, IPC_RMID, nullptr), 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "child") == 0) return RunChild();
  g_program = argv[0];
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
