/// The module name table. All of it is used under the log's semaphore, or before it exists.
#pragma once

#include <stdint.h>

#include <string_view>

#include "log/run_log.h"

namespace runlog {

inline constexpr uint32_t kModuleNameMax = 10;
inline constexpr uint32_t kModuleNameSize = 12;

/// The body of RegLogModuleInfo.
[[nodiscard]] uint32_t AddModuleNames(const TOLA_MODULE_NAME_TABLE_S* table);

/// Name of `moduleId`, zero-terminated in `buffer`.
std::string_view ModuleName(uint16_t moduleId, char (&buffer)[kModuleNameSize]);

/// The handle "public_handle" of the runtime's memory, made when there is none yet.
[[nodiscard]] uint32_t PublicHandle(uint32_t* handle);

}  // namespace runlog
