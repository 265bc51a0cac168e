/// The exception box's tables: signals, the names of signal codes, register labels.
#pragma once

#include <stddef.h>

/// The fatal signals that are captured, in the order in which they are: SIGFPE, SIGILL, SIGSEGV, SIGABRT,
/// SIGBUS, SIGXCPU, SIGXFSZ.
inline constexpr int kBoxFatalSignals[] = {8, 4, 11, 6, 7, 24, 25};

inline constexpr size_t kBoxRegisters = 21;
inline constexpr size_t kBoxStackPointer = 16;  ///< its place among the registers

/// "Reg: ... Val = " of each register, in the order of the ARM signal context.
extern const char* const kBoxRegisterLabels[kBoxRegisters];

/// Text of a signal code; empty for a signal without named codes and for a code that is none of them.
/// Async-signal-safe.
[[nodiscard]] const char* BoxSignalCodeName(int signal, int code);
