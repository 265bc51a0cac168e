#include "board_main/platform_modules.h"

#include <arpa/inet.h>
#include <string.h>

#include <utility>

#include "board_main/authorisation.h"
#include "board_main/map_command.h"
#include "board_main/registry.h"
#include "frame/public_file_cfg.h"
#include "log/run_log.h"
#include "update/script_exe_ids.h"
#include "velto/kel_task.h"

namespace board_main {
namespace {

constexpr uint32_t kTaskPriority = 20;
constexpr size_t kWaitingMax = 256;
constexpr uint32_t kDebugWaitMs = 5000;
constexpr uint32_t kEventMessage = 1;      ///< to the task of the modules
constexpr uint32_t kEventDebugResult = 4;  ///< to a task that asked

/// Files below whose directories the exception boxes of the platform's processes keep their maps.
constexpr const char* kExceptionFiles[] = {
    "/mnt/log/fault_manager_except_sys_info.tola",
    "/log/root_log/fault_manager_except_sys_info_update_active.tola",
};

}  // namespace

uint32_t PlatformModules::Start(SendFunc send) {
  send_ = std::move(send);
  for (const char* file : kExceptionFiles) {
    const std::string path = TOLA_GetFileFullName(file);
    mapDirectories_.push_back(path.substr(0, path.rfind('/') + 1));
  }
  const uintptr_t arguments[4] = {reinterpret_cast<uintptr_t>(this), 0, 0, 0};
  return KEL_TaskCreate("PLATFORMMODULES", &taskId_, TaskEntry, kTaskPriority, 0, 0, arguments);
}

void PlatformModules::Post(ModuleMessage message) {
  const std::lock_guard lock(mutex_);
  if (waiting_.size() >= kWaitingMax) {
    LOG_ERR(message.head.destination, "message %#x of process %u dropped", message.head.type, message.pid);
    return;
  }
  waiting_.push_back(std::move(message));
  (void)KEL_EventWrite(taskId_, kEventMessage);  // the task never ends
}

void PlatformModules::TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<PlatformModules*>(self)->Run();
}

void PlatformModules::Run() {
  for (;;) {
    std::deque<ModuleMessage> taken;
    {
      const std::lock_guard lock(mutex_);
      taken.swap(waiting_);
    }
    for (const ModuleMessage& message : taken) Handle(message);
    uint32_t events = 0;
    if (taken.empty()) (void)KEL_EventRead(kEventMessage, &events, kKelEventAny, KEL_WAIT_FOREVER);
  }
}

void PlatformModules::Handle(const ModuleMessage& message) {
  const tagMsgBuf& head = message.head;
  if (head.destination == kAuthModule && head.type == kMsgUpdateAuth) {
    AuthQuestion(message.data.data(), static_cast<uint32_t>(message.data.size()), head.subType);
  } else if (head.destination == kFaultModule) {
    HandleFault(message);
  } else if (head.destination == kCommandModule && head.type == kMsgRunCommand) {
    HandleCommand(message);
  } else {
    LOG_ERR(head.destination, "unknown message %#x of module %u", head.type, head.source);
  }
}

void PlatformModules::HandleFault(const ModuleMessage& message) {
  const tagMsgBuf& head = message.head;
  if (head.type == kMsgFaultRegister) {
    LOG_EVT(kFaultModule, "fault agent %u of process %u, registration %u", head.source, message.pid,
            ++registrations_);
    const tagMsgBuf acknowledge = {kFaultModule, head.source, kMsgFaultRegister, head.subType, 0, 0};
    (void)send_(message.pid, acknowledge, {});  // it registers again until it is acknowledged
    return;
  }
  const std::lock_guard lock(mutex_);
  const auto asked = asked_.find(head.subType);
  if (head.type != kMsgFaultDebug || message.data.size() != sizeof(Asked::result) || asked == asked_.end() ||
      asked->second.pid != message.pid) {
    LOG_ERR(kFaultModule, "unexpected message %#x of process %u", head.type, message.pid);
    return;
  }
  memcpy(&asked->second.result, message.data.data(), sizeof(Asked::result));
  asked->second.answered = true;
  (void)KEL_EventWrite(asked->second.taskId, kEventDebugResult);  // it waits while it stands in the table
}

void PlatformModules::HandleCommand(const ModuleMessage& message) const {
  const auto command = ParseMapCommand(message.data, message.pid, mapDirectories_);
  if (!command) {
    LOG_ERR(kCommandModule, "command of process %u refused", message.pid);
    return;
  }
  LOG_EVT(kCommandModule, "map of process %u: %u", message.pid, RunMapCommand(*command));
}

bool PlatformModules::RegisterAgain(uint32_t pid, uint16_t moduleId) {
  return send_(pid, {kFaultModule, moduleId, kMsgFaultRegisterAgain, 0, 0, 0}, {});
}

bool PlatformModules::Debug(uint32_t pid, uint16_t moduleId, const std::vector<uint16_t>& words,
                            uint16_t& result) {
  std::vector<uint8_t> data;
  for (const uint16_t word : words) {
    const uint16_t travelling = htons(word);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&travelling);
    data.insert(data.end(), bytes, bytes + sizeof(travelling));
  }
  Asked asked = {pid, 0, false, 0};
  if (KEL_TaskCurrentIdGet(&asked.taskId) != 0) return false;
  uint16_t number = 0;
  {
    const std::lock_guard lock(mutex_);
    number = ++debugNumber_;
    asked_[number] = asked;
  }
  uint32_t events = 0;
  if (send_(pid, {kFaultModule, moduleId, kMsgFaultDebug, number, 0, 0}, data))
    (void)KEL_EventRead(kEventDebugResult, &events, kKelEventAny, kDebugWaitMs);
  const std::lock_guard lock(mutex_);
  asked = asked_[number];
  asked_.erase(number);
  result = asked.result;
  return asked.answered;
}

}  // namespace board_main
