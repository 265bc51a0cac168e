/// The main queue and all that comes through it: frames to pass on, what processes tell the main process
/// (module 37), and messages for its own modules.
///
/// The task "MAINQUEUE" waits on the public semaphore, reads the queue, lowest class first, and hands each
/// frame on without ever waiting for a receiver. Opening purges nothing: what processes sent while there was
/// no main process is taken then, and they register again by themselves.
#pragma once

#include <stdint.h>

#include <map>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "board_main/frame_router.h"
#include "board_main/platform_modules.h"
#include "board_main/registry.h"
#include "board_main/status_report.h"
#include "board_main/supervisor.h"
#include "msg/ipc_channel.h"
#include "msg/ipc_class.h"

namespace board_main {

class MainQueue {
 public:
  MainQueue();

  /// Opens or makes queue and semaphore, and gives both to the platform's account.
  /// @retval 1 one cannot be had, or is somebody else's; no memory
  [[nodiscard]] uint32_t Open();
  /// Starts the tasks. The object lives as long as the process. @retval the runtime's
  [[nodiscard]] uint32_t Start();

  // For any task. By the name under which a process registered; false: none of this name, or as said.

  [[nodiscard]] PlatformStatus Status();
  [[nodiscard]] bool RestartApp(const std::string& name);
  [[nodiscard]] bool RegisterAgain(const std::string& name);
  /// PlatformModules::Debug: false also without an answer. The caller is a task.
  [[nodiscard]] bool Debug(const std::string& name, const std::vector<uint16_t>& words, uint16_t& result);

 private:
  [[nodiscard]] uint32_t OpenObjects();
  void KeepObjects();
  static void TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t);
  void Run();
  [[nodiscard]] uint32_t Round();
  [[nodiscard]] bool ReadSome(uint64_t nowMs);
  void HandleFrame(const IPC_MSG_S& frame, size_t size, uint32_t sender, uint64_t nowMs);
  void HandleLocal(const IPC_MSG_S& frame, uint64_t nowMs);
  void HandleOwn(uint32_t pid, uint16_t type, std::span<const uint8_t> data, uint64_t nowMs);
  [[nodiscard]] bool HandleRegister(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs);
  [[nodiscard]] RegisterResult TryRegister(uint32_t pid, const IpcRegisterMsg& record,
                                           std::span<const uint16_t> ids, uint64_t nowMs);
  [[nodiscard]] bool HandleModuleChange(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs);
  [[nodiscard]] bool HandleHeartBeat(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs);
  [[nodiscard]] bool HandleReboot(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs);

  void RegistryChanged(uint64_t nowMs);
  void SendTables();
  [[nodiscard]] bool SendTable(uint32_t pid);
  [[nodiscard]] IPC_MSG_S MakeTable(const IpcAcknowledgeMsg& tables);
  [[nodiscard]] SendOutcome PassOn(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame);
  [[nodiscard]] SendOutcome SendFrame(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) const;
  /// A single frame of this process; `length` bytes of `data` behind `head`.
  [[nodiscard]] IPC_MSG_S MakeFrame(tagMsgBuf head, const void* data, size_t length);
  [[nodiscard]] bool SendOfModule(uint32_t pid, const tagMsgBuf& head, const std::vector<uint8_t>& data);
  [[nodiscard]] bool StartApp(const std::string& name, const ProcessImage& image);
  [[nodiscard]] QueueFill FillOf(uint32_t queueId) const;

  const uint32_t pid_;
  int32_t queueId_ = -1;
  int32_t semaphoreId_ = -1;
  IpcQueueReader reader_;
  IpcClassTable classes_;
  PlatformModules modules_;

  std::mutex mutex_;  ///< guards all below
  Registry registry_;
  FrameRouter router_;
  Supervisor supervisor_;
  std::set<uint32_t> tableDue_;  ///< processes that have not got the latest tables
  std::vector<pid_t> children_;  ///< that were started here and have not ended
  uint16_t sequence_ = 0;
  uint64_t lostFrames_ = 0;
  uint64_t lookedMs_ = 0;  ///< at the processes
};

}  // namespace board_main
