/// Runs on a board: the counter that a supervisor outside watches. Key 1234 is the board's own there.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include "msg/heart_beat_manager.h"
#include "velto/kel_task.h"

namespace {

constexpr key_t kKey = 1234;
constexpr char kChild[] = "child";

/// Ten seconds of a process whose only task is overdue in the third.
int RunChild() {
  uint32_t task = 0;
  bool ok = KEL_TaskAdopt("late", &task) == 0 && TOLA_HeartBeatManagerInit(2) == 0 &&
            TOLA_RegThreadHeartBeat(3, 0) == 0;
  for (uint32_t second = 0; second < 10; ++second) ok = ok && TOLA_HeartBeatProcessSecondEvent() == 0;
  return ok ? 0 : 1;
}

/// Runs the child under the name `name`. Its exit status.
int RunAs(const char* name) {
  const pid_t child = fork();
  if (child == 0) {
    (void)execl("/proc/self/exe", name, kChild, nullptr);
    _exit(127);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ApparmCounter, OnlyTheMainProcessCountsAndStopsWhenATaskIsOverdue) {
  ASSERT_EQ(RunAs("/app_arm/update_active"), 0);
  EXPECT_EQ(shmget(kKey, 0, 0), -1) << "another process made the counter";

  for (const char* name : {"/opt/bin/app_arm_x", "app_arm"}) {  // the second finds the first one's count
    ASSERT_EQ(RunAs(name), 0) << name;
    const int segment = shmget(kKey, 4, 0);
    ASSERT_GE(segment, 0) << name;
    shmid_ds about{};
    ASSERT_EQ(shmctl(segment, IPC_STAT, &about), 0);
    EXPECT_EQ(about.shm_perm.mode & 0777, 0600);
    EXPECT_EQ(about.shm_segsz, 4u);
    void* memory = shmat(segment, nullptr, SHM_RDONLY);
    ASSERT_NE(memory, reinterpret_cast<void*>(-1));
    uint16_t words[2] = {};
    memcpy(words, memory, sizeof(words));
    EXPECT_EQ(words[0], 3) << name;
    EXPECT_EQ(words[1], 0) << name;
    EXPECT_EQ(shmdt(memory), 0);
  }
  EXPECT_EQ(shmctl(shmget(kKey, 4, 0), IPC_RMID, nullptr), 0);

  const int tooSmall = shmget(kKey, 2, IPC_CREAT | IPC_EXCL | 0600);
  EXPECT_EQ(RunAs("app_arm_x"), 1) << "a counter that cannot be had must fail the initialisation";
  EXPECT_EQ(shmctl(tooSmall, IPC_RMID, nullptr), 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], kChild) == 0) return RunChild();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
