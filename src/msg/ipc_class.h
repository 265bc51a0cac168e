/// Which messages overtake which on their way to another process.
#pragma once

#include <stdint.h>

#include "cfg/hash_table.h"

/// Priority classes by message type. Set up once, then read by any thread.
class IpcClassTable {
 public:
  /// @retval 1 no memory
  [[nodiscard]] uint32_t Init(uint32_t memHandle);
  /// Class of a message: 1 when it is urgent, else that of its type, 4 for most.
  [[nodiscard]] long ClassOf(uint16_t type, bool urgent) const;

 private:
  CHashTable table_{false};
};
