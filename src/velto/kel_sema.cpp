/// Counting semaphores: a futex word that is the count, and a note of how many sleep on it.
#include "velto/kel_sync.h"
#include "velto/kel_table.h"
#include "velto/kel_task.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kCountMax = 0x7FFFFFFF;
/// Looks before a task sleeps: who holds a semaphore for the length of a system call gives it back sooner
/// than a sleep and its wake-up take. The last ones give the processor away, to a holder that may need it.
constexpr uint32_t kSpinTurns = 100;

struct Semaphore {
  std::atomic<uint32_t> count;
  std::atomic<uint32_t> sleepers;
};

constinit IdTable<Semaphore, 256> gSemaphores;

bool TryTake(Semaphore& semaphore) {
  uint32_t count = semaphore.count.load(std::memory_order_relaxed);
  while (count > 0) {
    if (semaphore.count.compare_exchange_weak(count, count - 1, std::memory_order_acquire)) return true;
  }
  return false;
}

/// Whether the semaphore became free within a moment.
bool TakeSoon(Semaphore& semaphore) {
  for (uint32_t turn = 0; turn < kSpinTurns; ++turn) {
    WaitBriefly(turn);
    if (semaphore.count.load(std::memory_order_relaxed) > 0 && TryTake(semaphore)) return true;
  }
  return false;
}

}  // namespace
}  // namespace velto

using velto::gSemaphores;
using velto::Semaphore;

uint32_t KEL_SemaCreate(const char* name, uint32_t count, uint32_t mode, uint32_t* semaId) {
  if (!velto::NameFits(name) || semaId == nullptr || mode != 0 || count > velto::kCountMax)
    return kKelErrSyncPara;
  const uint32_t id = gSemaphores.Claim(name);
  if (id == 0) return kKelErrSyncFull;
  Semaphore& semaphore = gSemaphores.At(id);
  semaphore.count.store(count);
  semaphore.sleepers.store(0);
  gSemaphores.Publish(id);
  *semaId = id;
  return 0;
}

uint32_t KEL_SemaDelete(uint32_t semaId) {
  if (!gSemaphores.Retire(semaId)) return kKelErrSyncId;
  gSemaphores.Free(semaId);
  return 0;
}

uint32_t KEL_SemaP(uint32_t semaId, uint32_t timeoutMs) {
  Semaphore* semaphore = gSemaphores.Find(semaId);
  if (semaphore == nullptr) return kKelErrSyncId;
  if (velto::TryTake(*semaphore)) return 0;
  if (timeoutMs == 0) return kKelErrTimeout;
  if (velto::TakeSoon(*semaphore)) return 0;
  const velto::Deadline deadline(timeoutMs);
  for (;;) {
    // The count is looked at after this thread is noted, and given before the note is read: one of the two
    // sees the other.
    semaphore->sleepers.fetch_add(1);
    velto::WordWait(semaphore->count, 0, deadline);
    semaphore->sleepers.fetch_sub(1);
    if (velto::TryTake(*semaphore)) return 0;
    if (deadline.Passed()) return kKelErrTimeout;
  }
}

uint32_t KEL_SemaV(uint32_t semaId) {
  Semaphore* semaphore = gSemaphores.Find(semaId);
  if (semaphore == nullptr) return kKelErrSyncId;
  uint32_t count = semaphore->count.load();
  do {
    if (count >= velto::kCountMax) return kKelErrSyncOver;
  } while (!semaphore->count.compare_exchange_weak(count, count + 1));
  if (semaphore->sleepers.load() != 0) velto::WordWake(semaphore->count, 1);
  return 0;
}
