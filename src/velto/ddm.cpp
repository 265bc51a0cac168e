/// The locks' state in one mapping that forked processes share. Who cannot get in looks again every few
/// milliseconds: nobody here waits for long, and a holder that died leaves no wake-up behind.
#include "velto/ddm.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>

#include "velto/kel_table.h"
#include "velto/kel_task.h"
#include "velto/kel_wait.h"
#include "velto/shared_lock.h"

namespace velto {
namespace {

constexpr uint32_t kLocks = 16;    // a group
constexpr uint32_t kHolders = 32;  // a lock
constexpr uint32_t kLookMs = 5;
constexpr uint32_t kShowMs = 100;

struct Holder {
  int32_t process;  // 0: a free place
  int32_t thread;
  uint32_t writes;
};

struct IpcLock {
  char name[kNameSize];
  bool used;
  Holder holders[kHolders];
};

struct Group {
  SharedLock lock;  // over all that follows
  IpcLock locks[kLocks];
};

struct Shared {
  Group groups[kDdmGroupCount];
};

std::mutex gMapLock;
std::atomic<Shared*> gShared{nullptr};  // never unmapped

Shared* MapOnce() {
  const std::lock_guard<std::mutex> guard(gMapLock);
  if (Shared* there = gShared.load()) return there;
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  auto* shared = new (memory) Shared{};
  for (Group& group : shared->groups) {
    if (!group.lock.Init()) {
      (void)munmap(memory, sizeof(Shared));
      return nullptr;
    }
  }
  gShared.store(shared);
  return shared;
}

/// Holds a group's lock while it lives. A holder that died in between leaves single words only half way.
class GroupGuard {
 public:
  explicit GroupGuard(Group& group) : group_(group), taken_(group.lock.Take()) {}
  GroupGuard(Group& group, uint32_t milliseconds)
      : group_(group), taken_(group.lock.TakeWithin(milliseconds)) {}
  ~GroupGuard() {
    if (ok()) group_.lock.Release();
  }
  GroupGuard(const GroupGuard&) = delete;
  GroupGuard& operator=(const GroupGuard&) = delete;
  [[nodiscard]] bool ok() const { return taken_ != SharedLock::Taken::kNo; }

 private:
  Group& group_;
  SharedLock::Taken taken_;
};

struct Found {
  Group* group = nullptr;
  IpcLock* lock = nullptr;
};

/// Ids count from 1 through all groups.
Found FindLock(uint32_t lockId) {
  Shared* shared = gShared.load();
  if (shared == nullptr || lockId == 0 || lockId > kDdmGroupCount * kLocks) return {};
  Group& group = shared->groups[(lockId - 1) / kLocks];
  return {&group, &group.locks[(lockId - 1) % kLocks]};
}

Holder Me(bool writes) {
  return {getpid(), static_cast<int32_t>(syscall(SYS_gettid)), writes};
}

/// Also of one that died before it had written its thread.
bool IsGone(const Holder& holder) {
  return syscall(SYS_tgkill, holder.process, holder.thread, 0) != 0 && errno != EPERM;
}

/// Takes the lock if it is free for that. Call with the group's lock held, which is given back in between.
uint32_t TryTake(IpcLock& lock, bool writes) {
  if (!lock.used) return kDdmErrPara;
  Holder* free = nullptr;
  bool taken = false;
  const bool full = std::ranges::none_of(lock.holders, [](const Holder& at) { return at.process == 0; });
  for (Holder& holder : lock.holders) {
    // To ask costs a system call: only after who is in the way.
    if (holder.process != 0 && (full || writes || holder.writes != 0) && IsGone(holder)) holder = {};
    if (holder.process == 0) {
      if (free == nullptr) free = &holder;
    } else if (writes || holder.writes != 0) {
      taken = true;
    }
  }
  if (taken) return kKelErrTimeout;
  if (free == nullptr) return kDdmErrFull;
  *free = Me(writes);
  return 0;
}

uint32_t Take(uint32_t lockId, bool writes, uint32_t timeoutMs) {
  const Found found = FindLock(lockId);
  if (found.lock == nullptr) return kDdmErrPara;
  const Deadline deadline(timeoutMs);
  for (;;) {
    {
      const GroupGuard guard(*found.group);
      if (!guard.ok()) return kDdmErrMap;
      const uint32_t result = TryTake(*found.lock, writes);
      if (result != kKelErrTimeout || timeoutMs == 0 || deadline.Passed()) return result;
    }
    (void)poll(nullptr, 0, kLookMs);  // another process holds it: no matter for the runtime's clock
  }
}

uint32_t Give(uint32_t lockId, bool writes) {
  const Found found = FindLock(lockId);
  if (found.lock == nullptr) return kDdmErrPara;
  const Holder me = Me(writes);
  const GroupGuard guard(*found.group);
  if (!guard.ok()) return kDdmErrMap;
  for (Holder& holder : found.lock->holders) {
    if (memcmp(&holder, &me, sizeof(me)) != 0) continue;
    holder = {};
    return 0;
  }
  return kDdmErrHeld;
}

}  // namespace
}  // namespace velto

uint32_t DDM_IpcRwLockCreate(uint32_t group, const char* name, uint32_t* lockId) {
  if (group >= kDdmGroupCount || !velto::NameFits(name) || lockId == nullptr) return kDdmErrPara;
  velto::Shared* shared = velto::MapOnce();
  if (shared == nullptr) return kDdmErrMap;
  const velto::GroupGuard guard(shared->groups[group]);
  if (!guard.ok()) return kDdmErrMap;
  for (uint32_t i = 0; i < velto::kLocks; ++i) {
    velto::IpcLock& lock = shared->groups[group].locks[i];
    if (lock.used && strcmp(lock.name, name) != 0) continue;
    memcpy(lock.name, name, strlen(name) + 1);
    lock.used = true;
    *lockId = group * velto::kLocks + i + 1;
    return 0;
  }
  return kDdmErrFull;
}

uint32_t DDM_IpcRwLockRLock(uint32_t lockId, uint32_t timeoutMs) {
  return velto::Take(lockId, false, timeoutMs);
}

uint32_t DDM_IpcRwLockRUnlock(uint32_t lockId) {
  return velto::Give(lockId, false);
}

uint32_t DDM_IpcRwLockWLock(uint32_t lockId, uint32_t timeoutMs) {
  return velto::Take(lockId, true, timeoutMs);
}

uint32_t DDM_IpcRwLockWUnlock(uint32_t lockId) {
  return velto::Give(lockId, true);
}

void DDM_IpcRwLockShowInfo(uint32_t group) {
  velto::Shared* shared = velto::gShared.load();
  uint32_t held = 0;
  if (shared != nullptr && group < kDdmGroupCount) {
    const velto::GroupGuard guard(shared->groups[group], velto::kShowMs);
    if (!guard.ok()) {
      printf("ipc rwlock group %u: its state is held by a process that does not go on\n", group);
      (void)fflush(stdout);
      return;
    }
    for (const velto::IpcLock& lock : shared->groups[group].locks) {
      for (const velto::Holder& holder : lock.holders) {
        if (holder.process == 0) continue;
        printf("ipc rwlock group %u: %s %s by process %d, thread %d%s\n", group, lock.name,
               holder.writes != 0 ? "written" : "read", holder.process, holder.thread,
               velto::IsGone(holder) ? ", which ended" : "");
        ++held;
      }
    }
  }
  if (held == 0) printf("ipc rwlock group %u: none held\n", group);
  (void)fflush(stdout);
}
