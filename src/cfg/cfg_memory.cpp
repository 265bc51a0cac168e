#include "cfg/cfg_memory.h"

#include <string.h>

#include "cfg/tola_shm.h"
#include "log/run_log.h"
#include "velto/kel_mem.h"

void* cfg::AllocZeroed(bool shared, uint32_t memModuleId, uint64_t size) {
  if (size > UINT32_MAX) return nullptr;
  const auto length = static_cast<uint32_t>(size);
  void* memory = shared ? TOLA_ShmStruKvMemPtAlloc(TolaShmTablePartitionGet(), length)
                        : KEL_MemAlloc_F(memModuleId, 0, length, LogBaseName(__FILE__), __LINE__);
  if (memory != nullptr) memset(memory, 0, length);  // its whole length, which no bound could make safer
  return memory;
}

void cfg::Free(bool shared, void* memory) {
  if (shared) {
    (void)TOLA_ShmStruKvMemPtFree(memory);  // its failure is logged there, and the block stays
  } else {
    KEL_MemFree_F(memory, LogBaseName(__FILE__), __LINE__);
  }
}
