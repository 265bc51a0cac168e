/// The exception box: on a fatal signal it writes what every task was doing into a crash file, which the next
/// start keeps as the exception file, with the process's memory map behind it.
///
/// Files: the crash file of this run is the exception file's name with ".tmp", its memory map the one with
/// ".map.tmp"; both are made anew, with mode 0600, at every start. A crash file with content moves to the
/// exception file's name at the next start, and the exception file that was there to the backup's name.
/// `tools/box_report` reads such a file.
///
/// What runs when a signal has come is in box_record.h; everything here runs at start-up or once a second.
#pragma once

#include <signal.h>
#include <stdint.h>

#include "fault/box_files.h"
#include "fault/box_record.h"

inline constexpr uint32_t kBoxErrSignal = 10789;  ///< 0x2A25: a signal cannot be captured
inline constexpr uint32_t kBoxErrSema = 10790;    ///< 0x2A26: no semaphore

/// Sets the box up, once a process; a second call changes nothing. `names` null: the default files. A failure
/// is one line in the run log and does not stop the start. @retval 0 always
uint32_t TOLA_SignalBoxInit(const TOLA_SIGNAL_BOX_S* names);

/// A further record of the user's, called in the signal context of the faulting task with the signal and the
/// crash file's name, after the tasks have been asked for their blocks: only what is async-signal-safe may be
/// done there. Null takes the hook away.
void TOLA_RegBoxUserInfoRecordHook(BoxUserInfoHook hook);

/// Asks module 41 of the platform to run `command`, whose `length` counts the terminating zero.
/// @retval kFailure null, or `length` does not fit the text @retval other the post's
[[nodiscard]] uint32_t SendSystemCmdExecMsg(const char* command, uint16_t length, uint16_t flag);

/// sigaction with SA_SIGINFO on the alternate stack, empty mask, interrupted calls restarted.
/// @retval kErrCopy no handler @retval 1 the system refuses
[[nodiscard]] uint32_t InstallSigHandlers(int signal, void (*handler)(int, siginfo_t*, void*));

class CBoxManager {
 public:
  /// The process's box; null when there is no memory for it. Any thread.
  static CBoxManager* GetInstance();

  /// Prepares the files, then the signals. What was set up before a failure stays.
  /// @retval kErrFormat a name is empty, too long or not fit for a command line @retval kBoxErrOpen
  /// @retval kBoxErrSema @retval kBoxErrSignal
  [[nodiscard]] uint32_t Init(const TOLA_SIGNAL_BOX_S& names);

  /// Writes the process's memory map into a new file `path`. When that fails the platform is asked to do it.
  /// @retval kErrFormat the name is not fit for a command line @retval kBoxErrOpen
  [[nodiscard]] static uint32_t OperatMapInfoFile(const char* path);

  /// Once a second: writes the map again after three and after nine minutes, since libraries may have been
  /// loaded meanwhile. @retval 0
  uint32_t RefreshMapOnSecond();

 private:
  CBoxManager() = default;

  [[nodiscard]] uint32_t CaptureSignals();

  BoxNames names_{};
  uint32_t seconds_ = 0;
};
