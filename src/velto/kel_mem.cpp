/// Tagged memory: small blocks from free lists, larger ones from the heap. A header in front of each
/// allocation holds tag, size and place, and whether it is live, so that a pointer that is given back is
/// recognised or refused without reading memory that may not be ours.
///
/// The headers of the heap's blocks stand in a hash table by address. Each chain of it is locked by the
/// lowest bit of its head, for a few instructions at a time. Links are stored inverted: they keep nothing
/// alive in the eyes of a leak checker, which then sees real leaks.
///
/// What is used is the reported sum and the drifts of the threads' caches, each at most kDriftMax to either
/// side. Far below the budget a thread looks at the sum alone; near it, and for large blocks, it reports at
/// once and adds the drifts up.
#include "velto/kel_mem.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>

#include "velto/kel_cfg_table.h"
#include "velto/kel_mem_cache.h"
#include "velto/kel_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

using Header = MemHeader;

constexpr uint32_t kHandleMax = 256;
char gHandleNames[kHandleMax][kNameSize];
std::atomic<uint32_t> gHandleCount{0};
std::mutex gHandleLock;  // writers of the two above; names are written once, before they are counted

constexpr int64_t kDriftMax = 8192;
constexpr int64_t kNearBudget = 2 * kMemCaches * kDriftMax;  // drifts, and what is on its way into the sum
std::atomic<int64_t> gReported{0};

constexpr uintptr_t kLocked = 1;

uintptr_t Hide(const Header* header) {
  return header != nullptr ? ~(reinterpret_cast<uintptr_t>(header) | kLocked) : 0;  // headers are even
}

Header* Show(uintptr_t link) {
  return link != 0 ? reinterpret_cast<Header*>(~link & ~kLocked) : nullptr;
}

Header* Next(const Header* header) {
  return Show(header->link.load(std::memory_order_relaxed));
}

/// A chain of headers, locked while the object lives.
class Chain {
 public:
  explicit Chain(std::atomic<uintptr_t>& head) : head_(head) {
    for (uint32_t turn = 0; ((first_ = head_.fetch_or(kLocked, std::memory_order_acquire)) & kLocked) != 0;
         ++turn) {
      WaitBriefly(turn);
    }
  }
  ~Chain() { head_.store(first_, std::memory_order_release); }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  [[nodiscard]] const Header* first() const { return Show(first_); }

  void Add(Header* header) {
    header->link.store(first_, std::memory_order_relaxed);
    first_ = Hide(header);
  }

  [[nodiscard]] bool Remove(const Header* header) {
    Header* before = nullptr;
    for (Header* at = Show(first_); at != nullptr; before = at, at = Next(at)) {
      if (at != header) continue;
      const uintptr_t rest = at->link.load(std::memory_order_relaxed);
      if (before != nullptr) {
        before->link.store(rest, std::memory_order_relaxed);
      } else {
        first_ = rest;
      }
      return true;
    }
    return false;
  }

 private:
  std::atomic<uintptr_t>& head_;
  uintptr_t first_ = 0;
};

constexpr size_t kChains = 4096;
std::atomic<uintptr_t> gChains[kChains];

std::atomic<uintptr_t>& ChainOf(const Header* header) {
  const uint64_t spread =
      static_cast<uint64_t>(reinterpret_cast<uintptr_t>(header) >> 4) * 0x9E3779B97F4A7C15U;
  return gChains[spread >> 52];
}

bool HandleIsKnown(uint32_t handle) {
  return handle != 0 && handle <= gHandleCount.load(std::memory_order_acquire);
}

int64_t Drifts() {
  int64_t sum = 0;
  for (const MemCache& cache : gMemCaches) sum += cache.drift.load(std::memory_order_acquire);
  return sum;
}

/// Counts `bytes` more, or less, as used.
inline void Account(MemCache* cache, int64_t bytes) {
  const int64_t drift =
      cache != nullptr ? cache->drift.load(std::memory_order_relaxed) + bytes : kDriftMax + 1;
  if (drift >= -kDriftMax && drift <= kDriftMax) {
    cache->drift.store(static_cast<int32_t>(drift), std::memory_order_relaxed);
    return;
  }
  gReported.fetch_add(bytes);
  if (cache != nullptr) MemReport(*cache);
}

/// Counts `size` as used when the budget allows it.
bool Charge(MemCache* cache, uint32_t size) {
  const auto budget = static_cast<int64_t>(CfgNumber(kCfgMemBudgetBytes));
  if (cache != nullptr && size <= kMemSmallMax &&
      gReported.load(std::memory_order_relaxed) + size + kNearBudget <= budget) {
    Account(cache, size);
    return true;
  }
  if (cache != nullptr) MemReport(*cache);
  // Charged only when it fits: a request that is refused is never seen by another thread. A drift that moves
  // into the sum meanwhile makes the exchange fail.
  int64_t used = gReported.load();
  do {
    if (used + size + kNearBudget > budget && used + size + Drifts() > budget) return false;
  } while (!gReported.compare_exchange_weak(used, used + size));
  return true;
}

[[noreturn]] void Die(const void* memory, const char* what, const char* file, uint32_t line) {
  (void)fprintf(stderr, "%s:%u: memory %p given back: %s\n", file != nullptr ? file : "?", line, memory,
                what);
  abort();
}

/// A block of the heap, in no chain yet, or null.
Header* NewOnHeap(uint32_t size) {
  const uint64_t whole = uint64_t{size} + sizeof(Header);
  void* memory = whole <= SIZE_MAX ? malloc(static_cast<size_t>(whole)) : nullptr;
  return memory != nullptr ? new (memory) Header{} : nullptr;
}

inline void Fill(Header* header, uint32_t handle, uint32_t size, const char* file, uint32_t line) {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  const uint32_t tag = header->tag.load(kRelaxed);
  header->tag.store(
      (handle << kMemHandleShift) | (tag & (kMemUsesMask << kMemClassShift)) | ((tag + 1) & kMemUsesMask),
      kRelaxed);
  header->file.store(file, std::memory_order_release);  // after the tag: see Visit
  header->size.store(size, kRelaxed);
  header->line.store(line, kRelaxed);
  header->state.store(MemState(kMemLive, header), std::memory_order_release);
}

/// Takes a block of the heap out of its chain, or ends the process.
void Unchain(Header* header, const char* file, uint32_t line) {
  if (!Chain(ChainOf(header)).Remove(header)) {
    Die(header + 1, "it is not live tagged memory, or was given back before", file, line);
  }
  if (header->state.load(std::memory_order_relaxed) != MemState(kMemLive, header))
    Die(header + 1, "the bytes in front of it were overwritten", file, line);
}

/// Marks a block of the region free, or ends the process. Two threads that give it back in the same instant
/// are found out when it is taken the second time.
void MarkFree(Header* header, const char* file, uint32_t line) {
  const uint32_t state = header->state.load(std::memory_order_relaxed);
  if (state != MemState(kMemLive, header)) {
    const bool broken = MemIsBlock(header) && state != MemState(kMemFree, header);
    Die(header + 1,
        broken ? "the bytes in front of it were overwritten"
               : "it is not live tagged memory, or was given back before",
        file, line);
  }
  header->state.store(MemState(kMemFree, header), std::memory_order_relaxed);
}

struct Visitor {
  void (*visit)(const KelMemLive* live, uintptr_t arg);
  uintptr_t arg;
};

void Visit(const Header* header, uintptr_t arg) {
  const auto* visitor = reinterpret_cast<const Visitor*>(arg);
  constexpr auto kAcquire = std::memory_order_acquire;
  const uint32_t tag = header->tag.load(kAcquire);
  if (header->state.load(kAcquire) != MemState(kMemLive, header)) return;
  const uint32_t handle = tag >> kMemHandleShift;
  const KelMemLive live{HandleIsKnown(handle) ? gHandleNames[handle - 1] : "?", header->size.load(kAcquire),
                        header->file.load(kAcquire), header->line.load(kAcquire)};
  // Else it was given back meanwhile, and its file may not have been a name, or it changed hands.
  if (header->state.load(kAcquire) == MemState(kMemLive, header) && header->tag.load(kAcquire) == tag)
    visitor->visit(&live, visitor->arg);
}

}  // namespace

void MemReport(MemCache& cache) {
  const int32_t drift = cache.drift.load(std::memory_order_relaxed);
  if (drift == 0) return;
  // What is read between the two is too much rather than too little.
  if (drift > 0) gReported.fetch_add(drift);
  cache.drift.store(0);
  if (drift < 0) gReported.fetch_add(drift);
}

}  // namespace velto

using velto::MemCache;
using velto::MemHeader;

uint32_t KEL_HandleInitialize(const char* name, uint32_t* handle) {
  if (!velto::NameFits(name) || handle == nullptr) return kKelErrMemPara;
  const std::lock_guard<std::mutex> guard(velto::gHandleLock);
  const uint32_t count = velto::gHandleCount.load();
  uint32_t index = 0;
  while (index < count && strcmp(velto::gHandleNames[index], name) != 0) ++index;
  if (index == velto::kHandleMax) return kKelErrMemFull;
  if (index == count) {
    memcpy(velto::gHandleNames[index], name, strlen(name) + 1);
    velto::gHandleCount.store(count + 1);
  }
  *handle = index + 1;
  return 0;
}

void* KEL_MemAlloc_F(uint32_t handle, uint32_t partition, uint32_t size, const char* file, uint32_t line) {
  if (partition != 0 || !velto::HandleIsKnown(handle)) return nullptr;
  MemCache* cache = velto::MemCacheOfThread();
  if (!velto::Charge(cache, size)) return nullptr;
  MemHeader* header = nullptr;
  if (cache != nullptr && size <= velto::kMemSmallMax)
    header = velto::MemTake(*cache, velto::MemClassOf(size));
  if (header != nullptr) {
    if (header->state.load(std::memory_order_relaxed) != velto::MemState(velto::kMemFree, header)) {
      velto::Die(header + 1, "twice, or written to afterwards; found when it was taken again", file, line);
    }
    velto::Fill(header, handle, size, file, line);
    return header + 1;
  }
  header = velto::NewOnHeap(size);
  if (header == nullptr) {
    velto::Account(cache, -int64_t{size});
    return nullptr;
  }
  velto::Fill(header, handle, size, file, line);
  velto::Chain(velto::ChainOf(header)).Add(header);
  return header + 1;
}

void KEL_MemFree_F(void* memory, const char* file, uint32_t line) {
  if (memory == nullptr) return;
  // The address is only compared, and read once it is known to be ours.
  auto* header = reinterpret_cast<MemHeader*>(reinterpret_cast<uintptr_t>(memory) - sizeof(MemHeader));
  MemCache* cache = velto::MemCacheOfThread();
  if (velto::MemInRegion(header)) {
    velto::MarkFree(header, file, line);
    velto::Account(cache, -int64_t{header->size.load(std::memory_order_relaxed)});
    velto::MemGive(cache, header);
    return;
  }
  velto::Unchain(header, file, line);
  velto::Account(cache, -int64_t{header->size.load(std::memory_order_relaxed)});
  header->state.store(0, std::memory_order_relaxed);
  free(header);
}

uint32_t KEL_MemGetTotalSize(void) {
  return static_cast<uint32_t>(velto::CfgNumber(velto::kCfgMemBudgetBytes));
}

uint32_t KEL_MemGetFreeSize(void) {
  const auto budget = static_cast<int64_t>(velto::CfgNumber(velto::kCfgMemBudgetBytes));
  // Below zero while a drift is on its way into the sum.
  const int64_t used = std::max<int64_t>(velto::gReported.load() + velto::Drifts(), 0);
  return used < budget ? static_cast<uint32_t>(budget - used) : 0;
}

void KEL_MemLiveWalk(void (*visit)(const KelMemLive* live, uintptr_t arg), uintptr_t arg) {
  if (visit == nullptr) return;
  const velto::Visitor visitor{visit, arg};
  const auto each = reinterpret_cast<uintptr_t>(&visitor);
  velto::MemRegionWalk(velto::Visit, each);
  for (std::atomic<uintptr_t>& head : velto::gChains) {
    const velto::Chain chain(head);
    for (const MemHeader* at = chain.first(); at != nullptr; at = velto::Next(at)) velto::Visit(at, each);
  }
}

uint32_t KEL_HandleUseGet(uint32_t handle, uint64_t* bytes, uint64_t* count) {
  if (bytes == nullptr || count == nullptr) return kKelErrMemPara;
  if (!velto::HandleIsKnown(handle)) return kKelErrMemHandle;
  struct Sum {
    const char* name;
    uint64_t bytes;
    uint64_t count;
  } sum{velto::gHandleNames[handle - 1], 0, 0};
  KEL_MemLiveWalk(
      [](const KelMemLive* live, uintptr_t arg) {
        auto* all = reinterpret_cast<Sum*>(arg);
        if (live->handle != all->name) return;
        all->bytes += live->size;
        ++all->count;
      },
      reinterpret_cast<uintptr_t>(&sum));
  *bytes = sum.bytes;
  *count = sum.count;
  return 0;
}

const char* KEL_StrStr(const char* text, const char* needle) {
  return text != nullptr && needle != nullptr ? strstr(text, needle) : nullptr;
}
