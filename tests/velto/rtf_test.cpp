// The component runtime within one process: building, order of delivery, ownership, ending.
#include "velto/rtf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <semaphore>
#include <vector>

#include "support/inbox.h"
#include "velto/dms.h"
#include "velto/kel_mem.h"

namespace {

using testing::ElementsAre;

constexpr uint32_t kHoldId = 1, kSuicideId = 2;

// What the component under test does, and what it saw; never destroyed, as its task may outlive all cases.
struct World {
  support::Inbox<uint32_t> ids;
  std::counting_semaphore<> proceed{0}, destroyed{0};
  std::vector<uint32_t> stages;
  uint32_t failStage = UINT32_MAX;
}& gWorld = *new World;

uint32_t Construct(uint32_t stage) {
  gWorld.stages.push_back(stage);
  return stage == gWorld.failStage ? 7 : 0;
}
uint32_t Destruct() {
  gWorld.destroyed.release();
  return 0;
}
void Entry(void* message) {
  const uint32_t id = DMS_MsgRecvIidGet(message);
  gWorld.ids.Put(id);
  if (id == kHoldId) gWorld.proceed.acquire();
  if (id == kSuicideId) {
    EXPECT_EQ(RTF_CompInstDestroy(DMS_MsgRecvCidGet(message)), 0u);
  }
}

class RtfTest : public testing::Test {
 protected:
  RtfTest() {
    static uint32_t next = 1000;  // of their own for each test, so that they meet no other's
    csi_ = next++;
    const RtfCompTypeInfo type{"RTF_TEST", "1", 1, Construct, Destruct, Entry};
    EXPECT_EQ(RTF_CompTypeRegister(csi_, &type), 0u);
  }
  ~RtfTest() override {
    if (RTF_CompInstDestroy(Cpi()) == 0) gWorld.destroyed.acquire();  // a test may have done it
    EXPECT_EQ(Live(), 0u) << "a message was not freed";
    EXPECT_EQ(RTF_CompTypeDelete(csi_), 0u);
  }

  [[nodiscard]] uint32_t Cpi() const { return csi_ | 0x80000000; }
  uint32_t Create(uint32_t stage) {
    const RtfCompInst instance{csi_, Cpi()};
    return RTF_CompInstCreate(stage, csi_, &instance);
  }
  void Start() {
    for (uint32_t stage = 0; stage < 3; ++stage) ASSERT_EQ(Create(stage), 0u);
    ASSERT_EQ(RTF_CompInstSchEnable(Cpi(), 1), 0u);
  }
  uint32_t Send(uint32_t id, uint8_t priority = 0) {
    void* message = DMS_MsgAlloc(1, 8);
    DMS_MsgRecvIidSet(message, id);
    EXPECT_EQ(DMS_MsgPrioSet(message, priority), 0u);
    return DMS_MsgSend(Cpi(), message);
  }
  static uint64_t Live() {
    uint32_t handle = 0;
    uint64_t bytes = 0, count = 0;
    EXPECT_EQ(KEL_HandleInitialize("dms", &handle), 0u);
    EXPECT_EQ(KEL_HandleUseGet(handle, &bytes, &count), 0u);
    return count;
  }

  uint32_t csi_ = 0;
};

TEST_F(RtfTest, StagesRunInOrderAndAFailedOneMayRunAgain) {
  EXPECT_EQ(Create(1), kRtfErrNoInst);
  EXPECT_EQ(Create(3), kRtfErrPara);
  gWorld.stages.clear();
  gWorld.failStage = 0;
  EXPECT_EQ(Create(0), kRtfErrCtor);
  gWorld.failStage = 2;
  EXPECT_EQ(Create(0), 0u);
  EXPECT_EQ(Create(0), kRtfErrExists);
  EXPECT_EQ(Create(2), kRtfErrStage);
  EXPECT_EQ(Create(1), 0u);
  EXPECT_EQ(Create(2), kRtfErrCtor);
  EXPECT_EQ(RTF_CompInstSchEnable(Cpi(), 1), kRtfErrStage) << "a half-built instance must get no messages";
  EXPECT_EQ(Send(5), kDmsErrNoAddr);
  gWorld.failStage = UINT32_MAX;
  EXPECT_EQ(Create(2), 0u);
  EXPECT_THAT(gWorld.stages, ElementsAre(0, 0, 1, 2, 2));
  EXPECT_EQ(RTF_CompTypeDelete(csi_), kRtfErrBusy);
}

TEST_F(RtfTest, ADisabledInstanceLetsMessagesWaitUpToTheBoundAndThenTakesThePriorityStreamFirst) {
  Start();
  ASSERT_EQ(RTF_CompInstSchEnable(Cpi(), 0), 0u);
  ASSERT_EQ(RTF_ScmCompStmMaxMsgNumSet(Cpi(), 0, 0, 2), 0u);
  EXPECT_EQ(Send(10), 0u);
  EXPECT_EQ(Send(11, 2), 0u) << "2 is not the high priority";
  EXPECT_EQ(Send(12), kDmsErrQueueFull);
  EXPECT_EQ(Send(20, 1), 0u) << "the streams are bounded apart";
  EXPECT_EQ(Send(21, 1), 0u);
  EXPECT_EQ(Live(), 4u);
  ASSERT_EQ(RTF_CompInstSchEnable(Cpi(), 1), 0u);
  for (const uint32_t id : {20u, 21u, 10u, 11u}) EXPECT_EQ(gWorld.ids.Take(), id);
}

TEST_F(RtfTest, DestroyingFinishesTheMessageInHandAndFreesTheRest) {
  Start();
  ASSERT_EQ(Send(kHoldId), 0u);
  EXPECT_EQ(gWorld.ids.Take(), kHoldId);
  ASSERT_EQ(Send(10), 0u);
  ASSERT_EQ(Send(11, 1), 0u);
  gWorld.proceed.release();
  EXPECT_EQ(RTF_CompInstDestroy(Cpi()), 0u);
  EXPECT_TRUE(gWorld.destroyed.try_acquire()) << "the destructor was not called";
  EXPECT_EQ(Live(), 0u);
  gWorld.ids.TakeAll();  // it may have got to the others first
  EXPECT_EQ(Send(12), kDmsErrNoAddr);
  EXPECT_EQ(RTF_CompInstDestroy(Cpi()), kRtfErrNoInst);
}

TEST_F(RtfTest, AnEntryMayDestroyItsOwnInstance) {
  Start();
  ASSERT_EQ(Send(kSuicideId), 0u);
  EXPECT_EQ(gWorld.ids.Take(), kSuicideId);
  gWorld.destroyed.acquire();
}

TEST(DmsMessageTest, ForeignMemoryIsNoMessage) {
  alignas(16) char copy[48 + 100];
  void* message = DMS_MsgAlloc(1, 100);
  ASSERT_NE(message, nullptr);
  memcpy(copy, static_cast<char*>(message) - 48, sizeof(copy));
  EXPECT_EQ(DMS_MsgFree(1, copy + 48), kDmsErrPara) << "a copy of a message is none";
  EXPECT_EQ(DMS_MsgSend(4150, message), kDmsErrPara) << "an instance id is no CPI; the message is consumed";
  EXPECT_EQ(DMS_MsgAlloc(1, UINT32_MAX), nullptr) << "head and data are added in 32 bits";
}

TEST(DmsMessageTest, FlowControlCountsTheSendersMessagesUntilTheyAreFreed) {
  void* all[] = {DMS_MsgAlloc(77, 0), DMS_MsgFlowCtrlAlloc(77, 2, 0), DMS_MsgFlowCtrlAlloc(78, 1, 0)};
  EXPECT_NE(all[2], nullptr) << "another sender has room of its own";
  EXPECT_EQ(DMS_MsgFlowCtrlAlloc(77, 2, 0), nullptr);
  EXPECT_EQ(DMS_MsgFree(77, all[0]), 0u);
  all[0] = DMS_MsgFlowCtrlAlloc(77, 2, 0);
  for (void* message : all) EXPECT_EQ(DMS_MsgFree(0, message), 0u);
}

}  // namespace
