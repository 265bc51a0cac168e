#include "velto/kel_sync.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

#include "velto/kel_support.h"

namespace {

class KelSemaTest : public testing::Test {
 protected:
  void Make(uint32_t count) { ASSERT_EQ(KEL_SemaCreate("sema", count, 0, &sema_), 0u); }
  void TearDown() override { EXPECT_EQ(KEL_SemaDelete(sema_), 0u); }

  uint32_t sema_ = 0;
};

TEST_F(KelSemaTest, ItIsTakenAsOftenAsItWasGivenAndOverflowIsRefused) {
  Make(2);
  EXPECT_EQ(KEL_SemaV(sema_), 0u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KEL_SemaP(sema_, 0), 0u);
  EXPECT_EQ(KEL_SemaP(sema_, 0), kKelErrTimeout);
  uint32_t full = 0;
  ASSERT_EQ(KEL_SemaCreate("full", 0x7FFFFFFF, 0, &full), 0u);
  EXPECT_EQ(KEL_SemaV(full), kKelErrSyncOver);
  EXPECT_EQ(KEL_SemaP(full, 0), 0u);
  EXPECT_EQ(KEL_SemaV(full), 0u);
  EXPECT_EQ(KEL_SemaDelete(full), 0u);
  EXPECT_EQ(KEL_SemaP(full, 0), kKelErrSyncId) << "a deleted semaphore was taken";
}

TEST_F(KelSemaTest, AsALockItLetsOneInAtATimeAndLosesNoWakeUp) {
  Make(1);
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  int inside = 0;  // plain on purpose: only the semaphore keeps it whole
  int entries = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(KEL_SemaP(sema_, 60'000), 0u) << "a give woke nobody";
        EXPECT_EQ(++inside, 1);
        ++entries;
        if (round % 64 == 0) std::this_thread::yield();  // so that the others run into the taken semaphore
        --inside;
        ASSERT_EQ(KEL_SemaV(sema_), 0u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(entries, kThreads * kRounds);
}

class KelRwLockTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(KEL_RWLockCreate("lock", &lock_), 0u); }
  void TearDown() override { EXPECT_EQ(KEL_RWLockDelete(lock_), 0u); }

  uint32_t lock_ = 0;
};

TEST_F(KelRwLockTest, ReadersShareAWriterIsAloneAndForeignUnlocksAreRefused) {
  ASSERT_EQ(KEL_RWLockRLock(lock_, 0), 0u);
  ASSERT_EQ(KEL_RWLockRLock(lock_, 0), 0u);
  EXPECT_EQ(KEL_RWLockWLock(lock_, 0), kKelErrTimeout);
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
  EXPECT_TRUE(FallsAsleep(reader.id()));
  KEL_ClockModeSet(kKelClockReal);
  writer.Join();
  reader.Join();  // hangs when the writer that gave up leaves its reader asleep
  EXPECT_EQ(KEL_RWLockRUnlock(lock_), 0u);
}

TEST_F(KelRwLockTest, WritersAndReadersKeepTheirRecordWholeAndNobodyIsLeftAsleep) {
  std::array<uint64_t, 4> record{};  // plain on purpose: only the lock keeps it whole
  constexpr uint64_t kRounds = 3000;
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (uint64_t round = 0; round < kRounds; ++round) {
        ASSERT_EQ(KEL_RWLockWLock(lock_, KEL_WAIT_FOREVER), 0u);
        for (uint64_t& field : record) {
          ++field;
          if (round % 64 == 0) std::this_thread::yield();  // so that the others run into the lock
        }
        ASSERT_EQ(KEL_RWLockWUnlock(lock_), 0u);
      }
    });
    threads.emplace_back([&] {
      for (uint64_t round = 0; round < kRounds; ++round) {
        ASSERT_EQ(KEL_RWLockRLock(lock_, KEL_WAIT_FOREVER), 0u);
        for (const uint64_t field : record) EXPECT_EQ(field, record[0]) << "a reader saw half a write";
        ASSERT_EQ(KEL_RWLockRUnlock(lock_), 0u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(record[3], 2 * kRounds);
}

}  // namespace
