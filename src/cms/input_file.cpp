#include "cms/input_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "cms/report.h"
#include "securec.h"

namespace cms {

uint32_t OpenInput(const char* path, base::UniqueFd& fd, uint64_t& size) {
  if (path[0] == '\0') return Report(kSigvfyErrArgument, "Empty file path.");
  fd.reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) {
    char text[300];
    (void)snprintf_s(text, sizeof(text), sizeof(text) - 1, "Can't open file '%s'.",
                     path);  // cut is good enough
    return Report(kSigvfyErrOpen, text);
  }
  struct stat info;
  if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return Report(kSigvfyErrFileSize, path);
  if (info.st_size == 0) return Report(kSigvfyErrEmpty, path);
  size = static_cast<uint64_t>(info.st_size);
  return kSuccess;
}

uint32_t ReadPiece(int fd, uint8_t* to, size_t room, size_t& length) {
  ssize_t got;
  do {
    got = read(fd, to, room);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return Report(kSigvfyErrRead);
  length = static_cast<size_t>(got);
  return kSuccess;
}

uint32_t ReadInput(const char* path, std::vector<uint8_t>& bytes) {
  base::UniqueFd fd;
  uint64_t size = 0;
  uint32_t code = OpenInput(path, fd, size);
  if (code != kSuccess) return code;
  if (size > kSigvfyMaxBuffer) return Report(kSigvfyErrTooLong, path);

  bytes.resize(static_cast<size_t>(size) + 1);  // one more shows a file that grew
  size_t have = 0;
  for (size_t got = 1; got != 0 && have < bytes.size(); have += got) {
    code = ReadPiece(fd.get(), bytes.data() + have, bytes.size() - have, got);
    if (code != kSuccess) return code;
  }
  if (have != size) return Report(kSigvfyErrRead, path);
  bytes.resize(have);
  return kSuccess;
}

}  // namespace cms
