#include "velto/shm_partition.h"

#include <string.h>

#include <algorithm>
#include <bit>

namespace velto {

struct ShmPartition::Block {
  static constexpr uint32_t kLive = 0x4556494C;
  static constexpr uint32_t kFree = 0x45455246;

  uint32_t state;  // anything else is no block
  uint32_t whole;  // bytes with this record
  uint32_t asked;
  uint32_t zero;
};

namespace {

constexpr uint64_t kAlign = 16;

constexpr uint64_t Aligned(uint64_t bytes) {
  return (bytes + kAlign - 1) & ~(kAlign - 1);
}

/// At least a third of the slots stays free, so that a look for a name soon ends at one.
uint64_t SlotCount(uint32_t entryCount) {
  return std::bit_ceil(uint64_t{entryCount} + entryCount / 2 + 1);
}

uint32_t HashOf(std::string_view name) {
  uint32_t hash = 2166136261U;
  for (const char c : name) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619U;
  return hash;
}

}  // namespace

uint64_t ShmPartition::SizeOf(uint32_t size, uint32_t entryCount) {
  return Aligned(sizeof(ShmPartition)) + SlotCount(entryCount) * sizeof(Entry) + Aligned(size);
}

bool ShmPartition::Make(uint32_t size, uint32_t entryCount) {
  if (!lock_.Init()) return false;
  pointerSize_ = sizeof(void*);
  address_ = reinterpret_cast<uintptr_t>(this);
  size_ = size;
  entryMax_ = entryCount;
  entries_ = 0;
  slotMask_ = static_cast<uint32_t>(SlotCount(entryCount)) - 1;
  end_ = static_cast<uint32_t>(SizeOf(size, entryCount));
  firstBlock_ = next_ = end_ - static_cast<uint32_t>(Aligned(size));
  broken_ = 0;
  *static_cast<Block*>(At(firstBlock_)) = {Block::kFree, end_ - firstBlock_, 0, 0};
  magic_ = kMagic;
  return true;
}

bool ShmPartition::Fits(uint32_t size, uint32_t entryCount) const {
  return pointerSize_ == sizeof(void*) && size_ == size && entryMax_ == entryCount;
}

bool ShmPartition::Lock() {
  const SharedLock::Taken taken = lock_.Take();
  if (taken == SharedLock::Taken::kNo) return false;
  if (taken == SharedLock::Taken::kAfterDeath) broken_ = 1;
  if (broken_ == 0) return true;
  lock_.Release();
  return false;
}

bool ShmPartition::Contains(const void* address) const {
  const auto at = reinterpret_cast<uintptr_t>(address);
  const auto begin = reinterpret_cast<uintptr_t>(this);
  return at >= begin && at - begin < end_;
}

uint32_t ShmPartition::OffsetOf(const void* address) const {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(this));
}

// Null for what is no block within the partition: memory that processes share may hold anything.
ShmPartition::Block* ShmPartition::BlockAt(uint32_t offset) {
  if (offset < firstBlock_ || offset >= end_ || (offset - firstBlock_) % kAlign != 0) return nullptr;
  auto* block = static_cast<Block*>(At(offset));
  if (block->state != Block::kLive && block->state != Block::kFree) return nullptr;
  const bool sized =
      block->whole >= sizeof(Block) && block->whole % kAlign == 0 && block->whole <= end_ - offset;
  return sized ? block : nullptr;
}

// The first room for `whole` bytes from the block at `from` on; joins the free blocks on its way.
void* ShmPartition::TakeFrom(uint32_t from, uint32_t whole, uint32_t asked) {
  Block* block = BlockAt(from);
  for (; block != nullptr; block = BlockAt(OffsetOf(block) + block->whole)) {
    if (block->state != Block::kFree) continue;
    const uint32_t at = OffsetOf(block);
    for (Block* behind = BlockAt(at + block->whole); behind != nullptr && behind->state == Block::kFree;
         behind = BlockAt(at + block->whole)) {
      if (next_ == at + block->whole) next_ = at;
      block->whole += behind->whole;
      behind->state = 0;
    }
    if (block->whole < whole) continue;
    const uint32_t rest = block->whole - whole;
    if (rest != 0) *static_cast<Block*>(At(at + whole)) = {Block::kFree, rest, 0, 0};
    *block = {Block::kLive, whole, asked, 0};
    next_ = at + whole < end_ ? at + whole : firstBlock_;
    return block + 1;
  }
  return nullptr;
}

void* ShmPartition::Alloc(uint32_t size) {
  const uint64_t whole = Aligned(size) + sizeof(Block);
  if (whole > end_ - firstBlock_) return nullptr;
  void* found = TakeFrom(next_, static_cast<uint32_t>(whole), size);
  return found != nullptr ? found : TakeFrom(firstBlock_, static_cast<uint32_t>(whole), size);
}

uint32_t ShmPartition::LiveSize(const void* block) {
  const Block* record = BlockAt(OffsetOf(block) - static_cast<uint32_t>(sizeof(Block)));
  return record != nullptr && record->state == Block::kLive ? record->asked : 0;
}

bool ShmPartition::Free(void* block) {
  if (LiveSize(block) == 0) return false;
  (static_cast<Block*>(block) - 1)->state = Block::kFree;
  return true;
}

ShmPartition::Entry* ShmPartition::Slots() {
  return static_cast<Entry*>(At(static_cast<uint32_t>(Aligned(sizeof(ShmPartition)))));
}

ShmPartition::Entry* ShmPartition::Find(std::string_view name) {
  Entry* slots = Slots();
  for (uint32_t i = HashOf(name) & slotMask_; slots[i].name[0] != '\0'; i = (i + 1) & slotMask_) {
    if (name == slots[i].name) return &slots[i];
  }
  return nullptr;
}

uint32_t ShmPartition::Set(std::string_view name, const void* block, uint32_t size) {
  if (Find(name) != nullptr) return kKelErrShmName;
  if (entries_ == entryMax_) return kKelErrShmFull;
  Entry* slots = Slots();
  uint32_t i = HashOf(name) & slotMask_;
  while (slots[i].name[0] != '\0') i = (i + 1) & slotMask_;
  slots[i] = {{}, OffsetOf(block), size};
  memcpy(slots[i].name, name.data(), name.size());
  ++entries_;
  return 0;
}

// The entries behind it that this slot kept from their place move up, so that looks for them do not end here.
void ShmPartition::Unset(Entry* entry) {
  Entry* slots = Slots();
  auto hole = static_cast<uint32_t>(entry - slots);
  for (uint32_t i = (hole + 1) & slotMask_; slots[i].name[0] != '\0'; i = (i + 1) & slotMask_) {
    const uint32_t home = HashOf(slots[i].name) & slotMask_;
    if (((i - home) & slotMask_) < ((i - hole) & slotMask_)) continue;  // its place lies behind the hole
    slots[hole] = slots[i];
    hole = i;
  }
  slots[hole] = {};
  --entries_;
}

}  // namespace velto
