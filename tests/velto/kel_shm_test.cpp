#include "velto/kel_shm.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/random.h"
#include "velto/shm_partition.h"

namespace {

using support::Below;

constexpr uint32_t kSize = 16384;
constexpr uint32_t kEntries = 100;

/// Runs `body` in a forked process; its result is the exit status.
pid_t Fork(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}
int Join(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class KelShmTest : public testing::Test {
 protected:
  KelShmTest() { (void)snprintf(name_.name, sizeof(name_.name), "velto_test.%d", getpid()); }
  ~KelShmTest() override {
    for (uint32_t i = 0; i < kKelShmPartitionMax; ++i) (void)KEL_ShmStruKvMemPtDelete(i);
  }

  [[nodiscard]] uint32_t Create(KelShmMode mode, uint32_t size = kSize, uint32_t entries = kEntries) {
    return KEL_ShmStruKvMemPtCreate(&name_, size, entries, mode, &number_);
  }
  void ExpectAllFree() const {
    EXPECT_NE(KEL_ShmStruKvMemPtAlloc(number_, kSize - 16), nullptr) << "neighbours are not joined, or lost";
  }

  KelShmMemPtName name_{};
  uint32_t number_ = 99;
};

/// Blocks by name, each filled with its first byte.
using Model = std::map<std::string, std::pair<uint8_t*, uint32_t>>;

void GiveBack(const std::string& name, void* block) {
  EXPECT_EQ(KEL_ShmStruKvMemEntryUnset(name.c_str(), block), 0u);
  EXPECT_EQ(KEL_ShmStruKvMemPtFree(block), 0u);
}

/// One step against the model: enters a new block by a random name, or gives a known one back.
void Step(std::mt19937& random, uint32_t partition, Model& model) {
  const std::string name = "key" + std::to_string(Below(random, 150));
  const auto known = model.find(name);
  void* found = nullptr;
  uint32_t size = 0;
  const uint32_t got = KEL_ShmStruKvMemEntryGet(partition, name.c_str(), &found, &size);
  if (known != model.end()) {
    ASSERT_EQ(got, 0u) << name << " is lost";
    EXPECT_EQ(std::pair(static_cast<uint8_t*>(found), size), known->second);
    for (uint32_t i = 0; i < size; ++i)
      ASSERT_EQ(known->second.first[i], *known->second.first) << "blocks overlap";
    GiveBack(name, found);
    EXPECT_EQ(KEL_ShmStruKvMemPtFree(found), kKelErrShmBlock) << "given back twice";
    model.erase(known);
    return;
  }
  EXPECT_EQ(got, kKelErrShmName);
  size = Below(random, 400) + 1;
  found = KEL_ShmStruKvMemPtAlloc(partition, size);
  if (found == nullptr) return;
  ASSERT_EQ(reinterpret_cast<uintptr_t>(found) % 16, 0u);
  const uint32_t entered = KEL_ShmStruKvMemEntrySet(name.c_str(), found, size);
  EXPECT_EQ(entered, model.size() == kEntries ? kKelErrShmFull : 0u);
  if (entered != 0) return (void)KEL_ShmStruKvMemPtFree(found);
  memset(found, static_cast<uint8_t>(random()), size);
  model.emplace(name, std::pair(static_cast<uint8_t*>(found), size));
}

TEST_F(KelShmTest, BlocksAndDirectoryHoldWhatAModelHolds) {
  ASSERT_EQ(Create(kKelShmInherited), 0u);
  std::mt19937 random = support::NewRandom();
  Model model;
  for (int i = 0; i < 30000 && !HasFatalFailure(); ++i) Step(random, number_, model);
  for (const auto& [name, block] : model) GiveBack(name, block.first);
  ExpectAllFree();
}

TEST_F(KelShmTest, ForkedProcessesShareAPartitionWithoutLosingABlock) {
  ASSERT_EQ(Create(kKelShmInherited), 0u);
  std::vector<pid_t> children;
  for (uint32_t seed = 1; seed <= 3; ++seed) {
    children.push_back(Fork([&] {
      std::mt19937 random(seed);
      const std::string name = std::to_string(seed);
      bool whole = true;
      for (int i = 0; i < 5000 && whole; ++i) {
        const uint32_t size = Below(random, 300) + 1;
        const std::string data(size, static_cast<char>(seed));
        void* block = KEL_ShmStruKvMemPtAlloc(number_, size);
        if (block == nullptr) return 1;
        memcpy(block, data.data(), size);
        whole = KEL_ShmStruKvMemEntrySet(name.c_str(), block, size) == 0 &&
                memcmp(block, data.data(), size) == 0 &&
                KEL_ShmStruKvMemEntryUnset(name.c_str(), block) == 0 && KEL_ShmStruKvMemPtFree(block) == 0;
      }
      return whole ? 0 : 2;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(Join(child), 0);
  ExpectAllFree();
}

TEST_F(KelShmTest, AProcessThatComesLaterJoinsByNameAndSeesTheSameAddresses) {
  const pid_t first = Fork([&] {
    if (Create(kKelShmNamed) != 0) return 1;
    void* block = KEL_ShmStruKvMemPtAlloc(number_, sizeof(void*));
    if (block == nullptr || KEL_ShmStruKvMemEntrySet("self", block, sizeof(void*)) != 0) return 2;
    memcpy(block, &block, sizeof(block));
    return 0;
  });
  ASSERT_EQ(Join(first), 0);
  EXPECT_EQ(Create(kKelShmNamed, kSize + 1), kKelErrShmForeign) << "joined with another size";
  EXPECT_EQ(Create(kKelShmNamed, kSize, kEntries + 1), kKelErrShmForeign);
  ASSERT_EQ(Create(kKelShmNamed), 0u);
  void* block = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(KEL_ShmStruKvMemEntryGet(number_, "self", &block, &size), 0u);
  EXPECT_EQ(*static_cast<void**>(block), block) << "an address in the partition means something else here";
  const std::string path = std::string("/dev/shm/velto.") + name_.name;
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  uint32_t other = 99;
  EXPECT_EQ(KEL_ShmStruKvMemPtCreate(&name_, kSize, kEntries, kKelShmNamed, &other), kKelErrShmForeign)
      << "joined what others may write";

  ASSERT_EQ(KEL_ShmStruKvMemPtDelete(number_), 0u);
  EXPECT_EQ(KEL_ShmStruKvMemPtDelete(number_), kKelErrShmId);
  ASSERT_EQ(Create(kKelShmNamed), 0u);
  EXPECT_EQ(KEL_ShmStruKvMemEntryGet(number_, "self", &block, &size), kKelErrShmName)
      << "the name outlived its end";
}

TEST_F(KelShmTest, NamesAndSizesAreBounded) {
  EXPECT_EQ(Create(kKelShmInherited, 0xFFFFFFFF, 0xFFFFFFFF), kKelErrShmPara) << "a sum that wraps";
  name_ = {"../x"};
  EXPECT_EQ(Create(kKelShmNamed), kKelErrShmPara);
  memset(name_.name, 'x', sizeof(name_.name));
  EXPECT_EQ(Create(kKelShmInherited), kKelErrShmPara) << "a name without an end";
  name_ = {"x"};
  for (uint32_t i = 0; i < kKelShmPartitionMax; ++i) ASSERT_EQ(Create(kKelShmInherited), 0u);
  EXPECT_EQ(Create(kKelShmInherited), kKelErrShmFull);

  EXPECT_EQ(KEL_ShmStruKvMemPtAlloc(0, 0xFFFFFFFF), nullptr);
  auto* block = static_cast<uint8_t*>(KEL_ShmStruKvMemPtAlloc(0, 64));
  ASSERT_NE(block, nullptr);
  for (void* none : {static_cast<void*>(block + 16), static_cast<void*>(block + 1), static_cast<void*>(this)})
    EXPECT_EQ(KEL_ShmStruKvMemPtFree(none), kKelErrShmBlock);
  EXPECT_EQ(KEL_ShmStruKvMemEntrySet("n", block, 65), kKelErrShmBlock) << "more than the block has";
  const std::string tooLong(24, 'n');
  const char* longest = tooLong.c_str() + 1;
  EXPECT_EQ(KEL_ShmStruKvMemEntrySet(tooLong.c_str(), block, 64), kKelErrShmPara);
  EXPECT_EQ(KEL_ShmStruKvMemEntrySet(longest, block, 64), 0u);
  EXPECT_EQ(KEL_ShmStruKvMemEntrySet(longest, block, 64), kKelErrShmName) << "entered twice";
  EXPECT_EQ(KEL_ShmStruKvMemEntryUnset(longest, block + 16), kKelErrShmName);
}

TEST(ShmPartition, ADeathWithTheLockLeavesAPartitionThatRefusesButNeverBlocks) {
#ifdef TOLA_EMULATED
  GTEST_SKIP() << "the emulator does not hand the list of a thread's robust locks to the kernel";
#endif
  const auto size = static_cast<size_t>(velto::ShmPartition::SizeOf(kSize, kEntries));
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto* partition = static_cast<velto::ShmPartition*>(memory);
  ASSERT_TRUE(partition->Make(kSize, kEntries));
  ASSERT_EQ(Join(Fork([&] { return partition->Lock() ? 0 : 1; })), 0);
  EXPECT_FALSE(partition->Lock());
  EXPECT_FALSE(partition->Lock()) << "what was changed half way is used again";
  EXPECT_EQ(munmap(memory, size), 0);
}

}  // namespace
