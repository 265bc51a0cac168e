/// The table of managers by task, the loop of a manager's task, and its event bits.
#include "msg/task_manager.h"

#include <string.h>

#include <algorithm>
#include <bit>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/heart_beat_manager.h"
#include "velto/kel_clock.h"
#include "velto/kel_mem.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kAllEvents = 0xFFFFFFFF;
constexpr uint32_t kFirstApplied = 0x2;  // 0x1 is never handed out
constexpr uint32_t kSlowCallbackMs = 5000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint32_t kMsPerS = 1000;

struct TaskOwner {
  uint32_t taskId;
  CTaskManager* manager;
};

std::mutex
    g_mapLock;  ///< guards the two below; held while a task is made, so that it finds itself in the map
TaskOwner* g_map = nullptr;  ///< one entry for each task; tasks never end
uint32_t g_mapCount = 0;

/// Makes room for one entry more behind the `g_mapCount` there are.
uint32_t GrowMap() {
  uint32_t handle = 0;
  if (KEL_HandleInitialize("public_handle", &handle) != 0) return kTaskManagerErrMap;
  auto* grown = static_cast<TaskOwner*>(
      KEL_MEM_ALLOC(handle, static_cast<uint32_t>(sizeof(TaskOwner) * (g_mapCount + 1))));
  if (grown == nullptr) return kTaskManagerErrMap;
  std::copy_n(g_map, g_mapCount, grown);
  KEL_MEM_FREE(g_map);
  g_map = grown;
  return kSuccess;
}

bool NameFits(const char* name) {
  if (name == nullptr) return false;
  const size_t length = strnlen(name, kTaskManagerNameMax + 1);
  return length != 0 && length <= kTaskManagerNameMax;
}

uint32_t WaitMs(uint32_t periodS) {
  if (periodS == 0) return KEL_WAIT_FOREVER;
  return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{periodS} * kMsPerS, KEL_WAIT_FOREVER - 1));
}

}  // namespace

uint32_t CTaskManager::GetTaskManagerInstanceById(uint32_t taskId, CTaskManager** manager) {
  if (manager == nullptr) return kFailure;
  *manager = nullptr;
  const std::lock_guard lock(g_mapLock);
  for (uint32_t i = 0; i < g_mapCount; ++i) {
    if (g_map[i].taskId == taskId) *manager = g_map[i].manager;
  }
  return *manager != nullptr ? kSuccess : kFailure;
}

uint32_t CTaskManager::Init(const RegToTaskManagerModuleInfo* info) {
  if (info == nullptr || !NameFits(info->name)) return kFailure;
  if (info->owner != nullptr && info->owner != this) return kFailure;
  const std::lock_guard mapLock(g_mapLock);
  if (TaskId() != kTaskManagerNoTask) return kFailure;
  // Room first: a task that could not be entered could not be taken back either.
  if (const uint32_t ret = GrowMap(); ret != kSuccess) return ret;
  heartBeatTimeoutS_ = info->heartBeatTimeoutS;
  waitPeriodS_ = info->waitPeriodS;
  ready_ = info->ready;
  {
    const std::lock_guard lock(lock_);
    used_ |= info->usedEvents;
  }
  const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(this), info->argument, 0, 0};
  uint32_t taskId = 0;
  const uint32_t err =
      KEL_TaskCreate(info->name, &taskId, TaskEntry, info->priority, info->stackSize, 0, args);
  if (err != 0) {
    LOG_ERR(kLogModule, "%s task create err %#x", info->name, err);
    return kTaskManagerErrCreate;
  }
  g_map[g_mapCount++] = {taskId, this};
  taskId_.store(taskId, std::memory_order_release);
  return kSuccess;
}

void CTaskManager::TaskEntry(uintptr_t manager, uintptr_t /*argument*/, uintptr_t, uintptr_t) {
  reinterpret_cast<CTaskManager*>(manager)->RunTask();
}

void CTaskManager::RunTask() {
  Supervision supervision = Supervise();
  uint32_t pending = 0;
  for (;;) {
    uint32_t received = 0;
    (void)KEL_EventRead(kAllEvents, &received, kKelEventAny, WaitMs(waitPeriodS_));  // 0 when time ended it
    pending |= received;
    if (ready_ == nullptr || ready_->load(std::memory_order_acquire) == 1) {
      ProcessEvents(pending);
      pending = 0;
    }
    if (supervision == Supervision::kOn) {
      (void)TOLA_SendThreadHeartBeat();  // a registered task's beat does not fail
    } else if (supervision == Supervision::kWanted) {
      supervision = Supervise();
    }
  }
}

CTaskManager::Supervision CTaskManager::Supervise() const {
  if (waitPeriodS_ == 0 || heartBeatTimeoutS_ <= waitPeriodS_) return Supervision::kNone;
  const uint32_t ret = TOLA_RegThreadHeartBeat(heartBeatTimeoutS_, 0);
  if (ret == kSuccess) return Supervision::kOn;
  return ret == kHeartErrNotInit ? Supervision::kWanted : Supervision::kNone;
}

CTaskManager::EventFunc CTaskManager::Bound(uint32_t bit) {
  const std::lock_guard lock(lock_);
  return events_[bit];
}

void CTaskManager::ProcessEvents(uint32_t pending) {
  for (uint32_t bit = 0; bit < kTaskManagerEvents; ++bit) {
    const uint32_t event = 1u << bit;
    if ((pending & event) == 0) continue;
    const EventFunc bound = Bound(bit);
    if (bound.callback == nullptr) continue;
    const uint64_t start = KEL_ClockMonotonicNs();
    (void)bound.callback(event, bound.argument);  // the loop goes on whatever it says
    const auto tookMs = static_cast<uint32_t>((KEL_ClockMonotonicNs() - start) / kNsPerMs);
    if (tookMs >= kSlowCallbackMs) {
      LOG_EVT(kLogModule, "mcl task time out event = 0x%x, difftime = 0x%x", event, tookMs);
    }
  }
}

uint32_t CTaskManager::RegEventFuncToTask(uint32_t eventBit, TaskEventFunc callback, void* argument) {
  if (callback == nullptr || !std::has_single_bit(eventBit)) return kFailure;
  const std::lock_guard lock(lock_);
  EventFunc& slot = events_[std::countr_zero(eventBit)];
  if (slot.callback != nullptr) {
    LOG_ERR(kLogModule, "repeat registration %#x used %#x", eventBit, used_);
    return kFailure;
  }
  slot = {callback, argument};
  used_ |= eventBit;
  return kSuccess;
}

uint32_t CTaskManager::UnregEventFuncToTask(uint32_t eventBit) {
  if (!std::has_single_bit(eventBit)) return kFailure;
  const std::lock_guard lock(lock_);
  events_[std::countr_zero(eventBit)] = {};
  Release(eventBit);
  return kSuccess;
}

uint32_t CTaskManager::ApplyTaskEvent(uint32_t& eventBit) {
  const std::lock_guard lock(lock_);
  for (uint32_t event = kFirstApplied; event != 0; event <<= 1) {
    if ((used_ & event) != 0) continue;
    used_ |= event;
    eventBit = event;
    LOG_EVT(kLogModule, "apply event %#x used %#x", event, used_);
    return kSuccess;
  }
  return kFailure;
}

uint32_t CTaskManager::ReleaseTaskEvent(uint32_t eventBit) {
  if (!std::has_single_bit(eventBit)) return kFailure;
  const std::lock_guard lock(lock_);
  Release(eventBit);
  return kSuccess;
}

void CTaskManager::Release(uint32_t eventBit) {
  used_ &= ~eventBit;
  LOG_EVT(kLogModule, "release event %#x used %#x", eventBit, used_);
}
