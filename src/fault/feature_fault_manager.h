/// The process's fault agent: keeps the process known to the platform's fault manager (module 6), drives what
/// wants to be called once a second, answers debug requests, and has the process restarted when its memory
/// use passes a threshold.
///
/// All of it runs in one task, "FaultMgr". Registration calls (TOLA_CfgProcessMemThreshold,
/// FaultRegTimer1sFunc) belong to start-up and may come before the agent is initialised.
#pragma once

#include <stdint.h>

#include <array>
#include <atomic>

#include "msg/msg_interface_public.h"

inline constexpr uint32_t kFaultErrNullCfg = 50689;    ///< 0xC601: no configuration
inline constexpr uint32_t kFaultErrRegister = 50690;   ///< 0xC602: module id or process id out of range
inline constexpr uint32_t kFaultErrThreshold = 10791;  ///< 0x2A27: percentage out of range, or no name

struct TOLA_FAULT_MGR_CFG_S {
  uint16_t moduleId;  ///< under which this process's agent is reached
};

/// Is called once a second in the task "FaultMgr"; its result is not used.
using FaultTimer1sFunc = uint32_t (*)();

/// Adds `callback` to the table of six, which is called in the order of registration; works before the agent
/// is initialised. Any thread. @retval 0 @retval 1 all six are taken, or `callback` is null
[[nodiscard]] uint32_t FaultRegTimer1sFunc(FaultTimer1sFunc callback);

/// Has the memory use checked every 300 seconds: at `percent` (1 to 99) or more of the configured budget the
/// restart of the process is asked for under `name` (at most 30 bytes); where that cannot be sent the process
/// kills itself. A further call changes percentage and name and adds no second check.
/// @retval kFaultErrThreshold percent, or null or too long a name @retval 1 the one-second table is full
[[nodiscard]] uint32_t TOLA_CfgProcessMemThreshold(uint16_t percent, const char* name);

/// Tells the platform's fault manager that module `moduleId` of process `pid` is here.
/// @retval kFaultErrRegister moduleId above 1856 or pid below 1 @retval 1 nobody takes the message
[[nodiscard]] uint32_t FeatureFaultMgrReg(uint16_t moduleId, int32_t pid);

class CFeatureFaultManager {
 public:
  /// Starts the task, its one-second timer and its message queue, and has the task register the process.
  /// Once a process; after a failure it may be called again.
  /// @retval kFaultErrNullCfg @retval 1 no task, or initialised already
  /// @retval other the timer's or the message manager's own result
  [[nodiscard]] uint32_t Init(const TOLA_FAULT_MGR_CFG_S* cfg);

 private:
  friend CFeatureFaultManager* TolaGetFaultMgr();
  CFeatureFaultManager() = default;

  static void TaskEntry(uintptr_t manager, uintptr_t, uintptr_t, uintptr_t);
  static void OnSecond(uintptr_t taskId);
  [[nodiscard]] uint32_t Start();
  [[noreturn]] void Run();
  void ProcessSecond();
  void DrainQueue();
  void ProcessMsg(const tagMsgBuf& msg);
  void Register();

  std::atomic<uint16_t> moduleId_ = 0;
  uint32_t taskId_ = 0;        ///< 0: no task yet
  uint16_t isRegistered_ = 0;  ///< the fault manager has acknowledged
  std::atomic<bool> isStarted_ = false;
  uint32_t quietSeconds_ = 0;  ///< until the next registration
};

/// The process's agent, made by the first call together with its memory handle; null when there is none to be
/// had. Any thread.
[[nodiscard]] CFeatureFaultManager* TolaGetFaultMgr();

/// TolaGetFaultMgr()->Init(cfg). @retval 1 there is no agent @retval other as Init
[[nodiscard]] uint32_t TOLA_FaultManagerInit(const TOLA_FAULT_MGR_CFG_S* cfg);

/// What a task that stopped beating comes to: the exception box records it (signal 46 to the task, or to the
/// caller when there is no such task), two seconds pass, the process ends with status 17.
[[noreturn]] void FaultRecordStuckTask(uint32_t taskId);
