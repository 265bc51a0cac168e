#include "cms/pss.h"

#include <openssl/rsa.h>

namespace cms {

namespace {

using AlgorithmPtr = base::UniqueC<X509_ALGOR, X509_ALGOR_free>;

constexpr int64_t kMaxSalt = 512;

/// Digest of the mask generation function; NID_undef when there is no such.
int MaskDigest(const X509_ALGOR* mask) {
  if (mask == nullptr || OBJ_obj2nid(mask->algorithm) != NID_mgf1) return NID_undef;
  const AlgorithmPtr digest(
      static_cast<X509_ALGOR*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(X509_ALGOR), mask->parameter)));
  return digest ? OBJ_obj2nid(digest->algorithm) : NID_undef;
}

}  // namespace

std::optional<PssParams> ReadPssParams(const X509_ALGOR* algorithm) {
  const PssParamsPtr params(static_cast<RSA_PSS_PARAMS*>(
      ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), algorithm->parameter)));
  // An absent digest would mean SHA-1.
  if (!params || params->hashAlgorithm == nullptr) return std::nullopt;
  const int digest = OBJ_obj2nid(params->hashAlgorithm->algorithm);
  if (digest == NID_undef || MaskDigest(params->maskGenAlgorithm) != digest) return std::nullopt;

  int64_t salt = 20;
  int64_t trailer = 1;
  if (params->saltLength != nullptr && ASN1_INTEGER_get_int64(&salt, params->saltLength) != 1)
    return std::nullopt;
  if (params->trailerField != nullptr && ASN1_INTEGER_get_int64(&trailer, params->trailerField) != 1) {
    return std::nullopt;
  }
  if (salt < 0 || salt > kMaxSalt || trailer != 1) return std::nullopt;
  return PssParams{digest, static_cast<int>(salt)};
}

}  // namespace cms
