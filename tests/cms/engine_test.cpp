// The engine's operations one by one: buffers, steps, and revocation lists by themselves.
#include "base/owners.h"
#include "cms_fixture.h"

namespace cmstest {
namespace {

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
    WriteFile(dir.File("crl"), list);
    return SigvfyVerifyAddCrlFile(ctx.get(), dir.File("crl").c_str());
  }
  void Fill() { ASSERT_EQ(AddCert(root.Der()) + AddCrl(crl), 0u); }
  uint32_t Begin(const Bytes& signature) {
    return SigvfyVerifyDetachSignatureBegin(ctx.get(), signature.data(), signature.size());
  }
  uint32_t Update(std::string_view data) {
    return SigvfyVerifyDetachSignatureUpdate(ctx.get(), reinterpret_cast<const uint8_t*>(data.data()),
                                             data.size());
  }
  /// Result of the final step, with what it made of a flag that said yes.
  std::pair<uint32_t, uint32_t> Final() {
    uint32_t flag = 1;
    const uint32_t code = SigvfyVerifyDetachSignatureFinal(ctx.get(), &flag);
    return {code, flag};
  }
  uint32_t Decode(const Bytes& file, CrlFilePtr& out) {
    WriteFile(dir.File("lists"), file);
    SigvfyCrl* made = nullptr;
    const uint32_t code = SigvfyDecodeCrlFile(ctx.get(), dir.File("lists").c_str(), &made);
    out.reset(made);
    return code;
  }
  const Bytes good = Sign(text, signer);
  CtxPtr ctx;
};
using Ending = std::pair<uint32_t, uint32_t>;

TEST_F(EngineTest, CertificateBuffers) {
  const Identity second = MakeRoot({.name = "second"});
  Bytes two = root.Der();
  const Bytes der = second.Der();
  two.insert(two.end(), der.begin(), der.end());
  const std::string pem = root.Pem(), noCert = "-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n";
  const std::tuple<const char*, Bytes, uint32_t> rows[] = {
      {"DER after DER", two, 0},
      {"the second DER is cut", Bytes(two.begin(), two.end() - 1), kSigvfyErrDecode},
      {"PEM with its terminator", BytesOf(pem + second.Pem() + std::string(1, '\0')), 0},
      {"the second PEM is cut", BytesOf(pem + second.Pem().substr(0, 60)), kSigvfyErrDecode},
      {"the second PEM is none", BytesOf(pem + noCert), kSigvfyErrDecode},
      {"a private key", BytesOf(pem + PemOf("PRIVATE KEY", der)), kSigvfyErrDecode},
      {"a list", crl, kSigvfyErrDecode},
  };
  const Bytes huge(kSigvfyMaxBuffer + 1, '-');
  for (const auto& [what, bytes, code] : rows) {
    ASSERT_EQ(SigvfyResetCert(ctx.get(), 0) + SigvfyResetCrl(ctx.get()), 0u);
    EXPECT_EQ(AddCert(bytes), code) << what;
    ASSERT_EQ(AddCrl(crl), 0u);
    EXPECT_EQ(Begin(good), code == 0 ? 0 : kSigvfyErrChain) << "half a bad buffer is an anchor: " << what;
  }
  EXPECT_EQ(AddCert(huge), kSigvfyErrTooLong);
  EXPECT_EQ(Begin(huge), kSigvfyErrTooLong);
  EXPECT_THAT(g_lines, testing::Contains(testing::HasSubstr("SigvfyCheckBufLen 88000205")));
}

TEST_F(EngineTest, OnlyWholeStepsGiveAYes) {
  Fill();
  EXPECT_EQ(Final(), Ending(kSigvfyErrState, 0)) << "a verification that was never begun succeeded";
  EXPECT_EQ(Update(text), kSigvfyErrState);
  for (const bool whole : {true, false}) {
    ASSERT_EQ(Begin(good), 0u) << "the stores stay filled between steps";
    for (const char& c : text.substr(whole ? 0 : 1)) ASSERT_EQ(Update({&c, 1}), 0u);
    EXPECT_EQ(Final(), Ending(0, whole ? 1 : 0));
    EXPECT_EQ(Final(), Ending(kSigvfyErrState, 0)) << "one verification gave two results";
  }
  ASSERT_EQ(Begin(good) + Update(text), 0u);
  EXPECT_NE(Begin(BytesOf("garbage")), 0u);
  EXPECT_EQ(Final(), Ending(kSigvfyErrState, 0)) << "a refused signature left the one before it running";

  ASSERT_EQ(SigvfyResetCrl(ctx.get()), 0u);
  EXPECT_EQ(Begin(good), kSigvfyErrUncovered);
}

TEST_F(EngineTest, ListsAreAuthenticatedWithoutRegardToTheirTime) {
  const Identity twin = MakeRoot({.name = "root"}), middle = MakeIntermediate(root, {.name = "middle"});
  const Identity small = MakeRoot({.name = "small", .keyKind = KeyKind::kRsa1024});
  const Identity mute = MakeRoot({.name = "mute", .keyUsage = "critical,keyCertSign"});
  for (const Identity& issuer : {root, small, mute}) ASSERT_EQ(AddCert(issuer.Der()), 0u);
  const std::tuple<const char*, Bytes, uint32_t> rows[] = {
      {"expired, but comparable", MakeCrl(root, {.nextUpdate = Now() - kDay}), 0},
      {"an intermediate's stands by", BytesOf(CrlPem(crl) + CrlPem(MakeCrl(middle))), 0},
      {"an intermediate's alone", MakeCrl({middle.cert, root.key}), kSigvfyErrCrlIssuer},
      {"a stranger's", MakeCrl(MakeRoot()), kSigvfyErrCrlIssuer},
      {"same name, other key", MakeCrl(twin), kSigvfyErrCrlSignature},
      {"weak key", MakeCrl(small), kSigvfyErrCrlSignature},
      {"of one who may not sign lists", MakeCrl(mute), kSigvfyErrCrlSignature},
  };
  CrlFilePtr list;
  for (const auto& [what, bytes, code] : rows) {
    EXPECT_EQ(Decode(bytes, list), code) << what;
    EXPECT_EQ(list == nullptr, code != 0) << what;
  }
  for (size_t i = 0; i < crl.size(); i += 3) {
    Bytes flipped = crl;
    flipped[i] ^= 0x20;
    EXPECT_NE(Decode(flipped, list), 0u) << "byte " << i;
  }
  ASSERT_EQ(AddCert(twin.Der()), 0u);
  EXPECT_EQ(Decode(MakeCrl(twin), list), 0u) << "two issuers of one name: either may have signed";
}

TEST_F(EngineTest, ComparisonOfLists) {
  const Identity extra = MakeRoot({.name = "extra"});
  ASSERT_EQ(AddCert(root.Der()) + AddCert(extra.Der()), 0u);
  const int64_t t = Now() - 10 * kDay;
  const auto at = [&](int64_t time, std::optional<int64_t> number = {}) {
    return MakeCrl(root, {.thisUpdate = time, .number = number});
  };
  const auto pair = [&](int64_t rootTime, int64_t extraTime) {
    return BytesOf(CrlPem(at(rootTime)) + CrlPem(MakeCrl(extra, {.thisUpdate = extraTime})));
  };
  const std::tuple<const char*, Bytes, Bytes, uint32_t> rows[] = {
      {"equal", at(t, 3), at(t, 3), 0},
      {"higher number", at(t, 300), at(t, 9), 1},
      {"a number where there was none", at(t, 1), at(t), 1},
      {"other issuer", MakeCrl(extra, {.thisUpdate = t + 1}), at(t), 0},
      {"one of two later", pair(t + 1, t), pair(t, t), 1},
      {"one later, one earlier", pair(t + 1, t), pair(t, t + 1), 0},
      {"one missing", at(t + 1), pair(t, t), 0},
      {"one more", pair(t + 1, t), at(t), 1},
  };
  for (const auto& [what, one, other, expected] : rows) {
    CrlFilePtr first, second;
    ASSERT_EQ(Decode(one, first) + Decode(other, second), 0u) << what;
    uint32_t newer = 7;
    EXPECT_EQ(SigvfyCompareCrl(first.get(), second.get(), &newer), 0u);
    EXPECT_EQ(newer, expected) << what;
  }
}

}  // namespace
}  // namespace cmstest
