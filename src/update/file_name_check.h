/// What can be checked before a package is unpacked: that every member has a safe name, and that the memory
/// holds what the package unpacks to. The script executor asks for the names alone. The name rules also serve
/// for paths that a shell command will carry.
///
/// Free functions without state, for any thread. Packages are judged through the listings of `tar` and
/// `unzip`; nothing is changed on disk. Kind 0 is a gzip tar, kind 1 a zip; ".tar.gz" is looked for before
/// ".zip".
#pragma once

#include <stdint.h>
#include <stdio.h>

// Names. Results: 0 acceptable, 1 refused, unless something else is said.

/// Refuses a name with one of `forbidden` (null: <>;:?*"'&|%`$\! and newline) among its first `length`
/// characters, and with `checkSequences` one that IsContainSpecialMuiltChar finds fault with. Null is
/// refused.
[[nodiscard]] uint32_t CheckFileNameSpecialChar(const char* name, uint32_t length, const char* forbidden,
                                                bool checkSequences);

/// Refuses a name with anything but letters, digits, '.', '_' and '-' among its first `length` characters.
[[nodiscard]] uint32_t CheckFileNameByWightList(const char* name, uint16_t length);

/// The base name within `path` when CheckFileNameByWightList accepts it; for a path that ends in a separator
/// the whole path when CheckFileNameSpecialChar accepts it; else null. A backslash is a separator too. Kept:
/// the folders in front of a base name are not examined.
[[nodiscard]] const char* GetAndCheckFileName(const char* path);

/// Judges one line of a listing, cut in place at its newline and freed of a leading "./".
/// @retval kErrShift the text could not be shifted
[[nodiscard]] uint32_t CheckOneFileName(char* line, uint32_t bufferSize);

/// @retval 0 every listed member is safe; also a path of no known kind, which is not examined, and a package
/// that its tool cannot list: a tar could not be unpacked either, but one that is called a zip is not
/// examined
/// @retval 1 a member is refused, or the path: characters, a leading '-', for a zip also blanks and what else
/// would make more than one word of it in a shell; or no pipe @retval kErrFormat the command does not fit
/// @retval kErrShift from CheckOneFileName
[[nodiscard]] uint32_t CheckFileNameInCompressedPackage(const char* packagePath);

/// Writes the command that lists a zip. @retval kErrFormat it does not fit `size` characters with terminator
[[nodiscard]] uint32_t MakeUnzipCmdStringOfList(char* out, uint16_t size, const char* packagePath);

/// CheckFileNameInCompressedPackage gives 0.
[[nodiscard]] bool TOLA_IsValidFileNameInCompressedPackage(const char* packagePath);

// Space. Sizes in bytes where nothing else is said.

/// Asks for free memory, then IsReleasePackSafe. @retval 0 safe to unpack @retval 1 not
[[nodiscard]] uint32_t IsReleasePackFileSafe(uint16_t kind, const char* packagePath);

/// Measures the package and compares with the memory, of which a tenth must stay free. A kind other than 0
/// and 1 counts as size 0. @retval 0 safe @retval 1 not, or not measurable
[[nodiscard]] uint32_t IsReleasePackSafe(uint16_t kind, const char* packagePath);

/// IsReleasePackFileSafe of the kind that the path shows. Kept: a path of no known kind is refused here,
/// though the name check accepts it.
[[nodiscard]] bool TOLA_IsEnoughRamToDecompressPackage(const char* packagePath);

/// Unpacked size. `size` is set on 0 only.
/// @retval 1 the command does not fit, the path is unfit for a shell, or the listing is abnormal: a member of
/// 100,000,000 bytes or more, a size that is no number, a sum of 0 or beyond 32 bits @retval kErrPipeOpen
[[nodiscard]] uint32_t GetTarPackFileSize(const char* packagePath, uint32_t& size);
[[nodiscard]] uint32_t GetZipPackFileSize(const char* packagePath, uint32_t& size);

/// @retval 0 enough memory for `neededBytes` @retval 1 too little, or the memory could not be asked for
[[nodiscard]] uint32_t GetSysFlashCapacityAvailableState(uint32_t neededBytes, uint32_t percent);

/// Figures in KiB. @retval 1 less than needed is free, or at most `percent` of the total would stay free
/// @retval 0 enough; also when total or free is 0, that is unknown
[[nodiscard]] uint32_t IsMemFreeSpaceEnough(uint32_t total, uint32_t free, uint32_t needed, uint32_t percent);

/// A plain read-mode pipe from a shell command; null when it cannot be opened. The caller closes it with
/// pclose.
[[nodiscard]] FILE* UpdatePopen(const char* command);
