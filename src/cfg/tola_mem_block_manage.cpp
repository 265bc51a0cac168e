/// The arena's lists: types by key, newest first, and under each its blocks, newest first.
#include "cfg/tola_mem_block_manage.h"

#include <string.h>

#include <utility>

#include "base/result_codes.h"
#include "cfg/cfg_memory.h"
#include "securec.h"

struct MEM_BLOCK_LIST_S {
  MEM_BLOCK_LIST_S* next;
  uint32_t used;  // bytes behind this record

  [[nodiscard]] uint8_t* Data() { return reinterpret_cast<uint8_t*>(this + 1); }
};

struct MEM_BLOCK_INFO_S {
  uint8_t identity[16];
  uint32_t blockMaxLen;
  MEM_BLOCK_LIST_S* blocks;
};

struct TYPE_MEM_BLOCK_LIST_S {
  TYPE_MEM_BLOCK_LIST_S* next;
  MEM_BLOCK_INFO_S info;
};
static_assert(sizeof(void*) != 4 || (sizeof(MEM_BLOCK_LIST_S) == 8 && sizeof(TYPE_MEM_BLOCK_LIST_S) == 28));

namespace {

constexpr uint64_t Align4(uint64_t value) {
  return (value + 3) & ~uint64_t{3};
}

bool SameIdentity(const MEM_BLOCK_INFO_S& info, const MEM_BLOCK_KEY_PARA_INFO_S& key) {
  return memcmp(info.identity, key.identity, sizeof(key.identity)) == 0;
}

/// A section of the block, or null. `length` and `room` are aligned. An exact fit is refused (kept: the last
/// fit of a block is never used).
void* Carve(MEM_BLOCK_LIST_S* block, uint64_t length, uint64_t room) {
  if (block == nullptr || room - block->used <= length) return nullptr;
  uint8_t* section = block->Data() + block->used;
  block->used += static_cast<uint32_t>(length);
  return section;
}

}  // namespace

CMemBlockManage::CMemBlockManage(bool shared) : shared_(shared) {}

CMemBlockManage::~CMemBlockManage() {
  while (types_ != nullptr) FreeType(std::exchange(types_, types_->next));
}

uint32_t CMemBlockManage::Init(uint32_t memModuleId) {
  if (memModuleId == 0) return kArenaErrModuleId;
  memModuleId_ = memModuleId;
  return kSuccess;
}

uint32_t CMemBlockManage::AllocMemInBlockByKeyInfo(const MEM_BLOCK_KEY_PARA_INFO_S* key,
                                                   const MEM_SECTION_HEAD_INFO_S* section, void*& out) {
  out = nullptr;
  if (key == nullptr || section == nullptr) return kArenaErrPara;
  const Section taken = AllocSection(*key, section->length);
  out = taken.memory;
  return taken.result;
}

CMemBlockManage::Section CMemBlockManage::AllocSection(const MEM_BLOCK_KEY_PARA_INFO_S& key,
                                                       uint32_t length) {
  if (key.blockMaxLen == 0 || memModuleId_ == 0) return {nullptr, kArenaErrPara};
  TYPE_MEM_BLOCK_LIST_S* type = FindType(key);
  const uint64_t aligned = Align4(length);
  const uint64_t room = Align4(key.blockMaxLen);
  void* memory = type != nullptr && aligned < room ? Carve(type->info.blocks, aligned, room) : nullptr;
  if (memory != nullptr) [[likely]]
    return {memory, kSuccess};
  return AllocFromNewBlock(key, type, length);
}

CMemBlockManage::Section CMemBlockManage::AllocFromNewBlock(const MEM_BLOCK_KEY_PARA_INFO_S& key,
                                                            TYPE_MEM_BLOCK_LIST_S* type, uint32_t length) {
  uint32_t result = type != nullptr ? kSuccess : AddType(key);
  if (result != kSuccess) return {nullptr, result};
  if (type == nullptr) type = types_;
  const uint64_t aligned = Align4(length);
  const uint64_t room = Align4(key.blockMaxLen);
  if (aligned >= room) return {nullptr, kArenaErrSection};  // the new type stays
  result = AddBlock(*type);
  if (result != kSuccess) return {nullptr, result};
  return {Carve(type->info.blocks, aligned, room), kSuccess};
}

uint32_t CMemBlockManage::ClearRegMemBlock(const MEM_BLOCK_KEY_PARA_INFO_S* key) {
  if (key == nullptr || memModuleId_ == 0) return kArenaErrClear;
  if (FindType(*key) == nullptr) return kArenaErrKey;
  // Kept: the block length, which the look-up compares, does not count here.
  for (TYPE_MEM_BLOCK_LIST_S** link = &types_; *link != nullptr;) {
    if (SameIdentity((*link)->info, *key)) {
      FreeType(std::exchange(*link, (*link)->next));
    } else {
      link = &(*link)->next;
    }
  }
  return kSuccess;
}

TYPE_MEM_BLOCK_LIST_S* CMemBlockManage::FindType(const MEM_BLOCK_KEY_PARA_INFO_S& key) const {
  for (TYPE_MEM_BLOCK_LIST_S* type = types_; type != nullptr; type = type->next) {
    if (type->info.blockMaxLen == key.blockMaxLen && SameIdentity(type->info, key)) return type;
  }
  return nullptr;
}

// The new type stands at the head of the list.
uint32_t CMemBlockManage::AddType(const MEM_BLOCK_KEY_PARA_INFO_S& key) {
  auto* type = static_cast<TYPE_MEM_BLOCK_LIST_S*>(cfg::AllocZeroed(shared_, memModuleId_, sizeof(*types_)));
  if (type == nullptr) return kArenaErrTypeMemory;
  if (memcpy_s(type->info.identity, sizeof(type->info.identity), key.identity, sizeof(key.identity)) != EOK) {
    cfg::Free(shared_, type);
    return kErrCopy;
  }
  type->info.blockMaxLen = key.blockMaxLen;
  type->next = types_;
  types_ = type;
  return kSuccess;
}

uint32_t CMemBlockManage::AddBlock(TYPE_MEM_BLOCK_LIST_S& type) {
  const uint64_t size = Align4(type.info.blockMaxLen) + sizeof(MEM_BLOCK_LIST_S);
  auto* block = static_cast<MEM_BLOCK_LIST_S*>(cfg::AllocZeroed(shared_, memModuleId_, size));
  if (block == nullptr) return kArenaErrBlockMemory;
  block->next = type.info.blocks;
  type.info.blocks = block;
  return kSuccess;
}

void CMemBlockManage::FreeType(TYPE_MEM_BLOCK_LIST_S* type) {
  MEM_BLOCK_LIST_S* block = type->info.blocks;
  while (block != nullptr) cfg::Free(shared_, std::exchange(block, block->next));
  cfg::Free(shared_, type);
}
