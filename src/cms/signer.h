/// One signer of a signature whose content is being streamed.
#pragma once

#include <stdint.h>

#include <vector>

#include "cms/openssl_owners.h"

namespace cms {

/// Holds either a running digest with the digest that it must come to, or a running public-key verification.
/// Keeps nothing of the decoded signature.
class Signer {
 public:
  /// Checks algorithms, attributes and, where there are attributes, the signature over them; then gets ready
  /// for the content. The chain is the caller's matter. May throw std::bad_alloc.
  /// @retval 0 @retval kSigvfyErrAlgorithm, kSigvfyErrAttributes, kSigvfyErrSignature @retval
  /// kSigvfyErrCrypto
  [[nodiscard]] uint32_t Begin(CMS_ContentInfo* cms, CMS_SignerInfo* info);

  /// @retval 0 @retval kSigvfyErrNoVerifier, kSigvfyErrCrypto
  [[nodiscard]] uint32_t Update(const uint8_t* data, size_t length);

  /// `matches` tells whether the content is what was signed. Call it once.
  /// @retval 0 @retval kSigvfyErrNoVerifier, kSigvfyErrCrypto
  [[nodiscard]] uint32_t Final(bool& matches);

  [[nodiscard]] bool HasSignedAttributes() const { return hasAttributes_; }

 private:
  enum class Mode { kDigest, kVerify };

  [[nodiscard]] uint32_t BeginDigest(const EVP_MD* digest);
  [[nodiscard]] uint32_t BeginVerify(const EVP_MD* digest, EVP_PKEY* key, const X509_ALGOR* algorithm);
  [[nodiscard]] uint32_t TakeAttributes(CMS_ContentInfo* cms, CMS_SignerInfo* info);

  Mode mode_ = Mode::kDigest;
  bool hasAttributes_ = false;
  DigestCtxPtr running_;
  std::vector<uint8_t> expected_;  ///< the digest, or the signature
};

}  // namespace cms
