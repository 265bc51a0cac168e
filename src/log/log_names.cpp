#include "log/log_names.h"

#include <string.h>

#include <charconv>

#include "base/result_codes.h"
#include "log/log_lock.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace runlog {
namespace {

TOLA_MODULE_NAME_S* g_entries = nullptr;
uint32_t g_count = 0;

bool HasName(const TOLA_MODULE_NAME_S& entry) {
  return entry.name != nullptr && entry.name[0] != '\0';
}

bool IsTooLong(const TOLA_MODULE_NAME_S& entry) {
  return entry.name != nullptr && strnlen(entry.name, kModuleNameMax + 1) > kModuleNameMax;
}

/// "M%02hu" without the price of a format, since most modules have no name.
std::string_view NumberedName(uint16_t moduleId, char (&buffer)[kModuleNameSize]) {
  char* at = buffer;
  *at++ = 'M';
  if (moduleId < 10) *at++ = '0';
  at = std::to_chars(at, buffer + sizeof(buffer) - 1, moduleId).ptr;
  *at = '\0';
  return {buffer, static_cast<size_t>(at - buffer)};
}

}  // namespace

uint32_t PublicHandle(uint32_t* handle) {
  return KEL_HandleInitialize("public_handle", handle);
}

uint32_t AddModuleNames(const TOLA_MODULE_NAME_TABLE_S* table) {
  if (table == nullptr || table->count == 0 || table->entries == nullptr) return kSuccess;
  for (uint32_t i = 0; i < table->count; ++i) {
    if (IsTooLong(table->entries[i])) return kLogErrNameTooLong;
  }
  const uint64_t added = uint64_t{table->count} * sizeof(TOLA_MODULE_NAME_S);
  const uint64_t kept = uint64_t{g_count} * sizeof(TOLA_MODULE_NAME_S);
  uint32_t handle = 0;
  if (added + kept > INT32_MAX || PublicHandle(&handle) != 0) return kLogErrNameMemory;
  const uint32_t total = static_cast<uint32_t>(added + kept);
  auto* joined = static_cast<TOLA_MODULE_NAME_S*>(KEL_MEM_ALLOC(handle, total));
  if (joined == nullptr) return kLogErrNameMemory;

  // The new names stand first, so that they win over older names of the same module.
  if (memcpy_s(joined, total, table->entries, static_cast<size_t>(added)) != EOK ||
      (kept != 0 && memcpy_s(joined + table->count, static_cast<size_t>(kept), g_entries,
                             static_cast<size_t>(kept)) != EOK)) {
    KEL_MEM_FREE(joined);
    return kErrCopy;
  }
  KEL_MEM_FREE(g_entries);
  g_entries = joined;
  g_count += table->count;
  return kSuccess;
}

std::string_view ModuleName(uint16_t moduleId, char (&buffer)[kModuleNameSize]) {
  for (uint32_t i = 0; i < g_count; ++i) {
    if (g_entries[i].moduleId != moduleId || !HasName(g_entries[i])) continue;
    (void)strncpy_s(buffer, sizeof(buffer), g_entries[i].name, kModuleNameMax);
    return buffer;
  }
  return NumberedName(moduleId, buffer);
}

}  // namespace runlog

uint32_t RegLogModuleInfo(const TOLA_MODULE_NAME_TABLE_S* table) {
  const runlog::LogLock lock;
  return lock.MayChange() ? runlog::AddModuleNames(table) : kFailure;
}
