/// The FIFO of the configuration key clock.control. For the runtime's own sources only.
#pragma once

namespace velto {

/// Makes the FIFO `path` (or takes one that is there, of this user and closed to all others) and starts the
/// task "KELCLOCK", which moves the monotonic clock on by the milliseconds of each line. An empty path does
/// nothing. What cannot be used is said in one line on standard output, and the process goes on without.
void ClockControlStart(const char* path);

}  // namespace velto
