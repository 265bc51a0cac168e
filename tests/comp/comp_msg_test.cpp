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

struct MemStatistic final : MsgMemStatisticBase {
  void OnAlloc(uint32_t source, uint32_t length) override { seen.emplace_back(source, length); }
  void OnFree(uint32_t source, uint32_t length) override { seen.emplace_back(source, -int64_t{length}); }
  std::vector<std::pair<uint32_t, int64_t>> seen;
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
  std::string lengths;
  for (const auto& [source, length] : statistic.seen) {
    EXPECT_EQ(source, 1903u);
    lengths += std::to_string(length) + " ";
  }
  EXPECT_EQ(lengths, "3 -3 2 -2 1 1 -1 ");
  (void)Receive();
  (void)Arrived().Take();
}

TEST_F(CompMsgTest, QueueLengthsAreBounded) {
  ASSERT_EQ(Start(Type("QUEUED", 1904, Record)), 0u);
  for (const uint32_t length : {0u, 65537u})
    EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(1904, length), kCompErrQueueLength);
  for (const uint32_t length : {1u, 65536u}) EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(1904, length), 0u);
  EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(9, 0), kCompErrQueueLength);
  EXPECT_EQ(TOLA_SetCompMaxMsgQueueLen(9, 1), kCompErrQueueSet);
  EXPECT_THAT(Logged().TakeAll(), Contains(HasSubstr("comp_msg.cpp: msglen err, ret = 0x")));
}

}  // namespace
}  // namespace comp_test
