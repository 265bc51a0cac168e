/// The main control loop. There is one in a process, so the case of its start must come first.
#include "msg/mcl_manager.h"

#include <gmock/gmock.h>

#include <cstring>

#include "msg/heart_beat_manager.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "support/task_turn.h"
#include "velto/kel_clock.h"

namespace {

using support::MsgPtr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::atomic<uint32_t> g_served{0};
std::vector<uint32_t> g_overdue;

uint32_t Serve(uint32_t event, void* argument) {
  return argument == nullptr ? g_served |= event : 0;
}

/// Lets the loop wake from its longest wait, and wait again.
void Idle(const support::TaskTurns& loop) {
  loop.Turn([] { KEL_ClockAdvanceMs(100'000); });
}

TEST(MclManagerTest, ItStartsWithTheFirstRegistrationAndServesAndBeatsInTime) {
  if (TOLA_GetMclInitEndFlag() != 0) GTEST_SKIP() << "start-up has ended in an earlier run";
  KEL_ClockModeSet(kKelClockManual);
  support::LogCapture log;
  EXPECT_EQ(MclModuleIsReady(10), 1u) << "there is no manager yet";
  EXPECT_EQ(TOLA_MclTaskInit("1234567890123456789012345678901"), 65535u);
  EXPECT_THAT(log.Lines(), ElementsAre("MCL TASK init err:0xffff"));
  uint32_t task = 0, again = 0;
  ASSERT_EQ(TOLA_RegEventToMcl(0x4, Serve, &task), 0u);
  char name[kKelTaskNameSize] = {};
  EXPECT_EQ(KEL_TaskNameGet(task, name, sizeof(name)), 0u);
  EXPECT_STREQ(name, "MCLTASK");
  EXPECT_EQ(TOLA_MclTaskInit("another"), 0u);
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
  Idle(loop);
  EXPECT_EQ(g_served.load(), 0x4u) << "an event of start-up waited for another one";

  RegTaskInfoRecordFunc([](uint32_t taskId) { g_overdue.push_back(taskId); });
  for (uint32_t second = 1; second < 1900; ++second) {
    EXPECT_EQ(TOLA_HeartBeatProcessSecondEvent(), 0u);
    if (second % 100 == 0 && second <= 1300) Idle(loop);
  }
  EXPECT_THAT(g_overdue, IsEmpty());
  EXPECT_EQ(TOLA_HeartBeatProcessSecondEvent(), 0u);
  EXPECT_THAT(g_overdue, ElementsAre(task)) << "the loop is not supervised, or beats without waking";
}

/// The next notification of `moduleId`: its number, its count, its ids.
std::vector<uint16_t> Told(uint16_t moduleId) {
  tagMsgBuf* msg = nullptr;
  if (TOLA_MsgRecv(moduleId, &msg, 0) != 0) return {};
  const MsgPtr owned(msg);
  EXPECT_EQ(msg->source, 1);
  EXPECT_EQ(msg->type, 14848);
  std::vector<uint16_t> data(1 + GetTolaMsgLen(msg) / sizeof(uint16_t), msg->subType);
  memcpy(&data[1], TolaMsgData(msg), GetTolaMsgLen(msg));
  return data;
}

TEST(MclManagerTest, EveryModuleIsToldOfAllOthers) {
  if (MclModuleIsReady(10) == 0) GTEST_SKIP() << "the modules of an earlier run are registered";
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  for (uint16_t id = 10; id <= 12; ++id) {
    ASSERT_EQ(TOLA_MsgModuleRegister(id, kMsgNoTask, 1, id == 11 ? 2 : 8), 0u);
  }
  const uint64_t before = support::Live("msg manager");
  EXPECT_EQ(TOLA_RegModuleIdToMcl(10, 0), 0u);
  for (uint16_t id = 10; id <= 13; ++id) EXPECT_EQ(TOLA_RegModuleIdToMcl(id, 0), 0u);
  EXPECT_EQ(MclModuleIsReady(13), 0u) << "listed, though 11's full queue takes no more";
  EXPECT_EQ(support::Live("msg manager") - before, 6u) << "12 was told behind 11, or a message leaked";
  EXPECT_THAT(Told(10), ElementsAre(0, 1, 11));
  EXPECT_THAT(Told(11), ElementsAre(1, 1, 10));
  EXPECT_THAT(Told(10), ElementsAre(2, 2, 11, 12));
  EXPECT_THAT(Told(11), ElementsAre(3, 2, 10, 12));
  EXPECT_THAT(Told(12), ElementsAre(4, 2, 10, 11));
  EXPECT_THAT(Told(10), ElementsAre(5, 3, 11, 12, 13));
  EXPECT_EQ(TOLA_RegModuleIdToMcl(0, 0), 1u) << "0 is the mark of a free slot";
  for (uint16_t id = 100; id < 128; ++id) EXPECT_EQ(TOLA_RegModuleIdToMcl(id, 0), 0u);  // 32 with it
  EXPECT_EQ(TOLA_RegModuleIdToMcl(128, 0), 1u);
  for (uint16_t id = 10; id <= 12; ++id) {
    while (!Told(id).empty()) continue;
  }
  EXPECT_EQ(support::Live("msg manager"), before);
}

TEST(MclManagerTest, ANotificationIsReadWithinItsLength) {
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  const auto names12 = [](uint16_t type, const std::vector<uint16_t>& data, uint32_t length) {
    const MsgPtr msg(TOLA_MsgAlloc(1, type, 0, length));
    memcpy(TolaMsgData(msg.get()), data.data(), length);
    return MclModuleIdNotify(msg.get(), 12) == 0;
  };
  EXPECT_TRUE(names12(kMclNotifyType, {2, 10, 12}, 6));
  EXPECT_TRUE(names12(kMclNotifyType, {0xFFFF, 12}, 4));
  EXPECT_FALSE(names12(kMclNotifyType, {1, 10, 12}, 6));
  EXPECT_FALSE(names12(kMclNotifyType, {2, 10, 12}, 5));
  EXPECT_FALSE(names12(kMclNotifyType, {12, 12}, 1));
  EXPECT_FALSE(names12(kMclNotifyType + 1, {2, 10, 12}, 6));
}

}  // namespace
