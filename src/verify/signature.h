/// Package verification: the request that travels through it, the switches that turn it on, and the two
/// entries by which the rest of the process asks for it.
///
/// The entries call whatever verifiers are registered. With none registered they succeed, so the stage that
/// turns verification on must ask TolaSignatureVerifierRegistered() afterwards and fail when it says no.
///
/// The switches are set once, at start-up, before requests are served. Verification itself changes the stored
/// revocation lists and runs in one task at a time: the script executor's.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kVerifyErrArgument = 50946;    ///< 0xC702: missing argument
inline constexpr uint32_t kVerifyErrTextSize = 50949;    ///< 0xC705: the digest text does not fit
inline constexpr uint32_t kVerifyErrFileOpen = 50955;    ///< 0xC70B: the file to hash cannot be opened
inline constexpr uint32_t kVerifyErrFileRead = 50956;    ///< 0xC70C: no regular file, or reading it failed
inline constexpr uint32_t kVerifyErrDigest = 50957;      ///< 0xC70D: the crypto library could not hash
inline constexpr uint32_t kVerifyErrListOpen = 50988;    ///< 0xC72C: file list cannot be opened
inline constexpr uint32_t kVerifyErrFileNum = 50989;     ///< 0xC72D: "FileNum=" missing
inline constexpr uint32_t kVerifyErrFileName = 50990;    ///< 0xC72E: "FileName=" missing
inline constexpr uint32_t kVerifyErrListDigest = 50991;  ///< 0xC72F: "SHA256-Digest=" missing
inline constexpr uint32_t kVerifyErrFileHash = 50992;    ///< 0xC730: digest could not be computed
inline constexpr uint32_t kVerifyErrHashDiffers =
    50994;  ///< 0xC732: digest differs, or no listed one matches
inline constexpr uint32_t kVerifyErrMoreEntries = 50995;  ///< 0xC733: more entries than "FileNum=" says
inline constexpr uint32_t kVerifyErrNoCrl = 50996;        ///< 0xC734: no revocation list at all
inline constexpr uint32_t kVerifyErrCrl = 50997;      ///< 0xC735: the update's list could not be brought in
inline constexpr uint32_t kVerifyErrMemory = 50998;   ///< 0xC736: out of memory
inline constexpr uint32_t kVerifyErrDirOpen = 50999;  ///< 0xC737: update directory cannot be opened
inline constexpr uint32_t kVerifyErrStrayFile =
    51000;                                             ///< 0xC738: a file of the directory that nothing names
inline constexpr uint32_t kVerifyErrFileType = 51003;  ///< 0xC73B: an entry is neither file nor directory

/// What is to be verified. The texts stay the caller's and must live through the call; none is changed, but
/// the file at `crlPath` may be overwritten with the stored list.
struct SIGNATURE_VERIFY_REQ_S {
  const char* signaturePath = nullptr;  ///< detached CMS signature, at most 256 characters
  const char* contentPath = nullptr;    ///< signed content, here the file list, at most 256 characters
  const char* extraCert = nullptr;      ///< additional trusted CA certificate text, at most 2000; null: none
  const char* crlPath =
      nullptr;          ///< revocation list, at most 256; null, "" or ending in a slash: none supplied
  uint16_t caType = 0;  ///< family of the root certificate and of the stored list; 0 is the default
  uint32_t caMask = 0;  ///< bit n: suffixed file names of type n may stand in a verified directory
};

/// A registered verifier's result is the entry's result.
using SingleFileVerifier = uint32_t (*)(const SIGNATURE_VERIFY_REQ_S& request);
using MultipleFileVerifier = uint32_t (*)(const SIGNATURE_VERIFY_REQ_S& request, const char* directory);

/// Registers the two verifiers; null takes one away.
void TolaSignatureVerifierRegister(SingleFileVerifier single, MultipleFileVerifier multiple);

/// True when both verifiers are registered.
[[nodiscard]] bool TolaSignatureVerifierRegistered();

/// Registers CMSSignatureVerify and UpgradePackSignatureVerify and stores `enableInfo`: low 16 bits the
/// forced mode (2: reported as off), third byte the part-verify mode (2: a listed file that cannot be opened
/// is an error). The crypto library is set up by the first verification, without any configuration file of
/// it.
void TOLA_EnableSignatureVerificationLite(uint32_t enableInfo);

/// The Lite form, then the built-in RSA-2048 and RSA-3072 roots, then RestoreStoredCrlAtStart(). Call it
/// after the path configuration is loaded.
/// @retval 0 success @retval other the root table's code; verification then has too few roots to succeed
[[nodiscard]] uint32_t TolaEnableSignatureVerification(uint32_t enableInfo);

/// Verifies one signed file (here: the file list) with `caType` in place of the request's own.
/// @retval 0 genuine, or no verifier registered @retval other the verifier's, see CMSSignatureVerify
[[nodiscard]] uint32_t TolaSingleFileSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request, uint16_t caType);

/// Verifies a whole update directory.
/// @retval 0 genuine, or no verifier registered @retval other the verifier's, see UpgradePackSignatureVerify
[[nodiscard]] uint32_t TolaSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request, const char* directory);

/// (0, 0) when no multiple-file verifier is registered or the forced mode is 2, else (1, forced mode).
void TolaGetSignatureVerificationEnableInfo(uint32_t& enabled, uint32_t& mode);

/// Third byte of the enable information.
[[nodiscard]] uint8_t SignaturePartVerifyMode();
