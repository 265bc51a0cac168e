/// Tasks driven by event bits. Their loops never end, so each manager lives as long as the program.
#include "msg/task_manager.h"

#include <gmock/gmock.h>

#include <random>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/task_turn.h"
#include "velto/kel_clock.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A manager with its task; what its callbacks did is only looked at between turns of the loop.
struct Loop {
  static Loop& New(const char* name, uint32_t ready = 1) {
    auto& loop = *new Loop;
    loop.ready = ready;
    RegToTaskManagerModuleInfo info{};
    info.name = name;
    info.owner = &loop.manager;
    info.ready = &loop.ready;
    EXPECT_EQ(loop.manager.Init(&info), 0u);
    return loop;
  }
  void Bind(uint32_t event) { ASSERT_EQ(manager.RegEventFuncToTask(event, Note, this), 0u); }
  /// Raises `event` and waits for the loop to have dealt with it.
  void Raise(uint32_t event) {
    support::TaskTurns(manager.TaskId()).Turn([&] {
      ASSERT_EQ(KEL_EventWrite(manager.TaskId(), event), 0u);
    });
  }
  static uint32_t Note(uint32_t event, void* argument) {
    auto& loop = *static_cast<Loop*>(argument);
    const std::lock_guard lock(loop.mutex);
    loop.calls.push_back(event);
    return 1;  // no result of a callback matters
  }
  std::vector<uint32_t> Take() {
    const std::lock_guard lock(mutex);
    return std::exchange(calls, {});
  }

  CTaskManager manager;
  std::atomic<uint32_t> ready{0};
  std::mutex mutex;
  std::vector<uint32_t> calls;
};

TEST(TaskManagerTest, EventsAreHeldUntilReadyThenServedInBitOrder) {
  Loop& loop = Loop::New("held", 0);
  for (const uint32_t event : {0x80000000u, 0x1u, 0x10u}) loop.Bind(event);
  loop.Raise(0x80000000);
  loop.Raise(0x10 | 0x40);  // nobody has bound the latter
  EXPECT_THAT(loop.Take(), IsEmpty()) << "served during start-up";
  loop.ready.store(1);
  loop.Raise(0x1);
  EXPECT_THAT(loop.Take(), ElementsAre(0x1u, 0x10u, 0x80000000u));
  loop.Raise(0x10);
  EXPECT_THAT(loop.Take(), ElementsAre(0x10u)) << "a served event came back";
  EXPECT_EQ(loop.manager.UnregEventFuncToTask(0x10), 0u);
  loop.Raise(0x11);
  EXPECT_THAT(loop.Take(), ElementsAre(0x1u));
}

TEST(TaskManagerTest, ACallbackOfFiveSecondsIsLoggedOnce) {
  KEL_ClockModeSet(kKelClockManual);
  support::LogCapture log(kLogErr);
  Loop& loop = Loop::New("slow");
  static std::atomic<uint32_t> tookMs{0};
  ASSERT_EQ(
      loop.manager.RegEventFuncToTask(
          0x8, [](uint32_t, void*) -> uint32_t { return KEL_ClockAdvanceMs(tookMs.load()), 0; }, nullptr),
      0u);
  for (const uint32_t ms : {4999u, 6000u, 5000u}) {
    tookMs.store(ms);
    loop.Raise(0x8);
  }
  EXPECT_THAT(log.Lines(), ElementsAre("mcl task time out event = 0x8, difftime = 0x1770",
                                       "mcl task time out event = 0x8, difftime = 0x1388"));
  EXPECT_EQ(log.Records()[0].level, "EVT");
  KEL_ClockModeSet(kKelClockReal);
}

TEST(TaskManagerTest, ATaskIsMadeOnceFromAGoodNameAndIsFoundByItsId) {
  support::LogCapture log;
  CTaskManager refused;
  Loop& loop = Loop::New("123456789012345678901234567890");
  CTaskManager* found = &refused;
  RegToTaskManagerModuleInfo info{};
  info.name = "again";
  EXPECT_EQ(loop.manager.Init(&info), 1u);
  for (const char* name : {"", "1234567890123456789012345678901", static_cast<const char*>(nullptr)}) {
    info.name = name;
    EXPECT_EQ(refused.Init(&info), 1u);
  }
  info.name = "other";
  info.owner = &loop.manager;
  EXPECT_EQ(refused.Init(&info), 1u) << "made with another manager's information";
  EXPECT_EQ(refused.TaskId(), kTaskManagerNoTask);
  EXPECT_EQ(CTaskManager::GetTaskManagerInstanceById(kTaskManagerNoTask, &found), 1u);
  EXPECT_EQ(found, nullptr);
  Loop& second = Loop::New("second");
  for (Loop* each : {&loop, &second}) {
    EXPECT_EQ(CTaskManager::GetTaskManagerInstanceById(each->manager.TaskId(), &found), 0u);
    EXPECT_EQ(found, &each->manager);
  }
}

TEST(TaskManagerTest, ATaskThatTheRuntimeRefusesCanBeTriedAgain) {
  uint32_t gate = 0;
  ASSERT_EQ(KEL_SemaCreate("gate", 0, 0, &gate), 0u);
  std::vector<uint32_t> fillers;
  const uintptr_t args[4] = {gate, 0, 0, 0};
  const auto wait = [](uintptr_t sema, uintptr_t, uintptr_t, uintptr_t) {
    (void)KEL_SemaP(static_cast<uint32_t>(sema), KEL_WAIT_FOREVER);
  };
  for (uint32_t id = 0; KEL_TaskCreate("filler", &id, wait, 1, 65536, 0, args) == 0;) fillers.push_back(id);

  support::LogCapture log;
  auto& manager = *new CTaskManager;
  RegToTaskManagerModuleInfo info{};
  info.name = "refused";
  EXPECT_EQ(manager.Init(&info), kTaskManagerErrCreate);
  EXPECT_THAT(log.Lines(), ElementsAre("refused task create err 0x202"));
  EXPECT_EQ(manager.TaskId(), kTaskManagerNoTask);
  for (size_t i = 0; i < fillers.size(); ++i) EXPECT_EQ(KEL_SemaV(gate), 0u);
  for (const uint32_t id : fillers) EXPECT_EQ(KEL_TaskWait(id, KEL_WAIT_FOREVER), 0u);
  EXPECT_EQ(manager.Init(&info), 0u);
}

TEST(TaskManagerTest, BitsAreGivenOutAsAModelSays) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  support::LogCapture log(kLogErr);
  log.Clear();
  CTaskManager manager;  // without a task: what is looked at is the bits alone
  uint32_t used = 0;
  uint32_t bound = 0;
  uint32_t repeats = 0;
  for (uint32_t step = 0; step < 20000; ++step) {
    uint32_t event = 1u << random() % 32;
    if (random() % 16 == 0) event |= 1u << random() % 32;
    if (random() % 32 == 0) event = 0;
    const bool single = event != 0 && (event & (event - 1)) == 0;
    switch (random() % 5) {
      case 0:
      case 1: {
        const uint32_t free = ~used & 0xFFFFFFFE;
        const uint32_t lowest = free & (~free + 1);
        uint32_t given = 0;
        ASSERT_EQ(manager.ApplyTaskEvent(given), lowest != 0 ? 0u : 1u);
        ASSERT_EQ(given, lowest);
        used |= lowest;
        break;
      }
      case 2: {
        const bool fits = single && (bound & event) == 0;
        ASSERT_EQ(manager.RegEventFuncToTask(event, Loop::Note, nullptr), fits ? 0u : 1u);
        if (single && !fits) ++repeats;
        if (fits) bound |= event, used |= event;
        break;
      }
      case 3:
        ASSERT_EQ(manager.ReleaseTaskEvent(event), single ? 0u : 1u);
        if (single) used &= ~event;
        break;
      default:
        ASSERT_EQ(manager.UnregEventFuncToTask(event), single ? 0u : 1u);
        if (single) used &= ~event, bound &= ~event;
    }
  }
  EXPECT_EQ(manager.RegEventFuncToTask(0x2, nullptr, nullptr), 1u);
  EXPECT_GT(repeats, 0u);
}

TEST(TaskManagerTest, NoRaisedEventIsLostWhileCallbacksComeAndGo) {
  Loop& loop = Loop::New("busy");
  static std::atomic<uint32_t> counts[4];
  const auto count = [](uint32_t, void* at) -> uint32_t {
    return ++*static_cast<std::atomic<uint32_t>*>(at), 0;
  };
  for (uint32_t i = 0; i < 3; ++i) {
    ASSERT_EQ(loop.manager.RegEventFuncToTask(2u << i, count, &counts[i]), 0u);
  }
  std::vector<std::thread> raisers;
  for (uint32_t i = 0; i < 3; ++i) {
    raisers.emplace_back([&loop, i] {
      for (uint32_t round = 0; round < 500; ++round) {
        const uint32_t before = counts[i].load();
        EXPECT_EQ(KEL_EventWrite(loop.manager.TaskId(), 2u << i), 0u);
        while (counts[i].load() == before) std::this_thread::yield();  // for ever if it were lost
      }
    });
  }
  for (uint32_t round = 0; round < 500; ++round) {
    EXPECT_EQ(loop.manager.RegEventFuncToTask(0x40, count, &counts[3]), 0u);
    EXPECT_EQ(KEL_EventWrite(loop.manager.TaskId(), 0x40), 0u);
    EXPECT_EQ(loop.manager.UnregEventFuncToTask(0x40), 0u);
  }
  for (std::thread& raiser : raisers) raiser.join();
}

}  // namespace
