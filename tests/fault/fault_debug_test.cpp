/// Debug requests as their bytes arrive, and the leak dump.

#include "fault/fault_debug.h"

#include <gmock/gmock.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "base/owners.h"
#include "fault/fault_public.h"
#include "support/log_capture.h"
#include "velto/kel_mem.h"

namespace {

uint32_t Request(const std::vector<uint16_t>& words, size_t cut = 0) {
  std::vector<uint8_t> data;
  for (const uint16_t word : words) {
    data.push_back(static_cast<uint8_t>(word >> 8));
    data.push_back(static_cast<uint8_t>(word));
  }
  return FaultDebugRequest(data.data(), static_cast<uint32_t>(data.size() - cut));
}

/// What `fd` is open on.
std::pair<dev_t, ino_t> File(int fd) {
  struct stat status = {};
  EXPECT_EQ(fstat(fd, &status), 0);
  return {status.st_dev, status.st_ino};
}

TEST(FaultRedirect, OutputGoesToTheTerminalAndBack) {
  const support::LogCapture log;
  int ends[2] = {-1, -1};
  char name[64] = {};
  ASSERT_EQ(openpty(&ends[0], &ends[1], name, nullptr, nullptr), 0);
  const base::UniqueFd master(ends[0]), slave(ends[1]);
  const auto number = static_cast<uint16_t>(atoi(name + strlen("/dev/pts/")));
  const auto before = File(STDOUT_FILENO);
  for (int i = 0; i < 2; ++i) {  // undone before the second, which does not return to the first
    EXPECT_EQ(Request({0, number, 1}), 0u);
    EXPECT_EQ(File(STDOUT_FILENO), File(slave.get()));
  }
  EXPECT_EQ(Request({0, number, 2}), 1u);
  EXPECT_EQ(File(STDOUT_FILENO), File(slave.get())) << "neither on nor off changes nothing";
  EXPECT_EQ(Request({0, 65535, 1}), 1u) << "no such terminal";
  EXPECT_EQ(File(STDOUT_FILENO), before) << "not restored";
  EXPECT_THAT(log.Lines(), testing::IsSupersetOf(
                               {"CMD:" + std::string(name), "Err-Num " + std::to_string(number) + " OnOff 2",
                                std::string("CMD:/dev/pts/65535,Err:2,No such file or directory")}));
}

TEST(FaultRequest, CutShortAtAnyByteDoesNothing) {
  for (const auto& words :
       std::vector<std::vector<uint16_t>>{{0, 0, 1}, {1, 0, 5}, {2, 0, 0}, {3, 2, 0, 0}}) {
    for (size_t cut = 1; cut <= words.size() * 2; ++cut) EXPECT_EQ(Request(words, cut), 1u) << words[0];
  }
}

TEST(FaultLeakDump, TellsWhatIsOutByPlaceAndFollowsNoLink) {
  const support::TempDir dir;
  dir.Write("victim", "kept");
  ASSERT_EQ(symlink(dir.File("victim").c_str(), dir.File("dump").c_str()), 0);
  uint32_t handle = 0;
  ASSERT_EQ(KEL_HandleInitialize("leaky", &handle), 0u);
  void* blocks[3];
  for (void*& block : blocks) block = KEL_MemAlloc_F(handle, 0, 100, "somewhere.cpp", 42);
  KEL_MemFree_F(blocks[2], "test", 1);

  ASSERT_EQ(TOLA_SetMemLeakRecordPath(dir.File("dump").c_str()), 0u);
  EXPECT_NE(TOLA_SetMemLeakRecordPath(std::string(101, 'x').c_str()), 0u);
  EXPECT_EQ(TOLA_MemLeakDump(nullptr), 0u) << "the path that was taken stays";
  EXPECT_THAT(support::ReadFile(dir.File("dump")),
              testing::HasSubstr("leaky somewhere.cpp:42 blocks:2 bytes:200\n"));
  EXPECT_EQ(support::ReadFile(dir.File("victim")), "kept");
  struct stat status = {};
  EXPECT_EQ(lstat(dir.File("dump").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  for (void* block : {blocks[0], blocks[1]}) KEL_MemFree_F(block, "test", 1);
  EXPECT_EQ(TOLA_MemLeakDump(dir.File("none/dump").c_str()), 1u);
}

}  // namespace
