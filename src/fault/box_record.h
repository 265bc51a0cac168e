/// The exception box's part in the signal context: the blocks of the crash file.
///
/// Everything but BoxRecordStart is async-signal-safe: write(2) to the descriptor that was opened at the
/// start, texts formed in a buffer on the stack, no allocation, no stdio, no locale. Failures to write are
/// not reported: there is nobody left to whom.
///
/// A crash, on the faulting thread: its own block, signal 45 to every other task, which writes its block,
/// five seconds for them, the end by the signal. A second thread that faults meanwhile writes its block and
/// waits; a fault in all this on a thread that is at it leaves the step in which it came and goes on with the
/// next.
#pragma once

#include <signal.h>
#include <stdint.h>

inline constexpr int kBoxTaskInfoSignal = 45;      ///< a task writes its own block and goes on
inline constexpr int kBoxHeartTimeoutSignal = 46;  ///< a task stopped beating: handled like a crash

using BoxUserInfoHook = void (*)(int signal, const char* fileName);

/// What the handlers need. Lives as long as the process.
struct BoxRecordSetup {
  int fd;                ///< the crash file
  uint32_t saveSemaId;   ///< "BoxSaveFile"
  const char* fileName;  ///< of the crash file, for the user's hook
};

/// Keeps `setup`, the offset from UTC and the process, and loads what `backtrace` needs. Before the first
/// signal.
void BoxRecordStart(const BoxRecordSetup& setup);
void BoxRecordHook(BoxUserInfoHook hook);
/// Tasks of this id and below are not asked for blocks; 0 asks all. Any thread.
void BoxRecordFilter(uint32_t taskId);

/// From now on signal 46 ends nothing: who sends it ends the process with a status of its own, or this one's
/// alarm does. Any thread.
void BoxLeaveEndToSender();

/// Handler of the fatal signals, for the signal capture, which ends the process afterwards. Returns at once
/// in a forked child, whose crash is not this file's matter. @retval 1
uint32_t BoxCrashHandler(int signal, siginfo_t* info, void* context);
/// The same with the end of the process (but see BoxLeaveEndToSender), for signal 46.
void BoxHeartTimeoutHandler(int signal, siginfo_t* info, void* context);
/// Handler of signal 45; the interrupted task goes on afterwards.
void BoxTaskInfoHandler(int signal, siginfo_t* info, void* context);
