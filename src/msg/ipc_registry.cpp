#include "msg/ipc_registry.h"

#include "base/result_codes.h"
#include "log/run_log.h"
#include "velto/kel_sync.h"

namespace {

constexpr uint16_t kLogModule = 0;

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
  *toMain = index >= kIpcAppMax || table_.apps[index].pid == 0;
  if (*toMain) return kSuccess;
  if (index == table_.ownIndex) return kIpcErrLocal;
  const APP_QUEUE_INFO_S& app = table_.apps[index];
  *target = {static_cast<int32_t>(app.queueId), app.semaphoreId, app.pid};
  return kSuccess;
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
    const bool differs = operation == kIpcModuleAdded ? local_[place] && index >= kIpcAppMax
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

uint32_t IpcRegistry::TakeAcknowledge(const IpcAcknowledgeMsg& acknowledge) {
  if (!IsAbout(acknowledge)) {
    ForgetMain();
    return kFailure;
  }
  const TableGuard guard(sema_);
  if (!guard) return kIpcErrTableTake;
  table_ = acknowledge;
  known_ = true;
  mainPid_.store(acknowledge.mainPid, std::memory_order_relaxed);
  return kSuccess;
}
