/// A chained hash table with a fixed number of buckets, and a cursor over its nodes.
///
/// A node is a link followed by a zero-filled data area of the caller's size, which the table never looks
/// into; callers only ever see data areas. Hashing, matching and visiting are the caller's functions. Memory
/// comes from the heap, from a shared-memory partition (tola_shm.h), or from an arena registered with the
/// table. Several nodes of one key may live side by side, the newest is found first.
///
/// Nothing here locks: the owner lets one thread in at a time, or only readers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "cfg/tola_mem_block_manage.h"

struct HASH_TABLE_NODE;

/// A pointer to a node that may stand at any multiple of 4: arena sections do, also where pointers are wider.
struct __attribute__((packed, aligned(4))) HASH_TABLE_LINK {
  HASH_TABLE_NODE* node;
};

struct HASH_TABLE_NODE {
  HASH_TABLE_LINK next;  ///< null at the end of the chain

  [[nodiscard]] void* Data() { return this + 1; }
};
static_assert(sizeof(HASH_TABLE_NODE) == sizeof(void*));

using HashTableHashFunc = uint16_t (*)(const void* key);  ///< bucket of a key, below the bucket count
using HashTableMatchFunc = uint16_t (*)(void* data, void* context);  ///< 1 and only 1 is a match
using HashTableVisitFunc = uint16_t (*)(void* data, void* context);

class CHashTable {
 public:
  /// `shared`: buckets and nodes come from the shared-memory partition, and every call must bring the hash
  /// function along, since the stored one may be another process's.
  explicit CHashTable(bool shared);
  ~CHashTable() { ClearHashTable(); }
  CHashTable(const CHashTable&) = delete;
  CHashTable& operator=(const CHashTable&) = delete;

  /// Lets buckets, and nodes of AddHashNodeWithDataByMemBlock, come from `arena` under `key` (copied). Before
  /// Init; the arena must outlive the table, or its ClearHashTable.
  /// @retval 1 a null argument, or an arena is registered already
  [[nodiscard]] uint32_t RegMemBlockManage(CMemBlockManage* arena, const MEM_BLOCK_KEY_PARA_INFO_S* key);

  /// Makes the buckets, from the arena if there is one with room, else like the nodes. A second call keeps
  /// buckets and nodes, but sets the node count to 0 and takes over the other arguments' hash function and
  /// id.
  /// @retval 1 a bucket count of 0 ("hash head num0"), or no memory ("malloc hash err")
  [[nodiscard]] uint32_t Init(uint32_t memModuleId, uint16_t bucketCount, HashTableHashFunc hash);

  /// The place of the head of the key's bucket; it may stand at any multiple of 4 in a table with an arena.
  /// `hash` counts in shared-memory mode only, here and in all calls that take one; in the other modes a
  /// look-up is faster where it is given and is the table's own.
  /// @retval 1 no buckets, no hash function ("err:hash not init"), or no such bucket ("err slot ..."); the
  ///   slot is null then
  [[nodiscard]] uint32_t GetHashNodeByKeyInfo(const void* key, HASH_TABLE_NODE**& slot,
                                              HashTableHashFunc hash = nullptr) const;

  /// Adds a node at the head of its bucket and gives its zero-filled data area, aligned for any type up to a
  /// pointer. Null with a log line when key or length are nothing, the bucket is wrong or memory is out.
  /// In a table with an arena such a node is never given back.
  [[nodiscard]] void* AddHashNodeWithData(const void* key, uint16_t dataLength,
                                          HashTableHashFunc hash = nullptr);

  /// The same with a node from the arena; its data area is aligned to 4. Null without an arena.
  [[nodiscard]] void* AddHashNodeWithDataByMemBlock(const void* key, uint16_t dataLength,
                                                    HashTableHashFunc hash = nullptr);

  /// The first data area of the key's bucket that matches, or null. `match` is called for every node before
  /// it: the bucket may hold other keys.
  [[nodiscard]] void* GetOneAppointNode(const void* key, HashTableMatchFunc match, void* context,
                                        HashTableHashFunc hash = nullptr) const;

  /// Removes the matching nodes of the key's bucket. Gives their number; 1 without removing any when an arena
  /// is registered, or the bucket is wrong.
  uint32_t DeleteAllAppointNode(const void* key, HashTableMatchFunc match, void* context,
                                HashTableHashFunc hash = nullptr);

  /// The same in all buckets.
  uint16_t TravelDeleteAllAppointNode(HashTableMatchFunc match, void* context);

  /// Calls `visit` for every node, bucket by bucket, newest first. 1 when any call gave another value than 0.
  uint8_t TravelAllAppointNode(HashTableVisitFunc visit, void* context) const;

  /// Head of a bucket; null when it is empty or there is no such bucket.
  [[nodiscard]] HASH_TABLE_NODE* GetHashNodeByIndex(uint16_t index) const;
  [[nodiscard]] uint16_t GetHashTableNodeNum() const { return nodeCount_; }
  [[nodiscard]] uint16_t GetBucketNum() const { return buckets_ != nullptr ? bucketCount_ : 0; }

  /// Block length for what the table takes from its arena from now on; 0 changes nothing.
  /// @retval 1 no arena is registered
  [[nodiscard]] uint32_t ResetMemBlockMaxLen(uint32_t length);

  /// Gives all nodes and buckets back; the table can be initialised again. The node count stays until then.
  /// With an arena everything of the key's identity goes (CMemBlockManage::ClearRegMemBlock), other tables'
  /// memory included, and the arena is forgotten. What it gave before ResetMemBlockMaxLen named a length that
  /// was not used since stays with the arena.
  void ClearHashTable();

 private:
  bool IndexOf(const void* key, HashTableHashFunc hash, uint16_t& index) const;
  [[gnu::cold]] bool NoBucket(uint16_t index) const;
  [[gnu::cold]] static bool NotInit();
  void* AddTo(uint16_t index, void* memory);
  uint32_t RemoveFrom(HASH_TABLE_LINK& head, HashTableMatchFunc match, void* context);

  HashTableHashFunc hash_ = nullptr;
  HASH_TABLE_LINK* buckets_ = nullptr;
  uint32_t memModuleId_ = 0;
  uint16_t bucketCount_ = 0;
  uint16_t nodeCount_ = 0;
  bool bucketsInArena_ = false;
  CMemBlockManage* arena_ = nullptr;
  MEM_BLOCK_KEY_PARA_INFO_S arenaKey_{};
  bool shared_;
};

// Look-ups stand here so that the caller's functions, which it names where it calls, become part of them.

// The place of the key's bucket; false with a log line when there is none. A function that the compiler sees
// at the call is called without a jump when it is the table's own, which it nearly always is.
inline bool CHashTable::IndexOf(const void* key, HashTableHashFunc hash, uint16_t& index) const {
  if (buckets_ == nullptr) [[unlikely]]
    return NotInit();
  if (hash != nullptr &&
      __builtin_expect(hash == hash_, 1)) {  // the attribute loses against a guess on pointers
    index = hash(key);
  } else {
    const HashTableHashFunc used = shared_ ? hash : hash_;
    if (used == nullptr) [[unlikely]]
      return NotInit();
    index = used(key);
  }
  if (index < bucketCount_) [[likely]]
    return true;
  return NoBucket(index);
}

inline void* CHashTable::GetOneAppointNode(const void* key, HashTableMatchFunc match, void* context,
                                           HashTableHashFunc hash) const {
  uint16_t index = 0;
  if (match == nullptr || !IndexOf(key, hash, index)) return nullptr;
  for (HASH_TABLE_NODE* node = buckets_[index].node; node != nullptr; node = node->next.node) {
    if (match(node->Data(), context) == 1) [[likely]]
      return node->Data();
  }
  return nullptr;
}

/// Walks over all nodes of one table, which must not change meanwhile.
class CHashCursor {
 public:
  CHashCursor() = default;
  virtual ~CHashCursor() = default;
  CHashCursor(const CHashCursor&) = default;
  CHashCursor& operator=(const CHashCursor&) = default;

  /// Takes the table and moves to its first node; null changes nothing. Always 0, like MoveToHead.
  uint32_t Init(CHashTable* table);
  uint32_t MoveToHead();
  /// 1 when there was a next node, 0 at the end.
  uint32_t MoveToNext();
  [[nodiscard]] bool IsEnd() const { return current_ == nullptr; }
  [[nodiscard]] void* GetDataOfCurPositon() const { return current_ != nullptr ? current_->Data() : nullptr; }

 private:
  [[nodiscard]] uint16_t GetFirstUnemptySlot(uint32_t from) const;
  void MoveToBucketFrom(uint32_t from);

  HASH_TABLE_NODE* current_ = nullptr;
  CHashTable* table_ = nullptr;
  uint16_t index_ = 0;
};

/// Key of the metadata rapid indexes.
struct META_DATA_RAPID_INDEX_KEY_S {
  uint32_t index;        ///< computed beforehand from what the index is about
  uint32_t bucketCount;  ///< of the table, a power of two
};
/// Hash functions of the two indexes over that key: the low bits of its index.
uint16_t MetaDataRapidIndexKeyHashFunc(const void* key);
uint16_t MetaDataMainTypeRapidIndexKeyHashFunc(const void* key);
