/// The modules that the main process has itself: 5 authorises, 6 is the platform's fault manager, 41 runs the
/// map command. They take their messages in a task of their own, so that none of them keeps frames waiting.
#pragma once

#include <stdint.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "msg/msg_interface_public.h"

namespace board_main {

inline constexpr uint16_t kMsgFaultRegister = 2572;        ///< both ways: registration, acknowledgement
inline constexpr uint16_t kMsgFaultDebug = 2573;           ///< to a process; its result comes back
inline constexpr uint16_t kMsgFaultRegisterAgain = 41696;  ///< to a process

/// A message for one of the modules, and the process that sent it.
struct ModuleMessage {
  uint32_t pid;
  tagMsgBuf head;
  std::vector<uint8_t> data;
};

class PlatformModules {
 public:
  /// Sends a message of module 6 to process `pid`. False: it is not registered.
  using SendFunc = std::function<bool(uint32_t pid, const tagMsgBuf& head, const std::vector<uint8_t>& data)>;

  /// Starts the task. @retval the runtime's
  [[nodiscard]] uint32_t Start(SendFunc send);
  /// Any task. A message that finds too many before it is dropped.
  void Post(ModuleMessage message);

  /// Asks process `pid`, whose fault agent is module `moduleId`, to register that agent again.
  [[nodiscard]] bool RegisterAgain(uint32_t pid, uint16_t moduleId);
  /// Sends a debug request, `words` in network order, and waits for its result, at most five seconds. The
  /// caller is a task. False: not sent, or no answer.
  [[nodiscard]] bool Debug(uint32_t pid, uint16_t moduleId, const std::vector<uint16_t>& words,
                           uint16_t& result);

 private:
  /// A debug request without its result.
  struct Asked {
    uint32_t pid;
    uint32_t taskId;  ///< waits for it
    bool answered;
    uint16_t result;
  };

  static void TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t);
  void Run();
  void Handle(const ModuleMessage& message);
  void HandleFault(const ModuleMessage& message);
  void HandleCommand(const ModuleMessage& message) const;

  SendFunc send_;
  std::vector<std::string> mapDirectories_;
  std::mutex mutex_;
  uint32_t taskId_ = 0;
  std::deque<ModuleMessage> waiting_;
  uint32_t registrations_ = 0;       ///< of fault agents; the task's alone
  uint16_t debugNumber_ = 0;         ///< sub-type of the last debug request
  std::map<uint16_t, Asked> asked_;  ///< by sub-type
};

}  // namespace board_main
