/// Queries of the machine's load: CPU, memory, processes by name, and the file system behind a directory.
///
/// Results differ from function to function and are kept so: see each. Every function may be called by any
/// thread.
#pragma once

#include <stdint.h>
#include <sys/vfs.h>

inline constexpr uint32_t kSysResErrOpen = 0x2A01;  ///< 10753: "/proc/meminfo" cannot be opened
inline constexpr uint32_t kSysResErrRead = 0x2A05;  ///< 10757: nothing could be read from it

/// CPU use in percent as the runtime reports it.
uint32_t TOLA_GetSysCpuUsage();

/// Percentage of memory that is not available, 0 to 100.
/// @retval 0 success, kSysResErrOpen, kSysResErrRead, 1 for unusable values
[[nodiscard]] uint32_t TOLA_GetSysMemUsage(uint32_t& percent);

/// Operating-system process id of the first process of this name other than the caller, or -1. The name is
/// refused with -1 when it holds a character that means something to a shell.
[[nodiscard]] int32_t TOLA_GetProcessPidByName(const char* name);

/// Use of the file system mounted at `mountDir`, in percent rounded to the nearest; a directory that is no
/// mount point gives 0 percent with success. @retval 0 success @retval 1 failure
[[nodiscard]] uint32_t TOLA_GetFlashPartitionUsage(const char* mountDir, uint32_t& percent);

/// Bytes of the file system mounted at `mountDir`; the products wrap above 4 GiB, kept so.
/// @retval 1 success @retval 0 failure
[[nodiscard]] uint32_t TOLA_GetFlashPartitionSize(const char* mountDir, uint32_t& totalBytes,
                                                  uint32_t& freeBytes);

/// Longest mount directory that holds `dir`. @retval 1 found and copied @retval 0 not
[[nodiscard]] uint32_t TOLA_GetFlashPartitionNameByDir(const char* dir, char* mountDir, uint32_t outSize);

/// Bytes of the partition that holds `dir`; memory figures for a partition in memory. @retval 1 success
/// @retval 0 not
[[nodiscard]] uint32_t TOLA_GetPartitionSizeByDir(const char* dir, uint32_t& totalBytes, uint32_t& freeBytes);

/// Total and available memory in bytes (wrap above 4 GiB). @retval 1 success @retval 0 failure
[[nodiscard]] uint32_t TOLA_GetLinuxSysMemRes(uint32_t& totalBytes, uint32_t& availableBytes);
