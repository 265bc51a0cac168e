/// The two futex calls of the runtime, with 64-bit times on every machine.
#pragma once

#include <errno.h>
#include <linux/futex.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace velto {

/// The kernel's timespec of the 64-bit time calls: both fields are 64 bits wide.
struct FutexTime {
  int64_t seconds;
  int64_t nanoseconds;
};

/// The word of an atomic as the kernel sees it.
inline uint32_t* FutexWord(std::atomic<uint32_t>& word) {
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                std::atomic<uint32_t>::is_always_lock_free);
  return reinterpret_cast<uint32_t*>(&word);
}

/// Sleeps while `word` is `expected`, until the absolute CLOCK_MONOTONIC moment `until`; null is forever.
/// Returns for any reason, errno is kept.
inline void FutexWait(std::atomic<uint32_t>& word, uint32_t expected, const FutexTime* until) {
  constexpr int kOperation = FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG;
  const int kept = errno;
#if defined(SYS_futex_time64)
  const long result = syscall(SYS_futex_time64, FutexWord(word), kOperation, expected, until, nullptr,
                              FUTEX_BITSET_MATCH_ANY);
  if (result != 0 && errno == ENOSYS) {  // a 32-bit kernel before 5.1 knows 32-bit times only
    struct {
      int32_t seconds;
      int32_t nanoseconds;
    } narrow{};
    if (until != nullptr) {
      narrow.seconds = until->seconds > INT32_MAX ? INT32_MAX : static_cast<int32_t>(until->seconds);
      narrow.nanoseconds = static_cast<int32_t>(until->nanoseconds);
    }
    (void)syscall(SYS_futex, FutexWord(word), kOperation, expected, until != nullptr ? &narrow : nullptr,
                  nullptr, FUTEX_BITSET_MATCH_ANY);
  }
#else
  (void)syscall(SYS_futex, FutexWord(word), kOperation, expected, until, nullptr, FUTEX_BITSET_MATCH_ANY);
#endif
  errno = kept;
}

inline void FutexWake(std::atomic<uint32_t>& word, uint32_t count) {
  const int kept = errno;
  (void)syscall(SYS_futex, FutexWord(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
  errno = kept;
}

}  // namespace velto
