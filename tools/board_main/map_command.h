/// The one command that module 41 runs for others: an exception box that may not read its own memory map has
/// it appended to its file.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace board_main {

inline constexpr uint16_t kMsgRunCommand = 3585;

struct MapCommand {
  uint32_t pid;
  std::string path;
};

/// Reads the data of a message 3585 of process `senderPid`: u16 1, u16 flag, u16 length, the command with its
/// terminator, u16 0, in the machine's order. The command is "cat /proc/<senderPid>/maps >> <path>" or
/// "cat_proc_maps.sh <senderPid> >> <path>", to the letter, with a path below one of `directories` (each with
/// its trailing slash) that ends in ".map.tmp". Anything else gives nothing.
[[nodiscard]] std::optional<MapCommand> ParseMapCommand(std::span<const uint8_t> data, uint32_t senderPid,
                                                        std::span<const std::string> directories);

/// Appends the map without any shell; the file is the platform's, mode 0600, and no link is followed.
/// @retval 1 the map cannot be read, or not be written
[[nodiscard]] uint32_t RunMapCommand(const MapCommand& command);

}  // namespace board_main
