/// One partition as it lies in memory: a head, the directory's slots, the blocks. For kel_shm.cpp alone.
///
/// Blocks lie one behind the other, each with a record in front, and fill the partition's end completely;
/// free neighbours are joined when somebody looks for room. The directory is a table of slots without links,
/// where an entry stands in the first free slot from its name's hash on. All calls want the lock to be held.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "velto/kel_shm.h"
#include "velto/shared_lock.h"

namespace velto {

class ShmPartition {
 public:
  /// Bytes of a partition of these sizes, in 64 bits.
  static uint64_t SizeOf(uint32_t size, uint32_t entryCount);

  /// Makes a partition in zeroed memory of SizeOf bytes, of which this is the begin. False without a lock.
  [[nodiscard]] bool Make(uint32_t size, uint32_t entryCount);
  [[nodiscard]] bool IsMade() const { return magic_ == kMagic; }
  /// Whether Make was called with these sizes, by a process that sees memory as this one does.
  [[nodiscard]] bool Fits(uint32_t size, uint32_t entryCount) const;
  /// Where the maker has it.
  [[nodiscard]] uint64_t address() const { return address_; }

  /// False for good once a process died with the lock. Release only after true.
  [[nodiscard]] bool Lock();
  void Release() { lock_.Release(); }

  [[nodiscard]] void* Alloc(uint32_t size);
  [[nodiscard]] bool Free(void* block);
  /// Bytes asked for of the live block that begins there, or 0.
  [[nodiscard]] uint32_t LiveSize(const void* block);

  struct Entry {
    char name[kKelShmEntryNameSize];  ///< empty: a free slot
    uint32_t at;                      ///< of the block, from the partition's begin
    uint32_t size;
  };
  /// The entry, or null.
  [[nodiscard]] Entry* Find(std::string_view name);
  [[nodiscard]] uint32_t Set(std::string_view name, const void* block, uint32_t size);
  void Unset(Entry* entry);

  [[nodiscard]] bool Contains(const void* address) const;
  [[nodiscard]] void* At(uint32_t offset) { return reinterpret_cast<uint8_t*>(this) + offset; }

 private:
  static constexpr uint32_t kMagic = 0x4D485356;
  struct Block;

  [[nodiscard]] uint32_t OffsetOf(const void* address) const;
  [[nodiscard]] Block* BlockAt(uint32_t offset);
  [[nodiscard]] Entry* Slots();
  [[nodiscard]] void* TakeFrom(uint32_t from, uint32_t whole, uint32_t asked);

  uint32_t magic_;  // written last
  uint32_t pointerSize_;
  uint64_t address_;
  uint32_t size_;  // as asked for
  uint32_t entryMax_;
  uint32_t entries_;
  uint32_t slotMask_;
  uint32_t firstBlock_;
  uint32_t end_;
  uint32_t next_;  // where the next look for room begins: always a block
  uint32_t broken_;
  SharedLock lock_;
};

}  // namespace velto
