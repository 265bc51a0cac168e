#include "update/script_run.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/owners.h"
#include "base/result_codes.h"
#include "drv/res_ctrl.h"
#include "frame/public_file_cfg.h"
#include "frame/sys_res_get.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/file_name_check.h"
#include "update/script_exe_ids.h"
#include "velto/kel_clock.h"
#include "velto/kel_mem.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kModule = kScriptExeCompId;
constexpr size_t kNamesMax = 504;
constexpr size_t kCommandMax = 512;
constexpr uint32_t kStartDelayMs = 1000;
constexpr uint32_t kSilenceSeconds = 600;
constexpr uint16_t kLimitPeriod = 200;
constexpr int kPidTries = 20;
constexpr uint32_t kPidDelayMs = 100;
constexpr char kBankScript[] = "monitor_update.sh";
constexpr char kBankConfig[] = "/mnt/log/update/config.kp";
constexpr char kBankBackup[] = "/mnt/log/update/configback.kp";
constexpr char kBank[] = "/app_bin";
constexpr int kBankLineSize = 255;

/// Whether a shell takes the path for one command word that means this very file: it does not split or
/// expand it, and searches no PATH. Otherwise it would run something that nobody has verified.
bool IsOneShellWord(const char* path) {
  if (path[0] != '/') return false;
  return std::all_of(path, path + strlen(path), [](char c) {
    const auto code = static_cast<unsigned char>(c);
    return code > ' ' && code != 0x7F && strchr("()[]{}", c) == nullptr;
  });
}

/// @retval 0, or kErrFormat when the line is longer than kCommandMax
uint32_t BuildCommand(char (&command)[kCommandMax + 1], const char* script, const char* file,
                      const char* extend) {
  const int length = extend != nullptr
                         ? snprintf_s(command, sizeof(command), kCommandMax, "%s %s %s", script, file, extend)
                         : snprintf_s(command, sizeof(command), kCommandMax, "%s %s", script, file);
  return length < 0 ? kErrFormat : kSuccess;
}

/// Lines of a pipe, each at most 511 characters; read past stdio, so nothing is held back in a buffer that a
/// wait does not see.
class LineReader {
 public:
  enum class Outcome { kLine, kEnd, kSilent, kFailed };

  LineReader(int fd, uint32_t silenceSeconds) : fd_(fd), silenceNs_(silenceSeconds * 1000000000ull) {}

  /// kSilent: nothing came for the time, after what text() holds of an unfinished line.
  [[nodiscard]] Outcome Next() {
    continued_ = cut_;
    cut_ = false;
    used_ = 0;
    while (!TakePending()) {
      const Outcome arrival = Wait();
      if (arrival != Outcome::kLine) return arrival;
      const ssize_t got = read(fd_, pending_.data(), pending_.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return used_ > 0 ? Outcome::kLine : Outcome::kEnd;
      begin_ = 0;
      end_ = static_cast<size_t>(got);
    }
    return Outcome::kLine;
  }

  /// The line, its end cut off.
  [[nodiscard]] const char* text() {
    line_[used_] = '\0';
    return line_.data();
  }

  /// A later piece of an over-long line begins no line.
  [[nodiscard]] bool BeginsWithOk() const {
    return !continued_ && used_ >= 2 && (line_[0] == 'O' || line_[0] == 'o') &&
           (line_[1] == 'K' || line_[1] == 'k');
  }

 private:
  static constexpr size_t kLineMax = 511;
  static constexpr int kSliceMs = 50;

  /// Moves what was read into the line; true when the line is complete.
  bool TakePending() {
    while (begin_ < end_) {
      const char c = pending_[begin_++];
      if (c == '\n') return true;
      line_[used_++] = c;
      if (used_ == kLineMax) return cut_ = true;
    }
    return false;
  }

  /// kLine: something can be read. In slices, because the runtime's clock may be moved during the wait.
  Outcome Wait() const {
    const uint64_t start = KEL_ClockMonotonicNs();
    while (true) {
      pollfd entry = {fd_, POLLIN, 0};
      const int ready = poll(&entry, 1, kSliceMs);
      if (ready > 0 && (entry.revents & POLLNVAL) == 0) return Outcome::kLine;
      if (ready > 0) errno = EBADF;
      if (ready > 0 || (ready < 0 && errno != EINTR)) return Outcome::kFailed;
      if (KEL_ClockMonotonicNs() - start >= silenceNs_) return Outcome::kSilent;
    }
  }

  int fd_;
  uint64_t silenceNs_;
  std::array<char, 4096> pending_{};
  size_t begin_ = 0;
  size_t end_ = 0;
  std::array<char, kLineMax + 1> line_{};
  size_t used_ = 0;
  bool cut_ = false;
  bool continued_ = false;
};

void ClosePipe(FILE* pipe) {
  errno = 0;
  const int status = pclose(pipe);
  if (status == -1) {
    LOG_ERR(kModule, "**end:%d %d", errno, status);
  } else if (WIFEXITED(status)) {
    LOG_EVT(kModule, "**end:%d %d", errno, WEXITSTATUS(status));
  } else {
    LOG_EVT(kModule, "**end:%d", errno);
  }
}

uint32_t RunCommand(const char* command, const char* scriptPath, uint16_t cpuLimit) {
  const char* name = ScriptBaseName(scriptPath);
  errno = 0;
  FILE* pipe = popen(command, "re");
  if (pipe == nullptr) {
    LOG_ERR(kModule, "file open fail,sh:%s,name:%s", command, name);
    return kFailure;
  }
  LOG_EVT(kModule, "**begin:%d", errno);
  LimitScriptRes(name, cpuLimit);
  uint32_t result = kSuccess;
  if (IsBankScript(scriptPath)) {
    result = ModifyBackPath(TOLA_GetFileFullName(kBankConfig), TOLA_GetFileFullName(kBankBackup));
    LOG_EVT(kModule, "mod bk path,%d", static_cast<int>(result));
  } else {
    result = WaitScriptFinish(pipe, kSilenceSeconds);
  }
  ClosePipe(pipe);
  return result;
}

/// Like fgets, with the length, so that no byte is lost behind a zero byte. 0 at the end.
size_t ReadLine(FILE* file, char (&line)[kBankLineSize]) {
  size_t length = 0;
  int c = 0;
  while (length < sizeof(line) - 1 && c != '\n' && (c = getc(file)) != EOF) {
    line[length++] = static_cast<char>(c);
  }
  line[length] = '\0';
  return length;
}

/// Copies line by line with the first bank of each line exchanged.
uint32_t CopyWithBankExchanged(FILE* config, FILE* copy) {
  char line[kBankLineSize];
  while (const size_t length = ReadLine(config, line)) {
    const char* match = KEL_StrStr(line, kBank);
    if (match != nullptr) {
      char& bank = line[match - line + sizeof(kBank) - 1];
      if (bank == '0' || bank == '1') bank = bank == '0' ? '1' : '0';
    }
    if (TOLA_WriteFile(copy, line, length) != 0) return kFailure;
  }
  return ferror(config) == 0 && fflush(copy) == 0 && fsync(fileno(copy)) == 0 ? kSuccess : kFailure;
}

}  // namespace

const char* ScriptBaseName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

bool IsBankScript(const char* path) {
  return strncmp(ScriptBaseName(path), kBankScript, sizeof(kBankScript) - 1) == 0;
}

uint32_t ExeScriptFileCommon(const char* scriptPath, const char* fileArgument, const char* extendPara,
                             uint16_t cpuLimit) {
  if (scriptPath == nullptr || fileArgument == nullptr || *scriptPath == '\0' || *fileArgument == '\0') {
    return kFailure;
  }
  if (strlen(scriptPath) + strlen(fileArgument) > kNamesMax) {
    LOG_ERR(kModule, "CmdErr ScriptName %s, FileName %s", scriptPath, fileArgument);
    return kFailure;
  }
  KEL_TaskDelay(kStartDelayMs);
  uint32_t length = 0;
  const uint32_t lengthResult = GetFileLen(scriptPath, length);
  if (lengthResult != 0 || length < 1) {
    LOG_ERR(kModule, "file:%s err:%d,%d", scriptPath, static_cast<int>(lengthResult),
            static_cast<int>(length));
    return kFailure;
  }
  if (chmod(scriptPath, S_IRWXU) != 0) LOG_ERR(kModule, "chmodErr ScriptName %s", scriptPath);

  char command[kCommandMax + 1];
  if (BuildCommand(command, scriptPath, fileArgument, extendPara) != 0) return kErrFormat;
  LOG_EVT(kModule, "cmd:%s", command);
  command[strcspn(command, "\n")] = '\0';
  if (!IsOneShellWord(scriptPath) ||
      CheckFileNameSpecialChar(command, static_cast<uint32_t>(strlen(command)), nullptr, true) != 0) {
    return kFailure;
  }
  return RunCommand(command, scriptPath, cpuLimit);
}

void LimitScriptRes(const char* scriptName, uint16_t cpuLimit) {
  if (cpuLimit == 0) return;
  for (int i = 0; i < kPidTries; ++i) {
    const int32_t pid = TOLA_GetProcessPidByName(scriptName);
    if (pid > 0) {
      ResCtrlByPid(scriptName, pid, cpuLimit);
      return;
    }
    KEL_TaskDelay(kPidDelayMs);
  }
  LOG_EVT(kModule, "get pid fail %s", scriptName);
}

void ResCtrlByPid(const char* scriptName, int32_t pid, uint16_t cpuLimit) {
  int32_t ret = DRV_ResCtrlInit(kResCtrlDeviceId);
  if (ret != 0) {
    LOG_ERR(kModule, "DRV_ResCtrlInit ERR: %d", ret);
    return;
  }
  // The record holds 16 bits of a process id; cut to them, a larger one would limit a stranger.
  ret = -1;
  if (pid > 0 && pid <= UINT16_MAX) {
    const DRV_RES_CTRL_S record = {{static_cast<uint16_t>(pid), 0, 0}, 1, cpuLimit, kLimitPeriod};
    ret = DRV_ResCtrlIoctl(kResCtrlDeviceId, kResCtrlCmdSet, &record);
  }
  if (ret != 0) LOG_ERR(kModule, "DRV_ResCtrlIoctl ERR: %d", ret);
  LOG_EVT(kModule, "limit %s %d %d", scriptName, pid, cpuLimit);
}

uint32_t WaitScriptFinish(FILE* stream, uint32_t timeoutSeconds) {
  LineReader reader(fileno(stream), timeoutSeconds);
  while (true) {
    switch (reader.Next()) {
      case LineReader::Outcome::kFailed:
        perror("select");
        return kFailure;
      case LineReader::Outcome::kEnd:
        LOG_EVT(kModule, "script output ended without OK");
        return kFailure;
      case LineReader::Outcome::kSilent:
        if (reader.BeginsWithOk()) break;  // a last line whose end never came
        LOG_ERR(kModule, "script silent for %u s", timeoutSeconds);
        return kFailure;
      case LineReader::Outcome::kLine:
        break;
    }
    LOG_EVT(kModule, "**buffer %s", reader.text());
    if (reader.BeginsWithOk()) return kSuccess;
  }
}

uint32_t ModifyBackPath(const char* configPath, const char* backupPath) {
  LOG_EVT(kModule, "mod back path:%s, %s", configPath, backupPath);
  base::FilePtr config(TOLA_OpenFile(configPath, "r+"));
  if (!config) return kExeErrBackOpen;
  base::FilePtr copy(TOLA_OpenFile(backupPath, "w+"));
  if (!copy) return kExeErrBackOpen;

  uint32_t ret = CopyWithBankExchanged(config.get(), copy.get());
  config.reset();
  if (TOLA_CloseFile(copy.release()) != 0) ret = kFailure;
  if (ret == kSuccess && rename(backupPath, configPath) != 0) {
    LOG_ERR(kModule, "rename err:%d", errno);
    ret = kExeErrBackRename;
  }
  if (ret != kSuccess) (void)unlink(backupPath);  // a half copy is of no use to anybody
  return ret;
}
