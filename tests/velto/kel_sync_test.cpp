#include "velto/kel_sync.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "support/at_once.h"
#include "support/task_turn.h"
#include "velto/kel_support.h"

namespace {

TEST(KelSema, ItIsTakenAsOftenAsItWasGivenAndOverflowIsRefused) {
  uint32_t sema = 0, full = 0;
  ASSERT_EQ(KEL_SemaCreate("sema", 2, 0, &sema), 0u);
  EXPECT_EQ(KEL_SemaV(sema), 0u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KEL_SemaP(sema, 0), 0u);
  EXPECT_EQ(KEL_SemaP(sema, 0), kKelErrTimeout);
  EXPECT_EQ(KEL_SemaDelete(sema), 0u);
  EXPECT_EQ(KEL_SemaP(sema, 0), kKelErrSyncId) << "a deleted semaphore was taken";
  ASSERT_EQ(KEL_SemaCreate("full", 0x7FFFFFFF, 0, &full), 0u);
  EXPECT_EQ(KEL_SemaV(full), kKelErrSyncOver);
  EXPECT_EQ(KEL_SemaP(full, 0), 0u);
  EXPECT_EQ(KEL_SemaDelete(full), 0u);
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

}  // namespace
