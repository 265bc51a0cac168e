// The engine's operations one by one: arguments, steps, and revocation lists by themselves.
#include "base/owners.h"
#include "cms_fixture.h"

namespace cmstest {
namespace {

using testpki::CrlPem;
using testpki::CrlSpec;
using testpki::kDay;
using testpki::MakeCrl;
using testpki::MakeIntermediate;
using testpki::MakeRoot;
using testpki::Now;
using testpki::Sign;

using CtxPtr = base::UniqueC<SigvfyCtx, SigvfyVrfCtxFree>;
using CrlFilePtr = base::UniqueC<SigvfyCrl, SigvfyFreeCrl>;

class EngineTest : public CmsTest {
 protected:
  EngineTest() {
    const SIGVFY_CTX_PARAM_S param = {.size = 68, .reserved = {}};
    SigvfyCtx* made = nullptr;
    EXPECT_EQ(SigvfyVerifyCreateCtx(&made, &param), 0u);
    ctx.reset(made);
  }
  uint32_t AddCert(const Bytes& bytes) { return SigvfyVerifyAddCert(ctx.get(), bytes.data(), bytes.size()); }
  uint32_t AddCrl(const Bytes& list) {
    testpki::WriteFile(dir.File("crl"), list);
    return SigvfyVerifyAddCrlFile(ctx.get(), dir.File("crl").c_str());
  }
  void Fill() {
    ASSERT_EQ(AddCert(root.Der()), 0u);
    ASSERT_EQ(AddCrl(crl), 0u);
  }
  uint32_t Begin(const Bytes& signature) {
    return SigvfyVerifyDetachSignatureBegin(ctx.get(), signature.data(), signature.size());
  }
  uint32_t Update(std::string_view data) {
    return SigvfyVerifyDetachSignatureUpdate(ctx.get(), reinterpret_cast<const uint8_t*>(data.data()),
                                             data.size());
  }
  uint32_t Final(uint32_t& result) { return SigvfyVerifyDetachSignatureFinal(ctx.get(), &result); }
  uint32_t Decode(const Bytes& file, CrlFilePtr& out) {
    testpki::WriteFile(dir.File("lists"), file);
    SigvfyCrl* made = nullptr;
    const uint32_t code = SigvfyDecodeCrlFile(ctx.get(), dir.File("lists").c_str(), &made);
    out.reset(made);
    return code;
  }
  CtxPtr ctx;
};

TEST_F(EngineTest, ArgumentsAreChecked) {
  SIGVFY_CTX_PARAM_S param = {.size = 67, .reserved = {}};
  SigvfyCtx* made = nullptr;
  EXPECT_EQ(SigvfyVerifyCreateCtx(&made, &param), kSigvfyErrSize);
  EXPECT_EQ(made, nullptr);
  EXPECT_EQ(SigvfyVerifyCreateCtx(nullptr, &param), kSigvfyErrArgument);
  EXPECT_EQ(SigvfyVerifyCreateCtx(&made, nullptr), kSigvfyErrArgument);
  SigvfyVrfCtxFree(nullptr);

  const Bytes huge(kSigvfyMaxBuffer + 1, '-');
  EXPECT_EQ(SigvfyVerifyAddCert(ctx.get(), nullptr, 5), kSigvfyErrArgument);
  EXPECT_EQ(SigvfyVerifyAddCert(ctx.get(), huge.data(), 0), kSigvfyErrArgument);
  EXPECT_EQ(SigvfyVerifyAddCert(nullptr, huge.data(), 5), kSigvfyErrArgument);
  EXPECT_EQ(AddCert(huge), kSigvfyErrTooLong);
  EXPECT_THAT(g_lines, testing::Contains(testing::HasSubstr("SigvfyCheckBufLen 88000205")));
  EXPECT_EQ(Begin(huge), kSigvfyErrTooLong);
  EXPECT_EQ(SigvfyVerifyAddCrlFile(ctx.get(), nullptr), kSigvfyErrArgument);
  EXPECT_EQ(SigvfyResetCert(ctx.get(), 1), kSigvfyErrArgument);

  uint32_t result = 7;
  EXPECT_EQ(SigvfyVerifyDetachSignatureQuick(ctx.get(), nullptr, "x", &result), kSigvfyErrArgument);
  EXPECT_THAT(g_lines,
              testing::Contains(testing::HasSubstr("InternalCheckParamVerifyDetachSignatureQuick 88100001")));
  EXPECT_EQ(result, 7u) << "a missing argument must leave the caller's flag alone";
  EXPECT_EQ(SigvfyVerifyDetachSignatureQuick(ctx.get(), "x", "x", nullptr), kSigvfyErrArgument);
}

TEST_F(EngineTest, CertificateBuffers) {
  const Identity second = MakeRoot({.name = "second"});
  Bytes two = root.Der();
  const Bytes der = second.Der();
  two.insert(two.end(), der.begin(), der.end());
  EXPECT_EQ(AddCert(two), 0u) << "DER after DER";
  two.pop_back();
  EXPECT_EQ(AddCert(two), kSigvfyErrDecode);
  EXPECT_EQ(AddCert(BytesOf(root.Pem() + second.Pem() + std::string(1, '\0'))), 0u)
      << "PEM with its terminator";
  EXPECT_EQ(AddCert(BytesOf(root.Pem() + second.Pem().substr(0, 60))), kSigvfyErrDecode)
      << "the second is cut";
  EXPECT_EQ(AddCert(BytesOf(root.Pem() + testpki::PemOf("PRIVATE KEY", der))), kSigvfyErrDecode);
  EXPECT_EQ(AddCert(crl), kSigvfyErrDecode);

  ASSERT_EQ(SigvfyResetCert(ctx.get(), 0), 0u);
  EXPECT_EQ(AddCert(BytesOf(root.Pem() + "-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n")),
            kSigvfyErrDecode);
  ASSERT_EQ(AddCrl(crl), 0u);
  EXPECT_EQ(Begin(Sign(text, signer)), kSigvfyErrChain) << "the good half of a bad buffer became an anchor";
}

TEST_F(EngineTest, StepsVerifyPieceByPiece) {
  Fill();
  uint32_t result = 9;
  ASSERT_EQ(Begin(Sign(text, signer)), 0u) << Log();
  for (const char c : text) ASSERT_EQ(Update(std::string_view(&c, 1)), 0u);
  EXPECT_EQ(Final(result), 0u);
  EXPECT_EQ(result, 1u);

  ASSERT_EQ(Begin(Sign(text, signer)), 0u) << "the stores stay filled between steps";
  ASSERT_EQ(Update(text.substr(1)), 0u);
  EXPECT_EQ(Final(result), 0u);
  EXPECT_EQ(result, 0u);
}

TEST_F(EngineTest, NoStepsNoSuccess) {
  Fill();
  uint32_t result = 1;
  EXPECT_EQ(Final(result), kSigvfyErrState);
  EXPECT_EQ(result, 0u) << "a verification that was never begun succeeded";
  EXPECT_EQ(Update(text), kSigvfyErrState);

  ASSERT_EQ(Begin(Sign(text, signer)) + Update(text), 0u);
  EXPECT_NE(Begin(BytesOf("garbage")), 0u);
  result = 1;
  EXPECT_EQ(Final(result), kSigvfyErrState) << "a refused signature left the one before it running";
  EXPECT_EQ(result, 0u);

  ASSERT_EQ(Begin(Sign(text, signer)) + Update(text) + Final(result), 0u);
  EXPECT_EQ(Final(result), kSigvfyErrState) << "one verification gave two results";
  EXPECT_EQ(result, 0u);
}

TEST_F(EngineTest, WhatEmptiesWhichStore) {
  Fill();
  const SIGNATURE_VERIFY_BLOCK_S request = Request(Good());
  for (const bool full : {true, false}) {
    uint32_t result = 7;
    EXPECT_EQ(
        SigvfyVerifyDetachSignatureQuick(ctx.get(), request.contentPath, request.signaturePath, &result),
        full ? 0 : kSigvfyErrChain);
    EXPECT_EQ(result, full ? 1u : 0u);
  }
  Fill();
  ASSERT_EQ(SigvfyResetCrl(ctx.get()), 0u);
  EXPECT_EQ(Begin(Sign(text, signer)), kSigvfyErrUncovered);
  ASSERT_EQ(SigvfyResetCert(ctx.get(), 0), 0u);
  ASSERT_EQ(AddCrl(crl), 0u);
  EXPECT_EQ(Begin(Sign(text, signer)), kSigvfyErrChain);
}

TEST_F(EngineTest, ListsAreAuthenticatedWithoutRegardToTheirTime) {
  ASSERT_EQ(AddCert(root.Der()), 0u);
  CrlFilePtr list;
  EXPECT_EQ(Decode(crl, list), 0u) << Log();
  EXPECT_EQ(Decode(MakeCrl(root, {.nextUpdate = Now() - kDay}), list), 0u)
      << "an expired list must stay comparable";

  const Identity other = MakeRoot({.name = "other"}), twin = MakeRoot({.name = "root"});
  EXPECT_EQ(Decode(MakeCrl(other), list), kSigvfyErrCrlIssuer);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(Decode(MakeCrl(twin), list), kSigvfyErrCrlSignature);
  EXPECT_EQ(Decode(MakeCrl(root, {.digest = "SHA1"}), list), kSigvfyErrCrlSignature);
  EXPECT_EQ(Decode(BytesOf("no list"), list), kSigvfyErrDecode);
  for (size_t i = 0; i < crl.size(); i += 3) {
    Bytes flipped = crl;
    flipped[i] ^= 0x20;
    EXPECT_NE(Decode(flipped, list), 0u) << "byte " << i;
  }

  ASSERT_EQ(AddCert(twin.Der()), 0u);
  EXPECT_EQ(Decode(MakeCrl(twin), list), 0u) << "two issuers of one name: either may have signed";
  const Identity middle = MakeIntermediate(root, {.name = "middle"});
  EXPECT_EQ(Decode(BytesOf(CrlPem(crl) + CrlPem(MakeCrl(middle))), list), 0u)
      << "an intermediate's list may stand by";
  EXPECT_EQ(Decode(BytesOf(CrlPem(MakeCrl({middle.cert, root.key}))), list), kSigvfyErrCrlIssuer);

  const Identity small = MakeRoot({.name = "small", .keyKind = testpki::KeyKind::kRsa1024});
  const Identity mute = MakeRoot({.name = "mute", .keyUsage = "critical,keyCertSign"});
  ASSERT_EQ(AddCert(small.Der()), 0u);
  ASSERT_EQ(AddCert(mute.Der()), 0u);
  EXPECT_EQ(Decode(MakeCrl(small), list), kSigvfyErrCrlSignature) << "weak key";
  EXPECT_EQ(Decode(MakeCrl(mute), list), kSigvfyErrCrlSignature) << "may not sign lists";
}

TEST_F(EngineTest, ComparisonOfLists) {
  const Identity extra = MakeRoot({.name = "extra"});
  ASSERT_EQ(AddCert(root.Der()), 0u);
  ASSERT_EQ(AddCert(extra.Der()), 0u);
  const int64_t t = Now() - 10 * kDay;
  const auto single = [&](const CrlSpec& spec) { return MakeCrl(root, spec); };
  const auto pair = [&](int64_t rootTime, int64_t extraTime) {
    return BytesOf(CrlPem(MakeCrl(root, {.thisUpdate = rootTime})) +
                   CrlPem(MakeCrl(extra, {.thisUpdate = extraTime})));
  };
  const std::tuple<const char*, Bytes, Bytes, uint32_t> rows[] = {
      {"later", single({.thisUpdate = t + 1}), single({.thisUpdate = t}), 1},
      {"earlier", single({.thisUpdate = t}), single({.thisUpdate = t + 1}), 0},
      {"equal", single({.thisUpdate = t, .number = 3}), single({.thisUpdate = t, .number = 3}), 0},
      {"higher number", single({.thisUpdate = t, .number = 300}), single({.thisUpdate = t, .number = 9}), 1},
      {"lower number", single({.thisUpdate = t, .number = 9}), single({.thisUpdate = t, .number = 300}), 0},
      {"date before number", single({.thisUpdate = t, .number = 9}),
       single({.thisUpdate = t - 1, .number = 10}), 1},
      {"a number where there was none", single({.thisUpdate = t, .number = 1}), single({.thisUpdate = t}), 1},
      {"other issuer", MakeCrl(extra, {.thisUpdate = t + 1}), single({.thisUpdate = t}), 0},
      {"expired but later", single({.thisUpdate = t, .nextUpdate = t + 1}), single({.thisUpdate = t - 1}), 1},
      {"one of two later", pair(t + 1, t), pair(t, t), 1},
      {"one later, one earlier", pair(t + 1, t), pair(t, t + 1), 0},
      {"one missing", single({.thisUpdate = t + 1}), pair(t, t), 0},
      {"one more", pair(t + 1, t), single({.thisUpdate = t}), 1},
  };
  for (const auto& [what, one, other, expected] : rows) {
    CrlFilePtr first, second;
    ASSERT_EQ(Decode(one, first) + Decode(other, second), 0u) << what << "\n" << Log();
    uint32_t newer = 7;
    EXPECT_EQ(SigvfyCompareCrl(first.get(), second.get(), &newer), 0u);
    EXPECT_EQ(newer, expected) << what;
    EXPECT_EQ(SigvfyCompareCrl(first.get(), nullptr, &newer), kSigvfyErrArgument);
  }
}

}  // namespace
}  // namespace cmstest
