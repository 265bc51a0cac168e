/// The watch over the process's memory: a process near its budget is restarted before it fails in the middle
/// of something.

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "fault/feature_fault_manager.h"
#include "log/run_log.h"
#include "msg/ipc_manager.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint16_t kPercentMax = 99;
constexpr uint32_t kCheckPeriodS = 300;
constexpr uint32_t kKiB = 1024;
constexpr size_t kNameSize = 31;

std::atomic<uint16_t> g_percent = kPercentMax;
char g_name[kNameSize];
std::atomic<bool> g_isWatched = false;
uint32_t g_seconds = 0;  // since the last check; of the agent's task

void AskForRestart() {
  const uint32_t result = TolaRebootAppByAppName(g_name);
  if (result == 0) return;
  LOG_ERR(kLogModule, "ret:%u", result);
  (void)kill(getpid(), SIGKILL);
  LOG_ERR(kLogModule, "kill process ok!");
}

uint32_t CheckThreshold() {
  if (++g_seconds < kCheckPeriodS) return kSuccess;
  g_seconds = 0;
  const uint32_t total = KEL_MemGetTotalSize() / kKiB;
  const uint32_t free = KEL_MemGetFreeSize() / kKiB;
  if (total == 0) {
    LOG_ERR(kLogModule, "get mem err!");
    return kFailure;
  }
  const uint32_t used = free < total ? total - free : 0;
  const auto usage = static_cast<uint32_t>(uint64_t{100} * used / total);
  if (usage < g_percent) return kSuccess;
  LOG_EVT(kLogModule, "process:%s Mem Threshold Over!MemUsage:%u, Total:%u, Free:%u", g_name, usage, total,
          free);
  AskForRestart();
  return kSuccess;
}

}  // namespace

uint32_t TOLA_CfgProcessMemThreshold(uint16_t percent, const char* name) {
  if (percent == 0 || percent > kPercentMax || name == nullptr) return kFaultErrThreshold;
  if (strnlen(name, kNameSize) == kNameSize) return kFaultErrThreshold;  // the name that is kept stays
  (void)strcpy_s(g_name, sizeof(g_name), name);
  g_percent = percent;
  if (g_isWatched.exchange(true)) return kSuccess;
  const uint32_t result = FaultRegTimer1sFunc(CheckThreshold);
  if (result != 0) g_isWatched = false;
  return result;
}
