/// Bounded queues for many writers and many readers without a lock.
///
/// A queue is a ring of cells. Head and tail are positions that only grow; each cell carries a turn number
/// that says whose it is: 2 x lap for the writer of that lap, one more for its reader. A position is claimed
/// by moving head or tail on, its bytes are copied, and the turn is passed on.
#include <stdlib.h>
#include <string.h>

#include <bit>
#include <utility>

#include "velto/kel_sync.h"
#include "velto/kel_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kLengthMax = 1048576;
constexpr uint32_t kEntryMax = 64;
constexpr size_t kCacheLine = 64;

struct Cell {
  std::atomic<uint32_t> turn;
  // the entry's bytes follow
};

struct Queue {
  void* cells;  // 2^shift of `stride` bytes; no owner, since tasks use their queues until the process is gone
  uint32_t shift;
  uint32_t stride;
  uint32_t entrySize;
  uint32_t length;
  alignas(kCacheLine) std::atomic<uint64_t> head;
  alignas(kCacheLine) std::atomic<uint64_t> tail;

  [[nodiscard]] Cell& At(uint64_t position) const {
    const auto index = static_cast<size_t>(position & ((uint64_t{1} << shift) - 1));
    return *reinterpret_cast<Cell*>(static_cast<char*>(cells) + index * stride);
  }
  /// The turn at which position's cell may be written; one more is its reader's.
  [[nodiscard]] uint32_t WriteTurn(uint64_t position) const {
    return static_cast<uint32_t>(position >> shift) * 2;
  }
};

constinit IdTable<Queue, 512> gQueues;

/// Copies an entry; the size that nearly every queue has, a pointer's, without a call.
void CopyEntry(void* to, const void* from, uint32_t size) {
  if (size == sizeof(void*)) {
    memcpy(to, from, sizeof(void*));
  } else {
    memcpy(to, from, size);
  }
}

uint32_t Write(Queue& queue, const void* entry) {
  for (uint32_t turns = 0;;) {
    uint64_t position = queue.tail.load(std::memory_order_acquire);
    // Head is read after tail: if the claim below succeeds, no more than this stands in the queue.
    const uint64_t head = queue.head.load(std::memory_order_acquire);
    if (head > position) continue;
    if (position - head >= queue.length) return kKelErrQueueFull;
    Cell& cell = queue.At(position);
    const uint32_t turn = queue.WriteTurn(position);
    if (cell.turn.load(std::memory_order_acquire) != turn) {  // its reader still copies
      WaitBriefly(turns++);
      continue;
    }
    if (!queue.tail.compare_exchange_strong(position, position + 1)) continue;
    CopyEntry(&cell + 1, entry, queue.entrySize);
    cell.turn.store(turn + 1, std::memory_order_release);
    return 0;
  }
}

uint32_t Read(Queue& queue, void* entry) {
  for (uint32_t turns = 0;;) {
    uint64_t position = queue.head.load(std::memory_order_acquire);
    Cell& cell = queue.At(position);
    const uint32_t turn = queue.WriteTurn(position) + 1;
    if (cell.turn.load(std::memory_order_acquire) == turn) {
      if (!queue.head.compare_exchange_strong(position, position + 1)) continue;
      CopyEntry(entry, &cell + 1, queue.entrySize);
      cell.turn.store(turn + 1, std::memory_order_release);  // the next lap's writer's
      return 0;
    }
    if (queue.tail.load() <= position)
      return kKelErrQueueEmpty;  // in one order with the writer's claim: see
                                 // KEL_EventWriteQueued
    WaitBriefly(turns++);        // its writer still copies, or another reader was faster
  }
}

}  // namespace
}  // namespace velto

using velto::gQueues;
using velto::Queue;

uint32_t KEL_QueueCreate(const char* name, uint32_t length, uint32_t entrySize, uint32_t* queueId) {
  if (!velto::NameFits(name) || queueId == nullptr || length == 0 || length > velto::kLengthMax ||
      entrySize == 0 || entrySize > velto::kEntryMax) {
    return kKelErrSyncPara;
  }
  const uint32_t id = gQueues.Claim(name);
  if (id == 0) return kKelErrSyncFull;
  const uint32_t capacity = std::bit_ceil(length);
  const uint32_t stride = (static_cast<uint32_t>(sizeof(velto::Cell)) + entrySize + 3) & ~3U;
  Queue& queue = gQueues.At(id);
  queue.cells = calloc(capacity, stride);  // every cell is lap 0's writer's; untouched pages cost nothing
  if (queue.cells == nullptr) {
    gQueues.Free(id);
    return kKelErrMemory;
  }
  queue.shift = static_cast<uint32_t>(std::countr_zero(capacity));
  queue.stride = stride;
  queue.entrySize = entrySize;
  queue.length = length;
  queue.head.store(0);
  queue.tail.store(0);
  gQueues.Publish(id);
  *queueId = id;
  return 0;
}

uint32_t KEL_QueueDelete(uint32_t queueId) {
  if (!gQueues.Retire(queueId)) return kKelErrSyncId;
  free(std::exchange(gQueues.At(queueId).cells, nullptr));
  gQueues.Free(queueId);
  return 0;
}

uint32_t KEL_QueueAsyWrite(uint32_t queueId, const void* entry, uint32_t size) {
  Queue* queue = gQueues.Find(queueId);
  if (queue == nullptr) return kKelErrSyncId;
  if (entry == nullptr) return kKelErrSyncPara;
  if (size != queue->entrySize) return kKelErrQueueSize;
  return velto::Write(*queue, entry);
}

uint32_t KEL_QueueAsyRead(uint32_t queueId, void* entry, uint32_t size, uint32_t* readSize) {
  if (readSize != nullptr) *readSize = 0;
  Queue* queue = gQueues.Find(queueId);
  if (queue == nullptr) return kKelErrSyncId;
  if (entry == nullptr || readSize == nullptr) return kKelErrSyncPara;
  if (size != queue->entrySize) return kKelErrQueueSize;
  const uint32_t result = velto::Read(*queue, entry);
  if (result == 0) *readSize = size;
  return result;
}

uint32_t KEL_QueueMsgNumGet(uint32_t queueId, uint32_t* count) {
  const Queue* queue = gQueues.Find(queueId);
  if (queue == nullptr) return kKelErrSyncId;
  if (count == nullptr) return kKelErrSyncPara;
  const uint64_t tail = queue->tail.load();
  const uint64_t head = queue->head.load();  // may have passed that tail meanwhile
  *count = head < tail ? static_cast<uint32_t>(tail - head) : 0;
  return 0;
}
