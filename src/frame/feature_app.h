/// Finding and killing other instances of a process by name. Not called at start-up.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kNoSuchProcess = static_cast<uint32_t>(-2);

/// First process id of "pidof" that is not the caller's own.
/// @retval kNoSuchProcess none @retval kErrTextFormat the name is too long
[[nodiscard]] uint32_t TolaOsGetAppPidByName(const char* name);

/// First decimal number of `line` that is neither 0 nor `ownPid`, else kNoSuchProcess. The line is cut up.
[[nodiscard]] uint32_t TolaOsGetUnSamePid(char* line, unsigned ownPid);

/// @retval 0 no process of the name is left, or the command to kill them failed
[[nodiscard]] uint32_t TolaOsKillOneFeatureApp(const char* name);

/// The same with an empty name, kept so.
[[nodiscard]] uint32_t TolaOsKillFeatureApp();
