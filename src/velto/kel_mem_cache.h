/// Small blocks of tagged memory, recycled without a lock. For the runtime's own sources only.
///
/// Blocks of a few sizes are cut from one region of addresses that is never given back. A thread keeps a
/// bounded number of free ones for itself and trades whole batches of them with a common stock; what it kept
/// goes there when the thread ends. Whether an address is one of ours is told by the region, and whether a
/// block is live by the word in front of it, so that nothing outside the region is ever read.
///
/// There is no region under the address sanitizer: with every allocation on the heap of its own it finds
/// overruns and leaks.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>

namespace velto {

/// In front of every tagged allocation. Its words are read by walks while their owner writes them.
struct alignas(max_align_t) MemHeader {
  std::atomic<uintptr_t> link;  ///< the next one of a list, as the list stores it
  std::atomic<const char*> file;
  std::atomic<uint32_t> size;
  std::atomic<uint32_t> line;
  std::atomic<uint32_t> tag;  ///< handle, size class and a counter of uses: see below
#if defined(__i386__)
  uint32_t filler[2];  ///< memory is aligned to 16 there
#endif
  std::atomic<uint32_t> state;  ///< stands right before the memory: an underrun breaks it first
};
static_assert(offsetof(MemHeader, state) + sizeof(uint32_t) == sizeof(MemHeader));

/// The tag's parts. The counter moves on before a reused header changes: a walk that reads it twice knows
/// whether what it read in between belongs together.
inline constexpr uint32_t kMemHandleShift = 16;
inline constexpr uint32_t kMemClassShift = 8;
inline constexpr uint32_t kMemUsesMask = 0xFF;

/// A state that only this header can have: neither stale bytes nor those of another block pass for it.
inline constexpr uint32_t kMemLive = 0x4D454D31;
inline constexpr uint32_t kMemFree = 0x66726565;
inline uint32_t MemState(uint32_t what, const MemHeader* header) {
  return what ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(header) >> 4);
}

inline constexpr uint32_t kMemStrides[] = {64, 128, 192, 256, 384, 512, 768, 1024};  ///< header and memory
inline constexpr uint32_t kMemClasses = sizeof(kMemStrides) / sizeof(kMemStrides[0]);
inline constexpr uint32_t kMemSmallMax = 1024 - sizeof(MemHeader);

/// The class of a block of n x 64 bytes.
inline constexpr uint8_t kMemClassBy64[] = {0, 0, 1, 2, 3, 4, 4, 5, 5, 6, 6, 6, 6, 7, 7, 7, 7};
/// Blocks of a class that change hands at a time: at most two KiB, so that a thread keeps 4 KiB of a class at
/// most.
inline constexpr uint32_t kMemBatch[] = {16, 16, 10, 8, 5, 4, 2, 2};

/// The class for `size` bytes, at most kMemSmallMax.
inline uint32_t MemClassOf(uint32_t size) {
  return kMemClassBy64[(size + sizeof(MemHeader) + 63) / 64];
}

inline uint32_t MemClassIn(const MemHeader* header) {
  return (header->tag.load(std::memory_order_relaxed) >> kMemClassShift) & 0xFF;
}

struct MemList {
  MemHeader* first;
  uint32_t count;
};

inline void MemPush(MemList& list, MemHeader* header) {
  header->link.store(reinterpret_cast<uintptr_t>(list.first), std::memory_order_relaxed);
  list = {header, list.count + 1};
}
inline MemHeader* MemPop(MemList& list) {
  MemHeader* header = list.first;
  if (header == nullptr) return nullptr;
  list = {reinterpret_cast<MemHeader*>(header->link.load(std::memory_order_relaxed)), list.count - 1};
  return header;
}

/// What one thread keeps. Only `drift` is read by others.
struct alignas(64) MemCache {
  std::atomic<int32_t> drift;  ///< bytes that this thread used and has not reported: see kel_mem.cpp
  std::atomic<bool> taken;
  MemList top[kMemClasses];    ///< is taken from and given to; at most a batch
  MemList spare[kMemClasses];  ///< empty or a whole batch
};

inline constexpr uint32_t kMemCaches = 128;
extern MemCache gMemCaches[kMemCaches];

extern constinit thread_local MemCache* tMemCache;
extern constinit std::atomic<uintptr_t> gMemRegion;
inline constexpr size_t kMemRegionSize = size_t{16} << 20;

[[nodiscard]] MemCache* MemClaimCache();
void MemRefill(MemCache& cache, uint32_t memClass);  ///< makes room for no more than a batch in an empty top
void MemSpill(MemCache& cache, uint32_t memClass);   ///< empties a full top
void MemGiveToStock(MemHeader* header);

/// The calling thread's; null while it ends, and when so many threads have one that none is left.
[[nodiscard]] inline MemCache* MemCacheOfThread() {
  return tMemCache != nullptr ? tMemCache : MemClaimCache();
}

/// A free block of `memClass` that is the caller's to fill; null when the region is used up or there is none.
[[nodiscard]] inline MemHeader* MemTake(MemCache& cache, uint32_t memClass) {
  MemList& top = cache.top[memClass];
  if (top.first == nullptr) MemRefill(cache, memClass);
  return MemPop(top);
}

/// Takes a block in whose state is free already. `cache` may be null.
inline void MemGive(MemCache* cache, MemHeader* header) {
  if (cache == nullptr) return MemGiveToStock(header);
  const uint32_t memClass = MemClassIn(header);
  MemList& top = cache->top[memClass];
  if (top.count >= kMemBatch[memClass]) MemSpill(*cache, memClass);
  MemPush(top, header);
}

/// Whether `header` lies in the region, so that it can be read.
[[nodiscard]] inline bool MemInRegion(const MemHeader* header) {
  const uintptr_t region = gMemRegion.load(std::memory_order_relaxed);  // who has a block has seen it set
  const auto address = reinterpret_cast<uintptr_t>(header);
  return region != 0 && address - region <= kMemRegionSize - sizeof(MemHeader) &&
         address % alignof(MemHeader) == 0;
}
/// Whether a block begins at `header`, which lies in the region.
[[nodiscard]] bool MemIsBlock(const MemHeader* header);
/// Calls `visit` for every block that was ever cut.
void MemRegionWalk(void (*visit)(const MemHeader* header, uintptr_t arg), uintptr_t arg);

/// Adds a cache's drift to the reported sum. The thread that ends calls it as well.
void MemReport(MemCache& cache);

}  // namespace velto
