// What SignatureVerify accepts and what it refuses, each refusal with the code that tells why.
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>

#include "cms/root_ca.h"
#include "cms_fixture.h"

namespace cmstest {
namespace {

class SignatureVerifyTest : public CmsTest {
 protected:
  using Change = std::function<void(CMS_ContentInfo*)>;
  /// `signature` after `change` of its decoded form.
  static Bytes Changed(const Bytes& signature, const Change& change) {
    const uint8_t* at = signature.data();
    const cms::CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(signature.size())));
    change(cms.get());
    uint8_t* der = nullptr;
    const int length = i2d_CMS_ContentInfo(cms.get(), &der);
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
  }
  static CMS_SignerInfo* SignerOf(CMS_ContentInfo* cms, int index = 0) {
    return sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), index);
  }
  static X509_ALGOR* AlgorithmOf(CMS_ContentInfo* cms) {
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(SignerOf(cms), nullptr, nullptr, nullptr, &algorithm);
    return algorithm;
  }
  static void RemoveDigest(CMS_ContentInfo* cms) {
    const int at = CMS_signed_get_attr_by_NID(SignerOf(cms), NID_pkcs9_messageDigest, -1);
    X509_ATTRIBUTE_free(CMS_signed_delete_attr(SignerOf(cms), at));
  }
  /// `signature` with the last bit of a signer's value changed.
  static Bytes Flipped(const Bytes& signature, int index = 0) {
    return Changed(signature, [index](CMS_ContentInfo* cms) {
      ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(SignerOf(cms, index));
      const_cast<uint8_t*>(ASN1_STRING_get0_data(value))[ASN1_STRING_length(value) - 1] ^= 1;
    });
  }
  static Bytes PlainlySigned(std::string_view content, const std::vector<const Identity*>& by) {
    SignSpec spec;
    for (const Identity* one : by) spec.signers.push_back({.identity = one, .signedAttributes = false});
    return Sign(content, spec);
  }

  const Bytes good = Sign(text, signer), plain = PlainlySigned(text, {&signer});
};

TEST_F(SignatureVerifyTest, FormsOfASignature) {
  const Identity second = MakeSigner(root, {.name = "second"});
  const Bytes two = PlainlySigned(text, {&signer, &second});
  const std::string pem = PemOf("CMS", good);
  Bytes trailing = good, version = good;
  trailing.push_back(0);
  const Bytes marker = {0x02, 0x01, 0x01, 0x31};  // version 1, then the set of digest algorithms
  const auto at = std::search(version.begin(), version.end(), marker.begin(), marker.end());
  ASSERT_NE(at, version.end());
  at[2] = 2;
  CheckEach({
      {"PEM", With(BytesOf(pem)), kAccepted},
      {"PEM of another label", With(BytesOf(PemOf("PKCS7", good))), kAccepted},
      {"named by key identifier", Signed({.signers = {{.identity = &signer, .useKeyId = true}}}), kAccepted},
      {"two signers", Signed({.signers = {{.identity = &signer}, {.identity = &second}}}), kAccepted},
      {"two signers, the first of another content", With(Flipped(two, 0)), kMismatch},
      {"two signers, the second of another content", With(Flipped(two, 1)), kMismatch},
      {"two in a file: which counts?", With(BytesOf(pem + pem)), kUndecodable},
      {"PEM of a wrong label", With(BytesOf(PemOf("CERTIFICATE", good))), kUndecodable},
      {"a certificate", With(signer.Der()), kUndecodable},
      {"no signer", Signed({.extraCerts = {&signer}}), kNoSigner},
      {"no certificate", Signed({.signers = {{.identity = &signer}}, .withSignerCerts = false}), kNoSigner},
      {"not detached", Signed({.signers = {{.identity = &signer}}, .embedContent = true}), kBadContent},
      {"no SignedData has version 2", With(version), kBadContent},
      {"a byte behind it", With(trailing), kUndecodable},
  });
  using testing::Contains;
  EXPECT_THAT(g_lines, Contains(testing::MatchesRegex("4 sigvfy_log.log DecodeSignatureDer 88200101 .*")));
  EXPECT_THAT(g_lines, Contains(testing::EndsWith(" verify signature error 88200101 00000000")));
}

TEST_F(SignatureVerifyTest, AlgorithmsAreAcceptedOrRefused) {
  using enum KeyKind;
  const std::tuple<const char*, KeyKind, SignerSpec, Verdict> cases[] = {
      {"EC", kEcP256, {}, kAccepted},
      {"EC, plain", kEcP256, {.signedAttributes = false}, kAccepted},
      {"EC 384", kEcP384, {.digest = "SHA384"}, kAccepted},
      {"RSA", kRsa2048, {}, kAccepted},
      {"RSA, plain", kRsa2048, {.signedAttributes = false, .digest = "SHA512"}, kAccepted},
      {"RSA-PSS", kRsa2048, {.pss = true}, kAccepted},
      {"RSA-PSS, plain", kRsa2048, {.signedAttributes = false, .digest = "SHA384", .pss = true}, kAccepted},
      {"RSA-PSS key", kRsaPss2048, {.signedAttributes = false, .pss = true}, kAccepted},
      {"EC, SHA-1", kEcP256, {.digest = "SHA1"}, kBadAlgorithm},
      {"EC, plain, SHA-224", kEcP256, {.signedAttributes = false, .digest = "SHA224"}, kBadAlgorithm},
      {"RSA, MD5", kRsa2048, {.digest = "MD5"}, kBadAlgorithm},
      {"RSA-PSS, SHA-1", kRsa2048, {.digest = "SHA1", .pss = true}, kBadAlgorithm},
      {"short RSA", kRsa1024, {}, kNoChain},
  };
  for (const auto& [name, key, spec, verdict] : cases) {
    const Identity by = MakeSigner(root, {.keyKind = key});
    SignerSpec one = spec;
    one.identity = &by;
    Input input = Signed({.signers = {one}});
    EXPECT_EQ(Check(input), verdict) << name;
    input.content.back() ^= 1;
    EXPECT_EQ(Check(input), Refused(verdict.engineCode)) << "the content does not matter to " << name;
  }
}

TEST_F(SignatureVerifyTest, OnlyARootsSignersOfUpdatesCount) {
  const Identity foreignRoot = MakeRoot({.name = "foreign"}), foreign = MakeSigner(foreignRoot);
  const Identity twin = MakeRoot({.name = "root"});
  const Identity leafAsCa = MakeSigner(root, {.name = "leaf", .keyUsage = "digitalSignature,keyCertSign"});
  const Identity shallow = MakeIntermediate(root, {.name = "shallow", .pathLength = 0});
  const Identity deep = MakeIntermediate(shallow, {.name = "deep"});
  const Identity tlsCa = MakeIntermediate(root, {.name = "tls", .extendedKeyUsage = "serverAuth"});
  const auto usage = [&](const char* bits) { return SignedBy(MakeSigner(root, {.keyUsage = bits})); };
  const auto purpose = [&](const char* purposes) {
    return SignedBy(MakeSigner(root, {.extendedKeyUsage = purposes}));
  };
  CheckEach({
      {"a foreign root's", SignedBy(foreign), kNoChain},
      {"the signature brought its own root", SignedBy(foreign, {&foreignRoot}), kNoChain},
      {"a good signer made up for it", Signed({.signers = {{&signer}, {&foreign}}}), kNoChain},
      {"one of a root of the same name", SignedBy(MakeSigner(twin)), kNoChain},
      {"self-signed", SignedBy(MakeRoot({.keyUsage = "digitalSignature,keyCertSign"})), kNoChain},
      {"a signer issued a certificate", SignedBy(MakeSigner(leafAsCa), {&leafAsCa}), kNoChain},
      {"path length", SignedBy(MakeSigner(deep), {&shallow, &deep}), kNoChain},
      {"weak certificate signature", SignedBy(MakeSigner(root, {.digest = "SHA1"})), kNoChain},
      {"no usage limits nothing", usage(""), kAccepted},
      {"no purpose limits nothing", purpose(""), kAccepted},
      {"code signing among others", purpose("serverAuth,codeSigning"), kAccepted},
      {"for encryption", usage("keyEncipherment"), kWrongUse},
      {"for TLS", purpose("serverAuth,clientAuth"), kWrongUse},
      {"for anything", purpose("anyExtendedKeyUsage"), kWrongUse},
      {"a TLS authority's signer", SignedBy(MakeSigner(tlsCa), {&tlsCa}), kWrongUse},
      {"an authority", SignedBy(MakeIntermediate(root, {.name = "ca"})), kWrongUse},
  });
  const Identity anchor = MakeRoot({.name = "anchor", .keyUsage = "digitalSignature,keyCertSign,cRLSign"});
  InstallRoot(anchor, 1);
  crl = MakeCrl(anchor);
  EXPECT_EQ(Check(SignedBy(anchor)), kNoChain) << "a root cannot be revoked and signs no update";
}

TEST_F(SignatureVerifyTest, RefusesSubstitutedAlgorithmsAndAttributes) {
  const auto otherDigest = [](CMS_ContentInfo* cms) {
    X509_ALGOR_set0(AlgorithmOf(cms), OBJ_nid2obj(NID_ecdsa_with_SHA384), V_ASN1_UNDEF, nullptr);
  };
  const auto otherType = [](CMS_ContentInfo* cms) {
    (void)CMS_set1_eContentType(cms, OBJ_nid2obj(NID_id_smime_ct_TSTInfo));
  };
  const auto pssDefaults = [](CMS_ContentInfo* cms) {  // among them SHA-1
    ASSERT_EQ(ASN1_STRING_set(AlgorithmOf(cms)->parameter->value.sequence, "\x30", 2), 1);
  };
  const auto otherMask = [](CMS_ContentInfo* cms) {
    constexpr uint8_t kSha256[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
    const ASN1_STRING* parameters = AlgorithmOf(cms)->parameter->value.sequence;
    uint8_t* const end = parameters->data + parameters->length;
    std::find_end(parameters->data, end, std::begin(kSha256), std::end(kSha256))[8] = 2;  // SHA-384
  };
  const Identity rsa = MakeSigner(root, {.keyKind = KeyKind::kRsa2048});
  const auto pss = [&](const char* digest) {
    return Sign(text, {.signers = {{.identity = &rsa, .digest = digest, .pss = true}}});
  };
  const auto pssOfOtherDigest = [&](CMS_ContentInfo* cms) {
    const auto copy = [&](CMS_ContentInfo* other) { X509_ALGOR_copy(AlgorithmOf(cms), AlgorithmOf(other)); };
    (void)Changed(pss("SHA384"), copy);
  };
  CheckEach({
      {"not the declared digest", With(Changed(good, otherDigest)), kBadAlgorithm},
      {"PSS parameters of another digest", With(Changed(pss("SHA256"), pssOfOtherDigest)), kBadAlgorithm},
      {"PSS mask of another digest", With(Changed(pss("SHA256"), otherMask)), kBadAlgorithm},
      {"PSS parameters left out", With(Changed(pss("SHA256"), pssDefaults)), kBadAlgorithm},
      {"another type than signed", With(Changed(good, otherType)), kBadAttributes},
      {"a type that is not signed", With(Changed(plain, otherType)), kBadAttributes},
      {"no digest", With(Changed(good, RemoveDigest)), kBadAttributes},
      {"flipped", With(Flipped(good)), kForged},
      {"flipped without attributes", With(Flipped(plain)), kMismatch},
  });
}

TEST_F(SignatureVerifyTest, SignedAttributesDoNotPassForContent) {
  // A signature over attributes equals one without attributes over their encoding.
  const auto signedPlainly = [&](const std::string& content) {
    return Input{BytesOf(content), PlainlySigned(content, {&signer}), crl};
  };
  const std::string set = std::string("\x31\x82\x13\x88", 4) + std::string(5000, '0');  // a SET
  CheckEach({{"a set", signedPlainly(set), kMismatch},
             {"a text that happens to begin with '1'", signedPlainly(set + "\n"), kAccepted},
             {"nothing else", signedPlainly("1"), kAccepted}});
}

TEST_F(SignatureVerifyTest, RsaWithSm3) {
  const Identity rsa = MakeSigner(root, {.keyKind = KeyKind::kRsa2048});
  const auto sm3 = [](const Bytes& bytes, uint8_t* digest) {
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sm3(), nullptr), 1);
  };
  const auto signWithSm3 = [&](CMS_SignerInfo* signerInfo, const Bytes& bytes) {
    uint8_t value[256], info[50] = {0x30, 0x30, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x81, 0x1c,
                                    0xcf, 0x55, 0x01, 0x83, 0x11, 0x05, 0,    0x04, 32};
    sm3(bytes, info + 18);
    const cms::KeyCtxPtr ctx(EVP_PKEY_CTX_new(rsa.key.get(), nullptr));
    size_t length = sizeof(value);
    EXPECT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), value, &length, info, sizeof(info)), 1);
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(signerInfo, nullptr, nullptr, &algorithm, nullptr);
    X509_ALGOR_set_md(algorithm, EVP_sm3());
    (void)ASN1_STRING_set(CMS_SignerInfo_get0_signature(signerInfo), value, sizeof(value));
  };
  const Bytes withoutAttributes = Changed(
      PlainlySigned(text, {&rsa}), [&](CMS_ContentInfo* cms) { signWithSm3(SignerOf(cms), BytesOf(text)); });
  const auto setDigest = [&](CMS_ContentInfo* cms, const Bytes& content) {
    auto* digest = static_cast<ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
        SignerOf(cms), OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    sm3(content, digest->data);
  };
  const Bytes withAttributes = Changed(Sign(text, rsa), [&](CMS_ContentInfo* cms) {
    setDigest(cms, BytesOf(text));
    Bytes set = {0x31, 0};
    for (int i = 0; i < CMS_signed_get_attr_count(SignerOf(cms)); ++i) {
      uint8_t* der = nullptr;
      const int length = i2d_X509_ATTRIBUTE(CMS_signed_get_attr(SignerOf(cms), i), &der);
      set.insert(set.end(), der, der + length);
      OPENSSL_free(der);
    }
    set[1] = static_cast<uint8_t>(set.size() - 2);
    signWithSm3(SignerOf(cms), set);
  });
  Input other = Good();
  other.content[0] ^= 1;
  for (const Bytes& signature : {withoutAttributes, withAttributes}) {
    other.signature = signature;
    CheckEach({{"good", With(signature), kAccepted},
               {"other content", other, kMismatch},
               {"flipped", With(Flipped(signature)), kForged}});
  }
  other.signature = Changed(withAttributes, [&](CMS_ContentInfo* cms) { setDigest(cms, other.content); });
  EXPECT_EQ(Check(other), kForged) << "attributes that nobody signed";
}

TEST_F(SignatureVerifyTest, ExtraCertificates) {
  const Identity extraRoot = MakeRoot({.name = "extra"}), by = MakeSigner(extraRoot);
  const Identity middle = MakeIntermediate(root, {.name = "middle"}), below = MakeSigner(middle);
  const auto input = [&](const Identity& signedBy, const Identity& listOf, const std::string& extra) {
    return Input{BytesOf(text), Sign(text, signedBy), MakeCrl(listOf), extra};
  };
  Input revoked = input(below, root, middle.Pem());
  revoked.crl = MakeCrl(root, {.revoked = {middle.Serial()}});
  const std::string noCert = "-----BEGIN CERTIFICATE-----\nbm8=\n-----END CERTIFICATE-----\n";
  CheckEach({
      {"none", input(by, extraRoot, ""), kNoChain},
      {"a trust anchor beside the roots", input(by, extraRoot, extraRoot.Pem()), kAccepted},
      {"a signer vouched for itself", input(by, extraRoot, by.Pem()), kNoChain},
      {"it completes the chain", input(below, root, middle.Pem()), kAccepted},
      {"being given as extra undid a revocation", revoked, kRevoked},
      {"does not decode", input(by, extraRoot, noCert), kUnusableRoot},
      {"no certificate", input(by, extraRoot, "no certificate"), kUnusableRoot},
  });
  ClearRoots();
  CheckEach({{"without its issuer it is an anchor", input(below, middle, middle.Pem()), kAccepted},
             {"whose signer needs its list", input(below, root, middle.Pem()), kUncovered}});
}

TEST_F(SignatureVerifyTest, RootTable) {
  ASSERT_EQ(TOLA_SignatureVerificationSetRootCAEnable(0, 0), 0u);
  EXPECT_EQ(Check(Good()), kNoChain) << "a disabled root was used";
  ASSERT_EQ(TOLA_SignatureVerificationSetRootCAEnable(0, 1), 0u);
  g_rootCAList[0].length = 0;
  EXPECT_EQ(Check(Good()), kNoChain) << "an entry without a certificate";
  InstallRoot(root, 2);
  EXPECT_EQ(Check(Good()), kAccepted) << "every enabled root counts, whatever its type";
  g_rootCAList[1] = {.caType = 1, .certificate = g_rootCAList[2].certificate, .length = 20, .isEnable = 1};
  EXPECT_EQ(Check(Good()), kUnusableRoot);

  const TOLA_ROOT_CA_S roots[] = {TOLA_SignatureVerifGetRootCARSA2048(),
                                  TOLA_SignatureVerifGetRootCARSA3072(),
                                  TOLA_SignatureVerifGetRootCARSA4096(),
                                  {.caType = 3, .certificate = nullptr, .length = 0, .isEnable = 1}};
  for (uint16_t type = 0; type < 4; ++type) {
    EXPECT_EQ(roots[type].caType, type);
    EXPECT_EQ(TOLA_SignatureVerificationAddRootCA(roots[type]), type == 3 ? kRootCaErrType : 0u);
  }
  EXPECT_EQ(roots[0].certificate[0], '-') << "type 0 is PEM";
  EXPECT_EQ(Check(Good()), kNoChain) << "the built-in ones decode, but did not issue this signer";
}

TEST_F(SignatureVerifyTest, FilesThatCannotBeRead) {
  using Block = SIGNATURE_VERIFY_BLOCK_S;
  const std::string fifo = dir.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  constexpr auto kContent = &Block::contentPath, kSignature = &Block::signaturePath, kList = &Block::crlPath;
  const std::string absent = dir.File("absent"), empty = dir.Write("empty", ""), endless(257, 'x'),
                    huge = dir.Write("huge", std::string(kSigvfyMaxBuffer + 1, '0'));
  const std::tuple<char(Block::*)[257], std::string, Verdict> files[] = {
      {kContent, absent, Refused(kSigvfyErrOpen)},
      {kContent, empty, Refused(kSigvfyErrEmpty)},
      {kContent, fifo, Refused(kSigvfyErrFileSize)},
      {kContent, "", Refused(kSigvfyErrArgument)},
      {kContent, endless, {kSigErrEngine, kSigvfyErrArgument}},
      {kSignature, absent, Refused(kSigvfyErrOpen)},
      {kSignature, huge, Refused(kSigvfyErrTooLong)},
      {kList, absent, kUnusableCrl},
      {kList, "", kUnusableCrl},
      {kList, endless, kUnusableCrl},
  };
  for (const auto& [field, path, verdict] : files) {
    Block request = Request(Good());
    memcpy(request.*field, path.c_str(), std::min(path.size() + 1, sizeof(request.*field)));
    EXPECT_EQ(Check(request), verdict) << path;
  }
  EXPECT_EQ(Check(Good()), kAccepted) << "a refusal left something behind";
}

TEST_F(SignatureVerifyTest, ContentIsReadInPiecesToItsEnd) {
  EXPECT_EQ(Check({{}, Sign("", signer), crl}), Refused(kSigvfyErrEmpty)) << "though it is what was signed";
  for (const size_t size : {1u, 4095u, 4096u, 4097u, 100000u}) {
    const std::string content(size, 'x'), other = content.substr(1) + 'y';
    const Bytes signature = Sign(content, signer);
    CheckEach({{"whole", {BytesOf(content), signature, crl}, kAccepted},
               {"other end", {BytesOf(other), signature, crl}, kMismatch}});
  }
}

TEST_F(SignatureVerifyTest, DamagedFilesAreRefusedAtEveryByte) {
  const Input whole = With(good);
  int accepted = 0;
  for (size_t i = 0; i < good.size(); ++i) {
    Input bad = whole;
    bad.signature[i] = static_cast<uint8_t>(~good[i]);
    if (Check(bad) == kAccepted) ++accepted;
    bad.content[5] ^= 1;
    bad.signature[i] = 0x84;  // a length that promises more than there is
    EXPECT_NE(Check(bad).result, 0u) << i;
    bad.signature.insert(bad.signature.begin() + static_cast<ptrdiff_t>(i), good[i]);
    EXPECT_NE(Check(bad).result, 0u) << i;
  }
  // Nothing signed and nothing that is used: the list of digest algorithms and the signer's version.
  EXPECT_LE(accepted, 9);
  for (const auto field : {&Input::signature, &Input::crl, &Input::content}) {
    for (size_t i = 1; i < (whole.*field).size(); ++i) {
      Input cut = whole;
      (cut.*field).resize(i);
      ASSERT_EQ(Check(cut).result, field == &Input::crl ? kSigErrCrl : kSigErrSignature) << "cut to " << i;
    }
  }
}

}  // namespace
}  // namespace cmstest
