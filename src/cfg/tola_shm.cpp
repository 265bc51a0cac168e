#include "cfg/tola_shm.h"

#include "base/result_codes.h"
#include "log/run_log.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;

TolaShmMemPtInfo* g_table = nullptr;
uint16_t g_count = 0;
bool g_created = false;
uint8_t g_tablePartition = 0;

/// A block's name in the directory: its address.
struct BlockName {
  char text[21];

  [[nodiscard]] bool Print(const void* block) {
    return snprintf_s(text, sizeof(text), sizeof(text) - 1, "%p", block) > 0;
  }
};

}  // namespace

uint32_t TOLA_ShmMemPtCreate(TolaShmMemPtInfo* table, uint16_t count) {
  if (table == nullptr || g_created) return kFailure;
  for (uint16_t i = 0; i < count; ++i) {
    TolaShmMemPtInfo& info = table[i];
    const uint32_t result =
        KEL_ShmStruKvMemPtCreate(&info.name, info.size, info.entryCount, info.mode, &info.partition);
    if (result != 0) return result;
  }
  g_table = table;
  g_count = count;
  g_created = true;
  return kSuccess;
}

uint32_t TOLA_ShmMemPtGet(TolaShmMemPtInfo** table, uint16_t* count) {
  if (table == nullptr || count == nullptr) return kFailure;
  *table = g_table;
  *count = g_count;
  return kSuccess;
}

void* TOLA_ShmStruKvMemPtAlloc(uint8_t partition, uint32_t size) {
  void* block = KEL_ShmStruKvMemPtAlloc(partition, size);
  if (block == nullptr) return nullptr;
  BlockName name;
  if (name.Print(block) && KEL_ShmStruKvMemEntrySet(name.text, block, size) == 0) return block;
  (void)KEL_ShmStruKvMemPtFree(block);  // nobody knows of it yet
  return nullptr;
}

uint32_t TOLA_ShmStruKvMemPtFree(void* pointer) {
  BlockName name;
  if (!name.Print(pointer)) return kFailure;
  uint32_t result = KEL_ShmStruKvMemEntryUnset(name.text, pointer);
  if (result != 0) {
    LOG_ERR(kLogModule, "KEL_ShmStruKvMemEntryUnset error: %#x", result);
    return kFailure;
  }
  result = KEL_ShmStruKvMemPtFree(pointer);
  if (result != 0) {
    LOG_ERR(kLogModule, "KEL_ShmStruKvMemPtFree error: %#x", result);
    return kFailure;
  }
  return kSuccess;
}

void TolaShmTablePartitionSet(uint8_t partition) {
  g_tablePartition = partition;
}

uint8_t TolaShmTablePartitionGet() {
  return g_tablePartition;
}
