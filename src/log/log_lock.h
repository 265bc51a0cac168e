/// The semaphore "LogPrint" and who holds it.
#pragma once

#include <stdint.h>

namespace runlog {

/// Makes the semaphore unless it exists. Any thread. @retval other KEL_SemaCreate's result
[[nodiscard]] uint32_t MakeLogSema();

/// Holds the semaphore for its scope. A thread that holds it already is never made to wait for itself.
class LogLock {
 public:
  LogLock();
  ~LogLock();
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;

  [[nodiscard]] bool IsHeld() const { return state_ == State::kHeld; }
  [[nodiscard]] bool IsFailed() const { return state_ == State::kFailed; }
  /// True when held, and before the semaphore exists: set-up from one thread needs no guard.
  [[nodiscard]] bool MayChange() const { return state_ == State::kHeld || state_ == State::kNotMade; }

 private:
  enum class State : uint8_t { kHeld, kNotMade, kNested, kFailed };
  State state_;
};

}  // namespace runlog
