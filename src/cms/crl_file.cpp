// Revocation lists by themselves, as the device's stored list and an update's meet: authenticated and
// compared, without regard to their time.
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <new>

#include "base/result_codes.h"
#include "cms/cert_cache.h"
#include "cms/decode.h"
#include "cms/input_file.h"
#include "cms/report.h"
#include "cms/verify_state.h"
#include "cms/verify_time.h"

struct SigvfyCrl {
  std::vector<cms::CrlPtr> lists;      ///< one an issuer, all authenticated
  std::vector<cms::CrlPtr> strangers;  ///< of issuers that the context does not hold
};

namespace {

constexpr int kMinSecurityBits = 112;

bool MayIssueCrls(X509* cert) {
  return X509_check_ca(cert) != 0 && (X509_get_key_usage(cert) & KU_CRL_SIGN) != 0 &&
         EVP_PKEY_get_security_bits(X509_get0_pubkey(cert)) >= kMinSecurityBits;
}

/// Asks twice before it says no: a lack of memory is not told apart from a wrong signature, and seldom lasts.
bool IsSignedWith(X509_CRL* crl, X509* cert) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  return X509_CRL_verify(crl, key) == 1 || X509_CRL_verify(crl, key) == 1;
}

enum class Origin { kGenuine, kForged, kUnknown };

Origin OriginOf(X509_CRL* crl, const std::vector<cms::CertPtr>& certs) {
  Origin origin = Origin::kUnknown;
  for (const cms::CertPtr& cert : certs) {
    if (X509_NAME_cmp(X509_get_subject_name(cert.get()), X509_CRL_get_issuer(crl)) != 0) continue;
    if (MayIssueCrls(cert.get()) && IsSignedWith(crl, cert.get())) return Origin::kGenuine;
    origin = Origin::kForged;
  }
  return origin;
}

uint32_t DecodeCrlFile(const SigvfyCtx& ctx, const char* path, SigvfyCrl** out) {
  std::vector<uint8_t> bytes;
  uint32_t code = cms::ReadInput(path, bytes);
  std::vector<cms::CrlPtr> lists;
  if (code == kSuccess) code = cms::DecodeCrls(bytes, lists);
  if (code != kSuccess) return code;

  auto crl = std::make_unique<SigvfyCrl>();
  for (cms::CrlPtr& list : lists) {
    const Origin origin = OriginOf(list.get(), ctx.store->certs);
    if (origin == Origin::kForged) return cms::Report(kSigvfyErrCrlSignature, path, "SigvfyDecodeCrlFile");
    (origin == Origin::kGenuine ? crl->lists : crl->strangers).push_back(std::move(list));
  }
  if (crl->lists.empty()) return cms::Report(kSigvfyErrCrlIssuer, path, "SigvfyDecodeCrlFile");
  *out = crl.release();
  return kSuccess;
}

/// Whether libcrypto lacked memory; it tells nothing else apart from a list that is no good.
bool LackedMemory() {
  bool lacked = false;
  while (const unsigned long error = ERR_get_error()) {
    lacked = lacked || ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
  }
  return lacked;
}

/// One older or missing list decides: the others would bring revocations of its issuer to an end.
bool IsNewer(const SigvfyCrl& first, const SigvfyCrl& second) {
  bool anyNewer = false;
  for (const cms::CrlPtr& theirs : second.lists) {
    const X509_CRL* ours = cms::FindCrl(first.lists, X509_CRL_get_issuer(theirs.get()));
    const int age = ours == nullptr ? -1 : cms::CompareAge(ours, theirs.get());
    if (age < 0) return false;
    anyNewer = anyNewer || age > 0;
  }
  return anyNewer;
}

}  // namespace

uint32_t SigvfyDecodeCrlFile(SigvfyCtx* ctx, const char* path, SigvfyCrl** crl) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  if (path == nullptr || crl == nullptr) return cms::Report(kSigvfyErrArgument);
  *crl = nullptr;
  ERR_clear_error();
  const uint32_t result = cms::Contained([&] { return DecodeCrlFile(*ctx, path, crl); });
  if (!LackedMemory()) return result;
  SigvfyFreeCrl(*crl);
  *crl = nullptr;
  return cms::Report(kSigvfyErrMemory);
}

uint32_t SigvfyCompareCrl(const SigvfyCrl* first, const SigvfyCrl* second, uint32_t* newer) {
  if (first == nullptr || second == nullptr || newer == nullptr) return cms::Report(kSigvfyErrArgument);
  ERR_clear_error();
  *newer = IsNewer(*first, *second) ? 1 : 0;
  if (!LackedMemory()) return kSuccess;
  *newer = 0;  // a list without its number looks older than it is
  return cms::Report(kSigvfyErrMemory);
}

bool SigvfyCrlIsFuture(const SigvfyCrl* crl) {
  const cms::VerifyTime time = cms::CurrentVerifyTime();
  return crl == nullptr || std::any_of(crl->lists.begin(), crl->lists.end(), [&](const cms::CrlPtr& list) {
           return time.IsFuture(cms::SecondsOf(X509_CRL_get0_lastUpdate(list.get())).value_or(INT64_MAX));
         });
}

bool SigvfyCrlNamesStranger(const SigvfyCrl* crl, const uint8_t* cert, size_t length) {
  if (crl == nullptr || cert == nullptr || length == 0) return true;
  std::vector<cms::CertPtr> certs;
  const auto decode = [&] { return cms::CertCache::Get().Decode({cert, length}, certs); };
  const bool decoded = cms::Contained(decode) == kSuccess;
  ERR_clear_error();
  return !decoded || std::any_of(certs.begin(), certs.end(), [&](const cms::CertPtr& issuer) {
    return cms::FindCrl(crl->strangers, X509_get_subject_name(issuer.get())) != nullptr;
  });
}

void SigvfyFreeCrl(SigvfyCrl* crl) {
  delete crl;
}
