/// Which feature process this is. The frame is the same for all of them; what differs stands here, and each
/// program that links the frame defines it once.
#pragma once

#include <stdint.h>

struct TOLA_COMP_REG_BLOCK_S;

struct FeatureIdentity {
  const char* name;   ///< of the process: its executable, its queue, and part of its files' names
  uint16_t moduleId;  ///< its platform module
  /// Adds the process's component types to the block's platform set; null when it has none.
  uint32_t (*addComponents)(TOLA_COMP_REG_BLOCK_S* block);
};
extern const FeatureIdentity g_featureIdentity;
