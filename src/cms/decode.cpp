#include "cms/decode.h"

#include <string.h>

#include <initializer_list>
#include <string_view>

#include "base/result_codes.h"
#include "cms/pss.h"
#include "cms/report.h"
#include "cms/verify_time.h"

namespace cms {

namespace {

constexpr int kMinSecurityBits = 112;  // what authentication level 2 asks of the chain
constexpr std::string_view kPemBegin = "-----BEGIN";

using OpenSslText = std::unique_ptr<char, decltype([](char* text) { OPENSSL_free(text); })>;
using OpenSslBytes = std::unique_ptr<uint8_t, decltype([](uint8_t* bytes) { OPENSSL_free(bytes); })>;
using NumberPtr = base::UniqueC<ASN1_INTEGER, ASN1_INTEGER_free>;
using ScopePtr = base::UniqueC<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;

bool IsDer(ByteSpan bytes) {
  return !bytes.empty() && bytes.front() == (V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED);
}

size_t CountBlocks(ByteSpan bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  size_t count = 0;
  for (size_t at = 0; (at = text.find(kPemBegin, at)) != text.npos; at += kPemBegin.size()) ++count;
  return count;
}

/// Calls `take` with the DER bytes of each PEM block. False when a block is broken, encrypted, of a kind that
/// is not in `kinds`, or refused by `take`, and when there is none.
template <class Take>
bool ForEachPemBlock(ByteSpan bytes, std::initializer_list<std::string_view> kinds, Take take) {
  const BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) return false;
  const size_t blocks = CountBlocks(bytes);
  for (size_t i = 0; i < blocks; ++i) {
    char *name = nullptr, *header = nullptr;
    uint8_t* data = nullptr;
    long length = 0;
    if (PEM_read_bio(bio.get(), &name, &header, &data, &length) != 1) return false;
    const OpenSslText ownedName(name), ownedHeader(header);
    const OpenSslBytes ownedData(data);
    bool known = false;
    for (const std::string_view kind : kinds) known = known || kind == name;
    if (!known || header[0] != '\0' || !take(ByteSpan(data, static_cast<size_t>(length)))) return false;
  }
  return blocks != 0;
}

/// Decodes one object from the front of `bytes` and takes it off them; null when there is none.
template <class Owner, auto Decode>
Owner TakeOne(ByteSpan& bytes) {
  const uint8_t* at = bytes.data();
  Owner object(Decode(nullptr, &at, static_cast<long>(bytes.size())));
  if (object) bytes = bytes.subspan(static_cast<size_t>(at - bytes.data()));
  return object;
}

/// Decodes an object that fills `bytes` exactly.
template <class Owner, auto Decode>
Owner DecodeAll(ByteSpan bytes) {
  Owner object = TakeOne<Owner, Decode>(bytes);
  return bytes.empty() ? std::move(object) : nullptr;
}

bool HasStrongSignature(const X509_CRL* crl) {
  const X509_ALGOR* algorithm = nullptr;
  X509_CRL_get0_signature(crl, nullptr, &algorithm);
  const int nid = OBJ_obj2nid(algorithm->algorithm);
  if (nid == NID_ED25519 || nid == NID_ED448) return true;
  int digestNid = NID_undef;
  if (nid == NID_rsassaPss) {
    const std::optional<PssParams> params = ReadPssParams(algorithm);
    if (params) digestNid = params->digestNid;
  } else if (OBJ_find_sigid_algs(nid, &digestNid, nullptr) != 1) {
    return false;
  }
  const EVP_MD* digest = EVP_get_digestbynid(digestNid);
  return digest != nullptr && EVP_MD_get_size(digest) * 4 >= kMinSecurityBits;
}

/// Libcrypto takes a list whose scope is malformed or told twice for one of all certificates.
bool HasClearScope(const X509_CRL* crl) {
  int found = -1;
  const ScopePtr scope(static_cast<ISSUING_DIST_POINT*>(
      X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, &found, nullptr)));
  return scope != nullptr || found == -1;
}

uint32_t CheckCrlForm(const X509_CRL* crl) {
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl);
  if (!SecondsOf(X509_CRL_get0_lastUpdate(crl)) || (next != nullptr && !SecondsOf(next))) {
    return Report(kSigvfyErrDecode, "malformed date of a revocation list");
  }
  if (X509_CRL_get_ext_by_NID(crl, NID_delta_crl, -1) >= 0) {
    return Report(kSigvfyErrDecode, "delta revocation list");
  }
  if (!HasClearScope(crl)) return Report(kSigvfyErrDecode, "malformed scope of a revocation list");
  return HasStrongSignature(crl) ? kSuccess
                                 : Report(kSigvfyErrCrlSignature, "weak revocation list signature");
}

/// Steps into the element at `at`, or over it, when it has `tag`.
enum class Step { kInto, kOver };
bool Walk(const uint8_t*& at, const uint8_t* end, int tag, int tagClass, Step step) {
  long length = 0;
  int foundTag = 0, foundClass = 0;
  const int form = ASN1_get_object(&at, &length, &foundTag, &foundClass, end - at);
  if ((form & 0x80) != 0 || foundTag != tag || foundClass != tagClass) return false;
  if (step == Step::kOver) at += length;
  return true;
}

/// Version of a SignedData, which libcrypto does not tell; -1 when it is no single byte.
int SignedDataVersion(ByteSpan der) {
  const uint8_t* at = der.data();
  const uint8_t* const end = at + der.size();
  const bool found = Walk(at, end, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, Step::kInto) &&
                     Walk(at, end, V_ASN1_OBJECT, V_ASN1_UNIVERSAL, Step::kOver) &&
                     Walk(at, end, 0, V_ASN1_CONTEXT_SPECIFIC, Step::kInto) &&
                     Walk(at, end, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, Step::kInto);
  if (!found || end - at < 3 || at[0] != V_ASN1_INTEGER || at[1] != 1) return -1;
  return at[2];
}

bool IsKnownVersion(int version) {
  return version == 1 || (version >= 3 && version <= 5);
}

uint32_t DecodeSignatureDer(ByteSpan der, CmsPtr& cms) {
  cms = DecodeAll<CmsPtr, d2i_CMS_ContentInfo>(der);
  if (!cms) return Report(kSigvfyErrDecode);
  if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed)
    return Report(kSigvfyErrContent, "no signed data");
  if (!IsKnownVersion(SignedDataVersion(der))) return Report(kSigvfyErrContent, "unknown version");
  if (CMS_is_detached(cms.get()) != 1) return Report(kSigvfyErrContent, "content inside the signature");
  if (sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms.get())) < 1) return Report(kSigvfyErrNoSigner);
  return kSuccess;
}

NumberPtr CrlNumber(const X509_CRL* crl) {
  return NumberPtr(static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr)));
}

}  // namespace

uint32_t DecodeCertificates(ByteSpan bytes, std::vector<CertPtr>& certs) {
  std::vector<CertPtr> decoded;
  bool good = true;
  if (IsDer(bytes)) {
    while (good && !bytes.empty()) {
      CertPtr cert = TakeOne<CertPtr, d2i_X509>(bytes);
      good = cert != nullptr;
      decoded.push_back(std::move(cert));
    }
  } else {
    while (!bytes.empty() && bytes.back() == 0) bytes = bytes.first(bytes.size() - 1);
    good = ForEachPemBlock(bytes, {PEM_STRING_X509, PEM_STRING_X509_OLD}, [&](ByteSpan der) {
      decoded.push_back(DecodeAll<CertPtr, d2i_X509>(der));
      return decoded.back() != nullptr;
    });
  }
  if (!good) return Report(kSigvfyErrDecode);
  for (CertPtr& cert : decoded) certs.push_back(std::move(cert));
  return kSuccess;
}

uint32_t DecodeCrls(ByteSpan bytes, std::vector<CrlPtr>& crls) {
  std::vector<CrlPtr> decoded;
  const auto take = [&](ByteSpan der) {
    decoded.push_back(DecodeAll<CrlPtr, d2i_X509_CRL>(der));
    return decoded.back() != nullptr;
  };
  if (!(IsDer(bytes) ? take(bytes) : ForEachPemBlock(bytes, {PEM_STRING_X509_CRL}, take))) {
    return Report(kSigvfyErrDecode);
  }
  for (const CrlPtr& crl : decoded) {
    const uint32_t code = CheckCrlForm(crl.get());
    if (code != kSuccess) return code;
  }
  for (CrlPtr& crl : decoded) KeepNewest(crls, std::move(crl));
  return kSuccess;
}

uint32_t DecodeSignature(ByteSpan bytes, CmsPtr& cms) {
  if (IsDer(bytes)) return DecodeSignatureDer(bytes, cms);
  uint32_t code = kSuccess;
  size_t count = 0;
  const bool good = ForEachPemBlock(bytes, {PEM_STRING_CMS, PEM_STRING_PKCS7}, [&](ByteSpan der) {
    if (++count > 1) return false;
    code = DecodeSignatureDer(der, cms);
    return code == kSuccess;
  });
  if (code != kSuccess) return code;
  return good ? kSuccess : Report(kSigvfyErrDecode);
}

void KeepNewest(std::vector<CrlPtr>& crls, CrlPtr crl) {
  for (CrlPtr& kept : crls) {
    if (X509_NAME_cmp(X509_CRL_get_issuer(kept.get()), X509_CRL_get_issuer(crl.get())) != 0) continue;
    if (CompareAge(crl.get(), kept.get()) > 0) kept = std::move(crl);
    return;
  }
  crls.push_back(std::move(crl));
}

X509_CRL* FindCrl(const std::vector<CrlPtr>& crls, const X509_NAME* issuer) {
  for (const CrlPtr& crl : crls) {
    if (X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), issuer) == 0) return crl.get();
  }
  return nullptr;
}

int CompareAge(const X509_CRL* a, const X509_CRL* b) {
  const std::optional<int64_t> timeA = SecondsOf(X509_CRL_get0_lastUpdate(a));
  const std::optional<int64_t> timeB = SecondsOf(X509_CRL_get0_lastUpdate(b));
  if (timeA != timeB) return timeA < timeB ? -1 : 1;
  const NumberPtr numberA = CrlNumber(a), numberB = CrlNumber(b);
  if (!numberA || !numberB)
    return static_cast<int>(numberA != nullptr) - static_cast<int>(numberB != nullptr);
  return ASN1_INTEGER_cmp(numberA.get(), numberB.get());
}

}  // namespace cms
