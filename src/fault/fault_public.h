/// Memory damage and memory leaks. The runtime checks every block that is given back and counts every block
/// that is out, so there is nothing to switch on: the calls keep where records go, and the leak dump writes
/// what is out by place.
///
/// Registration calls belong to start-up; the dump may be asked for by any thread.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kFaultPathSize = 101;  ///< paths have at most 100 characters

/// Where records of damaged memory go. @retval kErrTextCopy null or longer than 100 characters
[[nodiscard]] uint32_t TOLA_SetMemDamageRecordPath(const char* path);
/// Detection runs as long as the process does. @retval 0
[[nodiscard]] uint32_t TOLA_EnableMemDamageForLinux();

/// Where a leak dump goes that names no file of its own. @retval kErrTextCopy as above
[[nodiscard]] uint32_t TOLA_SetMemLeakRecordPath(const char* path);
/// Keeps `path` as TOLA_SetMemLeakRecordPath does; the numbers of watched blocks and seconds and the flag are
/// taken as they are: the runtime watches all blocks, always. @retval 0 @retval kErrTextCopy
[[nodiscard]] uint32_t TOLA_EnableMemLeakForLinux(uint32_t blocks, uint32_t seconds, const char* path,
                                                  uint32_t flag);

/// The same under the names of the agent. `hook` is called with the file of each finished dump; null for
/// none.
/// @retval 0
using FaultExportFileHook = void (*)(const char* path);
[[nodiscard]] uint32_t RegFaultExportFileHookFunc(FaultExportFileHook hook);
[[nodiscard]] uint32_t MemDamageInit();
[[nodiscard]] uint32_t MemLeakInit();

/// Writes the memory that is out now into `path` (made with mode 0600, replaced): one line a place with its
/// tag, source, line, number of blocks and bytes, largest first, then a line with the sums. Null is the leak
/// record path.
/// @retval 0 @retval 1 the file cannot be made or written
[[nodiscard]] uint32_t TOLA_MemLeakDump(const char* path);
