/// Issuing certificates and revocation lists for a development CA.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "x509_io.h"

/// A certificate with its private key.
struct Authority {
  cms::CertPtr cert;
  cms::KeyPtr key;
};

struct CertPlan {
  std::string commonName;
  bool isAuthority = false;  ///< else a signer of updates
  int64_t notBefore = 0;     ///< seconds since 1970, as all times here
  int64_t notAfter = 0;
};

struct RevokedCert {
  std::string serial;  ///< hexadecimal
  int64_t date = 0;
};

struct CrlPlan {
  std::string number;  ///< decimal
  int64_t thisUpdate = 0;
  int64_t nextUpdate = 0;
  std::vector<RevokedCert> revoked;
};

/// A certificate for `key`, issued by `issuer`, or by itself when that is null. Null on failure, see
/// CryptoError.
[[nodiscard]] cms::CertPtr IssueCert(const CertPlan& plan, EVP_PKEY* key, const Authority* issuer);

/// Null on failure, see CryptoError.
[[nodiscard]] cms::CrlPtr IssueCrl(const CrlPlan& plan, const Authority& issuer);

/// A new RSA key; null on failure.
[[nodiscard]] cms::KeyPtr NewRsaKey(unsigned bits);

[[nodiscard]] std::string CertPem(X509* cert);
[[nodiscard]] std::string CrlDer(X509_CRL* crl);
/// The caller cleanses the text.
[[nodiscard]] std::string KeyPem(EVP_PKEY* key);
