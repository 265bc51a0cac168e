/// Runs a program and collects what it printed.
#pragma once

#include <string>
#include <vector>

namespace support {

struct CommandResult {
  int status = -1;     ///< exit status; 128 and the signal's number when a signal ended it
  std::string output;  ///< standard output and standard error together
};

/// Runs `arguments` (the program first, looked up on the path) with an empty standard input and waits for its
/// end.
CommandResult RunCommand(const std::vector<std::string>& arguments);
/// Runs shell commands in `directory`, up to the first that fails.
CommandResult RunShell(const std::string& directory, const std::string& commands);

}  // namespace support
