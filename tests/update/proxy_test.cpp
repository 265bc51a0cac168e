#include <atomic>
#include <future>
#include <optional>

#include "comp/comp_manager_impl.h"
#include "component_bench.h"
#include "frame/sys_res_get.h"
#include "support/named_process.h"
#include "update/exe_script_proxy.h"
#include "update/send_record.h"
#include "update_fixture.h"
#include "velto/kel_task.h"

namespace {

using support::CompMsg;
using update_test::kRequester;
using Request = TolaCmpMsg::TolaMsgExeUpdateScriptData;
using Question = TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData;

support::Inbox<CompMsg>& AtExecutor() {
  return support::Arrived<kScriptExeCompId>();
}

/// The requesting component, as a requester's process has it.
void RequesterEntry(void* msg) {
  const auto* data = static_cast<const uint8_t*>(msg);
  const uint32_t length = TolaCompGetMsgLen(msg);
  if (TolaCompGetMsgId(msg) == kMsgExeUpdateScriptAck) {
    (void)ProcUpdateExeScriptReplyMsg(data, length, TolaCompMsgGetSeqNo(msg));
  }
  if (TolaCompGetMsgId(msg) == kMsgUpdateAuth) {
    (void)ProcUpdateAuthReqMsg(data, length, TolaCompMsgGetSeqNo(msg));
  }
}

class ProxyTest : public update_test::UpdateTest {
 protected:
  ProxyTest() {
    update_test::StartComponents({support::CompType(kRequester, RequesterEntry),
                                  support::CompType(kScriptExeCompId, support::Keep<kScriptExeCompId>)});
    EXPECT_EQ(KEL_TaskAdopt("requester", &taskId_), 0u);
    update_test::Put(request_.scriptFullPath, "/p/run.sh");
    update_test::Put(request_.signaturePath, "/p/sig");
    while (TOLA_GetProcessPidByName("update_active") < 1) std::this_thread::yield();
  }

  /// Next request that the executor got; its sequence number.
  static uint16_t Take(Request& request) {
    const CompMsg got = AtExecutor().Take();
    EXPECT_EQ(got.id, kMsgExeUpdateScript);
    EXPECT_EQ(got.source, kRequester);
    update_test::Parse(got, request);
    return got.seqNo;
  }
  static void Reply(uint32_t taskId, uint16_t seqNo, uint16_t result) {
    TolaCmpMsg::TolaMsgExeUpdateScriptAckData reply;
    reply.requesterTaskId = taskId;
    reply.result = result;
    EXPECT_EQ(SendRecord(kScriptExeCompId, kRequester, kMsgExeUpdateScriptAck, seqNo, reply), 0u);
  }
  static void AskWhetherToRun(uint32_t taskId, uint16_t seqNo) {
    Question question;
    question.requesterTaskId = taskId;
    EXPECT_EQ(SendRecord(kScriptExeCompId, kRequester, kMsgUpdateAuth, seqNo, question), 0u);
  }
  /// Takes the request, asks for its authorisation and expects `answer`; gives the request's sequence number.
  static uint16_t TakeAndAsk(Request& request, char answer) {
    const uint16_t seqNo = Take(request);
    AskWhetherToRun(request.requesterTaskId, seqNo);
    const CompMsg got = AtExecutor().Take();
    EXPECT_EQ(got.id, kMsgUpdateAuthAck);
    EXPECT_EQ(got.seqNo, seqNo);
    EXPECT_EQ(got.data, std::string(4, '\0') + answer + '\0');
    return seqNo;
  }

  support::NamedProcess process_{"update_active"};
  uint32_t taskId_ = 0;
  Request request_;
};

TEST_F(ProxyTest, TheRepliedResultIsReturnedAndAStaleReplyIsNot) {
  uint16_t lastSeqNo = 0;
  for (const uint16_t result : {uint16_t{0}, uint16_t{50994}}) {
    ASSERT_EQ(KEL_EventWrite(taskId_, 1), 0u);  // a reply to a request that was given up
    auto executor = std::async(std::launch::async, [&] {
      Request got;
      const uint16_t seqNo = Take(got);
      EXPECT_EQ(got.requesterTaskId, taskId_);
      EXPECT_EQ(got.cpuLimit, 35);
      EXPECT_STREQ(got.signaturePath.c_str(), "/p/sig");
      EXPECT_NE(seqNo, 0);
      EXPECT_NE(seqNo, lastSeqNo) << "the executor would answer from its record";
      // Late messages for a request before it, of a task that had the same id.
      Reply(got.requesterTaskId, static_cast<uint16_t>(seqNo - 1), 77);
      AskWhetherToRun(got.requesterTaskId, lastSeqNo);
      lastSeqNo = seqNo;
      Reply(got.requesterTaskId, seqNo, result);
    });
    EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 35), result);
    executor.get();
  }
  EXPECT_EQ(Logged("late seq:"), 4) << "the result of a request before it was taken for this one's";
  uint32_t events = 0;
  const uint8_t cut[] = {static_cast<uint8_t>(taskId_), 0, 0, 0, 0};
  EXPECT_NE(ProcUpdateExeScriptReplyMsg(cut, sizeof(cut)), 0u);
  EXPECT_NE(ProcUpdateAuthReqMsg(cut, 3, 1), 0u);
  EXPECT_EQ(KEL_EventRead(3, &events, kKelEventAny, 0), kKelErrTimeout) << "a cut reply reads as success";
}

TEST_F(ProxyTest, AnAuthorisationIsGrantedOnlyWhenItWasAnnounced) {
  auto executor = std::async(std::launch::async, [] {
    Request got;
    const uint16_t seqNo = TakeAndAsk(got, 0);
    EXPECT_STREQ(got.signaturePath.c_str(), "") << "the executor would verify instead of asking";
    for (int i = 0; i < 40; ++i) {  // longer than the wait for the question, shorter than that for the result
      KEL_ClockAdvanceMs(15000);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // lets the proxy come back to its wait
    }
    Reply(got.requesterTaskId, seqNo, 37);
    (void)TakeAndAsk(got, 1);
  });
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, true, 0), 37u);
  EXPECT_EQ(Logged("timeout,resend"), 0);
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 0), 0u)
      << "kept: refused, and success for the caller";
}

TEST_F(ProxyTest, SilenceIsAnsweredByOneRepeatOfTheSameRequestAndThenGivenUp) {
  std::atomic<bool> done = false;
  auto time = std::async(std::launch::async, [&] {
    while (!done) {
      KEL_ClockAdvanceMs(1200000);
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 0), kExeErrTimeout);
  done = true;
  time.get();
  Request got;
  const uint16_t first = Take(got);
  EXPECT_EQ(Take(got), first) << "the executor would run the script a second time";
  EXPECT_EQ(AtExecutor().Size(), 0u);
}

TEST_F(ProxyTest, ARequestThatNobodyTakesIsTriedElevenTimesASecondApart) {
  CompAddr executor{};
  CompManagerImpl& manager = CompManagerImpl::GetInstance();
  ASSERT_EQ(manager.GetCompAddr(kScriptExeCompId, executor), 0u);
  ASSERT_EQ(manager.EraseItemFromCsiTable(kScriptExeCompId), 0u);
  const uint64_t start = KEL_ClockMonotonicNs();
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 0), 18705u);
  EXPECT_EQ((KEL_ClockMonotonicNs() - start) / 1000000000u, 10u);
  EXPECT_EQ(Logged("send qeq fail 18705,12"), 1);
  EXPECT_EQ(manager.CompImport(kScriptExeCompId, executor.typeId), 0u);
}

}  // namespace
