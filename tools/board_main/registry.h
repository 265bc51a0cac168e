/// Which processes of the board have registered, and which module ids live in them. Pure data: times are the
/// caller's, and whoever changes it tells the processes.
///
/// A process that registers again replaces what it registered before; so does one that took over the name or
/// the queue of another. A module id belongs to the process that named it first, until that process gives it
/// up or goes: a second claim is refused, whoever makes it, or messages would reach the wrong process. The
/// main process's own modules belong to nobody else.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <array>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "msg/ipc_main_msg.h"

namespace board_main {

inline constexpr uint16_t kAuthModule = 5;      ///< grants or refuses updates
inline constexpr uint16_t kFaultModule = 6;     ///< the platform's fault manager
inline constexpr uint16_t kCommandModule = 41;  ///< runs the exception boxes' map command

inline constexpr uint16_t kMainModules[] = {kAuthModule, kFaultModule, kIpcModule, kCommandModule};

/// Whether `moduleId` is the main process's own.
constexpr bool IsMainModule(uint16_t moduleId) {
  return std::find(std::begin(kMainModules), std::end(kMainModules), moduleId) != std::end(kMainModules);
}

/// Why a process was not registered; travels in its acknowledgement.
enum RegisterResult : uint32_t {
  kRegistered = 0,
  kRegisterErrVersion = 1,  ///< it speaks another version of the messages
  kRegisterErrRecord = 2,   ///< a field that cannot be: process id, queue id, name
  kRegisterErrFull = 3,     ///< 64 applications are registered
  kRegisterErrTaken = 4,    ///< a process that runs and reads another queue has its name or process id
};

struct RegisteredApp {
  APP_QUEUE_INFO_S queue = {};
  std::string name;
  std::string version;
  bool supervise = false;
  bool appArmRestart = false;
  uint32_t intervalMs = 0;
  uint32_t timeoutS = 0;
  uint64_t lastBeatMs = 0;  ///< of its registration until the first beat
  uint32_t beats = 0;       ///< counter of the last beat
};

class Registry {
 public:
  Registry() { map_.fill(kIpcNoApp); }

  /// Ids that were refused are added to `refused`; they do not keep the process from being registered.
  [[nodiscard]] RegisterResult Register(const IpcRegisterMsg& record, std::span<const uint16_t> ids,
                                        uint64_t nowMs, std::vector<uint16_t>& refused);
  /// Adds or removes module ids of process `pid`. False when no such process is registered.
  [[nodiscard]] bool AddModules(uint32_t pid, std::span<const uint16_t> ids, std::vector<uint16_t>& refused);
  [[nodiscard]] bool RemoveModules(uint32_t pid, std::span<const uint16_t> ids,
                                   std::vector<uint16_t>& refused);
  /// Takes a heart beat. False when no such process is registered.
  [[nodiscard]] bool Beat(uint32_t pid, uint32_t counter, uint64_t nowMs);
  void Drop(uint32_t pid);

  // Null when there is none. Pointers hold until the next change.
  [[nodiscard]] const RegisteredApp* FindByPid(uint32_t pid) const;
  [[nodiscard]] const RegisteredApp* FindByName(std::string_view name) const;
  [[nodiscard]] const RegisteredApp* FindByAppId(uint32_t appId) const;  ///< its platform module id
  [[nodiscard]] const RegisteredApp* FindByModule(uint16_t moduleId) const;

  [[nodiscard]] std::vector<RegisteredApp> Apps() const;  ///< by their places
  [[nodiscard]] std::vector<uint16_t> ModulesOf(uint32_t pid) const;

  /// The table of applications and the module map as they travel; `ownIndex` is that of process `pid`.
  [[nodiscard]] IpcAcknowledgeMsg Acknowledge(uint32_t mainPid, uint32_t pid) const;

 private:
  [[nodiscard]] const RegisteredApp* FindIf(const std::function<bool(const RegisteredApp&)>& matches) const;
  [[nodiscard]] size_t PlaceFor(const IpcRegisterMsg& record);
  void Release(size_t place);
  void Claim(size_t place, std::span<const uint16_t> ids, std::vector<uint16_t>& refused);
  [[nodiscard]] uint8_t PlaceOf(uint32_t pid) const;

  std::array<RegisteredApp, kIpcAppMax> apps_;  ///< a place is taken while its queue's pid is not 0
  std::array<uint8_t, kIpcMapSize> map_;
};

}  // namespace board_main
