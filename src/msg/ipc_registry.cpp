#include "msg/ipc_registry.h"

#include <errno.h>
#include <signal.h>

#include <algorithm>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "velto/kel_clock.h"
#include "velto/kel_sync.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint64_t kBeforeNs = 30'000'000'000;  ///< a process that has not registered again by then is gone

/// Holds the semaphore; false when it could not be taken.
class TableGuard {
 public:
  explicit TableGuard(uint32_t sema) : sema_(sema), held_(KEL_SemaP(sema, KEL_WAIT_FOREVER) == 0) {}
  ~TableGuard() {
    if (held_) (void)KEL_SemaV(sema_);  // fails only for a semaphore that is gone
  }
  TableGuard(const TableGuard&) = delete;
  TableGuard& operator=(const TableGuard&) = delete;
  [[nodiscard]] explicit operator bool() const { return held_; }

 private:
  uint32_t sema_;
  bool held_;
};

/// The module id that has `place` in the map.
uint16_t ModuleAt(uint32_t place) {
  return static_cast<uint16_t>(place < kIpcIdPlatformEnd ? place
                                                         : place - kIpcIdPlatformEnd + kIpcIdCompFirst);
}

}  // namespace

uint32_t IpcRegistry::Init(const IpcTarget& app) {
  app_ = app;
  if (sema_ != 0) return kSuccess;
  const uint32_t err = KEL_SemaCreate("FEATURE_IPC_SEMA", 1, 0, &sema_);
  if (err == 0) return kSuccess;
  sema_ = 0;
  LOG_ERR(kLogModule, "app:%d sema err:%#x", static_cast<int>(app.pid), err);
  return kIpcErrTableSema;
}

uint32_t IpcRegistry::Find(uint16_t moduleId, IpcTarget* target, bool* toMain) {
  const uint32_t place = IpcMapPlace(moduleId);
  if (place == kIpcNoPlace) return kIpcErrModule;
  const TableGuard guard(sema_);
  if (!guard) return kIpcErrTableTake;
  if (local_[place]) return kIpcErrLocal;
  const uint8_t index = known_ ? table_.map[place] : kIpcNoApp;
  const bool isKnown = index < kIpcAppMax && table_.apps[index].pid != 0;
  if (isKnown && index == table_.ownIndex) return kIpcErrLocal;
  const APP_QUEUE_INFO_S* app = isKnown ? &table_.apps[index] : HolderBefore(place);
  *toMain = app == nullptr;
  if (app != nullptr) *target = {static_cast<int32_t>(app->queueId), app->semaphoreId, app->pid};
  return kSuccess;
}

/// The application that had `place` before the main process was restarted, as long as it has not registered
/// again; null when there is none.
const APP_QUEUE_INFO_S* IpcRegistry::HolderBefore(uint32_t place) const {
  if (beforeUntilNs_ == 0 || KEL_ClockMonotonicNs() >= beforeUntilNs_) return nullptr;
  const uint8_t index = before_.map[place];
  if (index >= kIpcAppMax || index == before_.ownIndex) return nullptr;
  const APP_QUEUE_INFO_S& app = before_.apps[index];
  const auto isApp = [&app](const APP_QUEUE_INFO_S& each) { return each.pid == app.pid; };
  const bool isBack = std::any_of(std::begin(table_.apps), std::end(table_.apps), isApp);
  if (app.pid == 0 || (kill(static_cast<pid_t>(app.pid), 0) != 0 && errno == ESRCH)) return nullptr;
  IpcQueueState state = {};
  const bool reads =
      IpcQueueStateGet(static_cast<int32_t>(app.queueId), &state) == 0 && state.reader == app.pid;
  return reads && !isBack ? &app : nullptr;
}

uint32_t IpcRegistry::NoteLocal(uint16_t operation, uint32_t count, const uint16_t* ids) {
  const TableGuard guard(sema_);
  if (!guard) return kIpcErrTableTake;
  uint32_t ret = kSuccess;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t place = IpcMapPlace(ids[i]);
    if (place == kIpcNoPlace) {
      ret = kIpcErrModule;
    } else {
      local_[place] = operation == kIpcModuleAdded;
    }
  }
  return ret;
}

uint32_t IpcRegistry::LocalModules(uint16_t* ids, uint32_t max) {
  const TableGuard guard(sema_);
  if (!guard) return 0;
  uint32_t count = 0;
  for (uint32_t place = 0; place < kIpcMapSize && count < max; ++place) {
    if (local_[place]) ids[count++] = ModuleAt(place);
  }
  return count;
}

uint32_t IpcRegistry::Differences(uint16_t operation, uint16_t* ids, uint32_t max) {
  const TableGuard guard(sema_);
  if (!guard || !known_) return 0;
  uint32_t count = 0;
  for (uint32_t place = 0; place < kIpcMapSize && count < max; ++place) {
    const uint8_t index = table_.map[place];
    const bool differs = operation == kIpcModuleAdded ? local_[place] && index == kIpcNoApp
                                                      : !local_[place] && index == table_.ownIndex;
    if (differs) ids[count++] = ModuleAt(place);
  }
  return count;
}

bool IpcRegistry::IsAbout(const IpcAcknowledgeMsg& acknowledge) const {
  if (acknowledge.version != kIpcMainMsgVersion || acknowledge.result != 0) return false;
  if (acknowledge.ownIndex >= kIpcAppMax || acknowledge.mainPid == 0) return false;
  const APP_QUEUE_INFO_S& own = acknowledge.apps[acknowledge.ownIndex];
  return own.pid == app_.pid && own.queueId == static_cast<uint32_t>(app_.queueId);
}

/// Keeps what is known now, for the time in which a new main process learns it. One that was replaced before
/// it had learned everything leaves a table with gaps: what came before it fills them.
void IpcRegistry::KeepBefore() {
  IpcAcknowledgeMsg merged = table_;
  for (uint32_t place = 0; place < kIpcMapSize; ++place) {
    const APP_QUEUE_INFO_S* app = merged.map[place] >= kIpcAppMax ? HolderBefore(place) : nullptr;
    if (app == nullptr) continue;
    const auto isOfApp = [app](const APP_QUEUE_INFO_S& each) { return each.pid == app->pid; };
    const auto isFree = [](const APP_QUEUE_INFO_S& each) { return each.pid == 0; };
    auto* slot = std::find_if(std::begin(merged.apps), std::end(merged.apps), isOfApp);
    if (slot == std::end(merged.apps)) slot = std::find_if(std::begin(merged.apps), slot, isFree);
    if (slot == std::end(merged.apps)) continue;
    *slot = *app;
    merged.map[place] = static_cast<uint8_t>(slot - std::begin(merged.apps));
  }
  before_ = merged;
  beforeUntilNs_ = KEL_ClockMonotonicNs() + kBeforeNs;
}

void IpcRegistry::ForgetMain() {
  const uint32_t former = mainPid_.exchange(0, std::memory_order_relaxed);
  if (former == 0) return;
  formerMainPid_ = former;
  formerUntilNs_ = KEL_ClockMonotonicNs() + kBeforeNs;
}

bool IpcRegistry::PassesOn(uint32_t pid) const {
  return pid == mainPid() || (pid == formerMainPid_ && KEL_ClockMonotonicNs() < formerUntilNs_);
}

uint32_t IpcRegistry::TakeAcknowledge(const IpcAcknowledgeMsg& acknowledge) {
  if (!IsAbout(acknowledge)) {
    ForgetMain();
    return kFailure;
  }
  const TableGuard guard(sema_);
  if (!guard) return kIpcErrTableTake;
  if (known_ && table_.mainPid != acknowledge.mainPid) KeepBefore();
  if (mainPid() != acknowledge.mainPid) ForgetMain();
  table_ = acknowledge;
  known_ = true;
  mainPid_.store(acknowledge.mainPid, std::memory_order_relaxed);
  return kSuccess;
}
