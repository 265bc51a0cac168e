// Which revocation lists cover a signer, and the time by which certificates and lists are judged.
#include "cms/verify_time.h"
#include "cms_fixture.h"
#include "velto/kel_cfg.h"

namespace cmstest {
namespace {

using testpki::CrlPem;
using testpki::kDay;
using testpki::MakeCrl;
using testpki::MakeIntermediate;
using testpki::MakeRoot;
using testpki::MakeSigner;
using testpki::Now;
using testpki::Sign;

class CrlRulesTest : public CmsTest {
 protected:
  Input WithCrl(const Bytes& list) { return {BytesOf(text), Sign(text, signer), list}; }
  /// A signer below the intermediate, with a bundle of lists.
  Input Below(const std::vector<Bytes>& lists) {
    std::string bundle = "a bundle\n";
    for (const Bytes& list : lists) bundle += CrlPem(list);
    return {BytesOf(text), Sign(text, belowSigner, {&middle}), BytesOf(bundle)};
  }

  Identity middle = MakeIntermediate(root, {.name = "middle"});
  Identity belowSigner = MakeSigner(middle);
};

TEST_F(CrlRulesTest, WhatARootIssuedNeedsItsList) {
  EXPECT_ACCEPTED(WithCrl(MakeCrl(root, {.revoked = {1, 2, 3}}))) << "others are revoked";
  EXPECT_ACCEPTED(WithCrl(MakeCrl(root, {.nextUpdate = 0}))) << "a list without an end";
  EXPECT_ACCEPTED(WithCrl(BytesOf(CrlPem(crl)))) << "PEM";
  EXPECT_REFUSED(WithCrl(MakeCrl(root, {.revoked = {1, signer.Serial()}})), kSigvfyErrRevoked);
  EXPECT_REFUSED(WithCrl(MakeCrl(root, {.revoked = {root.Serial()}})), kSigvfyErrRevoked)
      << "the root itself";

  const Identity other = MakeRoot({.name = "other"});
  EXPECT_REFUSED(WithCrl(MakeCrl(other)), kSigvfyErrUncovered);
  const Identity twin = MakeRoot({.name = "root"});
  EXPECT_REFUSED(WithCrl(MakeCrl(twin)), kSigvfyErrCrlSignature) << "same name, other key";
  EXPECT_REFUSED(WithCrl(MakeCrl({root.cert, twin.key})), kSigvfyErrCrlSignature) << "forged";

  const Identity mute = MakeRoot({.name = "mute", .keyUsage = "critical,keyCertSign"});
  testpki::InstallRoot(mute, 1);
  EXPECT_REFUSED((Input{BytesOf(text), Sign(text, MakeSigner(mute)), MakeCrl(mute)}), kSigvfyErrChain)
      << "a certificate that may not sign lists";
}

TEST_F(CrlRulesTest, UnusableListFilesAreRefusedAtOnce) {
  EXPECT_EQ(Verify(WithCrl(MakeCrl(root, {.digest = "SHA1"}))), kSigErrCrl) << "weak signature";
  EXPECT_EQ(Verify(WithCrl(MakeCrl(root, {.number = 2, .deltaBase = 1}))), kSigErrCrl) << "a list of changes";
  EXPECT_EQ(Verify(WithCrl(root.Der())), kSigErrCrl);
  EXPECT_EQ(Verify(WithCrl(BytesOf(root.Pem()))), kSigErrCrl);
  Bytes trailing = crl;
  trailing.push_back(0);
  EXPECT_EQ(Verify(WithCrl(trailing)), kSigErrCrl);
  const std::string good = CrlPem(crl), broken = good.substr(0, good.size() - 40);
  EXPECT_EQ(Verify(WithCrl(BytesOf(good + broken))), kSigErrCrl) << "the second list of a bundle is cut";
  EXPECT_EQ(Verify(WithCrl(BytesOf(good + root.Pem()))), kSigErrCrl) << "something else in a bundle";
}

TEST_F(CrlRulesTest, OnlyAnIntermediateMayLackItsList) {
  const Bytes middleList = MakeCrl(middle, {.number = 1});
  EXPECT_ACCEPTED(Below({crl}));
  EXPECT_ACCEPTED(Below({crl, middleList}));
  EXPECT_REFUSED(Below({middleList}), kSigvfyErrUncovered);
  EXPECT_REFUSED(Below({MakeCrl(root, {.revoked = {middle.Serial()}})}), kSigvfyErrRevoked);
  EXPECT_REFUSED(Below({crl, MakeCrl(middle, {.revoked = {belowSigner.Serial()}})}), kSigvfyErrRevoked);

  const Identity twin = MakeIntermediate(root, {.name = "middle"});
  EXPECT_REFUSED(Below({crl, MakeCrl(twin)}), kSigvfyErrCrlSignature)
      << "a list that is there and does not fit is no missing list";
  EXPECT_REFUSED(Below({crl, MakeCrl(twin, {.keyId = true})}), kSigvfyErrUncovered)
      << "nor is one that names another key of the issuer";
  EXPECT_ACCEPTED(Below({crl, MakeCrl(middle, {.keyId = true})}));
  EXPECT_REFUSED(Below({crl, MakeCrl(middle, {.nextUpdate = Now() - 60})}), kSigvfyErrTime);
}

TEST_F(CrlRulesTest, TheNewestListOfAnIssuerCountsInAnyOrder) {
  const auto bothOrders = [&](const Bytes& a, const Bytes& b, Verdict expected, const char* what) {
    EXPECT_EQ(Check(Below({a, b})), expected) << what << "\n" << Log();
    EXPECT_EQ(Check(Below({b, a})), expected) << what << ", other order\n" << Log();
  };
  const int64_t old = Now() - 10 * kDay;
  bothOrders(MakeCrl(root, {.thisUpdate = old}), MakeCrl(root, {.revoked = {middle.Serial()}}),
             {kSigErrSignature, kSigvfyErrRevoked}, "an older list hid a revocation");
  bothOrders(MakeCrl(root, {.thisUpdate = old, .nextUpdate = Now() + kDay}),
             MakeCrl(root, {.nextUpdate = Now() - 60}), {kSigErrSignature, kSigvfyErrTime},
             "an older current list beat a newer expired one");
  bothOrders(MakeCrl(root, {.thisUpdate = old, .number = 1}),
             MakeCrl(root, {.thisUpdate = old, .number = 2, .revoked = {middle.Serial()}}),
             {kSigErrSignature, kSigvfyErrRevoked}, "the number decides between lists of one date");
  bothOrders(MakeCrl(root, {.thisUpdate = old, .number = 9, .revoked = {middle.Serial()}}),
             MakeCrl(root, {.number = 1}), {0, 0}, "the date comes before the number");
}

TEST_F(CrlRulesTest, ExpiredListsAreEnforcedOnlyWhenConfigured) {
  const Input expired = WithCrl(MakeCrl(root, {.nextUpdate = Now() - 60}));
  EXPECT_REFUSED(expired, kSigvfyErrTime);

  testpki::WriteFile(dir.File("cfg"), std::string_view("feature.expired_crl=enforce\n"));
  ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.File("cfg").c_str()), 0u);
  EXPECT_ACCEPTED(expired);
  EXPECT_THAT(g_lines, testing::Contains(testing::StartsWith("5 chain.cpp revocation list expired")));
  EXPECT_REFUSED(WithCrl(MakeCrl(root, {.nextUpdate = Now() - 60, .revoked = {signer.Serial()}})),
                 kSigvfyErrRevoked)
      << "an expired list still revokes";
  EXPECT_REFUSED(WithCrl(MakeCrl(root, {.thisUpdate = Now() + 60})), kSigvfyErrTime)
      << "not yet valid is no expiry";
  EXPECT_REFUSED(SignedBy(MakeSigner(root, {.notAfter = Now() - 60})), kSigvfyErrTime)
      << "certificates expire anyway";

  testpki::WriteFile(dir.File("cfg"), std::string_view("feature.expired_crl=refuse\n"));
  ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.File("cfg").c_str()), 0u);
  EXPECT_REFUSED(expired, kSigvfyErrTime);
}

class VerifyTimeTest : public CrlRulesTest {
 protected:
  void ClockAt(int64_t seconds) {
    KEL_ClockModeSet(kKelClockManual);
    KEL_ClockWallSetNs(static_cast<uint64_t>(seconds) * 1000000000u);
  }
  Input MadeAt(int64_t from, int64_t to) {
    const Identity ca =
        MakeRoot({.name = "timed root", .notBefore = from - 1000 * kDay, .notAfter = to + 1000 * kDay});
    testpki::InstallRoot(ca);
    const Identity by = MakeSigner(ca, {.notBefore = from, .notAfter = to});
    return {BytesOf(text), Sign(text, by), MakeCrl(ca, {.thisUpdate = from, .nextUpdate = to})};
  }
};

TEST_F(VerifyTimeTest, ValidityIncludesBothItsEnds) {
  for (const int64_t from : {cms::BuildDateSeconds() + 100 * kDay, int64_t{3000000000}}) {  // also in 2065
    const int64_t to = from + 100 * kDay;
    const Input input = MadeAt(from, to);
    for (const int64_t at : {from - 1, from, to, to + 1}) {
      ClockAt(at);
      const Verdict expected =
          at < from || at > to ? Verdict{kSigErrSignature, kSigvfyErrTime} : Verdict{0, 0};
      EXPECT_EQ(Check(input), expected) << at - from << "\n" << Log();
    }
  }
}

TEST_F(VerifyTimeTest, EveryCertificateOfTheChainMustBeInItsTime) {
  const Identity oldRoot = MakeRoot({.name = "old root", .notAfter = Now() - 60});
  testpki::InstallRoot(oldRoot, 1);
  EXPECT_REFUSED((Input{BytesOf(text), Sign(text, MakeSigner(oldRoot)), MakeCrl(oldRoot)}), kSigvfyErrTime);

  const Identity oldMiddle = MakeIntermediate(root, {.name = "renewed", .notAfter = Now() - 60});
  const Identity by = MakeSigner(oldMiddle);
  EXPECT_REFUSED((Input{BytesOf(text), Sign(text, by, {&oldMiddle}), crl}), kSigvfyErrTime);
  const Identity newMiddle = testpki::MakeCertForKey(root, {.name = "renewed", .isCa = true}, oldMiddle.key);
  EXPECT_ACCEPTED((Input{BytesOf(text), Sign(text, by, {&oldMiddle, &newMiddle}), crl}))
      << "the expired certificate hid the renewed one";
}

TEST_F(VerifyTimeTest, AClockBeforeTheBuildNeitherBlocksNorUnlocks) {
  const int64_t build = cms::BuildDateSeconds();
  ClockAt(1000);
  EXPECT_EQ(cms::CurrentVerifyTime().now, build);
  EXPECT_ACCEPTED(MadeAt(build - 10 * kDay, build + 10 * kDay));
  EXPECT_ACCEPTED(MadeAt(build + 10 * kDay, build + 20 * kDay))
      << "an update made after the build was blocked";
  EXPECT_REFUSED(MadeAt(build - 20 * kDay, build - 10 * kDay), kSigvfyErrTime)
      << "the clock unlocked an old update";
  ClockAt(build);
  EXPECT_REFUSED(MadeAt(build + 10 * kDay, build + 20 * kDay), kSigvfyErrTime);
}

}  // namespace
}  // namespace cmstest
