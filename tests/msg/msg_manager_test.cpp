/// The message manager with the real runtime: queues, task events, memory counted by its handle.
#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/result_codes.h"
#include "msg/msg_interface_public.h"
#include "msg/process_msg_manager.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

using support::HighPri;
using support::MsgPtr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr uint16_t kFrom = 7;
constexpr uint16_t kTo = 42;
constexpr uint16_t kOther = 43;
constexpr uint16_t kComp = 1500;  // what the component hook of a test accepts
constexpr uint16_t kAppComp = 4181;
constexpr uint32_t kWake = 0x4000;

MsgPtr NewMsg(uint16_t type, uint32_t length = 4) {
  return MsgPtr(TOLA_MsgAlloc(kFrom, type, 9, length));
}

/// The hooks, and what they were given; each answers `result`.
struct Road {
  static bool IsComp(uint16_t id) { return id == kComp; }
  static uint32_t ToComp(uint16_t, tagMsgBuf* msg, bool urgent) {
    return s_now->Take(urgent ? "comp!" : "comp", msg);
  }
  static uint32_t Channel() { return 0x10005; }
  static uint32_t ToApp(tagMsgBuf* msg, uint32_t channel, bool urgent) {
    return s_now->Take("ipc" + std::to_string(channel) + (urgent ? "!" : ""), msg);
  }
  static uint32_t Notify(uint32_t operation, uint32_t count, const uint16_t* ids) {
    s_now->calls.push_back((operation == 0 ? "added " : "removed ") + std::to_string(ids[count - 1]));
    return 0;
  }
  uint32_t Take(const std::string& call, tagMsgBuf* msg) {
    calls.push_back(call + " " + std::to_string(msg->destination));
    if (result == 0) TOLA_MsgFree(msg);
    return result;
  }
  void UseIpc(bool on) { MsgMgrRegAppIpcMsgFun(on ? Channel : nullptr, on ? ToApp : nullptr, Notify); }

  static inline Road* s_now = nullptr;
  uint32_t result = 0;
  std::vector<std::string> calls;
};

class Statistic final : public MsgQueueStatistic, public MsgMemStatisticBase {
 public:
  void OnRegister(uint16_t id, uint32_t, uint32_t length) override { seen.emplace_back(id, length); }
  void OnFill(uint16_t id, uint32_t, uint32_t messages) override { seen.emplace_back(id, messages); }
  void OnAlloc(uint32_t source, uint32_t length) override { live += (uint64_t{source} << 32) + length; }
  void OnFree(uint32_t source, uint32_t length) override { live -= (uint64_t{source} << 32) + length; }
  std::vector<std::pair<uint16_t, uint32_t>> seen;
  std::atomic<uint64_t> live = 0;
};

/// The manager is up, the test's thread is the task that is woken, and no hook is registered.
class MsgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
    ASSERT_EQ(KEL_TaskAdopt("msg_test", &task), 0u);
    Road::s_now = &road;
    SetMsgQueueStatisticInstance(&statistic);
    SetMsgMemStatisticInstance(&statistic);
    (void)TakeEvents();
    log.Clear();
  }
  void TearDown() override {
    TolaMsgSendToCompRegFun(nullptr, nullptr);
    MsgMgrRegAppIpcMsgFun(nullptr, nullptr, nullptr);
    RegHighPriQueueProcObj(nullptr);
    for (const uint16_t id : {kTo, kOther}) {
      for (tagMsgBuf* msg = nullptr; TOLA_MsgRecv(id, &msg, 0) == 0;) TOLA_MsgFree(msg);
      EXPECT_EQ(TOLA_MsgModuleUnregister(id), 0u);
    }
    EXPECT_EQ(statistic.live, 0u) << "a message was lost";
    SetMsgQueueStatisticInstance(nullptr);
    SetMsgMemStatisticInstance(nullptr);
  }

  void Register(uint16_t id, uint32_t length = 8) {
    ASSERT_EQ(TOLA_MsgModuleRegister(id, task, kWake, length), 0u);
  }
  uint32_t TakeEvents() {
    uint32_t received = 0;
    return KEL_EventRead(0xFFFFFFFF, &received, kKelEventAny, 0) == 0 ? received : 0;
  }
  MsgPtr Receive(uint16_t id) {
    tagMsgBuf* msg = nullptr;
    EXPECT_EQ(TOLA_MsgRecv(id, &msg, 0), 0u);
    return MsgPtr(msg);
  }
  /// Posts; a message that was taken is no longer `msg`'s.
  static uint32_t Post(uint16_t to, MsgPtr& msg, bool urgent = false) {
    bool taken = false;
    const uint32_t ret = MsgPost(to, msg.get(), urgent, &taken);
    if (taken) (void)msg.release();
    return ret;
  }

  support::LogCapture log{kLogErr};
  uint32_t task = 0;
  Road road;
  Statistic statistic;
};

TEST(MsgManagerInitTest, BeforeItNothingCanBeDoneAndAfterItTheMaximumStands) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own, where no other case came before
  const auto run = [] {
    tagMsgBuf msg{};
    tagMsgBuf* received = nullptr;
    const uint16_t maximum = 1900, late = 5000;
    bool ok = TOLA_MsgPost(kTo, &msg, 1) == kMsgErrNotInit && TOLA_MsgAlloc(1, 1, 1, 4) == nullptr;
    ok = ok && TOLA_MsgRecv(kTo, &received, 0) == kMsgErrNotInit;
    ok = ok && TOLA_MsgModuleRegister(kTo, 1, 1, 8) == kMsgErrNotInit;
    ok = ok && TOLA_RegisterMsgManagerParameter(&maximum) == 0;
    ok = ok && TOLA_MsgManagerInit() == 0 && TOLA_MsgModuleRegister(1899, 1, 1, 8) == 0;
    ok = ok && TOLA_MsgModuleRegister(1900, 1, 1, 8) == kMsgErrModuleId;
    ok = ok && TOLA_GetPortMsgNum(1899) == -1;  // kept: whatever the maximum is
    return ok && TOLA_RegisterMsgManagerParameter(&late) == 1;
  };
  EXPECT_EXIT(exit(run() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(MsgTest, TheHeaderHoldsLengthsOf24Bits) {
  tagMsgBuf head{};
  head.lengthHigh = 0xAB02;
  SetTolaMsgLen(&head, 5);
  EXPECT_EQ(GetTolaMsgLen(&head), 0x20005u) << "kept: a short length leaves the high bits, 24 bits count";
  const MsgPtr longest = NewMsg(1, 0xFFFFFF);
  ASSERT_NE(longest, nullptr);
  EXPECT_EQ(GetTolaMsgLen(longest.get()), 0xFFFFFFu);
  EXPECT_EQ(TolaMsgData(longest.get())[0xFFFFFE], 0) << "data is not zeroed to its end";
  for (const uint32_t tooLong : {0x1000000u, 0xFFFFFFF4u}) EXPECT_EQ(NewMsg(1, tooLong), nullptr) << tooLong;
}

TEST_F(MsgTest, RegistrationIsCheckedAndCanBeTakenBack) {
  road.UseIpc(true);
  EXPECT_EQ(TOLA_MsgModuleRegister(1857, task, 1, 8), kMsgErrModuleId) << "the maximum itself is no module";
  EXPECT_EQ(TOLA_MsgModuleRegister(kTo, task, 1, 0), kMsgErrQueueLength);
  EXPECT_THAT(road.calls, IsEmpty()) << "a refused registration was announced";
  Register(kTo);
  EXPECT_EQ(TOLA_MsgModuleRegister(kTo, task, 1, 8), kMsgErrRegistered);
  EXPECT_EQ(TOLA_MsgModuleUnregister(kTo), 0u);
  EXPECT_EQ(TOLA_MsgModuleUnregister(1857), kMsgErrModuleId);
  EXPECT_THAT(road.calls, ElementsAre("added 42", "removed 42"));
  tagMsgBuf* msg = nullptr;
  EXPECT_EQ(TOLA_MsgRecv(kTo, &msg, 0), kMsgErrNotRegistered);
  Register(kTo);
}

TEST_F(MsgTest, AReceiverThatCannotBeWokenStillHasItsMessage) {
  ASSERT_EQ(TOLA_MsgModuleRegister(kTo, 250, 1, 8), 0u);
  ASSERT_EQ(TOLA_MsgModuleRegister(kOther, kMsgNoTask, 1, 8), 0u);
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kOther, 5, 0, 0, nullptr), 0u);
  EXPECT_THAT(log.Lines(), IsEmpty()) << "a module without a task is no error";
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kTo, 5, 6, 3, "abc"), 0u);
  EXPECT_THAT(log.Lines(), ElementsAre("Eer7>42(250):0x5=0x204"));
  const MsgPtr msg = Receive(kTo);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(TolaMsgData(msg.get())), GetTolaMsgLen(msg.get())), "abc");
  EXPECT_EQ(msg->subType, 6);
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kTo, 5, 6, 3, nullptr), kErrCopy);
  EXPECT_THAT(statistic.seen, ElementsAre(std::pair(kTo, 8u), std::pair(kOther, 8u), std::pair(kOther, 1u),
                                          std::pair(kTo, 1u)));
}

TEST_F(MsgTest, APostTakesTheFirstRoadThatFits) {
  const struct {
    uint16_t destination;
    bool urgent;
    uint32_t hookResult;
    uint32_t result;
    std::vector<std::string> calls;
    bool ipcHooks = true;
  } cases[] = {
      {kComp, false, 0, 0, {"comp 1500"}},
      {kComp, true, 0, 0, {"comp! 1500"}},
      {kComp, false, 77, 77, {"comp 1500"}},
      {kAppComp, false, 0, 0, {"ipc65541 4181"}},
      {4096, true, 0, 0, {"ipc65541! 4096"}},
      {4287, false, 77, 77, {"ipc65541 4287"}},
      {kAppComp, false, 0, kMsgErrNoIpc, {}, false},
      {4288, false, 0, kMsgErrModuleId, {}},
      {1857, false, 0, kMsgErrModuleId, {}},
      {kOther, false, 0, 0, {"ipc5 43"}},
      {kOther, true, 0, 0, {"ipc5! 43"}},
      {kOther, false, 77, 77, {"ipc5 43"}},
      {kOther, false, 0, 0, {}, false},  // kept: no hook is no failure, though nobody took it
      {kTo, false, 0, 0, {}},
  };
  Register(kTo, 32);
  HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  TolaMsgSendToCompRegFun(Road::IsComp, Road::ToComp);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    road.UseIpc(c.ipcHooks);
    road.calls.clear();
    road.result = c.hookResult;
    MsgPtr msg = NewMsg(1);
    EXPECT_EQ(Post(c.destination, msg, c.urgent), c.result);
    EXPECT_EQ(msg == nullptr, c.result == 0 && (!c.calls.empty() || c.destination == kTo)) << "its owner";
    EXPECT_EQ(road.calls, c.calls);
  }
  EXPECT_EQ(TOLA_GetPortMsgNum(kTo), 1) << "a message took two roads";
  road.UseIpc(false);  // simple messages that nobody takes are freed
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kOther, 1, 1, 2, "ab"), 0u);
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, 1857, 1, 1, 2, "ab"), 1u);
}

TEST_F(MsgTest, TheHighPriorityQueueIsServedFirstAndAFullQueueDisturbsNothingElse) {
  MsgPtr fallback = NewMsg(1), normal = NewMsg(2), high = NewMsg(3), overflow = NewMsg(4);
  Register(kOther);
  EXPECT_EQ(TOLA_HighPriMsgPost(kOther, fallback.get(), 1), 1u) << "there is no object yet";
  EXPECT_EQ(TOLA_MsgUrgPost(kOther, fallback.release(), 1), 0u) << "an urgent post falls back";

  HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  Register(kTo, 1);
  (void)TakeEvents();
  ASSERT_EQ(Post(kTo, normal), 0u);
  EXPECT_EQ(TakeEvents(), kWake);
  ASSERT_EQ(Post(kTo, high, true), 0u);
  EXPECT_EQ(TakeEvents(), kWake);
  EXPECT_EQ(TOLA_MsgUrgPost(kTo, overflow.get(), 1), kMsgErrQueueWrite) << "both queues are full";
  EXPECT_EQ(TakeEvents(), 0u) << "a refused post must not wake the receiver";
  EXPECT_THAT(log.Lines(), ElementsAre("Qer7>42:0x4=0x305", MatchesRegex("Qer7>42\\([0-9]+\\):0x4=0x305")));
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kTo, 0x13, 0, 3, "abc"), 1u);
  EXPECT_EQ(TOLA_GetPortMsgNum(kTo), 1);
  EXPECT_EQ(Receive(kTo)->type, 3);
  EXPECT_EQ(Receive(kTo)->type, 2) << "the queued message was displaced";
  tagMsgBuf* msg = overflow.get();
  EXPECT_EQ(TOLA_MsgRecv(kTo, &msg, 0), kMsgErrQueueRead);
  EXPECT_EQ(msg, nullptr) << "an empty queue left an old pointer";
  EXPECT_EQ(Post(kTo, overflow), 0u) << "the sender may retry the same buffer";
}

TEST_F(MsgTest, ManySendersLoseAndDoubleNothing) {
  constexpr uint32_t kSenders = 4, kEach = 2000;
  Register(kTo, 64);
  StopLogPrint();                         // full queues are expected here
  SetMsgQueueStatisticInstance(nullptr);  // it is for one thread
  std::vector<std::thread> senders;
  for (uint16_t s = 0; s < kSenders; ++s) {
    senders.emplace_back([s] {
      for (uint16_t i = 0; i < kEach; ++i) {
        tagMsgBuf* msg = TOLA_MsgAlloc(s, i, 0, 4);
        while (TOLA_MsgPost(kTo, msg, 1) != 0) std::this_thread::yield();
      }
    });
  }
  uint32_t next[kSenders] = {};
  for (uint32_t received = 0; received < kSenders * kEach;) {
    uint32_t events = 0;
    ASSERT_EQ(KEL_EventRead(kWake, &events, kKelEventAny, 20000), 0u) << "a wake-up was lost";
    for (tagMsgBuf* msg = nullptr; TOLA_MsgRecv(kTo, &msg, 0) == 0; ++received) {
      const MsgPtr owned(msg);
      EXPECT_EQ(msg->type, next[msg->source]++) << "lost, doubled or out of order";
    }
  }
  for (std::thread& sender : senders) sender.join();
}

}  // namespace
