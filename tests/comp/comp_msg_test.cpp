/// Component messages across the border to platform modules and back, and who owns what afterwards.
#include "comp/comp_msg.h"

#include "base/result_codes.h"
#include "comp/comp_msg_trans.h"
#include "comp_fixture.h"
#include "velto/dms.h"

namespace comp_test {
namespace {

using support::MsgPtr;

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
  ASSERT_EQ(TolaCompMsgSend(0x30000 + kModule, NewCompMsg(0x81234, 0xA372, 7, "data")), 0u);
  const MsgPtr msg = Receive();
  EXPECT_EQ(msg->source, 0x1234);
  EXPECT_EQ(msg->destination, kModule);
  EXPECT_EQ(msg->type, 0xA372);
  EXPECT_EQ(msg->subType, 7) << "the sequence number did not become the sub-type";
  EXPECT_EQ(std::string(reinterpret_cast<char*>(TolaMsgData(msg.get())), GetTolaMsgLen(msg.get())), "data");
  ASSERT_EQ(TolaCompMsgSend(kModule, NewCompMsg(1, 1, 1, "")), 0u);
  EXPECT_EQ(GetTolaMsgLen(Receive().get()), 0u);
}

TEST_F(CompMsgTest, AMessageOfHighPriorityFallsBackToTheNormalQueue) {
  const auto send = [](uint16_t seqNo, TolaMsgPrio priority) {
    void* msg = NewCompMsg(1, 1, seqNo, "x");
    TolaCompMsgPrioSet(msg, priority);
    EXPECT_EQ(TolaCompMsgSend(kModule, msg), 0u) << "message " << seqNo;
  };
  send(1, kTolaMsgPrioHigh);  // there is no high-priority queue
  EXPECT_EQ(Receive()->subType, 1);
  support::HighPri highPri;
  RegHighPriQueueProcObj(&highPri);
  send(2, kTolaMsgPrioHigh);  // the module came before the object
  EXPECT_EQ(Receive()->subType, 2);
  ASSERT_EQ(TOLA_MsgModuleUnregister(kModule), 0u);
  ASSERT_EQ(TOLA_MsgModuleRegister(kModule, kMsgNoTask, 1, 2), 0u);
  send(1, kTolaMsgPrioNormal);
  for (uint16_t seqNo = 2; seqNo <= 4; ++seqNo) send(seqNo, kTolaMsgPrioHigh);
  for (const uint32_t seqNo : {2u, 3u, 1u, 4u}) EXPECT_EQ(Receive()->subType, seqNo);
}

TEST_F(CompMsgTest, AMessageThatNoModuleTakesIsFreedAndItsResultReturned) {
  EXPECT_EQ(TolaCompMsgSend(4100, NewCompMsg(1, 1, 1, "x")), kMsgErrNoIpc);
  EXPECT_EQ(TolaCompMsgSend(kAbsent, NewCompMsg(1, 1, 1, "x")), 0u) << "kept: no hook is no failure";
  for (uint16_t i = 0; i < 4; ++i) ASSERT_EQ(TolaCompMsgSend(kModule, NewCompMsg(1, 1, i, "x")), 0u);
  EXPECT_EQ(TolaCompMsgSend(kModule, NewCompMsg(1, 1, 4, "x")), kMsgErrQueueWrite);
  for (uint16_t i = 0; i < 4; ++i) EXPECT_EQ(Receive()->subType, i);
  EXPECT_EQ(TolaCompMsgSend(kModule, NewCompMsg(1, 1, 1, std::string(0x1000000, 'x'))), 1u)
      << "longer than a platform message can say: cutting it would lose bytes";
  EXPECT_THAT(log_.Lines(), testing::Contains("0x1 send msg 0x1 to 0x1004 fail:0x4911"));
}

TEST_F(CompMsgTest, APlatformMessageReachesAComponentAndStaysItsSendersWhenItDoesNot) {
  ASSERT_EQ(Start(1901), 0u);
  const MsgPtr sent = support::NewMsg(0, 65538);
  for (const bool urgent : {false, true}) {
    MsgPtr msg = support::NewMsg(1901, 65538);
    ASSERT_EQ(urgent ? TolaSendMsgToComp(1901, msg.get(), true) : TOLA_MsgPost(1901, msg.get(), 1), 0u);
    (void)msg.release();  // freed by the layer
    const support::CompMsg got = Arrived().Take();
    EXPECT_EQ(got.source, 7u);
    EXPECT_EQ(got.id, 0x111u);
    EXPECT_EQ(got.seqNo, 3);
    EXPECT_EQ(got.priority, urgent ? kTolaMsgPrioHigh : kTolaMsgPrioNormal);
    EXPECT_TRUE(got.data == std::string(reinterpret_cast<char*>(TolaMsgData(sent.get())), 65538))
        << "bytes were lost on the way";
  }
  const TOLA_COMP_DST_PROC_S peer = Process(450, {1902});
  ASSERT_EQ(TolaAddCompDstProcInfo(&peer), 0u);
  EXPECT_EQ(TOLA_MsgPost(1902, sent.get(), 1), kDmsErrNoPeer);
  EXPECT_EQ(GetTolaMsgLen(sent.get()), 65538u) << "the message was freed under its sender";
}

TEST_F(CompMsgTest, TheMemoryStatisticSeesMessagesComeAndLeave) {
  struct Statistic final : MsgMemStatisticBase {
    void OnAlloc(uint32_t source, uint32_t length) override { seen += std::to_string(source + length) + " "; }
    void OnFree(uint32_t source, uint32_t length) override { seen += std::to_string(source - length) + " "; }
    std::string seen;
  } statistic;
  ASSERT_EQ(Start(1900), 0u);
  SetMsgMemStatisticInstance(&statistic);
  ASSERT_EQ(TolaCompMsgSend(1900, NewCompMsg(1900, 1, 1, "abc")), 0u);
  TolaCompMsgFree(NewCompMsg(0x80000000 + 1900, 1, 1, "ab"));
  ASSERT_EQ(TolaCompMsgSend(kModule, NewCompMsg(1900, 1, 1, "a")), 0u);
  SetMsgMemStatisticInstance(nullptr);
  EXPECT_EQ(statistic.seen, "1903 1897 1902 1898 1901 1901 1899 ")
      << "the platform's copy is counted as well";
  (void)Receive();
  (void)Arrived().Take();
}

TEST_F(CompMsgTest, QueueLengthsAreBounded) {
  ASSERT_EQ(Start(1904), 0u);
  for (const uint32_t length : {0u, 65537u})
    EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(1904, length), kCompErrQueueLength);
  for (const uint32_t length : {1u, 65536u}) EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(1904, length), 0u);
  EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(9, 1), kCompErrQueueSet);
}

}  // namespace
}  // namespace comp_test
