#include "fault/box.h"

#include <stdio.h>
#include <string.h>

#include <atomic>
#include <new>

#include "base/result_codes.h"
#include "fault/box_names.h"
#include "fault/feature_fault_manager.h"
#include "frame/public_file_cfg.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "velto/kel_sigcap.h"
#include "velto/kel_sync.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr char kExceptionFile[] = "/mnt/log/fault_manager_except_sys_info.tola";
constexpr char kBackupFile[] = "/mnt/log/fault_manager_except_sys_info_back.tola";

constexpr uint32_t kRefreshAt[] = {180, 540};  // seconds since the start
constexpr uint32_t kRefreshEnd = 600;

/// kept: 10, 12 and 13 are "ignored" by an empty handler: a command that is started, in whatever way, has the
/// default action again then, which it would not have from SIG_IGN.
constexpr int kIgnored[] = {SIGUSR1, SIGUSR2, SIGPIPE};
void Ignore(int) {}

uint32_t RefreshMap() {
  CBoxManager* box = CBoxManager::GetInstance();
  return box != nullptr ? box->RefreshMapOnSecond() : kFailure;
}

TOLA_SIGNAL_BOX_S DefaultFiles() {
  TOLA_SIGNAL_BOX_S files = {};
  // A configured name that does not fit stays empty, which Init refuses.
  (void)strcpy_s(files.exceptionFile, sizeof(files.exceptionFile), TOLA_GetFileFullName(kExceptionFile));
  (void)strcpy_s(files.backupFile, sizeof(files.backupFile), TOLA_GetFileFullName(kBackupFile));
  return files;
}

bool SetAction(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  return sigaction(signal, &action, nullptr) == 0;
}

void SetHarmlessSignals() {
  (void)KEL_SigcapHandleSwitch(SIGPIPE, 0);  // what follows replaces it
  for (const int signal : kIgnored) {
    if (!SetAction(signal, Ignore)) LOG_ERR(kLogModule, "ignore sig:%d fail!", signal);
  }
  if (!SetAction(SIGCHLD, SIG_DFL)) LOG_ERR(kLogModule, "default sig:%d fail!", SIGCHLD);
}

}  // namespace

uint32_t TOLA_SignalBoxInit(const TOLA_SIGNAL_BOX_S* names) {
  static std::atomic<bool> isDone = false;
  if (isDone.exchange(true)) return 0;
  CBoxManager* box = CBoxManager::GetInstance();
  const uint32_t result = box != nullptr ? box->Init(names != nullptr ? *names : DefaultFiles()) : kFailure;
  if (result != 0) {
    LOG_ERR(kLogModule, "box int err %#x", result);
    (void)printf("box int err %#x\n", result);  // where the run log does not stand yet
  } else {
    LOG_EVT(kLogModule, "box int ok");
  }
  return 0;
}

void TOLA_RegBoxUserInfoRecordHook(BoxUserInfoHook hook) {
  BoxRecordHook(hook);
}

uint32_t InstallSigHandlers(int signal, void (*handler)(int, siginfo_t*, void*)) {
  if (handler == nullptr) return kErrCopy;
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  sigemptyset(&action.sa_mask);
  return sigaction(signal, &action, nullptr) == 0 ? 0 : kFailure;
}

CBoxManager* CBoxManager::GetInstance() {
  static CBoxManager* const instance = new (std::nothrow) CBoxManager;  // lives as long as the process
  return instance;
}

uint32_t CBoxManager::Init(const TOLA_SIGNAL_BOX_S& names) {
  uint32_t result = BoxFormNames(names, names_);
  if (result != 0) return result;
  BoxKeepLastRun(names_);
  (void)remove(names_.crash);  // one that stays shows when it is made
  result = OperatMapInfoFile(names_.map);
  if (result != 0) return result;
  base::UniqueFd crash = BoxNewFile(names_.crash);
  if (!crash) return kBoxErrOpen;
  for (const char* file : {names_.exception, names_.backup, names_.map, names_.crash}) {
    if (*file != '\0') (void)ChangeFileProperty(file);  // before the first crash two of them are not there
  }

  result = FaultRegTimer1sFunc(RefreshMap);
  if (result != 0) LOG_ERR(kLogModule, "reg callback func err %hu", static_cast<uint16_t>(result));
  uint32_t saveSemaId = 0;
  if (KEL_SemaCreate("BoxSaveFile", 1, 0, &saveSemaId) != 0) return kBoxErrSema;
  BoxRecordStart({crash.release(), saveSemaId, names_.crash});  // open as long as the process lives
  return CaptureSignals();
}

uint32_t CBoxManager::CaptureSignals() {
  for (const int signal : kBoxFatalSignals) {
    uint32_t result = KEL_SigcapHandleReg(signal, BoxCrashHandler);
    if (result == 0) result = KEL_SigcapHandleSwitch(signal, 1);
    if (result != 0) {
      LOG_ERR(kLogModule, "reg sig:%d fail! ret:%u", signal, result);
      return kBoxErrSignal;
    }
  }
  if (InstallSigHandlers(kBoxHeartTimeoutSignal, BoxHeartTimeoutHandler) != 0 ||
      InstallSigHandlers(kBoxTaskInfoSignal, BoxTaskInfoHandler) != 0) {
    return kBoxErrSignal;
  }
  SetHarmlessSignals();
  return 0;
}

uint32_t CBoxManager::RefreshMapOnSecond() {
  if (seconds_ >= kRefreshEnd) return 0;
  ++seconds_;
  for (const uint32_t second : kRefreshAt) {
    if (seconds_ != second) continue;
    const uint32_t result = OperatMapInfoFile(names_.map);
    LOG_EVT(kLogModule, "refresh map file res %hu", static_cast<uint16_t>(result));
  }
  return 0;
}
