/// Reader-writer locks on a state word. Whoever cannot get in sleeps on a second word that every change in
/// favour of sleepers moves on.
#include "velto/kel_sync.h"
#include "velto/kel_table.h"
#include "velto/kel_task.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kWriter = 0x80000000;  // the other bits count readers

struct RwLock {
  std::atomic<uint32_t> state;
  std::atomic<uint32_t> writersWaiting;
  std::atomic<uint32_t> sleepers;
  std::atomic<uint32_t> turn;

  bool TryRead() {
    uint32_t seen = state.load();
    while ((seen & kWriter) == 0 && writersWaiting.load() == 0) {
      if (state.compare_exchange_weak(seen, seen + 1)) return true;
    }
    return false;
  }

  bool TryWrite() {
    uint32_t nobody = 0;
    return state.compare_exchange_strong(nobody, kWriter);
  }

  /// Called after each change that may let somebody in.
  void LetSleepersLook() {
    if (sleepers.load() == 0) return;
    turn.fetch_add(1);
    WordWake(turn, kWakeAll);
  }
};

constinit IdTable<RwLock, 128> gLocks;

uint32_t Acquire(RwLock& lock, bool (RwLock::*attempt)(), uint32_t timeoutMs) {
  if ((lock.*attempt)()) return 0;
  if (timeoutMs == 0) return kKelErrTimeout;
  const Deadline deadline(timeoutMs);
  for (;;) {
    const uint32_t turn = lock.turn.load();
    lock.sleepers.fetch_add(1);
    bool in = (lock.*attempt)();  // after the note: who unlocks now sees it
    if (!in) {
      WordWait(lock.turn, turn, deadline);
      in = (lock.*attempt)();
    }
    lock.sleepers.fetch_sub(1);
    if (in) return 0;
    if (deadline.Passed()) return kKelErrTimeout;
  }
}

}  // namespace
}  // namespace velto

using velto::gLocks;
using velto::kWriter;
using velto::RwLock;

uint32_t KEL_RWLockCreate(const char* name, uint32_t* lockId) {
  if (!velto::NameFits(name) || lockId == nullptr) return kKelErrSyncPara;
  const uint32_t id = gLocks.Claim(name);
  if (id == 0) return kKelErrSyncFull;
  RwLock& lock = gLocks.At(id);
  lock.state.store(0);
  lock.writersWaiting.store(0);
  lock.sleepers.store(0);
  gLocks.Publish(id);
  *lockId = id;
  return 0;
}

uint32_t KEL_RWLockDelete(uint32_t lockId) {
  if (!gLocks.Retire(lockId)) return kKelErrSyncId;
  gLocks.Free(lockId);
  return 0;
}

uint32_t KEL_RWLockRLock(uint32_t lockId, uint32_t timeoutMs) {
  RwLock* lock = gLocks.Find(lockId);
  return lock != nullptr ? velto::Acquire(*lock, &RwLock::TryRead, timeoutMs) : kKelErrSyncId;
}

uint32_t KEL_RWLockRUnlock(uint32_t lockId) {
  RwLock* lock = gLocks.Find(lockId);
  if (lock == nullptr) return kKelErrSyncId;
  uint32_t seen = lock->state.load();
  do {
    if ((seen & ~kWriter) == 0) return kKelErrSyncHeld;
  } while (!lock->state.compare_exchange_weak(seen, seen - 1));
  if (seen == 1) lock->LetSleepersLook();
  return 0;
}

uint32_t KEL_RWLockWLock(uint32_t lockId, uint32_t timeoutMs) {
  RwLock* lock = gLocks.Find(lockId);
  if (lock == nullptr) return kKelErrSyncId;
  if (lock->TryWrite()) return 0;
  if (timeoutMs == 0) return kKelErrTimeout;
  lock->writersWaiting.fetch_add(1);
  const uint32_t result = velto::Acquire(*lock, &RwLock::TryWrite, timeoutMs);
  lock->writersWaiting.fetch_sub(1);
  if (result != 0) lock->LetSleepersLook();  // readers may have waited for this writer alone
  return result;
}

uint32_t KEL_RWLockWUnlock(uint32_t lockId) {
  RwLock* lock = gLocks.Find(lockId);
  if (lock == nullptr) return kKelErrSyncId;
  uint32_t held = kWriter;
  if (!lock->state.compare_exchange_strong(held, 0)) return kKelErrSyncHeld;
  lock->LetSleepersLook();
  return 0;
}
