#include "velto/kel_task.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "velto/kel_support.h"

namespace {

std::string NameOf(uint32_t taskId) {
  char name[kKelTaskNameSize] = "?";
  (void)KEL_TaskNameGet(taskId, name, sizeof(name));  // stays "?" on failure
  return name;
}

TEST(KelTask, ATaskIsFoundByItsIdFromCreationToItsEndAndNotAfterwards) {
  std::atomic<int32_t> threadId{0};
  std::atomic<uint32_t> ownId{0};
  const std::string longest(kKelTaskNameSize - 1, 'n');
  TestTask task(longest.c_str(), [&] {
    uint32_t id = 0;
    EXPECT_EQ(KEL_TaskCurrentIdGet(&id), 0u);
    ownId = id;
    threadId = static_cast<int32_t>(gettid());
    EXPECT_EQ(KEL_EventRead(1, &id, kKelEventAny, KEL_WAIT_FOREVER), 0u);
  });
  ASSERT_EQ(task.created(), 0u);
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
  EXPECT_EQ(ownId, id);
  EXPECT_EQ(KEL_TaskIsValid(id), 0u);
  EXPECT_EQ(KEL_TaskThreadIdGet(id, &found), kKelErrTaskId);
  EXPECT_EQ(KEL_EventWrite(id, 1), kKelErrTaskId) << "an event for an ended task was taken";
  EXPECT_EQ(KEL_TaskWait(id, 0), kKelErrTaskId);
}

TEST(KelTask, TheTableFillsAndEmptiesAgain) {
  const auto entry = [](uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    uint32_t received = 0;
    EXPECT_EQ(KEL_EventRead(1, &received, kKelEventAny, KEL_WAIT_FOREVER), 0u);
  };
  for (int round = 0; round < 2; ++round) {
    std::vector<uint32_t> ids;
    uint32_t id = 0;
    uint32_t result = 0;
    while ((result = KEL_TaskCreate("crowd", &id, entry, 1, 65536, 0, nullptr)) == 0) ids.push_back(id);
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
    uint32_t none = 5;
    EXPECT_EQ(KEL_TaskCurrentIdGet(&none), kKelErrTaskId);
    EXPECT_EQ(none, 0u);
    uint32_t received = 0;
    EXPECT_EQ(KEL_EventRead(1, &received, kKelEventAny, 0), kKelErrTaskId);
    ASSERT_EQ(KEL_TaskAdopt("adopted", &id), 0u);
    uint32_t again = 0;
    EXPECT_EQ(KEL_TaskAdopt("other", &again), 0u);
    EXPECT_EQ(again, id);
    EXPECT_EQ(NameOf(id), "adopted");
  }).join();
  EXPECT_EQ(KEL_TaskIsValid(id), 0u) << "the thread ended, its task did not";
}

struct Overflow {
  static inline std::atomic<uint32_t> seenInHandler{0};
  static void Handler(int) {
    char name[kKelTaskNameSize];
    uint32_t id = 0;
    if (KEL_TaskCurrentIdGet(&id) == 0 && KEL_TaskNameGet(id, name, sizeof(name)) == 0 && name[0] == 'o') {
      seenInHandler = id;
    }
    (void)KEL_EventWrite(id, 4);
  }
};

TEST(KelTask, ASignalHandlerRunsOnTheTasksOwnStackAndMayLookUpAndWriteEvents) {
  struct sigaction action {};
  action.sa_handler = Overflow::Handler;
  action.sa_flags = SA_ONSTACK;
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGUSR2, &action, &before), 0);
  std::atomic<bool> onAlternate{false};
  TestTask task("on stack", [&] {
    stack_t stack{};
    EXPECT_EQ(sigaltstack(nullptr, &stack), 0);
    onAlternate = (stack.ss_flags & SS_DISABLE) == 0 && stack.ss_size >= 65536;
    uint32_t received = 0;
    EXPECT_EQ(KEL_EventRead(4, &received, kKelEventAny, KEL_WAIT_FOREVER), 0u);
  });
  pthread_t thread{};
  ASSERT_EQ(KEL_TaskPthreadGet(task.id(), &thread), 0u);
  const uint32_t id = task.id();
  ASSERT_EQ(pthread_kill(thread, SIGUSR2), 0);
  task.Join();
  EXPECT_TRUE(onAlternate) << "a task without a signal stack dies silently when its stack is used up";
  EXPECT_EQ(Overflow::seenInHandler, id);
  EXPECT_EQ(sigaction(SIGUSR2, &before, nullptr), 0);
}

TEST(KelEvent, BitsStayUntilTheyAreReadAndOnlyTheAskedOnesAreTaken) {
  TestTask task("events", [] {
    uint32_t self = 0;
    uint32_t received = 9;
    ASSERT_EQ(KEL_TaskCurrentIdGet(&self), 0u);
    EXPECT_EQ(KEL_EventRead(0xFF, &received, kKelEventAny, 0), kKelErrTimeout);
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(KEL_EventWrite(self, 0x05), 0u);
    EXPECT_EQ(KEL_EventWrite(self, 0x84), 0u);
    EXPECT_EQ(KEL_EventRead(0x06, &received, kKelEventAny, KEL_WAIT_FOREVER), 0u);
    EXPECT_EQ(received, 0x04u);
    EXPECT_EQ(KEL_EventRead(0x04, &received, kKelEventAny, 0), kKelErrTimeout) << "a bit was given twice";
    EXPECT_EQ(KEL_EventRead(0xFFFFFFFF, &received, kKelEventAny, 0), 0u);
    EXPECT_EQ(received, 0x81u) << "bits that nobody asked for were lost";
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
    if (me == 0) {
      EXPECT_EQ(KEL_EventWrite(ids[1], 1), 0u);
    }
    for (uint32_t turn = 0; turn < kTurns; ++turn) {
      ASSERT_EQ(KEL_EventRead(3, &received, kKelEventAny, 60'000), 0u) << "turn " << turn << " never came";
      if (me == 0 && turn + 1 == kTurns) return;
      // a delay of up to some microseconds meets the other one at every point of its way to sleep
      for (uint32_t wait = Below(random, 3000); wait > 0; --wait) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
      }
      ASSERT_EQ(KEL_EventWrite(ids[1 - me], 1 + turn % 2), 0u);
    }
  };
  TestTask first("first", [&] { player(0); });
  TestTask second("second", [&] { player(1); });
  ids[0] = first.id();
  ids[1] = second.id();
}

}  // namespace
