// Which revocation lists cover a signer, and the time by which certificates and lists are judged.
#include "cms/verify_time.h"
#include "cms_fixture.h"
#include "velto/kel_cfg.h"

namespace cmstest {
namespace {

class CrlRulesTest : public CmsTest {
 protected:
  /// A signer below the intermediate, with a bundle of lists.
  Input Below(const std::vector<Bytes>& lists) const {
    std::string bundle = "a bundle\n";
    for (const Bytes& list : lists) bundle += CrlPem(list);
    return {BytesOf(text), Sign(text, belowSigner, {&middle}), BytesOf(bundle)};
  }

  Identity middle = MakeIntermediate(root, {.name = "middle"});
  Identity belowSigner = MakeSigner(middle);
};

TEST_F(CrlRulesTest, WhatARootIssuedNeedsAUsableListOfIt) {
  const Identity twin = MakeRoot({.name = "root"});
  const std::string good = CrlPem(crl), broken = good.substr(0, good.size() - 40);
  Bytes trailing = crl;
  trailing.push_back(0);
  const std::tuple<const char*, Bytes, Verdict> lists[] = {
      {"released, others revoked", MakeCrl(root, {.revoked = {1, 2}, .released = {signer.Serial()}}),
       kAccepted},
      {"without an end", MakeCrl(root, {.nextUpdate = 0}), kAccepted},
      {"PEM", BytesOf(good), kAccepted},
      {"the signer is revoked", MakeCrl(root, {.revoked = {1, signer.Serial()}}), kRevoked},
      {"released and revoked again",
       MakeCrl(root, {.revoked = {signer.Serial()}, .released = {signer.Serial()}}), kRevoked},
      {"the root itself is revoked", MakeCrl(root, {.revoked = {root.Serial()}}), kRevoked},
      {"of another", MakeCrl(MakeRoot({.name = "other"})), kUncovered},
      {"of one with the same name", MakeCrl(twin), kForgedCrl},
      {"forged", MakeCrl({root.cert, twin.key}), kForgedCrl},
      {"weak signature", MakeCrl(root, {.digest = "SHA1"}), kUnusableCrl},
      {"a list of changes", MakeCrl(root, {.number = 2, .deltaBase = 1}), kUnusableCrl},
      {"for whom nobody can read", MakeCrl(root, {.scope = "critical,DER:0500"}), kUnusableCrl},
      {"a byte behind it", trailing, kUnusableCrl},
      {"the second of a bundle is cut", BytesOf(good + broken), kUnusableCrl},
  };
  for (const auto& [what, list, verdict] : lists) EXPECT_EQ(Check(WithCrl(list)), verdict) << what;

  const Identity mute = MakeRoot({.name = "mute", .keyUsage = "critical,keyCertSign"});
  InstallRoot(mute, 1);
  crl = MakeCrl(mute);
  EXPECT_EQ(Check(SignedBy(MakeSigner(mute))), kNoChain) << "a certificate that may not sign lists";
}

TEST_F(CrlRulesTest, OnlyAnIntermediateMayLackItsList) {
  const Identity twin = MakeIntermediate(root, {.name = "middle"});
  CheckEach({
      {"it lacks", Below({crl}), kAccepted},
      {"it has", Below({crl, MakeCrl(middle)}), kAccepted},
      {"it has, with its key named", Below({crl, MakeCrl(middle, {.keyId = true})}), kAccepted},
      {"the root's lacks", Below({MakeCrl(middle)}), kUncovered},
      {"the intermediate", Below({MakeCrl(root, {.revoked = {middle.Serial()}})}), kRevoked},
      {"its signer", Below({crl, MakeCrl(middle, {.revoked = {belowSigner.Serial()}})}), kRevoked},
      {"a list that does not fit is no missing one", Below({crl, MakeCrl(twin)}), kForgedCrl},
      {"nor is one of another key", Below({crl, MakeCrl(twin, {.keyId = true})}), kUncovered},
      {"nor an expired one", Below({crl, MakeCrl(middle, {.nextUpdate = Now() - 60})}), kOutOfTime},
  });
}

TEST_F(CrlRulesTest, TheNewestListOfAnIssuerCountsInAnyOrder) {
  const int64_t old = Now() - 10 * kDay, past = Now() - 60;
  const std::vector<uint64_t> revoked = {middle.Serial()};
  const auto bothOrders = [&](const char* fault, Verdict expected, const CrlSpec& a, const CrlSpec& b) {
    const Bytes one = MakeCrl(root, a), other = MakeCrl(root, b);
    CheckEach({{fault, Below({one, other}), expected}, {fault, Below({other, one}), expected}});
  };
  bothOrders("an older list hid a revocation", kRevoked, {.thisUpdate = old}, {.revoked = revoked});
  bothOrders("an older current list beat a newer expired one", kOutOfTime,
             {.thisUpdate = old, .nextUpdate = Now() + kDay}, {.nextUpdate = past});
  bothOrders("the number decides between lists of one date", kRevoked, {.thisUpdate = old, .number = 1},
             {.thisUpdate = old, .number = 2, .revoked = revoked});
  bothOrders("the date comes before the number", kAccepted,
             {.thisUpdate = old, .number = 9, .revoked = revoked}, {.number = 1});
}

TEST_F(CrlRulesTest, ExpiredListsAreEnforcedOnlyWhenConfigured) {
  const auto configure = [&](const char* line) {
    ASSERT_EQ(KEL_CfgdbInitByFsldr(dir.Write("cfg", line).c_str()), 0u);
  };
  const int64_t past = Now() - 60;
  const Input expired = WithCrl(MakeCrl(root, {.nextUpdate = past}));
  EXPECT_EQ(Check(expired), kOutOfTime);
  configure("feature.expired_crl=enforce\n");
  EXPECT_EQ(Check(expired), kAccepted);
  EXPECT_THAT(g_lines, testing::Contains(testing::StartsWith("5 chain.cpp revocation list expired")));
  const Bytes revoking = MakeCrl(root, {.nextUpdate = past, .revoked = {signer.Serial()}});
  CheckEach({{"an expired list still revokes", WithCrl(revoking), kRevoked},
             {"not yet valid is no expiry", WithCrl(MakeCrl(root, {.thisUpdate = Now() + 60})), kOutOfTime},
             {"certificates expire", SignedBy(MakeSigner(root, {.notAfter = past})), kOutOfTime}});
  configure("feature.expired_crl=refuse\n");
  EXPECT_EQ(Check(expired), kOutOfTime);
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
    InstallRoot(ca);
    crl = MakeCrl(ca, {.thisUpdate = from, .nextUpdate = to});
    return SignedBy(MakeSigner(ca, {.notBefore = from, .notAfter = to}));
  }
};

TEST_F(VerifyTimeTest, ValidityIncludesBothItsEnds) {
  for (const int64_t from : {cms::BuildDateSeconds() + 100 * kDay, int64_t{3000000000}}) {  // also in 2065
    const int64_t to = from + 100 * kDay;
    const Input input = MadeAt(from, to);
    for (const int64_t at : {from - 1, from, to, to + 1}) {
      ClockAt(at);
      EXPECT_EQ(Check(input), at < from || at > to ? kOutOfTime : kAccepted) << at - from;
    }
  }
}

TEST_F(VerifyTimeTest, EveryCertificateOfTheChainMustBeInItsTime) {
  const Identity oldMiddle = MakeIntermediate(root, {.name = "renewed", .notAfter = Now() - 60});
  const Identity newMiddle = MakeCertForKey(root, {.name = "renewed", .isCa = true}, oldMiddle.key);
  const Identity by = MakeSigner(oldMiddle);
  CheckEach({{"expired", SignedBy(by, {&oldMiddle}), kOutOfTime},
             {"the expired one hid the renewed one", SignedBy(by, {&oldMiddle, &newMiddle}), kAccepted}});
  const Identity oldRoot = MakeRoot({.name = "old root", .notAfter = Now() - 60});
  InstallRoot(oldRoot, 1);
  crl = MakeCrl(oldRoot);
  EXPECT_EQ(Check(SignedBy(MakeSigner(oldRoot))), kOutOfTime);
}

TEST_F(VerifyTimeTest, AClockBeforeTheBuildNeitherBlocksNorUnlocks) {
  const int64_t build = cms::BuildDateSeconds();
  ClockAt(1000);
  EXPECT_EQ(Check(MadeAt(build - 10 * kDay, build + 10 * kDay)), kAccepted);
  EXPECT_EQ(Check(MadeAt(build - 20 * kDay, build - 10 * kDay)), kOutOfTime) << "it unlocked";
  const Input later = MadeAt(build + 10 * kDay, build + 20 * kDay);
  EXPECT_EQ(Check(later), kAccepted) << "an update made after the build was blocked";
  ClockAt(build);
  EXPECT_EQ(Check(later), kOutOfTime);
}

}  // namespace
}  // namespace cmstest
