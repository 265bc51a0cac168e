#include "velto/kel_sync.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/at_once.h"
#include "support/random.h"
#include "support/task_turn.h"
#include "velto/kel_support.h"

namespace {

TEST(KelSema, ItIsTakenAsOftenAsItWasGivenAndOverflowIsRefused) {
  uint32_t sema = 0;
  ASSERT_EQ(KEL_SemaCreate("sema", 2, 0, &sema), 0u);
  EXPECT_EQ(KEL_SemaV(sema), 0u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KEL_SemaP(sema, 0), 0u);
  EXPECT_EQ(KEL_SemaP(sema, 0), kKelErrTimeout);
  {
    const auto take = [sema] { EXPECT_EQ(KEL_SemaP(sema, KEL_WAIT_FOREVER), 0u); };
    TestTask first("first", take), second("second", take);
    for (const TestTask* task : {&first, &second}) support::TaskTurns(task->id()).Asleep();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(KEL_SemaV(sema), 0u);
  }  // hangs when the second give, before the first sleeper ran, wakes nobody
  EXPECT_EQ(KEL_SemaDelete(sema), 0u);
  EXPECT_EQ(KEL_SemaP(sema, 0), kKelErrSyncId) << "a deleted semaphore was taken";
  ASSERT_EQ(KEL_SemaCreate("full", 0x7FFFFFFF, 0, &sema), 0u);
  EXPECT_EQ(KEL_SemaV(sema), kKelErrSyncOver);
  EXPECT_EQ(KEL_SemaDelete(sema), 0u);
}

TEST(KelSema, AsALockItLetsOneInAtATimeAndLosesNoWakeUp) {
  constexpr int kThreads = 4, kRounds = 5000;
  uint32_t sema = 0;
  ASSERT_EQ(KEL_SemaCreate("lock", 1, 0, &sema), 0u);
  int inside = 0, entries = 0;  // plain on purpose: only the semaphore keeps them whole
  support::AtOnce(kThreads, [&](uint32_t) {
    for (int round = 0; round < kRounds; ++round) {
      ASSERT_EQ(KEL_SemaP(sema, 60'000), 0u) << "a give woke nobody";
      EXPECT_EQ(++inside, 1);
      ++entries;
      if (round % 64 == 0) std::this_thread::yield();  // so that the others run into the taken semaphore
      --inside;
      ASSERT_EQ(KEL_SemaV(sema), 0u);
    }
  });
  EXPECT_EQ(entries, kThreads * kRounds);
  EXPECT_EQ(KEL_SemaDelete(sema), 0u);
}

class KelRwLockTest : public testing::Test {
 protected:
  KelRwLockTest() { EXPECT_EQ(KEL_RWLockCreate("lock", &lock_), 0u); }
  ~KelRwLockTest() override { EXPECT_EQ(KEL_RWLockDelete(lock_), 0u); }

  uint32_t lock_ = 0;
};

TEST_F(KelRwLockTest, ReadersShareAWriterIsAloneAndForeignUnlocksAreRefused) {
  ASSERT_EQ(KEL_RWLockRLock(lock_, 0), 0u);
  ASSERT_EQ(KEL_RWLockRLock(lock_, 0), 0u);
  EXPECT_EQ(KEL_RWLockWUnlock(lock_), kKelErrSyncHeld);
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
  EXPECT_EQ(KEL_RWLockWLock(lock_, 0), kKelErrTimeout) << "one of two readers left, the other was overlooked";
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), kKelErrSyncHeld);
  ASSERT_EQ(KEL_RWLockWLock(lock_, 0), 0u);
  EXPECT_EQ(KEL_RWLockRLock(lock_, 0), kKelErrTimeout);
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), kKelErrSyncHeld);
  EXPECT_EQ(KEL_RWLockWUnlock(lock_), 0u);
}

// Time stands until both sleep, and then runs: moving it would wake the reader too. A slow machine only
// weakens the case.
TEST_F(KelRwLockTest, AWaitingWriterGoesBeforeNewReadersAndLetsThemInWhenItGivesUp) {
  ASSERT_EQ(KEL_RWLockRLock(lock_, 0), 0u);
  KEL_ClockModeSet(kKelClockManual);
  TestTask writer("writer", [&] { EXPECT_EQ(KEL_RWLockWLock(lock_, 200), kKelErrTimeout); });
  EXPECT_TRUE(Eventually([&] {
    if (KEL_RWLockRLock(lock_, 0) == kKelErrTimeout) return true;
    EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
    return false;
  })) << "readers got in all the time: the writer starves";
  TestTask reader("reader", [&] {
    EXPECT_EQ(KEL_RWLockRLock(lock_, KEL_WAIT_FOREVER), 0u);
    EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
  });
  support::TaskTurns(reader.id()).Asleep();
  KEL_ClockModeSet(kKelClockReal);
  writer.Join();
  reader.Join();  // hangs when the writer that gave up leaves its reader asleep
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
}

TEST_F(KelRwLockTest, WritersAndReadersKeepTheirRecordWholeAndNobodyIsLeftAsleep) {
  std::array<uint64_t, 4> record{};  // plain on purpose: only the lock keeps it whole
  constexpr uint64_t kRounds = 3000;
  support::AtOnce(4, [&](uint32_t who) {
    for (uint64_t round = 0; round < kRounds; ++round) {
      if (who % 2 == 0) {
        ASSERT_EQ(KEL_RWLockRLock(lock_, KEL_WAIT_FOREVER), 0u);
        for (const uint64_t field : record) EXPECT_EQ(field, record[0]) << "a reader saw half a write";
        ASSERT_EQ(KEL_RWLockRUnlock(lock_), 0u);
        continue;
      }
      ASSERT_EQ(KEL_RWLockWLock(lock_, KEL_WAIT_FOREVER), 0u);
      for (uint64_t& field : record) {
        ++field;
        if (round % 64 == 0) std::this_thread::yield();  // so that the others run into the lock
      }
      ASSERT_EQ(KEL_RWLockWUnlock(lock_), 0u);
    }
  });
  EXPECT_EQ(record[3], 2 * kRounds);
}

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
