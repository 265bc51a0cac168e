/// How `update_request` talks to `board_main`: one request and one answer over a SOCK_SEQPACKET Unix socket.
///
/// A request is one packet: u32 magic, u8 version, u8 needAuth, u16 CPU limit, then the execute-update-script
/// record as it travels to the executor. An answer is one packet: u32 magic, u32 result. All numbers
/// little-endian.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <vector>

#include "base/owners.h"
#include "update/script_exe_messages.h"

namespace board_link {

inline constexpr char kSocketPath[] = "/run/board_main.sock";
inline constexpr size_t kPacketMax = 4096;

struct Request {
  bool needAuth = false;
  uint16_t cpuLimit = 0;
  TolaCmpMsg::TolaMsgExeUpdateScriptData record;
};

/// Empty when the record cannot be serialised.
[[nodiscard]] std::vector<unsigned char> EncodeRequest(const Request& request);
/// False for a packet of another magic or version, or with a record that cannot be parsed.
[[nodiscard]] bool DecodeRequest(std::span<const unsigned char> packet, Request& request);

[[nodiscard]] std::vector<unsigned char> EncodeAnswer(uint32_t result);
[[nodiscard]] bool DecodeAnswer(std::span<const unsigned char> packet, uint32_t& result);

/// Listens at `path` (mode 0600; a socket that nobody listens at any more is replaced); -1 with errno on
/// failure.
[[nodiscard]] base::UniqueFd Listen(const char* path);
/// Connects to `path`; -1 with errno on failure.
[[nodiscard]] base::UniqueFd Connect(const char* path);
/// Whether the other end runs as the superuser or as the caller's own user.
[[nodiscard]] bool PeerIsTrusted(int socket);

}  // namespace board_link
