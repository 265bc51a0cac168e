#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <optional>

#include "component_bench.h"
#include "frame/sys_res_get.h"
#include "msg/msg_interface_public.h"
#include "update/exe_script_proxy.h"
#include "update/script_exe_messages.h"
#include "update/send_record.h"
#include "update_fixture.h"
#include "velto/kel_task.h"

namespace {

using TolaCmpMsg::TolaMsgExeUpdateScriptData;
using update_test::Received;

constexpr uint32_t kRequester = 4150;
using Executor = update_test::Mailbox<kScriptExeCompId>;

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

/// A process named update_active that does nothing.
class SleepingProcess {
 public:
  SleepingProcess() : program_(dir_.File("update_active")) {
    std::filesystem::copy_file("/bin/sleep", program_);
    pid_ = fork();
    if (pid_ == 0) {
      execl(program_.c_str(), "update_active", "600", nullptr);
      _exit(127);
    }
    while (TOLA_GetProcessPidByName("update_active") < 1) std::this_thread::yield();
  }
  ~SleepingProcess() {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }

 private:
  support::TempDir dir_;
  std::string program_;
  pid_t pid_ = -1;
};

class ProxyTest : public update_test::UpdateTest {
 protected:
  ProxyTest() {
    EXPECT_EQ(KEL_TaskAdopt("requester", &taskId_), 0u);
    EXPECT_EQ(request_.SetScriptFullPath("/p/run.sh", 9), 0u);
    EXPECT_EQ(request_.SetSignaturePath("/p/sig", 6), 0u);
  }

  static void Start(bool withExecutor = true) {
    std::vector<update_test::TestComponent> components = {{kRequester, RequesterEntry}};
    if (withExecutor) components.push_back({kScriptExeCompId, Executor::Entry});
    update_test::StartComponents(components);
  }
  /// Next request that the executor got; `seqNo` is its sequence number.
  static void Take(TolaMsgExeUpdateScriptData& request, uint16_t& seqNo) {
    const Received got = Executor::Next();
    EXPECT_EQ(got.id, kMsgExeUpdateScript);
    EXPECT_EQ(got.source, kRequester);
    EXPECT_EQ(request.ParseFromMsg(got.data.data(), static_cast<uint32_t>(got.data.size())), 0u);
    seqNo = got.seqNo;
  }
  static void Reply(uint32_t taskId, uint16_t seqNo, uint16_t result) {
    TolaCmpMsg::TolaMsgExeUpdateScriptAckData reply;
    reply.requesterTaskId = taskId;
    reply.result = result;
    EXPECT_EQ(SendRecord(kScriptExeCompId, kRequester, kMsgExeUpdateScriptAck, seqNo, reply), 0u);
  }
  /// Takes the request, asks for its authorisation and expects `answer`; gives the request's sequence number.
  static uint16_t AskForAuthorisation(TolaMsgExeUpdateScriptData& request,
                                      std::vector<unsigned char> answer) {
    uint16_t seqNo = 0;
    Take(request, seqNo);
    TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData ask;
    ask.requesterTaskId = request.requesterTaskId;
    EXPECT_EQ(SendRecord(kScriptExeCompId, kRequester, kMsgUpdateAuth, seqNo, ask), 0u);
    const Received got = Executor::Next();
    EXPECT_EQ(got.id, kMsgUpdateAuthAck);
    EXPECT_EQ(got.seqNo, seqNo);
    EXPECT_EQ(got.data, answer);
    return seqNo;
  }

  std::optional<SleepingProcess> process_{std::in_place};
  uint32_t taskId_ = 0;
  TolaMsgExeUpdateScriptData request_;
};

TEST_F(ProxyTest, TheRepliedResultIsReturnedAndAStaleReplyIsNot) {
  Start();
  uint16_t lastSeqNo = 0;
  for (const uint16_t result : {uint16_t{0}, uint16_t{50994}}) {
    ASSERT_EQ(KEL_EventWrite(taskId_, 1), 0u);  // a reply to a request that was given up
    auto executor = std::async(std::launch::async, [&] {
      TolaMsgExeUpdateScriptData got;
      uint16_t seqNo = 0;
      Take(got, seqNo);
      EXPECT_EQ(got.requesterTaskId, taskId_);
      EXPECT_EQ(got.cpuLimit, 35);
      EXPECT_STREQ(got.signaturePath.c_str(), "/p/sig");
      EXPECT_NE(seqNo, 0);
      EXPECT_NE(seqNo, lastSeqNo) << "the executor would answer from its record";
      // Late messages for a request before it, of a task that had the same id.
      Reply(got.requesterTaskId, static_cast<uint16_t>(seqNo - 1), 77);
      TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData late;
      late.requesterTaskId = got.requesterTaskId;
      EXPECT_EQ(SendRecord(kScriptExeCompId, kRequester, kMsgUpdateAuth, lastSeqNo, late), 0u);
      lastSeqNo = seqNo;
      Reply(got.requesterTaskId, seqNo, result);
    });
    EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 35), result);
    executor.get();
  }
  EXPECT_EQ(ExeScriptProxy(kRequester, nullptr, false, 0), 1u);
}

TEST_F(ProxyTest, AnAnnouncedAuthorisationIsGrantedAndTheResultAwaited) {
  Start();
  auto executor = std::async(std::launch::async, [] {
    TolaMsgExeUpdateScriptData got;
    const uint16_t seqNo = AskForAuthorisation(got, {0, 0, 0, 0, 0, 0});
    EXPECT_STREQ(got.signaturePath.c_str(), "") << "the executor would verify instead of asking";
    for (int i = 0; i < 40; ++i) {  // longer than the wait for the question, shorter than that for the result
      KEL_ClockAdvanceMs(15000);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // lets the proxy come back to its wait
    }
    Reply(got.requesterTaskId, seqNo, 37);
  });
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, true, 0), 37u);
  EXPECT_EQ(Logged("timeout,resend"), 0u);
}

TEST_F(ProxyTest, AnUnannouncedAuthorisationIsRefused) {
  Start();
  auto executor = std::async(std::launch::async, [] {
    TolaMsgExeUpdateScriptData got;
    (void)AskForAuthorisation(got, {0, 0, 0, 0, 1, 0});
  });
  EXPECT_EQ(ExeScriptProxy(kRequester, &request_, false, 0), 0u);
}

TEST_F(ProxyTest, SilenceIsAnsweredByOneRepeatOfTheSameRequestAndThenGivenUp) {
  Start();
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
  uint16_t first = 0;
  uint16_t second = 0;
  TolaMsgExeUpdateScriptData got;
  Take(got, first);
  Take(got, second);
  EXPECT_EQ(first, second) << "the executor would run the script a second time";
  EXPECT_EQ(Executor::Waiting(), 0u);
  EXPECT_EQ(Logged("timeout,resend=0") + 2 * Logged("timeout,resend=1"), 3u);
}

TEST_F(ProxyTest, RepliesThatCannotBeReadWakeNobody) {
  const uint8_t reply[] = {1, 0, 0, 0, 0};
  EXPECT_NE(ProcUpdateExeScriptReplyMsg(reply, sizeof(reply)), 0u);
  EXPECT_NE(ProcUpdateAuthReqMsg(reply, 3, 1), 0u);
  uint32_t events = 0;
  EXPECT_EQ(KEL_EventRead(3, &events, kKelEventAny, 0), kKelErrTimeout);
}

TEST_F(ProxyTest, ARequestThatNobodyTakesIsTriedElevenTimesASecondApart) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Start(false);
        ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
        const uint64_t start = KEL_ClockMonotonicNs();
        const uint32_t result = ExeScriptProxy(kRequester, &request_, false, 0);
        const auto seconds = static_cast<unsigned>((KEL_ClockMonotonicNs() - start) / 1000000000u);
        fprintf(stderr, "result %u after %u seconds, %zu line", result, seconds,
                Logged("send qeq fail 18705,12"));
        process_.reset();
        update_test::LeaveProcess(dir_, log_);
      },
      ::testing::ExitedWithCode(0), "result 18705 after 10 seconds, 1 line");
}

}  // namespace
