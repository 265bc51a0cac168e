/// Start-up, the way out, and the calls that others make.
#include "msg/ipc_manager.h"

#include <string.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/ipc_manager_impl.h"
#include "securec.h"
#include "velto/kel_mem.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kTaskPriority = 15;
constexpr uint32_t kTimerMs = 20;

/// The message that this task is handing to its module: it may not leave the process again.
thread_local const tagMsgBuf* t_arrived = nullptr;

uint32_t GetChannel() {
  return CIpcManager::GetInstance().GetAppIpcSeq();
}

uint32_t RegAppSendMsg(tagMsgBuf* msg, uint32_t channel, bool urgent) {
  const uint32_t ret = CIpcManager::GetInstance().AppSendIpcMsg(msg, static_cast<uint16_t>(channel), urgent);
  if (ret == 0) TOLA_MsgFree(msg);
  return ret;
}

}  // namespace

ArrivedMsg::ArrivedMsg(const tagMsgBuf* msg) {
  t_arrived = msg;
}
ArrivedMsg::~ArrivedMsg() {
  t_arrived = nullptr;
}

CIpcManager& CIpcManager::GetInstance() {
  static base::NeverDestroyed<CIpcManager> instance;
  return *instance;
}

uint32_t CIpcManager::Init(const TOLA_APP_REG_INFO_S* info) {
  if (info == nullptr || info->name[0] == '\0') return kFailure;
  if (strnlen(info->name, sizeof(info->name)) == sizeof(info->name)) return kFailure;
  const std::lock_guard lock(initMutex_);
  if (IsInit()) return kSuccess;
  uint32_t ret = taskId_ == 0 ? Build(*info) : kSuccess;  // else an earlier call's task works with it
  if (ret != 0) return ret;
  // Registry first: a message may leave as soon as the hooks are known.
  MsgMgrRegAppIpcMsgFun(GetChannel, RegAppSendMsg, TolaFeatureAppModuleIDChangeNotify);
  NoteRegisteredModules();
  (void)RegAppInfo();  // sent again once a second until it is acknowledged
  ret = StartTasks();
  if (ret == 0) {
    ready_.store(true, std::memory_order_release);
  } else {
    MsgMgrRegAppIpcMsgFun(nullptr, nullptr, nullptr);
  }
  return ret;
}

uint32_t CIpcManager::Build(const TOLA_APP_REG_INFO_S& info) {
  info_ = info;
  info_.version[sizeof(info_.version) - 1] = '\0';
  moduleId_ = info.module != nullptr ? info.module->moduleId : 0;
  info_.module = nullptr;  // it is the caller's
  pid_ = static_cast<uint32_t>(getpid());
  uint32_t memHandle = 0;
  if (KEL_HandleInitialize("IPCMGR", &memHandle) != 0) return kIpcErrHandle;
  uint32_t ret = IpcEndpointOpen(info_.name, &endpoint_);
  if (ret != 0) return ret;
  mainQueueId_.store(endpoint_.mainQueueId, std::memory_order_relaxed);
  publicSemapId_.store(endpoint_.publicSemapId, std::memory_order_relaxed);
  reader_ = IpcQueueReader(endpoint_.queueId);
  reassembly_.SetMemHandle(memHandle);
  ret = classes_.Init(memHandle);
  if (ret != 0) return ret;
  return registry_.Init({endpoint_.queueId, endpoint_.semapId, pid_});
}

/// Modules that registered before there was a hook to tell of them.
void CIpcManager::NoteRegisteredModules() {
  for (uint16_t moduleId = 0; moduleId < kIpcIdPlatformEnd; ++moduleId) {
    MsgModuleBlock block = {};
    if (TOLA_GetMsgBlock(moduleId, &block) != 0 || block.queueId == 0) continue;
    (void)registry_.NoteLocal(kIpcModuleAdded, 1, &moduleId);  // a semaphore that fails shows at every send
  }
}

/// A call after one that failed starts what is missing: none of it can be taken back.
uint32_t CIpcManager::StartTasks() {
  if (parkSema_ == 0 && KEL_SemaCreate("IpcReaderPark", 0, 0, &parkSema_) != 0) return kIpcErrTask;
  const KelTaskEntry run = [](uintptr_t, uintptr_t, uintptr_t, uintptr_t) { GetInstance().Run(); };
  if (taskId_ == 0 && KEL_TaskCreate("IPCMGR", &taskId_, run, kTaskPriority, 0, 0, nullptr) != 0)
    return kIpcErrTask;
  const KelTimerCallback tick = [](uintptr_t taskId) {
    (void)KEL_EventWrite(static_cast<uint32_t>(taskId), kIpcEventTimer);  // fails only without the task
  };
  if (timerId_ == 0 && KEL_ReltmrCbkStart(kTimerMs, kKelTimerRepeat, tick, taskId_, &timerId_) != 0)
    return kIpcErrTimer;
  const KelTaskEntry read = [](uintptr_t, uintptr_t, uintptr_t, uintptr_t) { GetInstance().ReadQueueTask(); };
  return KEL_TaskCreate("IPCREAD", &readerTaskId_, read, kTaskPriority, 0, 0, nullptr) == 0 ? kSuccess
                                                                                            : kIpcErrTask;
}

uint32_t CIpcManager::AppSendIpcMsg(const tagMsgBuf* msg, uint16_t sequence, bool urgent) {
  if (msg == t_arrived) return kMsgErrNotRegistered;
  IpcTarget target = {};
  bool toMain = false;
  const uint32_t ret = registry_.Find(msg->destination, &target, &toMain);
  if (ret == kIpcErrLocal) LOG_ERR(kLogModule, "DstModId:%d is in My process", msg->destination);
  if (ret != 0) return ret;
  if (toMain) {
    target = MainTarget();
    target.pid = 0;  // not for the main process itself
  }
  const IpcEnvelope envelope = {classes_.ClassOf(msg->type, urgent), pid_, sequence, urgent};
  return IpcSendMessage(target, envelope, msg, IpcWait::kRetry);
}

uint32_t CIpcManager::SendRebootMsg(uint32_t kind, uint32_t appId, const char* name, IpcWait wait) {
  IpcRebootMsg reboot = {.pid = pid_, .kind = kind, .appId = appId, .name = {}};
  if (strcpy_s(reboot.name, sizeof(reboot.name), name) != EOK) return kFailure;
  return SendToMain(kIpcReboot, &reboot, sizeof(reboot), wait);
}

uint32_t CIpcManager::ProcModuleIdChangeNotify(uint16_t operation, uint32_t count, const uint16_t* ids) {
  if (operation > kIpcModuleRemoved || ids == nullptr) return kFailure;
  const uint32_t ret = registry_.NoteLocal(operation, count, ids);
  // What is not told now, or does not get through, shows as a difference to the main process's map.
  if (ret == 0 && registry_.mainPid() != 0) (void)SendChanges(operation, count, ids);
  return ret;
}

uint32_t TolaFeatureIpcMgrInit(const TOLA_APP_REG_INFO_S* info) {
  return CIpcManager::GetInstance().Init(info);
}

uint32_t TolaRebootAppByAppName(const char* name) {
  CIpcManager& manager = CIpcManager::GetInstance();
  if (!manager.IsInit() || name == nullptr) return kFailure;
  return manager.SendRebootMsg(kIpcRebootByName, 0, name, IpcWait::kRetry);
}

uint32_t TolaRebootAppByAppId(uint32_t id) {
  CIpcManager& manager = CIpcManager::GetInstance();
  return manager.IsInit() ? manager.SendRebootMsg(kIpcRebootById, id, "", IpcWait::kRetry) : kFailure;
}

/// Also the hook of the message manager, which may call it before Init has returned.
uint32_t TolaFeatureAppModuleIDChangeNotify(uint32_t operation, uint32_t count, const uint16_t* ids) {
  CIpcManager& manager = CIpcManager::GetInstance();
  if (operation > kIpcModuleRemoved) return kFailure;
  return manager.ProcModuleIdChangeNotify(static_cast<uint16_t>(operation), count, ids);
}

uint32_t TolaFeatureAppCompIDAddNotify(uint32_t csi) {
  if (!CIpcManager::GetInstance().IsInit()) return kSuccess;
  if (csi > UINT16_MAX) return kIpcErrModule;
  const auto moduleId = static_cast<uint16_t>(csi);
  return TolaFeatureAppModuleIDChangeNotify(kIpcModuleAdded, 1, &moduleId);
}

void TolaFeatureAppArmRestart() {
  CIpcManager::GetInstance().FlagAppArmRestart();
}
