#include "board_main/map_command.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "base/owners.h"
#include "log/file_public.h"

namespace board_main {
namespace {

constexpr size_t kHead = 3 * sizeof(uint16_t);
constexpr std::string_view kEnding = ".map.tmp";

uint16_t WordAt(std::span<const uint8_t> data, size_t at) {
  uint16_t word = 0;
  memcpy(&word, data.data() + at, sizeof(word));
  return word;
}

/// The command's text; empty when the data is no command.
std::string_view CommandText(std::span<const uint8_t> data) {
  if (data.size() < kHead || WordAt(data, 0) != 1) return {};
  const size_t length = WordAt(data, 2 * sizeof(uint16_t));
  if (length < 2 || data.size() != kHead + length + sizeof(uint16_t)) return {};
  if (WordAt(data, kHead + length) != 0 || data[kHead + length - 1] != '\0') return {};
  return {reinterpret_cast<const char*>(data.data()) + kHead, length - 1};
}

bool PathIsAllowed(const std::string& path, std::span<const std::string> directories) {
  // The white list also refuses "./" and "../".
  if (path.size() >= PATH_MAX || !path.ends_with(kEnding) ||
      TOLA_CheckSpecialChar(path.c_str(), nullptr) != 0) {
    return false;
  }
  return std::any_of(directories.begin(), directories.end(), [&](const std::string& directory) {
    return path.starts_with(directory) && path.size() > directory.size() + kEnding.size();
  });
}

bool CopyAll(int from, int to) {
  char buffer[16384];
  for (;;) {
    const ssize_t got = TEMP_FAILURE_RETRY(read(from, buffer, sizeof(buffer)));
    if (got <= 0) return got == 0;
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = TEMP_FAILURE_RETRY(write(to, buffer + done, static_cast<size_t>(got - done)));
      if (put <= 0) return false;
      done += put;
    }
  }
}

}  // namespace

std::optional<MapCommand> ParseMapCommand(std::span<const uint8_t> data, uint32_t senderPid,
                                          std::span<const std::string> directories) {
  const std::string_view text = CommandText(data);
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  const std::string pid = std::to_string(senderPid);
  for (const std::string& head : {"cat /proc/" + pid + "/maps >> ", "cat_proc_maps.sh " + pid + " >> "}) {
    if (!text.starts_with(head)) continue;
    const std::string path(text.substr(head.size()));
    if (PathIsAllowed(path, directories)) return MapCommand{senderPid, path};
  }
  return std::nullopt;
}

uint32_t RunMapCommand(const MapCommand& command) {
  const std::string maps = "/proc/" + std::to_string(command.pid) + "/maps";
  const base::UniqueFd from(open(maps.c_str(), O_RDONLY | O_CLOEXEC));
  if (!from) return 1;
  // A directory of the path that is a link would lead elsewhere.
  const size_t slash = command.path.rfind('/');
  const std::string directory = command.path.substr(0, slash);
  const base::MallocPtr real(realpath(directory.c_str(), nullptr));
  if (real == nullptr || directory != real.get()) return 1;
  const base::UniqueFd to(
      open(command.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  // What is no regular file or has a second name is somebody else's. This very file is looked at: the name
  // may be another's by now.
  struct stat state = {};
  if (!to || fstat(to.get(), &state) != 0 || !S_ISREG(state.st_mode) || state.st_nlink != 1) return 1;
  if (ChangeFileProperty(command.path.c_str()) != 0) return 1;
  return CopyAll(from.get(), to.get()) ? 0 : 1;
}

}  // namespace board_main
