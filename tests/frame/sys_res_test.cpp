#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "frame/sys_res_get.h"
#include "frame/sys_res_parse.h"
#include "support/named_process.h"

namespace {

TEST(MemUsage, IsWhatIsNotAvailableWhenTheValuesMakeSense) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"MemTotal:  1000 kB\nMemFree:  1 kB\nMemAvailable:   250 kB\n", 75},
      {"MemTotal: 4000000000 kB\nMemAvailable: 1000000000 kB", 75},  // products of 32 bits would have wrapped
      {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", 7},
      {"MemAvailable: 5 kB\n", 7},
      {"MemTotal: 5 kB\nMemAvailable: 6 kB\n", 7},
      {"MemTotal: many\n", 7},
  };
  for (const auto& [text, expected] : cases) {
    uint32_t percent = 7;
    EXPECT_EQ(GetSysMemUsage(text, percent), expected == 7 ? 1u : 0u) << text;
    EXPECT_EQ(percent, expected) << text;
  }
}

TEST(Partition, UsageRoundsToTheNearestAsDiskToolsDo) {
  EXPECT_EQ(CalcBlocksUsedPercent(1000, 400, 300), 67u);
  EXPECT_EQ(CalcBlocksUsedPercent(1000, 1001, 0), 0u) << "more free than there is";
  EXPECT_EQ(CalcBlocksUsedPercent(0, 0, 0), 0u);
  EXPECT_EQ(CalcBlocksUsedPercent(UINT64_MAX, UINT64_MAX - 1, 0), 0u) << "a negative count";
}

TEST(Partition, MountOfADirectoryNeedsAPathBoundary) {
  EXPECT_TRUE(IsMountOfDir("/mnt/log", "/mnt/log/x", 4));
  EXPECT_TRUE(IsMountOfDir("/mnt/log", "/mnt/log", 0));
  EXPECT_TRUE(IsMountOfDir("/", "/mnt/log/x", 0));
  EXPECT_FALSE(IsMountOfDir("/mnt/lo", "/mnt/log/x", 1));
  EXPECT_FALSE(IsMountOfDir("/mnt", "/mnt/log/x", 8)) << "a longer one was found before";
}

TEST(Partition, SizeOfAMemoryPartitionIsTheMachinesMemory) {
  uint32_t total = 0;
  uint32_t available = 0;
  ASSERT_EQ(TOLA_GetLinuxSysMemRes(total, available), 1u);
  EXPECT_NE(total, 0u);
  uint32_t devTotal = 0;
  uint32_t devFree = 0;
  ASSERT_EQ(TOLA_GetPartitionSizeByDir("/dev", devTotal, devFree), 1u);
  EXPECT_EQ(devTotal, total) << "not the blocks of the temporary file system";
  char mount[5] = {};
  EXPECT_EQ(TOLA_GetFlashPartitionNameByDir("/proc", mount, 5), 0u) << "a name that does not fit is not cut";
  uint32_t percent = 9;
  EXPECT_EQ(TOLA_GetFlashPartitionUsage("/no/mount/point", percent), 0u);
  EXPECT_EQ(percent, 0u);
}

TEST(ProcessPid, FindsAProgramByNameAndRunsNothingForAName) {
  const std::string name = "sleeper" + std::to_string(getpid());
  std::optional<support::NamedProcess> process(name);
  int32_t found = -1;
  for (int tries = 0; tries < 200 && found == -1; ++tries) found = TOLA_GetProcessPidByName(name.c_str());
  EXPECT_EQ(found, process->pid());
  process.reset();
  EXPECT_EQ(TOLA_GetProcessPidByName(name.c_str()), -1);

  const support::TempDir dir;
  const std::string mark = dir.File("mark");
  EXPECT_EQ(TOLA_GetProcessPidByName(("x;touch " + mark).c_str()), -1);
  EXPECT_EQ(TOLA_GetProcessPidByName(("$(touch " + mark + ")").c_str()), -1);
  EXPECT_NE(access(mark.c_str(), F_OK), 0) << "a name became a command";
  EXPECT_EQ(TOLA_GetProcessPidByName(std::string(300, 'n').c_str()), -1);

  char line[] = "12 0 4294967297 34\n";
  EXPECT_EQ(GetProcessPidInLine(line, 12), 34) << "own id, 0 and what no process id can be are passed over";
}

}  // namespace
