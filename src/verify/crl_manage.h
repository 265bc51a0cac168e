/// The revocation lists that the device keeps, one a CA type, and the rule by which an update's own list and
/// the stored one meet: the newer valid one is stored, and the update's file becomes a copy of what is
/// stored.
///
/// While a stored list is replaced the old one lies beside it as "<name>.old". It leaves only when the new
/// one is in place and on the disk, so a "<name>.old" that a start finds belongs to a replacement that was
/// cut short, whose request never got an answer: the old list is put back.
///
/// One task at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "base/owners.h"
#include "cms/verify_ctx.h"
#include "verify/signature.h"

inline constexpr uint32_t kCrlErrArgument = 0x88100001;  ///< no list path, or a missing argument
inline constexpr uint32_t kCrlErrRoot = 0x88100002;      ///< no root of the CA type, or no stored name

inline constexpr size_t kStoredCrlPathMax = 256;  ///< longest path of a stored list

using VerifyCtxPtr = base::UniqueC<SigvfyCtx, SigvfyVrfCtxFree>;
using VerifyCrlPtr = base::UniqueC<SigvfyCrl, SigvfyFreeCrl>;

/// Which of the two lists of a comparison loaded and authenticated.
struct CRL_COMPARE_STATE_S {
  bool updateValid;
  bool storedValid;
};

/// Settles which list is in force before a signature is checked. Afterwards the stored list of the CA type is
/// the newest valid one, has mode 0600 and the platform's owner, and a supplied list equals it.
/// @retval 0 @retval 50996 neither a stored list nor a supplied one @retval 50997 the supplied one is no use,
/// or the stored one could not be replaced (it is kept then)
[[nodiscard]] uint32_t ProcessCrlInfo(const SIGNATURE_VERIFY_REQ_S& request);

/// True when the request supplies a list: its path is set and does not end in a slash.
[[nodiscard]] bool IsCrlSupplied(const SIGNATURE_VERIFY_REQ_S& request);

/// Path of the stored list of `caType`: "/home/sys_cfg/signature.crl" for 0,
/// "/home/sys_cfg/inside_signature.crl" for 1, each through TOLA_GetFileFullName; for 2 and above the first
/// one, mapped, with "_n" before its last dot.
/// @retval 0 @retval 17673 longer than `max` characters or no room in `size`
[[nodiscard]] uint32_t GetSignatureCrlFileName(uint32_t caType, char* buffer, size_t size, size_t max);

/// Loads the request's list and authenticates it by the root of its CA type and the extra certificate. Its
/// time is not looked at. `context` and `crl` are set on 0 and empty otherwise.
/// @retval 0 @retval 0x88100001 no list path @retval 0x88100002 no root of the CA type @retval other the
/// engine's
[[nodiscard]] uint32_t GetValidCrlInfo(const SIGNATURE_VERIFY_REQ_S& request, VerifyCtxPtr& context,
                                       VerifyCrlPtr& crl);

/// Loads the request's list and the one at `storedPath` (without the extra certificate) and compares them by
/// date and number: `newer` is 1 when the request's is newer.
/// @retval 0 @retval 0x88100001 missing argument @retval other of the loading or the comparison
[[nodiscard]] uint32_t CompareCrlDate(const SIGNATURE_VERIFY_REQ_S& request, const char* storedPath,
                                      uint32_t* newer, CRL_COMPARE_STATE_S* state);

/// With a stored list: stores the update's when it is newer or the stored one no longer authenticates, then
/// copies the stored list over the request's file. A stored list that cannot be looked at for want of memory
/// or descriptors is not displaced.
/// @retval 0 @retval 0x88100002 no stored name @retval other CompareCrlDate's, UpdateCrlFileToDevice's, the
/// copy's
[[nodiscard]] uint32_t CompareAndUpdateCrlFile(const SIGNATURE_VERIFY_REQ_S& request);

/// True when the request's list loads and is signed by the root of its CA type. Kept: one that only the extra
/// certificate vouches for is none, since a stored list is loaded without it.
[[nodiscard]] bool CheckCrlFileValid(const SIGNATURE_VERIFY_REQ_S& request);

/// @retval 0 @retval 50997
[[nodiscard]] uint32_t CheckUpdateCrlValidAndUpdate(const SIGNATURE_VERIFY_REQ_S& request, bool storedExists);

/// Puts the list at `crlPath` in place of the stored one of `caType`. The stored one is there afterwards, old
/// or new, whatever fails. What could not serve as a stored list is refused: a list that the type's root
/// alone does not authenticate (one that borrows its name from an extra certificate), one from the future (no
/// genuine list could ever replace it), one of a part of the certificates or with a critical extension that
/// nobody knows (no signature would pass with it until the next list), and a file with a list of another
/// type's root (nobody compares its age).
/// @retval 0 @retval 17673 a name or the command does not fit @retval 1 a name that no command may hold, a
/// list that cannot be stored, or the replacement failed
[[nodiscard]] uint32_t UpdateCrlFileToDevice(const char* crlPath, uint32_t caType);

/// Puts back the stored list of `caType` when its replacement was cut short or could not be undone.
void RestoreStoredCrl(uint32_t caType);

/// RestoreStoredCrl for every CA type. Call it once at start, before any verification
/// and with the path configuration loaded; TolaEnableSignatureVerification does.
void RestoreStoredCrlAtStart();
