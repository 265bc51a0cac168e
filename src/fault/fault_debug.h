/// Debug requests: what the platform's fault manager asks a process to do for whoever looks for a fault in
/// it.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kFaultErrDumpName = 10883;  ///< 0x2A83: no name for the file of the leak dump

/// Carries out the request in `length` bytes of `data`: u16 words in network order, the command first. One
/// task only, the agent's.
///
/// | command | words behind it | what is done |
/// |---|---|---|
/// | 0 | terminal number, 0 or 1 | standard output goes to /dev/pts/<number>, or back |
/// | 1 | module id, level | the module's log level, to console and file |
/// | 2 | two numbers, not used | memory that is out into /mnt/log/agent_mem_leak_info_<pid>.tola |
/// | 3 | 0 set or 1 print, module id, flag | statistics of message memory |
///
/// @retval 1 an unknown command, too few bytes, or what was asked for cannot be done
/// @retval kFaultErrDumpName
[[nodiscard]] uint32_t FaultDebugRequest(const uint8_t* data, uint32_t length);
