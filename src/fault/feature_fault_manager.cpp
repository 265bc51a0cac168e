#include "fault/feature_fault_manager.h"

#include <signal.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "fault/box_record.h"
#include "fault/fault_debug.h"
#include "log/run_log.h"
#include "msg/heart_beat_manager.h"
#include "securec.h"
#include "velto/kel_clock.h"
#include "velto/kel_mem.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint16_t kFaultManagerModule = 6;  ///< the platform's, in its main process

// Message types.
constexpr uint16_t kMsgRegister = 2572;  ///< to the fault manager; from it: acknowledged
constexpr uint16_t kMsgDebug = 2573;
constexpr uint16_t kMsgRegisterAgain = 41696;

constexpr uint32_t kTaskPriority = 3;
constexpr uint32_t kSecondMs = 1000;
constexpr uint32_t kQuietSeconds = 30;  ///< after a registration that waited and was not taken
constexpr uint32_t kEventSecond = 0x8000;
constexpr uint32_t kEventMsg = 0x4000;
constexpr uint32_t kEventRegister = 0x2000;
constexpr uint32_t kQueueLength = 32;
constexpr uint16_t kHeartBeatId = 4;
constexpr uint16_t kHeartBeatTimeoutS = 1800;

constexpr uint32_t kRecordMs = 2000;
constexpr int kStuckTaskStatus = 17;

constexpr size_t kTimerSlots = 6;
std::array<std::atomic<FaultTimer1sFunc>, kTimerSlots> g_timerSlots = {};

/// Whether another process's fault agent refuses a message with this one. An answer to it would be refused
/// and answered in turn, for ever; so would one to oneself.
bool IsRefusal(const tagMsgBuf& msg) {
  uint16_t result = 0;
  if (msg.source == kFaultManagerModule || GetTolaMsgLen(&msg) != sizeof(result)) return false;
  return memcpy_s(&result, sizeof(result), TolaMsgData(&msg), sizeof(result)) == EOK && result == kFailure;
}

}  // namespace

uint32_t FaultRegTimer1sFunc(FaultTimer1sFunc callback) {
  if (callback == nullptr) return kFailure;
  for (std::atomic<FaultTimer1sFunc>& slot : g_timerSlots) {
    FaultTimer1sFunc none = nullptr;
    if (slot.compare_exchange_strong(none, callback)) return kSuccess;
  }
  return kFailure;
}

uint32_t FeatureFaultMgrReg(uint16_t moduleId, int32_t pid) {
  if (moduleId >= kMsgDefaultMaxModule || pid < 1) return kFaultErrRegister;
  const auto bits = static_cast<uint32_t>(pid);
  const uint16_t data[4] = {0, moduleId, static_cast<uint16_t>(bits & 0xFFFF),
                            static_cast<uint16_t>(bits >> 16)};
  return SendSimpleFormatMsg(moduleId, kFaultManagerModule, kMsgRegister, 0, sizeof(data), data);
}

void FaultRecordStuckTask(uint32_t taskId) {
  pthread_t thread = {};
  if (KEL_TaskIsValid(taskId) == 0 || KEL_TaskPthreadGet(taskId, &thread) != 0) thread = pthread_self();
  BoxLeaveEndToSender();
  (void)pthread_kill(thread, kBoxHeartTimeoutSignal);  // a record that fails does not keep the process alive
  KEL_TaskDelay(kRecordMs);
  _exit(kStuckTaskStatus);
}

CFeatureFaultManager* TolaGetFaultMgr() {
  static CFeatureFaultManager manager;
  static const bool isThere = [] {
    uint32_t handle = 0;
    return KEL_HandleInitialize("Fault manager", &handle) == 0;
  }();
  return isThere ? &manager : nullptr;
}

uint32_t TOLA_FaultManagerInit(const TOLA_FAULT_MGR_CFG_S* cfg) {
  CFeatureFaultManager* manager = TolaGetFaultMgr();
  return manager != nullptr ? manager->Init(cfg) : kFailure;
}

uint32_t CFeatureFaultManager::Init(const TOLA_FAULT_MGR_CFG_S* cfg) {
  if (cfg == nullptr) return kFaultErrNullCfg;
  if (isStarted_.exchange(true)) return kFailure;
  moduleId_ = cfg->moduleId;
  RegTaskInfoRecordFunc(FaultRecordStuckTask);
  const uint32_t result = Start();
  if (result != 0) {
    isStarted_ = false;
    return result;
  }
  LOG_EVT(kLogModule, "feature fault manager init ok");
  return kSuccess;
}

uint32_t CFeatureFaultManager::Start() {
  const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(this), 0, 0, 0};
  // One that stands from a start that failed has nothing to do yet, and serves this one.
  if (taskId_ == 0 && KEL_TaskCreate("FaultMgr", &taskId_, TaskEntry, kTaskPriority, 0, 0, args) != 0) {
    taskId_ = 0;
    return kFailure;
  }
  uint32_t timerId = 0;
  uint32_t result = KEL_ReltmrCbkStart(kSecondMs, kKelTimerRepeat, OnSecond, taskId_, &timerId);
  if (result != 0) return result;
  result = TOLA_MsgModuleRegister(moduleId_, taskId_, kEventMsg, kQueueLength);
  if (result != 0) {
    (void)KEL_ReltmrStop(timerId);
    return result;
  }
  (void)KEL_EventWrite(taskId_, kEventRegister);  // by the task: a queue that is full holds up no start
  return kSuccess;
}

void CFeatureFaultManager::OnSecond(uintptr_t taskId) {
  (void)KEL_EventWrite(static_cast<uint32_t>(taskId), kEventSecond);  // the task never ends
}

void CFeatureFaultManager::TaskEntry(uintptr_t manager, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<CFeatureFaultManager*>(manager)->Run();
}

void CFeatureFaultManager::Run() {
  // Not supervised without the heart-beat manager, or when its table is full; it has logged that.
  (void)TOLA_RegHeartBeatId(kHeartBeatId, kHeartBeatTimeoutS, 0);
  for (;;) {
    uint32_t received = 0;
    const uint32_t awaited = kEventRegister | kEventSecond | kEventMsg;
    if (KEL_EventRead(awaited, &received, kKelEventAny, KEL_WAIT_FOREVER) != 0) continue;
    if ((received & kEventRegister) != 0) Register();
    if ((received & kEventSecond) != 0) ProcessSecond();
    if ((received & kEventMsg) != 0) DrainQueue();
  }
}

void CFeatureFaultManager::ProcessSecond() {
  for (const std::atomic<FaultTimer1sFunc>& slot : g_timerSlots) {
    if (const FaultTimer1sFunc callback = slot.load(); callback != nullptr) (void)callback();
  }
  if (quietSeconds_ != 0) {
    --quietSeconds_;
  } else if (isRegistered_ == 0) {
    Register();
  }
  (void)TOLA_SendThreadHeartBeat();  // the heart-beat manager logs a task that it does not know
}

void CFeatureFaultManager::Register() {
  // Whether it arrives or not, it is sent again every second until it is acknowledged. But one that waits
  // because nobody reads at the other end does so for five seconds, in which no one-second call runs.
  const uint64_t begin = KEL_ClockMonotonicNs();
  const bool isTaken = FeatureFaultMgrReg(moduleId_, getpid()) == 0;
  const bool hasWaited = KEL_ClockMonotonicNs() - begin >= uint64_t{kSecondMs} * 1'000'000u;
  quietSeconds_ = !isTaken && hasWaited ? kQuietSeconds : 0;
}

void CFeatureFaultManager::DrainQueue() {
  tagMsgBuf* msg = nullptr;
  while (TOLA_MsgRecv(moduleId_, &msg, 0) == 0) {
    ProcessMsg(*msg);
    TOLA_MsgFree(msg);
  }
}

void CFeatureFaultManager::ProcessMsg(const tagMsgBuf& msg) {
  if (msg.type == kMsgRegister) {
    isRegistered_ = 1;
    return;
  }
  if (msg.type == kMsgRegisterAgain) {
    isRegistered_ = 0;
    Register();
    return;
  }
  uint32_t result = kFailure;
  // Debug requests change what the process prints and writes: the platform's fault manager alone asks them.
  if (msg.type == kMsgDebug && msg.source == kFaultManagerModule) {
    result = FaultDebugRequest(TolaMsgData(&msg), GetTolaMsgLen(&msg));
  }
  if (result != 0) {
    LOG_ERR(kLogModule, "%d->%d Ty:%#x Err:%#x", msg.source, msg.destination, msg.type, result);
  }
  if (msg.source == moduleId_ || IsRefusal(msg)) return;
  const auto answer = static_cast<uint16_t>(result);
  (void)SendSimpleFormatMsg(msg.destination, msg.source, msg.type, msg.subType, sizeof(answer),
                            &answer);  // a reply that nobody takes is logged by the message manager
}
