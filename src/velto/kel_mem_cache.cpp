/// The region, the common stock, and what threads keep.
///
/// The stock's lock is taken once a batch. A batch is a list of blocks by their links; its first block
/// carries the list's length in `size` and the next batch in `file`, which mean nothing while it is free.
#include "velto/kel_mem_cache.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <mutex>
#include <utility>

namespace velto {

constinit MemCache gMemCaches[kMemCaches]{};
constinit thread_local MemCache* tMemCache = nullptr;
constinit std::atomic<uintptr_t> gMemRegion{0};

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kHasRegion = false;
#elif defined(__has_feature)
constexpr bool kHasRegion = !__has_feature(address_sanitizer);
#else
constexpr bool kHasRegion = true;
#endif

constexpr size_t kChunkSize = 16384;                     // of blocks of one class
constexpr size_t kChunks = kMemRegionSize / kChunkSize;  // pages that were never used cost nothing

struct Stock {
  MemHeader* batches;
  char* cut;  // where the next block of the class begins ...
  char* end;  // ... up to here
};

std::mutex gLock;  // guards what follows, except where an atomic is read
Stock gStocks[kMemClasses];
bool gMapTried = false;
std::atomic<uint32_t> gChunkCount{0};
std::atomic<uint32_t> gChunkStride[kChunks];  // written before the chunk is counted

/// Call with gLock held.
bool NewChunk(uint32_t memClass) {
  if (!gMapTried) {
    gMapTried = true;
    void* region = mmap(nullptr, kMemRegionSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (region != MAP_FAILED) gMemRegion.store(reinterpret_cast<uintptr_t>(region));
  }
  const uint32_t chunk = gChunkCount.load();
  if (gMemRegion.load() == 0 || chunk == kChunks) return false;
  gChunkStride[chunk].store(kMemStrides[memClass]);
  gChunkCount.store(chunk + 1);
  gStocks[memClass].cut = reinterpret_cast<char*>(gMemRegion.load()) + chunk * kChunkSize;
  gStocks[memClass].end = gStocks[memClass].cut + kChunkSize;
  return true;
}

/// A batch from the stock, or newly cut blocks; empty when the region is used up.
MemList TakeBatch(uint32_t memClass) {
  const std::lock_guard lock(gLock);
  Stock& stock = gStocks[memClass];
  if (MemHeader* first = stock.batches) {
    const char* next = first->file.load(std::memory_order_relaxed);
    stock.batches = reinterpret_cast<MemHeader*>(const_cast<char*>(next));
    return {first, first->size.load(std::memory_order_relaxed)};
  }
  const uint32_t stride = kMemStrides[memClass];
  MemList batch{};
  while (batch.count < kMemBatch[memClass]) {
    if (static_cast<size_t>(stock.end - stock.cut) < stride && !NewChunk(memClass)) break;
    auto* header = reinterpret_cast<MemHeader*>(std::exchange(stock.cut, stock.cut + stride));
    header->tag.store(memClass << kMemClassShift, std::memory_order_relaxed);
    header->state.store(MemState(kMemFree, header), std::memory_order_relaxed);
    MemPush(batch, header);
  }
  return batch;
}

void GiveBatch(uint32_t memClass, MemList batch) {
  if (batch.first == nullptr) return;
  const std::lock_guard lock(gLock);
  Stock& stock = gStocks[memClass];
  // After the state: a walk that reads one of them as a live block's sees that it is none any more.
  batch.first->size.store(batch.count, std::memory_order_release);
  batch.first->file.store(reinterpret_cast<const char*>(stock.batches), std::memory_order_release);
  stock.batches = batch.first;
}

thread_local constinit bool tMayClaim = true;

/// Gives the thread's cache back when the thread ends; what ends after it does without one.
struct CacheOwner {
  MemCache* cache = nullptr;

  CacheOwner() {
    for (MemCache& candidate : gMemCaches) {
      bool taken = false;
      if (!candidate.taken.compare_exchange_strong(taken, true, std::memory_order_acquire)) continue;
      cache = &candidate;
      return;
    }
  }
  ~CacheOwner() {
    tMemCache = nullptr;
    if (cache == nullptr) return;
    for (uint32_t i = 0; i < kMemClasses; ++i) {
      GiveBatch(i, std::exchange(cache->top[i], {}));
      GiveBatch(i, std::exchange(cache->spare[i], {}));
    }
    MemReport(*cache);
    cache->taken.store(false, std::memory_order_release);
  }
  CacheOwner(const CacheOwner&) = delete;
  CacheOwner& operator=(const CacheOwner&) = delete;
};

}  // namespace

MemCache* MemClaimCache() {
  if (!tMayClaim) return nullptr;
  tMayClaim = false;  // one try a thread: who finds none left is not to search at every call
  thread_local CacheOwner owner;
  tMemCache = owner.cache;
  return tMemCache;
}

void MemRefill(MemCache& cache, uint32_t memClass) {
  if (!kHasRegion) return;
  cache.top[memClass] = std::exchange(cache.spare[memClass], {});
  if (cache.top[memClass].first == nullptr) cache.top[memClass] = TakeBatch(memClass);
}

void MemSpill(MemCache& cache, uint32_t memClass) {
  GiveBatch(memClass, std::exchange(cache.spare[memClass], std::exchange(cache.top[memClass], {})));
}

void MemGiveToStock(MemHeader* header) {
  header->link.store(0, std::memory_order_relaxed);
  GiveBatch(MemClassIn(header), {header, 1});
}

bool MemIsBlock(const MemHeader* header) {
  const size_t offset = reinterpret_cast<uintptr_t>(header) - gMemRegion.load(std::memory_order_relaxed);
  const uint32_t chunk = static_cast<uint32_t>(offset / kChunkSize);
  return chunk < gChunkCount.load() && offset % kChunkSize % gChunkStride[chunk].load() == 0;
}

void MemRegionWalk(void (*visit)(const MemHeader* header, uintptr_t arg), uintptr_t arg) {
  const uint32_t chunks = gChunkCount.load();
  for (uint32_t chunk = 0; chunk < chunks; ++chunk) {
    const char* begin = reinterpret_cast<const char*>(gMemRegion.load()) + chunk * kChunkSize;
    const uint32_t stride = gChunkStride[chunk].load();
    for (size_t at = 0; at + stride <= kChunkSize; at += stride) {
      visit(reinterpret_cast<const MemHeader*>(begin + at), arg);
    }
  }
}

}  // namespace velto
