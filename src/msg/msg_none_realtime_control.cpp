/// The modules under control with their counts, and the timer that wakes whoever has waited.
///
/// A post that finds the switch off touches nothing else; whether it is still on is looked at again under the
/// semaphore, so that the flush after switching off sees every count that was held back. Switching has a
/// mutex of its own: stopping the timer waits for a running flush, which takes the semaphore.
#include "msg/msg_none_realtime_control.h"

#include <atomic>
#include <map>
#include <mutex>
#include <new>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/msg_interface_public.h"
#include "msg/process_msg_manager.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kTimeUnitMs = 10;
constexpr uint32_t kIntervalMaxMs = 1000;

using PendingCounts = std::map<uint16_t, uint32_t>;

std::mutex g_controlMutex;  // guards registering and switching: the five that follow
bool g_registered = false;
uint32_t g_sema = 0;
uint32_t g_intervalMs = 0;
uint32_t g_timer = 0;
uint32_t g_msgCount = 0;  // fixed before the switch is first on

std::atomic<uint32_t> g_on{0};
PendingCounts g_pending;  // its keys are fixed before the switch is first on, its counts guarded by g_sema

/// Holds "MsgMgrNoneRealTime"; a semaphore that is there can be taken.
class PendingGuard {
 public:
  PendingGuard() { (void)KEL_SemaP(g_sema, KEL_WAIT_FOREVER); }
  ~PendingGuard() { (void)KEL_SemaV(g_sema); }
  PendingGuard(const PendingGuard&) = delete;
  PendingGuard& operator=(const PendingGuard&) = delete;
};

/// Takes the count of the first module from `moduleId` on that has one; false when there is none.
bool TakePendingFrom(uint32_t& moduleId) {
  if (moduleId > UINT16_MAX) return false;
  const PendingGuard guard;
  auto at = g_pending.lower_bound(static_cast<uint16_t>(moduleId));
  while (at != g_pending.end() && at->second == 0) ++at;
  if (at == g_pending.end()) return false;
  at->second = 0;
  moduleId = at->first;
  return true;
}

/// Writes the event of every module whose wake-up was held back.
void Flush(uintptr_t) {
  for (uint32_t moduleId = 0; TakePendingFrom(moduleId); ++moduleId) {
    MsgModuleBlock block{};
    if (TOLA_GetMsgBlock(static_cast<uint16_t>(moduleId), &block) != 0 || block.queueId == 0)
      continue;  // it left
    const uint32_t err = KEL_EventWrite(block.taskId, block.eventMask);
    if (err != 0) LOG_ERR(kLogModule, "NoneRealTimeMsgProcTimer fail:%u", err);
  }
}

/// Call with g_controlMutex held.
uint32_t SwitchOn() {
  if (g_on.load() != 0) return kSuccess;
  if (g_intervalMs != 0) {
    const uint32_t err = KEL_ReltmrCbkStart(g_intervalMs, kKelTimerRepeat, Flush, 0, &g_timer);
    LOG_AT_LEVEL(kLogModule, err == 0 ? kLogEvt : kLogErr, "timer start:%u, interval:%u", err, g_intervalMs);
    if (err != 0) return kFailure;
  }
  g_on.store(1);
  return kSuccess;
}

/// Call with g_controlMutex held.
uint32_t SwitchOff() {
  if (g_on.exchange(0) == 0) return kSuccess;
  const uint32_t err = g_intervalMs != 0 ? KEL_ReltmrStop(g_timer) : 0;
  if (err != 0) LOG_ERR(kLogModule, "KEL_ReltmrStop fail:%u", err);
  Flush(0);  // in any case: nobody else would write what was held back
  return err == 0 ? kSuccess : kFailure;
}

bool ParametersFit(uint32_t msgCount, uint32_t timeOut) {
  if (msgCount == 0 && timeOut == 0) {
    LOG_ERR(kLogModule, "NoneRealTimeMsgModuleInit fail: msgCount:%#x, timeOut:%#x", msgCount, timeOut);
    return false;
  }
  if (uint64_t{timeOut} * kTimeUnitMs > kIntervalMaxMs) {
    LOG_ERR(kLogModule, "NoneRealTimeMsgModuleInit fail: timeOut:%#x", timeOut);
    return false;
  }
  return true;
}

uint32_t MakePending(uint32_t count, const uint16_t* moduleIds, PendingCounts& pending) {
  if (moduleIds == nullptr && count != 0) return kFailure;
  try {
    for (uint32_t i = 0; i < count; ++i) {
      if (moduleIds[i] >= MsgMaxModule()) return kFailure;
      pending.emplace(moduleIds[i], 0);
    }
  } catch (const std::bad_alloc&) {
    return kFailure;
  }
  return kSuccess;
}

}  // namespace

uint32_t TOLA_NoneRealTimeMsgModuleRegist(uint32_t count, const uint16_t* moduleIds, uint32_t msgCount,
                                          uint32_t timeOut) {
  const std::lock_guard lock(g_controlMutex);
  if (g_registered) return kSuccess;
  if (!ParametersFit(msgCount, timeOut)) return kFailure;
  if (g_sema == 0 && KEL_SemaCreate("MsgMgrNoneRealTime", 1, 0, &g_sema) != 0) {
    g_sema = 0;
    return kMsgErrSema;
  }
  PendingCounts pending;
  if (MakePending(count, moduleIds, pending) != 0) return kFailure;
  g_pending.swap(pending);
  g_msgCount = msgCount;
  g_intervalMs = timeOut * kTimeUnitMs;
  g_registered = SwitchOn() == 0;
  return g_registered ? kSuccess : kFailure;
}

uint32_t TOLA_NoneRealTimeMsgFuncSwitch(uint32_t on) {
  const std::lock_guard lock(g_controlMutex);
  if (!g_registered) return kFailure;
  return on != 0 ? SwitchOn() : SwitchOff();
}

bool MsgNoneRealTimeHoldsBack(uint16_t moduleId) {
  if (g_on.load(std::memory_order_acquire) == 0) return false;
  const PendingGuard guard;
  const auto at = g_on.load() != 0 ? g_pending.find(moduleId) : g_pending.end();
  if (at == g_pending.end()) return false;
  ++at->second;
  if (g_msgCount == 0 || at->second < g_msgCount) return true;
  at->second = 0;
  return false;
}
