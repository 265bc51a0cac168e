/// Watches the registered processes, ends those that are stuck and starts them again.
///
/// A process that has gone leaves the registry at once; a supervised one is started again when its time-out
/// has passed since its last heart beat, and again each time-out until it has registered; not one that never
/// confirmed that it was it that registered, or anybody's program could be started in another's name. A
/// supervised one that is there but silent for its time-out, at two looks in a row, is ended first, and so is
/// one whose restart is asked for: SIGTERM, after two seconds SIGKILL. Single-threaded; times are the
/// caller's.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>

#include "board_main/process_control.h"
#include "board_main/registry.h"

namespace board_main {

class Supervisor {
 public:
  /// How processes are looked at, ended and started. `start` gets the application's name, too: the platform
  /// may have a script for it.
  struct Actions {
    std::function<bool(const ProcessImage&)> alive;
    /// Whether the process is known to be the one that registered.
    std::function<bool(const RegisteredApp&)> confirmed;
    std::function<void(const ProcessImage&, int signal)> signal;
    std::function<bool(const std::string& name, const ProcessImage&)> start;
    std::function<void(const std::string& name, const char* what)> report;
  };

  Supervisor(Registry& registry, Actions actions) : registry_(registry), actions_(std::move(actions)) {}

  /// A process has registered as `name`; `image` is how it is started again.
  void Registered(const std::string& name, const ProcessImage& image);
  /// Whether the process is on its way out, so that it may not register again.
  [[nodiscard]] bool IsEnding(const ProcessImage& image) const;
  /// Whether a process that runs and is known to be the one that registered has the record's name or process
  /// id, with another queue: nobody takes its place, it would get its messages.
  [[nodiscard]] bool IsHeld(const IpcRegisterMsg& record) const;
  /// Ends a registered process, takes it out of the registry and starts it again. False when there is none,
  /// or it is not known to be the one that registered.
  [[nodiscard]] bool Restart(uint32_t pid, uint64_t nowMs);
  /// To be called about once a second. @return whether the registry changed
  [[nodiscard]] bool Step(uint64_t nowMs);

 private:
  struct Known {
    ProcessImage image;
    bool confirmed;  ///< at some look
  };
  struct Pending {
    std::string name;
    ProcessImage image;
    bool ending;       ///< else it waits for its start
    uint64_t atMs;     ///< of the next signal, or of the start
    uint64_t againMs;  ///< 0: it is started once
  };

  void StepPending(uint64_t nowMs);
  [[nodiscard]] bool Start(Pending& pending, uint64_t nowMs);

  Registry& registry_;
  Actions actions_;
  std::map<uint32_t, Known> known_;  ///< the registered ones
  std::list<Pending> pending_;
  std::set<uint32_t> silent_;  ///< at the last look
};

}  // namespace board_main
