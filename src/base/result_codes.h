/// Result codes that several rooms share. A code that one room alone returns stands in that room's header.
///
/// A result is an unsigned 32-bit word, 0 is success. Results of the runtime stay below 0x10000, because some
/// callers keep only 16 bits of them.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kSuccess = 0;
inline constexpr uint32_t kFailure = 1;

inline constexpr uint32_t kErrCopy = 0x4501;        ///< 17665: a bounded copy did not fit
inline constexpr uint32_t kErrShift = 0x4502;       ///< 17666: text could not be shifted in its buffer
inline constexpr uint32_t kErrFormat = 0x4503;      ///< 17667: a path or command line did not fit its buffer
inline constexpr uint32_t kErrFieldCopy = 0x4505;   ///< 17669: a field of a verification request is too long
inline constexpr uint32_t kErrTextCopy = 0x4506;    ///< 17670: a bounded text copy did not fit
inline constexpr uint32_t kErrTextFormat = 0x4509;  ///< 17673: bounded formatting failed or produced nothing
inline constexpr uint32_t kErrPipeOpen = 0x395F;    ///< 14687: a file or pipe could not be opened for reading
inline constexpr uint32_t kErrNullText = 0x396C;    ///< 14700: a null text, or a path that leads nowhere
