#include "cms/signer.h"

#include <openssl/crypto.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <span>

#include "base/result_codes.h"
#include "cms/pss.h"
#include "cms/report.h"

namespace cms {

namespace {

struct DigestRow {
  int nid;
  DigestId id;
};
constexpr DigestRow kAcceptedDigests[] = {{NID_sha256, kDigestSha256},
                                          {NID_sha384, kDigestSha384},
                                          {NID_sha512, kDigestSha512},
                                          {NID_sm3, kDigestSm3}};

const EVP_MD* AcceptedDigest(int nid) {
  for (const DigestRow& row : kAcceptedDigests) {
    if (row.nid == nid) return FetchedDigest(row.id);
  }
  return nullptr;
}

/// True when `algorithm` fits the key's type and names no digest but the signer's: a signature algorithm with
/// another digest than the declared one is a substitution.
bool AlgorithmFits(const X509_ALGOR* algorithm, EVP_PKEY* key, int digestNid) {
  const int nid = OBJ_obj2nid(algorithm->algorithm);
  const int type = EVP_PKEY_get_base_id(key);
  if (nid == NID_rsassaPss) {
    const std::optional<PssParams> params = ReadPssParams(algorithm);
    return (type == EVP_PKEY_RSA || type == EVP_PKEY_RSA_PSS) && params && params->digestNid == digestNid;
  }
  if (nid == NID_rsaEncryption) return type == EVP_PKEY_RSA;
  int namedDigest = NID_undef, namedKey = NID_undef;
  if (OBJ_find_sigid_algs(nid, &namedDigest, &namedKey) != 1 || namedDigest != digestNid) return false;
  return (namedKey == NID_rsaEncryption && type == EVP_PKEY_RSA) ||
         (namedKey == NID_X9_62_id_ecPublicKey && type == EVP_PKEY_EC);
}

/// RSA with SM3 is no combination that libcrypto verifies by itself.
bool IsRsaWithSm3(const X509_ALGOR* algorithm, EVP_PKEY* key, int digestNid) {
  return digestNid == NID_sm3 && EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA &&
         OBJ_obj2nid(algorithm->algorithm) != NID_rsassaPss;
}

constexpr size_t kSm3Size = 32;
/// DigestInfo of SM3 in front of the digest, as PKCS #1 v1.5 pads it.
constexpr uint8_t kSm3DigestInfo[] = {0x30, 0x30, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x81, 0x1c,
                                      0xcf, 0x55, 0x01, 0x83, 0x11, 0x05, 0x00, 0x04, 0x20};

/// The SM3 digest that the RSA signature was made over; empty when the signature opens to anything else.
std::vector<uint8_t> OpenRsaSm3(EVP_PKEY* key, const ASN1_OCTET_STRING* signature) {
  const KeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!ctx || EVP_PKEY_verify_recover_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) {
    return {};
  }
  std::vector<uint8_t> opened(static_cast<size_t>(EVP_PKEY_get_size(key)));
  size_t length = opened.size();
  if (EVP_PKEY_verify_recover(ctx.get(), opened.data(), &length, ASN1_STRING_get0_data(signature),
                              static_cast<size_t>(ASN1_STRING_length(signature))) != 1) {
    return {};
  }
  const std::span<const uint8_t> info(opened.data(), length);
  if (length != sizeof(kSm3DigestInfo) + kSm3Size ||
      !std::equal(std::begin(kSm3DigestInfo), std::end(kSm3DigestInfo), info.begin())) {
    return {};
  }
  return {info.end() - kSm3Size, info.end()};
}

/// What is signed of the attributes: their encoding as a SET.
std::vector<uint8_t> EncodeAttributes(const CMS_SignerInfo* info) {
  std::vector<uint8_t> body;
  for (int i = 0; i < CMS_signed_get_attr_count(info); ++i) {
    uint8_t* der = nullptr;
    const int length = i2d_X509_ATTRIBUTE(CMS_signed_get_attr(info, i), &der);
    if (length <= 0) return {};
    const std::unique_ptr<uint8_t, decltype([](uint8_t* bytes) { OPENSSL_free(bytes); })> owned(der);
    body.insert(body.end(), der, der + length);
  }
  const int total = ASN1_object_size(1, static_cast<int>(body.size()), V_ASN1_SET);
  if (total < 0) return {};
  std::vector<uint8_t> set(static_cast<size_t>(total) - body.size());
  uint8_t* at = set.data();
  ASN1_put_object(&at, 1, static_cast<int>(body.size()), V_ASN1_SET, V_ASN1_UNIVERSAL);
  set.insert(set.end(), body.begin(), body.end());
  return set;
}

bool VerifyRsaSm3Attributes(CMS_SignerInfo* info, EVP_PKEY* key, const EVP_MD* sm3) {
  const std::vector<uint8_t> expected = OpenRsaSm3(key, CMS_SignerInfo_get0_signature(info));
  const std::vector<uint8_t> attributes = EncodeAttributes(info);
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  return !expected.empty() && !attributes.empty() &&
         EVP_Digest(attributes.data(), attributes.size(), digest, &size, sm3, nullptr) == 1 &&
         size == expected.size() && CRYPTO_memcmp(digest, expected.data(), size) == 0;
}

}  // namespace

uint32_t Signer::Begin(CMS_ContentInfo* cms, CMS_SignerInfo* info) {
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  X509_ALGOR *digestAlgorithm = nullptr, *algorithm = nullptr;
  CMS_SignerInfo_get0_algs(info, &key, &cert, &digestAlgorithm, &algorithm);
  if (key == nullptr || cert == nullptr) return Report(kSigvfyErrNoSigner);

  const int digestNid = OBJ_obj2nid(digestAlgorithm->algorithm);
  const EVP_MD* digest = AcceptedDigest(digestNid);
  if (digest == nullptr) return Report(kSigvfyErrAlgorithm, "digest algorithm");
  if (!AlgorithmFits(algorithm, key, digestNid)) return Report(kSigvfyErrAlgorithm, "signature algorithm");
  const bool rsaWithSm3 = IsRsaWithSm3(algorithm, key, digestNid);

  hasAttributes_ = CMS_signed_get_attr_count(info) >= 0;
  if (hasAttributes_) {
    const uint32_t code = TakeAttributes(cms, info);
    if (code != kSuccess) return code;
    if (expected_.size() != static_cast<size_t>(EVP_MD_get_size(digest))) return Report(kSigvfyErrAttributes);
    const bool good =
        rsaWithSm3 ? VerifyRsaSm3Attributes(info, key, digest) : CMS_SignerInfo_verify(info) == 1;
    return good ? BeginDigest(digest) : Report(kSigvfyErrSignature);
  }
  // Without attributes nothing signed tells the type of the content, so only plain data is possible.
  if (OBJ_obj2nid(CMS_get0_eContentType(cms)) != NID_pkcs7_data) return Report(kSigvfyErrAttributes);
  const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(info);
  if (rsaWithSm3) {
    expected_ = OpenRsaSm3(key, signature);
    return expected_.empty() ? Report(kSigvfyErrSignature) : BeginDigest(digest);
  }
  const uint8_t* bytes = ASN1_STRING_get0_data(signature);
  expected_.assign(bytes, bytes + ASN1_STRING_length(signature));
  return BeginVerify(digest, key, algorithm);
}

uint32_t Signer::TakeAttributes(CMS_ContentInfo* cms, CMS_SignerInfo* info) {
  constexpr int kOnlyOnce = -3;  // neither a second attribute of the kind nor a second value
  const auto* type = static_cast<const ASN1_OBJECT*>(
      CMS_signed_get0_data_by_OBJ(info, OBJ_nid2obj(NID_pkcs9_contentType), kOnlyOnce, V_ASN1_OBJECT));
  if (type == nullptr || OBJ_cmp(type, CMS_get0_eContentType(cms)) != 0) {
    return Report(kSigvfyErrAttributes, "content type");
  }
  const auto* digest = static_cast<const ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
      info, OBJ_nid2obj(NID_pkcs9_messageDigest), kOnlyOnce, V_ASN1_OCTET_STRING));
  if (digest == nullptr) return Report(kSigvfyErrAttributes, "message digest");
  const uint8_t* bytes = ASN1_STRING_get0_data(digest);
  expected_.assign(bytes, bytes + ASN1_STRING_length(digest));
  return kSuccess;
}

uint32_t Signer::BeginDigest(const EVP_MD* digest) {
  mode_ = Mode::kDigest;
  running_.reset(EVP_MD_CTX_new());
  const bool good = running_ && EVP_DigestInit_ex2(running_.get(), digest, nullptr) == 1;
  return good ? kSuccess : Report(kSigvfyErrCrypto);
}

uint32_t Signer::BeginVerify(const EVP_MD* digest, EVP_PKEY* key, const X509_ALGOR* algorithm) {
  mode_ = Mode::kVerify;
  running_.reset(EVP_MD_CTX_new());
  EVP_PKEY_CTX* keyCtx = nullptr;  // belongs to running_
  if (!running_ || EVP_DigestVerifyInit(running_.get(), &keyCtx, digest, nullptr, key) != 1) {
    return Report(kSigvfyErrCrypto);
  }
  if (OBJ_obj2nid(algorithm->algorithm) != NID_rsassaPss) return kSuccess;
  const std::optional<PssParams> params = ReadPssParams(algorithm);
  const bool good = params && EVP_PKEY_CTX_set_rsa_padding(keyCtx, RSA_PKCS1_PSS_PADDING) == 1 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(keyCtx, digest) == 1 &&
                    EVP_PKEY_CTX_set_rsa_pss_saltlen(keyCtx, params->saltLength) == 1;
  return good ? kSuccess : Report(kSigvfyErrAlgorithm, "PSS parameters");
}

uint32_t Signer::Update(const uint8_t* data, size_t length) {
  if (!running_) return Report(kSigvfyErrNoVerifier);
  const int good = mode_ == Mode::kDigest ? EVP_DigestUpdate(running_.get(), data, length)
                                          : EVP_DigestVerifyUpdate(running_.get(), data, length);
  return good == 1 ? kSuccess : Report(kSigvfyErrCrypto);
}

uint32_t Signer::Final(bool& matches) {
  matches = false;
  if (!running_) return Report(kSigvfyErrNoVerifier);
  if (mode_ == Mode::kVerify) {
    matches = EVP_DigestVerifyFinal(running_.get(), expected_.data(), expected_.size()) == 1;
    return kSuccess;
  }
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_DigestFinal_ex(running_.get(), digest, &size) != 1) return Report(kSigvfyErrCrypto);
  matches = size == expected_.size() && CRYPTO_memcmp(digest, expected_.data(), size) == 0;
  return kSuccess;
}

}  // namespace cms
