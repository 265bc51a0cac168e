/// Component messages across the border to platform modules and back, and who owns what afterwards.
#include "comp/comp_msg.h"

#include "base/result_codes.h"
#include "comp/comp_msg_trans.h"
#include "comp_fixture.h"
#include "velto/dms.h"

namespace comp_test {
namespace {

using support::HighPri;
using support::MsgPtr;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr uint16_t kModule = 42;
constexpr uint32_t kAbsent = 5;  ///< neither a component nor a registered module

class CompMsgTest : public CompTest {
 protected:
  void SetUp() override {
    CompTest::SetUp();
    ASSERT_EQ(TOLA_MsgModuleRegister(kModule, kMsgNoTask, 1, 4), 0u);
  }
  void TearDown() override {
    RegHighPriQueueProcObj(nullptr);
    EXPECT_EQ(TOLA_MsgModuleUnregister(kModule), 0u);
    CompTest::TearDown();
  }
  MsgPtr Receive() {
    tagMsgBuf* msg = nullptr;
    EXPECT_EQ(TOLA_MsgRecv(kModule, &msg, 0), 0u);
    return MsgPtr(msg);
  }
};

TEST_F(CompMsgTest, AMessageToAPlatformModuleKeepsEverything) {
  ASSERT_EQ(TolaCompMsgSend(0x30000 + kModule, NewMsg(0x81234, 0xA372, 7, "data")), 0u);
  const MsgPtr msg = Receive();
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->source, 0x1234);
  EXPECT_EQ(msg->destination, kModule);
  EXPECT_EQ(msg->type, 0xA372);
  EXPECT_EQ(msg->subType, 7) << "the sequence number did not become the sub-type";
  EXPECT_EQ(std::string(reinterpret_cast<char*>(TolaMsgData(msg.get())), GetTolaMsgLen(msg.get())), "data");

  ASSERT_EQ(TolaCompMsgSend(kModule, NewMsg(1, 1, 1, "")), 0u);
  EXPECT_EQ(GetTolaMsgLen(Receive().get()), 0u);
}

TEST_F(CompMsgTest, AMessageOfHighPriorityFallsBackToTheNormalQueue) {
  const auto send = [](uint16_t seqNo, TolaMsgPrio priority) {
    void* msg = NewMsg(1, 1, seqNo, "x");
    TolaCompMsgPrioSet(msg, priority);
    EXPECT_EQ(TolaCompMsgSend(kModule, msg), 0u) << "message " << seqNo;
  };
  send(1, kTolaMsgPrioHigh);  // there is no high-priority queue
  EXPECT_EQ(Receive()->subType, 1);
  ASSERT_EQ(TOLA_MsgModuleUnregister(kModule), 0u);
  HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  ASSERT_EQ(TOLA_MsgModuleRegister(kModule, kMsgNoTask, 1, 2), 0u);
  send(1, kTolaMsgPrioNormal);
  for (uint16_t seqNo = 2; seqNo <= 4; ++seqNo) send(seqNo, kTolaMsgPrioHigh);
  for (const uint32_t seqNo : {2u, 3u, 1u, 4u}) EXPECT_EQ(Receive()->subType, seqNo);
}

TEST_F(CompMsgTest, AMessageThatNoModuleTakesIsFreedAndItsResultReturned) {
  EXPECT_EQ(TolaCompMsgSend(4100, NewMsg(1, 1, 1, "x")), kMsgErrNoIpc);
  EXPECT_EQ(TolaCompMsgSend(kAbsent, NewMsg(1, 1, 1, "x")), 0u) << "kept: no hook is no failure";
  for (uint16_t i = 0; i < 4; ++i) ASSERT_EQ(TolaCompMsgSend(kModule, NewMsg(1, 1, i, "x")), 0u);
  EXPECT_EQ(TolaCompMsgSend(kModule, NewMsg(1, 1, 4, "x")), kMsgErrQueueWrite);
  for (uint16_t i = 0; i < 4; ++i) EXPECT_EQ(Receive()->subType, i);
  EXPECT_EQ(TolaCompMsgSend(kModule, NewMsg(1, 1, 1, std::string(0x1000000, 'x'))), 1u)
      << "longer than a platform message can say: cutting it would lose bytes";
  EXPECT_EQ(TolaCompMsgSend(kModule, nullptr), kCompErrNull);
}

TEST_F(CompMsgTest, APlatformMessageReachesAComponentThroughThePost) {
  ASSERT_EQ(Start(Type("TAKES", 1901, Record)), 0u);
  std::string data(65538, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 31 >> 3);
  MsgPtr msg(TOLA_MsgAlloc(37, 2572, 0xBEEF, static_cast<uint32_t>(data.size())));
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->lengthHigh, 1);
  EXPECT_EQ(msg->lengthLow, 2);
  std::copy(data.begin(), data.end(), TolaMsgData(msg.get()));
  ASSERT_EQ(TOLA_MsgPost(1901, msg.get(), 1), 0u);
  (void)msg.release();  // freed by the layer
  const Got got = Arrived().Take();
  EXPECT_EQ(got.destination, 1901u);
  EXPECT_EQ(got.source, 37u);
  EXPECT_EQ(got.id, 2572u);
  EXPECT_EQ(got.seqNo, 0xBEEF);
  EXPECT_EQ(got.priority, kTolaMsgPrioNormal);
  EXPECT_TRUE(got.data == data) << "bytes were lost on the way";

  msg.reset(TOLA_MsgAlloc(37, 1, 1, 0));
  ASSERT_EQ(TolaSendMsgToComp(1901, msg.get(), true), 0u);
  (void)msg.release();
  EXPECT_EQ(Arrived().Take().priority, kTolaMsgPrioHigh);
}

TEST_F(CompMsgTest, AFailedSendLeavesThePlatformMessageToItsSender) {
  const TOLA_COMP_DST_PROC_S peer = Process(450, {1902});
  ASSERT_EQ(TolaAddCompDstProcInfo(&peer), 0u);
  const MsgPtr msg(TOLA_MsgAlloc(37, 1, 1, 3));
  EXPECT_EQ(TOLA_MsgPost(1902, msg.get(), 1), kDmsErrNoPeer);
  EXPECT_EQ(GetTolaMsgLen(msg.get()), 3u) << "the message was freed under its sender";
  EXPECT_EQ(TolaSendMsgToComp(1902, nullptr, false), kCompErrNull);
  const TOLA_COMP_PROC_S peerAddress = Address(450);
  EXPECT_EQ(TolaDelCompDstProcInfo(&peerAddress), 0u);
}

class MemStatistic final : public MsgMemStatisticBase {
 public:
  void OnAlloc(uint32_t source, uint32_t length) override { seen.push_back("+" + Text(source, length)); }
  void OnFree(uint32_t source, uint32_t length) override { seen.push_back("-" + Text(source, length)); }
  std::vector<std::string> seen;

 private:
  static std::string Text(uint32_t source, uint32_t length) {
    return std::to_string(source) + ":" + std::to_string(length);
  }
};

TEST_F(CompMsgTest, TheMemoryStatisticSeesMessagesComeAndLeave) {
  ASSERT_EQ(Start(Type("COUNTED", 1903, Record)), 0u);
  MemStatistic statistic;
  SetMsgMemStatisticInstance(&statistic);
  ASSERT_EQ(TolaCompMsgSend(1903, NewMsg(1903, 1, 1, "abc")), 0u);
  TolaCompMsgFree(NewMsg(1903, 1, 1, "ab"));
  TolaCompMsgFree(nullptr);
  ASSERT_EQ(TolaCompMsgSend(kModule, NewMsg(1903, 1, 1, "a")), 0u);
  SetMsgMemStatisticInstance(nullptr);
  EXPECT_THAT(statistic.seen,
              ElementsAre("+1903:3", "-1903:3", "+1903:2", "-1903:2", "+1903:1", "+1903:1", "-1903:1"));
  (void)Receive();
  (void)Arrived().Take();
}

TEST_F(CompMsgTest, QueueLengthsAreBounded) {
  ASSERT_EQ(Start(Type("QUEUED", 1904, Record)), 0u);
  struct {
    uint32_t csi;
    uint32_t length;
    uint32_t result;
  } const cases[] = {{1904, 0, kCompErrQueueLength},
                     {1904, 1, 0},
                     {1904, 65536, 0},
                     {1904, 65537, kCompErrQueueLength},
                     {9, 0, kCompErrQueueLength},
                     {9, 1, kCompErrQueueSet}};
  for (const auto& c : cases) EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(c.csi, c.length), c.result) << c.length;
  EXPECT_THAT(Logged().TakeAll(), Contains(HasSubstr("comp_msg.cpp: msglen err, ret = 0x")));
}

}  // namespace
}  // namespace comp_test
