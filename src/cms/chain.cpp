#include "cms/chain.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "base/result_codes.h"
#include "cms/cms_log.h"
#include "cms/decode.h"
#include "cms/report.h"
#include "log/run_log.h"
#include "securec.h"
#include "velto/kel_cfg.h"

namespace cms {

namespace {

constexpr int kAuthLevel = 2;
constexpr int kMaxIntermediates = 8;
constexpr unsigned long kVerifyFlags =
    // Every certificate is looked up in its issuer's list; CRL_CHECK alone looks at the signer only.
    X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL |
    // Times are judged in CheckRules: this library's time_t may be narrower than ours.
    X509_V_FLAG_NO_CHECK_TIME |
    // An anchor that is not self-signed ends a path too.
    X509_V_FLAG_PARTIAL_CHAIN;

struct CodeRow {
  int error;
  uint32_t code;
};
constexpr CodeRow kCodes[] = {
    {X509_V_ERR_CERT_REVOKED, kSigvfyErrRevoked},
    {X509_V_ERR_UNABLE_TO_GET_CRL, kSigvfyErrUncovered},
    {X509_V_ERR_DIFFERENT_CRL_SCOPE, kSigvfyErrUncovered},
    {X509_V_ERR_CRL_SIGNATURE_FAILURE, kSigvfyErrCrlSignature},
    {X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE, kSigvfyErrCrlSignature},
    {X509_V_ERR_OUT_OF_MEM, kSigvfyErrCrypto},
};

uint32_t CodeOf(int error) {
  for (const CodeRow& row : kCodes) {
    if (row.error == error) return row.code;
  }
  return kSigvfyErrChain;
}

bool SameName(const X509_NAME* a, const X509_NAME* b) {
  return X509_NAME_cmp(a, b) == 0;
}

bool IsAnchor(X509* cert, const std::vector<CertPtr>& certs) {
  if (X509_self_signed(cert, 0) == 1) return true;
  return std::none_of(certs.begin(), certs.end(), [&](const CertPtr& other) {
    return other.get() != cert && SameName(X509_get_subject_name(other.get()), X509_get_issuer_name(cert));
  });
}

bool IsInTime(const X509* cert, const VerifyTime& time) {
  const std::optional<int64_t> from = SecondsOf(X509_get0_notBefore(cert));
  const std::optional<int64_t> to = SecondsOf(X509_get0_notAfter(cert));
  return from && to && !time.IsFuture(*from) && !time.IsPast(*to);
}

CertListPtr ToList(std::vector<X509*> certs, const VerifyTime& time) {
  std::stable_partition(certs.begin(), certs.end(), [&](const X509* cert) { return IsInTime(cert, time); });
  CertListPtr list(sk_X509_new_null());
  for (X509* cert : certs) {
    if (!list || sk_X509_push(list.get(), cert) == 0) throw std::bad_alloc();
  }
  return list;
}

/// One line of what is wrong with `cert`, for the log.
struct Complaint {
  char text[160];
  Complaint(const char* what, X509* cert) {
    char name[96] = "";
    if (cert != nullptr) (void)X509_NAME_oneline(X509_get_subject_name(cert), name, sizeof(name));
    (void)snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s: %s", what, name);  // cut is good enough
  }
};

bool IsRemoval(const X509_REVOKED* entry) {
  const base::UniqueC<ASN1_ENUMERATED, ASN1_ENUMERATED_free> reason(
      static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
  return reason != nullptr && ASN1_ENUMERATED_get(reason.get()) == CRL_REASON_REMOVE_FROM_CRL;
}

/// Libcrypto looks at one entry of a certificate only, and that may be its release from an earlier hold.
bool IsRevokedAnywhere(X509_CRL* crl, const X509* cert) {
  const STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(crl);
  for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
    const X509_REVOKED* entry = sk_X509_REVOKED_value(entries, i);
    const ASN1_INTEGER* serial = X509_REVOKED_get0_serialNumber(entry);
    if (ASN1_INTEGER_cmp(serial, X509_get0_serialNumber(cert)) == 0 && !IsRemoval(entry)) return true;
  }
  return false;
}

bool ExpiredCrlIsEnforced() {
  char value[16] = "";
  return KEL_CfgTextGet("feature.expired_crl", value, sizeof(value)) == kSuccess &&
         std::string_view(value) == "enforce";
}

}  // namespace

ChainChecker::ChainChecker(const PkiStore& store, STACK_OF(X509) * extras, const VerifyTime& time)
    : store_(store), time_(time), empty_(X509_STORE_new()), crls_(sk_X509_CRL_new_null()) {
  std::vector<X509*> anchors, untrusted;
  for (const CertPtr& cert : store.certs) {
    (IsAnchor(cert.get(), store.certs) ? anchors : untrusted).push_back(cert.get());
  }
  for (int i = 0; i < sk_X509_num(extras); ++i) untrusted.push_back(sk_X509_value(extras, i));
  anchors_ = ToList(std::move(anchors), time);
  untrusted_ = ToList(std::move(untrusted), time);
  for (const CrlPtr& crl : store.crls) {
    if (!crls_ || sk_X509_CRL_push(crls_.get(), crl.get()) == 0) throw std::bad_alloc();
  }
}

uint32_t ChainChecker::Check(X509* signer) const {
  const StoreCtxPtr ctx(X509_STORE_CTX_new());
  const uint32_t code = Verify(ctx.get(), signer);
  return code == kSuccess ? CheckRules(X509_STORE_CTX_get0_chain(ctx.get())) : code;
}

uint32_t ChainChecker::CheckAnchors() const {
  for (int i = 0; i < sk_X509_num(anchors_.get()); ++i) {
    X509* anchor = sk_X509_value(anchors_.get(), i);
    if (X509_self_signed(anchor, 0) != 1) continue;
    const StoreCtxPtr ctx(X509_STORE_CTX_new());
    const uint32_t code = Verify(ctx.get(), anchor);
    if (code != kSuccess && code != kSigvfyErrRevoked) return code;
  }
  return kSuccess;
}

uint32_t ChainChecker::Verify(X509_STORE_CTX* ctx, X509* cert) const {
  if (ctx == nullptr || !empty_ || X509_STORE_CTX_init(ctx, empty_.get(), cert, untrusted_.get()) != 1) {
    return Report(kSigvfyErrCrypto);
  }
  X509_STORE_CTX_set0_trusted_stack(ctx, anchors_.get());
  X509_STORE_CTX_set0_crls(ctx, crls_.get());
  X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx);
  X509_VERIFY_PARAM_set_auth_level(param, kAuthLevel);
  X509_VERIFY_PARAM_set_depth(param, kMaxIntermediates);
  if (X509_VERIFY_PARAM_set_flags(param, kVerifyFlags) != 1) return Report(kSigvfyErrCrypto);
  X509_STORE_CTX_set_verify_cb(ctx, OnError);
  // The callback only reads through the pointer.
  if (X509_STORE_CTX_set_app_data(ctx, const_cast<ChainChecker*>(this)) != 1) return Report(kSigvfyErrCrypto);
  if (X509_verify_cert(ctx) == 1) return kSuccess;
  const int error = X509_STORE_CTX_get_error(ctx);
  const Complaint complaint(X509_verify_cert_error_string(error), X509_STORE_CTX_get_current_cert(ctx));
  return Report(CodeOf(error), complaint.text);
}

int ChainChecker::OnError(int ok, X509_STORE_CTX* ctx) {
  if (ok == 1) return 1;
  const auto* self = static_cast<const ChainChecker*>(X509_STORE_CTX_get_app_data(ctx));
  if (X509_STORE_CTX_get_error(ctx) != X509_V_ERR_UNABLE_TO_GET_CRL || !self->MayLackCrl(ctx)) return 0;
  X509_STORE_CTX_set_error(ctx, X509_V_OK);
  return 1;
}

/// Only what an intermediate issued, and the anchor itself, may do without a list, and only when no list of
/// the issuer is loaded: one that is there but does not cover the certificate is no excuse.
bool ChainChecker::MayLackCrl(X509_STORE_CTX* ctx) const {
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx);
  const int depth = X509_STORE_CTX_get_error_depth(ctx);
  const int anchor = sk_X509_num(chain) - 1;
  if (depth < 0 || depth > anchor || depth == anchor - 1) return false;
  return FindCrl(store_.crls, X509_get_issuer_name(sk_X509_value(chain, depth))) == nullptr;
}

uint32_t ChainChecker::CheckRules(STACK_OF(X509) * chain) const {
  const int anchor = sk_X509_num(chain) - 1;
  if (anchor < 1) return Report(kSigvfyErrChain, "a trust anchor is no signer");

  for (int i = 0; i <= anchor; ++i) {
    X509* cert = sk_X509_value(chain, i);
    if (!IsInTime(cert, time_))
      return Report(kSigvfyErrTime, Complaint("certificate out of its time", cert).text);
    X509_CRL* crl = i == anchor ? nullptr : FindCrl(store_.crls, X509_get_issuer_name(cert));
    const uint32_t code = crl == nullptr ? kSuccess : CheckCrlTime(crl);
    if (code != kSuccess) return code;
    if (crl != nullptr && IsRevokedAnywhere(crl, cert)) {
      return Report(kSigvfyErrRevoked, Complaint("certificate revoked", cert).text);
    }
    // An absent extension reads as all bits set.
    const uint32_t wanted = i == 0 ? XKU_CODE_SIGN : XKU_CODE_SIGN | XKU_ANYEKU;
    if (i != anchor && (X509_get_extended_key_usage(cert) & wanted) == 0) {
      return Report(kSigvfyErrUsage, Complaint("not for signing code", cert).text);
    }
  }
  X509* signer = sk_X509_value(chain, 0);
  if ((X509_get_key_usage(signer) & KU_DIGITAL_SIGNATURE) == 0) {
    return Report(kSigvfyErrUsage, Complaint("not for signatures", signer).text);
  }
  return kSuccess;
}

uint32_t ChainChecker::CheckCrlTime(const X509_CRL* crl) const {
  const std::optional<int64_t> from = SecondsOf(X509_CRL_get0_lastUpdate(crl));
  if (!from || time_.IsFuture(*from)) return Report(kSigvfyErrTime, "revocation list not yet valid");
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl);
  if (next == nullptr) return kSuccess;
  const std::optional<int64_t> to = SecondsOf(next);
  if (to && !time_.IsPast(*to)) return kSuccess;
  if (!to || !ExpiredCrlIsEnforced()) return Report(kSigvfyErrTime, "revocation list expired");
  LOG_EVT(kLogModule, "revocation list expired, enforced as configured");
  return kSuccess;
}

}  // namespace cms
