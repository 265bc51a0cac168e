#include "cfg/hash_table.h"

#include <utility>

#include "base/result_codes.h"
#include "cfg/cfg_memory.h"
#include "log/run_log.h"

namespace {

constexpr uint16_t kLogModule = 1;
constexpr uint16_t kNoBucket = 0xFFFF;  // at most 65535 buckets: never an index

}  // namespace

CHashTable::CHashTable(bool shared) : shared_(shared) {}

uint32_t CHashTable::RegMemBlockManage(CMemBlockManage* arena, const MEM_BLOCK_KEY_PARA_INFO_S* key) {
  if (arena_ != nullptr || arena == nullptr || key == nullptr) return kFailure;
  arenaKey_ = *key;
  arena_ = arena;
  (void)arena->Init(memModuleId_);  // kept: no id is known before the table's own Init, which does it again
  return kSuccess;
}

uint32_t CHashTable::Init(uint32_t memModuleId, uint16_t bucketCount, HashTableHashFunc hash) {
  memModuleId_ = memModuleId;
  hash_ = hash;
  nodeCount_ = 0;  // kept: also where nodes are there already
  if (buckets_ != nullptr) return kSuccess;
  bucketCount_ = bucketCount;
  const uint32_t size = bucketCount * static_cast<uint32_t>(sizeof(HASH_TABLE_LINK));
  if (arena_ != nullptr) {
    (void)arena_->Init(memModuleId);  // an id of 0 shows in what follows
    buckets_ = static_cast<HASH_TABLE_LINK*>(arena_->AllocSection(arenaKey_, size).memory);
    bucketsInArena_ = buckets_ != nullptr;
    if (bucketsInArena_) return kSuccess;  // zero, like every section
  }
  if (bucketCount == 0) {
    LOG_ERR(kLogModule, "hash head num0");
    return kFailure;
  }
  buckets_ = static_cast<HASH_TABLE_LINK*>(cfg::AllocZeroed(shared_, memModuleId, size));
  if (buckets_ != nullptr) return kSuccess;
  LOG_ERR(kLogModule, "malloc hash err");
  return kFailure;
}

// Why a key has no bucket; always false.
bool CHashTable::NotInit() {
  LOG_INF(kLogModule, "err:hash not init");
  return false;
}

bool CHashTable::NoBucket(uint16_t index) const {
  LOG_ERR(kLogModule, "err slot %d vs %d", index, bucketCount_);
  return false;
}

uint32_t CHashTable::GetHashNodeByKeyInfo(const void* key, HASH_TABLE_NODE**& slot,
                                          HashTableHashFunc hash) const {
  slot = nullptr;
  uint16_t index = 0;
  if (!IndexOf(key, hash, index)) return kFailure;
  void* place = &buckets_[index];
  slot = static_cast<HASH_TABLE_NODE**>(place);
  return kSuccess;
}

void* CHashTable::AddTo(uint16_t index, void* memory) {
  HASH_TABLE_LINK& head = buckets_[index];
  auto* node = static_cast<HASH_TABLE_NODE*>(memory);
  node->next = head;
  head.node = node;
  ++nodeCount_;
  return node->Data();
}

void* CHashTable::AddHashNodeWithData(const void* key, uint16_t dataLength, HashTableHashFunc hash) {
  uint16_t index = 0;
  void* memory = nullptr;
  if (key != nullptr && dataLength != 0 && IndexOf(key, hash, index))
    memory = cfg::AllocZeroed(shared_, memModuleId_, sizeof(HASH_TABLE_NODE) + dataLength);
  if (memory != nullptr) return AddTo(index, memory);
  LOG_ERR(kLogModule, "malloc hash err");
  return nullptr;
}

void* CHashTable::AddHashNodeWithDataByMemBlock(const void* key, uint16_t dataLength,
                                                HashTableHashFunc hash) {
  uint16_t index = 0;
  if (key == nullptr || dataLength == 0 || !IndexOf(key, hash, index)) {
    LOG_ERR(kLogModule, "malloc hash err");
    return nullptr;
  }
  CMemBlockManage::Section section{nullptr, kFailure};
  if (arena_ != nullptr) section = arena_->AllocSection(arenaKey_, sizeof(HASH_TABLE_NODE) + dataLength);
  if (section.result == kSuccess) return AddTo(index, section.memory);
  LOG_ERR(kLogModule, "alloc err %#x", section.result);
  return nullptr;
}

// Frees the matching nodes of one bucket and gives their number.
uint32_t CHashTable::RemoveFrom(HASH_TABLE_LINK& head, HashTableMatchFunc match, void* context) {
  uint32_t removed = 0;
  for (HASH_TABLE_LINK* link = &head; link->node != nullptr;) {
    HASH_TABLE_NODE* node = link->node;
    if (match(node->Data(), context) != 1) {
      link = &node->next;
      continue;
    }
    *link = node->next;
    cfg::Free(shared_, node);
    --nodeCount_;
    ++removed;
  }
  return removed;
}

uint32_t CHashTable::DeleteAllAppointNode(const void* key, HashTableMatchFunc match, void* context,
                                          HashTableHashFunc hash) {
  if (arena_ != nullptr || match == nullptr) return kFailure;
  uint16_t index = 0;
  return IndexOf(key, hash, index) ? RemoveFrom(buckets_[index], match, context) : kFailure;
}

uint16_t CHashTable::TravelDeleteAllAppointNode(HashTableMatchFunc match, void* context) {
  if (arena_ != nullptr || match == nullptr) return kFailure;
  uint32_t removed = 0;
  for (uint32_t i = 0; i < GetBucketNum(); ++i) removed += RemoveFrom(buckets_[i], match, context);
  return static_cast<uint16_t>(removed);
}

uint8_t CHashTable::TravelAllAppointNode(HashTableVisitFunc visit, void* context) const {
  if (visit == nullptr) return 0;
  uint8_t any = 0;
  for (uint32_t i = 0; i < GetBucketNum(); ++i) {
    for (HASH_TABLE_NODE* node = buckets_[i].node; node != nullptr; node = node->next.node) {
      if (visit(node->Data(), context) != 0) any = 1;
    }
  }
  return any;
}

HASH_TABLE_NODE* CHashTable::GetHashNodeByIndex(uint16_t index) const {
  return index < GetBucketNum() ? buckets_[index].node : nullptr;
}

uint32_t CHashTable::ResetMemBlockMaxLen(uint32_t length) {
  if (arena_ == nullptr) return kFailure;
  if (length != 0) arenaKey_.blockMaxLen = length;
  return kSuccess;
}

void CHashTable::ClearHashTable() {
  if (buckets_ == nullptr) return;
  for (uint32_t i = 0; arena_ == nullptr && i < bucketCount_; ++i) {
    HASH_TABLE_LINK link = std::exchange(buckets_[i], {});
    while (link.node != nullptr) cfg::Free(shared_, std::exchange(link, link.node->next).node);
  }
  if (!bucketsInArena_) cfg::Free(shared_, buckets_);
  if (arena_ != nullptr) (void)arena_->ClearRegMemBlock(&arenaKey_);  // unknown: never used with this length
  arena_ = nullptr;
  buckets_ = nullptr;
  bucketsInArena_ = false;
}

uint32_t CHashCursor::Init(CHashTable* table) {
  if (table == nullptr) return kSuccess;
  table_ = table;
  return MoveToHead();
}

uint32_t CHashCursor::MoveToHead() {
  MoveToBucketFrom(0);
  return kSuccess;
}

uint32_t CHashCursor::MoveToNext() {
  if (current_ == nullptr) return 0;
  current_ = current_->next.node;
  if (current_ == nullptr) MoveToBucketFrom(uint32_t{index_} + 1);
  return current_ != nullptr ? 1 : 0;
}

void CHashCursor::MoveToBucketFrom(uint32_t from) {
  index_ = GetFirstUnemptySlot(from);
  current_ = index_ != kNoBucket ? table_->GetHashNodeByIndex(index_) : nullptr;
}

uint16_t CHashCursor::GetFirstUnemptySlot(uint32_t from) const {
  const uint32_t count = table_ != nullptr ? table_->GetBucketNum() : 0;
  for (uint32_t i = from; i < count; ++i) {
    if (table_->GetHashNodeByIndex(static_cast<uint16_t>(i)) != nullptr) return static_cast<uint16_t>(i);
  }
  return kNoBucket;
}

uint16_t MetaDataRapidIndexKeyHashFunc(const void* key) {
  const auto* fields = static_cast<const META_DATA_RAPID_INDEX_KEY_S*>(key);
  return static_cast<uint16_t>(fields->index & (fields->bucketCount - 1));
}

uint16_t MetaDataMainTypeRapidIndexKeyHashFunc(const void* key) {
  return MetaDataRapidIndexKeyHashFunc(key);
}
