// Directory, names and users of the sockets. Files are reached through the directory's own descriptor, so
// what was judged is what is used, however long its path is and whoever renames it meanwhile.
#include "velto/dms_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "securec.h"
#include "velto/kel_cfg.h"
#include "velto/kel_cfg_table.h"
#include "velto/kel_table.h"

namespace velto {
namespace {

constexpr uid_t kUnmappedUser = 65534;  // how a user namespace shows every user that it does not know
constexpr uid_t kNoUser = static_cast<uid_t>(-1);
constexpr int kBacklog = 32;
constexpr int kLockTries = 200;
constexpr int kLockRetryMs = 10;

uid_t PeerUser() {
  char name[kCfgTextSize];
  if (KEL_CfgTextGet("dms.peer_user", name, sizeof(name)) != 0 || name[0] == '\0') return kNoUser;
  char buffer[4096];
  passwd entry{};
  passwd* found = nullptr;
  if (getpwnam_r(name, &entry, buffer, sizeof(buffer), &found) != 0 || found == nullptr) return kNoUser;
  return found->pw_uid == kUnmappedUser ? kNoUser : found->pw_uid;
}

bool IsAllowedUser(uid_t user) {
  return user == 0 || user == geteuid() || (user != kNoUser && user == PeerUser());
}

bool IsAllowedPeer(int connection) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && size == sizeof(peer) &&
         IsAllowedUser(peer.uid);
}

// Gives what root made, known by an O_PATH or directory descriptor, to the other user; root needs no right to
// it. Where that user is not mapped he cannot be a peer either, so a refusal is no failure.
void GiveToPeerUser(int made) {
  const uid_t user = PeerUser();
  if (geteuid() != 0 || user == kNoUser) return;
  const int given = fchownat(made, "", user, static_cast<gid_t>(-1), AT_EMPTY_PATH);
  (void)given;
}

// The same for the socket `file` of `dir`. In a directory of that user the name may lead to anything by now:
// only a socket without a second name is given away.
void GiveSocketToPeerUser(int dir, const char* file) {
  const base::UniqueFd made(openat(dir, file, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!made || fstat(made.get(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_nlink != 1) return;
  GiveToPeerUser(made.get());
}

uint32_t Complain(const char* path, const char* reason) {
  (void)fprintf(stderr, "component socket: %s: %s\n", path, reason);
  return kDmsErrSocket;
}

uint32_t OpenDir(bool make, char (&path)[kCfgTextSize], base::UniqueFd& dir) {
  if (KEL_CfgTextGet("dms.dir", path, sizeof(path)) != 0) return Complain("dms.dir", "not configured");
  const bool made = make && mkdir(path, 0700) == 0;
  dir.reset(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dir) return errno == ENOENT && !make ? kDmsErrNoPeer : Complain(path, strerrordesc_np(errno));
  if (made) GiveToPeerUser(dir.get());
  struct stat status {};
  if (fstat(dir.get(), &status) != 0) return Complain(path, strerrordesc_np(errno));
  if (!IsAllowedUser(status.st_uid))
    return Complain(path, "the directory belongs to a user who is not allowed");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return Complain(path, "the directory is writable by others");
  return 0;
}

struct SocketName {
  char file[INET_ADDRSTRLEN + sizeof("_4294967295")] = {};
  sockaddr_un address{};

  SocketName(int dir, const ProcAddr& process) {
    const in_addr ip{process.ip};
    char text[INET_ADDRSTRLEN] = {};
    (void)inet_ntop(AF_INET, &ip, text, sizeof(text));  // the buffer holds every address
    address.sun_family = AF_UNIX;
    // Both texts are shorter than their buffers.
    (void)snprintf_s(file, sizeof(file), sizeof(file) - 1, "%s_%u", text, process.processId);
    (void)snprintf_s(address.sun_path, sizeof(address.sun_path), sizeof(address.sun_path) - 1,
                     "/proc/self/fd/%d/%s", dir, file);
  }
  [[nodiscard]] const sockaddr* Sockaddr() const { return reinterpret_cast<const sockaddr*>(&address); }
};

base::UniqueFd NewSocket() {
  return base::UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Keeps two processes that start with the same address from replacing each other's file.
bool LockDir(int dir) {
  for (int i = 0; i < kLockTries; ++i) {
    if (flock(dir, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    (void)poll(nullptr, 0, kLockRetryMs);  // another process holds it: no matter for the runtime's clock
  }
  return false;
}

// Removes the file of a process that died. Null, or why the name cannot be used.
const char* ClearName(int dir, const SocketName& name) {
  struct stat status {};
  if (fstatat(dir, name.file, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? nullptr : strerrordesc_np(errno);
  }
  if (!S_ISSOCK(status.st_mode)) return "a file that is no socket is in the way";
  const base::UniqueFd probe = NewSocket();
  if (!probe) return strerrordesc_np(errno);
  if (connect(probe.get(), name.Sockaddr(), sizeof(name.address)) == 0 || errno == EAGAIN) {
    return "a living process has this address";
  }
  if (errno != ECONNREFUSED) return strerrordesc_np(errno);
  return unlinkat(dir, name.file, 0) == 0 ? nullptr : strerrordesc_np(errno);
}

}  // namespace

uint32_t SocketBind(const ProcAddr& own, base::UniqueFd& listener) {
  char path[kCfgTextSize];
  base::UniqueFd dir;
  const uint32_t opened = OpenDir(true, path, dir);
  if (opened != 0) return opened;
  if (!LockDir(dir.get())) return Complain(path, "the directory stays locked");
  const SocketName name(dir.get(), own);
  if (const char* reason = ClearName(dir.get(), name)) return Complain(name.file, reason);
  base::UniqueFd made = NewSocket();
  // The mode of the unbound socket becomes the file's: there is no moment at which it is wider.
  if (!made || fchmod(made.get(), 0600) != 0 ||
      bind(made.get(), name.Sockaddr(), sizeof(name.address)) != 0 || listen(made.get(), kBacklog) != 0) {
    return Complain(name.file, strerrordesc_np(errno));
  }
  GiveSocketToPeerUser(dir.get(), name.file);
  listener = std::move(made);
  return 0;
}

uint32_t SocketConnect(const ProcAddr& peer, const Deadline& deadline, base::UniqueFd& connection) {
  char path[kCfgTextSize];
  base::UniqueFd dir;
  const uint32_t opened = OpenDir(false, path, dir);
  if (opened != 0) return opened;
  const SocketName name(dir.get(), peer);
  base::UniqueFd made = NewSocket();
  if (!made) return kDmsErrLink;
  while (connect(made.get(), name.Sockaddr(), sizeof(name.address)) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED) return kDmsErrNoPeer;
    if (errno == EACCES) return kDmsErrPeerUser;
    const bool busy = errno == EAGAIN || errno == EINTR;
    if (!busy || deadline.Passed()) return kDmsErrLink;
    (void)poll(nullptr, 0, kPollSliceMs);  // its backlog is full
  }
  if (!IsAllowedPeer(made.get())) return kDmsErrPeerUser;
  connection = std::move(made);
  return 0;
}

base::UniqueFd SocketAccept(int listener) {
  base::UniqueFd connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (connection && !IsAllowedPeer(connection.get())) {
    connection.reset();
    errno = EPERM;
  }
  return connection;
}

bool SocketWait(int connection, short events, const Deadline& deadline) {
  for (;;) {
    pollfd waited{connection, events, 0};
    if (poll(&waited, 1, kPollSliceMs) > 0) return true;
    if (deadline.Passed()) return false;
  }
}

}  // namespace velto

uint32_t DMS_ProcNameTake(const char* name) {
  if (!velto::NameFits(name) || *name == '\0' || strchr(name, '/') != nullptr) return kDmsErrPara;
  char path[velto::kCfgTextSize];
  base::UniqueFd dir;
  const uint32_t opened = velto::OpenDir(true, path, dir);
  if (opened != 0) return opened;
  char file[velto::kNameSize + sizeof(".lock")];
  (void)snprintf_s(file, sizeof(file), sizeof(file) - 1, "%s.lock", name);  // fits, as its size says
  base::UniqueFd lock(openat(dir.get(), file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock) return velto::Complain(file, strerrordesc_np(errno));
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
    return errno == EWOULDBLOCK ? kDmsErrNameTaken : velto::Complain(file, strerrordesc_np(errno));
  (void)lock.release();  // held until the process is gone
  return 0;
}
