/// The parts of the system queries that only look at text and numbers, apart from where these come from.
#pragma once

#include <stdint.h>
#include <sys/types.h>

/// Percentage of unavailable memory from the first lines of "/proc/meminfo". @retval 1 the values are
/// unusable
[[nodiscard]] uint32_t GetSysMemUsage(const char* meminfo, uint32_t& percent);

/// First decimal number of a "pidof" line that is neither 0 nor `ownPid`, or -1. The line is cut up.
[[nodiscard]] int32_t GetProcessPidInLine(char* line, pid_t ownPid);

/// Use of a file system in percent, rounded to the nearest, from its block counts; 0 for counts that make no
/// sense.
[[nodiscard]] uint32_t CalcBlocksUsedPercent(uint64_t total, uint64_t free, uint64_t available);

/// Whether `mount` holds `dir` on a path boundary and is at least as long as the best found so far. Lengths
/// count in 8 bits, kept so.
[[nodiscard]] bool IsMountOfDir(const char* mount, const char* dir, uint8_t bestLength);
