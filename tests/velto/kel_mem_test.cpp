#include "velto/kel_mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <latch>
#include <string>
#include <thread>

#include "support/at_once.h"
#include "support/random.h"
#include "support/temp_dir.h"
#include "velto/kel_cfg.h"

namespace {

/// A handle, and what is live under it.
struct Use {
  uint32_t handle = 0;
  uint64_t bytes = 99, count = 99;

  explicit Use(const char* name) {
    EXPECT_EQ(KEL_HandleInitialize(name, &handle), 0u);
    EXPECT_EQ(KEL_HandleUseGet(handle, &bytes, &count), 0u);
  }
};

TEST(KelMem, EachAllocationIsCountedUnderItsHandle) {
  const uint32_t first = Use("mem_first").handle, second = Use("mem_second").handle;
  const uint32_t freeBefore = KEL_MemGetFreeSize();
  void* const all[] = {KEL_MEM_ALLOC(first, 3), KEL_MEM_ALLOC(first, 0), KEL_MEM_ALLOC(second, 1000)};
  for (void* memory : all) {
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % alignof(std::max_align_t), 0u);
  }
  EXPECT_EQ(Use("mem_first").bytes, 3u);
  EXPECT_EQ(Use("mem_first").count, 2u);
  EXPECT_EQ(Use("mem_second").bytes, 1000u);
  EXPECT_EQ(freeBefore - KEL_MemGetFreeSize(), 1003u);
  for (void* memory : all) KEL_MEM_FREE(memory);
  KEL_MEM_FREE(nullptr);
  EXPECT_EQ(Use("mem_first").count, 0u);
  EXPECT_EQ(KEL_MemGetFreeSize(), freeBefore);
}

// Another thread, far below the budget, reports nothing of what it holds by itself.
TEST(KelMem, TheBudgetIsUsedToTheLastByteOfAllThreadsAndNeverPassed) {
  constexpr uint32_t kBudget = 4194304, kRest = kBudget - 100 * 60;
  const support::TempDir dir;
  ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.Write("budget", "mem.budget_bytes=4194304\n").c_str()), 0u);
  const uint32_t handle = Use("mem_budget").handle;
  EXPECT_EQ(KEL_MemGetTotalSize(), kBudget);
  ASSERT_EQ(KEL_MemGetFreeSize(), kBudget) << "another case left memory behind";
  std::latch held(2), tried(2);
  std::thread holder([&] {
    void* small[100];
    for (void*& memory : small) memory = KEL_MEM_ALLOC(handle, 60);
    held.arrive_and_wait();
    tried.arrive_and_wait();
    for (void* memory : small) KEL_MEM_FREE(memory);
  });
  held.arrive_and_wait();
  EXPECT_EQ(KEL_MEM_ALLOC(9999, 1), nullptr) << "an unknown handle";
  for (const uint32_t tooMuch : {kRest + 1, 0xFFFFFFFF}) EXPECT_EQ(KEL_MEM_ALLOC(handle, tooMuch), nullptr);
  EXPECT_EQ(KEL_MemGetFreeSize(), kRest) << "a refused allocation was charged";
  void* most = KEL_MEM_ALLOC(handle, kRest - 1);
  void* last = KEL_MEM_ALLOC(handle, 1);
  EXPECT_NE(most, nullptr);
  EXPECT_NE(last, nullptr);
  EXPECT_EQ(KEL_MEM_ALLOC(handle, 1), nullptr);
  tried.arrive_and_wait();
  holder.join();
  KEL_MEM_FREE(last);
  KEL_MEM_FREE(most);
  EXPECT_EQ(KEL_MemGetFreeSize(), kBudget);
  ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.Write("defaults", "").c_str()), 0u);
}

TEST(KelMem, ARequestThatIsRefusedTakesNothingFromOtherThreads) {
  const uint32_t handle = Use("mem_refused").handle;
  std::atomic<bool> done{false};
  std::thread greedy([&] {
    while (!done) EXPECT_EQ(KEL_MEM_ALLOC(handle, 0xFFFFFFFF), nullptr);
  });
  for (int i = 0; i < 200000 && !HasFailure(); ++i) {
    void* small = KEL_MEM_ALLOC(handle, 8);
    EXPECT_NE(small, nullptr) << "there was room, after " << i;
    KEL_MEM_FREE(small);
  }
  done = true;
  greedy.join();
}

/// A visitor while others work: what it is given belongs together.
void ExpectOwnPlace(const KelMemLive* live, uintptr_t) {
  if (strcmp(live->handle, "mem_threads") != 0) return;
  EXPECT_EQ(live->size % 4, 0u);
  EXPECT_LE(live->size, 1200u);
  EXPECT_EQ(strncmp(live->file, __FILE__, sizeof(__FILE__)), 0) << "a place that nobody named";
}

/// More threads than may keep blocks of their own swap blocks through common places: who takes one out finds
/// what was written when it was put in, whichever thread that was, and frees it.
TEST(KelMem, BlocksThatChangeThreadsStayWholeAndCountToZero) {
  constexpr uint32_t kThreads = 140;
  const uint32_t handle = Use("mem_threads").handle, freeBefore = KEL_MemGetFreeSize();
  const auto seed = static_cast<uint32_t>(support::NewRandom()());
  std::atomic<uint32_t*> places[64]{};
  const auto giveBack = [](uint32_t* block) {
    if (block == nullptr) return;
    for (uint32_t i = 1; i < block[0]; ++i) ASSERT_EQ(block[i], block[0]) << "two blocks overlap";
    KEL_MEM_FREE(block);
  };
  std::latch begin(kThreads);
  support::AtOnce(kThreads, [&](uint32_t thread) {
    std::mt19937 random(seed + thread);
    begin.arrive_and_wait();
    for (int step = 0; step < 500; ++step) {
      const uint32_t words = 1 + support::Below(random, 300);
      auto* block = static_cast<uint32_t*>(KEL_MEM_ALLOC(handle, words * 4));
      ASSERT_NE(block, nullptr);
      std::fill_n(block, words, words);
      giveBack(places[support::Below(random, 64)].exchange(block));
      if (step % 100 == 0) KEL_MemLiveWalk(ExpectOwnPlace, handle);
    }
  });
  for (std::atomic<uint32_t*>& place : places) giveBack(place.load());
  EXPECT_EQ(Use("mem_threads").count, 0u);
  EXPECT_EQ(KEL_MemGetFreeSize(), freeBefore);
}

TEST(KelMemDeathTest, ASecondGiveBackAndAnUnderrunEndTheProcessWithTheirPlace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const uint32_t handle = Use("mem_death").handle;
  const auto giveBack = [](char* memory) { KEL_MemFree_F(memory, "culprit.cpp", 12); };
  for (const uint32_t size : {8U, 2000U}) {  // of a free list, and of the heap
    auto* memory = static_cast<char*>(KEL_MEM_ALLOC(handle, size));
    EXPECT_DEATH((giveBack(memory), giveBack(memory)), "culprit.cpp:12: .*given back before");
    EXPECT_DEATH((std::fill_n(const_cast<volatile char*>(memory) - 4, 4, 'x'), giveBack(memory)),
                 "culprit.cpp:12: .*overwritten");
    EXPECT_DEATH(giveBack(memory + 16), "culprit.cpp:12: .*not live");
    giveBack(memory);
  }
}

}  // namespace
