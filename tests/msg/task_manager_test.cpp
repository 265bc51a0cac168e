/// Tasks driven by event bits. Their loops never end, so each manager lives as long as the program.
#include "msg/task_manager.h"

#include <gmock/gmock.h>

#include <thread>

#include "support/inbox.h"
#include "support/log_capture.h"
#include "support/task_turn.h"
#include "velto/kel_clock.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A manager with its task.
struct Loop {
  static Loop& New(const char* name, uint32_t ready = 1) {
    auto& loop = *new Loop;
    loop.ready = ready;
    RegToTaskManagerModuleInfo info{};
    info.name = name;
    info.ready = &loop.ready;
    EXPECT_EQ(loop.manager.Init(&info), 0u);
    return loop;
  }
  void Bind(uint32_t event) { EXPECT_EQ(manager.RegEventFuncToTask(event, Note, this), 0u); }
  /// Raises `event` and waits for the loop to have dealt with it; the events that it was called with.
  std::vector<uint32_t> Raise(uint32_t event) {
    const auto raise = [&] { EXPECT_EQ(KEL_EventWrite(manager.TaskId(), event), 0u); };
    support::TaskTurns(manager.TaskId()).Turn(raise);
    return calls.TakeAll();
  }
  static uint32_t Note(uint32_t event, void* argument) {
    auto& loop = *static_cast<Loop*>(argument);
    KEL_ClockAdvanceMs(loop.tookMs);
    loop.calls.Put(event);
    return 1;  // no result of a callback matters
  }

  CTaskManager manager;
  std::atomic<uint32_t> ready{0}, tookMs{0};
  support::Inbox<uint32_t> calls;
};

TEST(TaskManagerTest, EventsAreHeldUntilReadyThenServedInBitOrder) {
  Loop& loop = Loop::New("held", 0);
  for (const uint32_t event : {0x80000000u, 0x1u, 0x10u}) loop.Bind(event);
  EXPECT_THAT(loop.Raise(0x80000000), IsEmpty()) << "served during start-up";
  EXPECT_THAT(loop.Raise(0x10 | 0x40), IsEmpty());  // nobody has bound the latter
  loop.ready.store(1);
  EXPECT_THAT(loop.Raise(0x1), ElementsAre(0x1u, 0x10u, 0x80000000u));
  EXPECT_EQ(loop.manager.UnregEventFuncToTask(0x10), 0u);
  EXPECT_THAT(loop.Raise(0x11), ElementsAre(0x1u))
      << "a served event came back, or an unbound one was called";
  CTaskManager* found = nullptr;
  EXPECT_EQ(CTaskManager::GetTaskManagerInstanceById(loop.manager.TaskId(), &found), 0u);
  EXPECT_EQ(found, &loop.manager);
}

TEST(TaskManagerTest, ACallbackOfFiveSecondsIsLoggedOnce) {
  KEL_ClockModeSet(kKelClockManual);
  support::LogCapture log(kLogErr);
  Loop& loop = Loop::New("slow");
  loop.Bind(0x8);
  for (const uint32_t ms : {4999u, 6000u, 5000u}) {
    loop.tookMs.store(ms);
    loop.Raise(0x8);
  }
  EXPECT_THAT(log.Lines(), ElementsAre("mcl task time out event = 0x8, difftime = 0x1770",
                                       "mcl task time out event = 0x8, difftime = 0x1388"));
  KEL_ClockModeSet(kKelClockReal);
}

TEST(TaskManagerTest, BitsAreGivenOutLowestFirstAndTakenBack) {
  support::LogCapture log(kLogErr);
  CTaskManager manager;  // without a task: what is looked at is the bits alone
  uint32_t given = 0, all = 0;
  EXPECT_EQ(manager.RegEventFuncToTask(0x4, Loop::Note, nullptr), 0u);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(manager.ApplyTaskEvent(given), 0u);
  EXPECT_EQ(manager.ReleaseTaskEvent(0x2), 0u);
  EXPECT_EQ(manager.RegEventFuncToTask(0x4, Loop::Note, nullptr), 1u);
  EXPECT_EQ(manager.UnregEventFuncToTask(0x4), 0u);
  EXPECT_THAT(log.Lines(), ElementsAre("apply event 0x2 used 0x6", "apply event 0x8 used 0xe",
                                       "release event 0x2 used 0xc", "repeat registration 0x4 used 0xc",
                                       "release event 0x4 used 0x8"));
  while (manager.ApplyTaskEvent(given) == 0) all |= given;
  EXPECT_EQ(all, 0xFFFFFFF6u) << "0x1 is never handed out";
  EXPECT_EQ(manager.RegEventFuncToTask(0x3, Loop::Note, nullptr), 1u) << "two bits";
}

TEST(TaskManagerTest, NoRaisedEventIsLostWhileCallbacksComeAndGo) {
  Loop& loop = Loop::New("busy");
  static std::atomic<uint32_t> count;
  const auto callback = [](uint32_t event, void*) { return event == 0x2 ? ++count : 0; };
  ASSERT_EQ(loop.manager.RegEventFuncToTask(0x2, callback, nullptr), 0u);
  std::thread raiser([&loop] {
    for (uint32_t round = 0; round < 500; ++round) {
      const uint32_t before = count.load();
      EXPECT_EQ(KEL_EventWrite(loop.manager.TaskId(), 0x2), 0u);
      while (count.load() == before) std::this_thread::yield();  // for ever if it were lost
    }
  });
  for (uint32_t round = 0; round < 500; ++round) {
    EXPECT_EQ(loop.manager.RegEventFuncToTask(0x40, callback, nullptr), 0u);
    EXPECT_EQ(KEL_EventWrite(loop.manager.TaskId(), 0x40), 0u);
    EXPECT_EQ(loop.manager.UnregEventFuncToTask(0x40), 0u);
  }
  raiser.join();
}

}  // namespace
