#include "fault/box_files.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr mode_t kFileMode = 0600;

/// A full path that may stand in a command line.
bool IsFit(const char (&name)[kBoxNameSize]) {
  return strnlen(name, kBoxNameSize) < kBoxNameSize && name[0] == '/' &&
         TOLA_CheckSpecialChar(name, nullptr) == 0;
}

bool Join(char (&name)[kBoxNameSize], const char* begin, const char* end) {
  return snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s%s", begin, end) > 0;
}

/// Size of a regular file that has no second name, which may be somebody else's; -1 for everything else,
/// links included.
int64_t SizeOfRegular(const char* path) {
  struct stat state = {};
  const bool isOwn = lstat(path, &state) == 0 && S_ISREG(state.st_mode) && state.st_nlink == 1;
  return isOwn ? static_cast<int64_t>(state.st_size) : -1;
}

bool IsRegular(const char* path) {
  struct stat state = {};
  return lstat(path, &state) == 0 && S_ISREG(state.st_mode);
}

bool IsLink(const char* path) {
  struct stat state = {};
  return lstat(path, &state) == 0 && S_ISLNK(state.st_mode);
}

bool IsDirectory(const char* path) {
  struct stat state = {};
  return lstat(path, &state) == 0 && S_ISDIR(state.st_mode);
}

/// Runs `verb from link to` in the shell. A failure is logged by the runner.
bool Run(const char* verb, const char* from, const char* link, const char* to) {
  char command[2 * kBoxNameSize + 16];
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "%s %s%s%s", verb, from, link, to) < 0) {
    return false;
  }
  return TOLA_System(command) == 0;
}

/// Moves a file onto the name of another; a folder of that name, or a link to one, would take it in instead.
bool Move(const char* from, const char* to) {
  if (IsLink(to)) (void)remove(to);
  return !IsDirectory(to) && Run("mv -f", from, " ", to);
}

}  // namespace

uint32_t BoxFormNames(const TOLA_SIGNAL_BOX_S& files, BoxNames& names) {
  const bool hasBackup = files.backupFile[0] != '\0';
  if (!IsFit(files.exceptionFile) || (hasBackup && !IsFit(files.backupFile))) return kErrFormat;
  const bool formed = Join(names.exception, files.exceptionFile, "") &&
                      (!hasBackup || Join(names.backup, files.backupFile, "")) &&
                      Join(names.crash, files.exceptionFile, ".tmp") &&
                      Join(names.map, files.exceptionFile, ".map.tmp");
  if (!hasBackup) names.backup[0] = '\0';
  return formed ? 0 : kErrFormat;
}

void BoxKeepLastRun(const BoxNames& names) {
  const int64_t size = SizeOfRegular(names.crash);  // a link of either kind is not followed and not kept
  if (size > kBoxKeptBytes) {
    LOG_EVT(kLogModule, "del file:%s", names.crash);
    (void)remove(names.crash);  // whoever makes the next one sees when it is still there
    return;
  }
  if (size <= 0) return;
  // At a first crash there is nothing that a backup could be made of.
  if (names.backup[0] != '\0' && IsRegular(names.exception)) {
    (void)Move(names.exception, names.backup);  // the newer record matters more
  }
  if (!Move(names.crash, names.exception)) return;
  if (SizeOfRegular(names.map) > 0) (void)Run("cat", names.map, " >> ", names.exception);
}

base::UniqueFd BoxNewFile(const char* path) {
  (void)remove(path);  // an empty folder too; what cannot be removed shows at once
  base::UniqueFd fd(open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (fd && fchmod(fd.get(), kFileMode) != 0) fd.reset();  // a tight umask takes bits that are needed
  return fd;
}
