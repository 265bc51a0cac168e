/// What the verifiers share: digest text, the key search of file lists, and the name rule for the files that
/// accompany a signed list.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/// Two lower-case hexadecimal characters a byte, and a terminator where `textSize` leaves room for one.
/// @retval 0 @retval 50946 missing argument @retval 50949 `textSize` below twice `count`
[[nodiscard]] uint32_t TolaChangeU8toAscChar(const uint8_t* bytes, size_t count, char* text, size_t textSize);

inline constexpr uint32_t kKeyFound = 0;
inline constexpr uint32_t kKeyMissing = 1;  ///< no further line holds the key
inline constexpr uint32_t kKeyUnusable =
    2;  ///< the next line with the key has no value that fits, or reading failed

/// Looks from the current position for the next line that holds `key` anywhere and copies what follows it, up
/// to CR, LF or the end, into `value` (`valueSize` with terminator). On kKeyFound the position is after that
/// line; otherwise `value` is empty, the position is where it was, and the key counts as missing. A line has
/// at most 159 characters: in a longer one no value fits, and a value with a zero byte fits nowhere. A line
/// that holds `until` ends the search before it.
[[nodiscard]] uint32_t GetKeyValueFromFile(FILE* file, const char* key, char* value, size_t valueSize,
                                           const char* until = nullptr);

/// "FileNum=" of the list at its current position: the low 8 bits of the decimal count.
/// @retval 0 @retval 50989 missing, or not a decimal number
[[nodiscard]] uint32_t GetFileNumFromList(FILE* fileList, uint32_t& count);

/// Opens a file list for reading: a regular file only, never waiting; null on failure.
[[nodiscard]] FILE* OpenFileList(const char* path);

/// "_n" before the last dot of `name`, or at its end; `max` characters at most in a buffer of `size`.
/// @retval 0 @retval 17673 it does not fit, or an argument is missing
[[nodiscard]] uint32_t AppendCaTypeToSignatureFileName(const char* name, char* buffer, size_t size,
                                                       size_t max, uint32_t caType);

/// True when a file called `name` may stand beside the file at `path`: the same base name, the base name
/// without its last "_..." part, or one of these with the suffix of a CA type whose bit is set in `caMask`. A
/// path without a slash matches nothing, one that ends in a slash everything.
[[nodiscard]] bool CheckFileNameSame(const char* path, const char* name, uint32_t caMask);

/// True when `name` is `text` with the suffix of a CA type that exists and whose bit is set in `caMask`.
[[nodiscard]] bool CheckMultiFilelNameSame(const char* text, const char* name, uint32_t caMask);
