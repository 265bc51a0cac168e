/// The main control loop. There is one in a process, so the case of its start must come first.
#include "msg/mcl_manager.h"

#include <gmock/gmock.h>

#include <cstring>
#include <vector>

#include "msg/heart_beat_manager.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "support/task_turn.h"
#include "velto/kel_clock.h"
#include "velto/kel_task.h"

namespace {

using support::MsgPtr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint16_t kModules[] = {10, 11, 12};

std::atomic<uint32_t> g_served{0};

uint32_t Serve(uint32_t event, void* argument) {
  if (argument == nullptr) g_served |= event;
  return 0;
}

std::vector<uint32_t> g_overdue;

TEST(MclManagerTest, ItStartsWithTheFirstRegistrationAndServesFromItsInitEnd) {
  if (TOLA_GetMclInitEndFlag() != 0) GTEST_SKIP() << "start-up has ended in an earlier run";
  KEL_ClockModeSet(kKelClockManual);
  support::LogCapture log;
  uint32_t caller = 0;
  ASSERT_EQ(KEL_TaskAdopt("caller", &caller), 0u);
  EXPECT_EQ(MclModuleIsReady(10), 1u) << "there is no manager yet";
  EXPECT_EQ(TOLA_MclTaskInit("1234567890123456789012345678901"), 65535u);
  EXPECT_THAT(log.Lines(), ElementsAre("MCL TASK init err:0xffff"));
  EXPECT_EQ(CMclManager::GetInstance()->MclTaskCreate(nullptr), 65535u);

  uint32_t task = 0;
  ASSERT_EQ(TOLA_RegEventToMcl(0x4, Serve, &task), 0u);
  char name[kKelTaskNameSize] = {};
  EXPECT_EQ(KEL_TaskNameGet(task, name, sizeof(name)), 0u);
  EXPECT_STREQ(name, "MCLTASK");
  EXPECT_EQ(CMclManager::GetInstance()->MainTaskId(), caller);
  EXPECT_EQ(TOLA_MclTaskInit("another"), 0u);
  uint32_t again = 0;
  EXPECT_EQ(TOLA_RegEventToMcl(0x3, Serve, &again), 1u) << "two bits";
  EXPECT_EQ(TOLA_RegEventToMcl(0x4, Serve, &again), 1u) << "bound already";
  EXPECT_EQ(again, task);

  const support::TaskTurns loop(task);
  ASSERT_EQ(TOLA_HeartBeatManagerInit(4), 0u);
  log.Clear();
  loop.Turn([&] { EXPECT_EQ(KEL_EventWrite(task, 0x4), 0u); });
  EXPECT_EQ(g_served.load(), 0u) << "served during start-up";
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("heartbeat:65535,task[")))
      << "the heart-beat manager came up later than the loop";
  TOLA_NotifyMclInitEnd();
  EXPECT_EQ(g_served.load(), 0u);
  loop.Turn([] { KEL_ClockAdvanceMs(100'000); });
  EXPECT_EQ(g_served.load(), 0x4u) << "an event of start-up waited for another one";
}

TEST(MclManagerTest, AnIdleLoopBeatsInTime) {
  KEL_ClockModeSet(kKelClockManual);
  const uint32_t init = TOLA_HeartBeatManagerInit(4);
  ASSERT_TRUE(init == 0 || init == kHeartErrInitAgain);
  uint32_t task = 0;
  (void)TOLA_RegEventToMcl(0x4, Serve, &task);  // refused where an earlier case has bound it
  const support::TaskTurns loop(task);
  RegTaskInfoRecordFunc([](uint32_t taskId) { g_overdue.push_back(taskId); });
  g_overdue.clear();
  loop.Turn([] { KEL_ClockAdvanceMs(100'000); });  // a beat, after whatever seconds an earlier run counted
  for (uint32_t period = 0; period < 13; ++period) {
    for (uint32_t second = 0; second < 100; ++second) ASSERT_EQ(TOLA_HeartBeatProcessSecondEvent(), 0u);
    loop.Turn([] { KEL_ClockAdvanceMs(100'000); });
  }
  EXPECT_THAT(g_overdue, IsEmpty());
  for (uint32_t second = 0; second < 600; ++second) (void)TOLA_HeartBeatProcessSecondEvent();
  EXPECT_THAT(g_overdue, ElementsAre(task)) << "the loop is not supervised, or beats without waking";
  RegTaskInfoRecordFunc(nullptr);
}

/// The ids in the next notification of `moduleId`, its count first.
std::vector<uint16_t> Told(uint16_t moduleId, uint16_t* sequence) {
  tagMsgBuf* msg = nullptr;
  if (TOLA_MsgRecv(moduleId, &msg, 0) != 0) return {};
  const MsgPtr owned(msg);
  EXPECT_EQ(msg->source, 1);
  EXPECT_EQ(msg->type, 14848);
  *sequence = msg->subType;
  std::vector<uint16_t> data(GetTolaMsgLen(msg) / sizeof(uint16_t));
  memcpy(data.data(), TolaMsgData(msg), GetTolaMsgLen(msg));
  return data;
}

TEST(MclManagerTest, EveryModuleIsToldOfAllOthers) {
  if (MclModuleIsReady(10) == 0) GTEST_SKIP() << "the modules of an earlier run are registered";
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  for (const uint16_t id : kModules) {
    ASSERT_EQ(TOLA_MsgModuleRegister(id, kMsgNoTask, 1, id == 11 ? 2 : 8), 0u);
  }
  const uint64_t before = support::Live("msg manager");
  EXPECT_EQ(TOLA_RegModuleIdToMcl(10, 0), 0u);
  for (const uint16_t id : kModules) EXPECT_EQ(TOLA_RegModuleIdToMcl(id, 0), 0u);
  EXPECT_EQ(MclModuleIsReady(11), 0u);
  EXPECT_EQ(MclModuleIsReady(13), 1u);
  EXPECT_EQ(support::Live("msg manager") - before, 2u + 3u)
      << "a list of one was told, or 10 was listed twice";
  EXPECT_EQ(TOLA_RegModuleIdToMcl(13, 0), 0u) << "listed, though 11's full queue takes no more";
  EXPECT_EQ(support::Live("msg manager") - before, 2u + 3u + 1u)
      << "12 was told behind 11, or a message leaked";

  uint16_t numbers[6] = {};
  EXPECT_THAT(Told(10, &numbers[0]), ElementsAre(1, 11));
  EXPECT_THAT(Told(11, &numbers[1]), ElementsAre(1, 10));
  EXPECT_THAT(Told(10, &numbers[2]), ElementsAre(2, 11, 12));
  EXPECT_THAT(Told(11, &numbers[3]), ElementsAre(2, 10, 12));
  EXPECT_THAT(Told(12, &numbers[4]), ElementsAre(2, 10, 11));
  EXPECT_THAT(Told(10, &numbers[5]), ElementsAre(3, 11, 12, 13));
  for (uint16_t i = 0; i < 6; ++i) EXPECT_EQ(numbers[i], i);

  EXPECT_EQ(TOLA_RegModuleIdToMcl(0, 0), 1u) << "0 is the mark of a free slot";
  for (uint16_t id = 100; id < 128; ++id) EXPECT_EQ(TOLA_RegModuleIdToMcl(id, 0), 0u);  // 32 with it
  EXPECT_EQ(TOLA_RegModuleIdToMcl(128, 0), 1u);
  EXPECT_EQ(TOLA_RegModuleIdToMcl(127, 0), 0u);
  for (const uint16_t id : kModules) {
    for (tagMsgBuf* msg = nullptr; TOLA_MsgRecv(id, &msg, 0) == 0;) TOLA_MsgFree(msg);
  }
  EXPECT_EQ(support::Live("msg manager"), before);
}

TEST(MclManagerTest, ANotificationIsReadWithinItsLength) {
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  struct Case {
    uint16_t type;
    std::vector<uint16_t> data;
    uint32_t cut;  ///< bytes taken from the length
    uint32_t result;
  };
  const Case cases[] = {
      {kMclNotifyType, {2, 10, 12}, 0, 0},  {kMclNotifyType, {1, 10, 12}, 0, 1},
      {kMclNotifyType, {2, 10, 12}, 2, 1},  {kMclNotifyType, {2, 10, 12}, 1, 1},
      {kMclNotifyType, {0xFFFF, 12}, 0, 0}, {kMclNotifyType, {12, 12}, 3, 1},
      {kMclNotifyType, {12}, 0, 1},         {kMclNotifyType + 1, {2, 10, 12}, 0, 1},
  };
  for (const Case& c : cases) {
    const auto length = static_cast<uint32_t>(c.data.size() * sizeof(uint16_t)) - c.cut;
    const MsgPtr msg(TOLA_MsgAlloc(1, c.type, 0, length));
    memcpy(TolaMsgData(msg.get()), c.data.data(), length);
    EXPECT_EQ(MclModuleIdNotify(msg.get(), 12), c.result) << "case " << &c - cases;
  }
  EXPECT_EQ(MclModuleIdNotify(nullptr, 12), 1u);
}

}  // namespace
