/// Reader-writer locks between this process and the ones that it forks, in three groups.
///
/// A lock belongs to the thread that took it. What a thread held when it ended is taken from it as soon as
/// somebody else wants it. A writer waits for a moment without readers. All calls are thread-safe.
#pragma once

#include <stdint.h>

#include "velto/kel_clock.h"

extern "C" {

inline constexpr uint32_t kDdmErrPara = 0x0801;  ///< null or too long argument, no such group or lock
inline constexpr uint32_t kDdmErrFull = 0x0802;  ///< no free lock in the group, or too many readers of one
inline constexpr uint32_t kDdmErrHeld = 0x0803;  ///< an unlock of what the caller does not hold that way
inline constexpr uint32_t kDdmErrMap = 0x0804;   ///< the system has no shared memory

inline constexpr uint32_t kDdmGroupCount = 3;  ///< groups 0, 1, 2

/// Makes the lock `name` (at most 31 characters) of a group, or finds it. Make locks before forking.
[[nodiscard]] uint32_t DDM_IpcRwLockCreate(uint32_t group, const char* name, uint32_t* lockId);
/// @retval kKelErrTimeout (109) the time passed first; 0 looks once
[[nodiscard]] uint32_t DDM_IpcRwLockRLock(uint32_t lockId, uint32_t timeoutMs);
[[nodiscard]] uint32_t DDM_IpcRwLockRUnlock(uint32_t lockId);
[[nodiscard]] uint32_t DDM_IpcRwLockWLock(uint32_t lockId, uint32_t timeoutMs);
[[nodiscard]] uint32_t DDM_IpcRwLockWUnlock(uint32_t lockId);

/// Prints on standard output which locks of a group are held, how, and by which process and thread. Never
/// waits longer than a tenth of a second, whoever holds what.
void DDM_IpcRwLockShowInfo(uint32_t group);

}  // extern "C"
