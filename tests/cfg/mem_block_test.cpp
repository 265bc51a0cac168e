#include <gtest/gtest.h>

#include <vector>

#include "cfg/cfg_support.h"
#include "cfg/tola_mem_block_manage.h"

namespace {

constexpr MEM_BLOCK_KEY_PARA_INFO_S Key(uint32_t blockLength, uint8_t identity = 0) {
  return {{identity}, blockLength};
}

uint32_t Carve(CMemBlockManage& arena, const MEM_BLOCK_KEY_PARA_INFO_S& key, uint32_t length, void*& out) {
  const MEM_SECTION_HEAD_INFO_S section{0, length};
  return arena.AllocMemInBlockByKeyInfo(&key, &section, out);
}

// Sections asked for in this order, and the block (counted from 1) and offset where each must lie; block 0 is
// the refusal of a section that is not smaller than a block.
TEST(MemBlock, SectionsLieWhereTheRulesOfTheNewestBlockPutThem) {
  struct Step {
    uint32_t length, block, offset;
  };
  const struct {
    uint32_t blockLength;
    std::vector<Step> steps;
  } rows[] = {
      {16, {{12, 1, 0}, {4, 2, 0}, {4, 2, 4}, {4, 2, 8}, {4, 3, 0}}},  // the last fit is never used
      {16, {{16, 0, 0}, {13, 0, 0}, {0xFFFFFFFF, 0, 0}, {12, 1, 0}}},
      {32, {{13, 1, 0}, {1, 1, 16}, {8, 1, 20}, {4, 2, 0}}},
      {15, {{12, 1, 0}}},                          // a block of 15 counts as 16
      {32, {{24, 1, 0}, {16, 2, 0}, {4, 2, 16}}},  // the older block has room, and is not looked at
      {8, {{0, 1, 0}, {0, 1, 0}, {4, 1, 0}, {4, 2, 0}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.blockLength);
    CMemBlockManage arena(false);
    ASSERT_EQ(arena.Init(TestHandle()), 0u);
    std::vector<uint8_t*> blocks;
    for (const Step& step : row.steps) {
      SCOPED_TRACE(step.length);
      const uint64_t before = HeapUse().second;
      void* out = &arena;
      EXPECT_EQ(Carve(arena, Key(row.blockLength), step.length, out),
                step.block == 0 ? kArenaErrSection : 0u);
      ASSERT_EQ(out == nullptr, step.block == 0);
      if (out == nullptr) continue;
      auto* section = static_cast<uint8_t*>(out);
      EXPECT_EQ(HeapUse().second > before, step.block > blocks.size())
          << "the newest block has room, or has not";
      if (step.block > blocks.size()) blocks.push_back(section);
      EXPECT_EQ(section - blocks.back(), step.offset);
      for (uint32_t i = 0; i < step.length; ++i) EXPECT_EQ(std::exchange(section[i], 0xAA), 0) << i;
    }
  }
}

TEST(MemBlock, ClearingWantsTheKeysLengthButTakesAllLengthsOfItsIdentity) {
  const auto before = HeapUse();
  CMemBlockManage arena(false);
  void* out = nullptr;
  const auto key = Key(64), unknown = Key(65);
  EXPECT_EQ(arena.ClearRegMemBlock(&key), kArenaErrClear) << "not initialised";
  ASSERT_EQ(arena.Init(TestHandle()), 0u);
  EXPECT_EQ(arena.ClearRegMemBlock(nullptr), kArenaErrClear);
  ASSERT_EQ(Carve(arena, Key(64, 1), 8, out), 0u);
  const uint64_t other = HeapUse().first - before.first;
  for (const auto& [blockLength, length] : {std::pair{64u, 8u}, {128u, 8u}, {128u, 120u}})
    ASSERT_EQ(Carve(arena, Key(blockLength), length, out), 0u);
  EXPECT_EQ(arena.ClearRegMemBlock(&unknown), kArenaErrKey);
  EXPECT_EQ(arena.ClearRegMemBlock(&key), 0u);
  EXPECT_EQ(HeapUse().first - before.first, other) << "what stays is the one block of the other identity";
  EXPECT_EQ(arena.ClearRegMemBlock(&key), kArenaErrKey);
}

TEST(MemBlock, WrongArgumentsAndMissingMemoryHaveTheirCodes) {
  CMemBlockManage arena(false);
  void* out = nullptr;
  const MEM_SECTION_HEAD_INFO_S section{0, 8};
  EXPECT_EQ(Carve(arena, Key(64), 8, out), kArenaErrPara) << "not initialised";
  EXPECT_EQ(arena.Init(0), kArenaErrModuleId);
  ASSERT_EQ(arena.Init(0xFFFF), 0u);  // a handle that the runtime does not know
  EXPECT_EQ(Carve(arena, Key(64), 8, out), kArenaErrTypeMemory);
  ASSERT_EQ(arena.Init(TestHandle()), 0u);
  EXPECT_EQ(arena.AllocMemInBlockByKeyInfo(nullptr, &section, out), kArenaErrPara);
  EXPECT_EQ(Carve(arena, Key(0), 8, out), kArenaErrPara);
  EXPECT_EQ(Carve(arena, Key(0xFFFFFFFF), 8, out), kArenaErrBlockMemory) << "a size that wraps, or 4 GiB";
  EXPECT_EQ(out, nullptr);
}

}  // namespace
