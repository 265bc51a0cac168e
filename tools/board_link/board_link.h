/// How `update_request` talks to `board_main`: one request and one answer over a SOCK_SEQPACKET Unix socket.
///
/// A request is one packet: u32 magic, u8 version, u8 kind, u8 answer to the question for an authorisation,
/// u8 1 for JSON, u16 CPU limit, and by its kind: an update's record as it travels to the executor; or an
/// application's name, u8 length and text, and u8 count of u16 words. An answer is one packet: u32 magic, u32
/// result, then text. All numbers little-endian.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/owners.h"
#include "update/script_exe_messages.h"

namespace board_link {

inline constexpr char kSocketPath[] = "/run/board_main.sock";
inline constexpr size_t kPacketMax = 65536;

enum class Kind : uint8_t {
  kUpdate,
  kStatus,         ///< what the main process knows, as text
  kRelease,        ///< grants the questions that are held
  kRestart,        ///< of the application `app`
  kRegisterAgain,  ///< asks the fault agent of `app` to register again
  kDebug,          ///< sends `words` to the fault agent of `app`; the result is the agent's
};
inline constexpr uint8_t kKinds = 6;

/// How the executor's question for an authorisation is answered.
enum class Authorisation : uint8_t { kRefuse, kGrant, kHold };
inline constexpr uint8_t kAuthorisations = 3;

struct Request {
  Kind kind = Kind::kUpdate;
  Authorisation authorisation = Authorisation::kRefuse;
  bool json = false;
  uint16_t cpuLimit = 0;
  TolaCmpMsg::TolaMsgExeUpdateScriptData record;
  std::string app;              ///< up to 255 characters
  std::vector<uint16_t> words;  ///< up to 255
};

inline constexpr uint32_t kNoSuchApp = 1;  ///< result of the requests that name an application

/// Empty when a part is too long.
[[nodiscard]] std::vector<unsigned char> EncodeRequest(const Request& request);
/// False for a packet of another magic or version, or with a record that cannot be parsed.
[[nodiscard]] bool DecodeRequest(std::span<const unsigned char> packet, Request& request);

/// A text that would make the packet too long is cut.
[[nodiscard]] std::vector<unsigned char> EncodeAnswer(uint32_t result, std::string_view text = {});
[[nodiscard]] bool DecodeAnswer(std::span<const unsigned char> packet, uint32_t& result, std::string& text);

/// Listens at `path` (mode 0600; a socket that nobody listens at any more is replaced); -1 with errno on
/// failure.
[[nodiscard]] base::UniqueFd Listen(const char* path);
/// Connects to `path`; -1 with errno on failure.
[[nodiscard]] base::UniqueFd Connect(const char* path);
/// Whether the other end runs as the superuser or as the caller's own user.
[[nodiscard]] bool PeerIsTrusted(int socket);

}  // namespace board_link
