/// How the runtime waits: on a 32-bit word in the manner of futex(2), with a time-out on the runtime's clock.
///
/// For the runtime's own sources only. Nothing here allocates or takes a lock; all of it is
/// async-signal-safe. A wait on the machine's clock sleeps until its deadline; on a manual clock it looks
/// again every millisecond; a switch of the clock wakes whoever waits with a deadline, who then goes on by
/// the new one.
#pragma once

#include <stdint.h>

#include <atomic>

#include "velto/kel_clock.h"

namespace velto {

inline constexpr uint64_t kNsPerMs = 1'000'000;

/// The mode of the clock, as KEL_ClockModeSet takes it.
[[nodiscard]] uint32_t ClockMode();

/// The end of a wait, on the runtime's monotonic clock.
class Deadline {
 public:
  /// `timeoutMs` from now; KEL_WAIT_FOREVER never passes.
  explicit Deadline(uint32_t timeoutMs);
  /// At the moment `monotonicNs`.
  static Deadline At(uint64_t monotonicNs);
  static Deadline Never() { return Deadline(KEL_WAIT_FOREVER); }

  [[nodiscard]] bool never() const { return ns_ == kNever; }
  [[nodiscard]] bool Passed() const;
  [[nodiscard]] uint64_t ns() const { return ns_; }

 private:
  static constexpr uint64_t kNever = UINT64_MAX;
  uint64_t ns_;
};

/// Sleeps while `word` is `expected`, at most until `deadline`. May return early for no reason: the caller
/// looks at its state and the deadline again.
void WordWait(std::atomic<uint32_t>& word, uint32_t expected, const Deadline& deadline);

/// Lets a thread that is in the middle of a few instructions finish them: a short pause, and from the 64th
/// `turn` on the processor is given away, since that thread may need this very one.
void WaitBriefly(uint32_t turn);

/// Wakes up to `count` threads that sleep on `word`.
void WordWake(std::atomic<uint32_t>& word, uint32_t count);

inline constexpr uint32_t kWakeAll = 0x7FFFFFFF;

}  // namespace velto
