/// A board of the test's own with this build's programs.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/command.h"
#include "support/temp_dir.h"

namespace system_test {

/// ThreadSanitizer hands a signal on at the next call that it knows, and a task's wait is none: a task that
/// waits then writes no block of its own.
#if defined(__SANITIZE_THREAD__)
constexpr bool kSignalsReachWaits = false;
#else
constexpr bool kSignalsReachWaits = true;
#endif

/// What `update_request --json` said.
struct Answer {
  int status = -1;   ///< its exit status
  int result = -1;   ///< result code; -1 when it gave none
  std::string text;  ///< all of its output
};

class Board {
 public:
  Board();   ///< brings it up without any process of the platform
  ~Board();  ///< ends every process of it
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  support::CommandResult Exec(const std::vector<std::string>& arguments) const;
  support::CommandResult Shell(const std::string& script) const { return Exec({"sh", "-c", script}); }
  void Put(const std::string& file, const std::string& path) const;
  std::string Read(const std::string& path) const { return Exec({"cat", path}).output; }
  bool Exists(const std::string& path) const { return Exec({"test", "-e", path}).status == 0; }

  /// Tries a shell command until it succeeds; `between` is done before each further try. False when a minute
  /// or so was not enough.
  bool Comes(const std::string& condition, const std::string& between = ":") const;

  void StartDaemon() const;  ///< returns when it takes requests
  void StartMain() const;    ///< board_main; returns when it takes requests
  void EndMain() const;
  /// Process id of a program, empty when it does not run. Waits while there are several: it becomes a daemon
  /// or starts a command.
  std::string PidOf(const std::string& program) const;
  /// The process id under which the main process knows the program; waits for another one than `before`.
  /// Empty when there is none in time.
  std::string RegisteredPid(const std::string& program, const std::string& before = "") const;
  Answer Request(const std::vector<std::string>& options) const;
  std::string RunLog(const std::string& program = "update_active") const {
    return Read("/mnt/sub_bin/sys_log/" + program + "_run_log.log");
  }

 private:
  support::TempDir dir_;
};

}  // namespace system_test
