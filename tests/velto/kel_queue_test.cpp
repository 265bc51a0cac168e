#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/at_once.h"
#include "support/random.h"
#include "velto/kel_sync.h"

namespace {

// Random writes and reads on one queue, against a deque; what does not fit the queue's entry size is refused.
void PlayAgainstModel(std::mt19937& random, uint32_t entrySize) {
  const uint32_t length = support::Below(random, 20) + 1;
  uint32_t queue = 0, size = 0, count = 0;
  ASSERT_EQ(KEL_QueueCreate("model", length, entrySize, &queue), 0u);
  std::deque<std::string> model;
  for (uint32_t step = 0; step < 3000; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    std::string entry(entrySize, static_cast<char>(random()));
    entry[0] = static_cast<char>(step);
    ASSERT_EQ(KEL_QueueAsyWrite(queue, entry.data(), entrySize + 1), kKelErrQueueSize);
    if (support::Below(random, 2) == 0) {
      const bool fits = model.size() < length;
      ASSERT_EQ(KEL_QueueAsyWrite(queue, entry.data(), entrySize), fits ? 0u : kKelErrQueueFull);
      if (fits) model.push_back(entry);
    } else if (model.empty()) {
      ASSERT_EQ(KEL_QueueAsyRead(queue, entry.data(), entrySize, &size), kKelErrQueueEmpty);
      ASSERT_EQ(size, 0u);
    } else {
      ASSERT_EQ(KEL_QueueAsyRead(queue, entry.data(), entrySize, &size), 0u);
      ASSERT_EQ(size, entrySize);
      ASSERT_EQ(entry, model.front()) << "order or bytes went wrong";
      model.pop_front();
    }
    ASSERT_EQ(KEL_QueueMsgNumGet(queue, &count), 0u);
    ASSERT_EQ(count, model.size());
  }
  EXPECT_EQ(KEL_QueueDelete(queue), 0u);
  EXPECT_EQ(KEL_QueueMsgNumGet(queue, &count), kKelErrSyncId) << "a deleted queue was used";
}

TEST(KelQueue, BehavesAsADequeOfBoundedLength) {
  std::mt19937 random = support::NewRandom();
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
  constexpr uint32_t kWriters = 3, kReaders = 2, kEach = 5000;
  uint32_t queue = 0;
  ASSERT_EQ(KEL_QueueCreate("crowd", 64, sizeof(size_t), &queue), 0u);
  std::atomic<uint32_t> left{kWriters * kEach};
  std::vector<std::atomic<bool>> seen(kWriters * kEach);
  support::AtOnce(kWriters + kReaders, [&](uint32_t who) {
    for (size_t number = 0; who < kWriters && number < kEach; ++number) {
      const size_t entry = who * kEach + number;
      while (KEL_QueueAsyWrite(queue, &entry, sizeof(entry)) != 0) std::this_thread::yield();
    }
    std::vector<size_t> next(kWriters);  // the least that each writer may still send
    while (who >= kWriters && left != 0) {
      size_t entry = 0;
      uint32_t size = 0;
      if (KEL_QueueAsyRead(queue, &entry, sizeof(entry), &size) != 0) {
        std::this_thread::yield();
        continue;
      }
      ASSERT_LT(entry, seen.size()) << "an entry that nobody wrote";
      ASSERT_GE(entry, std::exchange(next[entry / kEach], entry + 1)) << "out of its writer's order";
      ASSERT_FALSE(seen[entry].exchange(true)) << "an entry came twice";
      --left;
    }
  });
  EXPECT_EQ(KEL_QueueDelete(queue), 0u);
}

}  // namespace
