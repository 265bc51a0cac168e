#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "velto/kel_support.h"
#include "velto/kel_sync.h"

namespace {

uint32_t Count(uint32_t queue) {
  uint32_t count = 0xFFFFFFFF;
  EXPECT_EQ(KEL_QueueMsgNumGet(queue, &count), 0u);
  return count;
}

// Random writes and reads on one queue, against a deque; what does not fit the queue's entry size is refused.
void PlayAgainstModel(std::mt19937& random, uint32_t entrySize) {
  const uint32_t length = Below(random, 20) + 1;
  uint32_t queue = 0;
  ASSERT_EQ(KEL_QueueCreate("model", length, entrySize, &queue), 0u);
  std::deque<std::string> model;
  for (uint32_t step = 0; step < 3000; ++step) {
    std::string entry(entrySize, static_cast<char>(random()));
    uint32_t size = 99;
    ASSERT_EQ(KEL_QueueAsyWrite(queue, entry.data(), entrySize + 1), kKelErrQueueSize);
    if (Below(random, 2) == 0) {
      entry[0] = static_cast<char>(step);
      const bool fits = model.size() < length;
      ASSERT_EQ(KEL_QueueAsyWrite(queue, entry.data(), entrySize), fits ? 0u : kKelErrQueueFull)
          << "step " << step << ", " << model.size() << " of " << length << " entries";
      if (fits) model.push_back(entry);
    } else {
      const uint32_t result = KEL_QueueAsyRead(queue, entry.data(), entrySize, &size);
      ASSERT_EQ(result, model.empty() ? kKelErrQueueEmpty : 0u) << "step " << step;
      ASSERT_EQ(size, model.empty() ? 0 : entrySize);
      if (model.empty()) continue;
      ASSERT_EQ(entry, model.front()) << "order or bytes went wrong in step " << step;
      model.pop_front();
    }
    ASSERT_EQ(Count(queue), model.size()) << "step " << step;
  }
  EXPECT_EQ(KEL_QueueDelete(queue), 0u);
  EXPECT_EQ(KEL_QueueMsgNumGet(queue, &queue), kKelErrSyncId) << "a deleted queue was used";
}

TEST(KelQueue, BehavesAsADequeOfBoundedLength) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (const uint32_t entrySize : {1u, 4u, 8u, 13u, 64u}) {
    SCOPED_TRACE("entry size " + std::to_string(entrySize));
    PlayAgainstModel(random, entrySize);
    if (HasFatalFailure()) return;
  }
}

// Every entry comes out once, each writer's in order. The length is the whole ring's, so that a writer waits
// for the very cell that a reader still copies (the tsan preset sees them meet), and long enough that a busy
// machine does not give up a time slice for each entry.
TEST(KelQueue, ManyWritersAndReadersLoseAndDoubleNothing) {
  constexpr uint32_t kWriters = 3;
  constexpr uint32_t kEach = 5000;
  uint32_t queue = 0;
  ASSERT_EQ(KEL_QueueCreate("crowd", 64, sizeof(uint64_t), &queue), 0u);
  std::atomic<uint32_t> left{kWriters * kEach};
  std::vector<std::atomic<bool>> seen(kWriters * kEach);
  std::vector<std::thread> threads;
  for (uint32_t writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([=] {
      for (uint32_t number = 0; number < kEach; ++number) {
        const uint64_t entry = uint64_t{writer} << 32 | number;
        while (KEL_QueueAsyWrite(queue, &entry, sizeof(entry)) != 0) std::this_thread::yield();
      }
    });
  }
  const auto read = [&] {
    std::array<int64_t, kWriters> last;
    last.fill(-1);
    while (left != 0) {
      uint64_t entry = 0;
      uint32_t size = 0;
      if (KEL_QueueAsyRead(queue, &entry, sizeof(entry), &size) != 0) {
        std::this_thread::yield();
        continue;
      }
      const auto number = static_cast<uint32_t>(entry);
      const auto writer = static_cast<size_t>(entry >> 32);
      ASSERT_LT(writer, kWriters) << "an entry that nobody wrote";
      ASSERT_GT(number, std::exchange(last[writer], number)) << "out of its writer's order";
      ASSERT_FALSE(seen[writer * kEach + number].exchange(true)) << "an entry came twice";
      --left;
    }
  };
  std::thread other(read);
  read();
  other.join();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Count(queue), 0u);
  EXPECT_EQ(KEL_QueueDelete(queue), 0u);
}

}  // namespace
