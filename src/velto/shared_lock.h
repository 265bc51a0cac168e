/// A lock in memory that processes share, which outlives a holder that dies. For the runtime's own sources
/// only; it is held for a few instructions at a time.
#pragma once

#include <pthread.h>
#include <stdint.h>

namespace velto {

class SharedLock {
 public:
  /// Before any other use, by the one who makes the memory.
  [[nodiscard]] bool Init();

  enum class Taken : uint8_t {
    kYes,
    kAfterDeath,  ///< taken, but its last holder died half way through
    kNo,          ///< the time passed, or the lock was never one
  };
  [[nodiscard]] Taken Take();
  [[nodiscard]] Taken TakeWithin(uint32_t milliseconds);  ///< of real time
  void Release();

 private:
  pthread_mutex_t mutex_;
};

}  // namespace velto
