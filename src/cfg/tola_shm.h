/// Shared-memory partitions as tables and arenas use them: each block is known by its address in the
/// directory of its partition, so that only what was allocated here can be given back here.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "velto/kel_shm.h"

/// One partition: what KEL_ShmStruKvMemPtCreate takes and gives.
struct TolaShmMemPtInfo {
  KelShmMemPtName name;
  uint32_t size;        ///< bytes for blocks
  uint32_t entryCount;  ///< blocks that can live at a time
  uint32_t mode;        ///< KelShmMode
  uint32_t partition;   ///< out: its number
};
static_assert(sizeof(TolaShmMemPtInfo) == 52 && offsetof(TolaShmMemPtInfo, size) == 36);

/// Creates the partitions of the table in their order and keeps the table itself, which must live on. Once
/// in a process; from one thread, before the partitions are used.
/// @retval 1 the table is null, or a call has succeeded before
/// @retval other the first failed creation's result; the partitions before it stay
[[nodiscard]] uint32_t TOLA_ShmMemPtCreate(TolaShmMemPtInfo* table, uint16_t count);
/// What TOLA_ShmMemPtCreate kept; null and 0 before. @retval 1 a null argument
uint32_t TOLA_ShmMemPtGet(TolaShmMemPtInfo** table, uint16_t* count);

/// `size` bytes of a partition, entered in its directory; null when memory or directory are full. Not zeroed.
[[nodiscard]] void* TOLA_ShmStruKvMemPtAlloc(uint8_t partition, uint32_t size);
/// @retval 1 the block is not in the directory, or not live; it stays as it is
[[nodiscard]] uint32_t TOLA_ShmStruKvMemPtFree(void* pointer);

/// The partition from which tables and arenas in shared-memory mode allocate; 0, the first one, until it is
/// set. Before the first of them, from one thread.
void TolaShmTablePartitionSet(uint8_t partition);
[[nodiscard]] uint8_t TolaShmTablePartitionGet();
