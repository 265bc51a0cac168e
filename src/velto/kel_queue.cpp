/// Bounded queues for many writers and many readers without a lock.
///
/// A queue is a ring of cells. Head and tail are positions that only grow; each cell carries a turn number
/// that says whose it is: 2 x lap for the writer of that lap, one more for its reader. A position is claimed
/// by moving head or tail on, its bytes are copied, and the turn is passed on.
///
/// A queue that becomes longer than its ring gets a second ring: the first one's tail is closed, writers go
/// to the new ring, readers drain the old one first. Old rings are kept until the queue is deleted.
#include <stdlib.h>
#include <string.h>

#include <bit>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "base/owners.h"
#include "velto/kel_sync.h"
#include "velto/kel_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kLengthMax = 1048576;
constexpr uint32_t kEntryMax = 64;
constexpr uint64_t kClosed = uint64_t{1} << 63;
constexpr size_t kCacheLine = 64;

struct Cell {
  std::atomic<uint32_t> turn;
  // the entry's bytes follow
};

using CellMemory = base::UniqueC<void, free>;

class Ring {
 public:
  /// `cells` is zeroed and holds 2^shift cells of `stride` bytes: every cell begins as lap 0's writer's.
  Ring(CellMemory cells, uint32_t shift, uint32_t stride)
      : cells_(std::move(cells)), shift_(shift), stride_(stride) {}

  [[nodiscard]] Cell& At(uint64_t position) const {
    const auto index = static_cast<size_t>(position & ((uint64_t{1} << shift_) - 1));
    return *reinterpret_cast<Cell*>(static_cast<char*>(cells_.get()) + index * stride_);
  }
  /// The turn at which position's cell may be written; one more is its reader's.
  [[nodiscard]] uint32_t WriteTurn(uint64_t position) const {
    return static_cast<uint32_t>(position >> shift_) * 2;
  }
  [[nodiscard]] uint32_t Capacity() const { return uint32_t{1} << shift_; }

  [[nodiscard]] uint64_t Count() const {
    const uint64_t end = tail.load() & ~kClosed;
    const uint64_t begin = head.load();
    return begin < end ? end - begin : 0;
  }

  alignas(kCacheLine) std::atomic<uint64_t> head{0};
  alignas(kCacheLine) std::atomic<uint64_t> tail{0};  // kClosed: no writes any more, and `next` is set
  alignas(kCacheLine) std::atomic<Ring*> next{nullptr};

 private:
  CellMemory cells_;
  uint32_t shift_;
  uint32_t stride_;
};

struct Queue {
  uint32_t entrySize;
  std::atomic<uint32_t> length;
  std::atomic<Ring*> readRing;
  std::atomic<Ring*> writeRing;
  Ring* oldest;
  std::mutex growLock;
};

constinit IdTable<Queue, 512> gQueues;

Ring* NewRing(uint32_t length, uint32_t entrySize) {
  const uint32_t stride = (static_cast<uint32_t>(sizeof(Cell)) + entrySize + 3) & ~3U;
  const uint32_t capacity = std::bit_ceil(length);
  CellMemory cells(calloc(capacity, stride));  // untouched pages cost nothing
  if (!cells) return nullptr;
  return new (std::nothrow) Ring(std::move(cells), static_cast<uint32_t>(std::countr_zero(capacity)), stride);
}

void DeleteRings(Ring* ring) {
  while (ring != nullptr) delete std::exchange(ring, ring->next.load());
}

/// Entries in the rings that readers drain before `newest`.
uint64_t CountBefore(const Queue& queue, const Ring* newest) {
  uint64_t count = 0;
  for (const Ring* ring = queue.readRing.load(); ring != newest && ring != nullptr;
       ring = ring->next.load()) {
    count += ring->Count();
  }
  return count;
}

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
    Ring& ring = *queue.writeRing.load(std::memory_order_acquire);
    uint64_t position = ring.tail.load(std::memory_order_acquire);
    // Head is read after tail: if the claim below succeeds, no more than this stands in the queue.
    const uint64_t head = ring.head.load(std::memory_order_acquire);
    if ((position & kClosed) != 0 || head > position) continue;
    if (position - head + CountBefore(queue, &ring) >= queue.length.load(std::memory_order_acquire)) {
      return kKelErrQueueFull;
    }
    Cell& cell = ring.At(position);
    const uint32_t turn = ring.WriteTurn(position);
    if (cell.turn.load(std::memory_order_acquire) != turn) {  // its reader still copies
      WaitBriefly(turns++);
      continue;
    }
    if (!ring.tail.compare_exchange_strong(position, position + 1)) continue;
    CopyEntry(&cell + 1, entry, queue.entrySize);
    cell.turn.store(turn + 1, std::memory_order_release);
    return 0;
  }
}

uint32_t Read(Queue& queue, void* entry) {
  for (uint32_t turns = 0;;) {
    Ring* ring = queue.readRing.load(std::memory_order_acquire);
    uint64_t position = ring->head.load(std::memory_order_acquire);
    Cell& cell = ring->At(position);
    const uint32_t turn = ring->WriteTurn(position) + 1;
    if (cell.turn.load(std::memory_order_acquire) == turn) {
      if (!ring->head.compare_exchange_strong(position, position + 1)) continue;
      CopyEntry(entry, &cell + 1, queue.entrySize);
      cell.turn.store(ring->WriteTurn(position + ring->Capacity()), std::memory_order_release);
      return 0;
    }
    const uint64_t tail = ring->tail.load(std::memory_order_acquire);
    if ((tail & ~kClosed) > position) {  // its writer still copies, or another reader was faster
      WaitBriefly(turns++);
      continue;
    }
    if ((tail & kClosed) == 0) return kKelErrQueueEmpty;
    (void)queue.readRing.compare_exchange_strong(ring, ring->next.load());
  }
}

}  // namespace
}  // namespace velto

using velto::gQueues;
using velto::Queue;
using velto::Ring;

uint32_t KEL_QueueCreate(const char* name, uint32_t length, uint32_t entrySize, uint32_t* queueId) {
  if (!velto::NameFits(name) || queueId == nullptr || length == 0 || length > velto::kLengthMax ||
      entrySize == 0 || entrySize > velto::kEntryMax) {
    return kKelErrSyncPara;
  }
  const uint32_t id = gQueues.Claim(name);
  if (id == 0) return kKelErrSyncFull;
  Ring* ring = velto::NewRing(length, entrySize);
  if (ring == nullptr) {
    gQueues.Free(id);
    return kKelErrMemory;
  }
  Queue& queue = gQueues.At(id);
  queue.entrySize = entrySize;
  queue.length.store(length);
  queue.readRing.store(ring);
  queue.writeRing.store(ring);
  queue.oldest = ring;
  gQueues.Publish(id);
  *queueId = id;
  return 0;
}

uint32_t KEL_QueueDelete(uint32_t queueId) {
  if (!gQueues.Retire(queueId)) return kKelErrSyncId;
  Queue& queue = gQueues.At(queueId);
  velto::DeleteRings(std::exchange(queue.oldest, nullptr));
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
  *count = static_cast<uint32_t>(velto::CountBefore(*queue, nullptr));
  return 0;
}

uint32_t KEL_QueueLengthSet(uint32_t queueId, uint32_t length) {
  Queue* queue = gQueues.Find(queueId);
  if (queue == nullptr) return kKelErrSyncId;
  if (length == 0 || length > velto::kLengthMax) return kKelErrSyncPara;
  const std::lock_guard<std::mutex> guard(queue->growLock);
  Ring* ring = queue->writeRing.load();
  if (length > ring->Capacity()) {
    Ring* longer = velto::NewRing(length, queue->entrySize);
    if (longer == nullptr) return kKelErrMemory;
    ring->next.store(longer);
    queue->writeRing.store(longer);
    ring->tail.fetch_or(velto::kClosed);
  }
  queue->length.store(length);
  return 0;
}
