// What SignatureVerify accepts and what it refuses, each refusal with the code that tells why.
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <random>

#include "cms/root_ca.h"
#include "cms_fixture.h"

namespace cmstest {
namespace {

using testpki::KeyKind;
using testpki::MakeCrl;
using testpki::MakeIntermediate;
using testpki::MakeRoot;
using testpki::MakeSigner;
using testpki::Sign;

class SignatureVerifyTest : public CmsTest {
 protected:
  /// `signature` after `change` of its decoded form.
  static Bytes Changed(const Bytes& signature, const std::function<void(CMS_ContentInfo*)>& change) {
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
    CMS_SignerInfo* info = SignerOf(cms);
    const int at = CMS_signed_get_attr_by_NID(info, NID_pkcs9_messageDigest, -1);
    X509_ATTRIBUTE_free(CMS_signed_delete_attr(info, at));
  }
  /// `signature` with the last bit of a signer's value changed.
  static Bytes Flipped(const Bytes& signature, int index = 0) {
    return Changed(signature, [index](CMS_ContentInfo* cms) {
      ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(SignerOf(cms, index));
      const_cast<uint8_t*>(ASN1_STRING_get0_data(value))[ASN1_STRING_length(value) - 1] ^= 1;
    });
  }
  Input With(const Bytes& signature) { return {BytesOf(text), signature, crl}; }
};

TEST_F(SignatureVerifyTest, AcceptsTheFormsThatSignersProduce) {
  EXPECT_ACCEPTED(Good());
  EXPECT_ACCEPTED(With(BytesOf(testpki::PemOf("CMS", Good().signature)))) << "PEM";
  EXPECT_ACCEPTED(With(BytesOf(testpki::PemOf("PKCS7", Good().signature)))) << "PEM of another label";
  EXPECT_ACCEPTED(Signed({.signers = {{.identity = &signer, .useKeyId = true}}}))
      << "named by key identifier";

  const Identity second = MakeSigner(root, {.name = "second"});
  EXPECT_ACCEPTED(
      Signed({.signers = {{.identity = &signer}, {.identity = &second, .signedAttributes = false}}}));

  const Identity plain = MakeSigner(root, {.keyUsage = "", .extendedKeyUsage = ""});
  EXPECT_ACCEPTED(SignedBy(plain)) << "a certificate without usage extensions is not limited";
}

TEST_F(SignatureVerifyTest, AlgorithmsAreAcceptedOrRefused) {
  const struct {
    KeyKind key;
    bool attributes, pss;
    const char* digest;
    uint32_t engineCode;  ///< 0: accepted
  } cases[] = {
      {KeyKind::kEcP256, true, false, "SHA256", 0},
      {KeyKind::kEcP256, false, false, "SHA256", 0},
      {KeyKind::kEcP384, true, false, "SHA384", 0},
      {KeyKind::kRsa2048, true, false, "SHA256", 0},
      {KeyKind::kRsa2048, false, false, "SHA512", 0},
      {KeyKind::kRsa2048, true, true, "SHA256", 0},
      {KeyKind::kRsa2048, false, true, "SHA384", 0},
      {KeyKind::kRsaPss2048, false, true, "SHA256", 0},
      {KeyKind::kEcP256, true, false, "SHA1", kSigvfyErrAlgorithm},
      {KeyKind::kEcP256, false, false, "SHA224", kSigvfyErrAlgorithm},
      {KeyKind::kRsa2048, true, false, "MD5", kSigvfyErrAlgorithm},
      {KeyKind::kRsa2048, false, true, "SHA1", kSigvfyErrAlgorithm},
      {KeyKind::kRsa1024, true, false, "SHA256", kSigvfyErrChain},
  };
  for (const auto& [key, attributes, pss, digest, engineCode] : cases) {
    SCOPED_TRACE(std::to_string(static_cast<int>(key)) + " " + digest + (attributes ? " attributes" : "") +
                 (pss ? " PSS" : ""));
    const Identity by = MakeSigner(root, {.keyKind = key});
    Input input = Signed(
        {.signers = {{.identity = &by, .signedAttributes = attributes, .digest = digest, .pss = pss}}});
    EXPECT_EQ(Check(input), (Verdict{engineCode != 0 ? kSigErrSignature : 0, engineCode})) << Log();
    input.content.back() ^= 1;
    EXPECT_REFUSED(input, engineCode) << "the content does not matter to this kind of signature";
  }
}

TEST_F(SignatureVerifyTest, RefusesWhatIsNoDetachedSignatureOfItsSigners) {
  Input changed = Good();
  changed.content[3] ^= 1;
  EXPECT_REFUSED(changed, 0);

  EXPECT_REFUSED(Signed({.signers = {}, .extraCerts = {&signer}}), kSigvfyErrNoSigner);
  EXPECT_REFUSED(Signed({.signers = {{.identity = &signer}}, .withSignerCerts = false}), kSigvfyErrNoSigner);
  EXPECT_REFUSED(Signed({.signers = {{.identity = &signer}}, .embedContent = true}), kSigvfyErrContent);

  Input trailing = Good();
  trailing.signature.push_back(0);
  EXPECT_REFUSED(trailing, kSigvfyErrDecode);
  EXPECT_THAT(g_lines,
              testing::Contains(testing::MatchesRegex("4 sigvfy_log.log DecodeSignatureDer 88200101 .*")));
  EXPECT_THAT(g_lines, testing::Contains(testing::EndsWith(" verify signature error 88200101 00000000")));
  const std::string pem = testpki::PemOf("CMS", Good().signature);
  EXPECT_REFUSED(With(BytesOf(pem + pem)), kSigvfyErrDecode) << "which of the two counts?";
  EXPECT_REFUSED(With(BytesOf(testpki::PemOf("CERTIFICATE", Good().signature))), kSigvfyErrDecode);
  EXPECT_REFUSED(With(signer.Der()), kSigvfyErrDecode);

  Bytes version = Good().signature;
  const Bytes marker = {0x02, 0x01, 0x01, 0x31};  // version 1, then the set of digest algorithms
  const auto at = std::search(version.begin(), version.end(), marker.begin(), marker.end());
  ASSERT_NE(at, version.end());
  at[2] = 2;
  EXPECT_REFUSED(With(version), kSigvfyErrContent) << "no SignedData has version 2";
}

TEST_F(SignatureVerifyTest, RefusesSignersThatNoRootVouchesFor) {
  const Identity foreignRoot = MakeRoot({.name = "foreign"});
  const Identity foreign = MakeSigner(foreignRoot);
  Input input = SignedBy(foreign);
  EXPECT_REFUSED(input, kSigvfyErrChain);
  input.signature = Sign(text, foreign, {&foreignRoot});
  EXPECT_REFUSED(input, kSigvfyErrChain) << "the signature brought its own root";

  const Identity twin = MakeRoot({.name = "root"});  // same name, other key
  EXPECT_REFUSED(SignedBy(MakeSigner(twin)), kSigvfyErrChain);
  EXPECT_REFUSED(SignedBy(MakeRoot({.name = "self", .keyUsage = "digitalSignature,keyCertSign"})),
                 kSigvfyErrChain);

  const Identity leafAsCa = MakeSigner(root, {.name = "leaf", .keyUsage = "digitalSignature,keyCertSign"});
  const Identity below = MakeSigner(leafAsCa);
  EXPECT_REFUSED(With(Sign(text, below, {&leafAsCa})), kSigvfyErrChain) << "a signer issued a certificate";

  const Identity shallow = MakeIntermediate(root, {.name = "shallow", .pathLength = 0});
  const Identity deep = MakeIntermediate(shallow, {.name = "deep"});
  const Identity deepSigner = MakeSigner(deep);
  EXPECT_REFUSED(With(Sign(text, deepSigner, {&shallow, &deep})), kSigvfyErrChain) << "path length";

  EXPECT_REFUSED(SignedBy(MakeSigner(root, {.digest = "SHA1"})), kSigvfyErrChain)
      << "weak certificate signature";

  const Input mixed = Signed({.signers = {{.identity = &signer}, {.identity = &foreign}}});
  EXPECT_REFUSED(mixed, kSigvfyErrChain) << "one good signer does not make up for a bad one";
}

TEST_F(SignatureVerifyTest, RefusesCertificatesMeantForSomethingElse) {
  EXPECT_REFUSED(SignedBy(MakeSigner(root, {.keyUsage = "keyEncipherment"})), kSigvfyErrUsage);
  EXPECT_REFUSED(SignedBy(MakeSigner(root, {.extendedKeyUsage = "serverAuth,clientAuth"})), kSigvfyErrUsage);
  EXPECT_REFUSED(SignedBy(MakeSigner(root, {.extendedKeyUsage = "anyExtendedKeyUsage"})), kSigvfyErrUsage);
  EXPECT_ACCEPTED(SignedBy(MakeSigner(root, {.extendedKeyUsage = "serverAuth,codeSigning"})));

  const Identity tlsCa = MakeIntermediate(root, {.name = "tls", .extendedKeyUsage = "serverAuth"});
  EXPECT_REFUSED(With(Sign(text, MakeSigner(tlsCa), {&tlsCa})), kSigvfyErrUsage)
      << "a TLS authority's signer";
  EXPECT_REFUSED(SignedBy(MakeIntermediate(root, {.name = "ca"})), kSigvfyErrUsage)
      << "an authority as signer";

  const Identity anchor = MakeRoot({.name = "anchor", .keyUsage = "digitalSignature,keyCertSign,cRLSign"});
  testpki::InstallRoot(anchor, 1);
  Input byAnchor = SignedBy(anchor);
  byAnchor.crl = MakeCrl(anchor);
  EXPECT_REFUSED(byAnchor, kSigvfyErrChain) << "a root cannot be revoked and signs no update";
}

TEST_F(SignatureVerifyTest, RefusesSubstitutedAlgorithmsAndAttributes) {
  const auto otherDigest = [](CMS_ContentInfo* cms) {
    X509_ALGOR_set0(AlgorithmOf(cms), OBJ_nid2obj(NID_ecdsa_with_SHA384), V_ASN1_UNDEF, nullptr);
  };
  EXPECT_REFUSED(With(Changed(Good().signature, otherDigest)), kSigvfyErrAlgorithm) << "not the declared one";
  const auto otherType = [](CMS_ContentInfo* cms) {
    ASSERT_EQ(CMS_set1_eContentType(cms, OBJ_nid2obj(NID_id_smime_ct_TSTInfo)), 1);
  };
  EXPECT_REFUSED(With(Changed(Good().signature, otherType)), kSigvfyErrAttributes);
  const Bytes plain = Sign(text, {.signers = {{.identity = &signer, .signedAttributes = false}}});
  EXPECT_REFUSED(With(Changed(plain, otherType)), kSigvfyErrAttributes) << "the type is not signed";
  EXPECT_REFUSED(With(Changed(Good().signature, RemoveDigest)), kSigvfyErrAttributes);
  EXPECT_REFUSED(With(Flipped(Good().signature)), kSigvfyErrSignature);
  EXPECT_REFUSED(With(Flipped(plain)), 0);
}

TEST_F(SignatureVerifyTest, PssParametersMustFitTheDigest) {
  const Identity rsa = MakeSigner(root, {.keyKind = KeyKind::kRsa2048});
  const auto pss = [&](const char* digest) {
    return Sign(text, {.signers = {{.identity = &rsa, .digest = digest, .pss = true}}});
  };
  const Bytes sha256 = pss("SHA256");
  (void)Changed(pss("SHA384"), [&](CMS_ContentInfo* other) {
    const auto copy = [&](CMS_ContentInfo* cms) { X509_ALGOR_copy(AlgorithmOf(cms), AlgorithmOf(other)); };
    EXPECT_REFUSED(With(Changed(sha256, copy)), kSigvfyErrAlgorithm) << "parameters of another digest";
  });
  const auto toDefaults = [&](CMS_ContentInfo* cms) {  // among them SHA-1
    ASSERT_EQ(ASN1_STRING_set(AlgorithmOf(cms)->parameter->value.sequence, "\x30", 2), 1);
  };
  EXPECT_REFUSED(With(Changed(sha256, toDefaults)), kSigvfyErrAlgorithm);
}

TEST_F(SignatureVerifyTest, OneMismatchingSignerDecides) {
  const Identity second = MakeSigner(root, {.name = "second"});
  const Bytes two = Sign(text, {.signers = {{.identity = &signer, .signedAttributes = false},
                                            {.identity = &second, .signedAttributes = false}}});
  for (const int i : {0, 1}) EXPECT_REFUSED(With(Flipped(two, i)), 0) << i;
}

TEST_F(SignatureVerifyTest, SignedAttributesDoNotPassForContent) {
  // A signature over attributes equals one without attributes over their encoding.
  const auto plainlySigned = [&](const std::string& content) {
    return Input{BytesOf(content),
                 Sign(content, {.signers = {{.identity = &signer, .signedAttributes = false}}}), crl};
  };
  const std::string body = "0" + std::string(4999, 'x');
  const std::string set = std::string("\x31\x82\x13\x88", 4) + body;  // a SET of 5000 bytes
  EXPECT_REFUSED(plainlySigned(set), 0);
  EXPECT_ACCEPTED(plainlySigned(set + "\n")) << "a text that happens to begin with '1'";
  EXPECT_ACCEPTED(plainlySigned("1"));
}

TEST_F(SignatureVerifyTest, RsaWithSm3) {
  const Identity rsa = MakeSigner(root, {.keyKind = KeyKind::kRsa2048});
  const auto sm3 = [](const Bytes& bytes) {
    Bytes digest(32);
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sm3(), nullptr), 1);
    return digest;
  };
  const auto rsaSign = [&](const Bytes& digest) {
    Bytes info = {0x30, 0x30, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x81, 0x1c,
                  0xcf, 0x55, 0x01, 0x83, 0x11, 0x05, 0,    0x04, 32};
    info.insert(info.end(), digest.begin(), digest.end());
    const cms::KeyCtxPtr ctx(EVP_PKEY_CTX_new(rsa.key.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 1);
    Bytes value(256);
    size_t length = value.size();
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), value.data(), &length, info.data(), info.size()), 1);
    return value;
  };
  const auto toSm3 = [](CMS_SignerInfo* info, const Bytes& value) {
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, nullptr, &digest, nullptr);
    X509_ALGOR_set_md(digest, EVP_sm3());
    (void)ASN1_STRING_set(CMS_SignerInfo_get0_signature(info), value.data(), static_cast<int>(value.size()));
  };

  const Bytes plain =
      Changed(Sign(text, {.signers = {{.identity = &rsa, .signedAttributes = false}}}),
              [&](CMS_ContentInfo* cms) { toSm3(SignerOf(cms), rsaSign(sm3(BytesOf(text)))); });
  EXPECT_ACCEPTED(With(plain));
  Input other = With(plain);
  other.content[0] ^= 1;
  EXPECT_REFUSED(other, 0);
  EXPECT_REFUSED(With(Flipped(plain)), kSigvfyErrSignature);

  const Bytes prepared = Changed(Sign(text, rsa), [&](CMS_ContentInfo* cms) {
    RemoveDigest(cms);
    (void)CMS_signed_add1_attr_by_NID(SignerOf(cms), NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING,
                                      sm3(BytesOf(text)).data(), 32);
  });
  const Bytes attributes = Changed(prepared, [&](CMS_ContentInfo* cms) {  // in the order of their encoding
    CMS_SignerInfo* info = SignerOf(cms);
    Bytes set;
    for (int i = 0; i < CMS_signed_get_attr_count(info); ++i) {
      uint8_t* der = nullptr;
      const int length = i2d_X509_ATTRIBUTE(CMS_signed_get_attr(info, i), &der);
      set.insert(set.end(), der, der + length);
      OPENSSL_free(der);
    }
    ASSERT_LT(set.size(), 128u);
    set.insert(set.begin(), {0x31, static_cast<uint8_t>(set.size())});
    toSm3(info, rsaSign(sm3(set)));
  });
  EXPECT_ACCEPTED(With(attributes));
  EXPECT_REFUSED(With(Flipped(attributes)), kSigvfyErrSignature);
}

TEST_F(SignatureVerifyTest, ExtraCertificates) {
  const Identity extraRoot = MakeRoot({.name = "extra"});
  const Identity by = MakeSigner(extraRoot);
  Input input = SignedBy(by);
  input.crl = MakeCrl(extraRoot);
  EXPECT_REFUSED(input, kSigvfyErrChain);
  input.extra = extraRoot.Pem();
  EXPECT_ACCEPTED(input) << "a trust anchor beside the roots";
  input.extra = by.Pem();
  EXPECT_REFUSED(input, kSigvfyErrChain) << "a signer vouched for itself";

  const Identity middle = MakeIntermediate(root, {.name = "middle", .keyKind = KeyKind::kEcP256});
  Input below = SignedBy(MakeSigner(middle));
  below.extra = middle.Pem();
  EXPECT_ACCEPTED(below) << "an extra intermediate completes the chain";
  below.crl = MakeCrl(root, {.revoked = {middle.Serial()}});
  EXPECT_REFUSED(below, kSigvfyErrRevoked) << "being given as extra undid a revocation";

  testpki::ClearRoots();
  below.crl = MakeCrl(middle);
  EXPECT_ACCEPTED(below) << "without its issuer an extra certificate is an anchor";
  below.crl = crl;
  EXPECT_REFUSED(below, kSigvfyErrUncovered) << "an anchor's signer needs the anchor's list";

  input.extra = "-----BEGIN CERTIFICATE-----\nbm8=\n-----END CERTIFICATE-----\n";
  EXPECT_EQ(Verify(input), kSigErrRootCert);
  input.extra = "no certificate";
  EXPECT_EQ(Verify(input), kSigErrRootCert);
}

TEST_F(SignatureVerifyTest, RootTable) {
  ASSERT_EQ(TOLA_SignatureVerificationSetRootCAEnable(0, 0), 0u);
  EXPECT_REFUSED(Good(), kSigvfyErrChain) << "a disabled root was used";
  ASSERT_EQ(TOLA_SignatureVerificationSetRootCAEnable(0, 1), 0u);
  g_rootCAList[0].length = 0;
  EXPECT_REFUSED(Good(), kSigvfyErrChain) << "an entry without a certificate";

  testpki::InstallRoot(root, 2);
  EXPECT_ACCEPTED(Good()) << "every enabled root counts, whatever its type";
  g_rootCAList[1] = {.caType = 1, .certificate = g_rootCAList[2].certificate, .length = 20, .isEnable = 1};
  EXPECT_EQ(Verify(Good()), kSigErrRootCert) << "a root that does not decode";
  EXPECT_EQ(TOLA_SignatureVerificationSetRootCAEnable(3, 1), kRootCaErrType);
  EXPECT_EQ(
      TOLA_SignatureVerificationAddRootCA({.caType = 3, .certificate = nullptr, .length = 0, .isEnable = 1}),
      kRootCaErrType);
  EXPECT_EQ(GetRootCa(3).length, 0u);
}

TEST_F(SignatureVerifyTest, BuiltInRootsHaveTheirFormsAndAreUsable) {
  const TOLA_ROOT_CA_S roots[] = {TOLA_SignatureVerifGetRootCARSA2048(),
                                  TOLA_SignatureVerifGetRootCARSA3072(),
                                  TOLA_SignatureVerifGetRootCARSA4096()};
  const uint16_t lengths[] = {1934, 1145, 1606};
  testpki::ClearRoots();
  for (uint16_t type = 0; type < 3; ++type) {
    EXPECT_EQ(roots[type].caType, type);
    EXPECT_EQ(roots[type].length, lengths[type]);
    ASSERT_EQ(TOLA_SignatureVerificationAddRootCA(roots[type]), 0u);
  }
  EXPECT_EQ(roots[0].certificate[0], '-') << "type 0 is PEM";
  EXPECT_REFUSED(Good(), kSigvfyErrChain) << "the three decode, but did not issue this signer";
}

TEST_F(SignatureVerifyTest, FilesThatCannotBeRead) {
  using Block = SIGNATURE_VERIFY_BLOCK_S;
  ASSERT_EQ(mkfifo(dir.File("fifo").c_str(), 0600), 0);
  testpki::WriteFile(dir.File("empty"), std::string_view());
  testpki::WriteFile(dir.File("huge"), Bytes(kSigvfyMaxBuffer + 1, 0x30));
  constexpr auto kContent = &Block::contentPath, kSignature = &Block::signaturePath, kList = &Block::crlPath;
  const struct {
    char (Block::*field)[257];
    const char* name;  ///< "" none
    Verdict verdict;
  } files[] = {
      {kContent, "absent", {kSigErrSignature, kSigvfyErrOpen}},
      {kContent, "empty", {kSigErrSignature, kSigvfyErrEmpty}},
      {kContent, ".", {kSigErrSignature, kSigvfyErrFileSize}},
      {kContent, "fifo", {kSigErrSignature, kSigvfyErrFileSize}},
      {kContent, "", {kSigErrSignature, kSigvfyErrArgument}},
      {kSignature, "absent", {kSigErrSignature, kSigvfyErrOpen}},
      {kSignature, "empty", {kSigErrSignature, kSigvfyErrEmpty}},
      {kSignature, "huge", {kSigErrSignature, kSigvfyErrTooLong}},
      {kList, "absent", {kSigErrCrl, 0}},
      {kList, "empty", {kSigErrCrl, 0}},
      {kList, "huge", {kSigErrCrl, 0}},
      {kList, "", {kSigErrCrl, 0}},
  };
  for (const auto& file : files) {
    Block request = Request(Good());
    SetText(request.*file.field, *file.name != '\0' ? dir.File(file.name) : "");
    EXPECT_EQ(Check(request), file.verdict) << file.name << "\n" << Log();
  }
  const auto endless = [&](auto field, Verdict verdict) {
    Block request = Request(Good());
    memset(request.*field, 'x', sizeof(request.*field));
    EXPECT_EQ(Check(request), verdict) << "a text without an end\n" << Log();
  };
  endless(kContent, {kSigErrEngine, kSigvfyErrArgument});
  endless(kList, {kSigErrCrl, 0});
  endless(&Block::extraCert, {kSigErrRootCert, 0});
  EXPECT_ACCEPTED(Good()) << "a refusal left something behind";
}

TEST_F(SignatureVerifyTest, ContentIsReadInPiecesToItsEnd) {
  EXPECT_REFUSED((Input{{}, Sign("", signer), crl}), kSigvfyErrEmpty) << "even when it is what was signed";
  for (const size_t size : {1u, 4095u, 4096u, 4097u, 100000u}) {
    const std::string content(size, 'x');
    Input input{BytesOf(content), Sign(content, signer), crl};
    EXPECT_ACCEPTED(input) << size;
    input.content.back() = 'y';
    EXPECT_REFUSED(input, 0) << size;
  }
}

TEST_F(SignatureVerifyTest, FlippedSignatureBytesAreNeverTakenForAnotherSigner) {
  const Input good = Good();
  std::vector<size_t> accepted;
  Input flipped = good;
  for (size_t i = 0; i < good.signature.size(); ++i) {
    flipped.signature[i] = static_cast<uint8_t>(~good.signature[i]);
    if (Verify(flipped) == 0) accepted.push_back(i);
    flipped.signature[i] = good.signature[i];
  }
  // Nothing signed and nothing that is used: the list of digest algorithms and the signer's version.
  EXPECT_LE(accepted.size(), 9u) << testing::PrintToString(accepted);
}

TEST_F(SignatureVerifyTest, CutFilesAreRefusedAtEveryLength) {
  const Input good = Good();
  for (const auto field : {&Input::signature, &Input::crl, &Input::content}) {
    for (size_t i = 1; i < (good.*field).size(); ++i) {
      Input cut = good;
      (cut.*field).resize(i);
      ASSERT_EQ(Verify(cut), field == &Input::crl ? kSigErrCrl : kSigErrSignature) << "cut to " << i;
    }
  }
}

TEST_F(SignatureVerifyTest, RandomDamageNeverMakesAForgedContentPass) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](size_t limit) { return random() % limit; };
  Input good = Good();
  good.content[5] ^= 1;
  for (int round = 0; round < 600; ++round) {
    Input bad = good;
    Bytes& target = round % 4 == 0 ? bad.crl : bad.signature;
    for (size_t edits = 1 + below(4); edits > 0; --edits) {
      const size_t at = below(target.size());
      const auto place = target.begin() + static_cast<ptrdiff_t>(at);
      switch (below(4)) {
        case 0:
          *place = static_cast<uint8_t>(random());
          break;
        case 1:
          target.insert(place, static_cast<uint8_t>(random()));
          break;
        case 2:
          if (target.size() > 1) target.erase(place);
          break;
        default:  // a length that promises more than there is
          target[at] = static_cast<uint8_t>(0x80 + below(6));
      }
    }
    ASSERT_NE(Verify(bad), 0u) << "round " << round;
  }
}

}  // namespace
}  // namespace cmstest
