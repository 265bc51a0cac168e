/// Capture of fatal signals: a registered handler sees the signal, then the process ends by it.
///
/// The handler runs on the thread that the signal hit, on its alternate stack where it has one (every task
/// has). A further fault inside the handler calls it again: it must know how deep it is.
#pragma once

#include <signal.h>
#include <stdint.h>

extern "C" {

inline constexpr uint32_t kKelErrSigcapPara = 0x0601;    ///< no such signal, a null handler, `on` above 1
inline constexpr uint32_t kKelErrSigcapNone = 0x0602;    ///< switched on without a registered handler
inline constexpr uint32_t kKelErrSigcapSystem = 0x0603;  ///< the system refused the action

/// Returns 1 for the signal's default action, which ends the process, or 0 to go on where the signal came.
typedef uint32_t (*KelSigcapHandler)(int signal, siginfo_t* info, void* context);

/// Sets the handler that a captured `signal` calls; captures nothing yet. A further call replaces it.
/// @retval kKelErrSigcapPara
[[nodiscard]] uint32_t KEL_SigcapHandleReg(int signal, KelSigcapHandler handler);

/// `on` 1 captures `signal` for the process, 0 gives it its default action back.
/// @retval kKelErrSigcapPara @retval kKelErrSigcapNone @retval kKelErrSigcapSystem
[[nodiscard]] uint32_t KEL_SigcapHandleSwitch(int signal, uint32_t on);

/// Ends the process by the default action of `signal`, a fatal one, whatever is blocked or captured.
/// Async-signal-safe.
[[noreturn]] void KEL_SigcapDefault(int signal);

}  // extern "C"
