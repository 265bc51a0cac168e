/// Reads the FIFO of a development board and moves the monotonic clock on. The descriptor is open for writing
/// too, so that the FIFO never ends, and locked, so that no two processes share its lines.
#include "velto/kel_clock_control.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <charconv>
#include <string_view>

#include "base/owners.h"
#include "velto/kel_clock.h"
#include "velto/kel_task.h"

namespace velto {
namespace {

constexpr uint32_t kPriority = 20;
constexpr uint64_t kMoveMaxMs = 86'400'000;  // a day
constexpr size_t kLineMax = 16;

void Say(const char* path, const char* what) {
  printf("clock.control %s: %s\n", path, what);
  (void)fflush(stdout);  // the process goes on and may never end
}

const char* OwnFifoFault(const struct stat& status) {
  if (!S_ISFIFO(status.st_mode)) return "exists and is no FIFO, the clock stays uncontrolled";
  if (status.st_uid != geteuid() || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    return "is a FIFO that others may open, the clock stays uncontrolled";
  return nullptr;
}

/// Null, or why `path` cannot be used.
const char* OpenFifo(const char* path, base::UniqueFd& fifo) {
  if (mkfifo(path, S_IRUSR | S_IWUSR) != 0 && errno != EEXIST) return strerror(errno);
  struct stat status {};
  if (lstat(path, &status) != 0) return strerror(errno);
  if (const char* fault = OwnFifoFault(status))
    return fault;  // before it is opened: to open may have effects
  fifo.reset(open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fifo || fstat(fifo.get(), &status) != 0) return strerror(errno);
  if (const char* fault = OwnFifoFault(status)) return fault;
  if (flock(fifo.get(), LOCK_EX | LOCK_NB) != 0) return "another process reads it";
  return fcntl(fifo.get(), F_SETFL, 0) == 0 ? nullptr : strerror(errno);  // reads wait from here on
}

bool MoveBy(std::string_view line) {
  uint64_t milliseconds = 0;
  const auto [end, fault] = std::from_chars(line.data(), line.data() + line.size(), milliseconds);
  if (fault != std::errc{} || end != line.data() + line.size()) return false;
  if (milliseconds == 0 || milliseconds > kMoveMaxMs) return false;
  KEL_ClockMonotonicMoveMs(milliseconds);
  return true;
}

void ControlTask(uintptr_t fifoArg, uintptr_t pathArg, uintptr_t, uintptr_t) {
  const base::UniqueFd fifo(static_cast<int>(fifoArg));
  const base::MallocPtr path(reinterpret_cast<char*>(pathArg));
  char line[kLineMax];
  size_t length = 0;  // beyond kLineMax: the line is too long, its end is waited for
  for (;;) {
    char c = 0;
    const ssize_t got = read(fifo.get(), &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got != 1) return Say(path.get(), "cannot be read any more");
    if (c != '\n') {
      if (length < kLineMax) line[length] = c;
      if (length <= kLineMax) ++length;
      continue;
    }
    if (length > kLineMax || !MoveBy({line, length}))
      Say(path.get(), "a line is no number of milliseconds from 1 to 86400000, skipped");
    length = 0;
  }
}

}  // namespace

void ClockControlStart(const char* path) {
  if (*path == '\0') return;
  base::UniqueFd fifo;
  if (const char* fault = OpenFifo(path, fifo)) return Say(path, fault);
  base::MallocPtr kept(strdup(path));
  const uintptr_t args[4] = {static_cast<uintptr_t>(fifo.get()), reinterpret_cast<uintptr_t>(kept.get()), 0,
                             0};
  uint32_t taskId = 0;
  if (!kept || KEL_TaskCreate("KELCLOCK", &taskId, ControlTask, kPriority, 0, 0, args) != 0)
    return Say(path, "no task to read it");
  (void)fifo.release();  // the task's, like the path
  (void)kept.release();
  Say(path, "moves the clock of this process, never use it on a device");
}

}  // namespace velto
