/// The one CMS check of package verification: a detached signature over a file, against the enabled roots, an
/// extra certificate and a revocation list.
#pragma once

#include <stdint.h>

#include "cms/verify_ctx.h"

inline constexpr uint32_t kSigErrContext = 50982;    ///< 0xC726: no verification context
inline constexpr uint32_t kSigErrRootCert = 50984;   ///< 0xC728: a root or the extra certificate is unusable
inline constexpr uint32_t kSigErrCrl = 50985;        ///< 0xC729: the revocation list file is unusable
inline constexpr uint32_t kSigErrEngine = 50986;     ///< 0xC72A: wrong arguments, or the engine broke down
inline constexpr uint32_t kSigErrSignature = 50987;  ///< 0xC72B: the signature does not verify

/// What to check; each text is zero-terminated in its field.
struct SIGNATURE_VERIFY_BLOCK_S {
  char contentPath[257];
  char signaturePath[257];
  char crlPath[257];
  char extraCert[2001];  ///< PEM text of certificates trusted beside the roots; empty for none
  uint8_t hasCaType;  ///< 1 when the request names a CA type other than 0; every enabled root counts anyway
};
static_assert(sizeof(SIGNATURE_VERIFY_BLOCK_S) == 2773);

/// @retval 0 the content is signed by a signer that chains to a root or the extra certificate
/// @retval kSigErrContext, kSigErrRootCert, kSigErrCrl, kSigErrEngine, kSigErrSignature
[[nodiscard]] uint32_t SignatureVerify(const SIGNATURE_VERIFY_BLOCK_S& request);

/// Adds the enabled roots, the extra certificate and the list of `request` to `ctx`.
/// @retval 0 @retval kSigErrRootCert @retval kSigErrCrl
[[nodiscard]] uint32_t CMSSignatureVerifyFilePreprocess(const SIGNATURE_VERIFY_BLOCK_S& request,
                                                        SigvfyCtx* ctx);

/// Adds every enabled root and the extra certificate, whatever CA type the request names.
/// @retval 0 @retval kSigErrRootCert
[[nodiscard]] uint32_t AddRootCert(const SIGNATURE_VERIFY_BLOCK_S& request, SigvfyCtx* ctx);
