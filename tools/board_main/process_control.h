/// Processes by what the kernel says of them: who they are, how to end them and how to start them again.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace board_main {

/// A process as it was when it registered. The start time tells it from a later process of the same id.
struct ProcessImage {
  pid_t pid = 0;
  uint64_t startTicks = 0;  ///< since the machine's start
  uid_t user = 0;           ///< who started it
  gid_t group = 0;
  std::string program;  ///< full path
  std::string directory;
  std::vector<std::string> arguments;
};

/// False when there is no such process, or it may not be looked at.
[[nodiscard]] bool ReadProcessImage(pid_t pid, ProcessImage& image);
/// Whether the very process runs; one that has ended and waits for its parent does not. True for one of its
/// id that cannot be looked at now, for want of a descriptor for instance.
[[nodiscard]] bool ProcessIsAlive(const ProcessImage& image);
/// Sends `signal` to it, if it is still that process.
void SignalProcess(const ProcessImage& image, int signal);

/// Starts the program again with its arguments, as its user, in its directory, in a session of its own; it
/// inherits this process's environment alone, and its output is thrown away. @return its process id, or -1
[[nodiscard]] pid_t StartProcess(const ProcessImage& image);

}  // namespace board_main
