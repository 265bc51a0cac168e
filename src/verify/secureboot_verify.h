/// Secure boot: installed files against a signed file list that stands beside them.
///
/// List, signature and revocation list of application A in directory D are D/A_filelist.txt, .cms and .crl
/// (mode 1), or the same names behind "gst_" (mode 2). The list is that of an update (signature_normal.h);
/// an entry may also have "FilePath=" (at most 128 characters, put directly in front of the name) and
/// "ForceVerify=" (exactly "0": a file that differs is logged and let pass). Behind an entry's "FileName="
/// its keys stand in any order, the first of a kind counts, and the next "FileName=" ends them: no value is
/// taken from another entry.
///
/// The switches and hooks may be set by any thread; the checks keep no state of their own.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "cms/signature_verify.h"
#include "verify/signature_normal.h"

inline constexpr uint32_t kSecureBootErrNotListed = 51000;  ///< 0xC738: the list is empty or lacks the file
inline constexpr uint32_t kSecureBootErrList = 51001;       ///< 0xC739: the list cannot be resolved or opened

inline constexpr uint32_t kSecureBootMode1 = 1;
inline constexpr uint32_t kSecureBootMode2 = 2;
inline constexpr uint32_t kSecureBootOneFile = 1;  ///< flag of SecureBootVerifyByPathAndAppName

struct SECUREBOOT_ENTRY_S {
  char name[kListNameMax + 1];
  char digest[kDigestText];
  char path[kListNameMax + 1];
  bool forced;
};

/// Which families SecureBootVerifyByMode checks: kSecureBootMode1, kSecureBootMode2 or both added. Mode 1
/// until it is set. kept: with neither bit nothing is checked, successfully.
void SetSecureBootVerifyMode(uint32_t mode);
[[nodiscard]] uint32_t GetSecureBootVerifyMode();
void SetSecureBootVerifyFunc(uint32_t value);
[[nodiscard]] bool GetSecureBootEnableState();  ///< true when that value is not 0; false until it is set

/// Changes an entry's "FilePath=" in place; `listPath` is the list's real path, `adjust` the caller's
/// argument of the check. A result other than 0 fails the check. Null, as at first: paths stay as they are.
using SecureBootAdjustPath = uint32_t (*)(const char* listPath, uint32_t adjust, char* path, size_t size);
void SetSecureBootAdjustPath(SecureBootAdjustPath hook);
/// Rewrites a copy of the caller's block before use, for lists that carry several signatures. A result other
/// than 0 fails the check. Null, as at first: blocks stay as they are.
using SecureBootMultiSign = uint32_t (*)(SIGNATURE_VERIFY_BLOCK_S& block);
void SetSecureBootMultiSign(SecureBootMultiSign hook);

/// Fills `block` with the three paths of a mode, at most 256 characters each, and empties the rest.
/// @retval 1 a path is too long, an argument is missing, or there is no such mode
[[nodiscard]] uint32_t MakeSecureBootFullFilePathByMode(SIGNATURE_VERIFY_BLOCK_S& block,
                                                        const char* directory, const char* appName,
                                                        uint32_t mode);
/// Mode 1 into the first block, mode 2 into the second. @retval 1 as above
[[nodiscard]] uint32_t MakeSecureBootFullFilePath(SIGNATURE_VERIFY_BLOCK_S& block1,
                                                  SIGNATURE_VERIFY_BLOCK_S& block2, const char* directory,
                                                  const char* appName);

/// Signature, then every listed file.
/// @retval 0 genuine @retval other of SignatureVerify or VerifyFileHashInfFilelist
[[nodiscard]] uint32_t SecureBootVerify(const SIGNATURE_VERIFY_BLOCK_S& block, uint32_t adjust);
/// One file, by its "FilePath=" and name as listed. kept: its digest comes first, then the signature.
/// @retval 0 genuine @retval kSecureBootErrList
/// @retval other of SecureBootVerifyOneFileHash or SignatureVerify
[[nodiscard]] uint32_t SecureBootVerifyOneFile(const SIGNATURE_VERIFY_BLOCK_S& block, const char* fileName,
                                               uint32_t adjust);
/// The check of each family that the mode selects, mode 1 first; the first failure ends it.
[[nodiscard]] uint32_t SecureBootVerifyByMode(const SIGNATURE_VERIFY_BLOCK_S& block1,
                                              const SIGNATURE_VERIFY_BLOCK_S& block2, uint32_t adjust);
[[nodiscard]] uint32_t SecureBootVerifyOneFileByMode(const SIGNATURE_VERIFY_BLOCK_S& block1,
                                                     const SIGNATURE_VERIFY_BLOCK_S& block2,
                                                     const char* fileName, uint32_t adjust);
/// An application's mode-1 list: one file when `fileName` is given and `flags` has kSecureBootOneFile, else
/// all. @retval 1 a path is too long @retval other of the two checks
[[nodiscard]] uint32_t SecureBootVerifyByPathAndAppName(const char* directory, const char* appName,
                                                        uint32_t flags, const char* fileName,
                                                        uint32_t adjust);

/// Every file of a list that is verified already.
/// @retval 0 all are as listed, or differ and are not forced @retval kSecureBootErrList
/// @retval 50989 "FileNum=" missing @retval 50995 the list goes on after its count
/// @retval other of GetOneFileInfoFromFileList or VerifyFileHash
[[nodiscard]] uint32_t VerifyFileHashInfFilelist(const char* fileListPath, uint32_t adjust);
/// @retval 0 as listed @retval 50994 it differs @retval 17673 path and name are too long together
/// @retval other TolaCalcFileHash's: the file cannot be read
[[nodiscard]] uint32_t VerifyFileHash(const SECUREBOOT_ENTRY_S& entry);
/// Reads the next entry of `file`, whose real path is `path`.
/// @retval 0 @retval 50990 "FileName=" missing @retval 50991 "SHA256-Digest=" missing
/// @retval 17673 a "FilePath=" that does not fit
[[nodiscard]] uint32_t GetOneFileInfoFromFileList(FILE* file, SECUREBOOT_ENTRY_S& entry, const char* path,
                                                  uint32_t adjust);
/// Looks for `fileName` among the counted entries and checks it, forced or not.
/// @retval 0 @retval 50989 "FileNum=" missing @retval kSecureBootErrNotListed
/// @retval other of GetOneFileInfoFromFileList or VerifyFileHash
[[nodiscard]] uint32_t SecureBootVerifyOneFileHash(FILE* file, const char* fileName, const char* path,
                                                   uint32_t adjust);
