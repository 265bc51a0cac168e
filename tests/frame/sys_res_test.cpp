#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "frame/sys_res_get.h"
#include "frame/sys_res_parse.h"
#include "support/temp_dir.h"

namespace {

TEST(MemUsage, IsWhatIsNotAvailable) {
  uint32_t percent = 0;
  EXPECT_EQ(GetSysMemUsage("MemTotal:  1000 kB\nMemFree:  1 kB\nMemAvailable:   250 kB\n", percent), 0u);
  EXPECT_EQ(percent, 75u);
  EXPECT_EQ(GetSysMemUsage("MemTotal: 4000000000 kB\nMemAvailable: 1000000000 kB", percent), 0u);
  EXPECT_EQ(percent, 75u) << "products of 32 bits would have wrapped";
}

TEST(MemUsage, RefusesValuesThatMakeNoSense) {
  for (const char* text : {"", "MemTotal: 0 kB\nMemAvailable: 0 kB\n", "MemAvailable: 5 kB\n",
                           "MemTotal: 5 kB\nMemAvailable: 6 kB\n", "MemTotal: many\n"}) {
    uint32_t percent = 7;
    EXPECT_EQ(GetSysMemUsage(text, percent), 1u) << text;
    EXPECT_EQ(percent, 7u) << text;
  }
}

TEST(PartitionUsage, RoundsToTheNearestAsDiskToolsDo) {
  EXPECT_EQ(CalcBlocksUsedPercent(1000, 400, 300), 67u);
  EXPECT_EQ(CalcBlocksUsedPercent(1000, 1001, 0), 0u) << "more free than there is";
  EXPECT_EQ(CalcBlocksUsedPercent(0, 0, 0), 0u);
  EXPECT_EQ(CalcBlocksUsedPercent(UINT64_MAX, UINT64_MAX - 1, 0), 0u) << "a negative count";
}

TEST(MountOfDir, NeedsAPathBoundary) {
  EXPECT_TRUE(IsMountOfDir("/mnt/log", "/mnt/log/x", 4));
  EXPECT_TRUE(IsMountOfDir("/mnt/log", "/mnt/log", 0));
  EXPECT_TRUE(IsMountOfDir("/", "/mnt/log/x", 0));
  EXPECT_FALSE(IsMountOfDir("/mnt/lo", "/mnt/log/x", 1));
  EXPECT_FALSE(IsMountOfDir("/mnt", "/mnt/log/x", 8)) << "a longer one was found before";
  EXPECT_FALSE(IsMountOfDir("/mnt/log/x/y", "/mnt/log/x", 0));
}

TEST(Partition, SizeOfAMemoryPartitionIsTheMachinesMemory) {
  uint32_t total = 0;
  uint32_t available = 0;
  ASSERT_EQ(TOLA_GetLinuxSysMemRes(total, available), 1u);
  EXPECT_NE(total, 0u);
  char mount[129] = {};
  ASSERT_EQ(TOLA_GetFlashPartitionNameByDir("/dev", mount, sizeof(mount)), 1u);
  EXPECT_STREQ(mount, "/dev");
  uint32_t devTotal = 0;
  uint32_t devFree = 0;
  ASSERT_EQ(TOLA_GetPartitionSizeByDir("/dev", devTotal, devFree), 1u);
  EXPECT_EQ(devTotal, total) << "not the blocks of the temporary file system";
  EXPECT_EQ(TOLA_GetFlashPartitionNameByDir("/proc", mount, 5), 0u) << "a name that does not fit is not cut";
  uint32_t percent = 9;
  EXPECT_EQ(TOLA_GetFlashPartitionUsage("/no/mount/point", percent), 0u);
  EXPECT_EQ(percent, 0u);
}

TEST(ProcessPid, FindsAProgramByNameAndRunsNothingForAName) {
  support::TempDir dir;
  const std::string name = "sleeper" + std::to_string(getpid());
  const std::string program = dir.File(name);
  ASSERT_EQ(symlink("/bin/sleep", program.c_str()), 0);
  const pid_t child = fork();
  if (child == 0) {
    execl(program.c_str(), name.c_str(), "60", nullptr);
    _exit(127);
  }
  int32_t found = -1;
  for (int tries = 0; tries < 200 && found == -1; ++tries) found = TOLA_GetProcessPidByName(name.c_str());
  EXPECT_EQ(found, child);
  (void)kill(child, SIGKILL);
  (void)waitpid(child, nullptr, 0);
  EXPECT_EQ(TOLA_GetProcessPidByName(name.c_str()), -1);

  const std::string mark = dir.File("mark");
  EXPECT_EQ(TOLA_GetProcessPidByName(("x;touch " + mark).c_str()), -1);
  EXPECT_EQ(TOLA_GetProcessPidByName(("$(touch " + mark + ")").c_str()), -1);
  EXPECT_NE(access(mark.c_str(), F_OK), 0) << "a name became a command";
  EXPECT_EQ(TOLA_GetProcessPidByName(nullptr), -1);
  EXPECT_EQ(TOLA_GetProcessPidByName(std::string(300, 'n').c_str()), -1);

  char line[] = "12 0 4294967297 34\n";
  EXPECT_EQ(GetProcessPidInLine(line, 12), 34) << "own id, 0 and what no process id can be are passed over";
}

}  // namespace
