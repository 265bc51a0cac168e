#include "fault/fault_debug.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "base/owners.h"
#include "base/result_codes.h"
#include "comp/msg_codec.h"
#include "fault/fault_public.h"
#include "log/run_log.h"
#include "msg/msg_interface_public.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kLogModeConsoleAndFile = 3;
constexpr char kLeakDumpBase[] = "/mnt/log/agent_mem_leak_info";
constexpr size_t kTerminalNameSize = 32;

base::UniqueFd g_keptOutput;  ///< standard output as it was, while it is redirected

const char* ErrnoText() {
  return strerrordesc_np(errno);
}

void UndoRedirection() {
  if (!g_keptOutput) return;
  (void)fflush(stdout);  // what was printed meanwhile belongs to the terminal
  errno = 0;
  const int result = dup2(g_keptOutput.get(), STDOUT_FILENO);
  LOG_EVT(kLogModule, "Re:%d %d %s", result, errno, ErrnoText());
  g_keptOutput.reset();
}

/// The terminal for writing. Not waited for: a terminal that somebody stopped must not stop the process.
base::UniqueFd OpenTerminal(const char* name) {
  base::UniqueFd fd(open(name, O_WRONLY | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (fd && (fstat(fd.get(), &status) != 0 || !S_ISCHR(status.st_mode))) {
    fd.reset();
    errno = ENOTTY;
  }
  return fd;
}

uint32_t PutInPlaceOfOutput(const base::UniqueFd& terminal) {
  (void)fflush(stdout);
  base::UniqueFd kept(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!kept || dup2(terminal.get(), STDOUT_FILENO) < 0) {
    LOG_ERR(kLogModule, "Err:%d,%s", errno, ErrnoText());
    return kFailure;
  }
  g_keptOutput = std::move(kept);
  return kSuccess;
}

using Words = std::array<uint16_t, 3>;

uint32_t Redirect(const Words& words) {
  const uint16_t number = words[0];
  const uint16_t isOn = words[1];
  if (isOn > 1) {
    LOG_ERR(kLogModule, "Err-Num %d OnOff %d", number, isOn);
    return kFailure;
  }
  UndoRedirection();
  if (isOn == 0) return kSuccess;

  char name[kTerminalNameSize] = {};
  if (snprintf_s(name, sizeof(name), sizeof(name) - 1, "/dev/pts/%hu", number) < 0) return kFailure;
  const base::UniqueFd terminal = OpenTerminal(name);
  if (!terminal) {
    LOG_ERR(kLogModule, "CMD:%s,Err:%d,%s", name, errno, ErrnoText());
    return kFailure;
  }
  LOG_EVT(kLogModule, "CMD:%s", name);
  return PutInPlaceOfOutput(terminal);
}

uint32_t SetLogLevel(const Words& words) {
  return TOLA_LogControl(words[0], words[1], kLogModeConsoleAndFile);
}

uint32_t DumpLeaks(const Words& /*how many blocks and seconds: all are watched, always*/) {
  char name[kFaultPathSize] = {};
  if (snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s_%d%s", kLeakDumpBase, getpid(), ".tola") < 0) {
    return kFaultErrDumpName;
  }
  return TOLA_MemLeakDump(name);
}

uint32_t ControlMsgStatistic(const Words& words) {
  constexpr uint16_t kSet = 0;
  constexpr uint16_t kPrint = 1;
  if (words[0] > kPrint) return kSuccess;
  MsgMemStatisticBase* statistic = GetMsgMemStatisticInstance();
  if (statistic == nullptr) return kFailure;
  if (words[0] == kSet) {
    statistic->Switch(words[1], words[2] != 0);
  } else {
    statistic->Print(words[1]);
  }
  return kSuccess;
}

/// By command number.
struct Command {
  size_t words;
  uint32_t (*run)(const Words& words);
};
constexpr Command kCommands[] = {
    {2, Redirect},
    {2, SetLogLevel},
    {2, DumpLeaks},
    {3, ControlMsgStatistic},
};

}  // namespace

uint32_t FaultDebugRequest(const uint8_t* data, uint32_t length) {
  auto* cursor = const_cast<unsigned char*>(data);  // the codec's cursor; getters write nothing
  unsigned int remaining = length;
  uint16_t command = 0;
  if (GetNetU16_s(cursor, remaining, command) != 0 || command >= std::size(kCommands)) return kFailure;
  Words words = {};
  for (size_t i = 0; i < kCommands[command].words; ++i) {
    if (GetNetU16_s(cursor, remaining, words[i]) != 0) return kFailure;
  }
  return kCommands[command].run(words);
}
