/// Decoding of certificates, revocation lists and signatures from DER or PEM bytes. Every byte must be
/// accounted for: DER ends where the object ends, and each PEM block that begins is complete and of the
/// expected kind.
///
/// Nothing here is trusted yet. All may throw std::bad_alloc.
#pragma once

#include <stdint.h>

#include <span>
#include <vector>

#include "cms/openssl_owners.h"

namespace cms {

using ByteSpan = std::span<const uint8_t>;

/// One or more certificates. @retval 0 @retval kSigvfyErrDecode
[[nodiscard]] uint32_t DecodeCertificates(ByteSpan bytes, std::vector<CertPtr>& certs);

/// One DER list or one or more PEM lists; of several of one issuer the newest stays.
/// @retval 0 @retval kSigvfyErrDecode also a delta list, a malformed date or scope @retval
/// kSigvfyErrCrlSignature the signature's algorithm is too weak
[[nodiscard]] uint32_t DecodeCrls(ByteSpan bytes, std::vector<CrlPtr>& crls);

/// A SignedData of a known version, without content of its own and with at least one signer.
/// @retval 0 @retval kSigvfyErrDecode @retval kSigvfyErrContent @retval kSigvfyErrNoSigner
[[nodiscard]] uint32_t DecodeSignature(ByteSpan bytes, CmsPtr& cms);

/// Puts `crl` into `crls` unless a newer list of its issuer is there, which it takes the place of otherwise.
void KeepNewest(std::vector<CrlPtr>& crls, CrlPtr crl);

/// The list of `issuer`, or null.
[[nodiscard]] X509_CRL* FindCrl(const std::vector<CrlPtr>& crls, const X509_NAME* issuer);

/// Below 0, 0 or above 0 as `a` is older than, as old as or newer than `b`: by thisUpdate, then by number.
[[nodiscard]] int CompareAge(const X509_CRL* a, const X509_CRL* b);

}  // namespace cms
