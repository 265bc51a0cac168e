/// The feature id that a script file declares in a line "FeatureID=<number>".
#pragma once

#include <stdint.h>
#include <stdio.h>

/// Looks from `offset` on for a line with `key` anywhere in it. On success `value` is the text after the key,
/// at most 127 characters of it, and `offset` stands behind that line. Lines are read in pieces of 127
/// characters. @retval 0 found @retval 1 not found, or the value does not fit `valueSize`
[[nodiscard]] uint32_t GetKeyValue(FILE* file, int64_t& offset, const char* key, char* value,
                                   uint32_t valueSize);

/// `featureId` is 0 when the file declares none; decimal, 0x and leading-zero octal are read.
/// @retval 0 found @retval 1 no such line, or the file cannot be opened
uint32_t ParsingFeatureIdFromFile(const char* path, uint32_t& featureId);

/// @retval 0 the declared id, or 0 without one, is at least `required` @retval kExeErrFeatureId it is not
[[nodiscard]] uint32_t CheckFeatureIdFromFile(const char* path, uint32_t required);
