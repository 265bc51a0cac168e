/// The certificate path of a signer: from its certificate to a trust anchor, with the revocation, time and
/// usage rules of verify_ctx.h.
#pragma once

#include <stdint.h>

#include <vector>

#include "cms/openssl_owners.h"
#include "cms/verify_time.h"

namespace cms {

/// What a context holds.
struct PkiStore {
  std::vector<CertPtr> certs;
  std::vector<CrlPtr> crls;  ///< one an issuer
};

/// Checks the paths of the signers of one signature. The store and the certificates must outlive it.
class ChainChecker {
 public:
  /// `extras` are the signature's certificates, untrusted. May throw std::bad_alloc.
  ChainChecker(const PkiStore& store, STACK_OF(X509) * extras, const VerifyTime& time);

  /// @retval 0 @retval kSigvfyErrChain, kSigvfyErrRevoked, kSigvfyErrUncovered, kSigvfyErrCrlSignature,
  /// kSigvfyErrTime, kSigvfyErrUsage @retval kSigvfyErrCrypto libcrypto failed
  [[nodiscard]] uint32_t Check(X509* signer) const;

  /// Whether the lists cover the self-signed anchors, as every path to one requires. One that its list
  /// revokes is covered, one without a list passes. @retval 0 @retval other as above
  [[nodiscard]] uint32_t CheckAnchors() const;

 private:
  [[nodiscard]] uint32_t Verify(X509_STORE_CTX* ctx, X509* cert) const;
  [[nodiscard]] uint32_t CheckRules(STACK_OF(X509) * chain) const;
  [[nodiscard]] uint32_t CheckCrlTime(const X509_CRL* crl) const;
  static int OnError(int ok, X509_STORE_CTX* ctx);
  [[nodiscard]] bool MayLackCrl(X509_STORE_CTX* ctx) const;

  const PkiStore& store_;
  VerifyTime time_;
  StorePtr empty_;
  CertListPtr anchors_;    ///< those in their time first, so that a renewed certificate is found
  CertListPtr untrusted_;  ///< likewise
  CrlListPtr crls_;
};

}  // namespace cms
