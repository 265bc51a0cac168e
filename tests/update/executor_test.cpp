#include "component_bench.h"
#include "update/exe_script_proxy.h"
#include "update/script_record.h"
#include "update/scritp_execuotr_comp.h"
#include "velto/kel_clock.h"
#include "verify/verify_fixture.h"

namespace {

using support::CompMsg;
using support::NewCompMsg;
using update_test::kRequester;
using update_test::Put;
using verifytest::ReadFile;
using Request = TolaCmpMsg::TolaMsgExeUpdateScriptData;

constexpr uint32_t kTaskId = 0xA1B2C3D4;
constexpr char kUnpacked[] = "payload.bin\n";  ///< what a run leaves behind that got the file of the package

/// Sequence numbers that no test of this process had before: the executor remembers results by them.
uint16_t NewSeqNo() {
  static uint16_t last = 0;
  return ++last;
}

void CheckFeature(Request& request, uint32_t featureId) {
  request.checkFeatureId = 1;
  request.featureId = featureId;
}

/// A signed package with a script in it that leaves a line in dir_/ran for each word it is given.
class ExecutorTest : public verifytest::VerifyTest {
 protected:
  ExecutorTest() {
    KEL_ClockModeSet(kKelClockAutoAdvance);
    const std::string script =
        "#!/bin/sh\n# FeatureID=5\nfor i; do echo \"${i##*/}\" >> " + dir_.File("ran") + "; done; echo OK\n";
    dir_.Write("material/run.sh", script);
    dir_.Write("material/payload.bin", "new");
    const std::string tar = "tar -C " + dir_.File("material") + " -czf " + package_ + " run.sh payload.bin";
    EXPECT_EQ(system(tar.c_str()), 0);
    const std::string list = "FileNum=2\n" + Entry("p", ReadFile(package_)) + Entry("s", script);
    dir_.Write("update/list.txt", list);
    dir_.Write("update/list.cms", Text(testpki::Sign(list, pki_.signer)));
    dir_.Write("update/list.crl", Text(pki_.crl));

    TOLA_COMP_TYPE_S executor = support::CompType(kScriptExeCompId, TOLA_ScriptExeCompMsgProc);
    executor.constructor = TOLA_ScriptExeCompConstructor;
    update_test::StartComponents({executor, support::CompType(kRequester, support::Keep<kRequester>),
                                  support::CompType(kUpdateAuthCompId, support::Keep<kUpdateAuthCompId>)});
  }
  ~ExecutorTest() override { KEL_ClockModeSet(kKelClockReal); }

  /// Asks for the package without its signature, after `change`.
  void Ask(
      uint16_t seqNo, void (*change)(Request&) = [](Request&) {}, bool isSigned = false) const {
    Request request;
    request.requesterTaskId = kTaskId;
    Put(request.scriptFullPath, dir_.File("run.sh"));
    Put(request.updateFileFullPath, package_);
    if (isSigned) {
      Put(request.signaturePath, dir_.File("update"));
      Put(request.fileListFileName, "list.txt");
      Put(request.signatureFileName, "list.cms");
      Put(request.signatureCrlFileName, "list.crl");
    }
    change(request);
    ASSERT_EQ(SendUpdateExeScriptMsg(kRequester, seqNo, request), 0u);
  }
  /// Asks with the signature, after `change`; the result.
  uint32_t AskSigned(
      uint16_t seqNo, void (*change)(Request&) = [](Request&) {}) const {
    Ask(seqNo, change, true);
    return ReplyTo(seqNo);
  }
  /// The next reply is to `seqNo`; its result.
  static uint32_t ReplyTo(uint16_t seqNo) {
    const CompMsg reply = support::Arrived<kRequester>().Take();
    EXPECT_EQ(reply.id, kMsgExeUpdateScriptAck);
    EXPECT_EQ(reply.source, kScriptExeCompId);
    EXPECT_EQ(reply.seqNo, seqNo);
    TolaCmpMsg::TolaMsgExeUpdateScriptAckData record;
    update_test::Parse(reply, record);
    EXPECT_EQ(record.requesterTaskId, kTaskId);
    return record.result;
  }
  /// The sequence number of a request that the authorising component has been asked about.
  uint16_t AskToAuthorise() const {
    const uint16_t seqNo = NewSeqNo();
    Ask(seqNo);
    ExpectAuthorisationAsked(seqNo);
    return seqNo;
  }
  static void ExpectAuthorisationAsked(uint16_t seqNo) {
    const CompMsg asked = support::Arrived<kUpdateAuthCompId>().Take();
    EXPECT_EQ(asked.id, kMsgUpdateAuth);
    EXPECT_EQ(asked.seqNo, seqNo);
    EXPECT_EQ(asked.data, "\xD4\xC3\xB2\xA1");
  }
  static void Authorise(uint16_t seqNo, uint16_t result) {
    ASSERT_EQ(SendUpdateAuthReplyMsg(kUpdateAuthCompId, seqNo, result), 0u);
  }

  [[nodiscard]] std::string Ran() const { return ReadFile(dir_.File("ran")); }

  std::string package_ = dir_.File("pkg.tar.gz");
};

TEST_F(ExecutorTest, ASignedUpdateRunsOnceAndItsRepeatGetsTheSameAnswer) {
  uint16_t saved = 0;
  if (FindScripExeRecord(0, saved)) {  // as in every fresh process
    EXPECT_EQ(AskSigned(0), 0u);
    EXPECT_EQ(Ran(), "") << "kept: request 0 finds a free slot and runs nothing";
  }
  const uint16_t seqNo = NewSeqNo();
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(AskSigned(seqNo, [](Request& request) { CheckFeature(request, 5); }), 0u);
    EXPECT_EQ(Ran(), kUnpacked) << "once, with the other file of the package";
  }
  EXPECT_EQ(AskSigned(NewSeqNo()), 0u);
  EXPECT_EQ(Ran(), kUnpacked + std::string("pkg.tar.gz\n")) << "a script that is there gets the package";
}

TEST_F(ExecutorTest, AScriptWithTooLowAFeatureIdStaysRefusedWhenAskedAgain) {
  uint16_t seqNo = 0;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(AskSigned(seqNo = NewSeqNo(), [](Request& request) { CheckFeature(request, 6); }),
              kExeErrFeatureId);
  }
  EXPECT_EQ(Ran(), "");
  EXPECT_EQ(AskSigned(seqNo, [](Request& request) { CheckFeature(request, 5); }), 0u)
      << "this refusal is not remembered";
}

TEST_F(ExecutorTest, AGarbledRequestIsNotAnsweredAndOneWithTooLongANameIs) {
  void* garbled = NewCompMsg(kRequester, kMsgExeUpdateScript, NewSeqNo(), "12345");
  ASSERT_EQ(TolaCompMsgSend(kScriptExeCompId, garbled), 0u);
  EXPECT_EQ(AskSigned(NewSeqNo(),
                      [](Request& request) {
                        for (auto* name : {&request.signaturePath, &request.signatureCrlFileName}) {
                          name->Reset();
                          Put(*name, std::string(128, 'n'));
                        }
                      }),
            17667u);
  EXPECT_THAT(log_.Lines(), testing::Contains("recvMsg:0x1036,0xa370,5,1"));
}

TEST_F(ExecutorTest, AnAuthorisedUpdateRunsAndARefusedOneDoesNot) {
  uint16_t seqNo = AskToAuthorise();
  Authorise(static_cast<uint16_t>(seqNo + 100), 0);  // somebody else's, ignored
  const uint16_t other = NewSeqNo();
  Ask(other);
  EXPECT_EQ(ReplyTo(other), kExeErrBusy);
  EXPECT_EQ(Ran(), "");
  Authorise(seqNo, 0);
  EXPECT_EQ(ReplyTo(seqNo), 0u);
  EXPECT_EQ(Ran(), kUnpacked);
  seqNo = AskToAuthorise();
  Authorise(seqNo, 1);
  EXPECT_EQ(ReplyTo(seqNo), kExeErrAuthRefused);
  Authorise(seqNo, 0);  // too late to change a mind: nothing is pending
  Ask(seqNo = NewSeqNo(), [](Request& request) { Put(request.extendScriptPara, std::string(128, 'e')); });
  EXPECT_EQ(ReplyTo(seqNo), 17665u) << "the pending request keeps 127 characters of the parameter";
  ExpectAuthorisationAsked(seqNo);
  EXPECT_EQ(Ran(), kUnpacked) << "a refused update ran";
}

TEST_F(ExecutorTest, TheAuthorisationPeriodIsThirtySeconds) {
  const uint16_t first = AskToAuthorise();
  const uint16_t early = NewSeqNo();
  for (const uint64_t step : {0u, 30000u}) {
    KEL_ClockAdvanceMs(step);
    Ask(early);
    EXPECT_EQ(ReplyTo(early), kExeErrBusy) << "after " << step << " ms";
  }
  KEL_ClockAdvanceMs(1);
  const uint16_t second = AskToAuthorise();
  Authorise(first, 0);  // dropped with its request
  // A garbled reply keeps the executor busy until the period has passed.
  ASSERT_EQ(TolaCompMsgSend(kScriptExeCompId,
                            NewCompMsg(kUpdateAuthCompId, kMsgUpdateAuthAck, second, std::string(5, '\0'))),
            0u);
  Ask(early);
  EXPECT_EQ(ReplyTo(early), kExeErrBusy);
  KEL_ClockAdvanceMs(30001);
  Authorise(second, 0);
  EXPECT_EQ(ReplyTo(second), kExeErrTimeout);
  EXPECT_EQ(Ran(), "");
}

}  // namespace
