/// Tagged memory: each allocation belongs to a named handle and remembers the place that asked for it.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t kKelErrMemPara = 0x0401;    ///< null or too long argument
inline constexpr uint32_t kKelErrMemFull = 0x0402;    ///< no free handle
inline constexpr uint32_t kKelErrMemHandle = 0x0403;  ///< no such handle

/// Makes the handle `name` (at most 31 characters), or finds the one that exists. Thread-safe.
[[nodiscard]] uint32_t KEL_HandleInitialize(const char* name, uint32_t* handle);

/// `size` bytes, not zeroed, aligned for any type; null when memory or the configured budget (key
/// mem.budget_bytes) is used up or the handle is unknown. `partition` is 0, the general one; there is no
/// other. `file` must outlive the allocation. Thread-safe, as all of this header is.
[[nodiscard]] void* KEL_MemAlloc_F(uint32_t handle, uint32_t partition, uint32_t size, const char* file,
                                   uint32_t line);

/// Gives memory of KEL_MemAlloc_F back; null is ignored. A pointer that did not come from there, or was given
/// back before, is reported on standard error with `file` and `line` and ends the process.
void KEL_MemFree_F(void* memory, const char* file, uint32_t line);

/// The configured budget, and what is left of it, in bytes. What counts is what was asked for.
uint32_t KEL_MemGetTotalSize(void);
uint32_t KEL_MemGetFreeSize(void);

/// Bytes and allocations that are live under a handle. @retval kKelErrMemHandle unknown handle
/// @retval kKelErrMemPara null argument
[[nodiscard]] uint32_t KEL_HandleUseGet(uint32_t handle, uint64_t* bytes, uint64_t* count);

struct KelMemLive {
  const char* handle;  ///< name
  uint32_t size;
  const char* file;
  uint32_t line;
};

/// Calls `visit` for each live allocation, in no order. `visit` must not take or give back tagged memory;
/// allocations that other threads take or give back meanwhile may be seen or not.
void KEL_MemLiveWalk(void (*visit)(const KelMemLive* live, uintptr_t arg), uintptr_t arg);

/// First place of `needle` in `text`, or null; null arguments give null.
const char* KEL_StrStr(const char* text, const char* needle);

}  // extern "C"

#define KEL_MEM_ALLOC(handle, size) KEL_MemAlloc_F((handle), 0, (size), __FILE__, __LINE__)
#define KEL_MEM_FREE(memory) KEL_MemFree_F((memory), __FILE__, __LINE__)
