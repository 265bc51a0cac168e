/// The verification engine: a context with trusted certificates and revocation lists, and the check of a
/// detached CMS signature against them.
///
/// A signature passes when every one of its signers passes. A signer's certificate stands in the signature
/// and chains, over certificates of the signature and of the context, to a trust anchor of the context; no
/// anchor signs itself. Certificates that an anchor issued must be covered by a list of that anchor; those
/// that an intermediate issued must be covered when a list of that intermediate is loaded. Certificates and
/// lists must be in their time (cms/verify_time.h), signatures in the chain of today's strength, the signer
/// meant for signing code, and the digest SHA-256, SHA-384, SHA-512 or SM3.
///
/// A trust anchor is a certificate of the context that is self-signed, or whose issuer is not in the context.
///
/// A context belongs to one task. Every failure is reported through SigvfyLogCallback.
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t kSigvfyMaxBuffer = 2000000;  ///< bytes of a signature, certificate or list file

inline constexpr uint32_t kSigvfyErrArgument = 0x88100001;  ///< missing or empty argument
inline constexpr uint32_t kSigvfyErrSize = 0x88100002;      ///< declared size of a record or context is wrong
inline constexpr uint32_t kSigvfyErrReset = 0x88100005;     ///< the stores could not be emptied
inline constexpr uint32_t kSigvfyErrMemory = 0x88000001;    ///< out of memory
inline constexpr uint32_t kSigvfyErrOpen = 0x88000101;      ///< a file cannot be opened
inline constexpr uint32_t kSigvfyErrRead = 0x88000102;      ///< a file cannot be read to its end
inline constexpr uint32_t kSigvfyErrEmpty = 0x88000104;     ///< a file is empty
inline constexpr uint32_t kSigvfyErrFileSize = 0x88000106;  ///< no size: not a regular file
inline constexpr uint32_t kSigvfyErrTooLong = 0x88000205;   ///< more than kSigvfyMaxBuffer bytes
inline constexpr uint32_t kSigvfyErrCrypto = 0x88200001;    ///< libcrypto cannot be set up or failed
inline constexpr uint32_t kSigvfyErrDecode = 0x88200101;    ///< neither DER nor PEM of what was expected
inline constexpr uint32_t kSigvfyErrContent = 0x88200102;   ///< no detached SignedData of a known version
inline constexpr uint32_t kSigvfyErrNoSigner = 0x88200103;  ///< no signer, or its certificate is not there
inline constexpr uint32_t kSigvfyErrChain = 0x88200201;  ///< no chain to an anchor, or a chain rule is broken
inline constexpr uint32_t kSigvfyErrRevoked = 0x88200202;    ///< a certificate of the chain is revoked
inline constexpr uint32_t kSigvfyErrUncovered = 0x88200203;  ///< a certificate has no revocation list
inline constexpr uint32_t kSigvfyErrTime = 0x88200204;       ///< a certificate or list is out of its time
inline constexpr uint32_t kSigvfyErrUsage = 0x88200205;      ///< the certificate is not meant for this use
inline constexpr uint32_t kSigvfyErrCrlIssuer =
    0x88200206;  ///< no certificate of the context issued the list
inline constexpr uint32_t kSigvfyErrCrlSignature = 0x88200207;  ///< wrong or weak signature of a list
inline constexpr uint32_t kSigvfyErrAlgorithm = 0x88200301;   ///< digest or signature algorithm not accepted
inline constexpr uint32_t kSigvfyErrAttributes = 0x88200302;  ///< signed attributes missing, doubled or wrong
inline constexpr uint32_t kSigvfyErrSignature = 0x88200303;   ///< the signature over the attributes is wrong
inline constexpr uint32_t kSigvfyErrState = 0x88200308;       ///< no verification was begun
inline constexpr uint32_t kSigvfyErrNoVerifier = 0x88200309;  ///< a signer has no verification context

/// What SigvfyVerifyCreateCtx takes; all but the size is zero.
struct SIGVFY_CTX_PARAM_S {
  uint32_t size;  ///< must be 68
  uint32_t reserved[16];
};
static_assert(sizeof(SIGVFY_CTX_PARAM_S) == 68);

struct SigvfyCtx;  ///< a verification context
struct SigvfyCrl;  ///< a decoded revocation list file

/// Makes an empty context; it is the caller's, see SigvfyVrfCtxFree. Nothing is left allocated on failure.
/// @retval 0 @retval kSigvfyErrArgument @retval kSigvfyErrSize @retval kSigvfyErrMemory, kSigvfyErrCrypto
[[nodiscard]] uint32_t SigvfyVerifyCreateCtx(SigvfyCtx** ctx, const SIGVFY_CTX_PARAM_S* param);

/// Frees the context with all that it holds; null is accepted.
void SigvfyVrfCtxFree(SigvfyCtx* ctx);

/// Adds the certificates in `bytes`, DER or PEM, one or more, all or none. PEM text may end in zero bytes.
/// @retval 0 @retval kSigvfyErrArgument @retval kSigvfyErrTooLong @retval kSigvfyErrDecode
/// @retval kSigvfyErrSize, kSigvfyErrMemory
[[nodiscard]] uint32_t SigvfyVerifyAddCert(SigvfyCtx* ctx, const uint8_t* bytes, size_t length);

/// Adds the lists of a file: one DER list, or PEM with one or more. One list an issuer is kept, the newest.
/// Nothing but the form and the strength of the algorithm is checked here; the rest when the list is used.
/// @retval 0 @retval kSigvfyErrDecode @retval kSigvfyErrCrlSignature weak algorithm @retval other of the
/// arguments and the file
[[nodiscard]] uint32_t SigvfyVerifyAddCrlFile(SigvfyCtx* ctx, const char* path);

/// Whether the lists of the context serve for its self-signed anchors: one of a part of the certificates, or
/// with a critical extension that nobody knows, makes every path to its anchor fail. Times are not looked at.
/// @retval 0 they do, or an anchor has none @retval kSigvfyErrUncovered, kSigvfyErrChain,
/// kSigvfyErrCrlSignature
/// @retval other of the argument, kSigvfyErrMemory, kSigvfyErrCrypto
[[nodiscard]] uint32_t SigvfyCheckAnchorCrls(SigvfyCtx* ctx);

/// Empties the certificate store. `reserved` is 0. @retval 0 @retval kSigvfyErrArgument, kSigvfyErrSize
[[nodiscard]] uint32_t SigvfyResetCert(SigvfyCtx* ctx, uint32_t reserved);
/// Empties the revocation list store. @retval as above
[[nodiscard]] uint32_t SigvfyResetCrl(SigvfyCtx* ctx);

/// The whole check of the file at `contentPath`. `*result` is untouched by a missing argument, 0 until the
/// last step begins, and 1 afterwards only when every signer passed. A signature that does not match is
/// `*result` 0 with code 0. The stores are empty afterwards.
/// @retval 0 look at `*result`
/// @retval kSigvfyErrOpen, kSigvfyErrEmpty, kSigvfyErrFileSize, kSigvfyErrRead of either file
/// @retval other as Begin, Update and Final
[[nodiscard]] uint32_t SigvfyVerifyDetachSignatureQuick(SigvfyCtx* ctx, const char* contentPath,
                                                        const char* signaturePath, uint32_t* result);

/// The steps of it. Begin checks all but the content, and forgets a verification that runs; `signature` is
/// DER or PEM and is not kept. Final ends the verification in every case. An engine code of Final other than
/// kSigvfyErrArgument, kSigvfyErrSize and kSigvfyErrNoVerifier comes with `*result` 0.
[[nodiscard]] uint32_t SigvfyVerifyDetachSignatureBegin(SigvfyCtx* ctx, const uint8_t* signature,
                                                        size_t length);
[[nodiscard]] uint32_t SigvfyVerifyDetachSignatureUpdate(SigvfyCtx* ctx, const uint8_t* data, size_t length);
[[nodiscard]] uint32_t SigvfyVerifyDetachSignatureFinal(SigvfyCtx* ctx, uint32_t* result);

/// Decodes the lists of a file and checks issuer and signature against the context's certificates. Their time
/// is not looked at, so that an expired list stays comparable. A list whose issuer the context does not hold
/// is left out, since it can be checked only together with a signature; at least one must remain. `*crl` is
/// the caller's, see SigvfyFreeCrl.
/// @retval 0 @retval kSigvfyErrCrlIssuer none is from a certificate of the context
/// @retval kSigvfyErrCrlSignature @retval kSigvfyErrDecode @retval kSigvfyErrMemory nothing can be said of
/// the lists @retval other of the arguments and the file
[[nodiscard]] uint32_t SigvfyDecodeCrlFile(SigvfyCtx* ctx, const char* path, SigvfyCrl** crl);

/// `*newer` becomes 1 when `first` is newer than `second`: a later thisUpdate, then a higher number, of the
/// same issuer. With several issuers no list may be older or missing and one must be newer. Otherwise 0.
/// @retval 0 @retval kSigvfyErrArgument @retval kSigvfyErrMemory
[[nodiscard]] uint32_t SigvfyCompareCrl(const SigvfyCrl* first, const SigvfyCrl* second, uint32_t* newer);

/// True when one of the authenticated lists is not valid yet: nothing newer could take its place in time.
/// True for null.
[[nodiscard]] bool SigvfyCrlIsFuture(const SigvfyCrl* crl);

/// True when the file also holds a list, unauthenticated, under the name of a certificate in `cert` (DER or
/// PEM); also for missing or malformed arguments.
[[nodiscard]] bool SigvfyCrlNamesStranger(const SigvfyCrl* crl, const uint8_t* cert, size_t length);

/// Null is accepted.
void SigvfyFreeCrl(SigvfyCrl* crl);

/// Reports a failure of the engine to the run log as module 4181, level 4, source `logName`. `text` may be
/// empty.
void SigvfyLogCallback(const char* logName, uint32_t line, const char* function, uint32_t code,
                       const char* text);
