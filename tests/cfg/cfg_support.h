/// What the room's cases share: a memory handle and what is live under it.
#pragma once

#include <gtest/gtest.h>

#include <utility>

#include "velto/kel_mem.h"

inline uint32_t TestHandle() {
  uint32_t handle = 0;
  EXPECT_EQ(KEL_HandleInitialize("cfg test", &handle), 0u);
  return handle;
}

/// Bytes and allocations under the handle.
inline std::pair<uint64_t, uint64_t> HeapUse() {
  std::pair<uint64_t, uint64_t> use;
  EXPECT_EQ(KEL_HandleUseGet(TestHandle(), &use.first, &use.second), 0u);
  return use;
}
