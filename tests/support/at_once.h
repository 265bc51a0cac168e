/// Runs one body on several threads.
#pragma once

#include <stdint.h>

#include <functional>
#include <thread>
#include <vector>

namespace support {

/// Calls `body` with 0 to `count` - 1, each on a thread of its own, and waits for all of them.
inline void AtOnce(uint32_t count, const std::function<void(uint32_t)>& body) {
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace support
