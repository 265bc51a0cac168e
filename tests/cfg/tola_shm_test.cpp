#include "cfg/tola_shm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "cfg/hash_table.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;

constexpr uint32_t kEntries = 20;

/// One small partition under this process's number 0; the creation that happens once in a process happens in
/// a case of its own.
class TolaShmTest : public testing::Test {
 protected:
  TolaShmTest() {
    const KelShmMemPtName name{"cfg_test"};
    uint32_t number = 99;
    EXPECT_EQ(KEL_ShmStruKvMemPtCreate(&name, 4096, kEntries, kKelShmInherited, &number), 0u);
    EXPECT_EQ(number, 0u);
  }
  ~TolaShmTest() override { EXPECT_EQ(KEL_ShmStruKvMemPtDelete(0), 0u); }

  /// Blocks that can still be had.
  static size_t Room() {
    std::vector<void*> blocks;
    while (void* block = TOLA_ShmStruKvMemPtAlloc(0, 16)) blocks.push_back(block);
    for (void* block : blocks) EXPECT_EQ(TOLA_ShmStruKvMemPtFree(block), 0u);
    return blocks.size();
  }
};

TEST_F(TolaShmTest, ABlockIsKnownByItsAddressAndOnlyThenGivenBack) {
  support::LogCapture log;
  void* block = TOLA_ShmStruKvMemPtAlloc(0, 100);
  char name[32];
  (void)snprintf(name, sizeof(name), "%p", block);
  ASSERT_EQ(KEL_ShmStruKvMemEntryUnset(name, block), 0u);
  EXPECT_EQ(TOLA_ShmStruKvMemPtFree(block), 1u);
  EXPECT_EQ(KEL_ShmStruKvMemEntrySet(name, block, 100), 0u) << "the block did not stay";
  EXPECT_EQ(TOLA_ShmStruKvMemPtFree(block), 0u);
  EXPECT_EQ(TOLA_ShmStruKvMemPtFree(block), 1u) << "given back twice";

  block = TOLA_ShmStruKvMemPtAlloc(0, 100);
  ASSERT_EQ(KEL_ShmStruKvMemPtFree(block), 0u);  // behind the directory's back
  EXPECT_EQ(TOLA_ShmStruKvMemPtFree(block), 1u);
  EXPECT_THAT(log.Lines(),
              ElementsAre("KEL_ShmStruKvMemEntryUnset error: 0x706",
                          "KEL_ShmStruKvMemEntryUnset error: 0x706", "KEL_ShmStruKvMemPtFree error: 0x705"));
}

TEST_F(TolaShmTest, ABlockThatTheDirectoryHasNoRoomForIsGivenBack) {
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(Room(), kEntries);  // each round is refused once
  EXPECT_NE(KEL_ShmStruKvMemPtAlloc(0, 4096 - 16), nullptr) << "refused blocks were left behind";
}

TEST_F(TolaShmTest, ATableAndItsArenaLiveInThePartitionAndAForkedProcessAddsToThem) {
  const auto hash = +[](const void* key) -> uint16_t { return *static_cast<const uint8_t*>(key); };
  const auto any = +[](void*, void*) -> uint16_t { return 1; };
  const uint8_t key = 3;
  {
    CHashTable table(true);
    ASSERT_EQ(table.Init(1, 8, hash), 0u);
    EXPECT_EQ(table.AddHashNodeWithData(&key, 8), nullptr)
        << "the stored hash function may be another process's";
    const pid_t child = fork();
    if (child == 0) {
      auto* data = static_cast<uint32_t*>(table.AddHashNodeWithData(&key, 8, hash));
      if (data != nullptr) *data = 0x600D;
      _exit(data != nullptr ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    const auto* data = static_cast<const uint32_t*>(table.GetOneAppointNode(&key, any, nullptr, hash));
    ASSERT_NE(data, nullptr) << "the other process's node is not in the chain";
    EXPECT_EQ(*data, 0x600Du);
    EXPECT_EQ(table.DeleteAllAppointNode(&key, any, nullptr, hash), 1u);
    ASSERT_NE(table.AddHashNodeWithData(&key, 8, hash), nullptr);

    CMemBlockManage arena(true);
    ASSERT_EQ(arena.Init(1), 0u);
    EXPECT_EQ(arena.AllocSection({{}, 256}, 16).result, 0u);
    EXPECT_EQ(Room(), kEntries - 4) << "buckets, node, the arena's type and block";
  }
  EXPECT_EQ(Room(), kEntries) << "table or arena left blocks in the partition";
}

TEST(TolaShmCreate, PartitionsAreCreatedInOrderAndOnlyOnce) {
  TolaShmMemPtInfo table[] = {{{"first"}, 4096, 4, kKelShmInherited, 99},
                              {{"second"}, 4096, 4, kKelShmInherited, 99}};
  TolaShmMemPtInfo bad[] = {{{"third"}, 4096, 0, kKelShmInherited, 99}};
  TolaShmMemPtInfo* kept = nullptr;
  uint16_t count = 0;
  EXPECT_EQ(TOLA_ShmMemPtCreate(bad, 1), kKelErrShmPara) << "the runtime's own result";
  ASSERT_EQ(TOLA_ShmMemPtCreate(table, 2), 0u);
  EXPECT_EQ(TOLA_ShmMemPtCreate(bad, 0), 1u);
  EXPECT_EQ(TOLA_ShmMemPtGet(&kept, &count), 0u);
  EXPECT_EQ(kept, table);
  EXPECT_EQ(count, 2);
  for (uint32_t i = 0; i < 2; ++i) {
    EXPECT_EQ(table[i].partition, i);
    EXPECT_EQ(KEL_ShmStruKvMemPtDelete(i), 0u);
  }
}

}  // namespace
