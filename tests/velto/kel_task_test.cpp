#include "velto/kel_task.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/random.h"
#include "velto/kel_sigcap.h"
#include "velto/kel_support.h"

namespace {

std::string NameOf(uint32_t taskId) {
  char name[kKelTaskNameSize] = "?";
  (void)KEL_TaskNameGet(taskId, name, sizeof(name));  // stays "?" on failure
  return name;
}

/// A task's entry that ends with the first event of bit 0.
void AwaitEvent(uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
  uint32_t received = 0;
  EXPECT_EQ(KEL_EventRead(1, &received, kKelEventAny, KEL_WAIT_FOREVER), 0u);
}

TEST(KelTask, ATaskIsFoundByItsIdFromCreationToItsEndAndNotAfterwards) {
  std::atomic<int32_t> threadId{0};
  const std::string longest(kKelTaskNameSize - 1, 'n');
  TestTask task(longest.c_str(), [&] {
    threadId = static_cast<int32_t>(gettid());
    AwaitEvent(0, 0, 0, 0);
  });
  const uint32_t id = task.id();
  EXPECT_EQ(KEL_TaskIsValid(id), 1u) << "creation returned before the task could be looked up";
  EXPECT_GE(KEL_TaskMaxIdGet(), id);
  EXPECT_EQ(NameOf(id), longest);
  char small[4];
  EXPECT_EQ(KEL_TaskNameGet(id, small, sizeof(small)), kKelErrTaskPara) << "a name was cut";
  int32_t found = 0;
  EXPECT_EQ(KEL_TaskThreadIdGet(id, &found), 0u);
  EXPECT_EQ(KEL_TaskWait(id, 0), kKelErrTimeout);

  ASSERT_EQ(KEL_EventWrite(id, 1), 0u);
  task.Join();
  EXPECT_EQ(found, threadId);
  EXPECT_EQ(KEL_TaskIsValid(id), 0u);
  EXPECT_EQ(KEL_EventWrite(id, 1), kKelErrTaskId) << "an event for an ended task was taken";
  EXPECT_EQ(KEL_TaskWait(id, 0), kKelErrTaskId);
}

TEST(KelTask, TheTableFillsAndEmptiesAgain) {
  for (int round = 0; round < 2; ++round) {
    std::vector<uint32_t> ids;
    uint32_t id = 0, result = 0;
    while ((result = KEL_TaskCreate("crowd", &id, AwaitEvent, 1, 65536, 0, nullptr)) == 0) ids.push_back(id);
    EXPECT_EQ(result, kKelErrTaskFull);
    EXPECT_GT(ids.size(), kKelTaskMax - 8) << "slots of ended tasks were not used again, round " << round;
    for (const uint32_t ended : ids) {
      EXPECT_EQ(KEL_EventWrite(ended, 1), 0u);
      EXPECT_EQ(KEL_TaskWait(ended, KEL_WAIT_FOREVER), 0u);
    }
  }
}

TEST(KelTask, AnAdoptedThreadKeepsItsIdAndGivesItBackWithItsEnd) {
  uint32_t id = 0;
  std::thread([&id] {
    uint32_t again = 5;
    EXPECT_EQ(KEL_TaskCurrentIdGet(&again), kKelErrTaskId);
    EXPECT_EQ(again, 0u);
    EXPECT_EQ(KEL_EventRead(1, &again, kKelEventAny, 0), kKelErrTaskId);
    ASSERT_EQ(KEL_TaskAdopt("adopted", &id), 0u);
    EXPECT_EQ(KEL_TaskAdopt("other", &again), 0u);
    EXPECT_EQ(again, id);
    EXPECT_EQ(NameOf(id), "adopted");
  }).join();
  EXPECT_EQ(KEL_TaskIsValid(id), 0u) << "the thread ended, its task did not";
}

TEST(KelEvent, BitsStayUntilTheyAreReadAndOnlyTheAskedOnesAreTaken) {
  TestTask task("events", [] {
    uint32_t self = 0, received = 9;
    EXPECT_EQ(KEL_TaskCurrentIdGet(&self), 0u);
    EXPECT_EQ(KEL_EventRead(0xFF, &received, kKelEventAny, 0), kKelErrTimeout);
    EXPECT_EQ(received, 0u);
    for (const uint32_t bits : {0x05u, 0x84u}) EXPECT_EQ(KEL_EventWrite(self, bits), 0u);
    for (const auto& [mask, taken] : {std::pair{0x06u, 0x04u}, {0xFFFFFFFFu, 0x81u}}) {
      EXPECT_EQ(KEL_EventRead(mask, &received, kKelEventAny, KEL_WAIT_FOREVER), 0u);
      EXPECT_EQ(received, taken) << "a bit was given twice, or bits that nobody asked for were lost";
    }
  });
}

// Two tasks hand a turn to and fro: one wake-up that is lost between "no bit" and "asleep" stops both for
// good.
TEST(KelEvent, NoWakeUpIsLostBetweenTwoTasks) {
  constexpr uint32_t kTurns = 20000;
  std::atomic<uint32_t> ids[2] = {0, 0};
  const auto player = [&](uint32_t me) {
    uint32_t received = 0;
    std::mt19937 random(me);
    while (ids[1 - me] == 0) std::this_thread::yield();
    for (uint32_t turn = 0; turn < kTurns; ++turn) {
      if (me == 1 || turn > 0) {
        ASSERT_EQ(KEL_EventRead(3, &received, kKelEventAny, 60'000), 0u) << "turn " << turn << " never came";
      }
      // a delay of up to some microseconds meets the other one at every point of its way to sleep
      for (uint32_t wait = support::Below(random, 3000); wait > 0; --wait) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
      }
      if (me == 0 || turn + 1 < kTurns) {
        ASSERT_EQ(KEL_EventWrite(ids[1 - me], 1 + turn % 2), 0u);
      }
    }
  };
  TestTask first("first", [&] { player(0); });
  TestTask second("second", [&] { player(1); });
  ids[0] = first.id();
  ids[1] = second.id();
}

volatile char* g_faultAt = nullptr;

/// An emulator leaves the fault's address out of the saved registers, but not out of the signal.
TEST(KelSigcap, HandlerIsToldWhereTheFaultWas) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  g_faultAt = static_cast<volatile char*>(page) + 20;
  const auto handler = [](int, siginfo_t* info, void*) -> uint32_t {
    _exit(info->si_addr == g_faultAt ? 0 : 1);
  };
  ASSERT_EQ(KEL_SigcapHandleReg(SIGSEGV, handler), 0u);
  EXPECT_EXIT(
      {
        (void)!KEL_SigcapHandleSwitch(SIGSEGV, 1);
        *g_faultAt = 1;
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
