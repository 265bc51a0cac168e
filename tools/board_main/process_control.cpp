#include "board_main/process_control.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/owners.h"

namespace board_main {
namespace {

constexpr int kExitNotStarted = 127;
constexpr size_t kStatMax = 1024;
constexpr size_t kArgumentsMax = 65536;
constexpr int kFirstOwnFd = 3;
constexpr int kLastOwnFd = 1023;
constexpr char kReplaced[] = " (deleted)";  ///< what the kernel adds to the path of a file that was replaced

std::string ProcPath(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string ReadSome(const std::string& path, size_t limit) {
  std::string content(limit, '\0');
  const base::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  size_t length = 0;
  while (fd && length < limit) {
    const ssize_t got = TEMP_FAILURE_RETRY(read(fd.get(), content.data() + length, limit - length));
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  content.resize(length);
  return content;
}

std::string ReadLink(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof(target));
  return length <= 0 || length == sizeof(target) ? std::string()
                                                 : std::string(target, static_cast<size_t>(length));
}

/// State and start time of a process: the 3rd and the 22nd field, of which the 2nd is a name in parentheses.
bool ReadStat(pid_t pid, char& state, unsigned long long& startTicks) {
  const std::string stat = ReadSome(ProcPath(pid, "stat"), kStatMax);
  size_t at = stat.rfind(')');
  if (at == std::string::npos || at + 2 >= stat.size()) return false;
  at += 2;
  state = stat[at];
  for (int field = 3; field < 22 && at != std::string::npos; ++field) at = stat.find(' ', at + 1);
  if (at == std::string::npos) return false;
  startTicks = strtoull(stat.c_str() + at, nullptr, 10);  // the kernel's own digits
  return true;
}

/// Whether the very process of `image` runs; `unread` when it is there but cannot be looked at, which may be
/// this process's own trouble.
bool Runs(const ProcessImage& image, bool unread) {
  char state = 0;
  unsigned long long startTicks = 0;
  if (!ReadStat(image.pid, state, startTicks)) return unread && (kill(image.pid, 0) == 0 || errno != ESRCH);
  return startTicks == image.startTicks && state != 'Z' && state != 'X';
}

/// The first number of a row, `head` with the line end before it.
bool ReadRow(const std::string& status, const char* head, uint32_t& number) {
  const size_t at = status.find(head);
  if (at == std::string::npos) return false;
  number = static_cast<uint32_t>(strtoul(status.c_str() + at + strlen(head), nullptr, 10));
  return true;
}

/// The user and group that started the process, not those whose rights it has: whoever runs a program of the
/// superuser's may not have it started by the superuser.
bool ReadIds(pid_t pid, ProcessImage& image) {
  const std::string status = ReadSome(ProcPath(pid, "status"), kStatMax);
  return ReadRow(status, "\nUid:", image.user) && ReadRow(status, "\nGid:", image.group);
}

/// Runs in the child: plain system calls only.
[[noreturn]] void BecomeProcess(const ProcessImage& image, char* const* arguments) {
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)setsid();
  const int null = open("/dev/null", O_RDWR);
  for (int fd = 0; fd < kFirstOwnFd; ++fd) (void)dup2(null, fd);
  for (int fd = kFirstOwnFd; fd <= kLastOwnFd; ++fd) (void)close(fd);
  // A process of another user is never started with this one's rights.
  if (image.user != geteuid() &&
      (setgroups(1, &image.group) != 0 || setgid(image.group) != 0 || setuid(image.user) != 0)) {
    _exit(kExitNotStarted);
  }
  if (chdir(image.directory.c_str()) != 0 && chdir("/") != 0) _exit(kExitNotStarted);
  (void)execv(image.program.c_str(), arguments);
  _exit(kExitNotStarted);
}

}  // namespace

bool ReadProcessImage(pid_t pid, ProcessImage& image) {
  char state = 0;
  unsigned long long startTicks = 0;
  image = {};
  if (!ReadStat(pid, state, startTicks) || !ReadIds(pid, image)) return false;
  image.pid = pid;
  image.startTicks = startTicks;
  image.program = ReadLink(ProcPath(pid, "exe"));
  if (image.program.ends_with(kReplaced)) image.program.resize(image.program.size() - sizeof(kReplaced) + 1);
  image.directory = ReadLink(ProcPath(pid, "cwd"));
  const std::string line = ReadSome(ProcPath(pid, "cmdline"), kArgumentsMax);
  for (size_t at = 0; at < line.size();) {
    image.arguments.emplace_back(line.c_str() + at);
    at += image.arguments.back().size() + 1;
  }
  return !image.program.empty() && !image.arguments.empty() && ProcessIsAlive(image);
}

bool ProcessIsAlive(const ProcessImage& image) {
  return Runs(image, true);  // one that runs and is taken for gone would be started twice
}

void SignalProcess(const ProcessImage& image, int signal) {
  if (Runs(image, false)) (void)kill(image.pid, signal);  // never a later process of the same id
}

pid_t StartProcess(const ProcessImage& image) {
  std::vector<char*> arguments;
  for (const std::string& argument : image.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) BecomeProcess(image, arguments.data());
  return pid;
}

}  // namespace board_main
