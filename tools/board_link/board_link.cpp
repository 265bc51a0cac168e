#include "board_link/board_link.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "comp/msg_codec.h"

namespace board_link {
namespace {

constexpr uint32_t kMagic = 0x4B4E4C42;  // "BLNK"
constexpr uint8_t kVersion = 2;
constexpr uint32_t kRequestHead = 10;
constexpr size_t kListMax = 255;  ///< characters of a name, words
constexpr uint32_t kAnswerHead = 8;
constexpr int kBacklog = 8;

bool MakeAddress(const char* path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  const size_t length = strlen(path);
  if (length >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(address.sun_path, path, length);
  return true;
}

base::UniqueFd NewSocket() {
  return base::UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

}  // namespace

std::vector<unsigned char> EncodeRequest(const Request& request) {
  const bool isUpdate = request.kind == Kind::kUpdate;
  if (request.app.size() > kListMax || request.words.size() > kListMax) return {};
  const size_t length =
      isUpdate ? request.record.GetMsgLength() : 2 + request.app.size() + 2 * request.words.size();
  std::vector<unsigned char> packet(kRequestHead + length);
  unsigned char* cursor = packet.data();
  auto remaining = static_cast<unsigned>(packet.size());
  bool fits = SetHostU32_s(kMagic, cursor, remaining) == 0 && SetMsgU8_s(kVersion, cursor, remaining) == 0 &&
              SetMsgU8_s(static_cast<uint8_t>(request.kind), cursor, remaining) == 0 &&
              SetMsgU8_s(static_cast<uint8_t>(request.authorisation), cursor, remaining) == 0 &&
              SetMsgU8_s(request.json ? 1 : 0, cursor, remaining) == 0 &&
              SetHostU16_s(request.cpuLimit, cursor, remaining) == 0;
  if (isUpdate) {
    fits = fits && request.record.SerializeToMsg(cursor, remaining) == 0;
    return fits ? packet : std::vector<unsigned char>();
  }
  fits = fits && SetMsgU8_s(static_cast<uint8_t>(request.app.size()), cursor, remaining) == 0;
  for (const char c : request.app) fits = fits && SetMsgU8_s(static_cast<uint8_t>(c), cursor, remaining) == 0;
  fits = fits && SetMsgU8_s(static_cast<uint8_t>(request.words.size()), cursor, remaining) == 0;
  for (const uint16_t word : request.words) fits = fits && SetHostU16_s(word, cursor, remaining) == 0;
  return fits ? packet : std::vector<unsigned char>();
}

bool DecodeRequest(std::span<const unsigned char> packet, Request& request) {
  std::vector<unsigned char> copy(packet.begin(), packet.end());
  unsigned char* cursor = copy.data();
  auto remaining = static_cast<unsigned>(copy.size());
  uint32_t magic = 0;
  uint8_t version = 0;
  uint8_t kind = 0;
  uint8_t authorisation = 0;
  uint8_t json = 0;
  if (GetHostU32_s(cursor, remaining, magic) != 0 || magic != kMagic) return false;
  if (GetMsgU8_s(cursor, remaining, version) != 0 || version != kVersion) return false;
  if (GetMsgU8_s(cursor, remaining, kind) != 0 || kind >= kKinds) return false;
  if (GetMsgU8_s(cursor, remaining, authorisation) != 0 || authorisation >= kAuthorisations) return false;
  if (GetMsgU8_s(cursor, remaining, json) != 0) return false;
  if (GetHostU16_s(cursor, remaining, request.cpuLimit) != 0) return false;
  request.kind = static_cast<Kind>(kind);
  request.authorisation = static_cast<Authorisation>(authorisation);
  request.json = json != 0;
  if (request.kind == Kind::kUpdate) return request.record.ParseFromMsg(cursor, remaining, true) == 0;

  uint8_t count = 0;
  if (GetMsgU8_s(cursor, remaining, count) != 0 || count > remaining) return false;
  request.app.assign(reinterpret_cast<const char*>(cursor), count);
  cursor += count;
  remaining -= count;
  if (GetMsgU8_s(cursor, remaining, count) != 0) return false;
  request.words.resize(count);
  for (uint16_t& word : request.words) {
    if (GetHostU16_s(cursor, remaining, word) != 0) return false;
  }
  return true;
}

std::vector<unsigned char> EncodeAnswer(uint32_t result, std::string_view text) {
  text = text.substr(0, kPacketMax - kAnswerHead);
  std::vector<unsigned char> packet(kAnswerHead + text.size());
  unsigned char* cursor = packet.data();
  SetHostU32(kMagic, cursor);
  SetHostU32(result, cursor);
  std::copy(text.begin(), text.end(), cursor);
  return packet;
}

bool DecodeAnswer(std::span<const unsigned char> packet, uint32_t& result, std::string& text) {
  if (packet.size() < kAnswerHead) return false;
  std::vector<unsigned char> copy(packet.begin(), packet.end());
  unsigned char* cursor = copy.data();
  uint32_t magic = 0;
  GetHostU32(cursor, magic);
  GetHostU32(cursor, result);
  text.assign(copy.begin() + kAnswerHead, copy.end());
  return magic == kMagic;
}

base::UniqueFd Connect(const char* path) {
  sockaddr_un address;
  base::UniqueFd fd = NewSocket();
  if (!fd || !MakeAddress(path, address)) return base::UniqueFd();
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return base::UniqueFd();
  return fd;
}

base::UniqueFd Listen(const char* path) {
  sockaddr_un address;
  base::UniqueFd fd = NewSocket();
  if (!fd || !MakeAddress(path, address)) return base::UniqueFd();
  if (Connect(path)) {
    errno = EADDRINUSE;
    return base::UniqueFd();
  }
  struct stat entry = {};
  // A socket that outlived its process gives way; a file of any other kind refuses just the same, and stays.
  if (errno == ECONNREFUSED && lstat(path, &entry) == 0 && S_ISSOCK(entry.st_mode)) (void)unlink(path);
  // The mode of the socket before it is bound becomes the file's: the umask is every thread's.
  if (fchmod(fd.get(), 0600) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(fd.get(), kBacklog) != 0) {
    return base::UniqueFd();
  }
  return fd;
}

bool PeerIsTrusted(int socket) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || peer.uid == geteuid();
}

}  // namespace board_link
