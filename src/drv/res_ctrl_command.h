/// The command line that the resource-control driver runs; apart from the driver, so that it can be looked at
/// without a board.
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr size_t kResCtrlCommandSize = 80;

/// "/etc/init.d/cgrouputil.sh SET <pid> <limit> <period>", or UNSET, for the commands 2 and 3.
/// @retval false the command is neither, or the line does not fit
[[nodiscard]] bool BuildResCtrlCommand(char (&line)[kResCtrlCommandSize], uint32_t command, uint16_t pid,
                                       uint16_t limit, uint16_t period);
