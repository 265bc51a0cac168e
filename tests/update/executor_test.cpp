#include "component_bench.h"
#include "frame/public_file_cfg.h"
#include "support/test_pki.h"
#include "update/exe_script_proxy.h"
#include "update/script_exe_messages.h"
#include "update/scritp_execuotr_comp.h"
#include "update_fixture.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace {

using TolaCmpMsg::TolaMsgExeUpdateScriptAckData;
using TolaCmpMsg::TolaMsgExeUpdateScriptData;
using update_test::ReadFile;
using update_test::Received;
using update_test::SendBytes;
using update_test::Shell;

constexpr uint32_t kRequester = 4150;
constexpr uint32_t kTaskId = 0xA1B2C3D4;
using Replies = update_test::Mailbox<kRequester>;
using Authoriser = update_test::Mailbox<kUpdateAuthCompId>;

/// Sequence numbers that no test of this process had before: the executor remembers results by them.
uint16_t NewSeqNo() {
  static uint16_t last = 0;
  return ++last;
}

/// A signed package with a script in it that leaves a line in dir_/ran for each run.
class ExecutorTest : public update_test::UpdateTest {
 protected:
  ExecutorTest() {
    StoredDir() = dir_.path();
    SetCfgCallBackFunc(
        [](const char* name) {
          static std::string path;
          path = StoredDir() + strrchr(name, '/');
          return path.c_str();
        },
        nullptr);
    TOLA_EnableSignatureVerificationLite(0x00020001);
    testpki::ClearRoots();
    testpki::InstallRoot(Pki().root);
    Script("material/run.sh", "# FeatureID=5\necho \"$*\" >> " + dir_.File("ran") + "; echo OK");
    dir_.Write("material/payload.bin", "new");
    std::filesystem::create_directory(dir_.File("sig"));
    Shell("tar -C " + dir_.File("material") + " -czf " + package_ + " run.sh payload.bin");
    Sign();
  }
  ~ExecutorTest() override {
    testpki::ClearRoots();
    SetCfgCallBackFunc(nullptr, nullptr);
  }

  static testpki::SmallPki& Pki() {
    static testpki::SmallPki pki;
    return pki;
  }
  static std::string& StoredDir() {
    static std::string dir;
    return dir;
  }
  static void Start() {
    update_test::StartComponents(
        {{kScriptExeCompId, TOLA_ScriptExeCompMsgProc, TOLA_ScriptExeCompConstructor},
         {kRequester, Replies::Entry},
         {kUpdateAuthCompId, Authoriser::Entry}});
  }

  void Sign() const {
    std::string list = "FileNum=2\n";
    for (const std::string& file : {package_, dir_.File("material/run.sh")}) {
      char digest[kDigestText];
      ASSERT_EQ(CalcFileHashStr(file.c_str(), digest, sizeof(digest)), 0u);
      list += "FileName=any\nSHA256-Digest=" + std::string(digest) + "\n";
    }
    testpki::WriteFile(dir_.File("sig/list.txt"), list);
    testpki::WriteFile(dir_.File("sig/list.cms"), testpki::Sign(list, Pki().signer));
    testpki::WriteFile(dir_.File("sig/list.crl"), Pki().crl);
  }

  /// A request with the fields that are not null.
  void Fill(TolaMsgExeUpdateScriptData& request, const char* signaturePath) const {
    request.requesterTaskId = kTaskId;
    const std::string script = dir_.File("run.sh");
    ASSERT_EQ(request.SetScriptFullPath(script.c_str(), static_cast<uint32_t>(script.size())), 0u);
    ASSERT_EQ(request.SetUpdateFileFullPath(package_.c_str(), static_cast<uint32_t>(package_.size())), 0u);
    if (signaturePath == nullptr) return;
    const std::string directory = signaturePath;
    ASSERT_EQ(request.SetSignaturePath(directory.c_str(), static_cast<uint32_t>(directory.size())), 0u);
    ASSERT_EQ(request.SetFileListFileName("list.txt", 8), 0u);
    ASSERT_EQ(request.SetSignatureFileName("list.cms", 8), 0u);
    ASSERT_EQ(request.SetSignatureCrlFileName("list.crl", 8), 0u);
  }
  static void Send(TolaMsgExeUpdateScriptData& request, uint16_t seqNo) {
    ASSERT_EQ(SendUpdateExeScriptMsg(kRequester, seqNo, request), 0u);
  }
  void SendSigned(uint16_t seqNo, bool checkFeatureId = false, uint32_t featureId = 0) const {
    TolaMsgExeUpdateScriptData request;
    Fill(request, dir_.File("sig").c_str());
    request.checkFeatureId = checkFeatureId ? 1 : 0;
    request.featureId = featureId;
    Send(request, seqNo);
  }
  void SendForAuthorisation(uint16_t seqNo, const std::string& extend = "") const {
    TolaMsgExeUpdateScriptData request;
    Fill(request, nullptr);
    if (!extend.empty()) {
      ASSERT_EQ(request.SetExtendScriptPara(extend.c_str(), static_cast<uint32_t>(extend.size())), 0u);
    }
    Send(request, seqNo);
  }
  /// The next reply is to `seqNo`; its result.
  static uint32_t ReplyTo(uint16_t seqNo) {
    const Received reply = Replies::Next();
    EXPECT_EQ(reply.id, kMsgExeUpdateScriptAck);
    EXPECT_EQ(reply.source, kScriptExeCompId);
    EXPECT_EQ(reply.seqNo, seqNo);
    TolaMsgExeUpdateScriptAckData record;
    EXPECT_EQ(record.ParseFromMsg(reply.data.data(), static_cast<uint32_t>(reply.data.size())), 0u);
    EXPECT_EQ(record.requesterTaskId, kTaskId);
    return record.result;
  }
  static void ExpectAuthorisationAsked(uint16_t seqNo) {
    const Received asked = Authoriser::Next();
    EXPECT_EQ(asked.id, kMsgUpdateAuth);
    EXPECT_EQ(asked.seqNo, seqNo);
    EXPECT_EQ(asked.data, (std::vector<unsigned char>{0xD4, 0xC3, 0xB2, 0xA1}));
  }
  static void Authorise(uint16_t seqNo, uint16_t result) {
    ASSERT_EQ(SendUpdateAuthReplyMsg(kUpdateAuthCompId, seqNo, result), 0u);
  }
  [[nodiscard]] std::string Ran() const { return ReadFile(dir_.File("ran")); }

  std::string package_ = dir_.File("pkg.tar.gz");
};

TEST_F(ExecutorTest, ASignedUpdateRunsOnceAndItsRepeatGetsTheSameAnswer) {
  Start();
  const uint16_t seqNo = NewSeqNo();
  for (int round = 0; round < 3; ++round) {
    SendSigned(seqNo, true, 5);
    EXPECT_EQ(ReplyTo(seqNo), 0u);
  }
  EXPECT_EQ(Ran(), dir_.File("payload.bin\n")) << "once, with the other file of the package";
  SendSigned(NewSeqNo());
  EXPECT_EQ(ReplyTo(static_cast<uint16_t>(seqNo + 1)), 0u);
  EXPECT_EQ(Ran(), dir_.File("payload.bin\n") + package_ + "\n") << "a script that is there gets the package";
}

TEST_F(ExecutorTest, AScriptWithTooLowAFeatureIdStaysRefusedWhenAskedAgain) {
  Start();
  uint16_t seqNo = 0;
  for (int round = 0; round < 2; ++round) {
    SendSigned(seqNo = NewSeqNo(), true, 6);
    EXPECT_EQ(ReplyTo(seqNo), kExeErrFeatureId) << "round " << round;
  }
  EXPECT_FALSE(Exists("ran"));
  SendSigned(seqNo, true, 5);
  EXPECT_EQ(ReplyTo(seqNo), 0u) << "this refusal is not remembered";
}

TEST_F(ExecutorTest, RequestsWithoutTheirFieldsAreAnsweredAndGarbledOnesAreNot) {
  Start();
  SendBytes(kRequester, kScriptExeCompId, kMsgExeUpdateScript, NewSeqNo(), {1, 2, 3, 4, 5});
  TolaMsgExeUpdateScriptData empty;
  empty.requesterTaskId = kTaskId;
  uint16_t seqNo = NewSeqNo();
  Send(empty, seqNo);
  EXPECT_EQ(ReplyTo(seqNo), kExeErrPara);
  TolaMsgExeUpdateScriptData tooLong;
  Fill(tooLong, std::string(128, 'd').c_str());
  tooLong.signatureCrlFileName.Reset();
  ASSERT_EQ(tooLong.SetSignatureCrlFileName(std::string(128, 'c').c_str(), 128), 0u);
  Send(tooLong, seqNo = NewSeqNo());
  EXPECT_EQ(ReplyTo(seqNo), 17667u);
  EXPECT_EQ(Logged("recvMsg:0x1036,0xa370,5,1"), 1u);
  EXPECT_EQ(Replies::Waiting(), 0u);
}

TEST_F(ExecutorTest, AnAuthorisedUpdateRunsAndARefusedOneDoesNot) {
  Start();
  uint16_t seqNo = NewSeqNo();
  SendForAuthorisation(seqNo);
  ExpectAuthorisationAsked(seqNo);
  Authorise(static_cast<uint16_t>(seqNo + 100), 0);  // somebody else's, ignored
  const uint16_t other = NewSeqNo();
  SendForAuthorisation(other);
  EXPECT_EQ(ReplyTo(other), kExeErrBusy);
  EXPECT_FALSE(Exists("ran"));
  Authorise(seqNo, 0);
  EXPECT_EQ(ReplyTo(seqNo), 0u);
  EXPECT_EQ(Ran(), dir_.File("payload.bin\n"));
  SendForAuthorisation(seqNo = NewSeqNo());
  ExpectAuthorisationAsked(seqNo);
  Authorise(seqNo, 1);
  EXPECT_EQ(ReplyTo(seqNo), kExeErrAuthRefused);
  EXPECT_EQ(Ran(), dir_.File("payload.bin\n")) << "a refused update ran";
  Authorise(seqNo, 0);  // too late to change a mind: nothing is pending
  SendForAuthorisation(seqNo = NewSeqNo(), std::string(128, 'e'));
  EXPECT_EQ(ReplyTo(seqNo), 17665u) << "the pending request keeps 127 characters of the parameter";
  ExpectAuthorisationAsked(seqNo);
}

TEST_F(ExecutorTest, TheAuthorisationPeriodIsThirtySeconds) {
  Start();
  const uint16_t first = NewSeqNo();
  const uint16_t early = NewSeqNo();
  SendForAuthorisation(first);
  ExpectAuthorisationAsked(first);
  for (const uint64_t step : {0u, 30000u}) {
    KEL_ClockAdvanceMs(step);
    SendForAuthorisation(early);
    EXPECT_EQ(ReplyTo(early), kExeErrBusy) << "after " << step << " ms";
  }
  KEL_ClockAdvanceMs(1);
  const uint16_t second = NewSeqNo();
  SendForAuthorisation(second);
  ExpectAuthorisationAsked(second);
  Authorise(first, 0);  // dropped with its request
  // A garbled reply keeps the executor busy until the period has passed.
  SendBytes(kUpdateAuthCompId, kScriptExeCompId, kMsgUpdateAuthAck, second, {0, 0, 0, 0, 0});
  SendForAuthorisation(early);
  EXPECT_EQ(ReplyTo(early), kExeErrBusy);
  KEL_ClockAdvanceMs(30001);
  Authorise(second, 0);
  EXPECT_EQ(ReplyTo(second), kExeErrTimeout);
  EXPECT_FALSE(Exists("ran"));
  EXPECT_EQ(Replies::Waiting(), 0u);
}

TEST_F(ExecutorTest, RequestZeroFindsAFreeSlotOfAFreshExecutorAndRunsNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Start();
        SendSigned(0);
        fprintf(stderr, "result %u, ran %d", ReplyTo(0), Exists("ran"));
        update_test::LeaveProcess(dir_, log_);
      },
      ::testing::ExitedWithCode(0), "result 0, ran 0");
}

}  // namespace
