/// The main control loop: one task, "MCLTASK", in which components have their event callbacks run, and a list
/// of the modules that share it.
///
/// The loop's task is made by TOLA_MclTaskInit or by the first registration. Events raised before
/// TOLA_NotifyMclInitEnd are kept and served at the first wake after it; an idle loop wakes every 100 s.
/// Every call may be made by any thread, though registration belongs into start-up.
#pragma once

#include <stdint.h>

#include <array>
#include <atomic>
#include <mutex>

#include "msg/msg_interface_public.h"
#include "msg/task_manager.h"

inline constexpr uint32_t kMclErrManager = 0x3918;  ///< 14616: no memory for the manager
inline constexpr uint32_t kMclErrName = 0xFFFF;     ///< 65535: null or too long task name
inline constexpr uint16_t kMclModule = 1;           ///< sender of the notifications
inline constexpr uint16_t kMclNotifyType = 0x3A00;  ///< 14848: their type
inline constexpr uint32_t kMclModules = 32;

/// Makes the loop's task under `name` (at most 30 characters), null for "MCLTASK"; 0 when it exists. A
/// failure is one level-4 line.
/// @retval kMclErrName @retval kMclErrManager @retval kTaskManagerErrCreate @retval kTaskManagerErrMap
[[nodiscard]] uint32_t TOLA_MclTaskInit(const char* name);

/// Gives the loop's task id and binds `callback`, which gets a null argument.
/// @retval 1 null `taskId` or `callback`, not exactly one bit, or the bit is taken
/// @retval other of TOLA_MclTaskInit
[[nodiscard]] uint32_t TOLA_RegEventToMcl(uint32_t eventBit, TaskEventFunc callback, uint32_t* taskId);

/// Adds a module to those that share the loop and tells them all; 0 also when it is listed already, and when
/// somebody could not be told. `flag` is not used.
/// @retval 1 module id 0, or 32 modules are listed @retval other of TOLA_MclTaskInit
[[nodiscard]] uint32_t TOLA_RegModuleIdToMcl(uint16_t moduleId, uint32_t flag);

/// Start-up has ended: from the next wake on the loop serves its events.
void TOLA_NotifyMclInitEnd();
[[nodiscard]] uint32_t TOLA_GetMclInitEndFlag();  ///< 1 after TOLA_NotifyMclInitEnd, else 0

/// 0 when the module is registered with the loop, else 1.
[[nodiscard]] uint32_t MclModuleIsReady(uint16_t moduleId);
/// 0 when `msg`, a notification (type kMclNotifyType) as a module receives it, lists `moduleId`, else 1.
/// Nothing is read behind the message's length.
[[nodiscard]] uint32_t MclModuleIdNotify(const tagMsgBuf* msg, uint16_t moduleId);

/// What stands behind the calls above.
class CMclManager {
 public:
  /// The one manager, made at the first call; null when there is no memory.
  [[nodiscard]] static CMclManager* GetInstance();

  [[nodiscard]] uint32_t MclTaskCreate(const char* name);
  [[nodiscard]] uint32_t RegEvent(uint32_t eventBit, TaskEventFunc callback, uint32_t* taskId);
  [[nodiscard]] uint32_t RegModuleId(uint16_t moduleId);
  [[nodiscard]] bool HasModuleId(uint16_t moduleId);
  /// Task that created the loop; kTaskManagerNoTask when it was no platform task, or there is no loop yet.
  [[nodiscard]] uint32_t MainTaskId() const { return mainTaskId_.load(std::memory_order_relaxed); }

 private:
  CMclManager() = default;

  std::mutex createLock_;  ///< of the task's making alone
  CTaskManager task_;
  std::atomic<uint32_t> mainTaskId_{kTaskManagerNoTask};
  std::mutex listLock_;  ///< guards what follows; never held while a message is posted
  std::array<uint16_t, kMclModules> modules_{};  ///< 0 is a free slot
  uint16_t count_ = 0;
  uint16_t notifySequence_ = 0;
};
