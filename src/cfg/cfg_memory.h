/// Where tables and arenas get their memory: the heap, or their shared-memory partition. For this room alone.
#pragma once

#include <stdint.h>

namespace cfg {

/// Zero-filled memory; null when there is none, or more than 32 bits of it were asked for. `shared` decides
/// between the partition of TolaShmTablePartitionGet and the heap under the handle `memModuleId`.
[[nodiscard]] void* AllocZeroed(bool shared, uint32_t memModuleId, uint64_t size);
void Free(bool shared, void* memory);

}  // namespace cfg
