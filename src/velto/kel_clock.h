/// The one source of time: monotonic and wall clock, replaceable by tests, and every wait measured with them.
///
/// In manual mode time stands still until it is moved, and whoever waits with a time-out in the runtime wakes
/// as soon as the moved time has passed it. With auto-advance, KEL_TaskDelay moves the time itself and
/// returns at once, so that code full of delays runs in no time. On a development board the configuration
/// key clock.control lets a FIFO move the monotonic clock of a running process on.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t KEL_WAIT_FOREVER = 0xFFFFFFFFu;

/// Nanoseconds since an arbitrary start; never goes back. Async-signal-safe in real mode.
uint64_t KEL_ClockMonotonicNs(void);

/// Nanoseconds since 1970-01-01 00:00 UTC.
uint64_t KEL_ClockWallNs(void);

enum KelClockMode : uint32_t {
  kKelClockReal = 0,         ///< the machine's clocks
  kKelClockManual = 1,       ///< stands still until KEL_ClockAdvanceMs
  kKelClockAutoAdvance = 2,  ///< manual, and a delay moves the time by its length
};

/// Switches the source; the time goes on from where it stands. Thread-safe; waits that run already adapt.
void KEL_ClockModeSet(uint32_t mode);

/// Moves both clocks forward by `milliseconds` (manual modes; ignored in real mode).
void KEL_ClockAdvanceMs(uint64_t milliseconds);

/// Moves the monotonic clock alone on by `milliseconds`, in every mode; waits with a time-out that it passes
/// end. A move past the end of time (2^63 ns) is ignored. What the configuration key clock.control does;
/// nothing else in a product may.
void KEL_ClockMonotonicMoveMs(uint64_t milliseconds);

/// Sets the wall clock alone (manual modes; ignored in real mode).
void KEL_ClockWallSetNs(uint64_t nanoseconds);

/// The CPU tick counter: a monotonic 64-bit count at nanosecond rate, given as two halves.
/// @retval 0 always
uint32_t KEL_GetCpuTick(uint32_t* high, uint32_t* low);

/// Sets how many CPU ticks make one user tick, for whoever asks with KEL_CpuTickBaseGet. The tick from which
/// they are counted is ignored: g_pfnUsrAdjustHook does the counting and remembers it.
/// @retval 1 base is 0
[[nodiscard]] uint32_t KEL_CpuTickBaseSet(uint32_t base, uint32_t tickHigh, uint32_t tickLow);
/// @retval 1 no base is set, or `base` is null
[[nodiscard]] uint32_t KEL_CpuTickBaseGet(uint32_t* base);

/// User ticks that passed so far: the sum of what g_pfnUsrAdjustHook (kel_cfg.h) returned. The timer thread
/// asks the hook each time it wakes, so nothing is counted before the first timer runs.
/// @retval 1 a null argument
[[nodiscard]] uint32_t KEL_UserTickGet(uint32_t* high, uint32_t* low);

/// 64-bit arithmetic on halves. Results are stored only on 0.
/// @retval 1 a null argument; Sub: the result would be negative; Add: it would not fit; Div: division by zero
[[nodiscard]] uint32_t KEL_64Sub64(uint32_t high, uint32_t low, uint32_t subHigh, uint32_t subLow,
                                   uint32_t* outHigh, uint32_t* outLow);
[[nodiscard]] uint32_t KEL_64Add64(uint32_t high, uint32_t low, uint32_t addHigh, uint32_t addLow,
                                   uint32_t* outHigh, uint32_t* outLow);
[[nodiscard]] uint32_t KEL_64Div32(uint32_t high, uint32_t low, uint32_t divisor, uint32_t* quotientHigh,
                                   uint32_t* quotientLow, uint32_t* remainder);

}  // extern "C"
