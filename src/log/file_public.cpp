// The file services. What this platform writes belongs to its run account and to nobody else's eyes: files
// are made with mode 0600, and copies appear whole or not at all. Nothing here logs but the two calls that
// take a module id, since the run log itself stands on the rest.
#include "log/file_public.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <optional>
#include <string_view>

#include "base/owners.h"
#include "log/run_log.h"
#include "securec.h"
#include "velto/kel_clock.h"

namespace {

constexpr char kOwnerUser[] = "prorunacc";
constexpr char kOwnerGroup[] = "quorin";
constexpr mode_t kFileMode = 0600;

struct Owner {
  uid_t user;
  gid_t group;
};

/// Which file stands at a path, and in which state.
struct FileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  time_t second = 0;
  long nanosecond = 0;
  bool operator==(const FileStamp&) const = default;
};

FileStamp StampOf(const char* path) {
  struct stat state = {};
  if (stat(path, &state) != 0) return {};
  return {state.st_dev, state.st_ino, state.st_ctim.tv_sec, state.st_ctim.tv_nsec};
}

/// False when it cannot be told whether the account exists.
bool LookUpOwner(std::optional<Owner>& owner) {
  char texts[4096];
  struct passwd user = {};
  struct passwd* foundUser = nullptr;
  owner.reset();
  if (getpwnam_r(kOwnerUser, &user, texts, sizeof(texts), &foundUser) != 0) return false;
  if (foundUser == nullptr) return true;
  struct group group = {};
  struct group* foundGroup = nullptr;
  if (getgrnam_r(kOwnerGroup, &group, texts, sizeof(texts), &foundGroup) != 0) return false;
  if (foundGroup != nullptr) owner = {user.pw_uid, group.gr_gid};
  return true;
}

/// None without the account. An answer holds until one of the account files changes: the account may be made
/// while this process runs, but a look-up costs dozens of system calls. Never waits.
std::optional<Owner> PlatformOwner() {
  using Stamps = std::array<FileStamp, 2>;
  static std::mutex guarding;
  static std::optional<Owner> known;
  static std::optional<Stamps> knownSince;
  const Stamps now = {StampOf("/etc/passwd"), StampOf("/etc/group")};
  const std::unique_lock lock(guarding, std::try_to_lock);
  const bool isMine = lock.owns_lock();  // not so in a signal handler that runs over the holder
  if (isMine && knownSince == now) return known;
  std::optional<Owner> owner;
  const bool isAnswer = LookUpOwner(owner);
  if (isMine) {
    known = owner;
    knownSince = isAnswer ? std::optional(now) : std::nullopt;
  }
  return owner;
}

/// Mode and owner of a file that we just made.
bool DressNewFile(int fd) {
  if (fchmod(fd, kFileMode) != 0) return false;  // a tight umask takes bits that the owner needs
  if (const auto owner = PlatformOwner()) {
    (void)!fchown(fd, owner->user, owner->group);  // only root may give a file away
  }
  return true;
}

int OpenRetrying(const char* path, int flags) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, kFileMode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

/// Opens what exists or makes it, and knows which of the two happened.
base::UniqueFd OpenOrMake(const char* path, int flags) {
  constexpr int kTries = 3;  // the file may come and go between the two calls
  for (int tries = 0; tries < kTries; ++tries) {
    base::UniqueFd fd(OpenRetrying(path, flags & ~O_CREAT));
    if (fd || errno != ENOENT || (flags & O_CREAT) == 0) return fd;
    fd.reset(OpenRetrying(path, flags | O_EXCL));
    if (fd) return DressNewFile(fd.get()) ? std::move(fd) : base::UniqueFd();
    if (errno != EEXIST) return fd;
  }
  return base::UniqueFd();
}

/// -1 for a mode that is none.
int FlagsOfMode(std::string_view mode) {
  if (mode.empty() || mode.substr(1).find_first_not_of("+b") != std::string_view::npos) return -1;
  const bool both = mode.find('+') != std::string_view::npos;
  switch (mode[0]) {
    case 'r':
      return both ? O_RDWR : O_RDONLY;
    case 'w':
      return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a':
      return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
      return -1;
  }
}

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = EIO;  // a failure without a reason must not look like none
    if (written <= 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

bool CopyBytes(int from, int to) {
  char block[8192];
  for (;;) {
    const ssize_t length = read(from, block, sizeof(block));
    if (length == 0) return true;
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 || !WriteAll(to, block, static_cast<size_t>(length))) return false;
  }
}

/// Makes the new name last through a power cut. A file system that cannot is no reason to call the copy
/// failed.
void SyncFolderOf(const char* path) {
  char folder[PATH_MAX];
  if (strcpy_s(folder, sizeof(folder), path) != EOK) return;
  char* slash = strrchr(folder, '/');
  const char* name = slash == nullptr ? "." : slash == folder ? "/" : folder;
  if (slash != nullptr) *(slash == folder ? slash + 1 : slash) = '\0';
  const base::UniqueFd fd(OpenRetrying(name, O_RDONLY | O_DIRECTORY));
  if (fd) (void)fsync(fd.get());
}

/// The file beside `destination` in which a copy grows; gone again unless it took its place.
class GrowingCopy {
 public:
  explicit GrowingCopy(const char* destination) : destination_(destination) {
    if (snprintf_s(path_, sizeof(path_), sizeof(path_) - 1, "%s.XXXXXX", destination) < 0) {
      errno = ENAMETOOLONG;
      return;
    }
    fd_.reset(mkostemp(path_, O_CLOEXEC));
  }
  ~GrowingCopy() {
    const int error = errno;
    if (fd_) (void)unlink(path_);  // nothing else can be done about it
    errno = error;
  }
  GrowingCopy(const GrowingCopy&) = delete;
  GrowingCopy& operator=(const GrowingCopy&) = delete;

  [[nodiscard]] bool FillFrom(int source) {
    return fd_ && DressNewFile(fd_.get()) && CopyBytes(source, fd_.get()) && fsync(fd_.get()) == 0;
  }
  [[nodiscard]] bool TakePlace() {
    if (rename(path_, destination_) != 0) return false;
    fd_.reset();
    SyncFolderOf(destination_);
    return true;
  }

 private:
  const char* destination_;
  base::UniqueFd fd_;
  char path_[PATH_MAX];
};

/// 0, or the errno of what failed.
int CopyWholeFile(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) return EINVAL;
  const base::UniqueFd from(OpenRetrying(source, O_RDONLY | O_NONBLOCK));  // a FIFO must not hold us
  struct stat state = {};
  if (!from || fstat(from.get(), &state) != 0) return errno;
  if (!S_ISREG(state.st_mode)) return EINVAL;
  GrowingCopy copy(destination);
  return copy.FillFrom(from.get()) && copy.TakePlace() ? 0 : errno;
}

}  // namespace

uint32_t CheckFileExist(const char* path) {
  struct stat state = {};
  return path != nullptr && stat(path, &state) == 0 ? 0 : 1;
}

uint32_t GetFileLen(const char* path, uint32_t& length) {
  length = 0;
  struct stat state = {};
  if (path == nullptr || stat(path, &state) != 0 || !S_ISREG(state.st_mode)) return 1;
  if (state.st_size > static_cast<off_t>(UINT32_MAX)) return 1;
  length = static_cast<uint32_t>(state.st_size);
  return 0;
}

FILE* TOLA_OpenFile(const char* path, const char* mode) {
  const int flags = path == nullptr || mode == nullptr ? -1 : FlagsOfMode(mode);
  if (flags < 0) {
    errno = EINVAL;
    return nullptr;
  }
  base::UniqueFd fd = OpenOrMake(path, flags);
  if (!fd) return nullptr;
  FILE* file = fdopen(fd.get(), mode);
  if (file != nullptr) (void)fd.release();  // the stream owns it now
  return file;
}

uint32_t TOLA_CloseFile(FILE* file) {
  return file != nullptr && fclose(file) == 0 ? 0 : 1;
}

uint32_t TOLA_SeekFile(FILE* file, int64_t offset, int whence) {
  return file != nullptr && fseeko(file, static_cast<off_t>(offset), whence) == 0 ? 0 : 1;
}

uint32_t TOLA_WriteFile(FILE* file, const void* data, size_t length) {
  if (file == nullptr || (data == nullptr && length > 0)) return 1;
  return length == 0 || fwrite(data, 1, length, file) == length ? 0 : 1;
}

uint32_t TOLA_CopyFile(uint16_t moduleId, const char* source, const char* destination) {
  const int error = CopyWholeFile(source, destination);
  if (error == 0) return 0;
  LOG_ERR(moduleId, "copy file err:%d,%s", error, destination == nullptr ? "" : destination);
  return 1;
}

uint32_t TolaBackupFile(const char* source, const char* destination) {
  return CopyWholeFile(source, destination) == 0 ? 0 : 1;
}

uint32_t TOLA_DeleteFile(uint16_t moduleId, const char* path) {
  if (path == nullptr) return 1;
  if (unlink(path) == 0 || errno == ENOENT) return 0;
  LOG_ERR(moduleId, "delete file err:%d,%s", errno, path);
  return 1;
}

uint32_t ChangeFileProperty(const char* path) {
  if (path == nullptr) return 1;
  const base::UniqueFd fd(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));  // opens without touching what it is
  struct stat state = {};
  if (!fd || fstat(fd.get(), &state) != 0 || !S_ISREG(state.st_mode) || state.st_nlink > 1) return 1;
  char self[64];
  if (snprintf_s(self, sizeof(self), sizeof(self) - 1, "/proc/self/fd/%d", fd.get()) < 0) return 1;
  if (chmod(self, kFileMode) != 0) return 1;
  const auto owner = PlatformOwner();
  if (!owner || fchownat(fd.get(), "", owner->user, owner->group, AT_EMPTY_PATH) == 0) return 0;
  return geteuid() == 0 ? 1 : 0;
}

uint32_t GiveToPlatform(const char* path) {
  const auto owner = PlatformOwner();
  return path != nullptr && owner && chown(path, owner->user, owner->group) == 0 ? 0 : 1;
}

void DropCaches() {
  sync();
  const base::UniqueFd fd(OpenRetrying("/proc/sys/vm/drop_caches", O_WRONLY));
  if (fd) (void)WriteAll(fd.get(), "3", 1);  // page cache, directory entries and inodes
}

uint32_t GetMsTime() {
  return static_cast<uint32_t>(KEL_ClockMonotonicNs() / 1'000'000);
}
