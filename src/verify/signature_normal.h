/// The verifiers: the signature over the file list, the digests of the files that the list names, and the
/// rule which files may stand in a verified directory.
///
/// File list: text, one key, equals sign and value a line. "FileNum=" decimal count, of which the low 8 bits
/// hold; then per entry "FileName=" (at most 128 characters) and "SHA256-Digest=" (64 lower-case hexadecimal
/// characters). A value that does not fit counts as missing.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "verify/signature.h"

inline constexpr size_t kListNameMax = 128;                  ///< longest name in a file list
inline constexpr size_t kDigestBytes = 32;                   ///< SHA-256
inline constexpr size_t kDigestText = 2 * kDigestBytes + 1;  ///< its hexadecimal text with terminator

/// A digest text on the stack, cleansed when it goes.
struct DigestText {
  char text[kDigestText] = {};
  DigestText() = default;
  DigestText(const DigestText&) = delete;
  DigestText& operator=(const DigestText&) = delete;
  ~DigestText();
};

struct FILE_LIST_ENTRY_S {
  char name[kListNameMax + 1];
  char digest[kDigestText];
};

/// Settles the revocation list (ProcessCrlInfo), then checks the detached signature over the content file
/// with the supplied list or, when none is supplied, the stored one.
/// @retval 0 genuine
/// @retval 17669 a path or the extra certificate is too long, or a path is missing
/// @retval 50996, 50997 see ProcessCrlInfo
/// @retval other see SignatureVerify
[[nodiscard]] uint32_t CMSSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request);

/// Signature, stray files, then every listed digest under `directory`.
/// @retval 0 genuine @retval 50988 the list cannot be opened @retval other of the three checks below
[[nodiscard]] uint32_t UpgradePackSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request,
                                                  const char* directory);

/// CMSSignatureVerify, then CheckAllUpdateFileNeedVerify.
[[nodiscard]] uint32_t CheckCMSAndUpdatePacketValid(const SIGNATURE_VERIFY_REQ_S& request,
                                                    const char* directory);

/// Every entry of `directory` must be a file or directory that the list names, or one of the request's own
/// three files by CheckFileNameSame. A list of 0 entries succeeds without a look at the directory.
/// @retval 0 @retval 50988 to 50991 list faults @retval 50998 memory @retval 50999 directory cannot be opened
/// @retval 51000 a stray file @retval 51003 an entry of another type
[[nodiscard]] uint32_t CheckAllUpdateFileNeedVerify(const SIGNATURE_VERIFY_REQ_S& request,
                                                    const char* directory);

/// Compares the digest of every listed file under `directory`; `fileList` is read from where it stands.
/// @retval 0 @retval 50989 no count @retval 50995 the list goes on after its count @retval other
/// ParseFileName's
[[nodiscard]] uint32_t CheckFileListHash(FILE* fileList, const char* directory);

/// Reads the next entry of the list into `entry` and compares the file's digest.
/// @retval 0 equal; or the file cannot be opened and the part-verify mode is not 2; or the path is too long
/// @retval 50990, 50991 list faults @retval 50992 no digest could be made, a directory included @retval 50994
[[nodiscard]] uint32_t ParseFileName(FILE_LIST_ENTRY_S& entry, FILE* fileList, const char* directory);

/// Looks for the digest of the file among the digests of a list that is verified already; names do not count.
/// @retval 0 found @retval 50992 no digest could be made @retval 50988, 50989 list faults @retval 50994 none
/// equal
[[nodiscard]] uint32_t UpgradePackHashVerify(const char* fileListPath, const char* filePath);

/// SHA-256 of the file as lower-case hexadecimal text with terminator; `textSize` at least kDigestText.
/// @retval 0 @retval other TolaCalcFileHash's or TolaChangeU8toAscChar's
[[nodiscard]] uint32_t CalcFileHashStr(const char* path, char* text, size_t textSize);

/// SHA-256 of the whole file into `digest` (kDigestBytes). The file is opened once, without waiting for
/// anything, and read from that descriptor; memory use does not depend on its size. Threads take turns.
/// @retval 0
/// @retval 50946 missing argument
/// @retval 50955 the file cannot be opened
/// @retval 50956 it is a directory, pipe, socket or device, or reading failed
/// @retval 50957 the crypto library has no SHA-256 or failed
[[nodiscard]] uint32_t TolaCalcFileHash(const char* path, uint8_t* digest);
