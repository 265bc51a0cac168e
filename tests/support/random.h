/// Random numbers that a failed run can be repeated with.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <random>

namespace support {

/// A generator of a new seed, which is printed.
inline std::mt19937 NewRandom() {
  const uint32_t seed = std::random_device{}();
  printf("seed %u\n", seed);
  return std::mt19937(seed);
}

/// A random number below `limit`, the same for a seed everywhere.
inline uint32_t Below(std::mt19937& random, uint32_t limit) {
  return static_cast<uint32_t>(random() % limit);
}

}  // namespace support
