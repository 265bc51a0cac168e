/// Owners of libcrypto objects, and the one way in which this program sets libcrypto up.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
// pem.h has to come before cms.h, or cms.h declares no PEM functions.
#include <openssl/cms.h>

#include "base/owners.h"

namespace cms {

using BioPtr = base::UniqueC<BIO, BIO_free_all>;
using CertPtr = base::UniqueC<X509, X509_free>;
using CrlPtr = base::UniqueC<X509_CRL, X509_CRL_free>;
using CmsPtr = base::UniqueC<CMS_ContentInfo, CMS_ContentInfo_free>;
using KeyPtr = base::UniqueC<EVP_PKEY, EVP_PKEY_free>;
using KeyCtxPtr = base::UniqueC<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using DigestCtxPtr = base::UniqueC<EVP_MD_CTX, EVP_MD_CTX_free>;
using DigestPtr = base::UniqueC<EVP_MD, EVP_MD_free>;
using StorePtr = base::UniqueC<X509_STORE, X509_STORE_free>;
using StoreCtxPtr = base::UniqueC<X509_STORE_CTX, X509_STORE_CTX_free>;
using PssParamsPtr = base::UniqueC<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free>;

/// A stack owns the list; CertStackPtr the certificates as well, CertListPtr none of them.
struct CertStackFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
struct CertListFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
struct CrlListFree {
  void operator()(STACK_OF(X509_CRL) * stack) const { sk_X509_CRL_free(stack); }
};
using CertStackPtr = std::unique_ptr<STACK_OF(X509), CertStackFree>;
using CertListPtr = std::unique_ptr<STACK_OF(X509), CertListFree>;
using CrlListPtr = std::unique_ptr<STACK_OF(X509_CRL), CrlListFree>;

/// Sets libcrypto up without any configuration file, so that no file of the machine can load a provider or
/// change an algorithm. Call it before the first use of libcrypto; later calls cost nothing. Thread-safe.
/// @retval false libcrypto cannot be used
[[nodiscard]] bool InitCrypto();

/// The engine's digest identifiers.
enum DigestId : uint32_t {
  kDigestSha256 = 43,
  kDigestSha384 = 44,
  kDigestSha512 = 45,
  kDigestSm3 = 46,
};

/// The algorithm of `id`, fetched once and kept as long as the process; null for another identifier or when
/// libcrypto does not offer it. Thread-safe; sets libcrypto up.
[[nodiscard]] const EVP_MD* FetchedDigest(uint32_t id);

}  // namespace cms
