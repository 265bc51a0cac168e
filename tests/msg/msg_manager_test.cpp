/// The message manager with the real runtime: queues, task events, memory counted by its handle.
#include <gmock/gmock.h>

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

constexpr uint16_t kFrom = 7;
constexpr uint16_t kTo = 42;
constexpr uint16_t kOther = 43;
constexpr uint16_t kComp = 1500;  // what the component hook of a test accepts
constexpr uint16_t kAppComp = 4181;
constexpr uint32_t kWake = 0x4000;

MsgPtr NewMsg(uint16_t type, uint32_t length = 4) {
  return MsgPtr(TOLA_MsgAlloc(kFrom, type, 9, length));
}

uint64_t LiveMessages() {
  return support::Live("msg manager") - 1;  // but the module blocks
}

/// What the hooks were given; each answers `result`.
struct Road {
  uint32_t result = 0;
  std::vector<std::string> calls;
  std::vector<MsgPtr> taken;

  uint32_t Take(const std::string& call, tagMsgBuf* msg) {
    calls.push_back(call + " " + std::to_string(msg->destination));
    if (result == 0) taken.emplace_back(msg);
    return result;
  }
};
Road* g_road = nullptr;

bool IsComp(uint16_t moduleId) {
  return moduleId == kComp;
}
uint32_t ToComp(uint16_t, tagMsgBuf* msg, bool urgent) {
  return g_road->Take(urgent ? "comp!" : "comp", msg);
}
uint32_t Channel() {
  return 0x10005;
}
uint32_t ToApp(tagMsgBuf* msg, uint32_t channel, bool urgent) {
  return g_road->Take("ipc" + std::to_string(channel) + (urgent ? "!" : ""), msg);
}
uint32_t Notify(uint32_t operation, uint32_t count, const uint16_t* ids) {
  g_road->calls.push_back("notify " + std::to_string(operation) + " " + std::to_string(count) + " " +
                          std::to_string(*ids));
  return 0;
}

class QueueStatistic final : public MsgQueueStatistic {
 public:
  void OnRegister(uint16_t id, uint32_t, uint32_t length) override { seen.emplace_back(id, length); }
  void OnFill(uint16_t id, uint32_t, uint32_t messages) override { seen.emplace_back(id, messages); }
  std::vector<std::pair<uint16_t, uint32_t>> seen;
};

class MemStatistic final : public MsgMemStatisticBase {
 public:
  void OnAlloc(uint32_t source, uint32_t length) override { live += (uint64_t{source} << 32) + length; }
  void OnFree(uint32_t source, uint32_t length) override { live -= (uint64_t{source} << 32) + length; }
  uint64_t live = 0;
};

/// The manager is up, the test's thread is the task that is woken, and no hook is registered.
class MsgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
    ASSERT_EQ(KEL_TaskAdopt("msg_test", &task), 0u);
    g_road = &road;
    (void)TakeEvents();
    log.Clear();
  }
  void TearDown() override {
    TolaMsgSendToCompRegFun(nullptr, nullptr);
    Tola_MsgSameQueueRegFun(nullptr, nullptr);
    MsgMgrRegAppIpcMsgFun(nullptr, nullptr, nullptr);
    RegHighPriQueueProcObj(nullptr);
    SetMsgQueueStatisticInstance(nullptr);
    SetMsgMemStatisticInstance(nullptr);
    for (const uint16_t id : {kTo, kOther}) {
      Drain(id);
      EXPECT_EQ(TOLA_MsgModuleUnregister(id), 0u);
    }
    road.taken.clear();
    EXPECT_EQ(LiveMessages(), 0u) << "a message was lost";
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
  void Drain(uint16_t id) {
    for (tagMsgBuf* msg = nullptr; TOLA_MsgRecv(id, &msg, 0) == 0;) TOLA_MsgFree(msg);
  }

  support::LogCapture log{kLogErr};
  uint32_t task = 0;
  Road road;
};

TEST(MsgManagerInitTest, BeforeItNothingCanBeDoneAndAfterItTheMaximumStands) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own, where no other case came before
  EXPECT_EXIT(
      {
        tagMsgBuf msg{};
        tagMsgBuf* received = nullptr;
        const uint16_t low = 1857;
        const uint16_t maximum = 1900;
        bool ok =
            TOLA_MsgPost(kTo, &msg, 1) == kMsgErrNotInit && TOLA_MsgPost(kAppComp, &msg, 1) == kMsgErrNotInit;
        ok = ok && TOLA_MsgRecv(kTo, &received, 0) == kMsgErrNotInit;
        ok = ok && TOLA_MsgModuleRegister(kTo, 1, 1, 8) == kMsgErrNotInit;
        ok = ok && TOLA_MsgAlloc(1, 1, 1, 4) == nullptr;
        ok = ok && TOLA_RegisterMsgManagerParameter(nullptr) == 1;
        ok = ok && TOLA_RegisterMsgManagerParameter(&maximum) == 0 &&
             TOLA_RegisterMsgManagerParameter(&low) == 0;
        ok = ok && TOLA_MsgManagerInit() == 0 && TOLA_MsgModuleRegister(1899, 1, 1, 8) == 0;
        ok = ok && TOLA_MsgModuleRegister(1900, 1, 1, 8) == kMsgErrModuleId;
        ok = ok && TOLA_GetPortMsgNum(1899) == -1;  // kept: whatever the maximum is
        const uint16_t late = 5000;
        ok = ok && TOLA_RegisterMsgManagerParameter(&late) == 1;
        exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(MsgTest, TheHeaderHoldsLengthsOf24Bits) {
  tagMsgBuf head{};
  SetTolaMsgLen(&head, 0x12345);
  EXPECT_EQ(head.lengthHigh, 0x0001);
  EXPECT_EQ(head.lengthLow, 0x2345);
  head.lengthHigh = 0xAB02;
  EXPECT_EQ(GetTolaMsgLen(&head), 0x22345u) << "bits above 24 counted";
  SetTolaMsgLen(&head, 5);
  EXPECT_EQ(GetTolaMsgLen(&head), 0x20005u) << "kept: a short length leaves the high bits";

  const MsgPtr longest = NewMsg(1, 0xFFFFFF);
  ASSERT_NE(longest, nullptr);
  EXPECT_EQ(GetTolaMsgLen(longest.get()), 0xFFFFFFu);
  EXPECT_EQ(TolaMsgData(longest.get())[0xFFFFFE], 0) << "data is not zeroed to its end";
  for (const uint32_t tooLong : {0x1000000u, 0xFFFFFFF4u, 0xFFFFFFFFu}) {
    EXPECT_EQ(NewMsg(1, tooLong), nullptr) << tooLong;
  }
}

TEST_F(MsgTest, RegistrationIsCheckedAndCanBeTakenBack) {
  QueueStatistic statistic;
  SetMsgQueueStatisticInstance(&statistic);
  MsgMgrRegAppIpcMsgFun(Channel, ToApp, Notify);
  EXPECT_EQ(TOLA_MsgModuleRegister(1857, task, 1, 8), kMsgErrModuleId) << "the maximum itself is no module";
  EXPECT_EQ(TOLA_MsgModuleRegister(kTo, task, 1, 0), kMsgErrQueueLength);
  EXPECT_THAT(road.calls, IsEmpty()) << "a refused registration was announced";
  Register(kTo);
  EXPECT_EQ(TOLA_MsgModuleRegister(kTo, task, 1, 8), kMsgErrRegistered);
  EXPECT_EQ(TOLA_MsgModuleUnregister(kTo), 0u);
  EXPECT_EQ(TOLA_MsgModuleUnregister(1857), kMsgErrModuleId);
  EXPECT_THAT(road.calls, ElementsAre("notify 0 1 42", "notify 1 1 42"));
  EXPECT_THAT(statistic.seen, ElementsAre(std::pair(kTo, 8u)));
  tagMsgBuf* msg = nullptr;
  EXPECT_EQ(TOLA_MsgRecv(kTo, &msg, 0), kMsgErrNotRegistered);
  Register(kTo);
}

TEST_F(MsgTest, AFullQueueRefusesTheMessageAndDisturbsNothingElse) {
  Register(kTo, 1);
  MsgPtr first = NewMsg(0x11);
  MsgPtr second = NewMsg(0x12);
  ASSERT_EQ(TOLA_MsgPost(kTo, first.get(), 1), 0u);
  (void)first.release();  // the receiver's now
  ASSERT_EQ(TakeEvents(), kWake);

  EXPECT_EQ(TOLA_MsgPost(kTo, second.get(), 1), kMsgErrQueueWrite);
  MsgModuleBlock block{};
  ASSERT_EQ(TOLA_GetMsgBlock(kTo, &block), 0u);
  EXPECT_EQ(TakeEvents(), 0u) << "a refused post must not wake the receiver";
  EXPECT_THAT(log.Lines(), ElementsAre("Qer7>42(" + std::to_string(block.queueId) + "):0x12=0x305"));
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kTo, 0x13, 0, 3, "abc"), 1u);
  EXPECT_EQ(TOLA_GetPortMsgNum(kTo), 1);

  EXPECT_EQ(Receive(kTo)->type, 0x11) << "the queued message was displaced";
  EXPECT_EQ(TOLA_MsgPost(kTo, second.get(), 1), 0u) << "the sender may retry the same buffer";
  (void)second.release();
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
}

struct RouteCase {
  const char* name;
  uint16_t destination;
  bool urgent;
  bool ipcHooks;
  uint32_t hookResult;
  uint32_t result;
  bool taken;
  const char* call;  ///< "" none
};

TEST_F(MsgTest, APostTakesTheFirstRoadThatFits) {
  const RouteCase cases[] = {
      {"component", kComp, false, true, 0, 0, true, "comp 1500"},
      {"component, urgent", kComp, true, true, 0, 0, true, "comp! 1500"},
      {"component refuses", kComp, false, true, 77, 77, false, "comp 1500"},
      {"application component", kAppComp, false, true, 0, 0, true, "ipc65541 4181"},
      {"application component, urgent", 4096, true, true, 0, 0, true, "ipc65541! 4096"},
      {"application component, last", 4287, false, true, 77, 77, false, "ipc65541 4287"},
      {"application component without hooks", kAppComp, false, false, 0, kMsgErrNoIpc, false, ""},
      {"behind the components", 4288, false, true, 0, kMsgErrModuleId, false, ""},
      {"the maximum", 1857, false, true, 0, kMsgErrModuleId, false, ""},
      {"elsewhere", kOther, false, true, 0, 0, true, "ipc5 43"},
      {"elsewhere, urgent", kOther, true, true, 0, 0, true, "ipc5! 43"},
      {"elsewhere, refused", kOther, false, true, 77, 77, false, "ipc5 43"},
      {"elsewhere without hooks", kOther, false, false, 0, 0, false, ""},
      {"here", kTo, false, true, 0, 0, true, ""},
  };
  Register(kTo, 32);
  HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  TolaMsgSendToCompRegFun(IsComp, ToComp);
  for (const RouteCase& c : cases) {
    SCOPED_TRACE(c.name);
    MsgMgrRegAppIpcMsgFun(c.ipcHooks ? Channel : nullptr, c.ipcHooks ? ToApp : nullptr, nullptr);
    road.calls.clear();
    road.result = c.hookResult;
    MsgPtr msg = NewMsg(1);
    bool taken = !c.taken;
    EXPECT_EQ(MsgPost(c.destination, msg.get(), c.urgent, &taken), c.result);
    EXPECT_EQ(taken, c.taken);
    EXPECT_EQ(msg->destination, c.destination);
    if (taken) (void)msg.release();
    EXPECT_EQ(road.calls, *c.call != '\0' ? std::vector<std::string>{c.call} : std::vector<std::string>{});
  }
  EXPECT_EQ(TOLA_MsgPost(kTo, nullptr, 1), kMsgErrNull);
  EXPECT_EQ(TOLA_GetPortMsgNum(kTo), 1) << "a message took two roads";
  MsgMgrRegAppIpcMsgFun(nullptr, nullptr, nullptr);  // simple messages that nobody takes are freed
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, kOther, 1, 1, 2, "ab"), 0u) << "kept: no hook is no failure";
  EXPECT_EQ(SendSimpleFormatMsg(kFrom, 1857, 1, 1, 2, "ab"), 1u);
}

TEST_F(MsgTest, TheHighPriorityQueueIsServedFirst) {
  Register(kOther);
  EXPECT_EQ(TOLA_HighPriMsgPost(kOther, NewMsg(1).get(), 1), 1u) << "there is no object yet";
  MsgPtr fallback = NewMsg(2);
  EXPECT_EQ(TOLA_MsgUrgPost(kOther, fallback.get(), 1), 0u) << "an urgent post falls back";
  (void)fallback.release();

  HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  Register(kTo, 1);
  (void)TakeEvents();
  MsgPtr normal = NewMsg(3);
  MsgPtr high = NewMsg(4);
  MsgPtr overflow = NewMsg(5);
  ASSERT_EQ(TOLA_MsgPost(kTo, normal.get(), 1), 0u);
  ASSERT_EQ(TOLA_HighPriMsgPost(kTo, high.get(), 1), 0u);
  (void)normal.release();
  (void)high.release();
  EXPECT_EQ(TakeEvents(), kWake);
  EXPECT_EQ(TOLA_MsgUrgPost(kTo, overflow.get(), 1), kMsgErrQueueWrite) << "both queues are full";
  MsgModuleBlock block{};
  ASSERT_EQ(TOLA_GetMsgBlock(kTo, &block), 0u);
  EXPECT_THAT(log.Lines(),
              ElementsAre("Qer7>42:0x5=0x305", "Qer7>42(" + std::to_string(block.queueId) + "):0x5=0x305"));
  EXPECT_EQ(Receive(kTo)->type, 4);
  EXPECT_EQ(Receive(kTo)->type, 3);
  tagMsgBuf* msg = overflow.get();
  EXPECT_EQ(TOLA_MsgRecv(kTo, &msg, 0), kMsgErrQueueRead);
  EXPECT_EQ(msg, nullptr) << "an empty queue left an old pointer";
}

bool OtherSharesToQueue(uint16_t moduleId) {
  return moduleId == kOther;
}
uint16_t ToQueue(uint16_t) {
  return kTo;
}

TEST_F(MsgTest, ModulesMayShareAQueue) {
  Tola_MsgSameQueueRegFun(OtherSharesToQueue, ToQueue);
  EXPECT_EQ(TOLA_MsgModuleRegister(kOther, task, 2, 8), kMsgErrNotRegistered)
      << "there is no queue to share yet";
  Register(kTo);
  ASSERT_EQ(TOLA_MsgModuleRegister(kOther, task, 2, 8), 0u);
  ASSERT_EQ(SendSimpleFormatMsg(kFrom, kOther, 8, 0, 0, nullptr), 0u);
  EXPECT_EQ(TakeEvents(), 2u) << "the event is the other module's own";
  EXPECT_EQ(Receive(kTo)->destination, kOther);
}

TEST_F(MsgTest, StatisticsSeeEveryMessage) {
  MemStatistic memory;
  QueueStatistic queues;
  SetMsgMemStatisticInstance(&memory);
  Register(kTo);
  SetMsgQueueStatisticInstance(&queues);
  ASSERT_EQ(SendSimpleFormatMsg(kFrom, kTo, 1, 0, 100, std::string(100, 'x').data()), 0u);
  EXPECT_EQ(memory.live, (uint64_t{kFrom} << 32) + 100);
  ASSERT_EQ(SendSimpleFormatMsg(kFrom, kTo, 1, 0, 5, "12345"), 0u);
  EXPECT_THAT(queues.seen, ElementsAre(std::pair(kTo, 1u), std::pair(kTo, 2u)));
  Drain(kTo);
  EXPECT_EQ(memory.live, 0u);
}

TEST_F(MsgTest, ManySendersLoseAndDoubleNothing) {
  constexpr uint32_t kSenders = 4;
  constexpr uint32_t kEach = 2000;
  Register(kTo, 64);
  std::vector<std::thread> senders;
  for (uint16_t s = 0; s < kSenders; ++s) {
    senders.emplace_back([s] {
      for (uint32_t i = 0; i < kEach; ++i) {
        MsgPtr msg(TOLA_MsgAlloc(s, static_cast<uint16_t>(i), 0, 4));
        bool taken = false;
        while (MsgPost(kTo, msg.get(), false, &taken) != 0) std::this_thread::yield();
        (void)msg.release();
      }
    });
  }
  StopLogPrint();  // full queues are expected here
  uint32_t next[kSenders] = {};
  for (uint32_t received = 0; received < kSenders * kEach;) {
    uint32_t events = 0;
    ASSERT_EQ(KEL_EventRead(kWake, &events, kKelEventAny, 20000), 0u) << "a wake-up was lost";
    for (tagMsgBuf* msg = nullptr; TOLA_MsgRecv(kTo, &msg, 0) == 0; ++received) {
      const MsgPtr owned(msg);
      ASSERT_LT(msg->source, kSenders);
      EXPECT_EQ(msg->type, next[msg->source]++) << "lost, doubled or out of order";
    }
  }
  for (std::thread& sender : senders) sender.join();
}

}  // namespace
