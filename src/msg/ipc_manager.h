/// Carries platform messages between processes: registration with the main process, the way out for messages
/// of modules that live elsewhere, and the tasks that read this process's own queue.
///
/// A process has one System V queue and one semaphore. A message is cut into frames for the queue of the
/// process that has its destination module; where that is not known they go to the main process, which
/// passes them on. Reception, rebuilding and the 20 ms timer work are the task "IPCMGR"'s alone; a second
/// task waits on the semaphore for it.
#pragma once

#include <stdint.h>

#include "msg/ipc_registry.h"

inline constexpr uint32_t kIpcErrHandle = 41218;     ///< 0xA102: no memory handle
inline constexpr uint32_t kIpcErrOwnKey = 41219;     ///< 0xA103: the application's path does not exist
inline constexpr uint32_t kIpcErrMainQueue = 41220;  ///< 0xA104: the main queue cannot be had, or is foreign
inline constexpr uint32_t kIpcErrOwnQueue = 41221;   ///< 0xA105: the own queue cannot be had, or is foreign
inline constexpr uint32_t kIpcErrRemove = 41222;  ///< 0xA106: ... or not be made anew, or is the main queue
inline constexpr uint32_t kIpcErrTask = 41225;    ///< 0xA109: a task could not be started
inline constexpr uint32_t kIpcErrTimer = 41227;   ///< 0xA10B: the timer could not be started
inline constexpr uint32_t kIpcErrSemap = 41265;   ///< 0xA131: a semaphore cannot be had, or is foreign

struct TOLA_APP_MODULE_INFO_S {
  uint16_t moduleId;
};
/// What this process tells the main process about itself.
struct TOLA_APP_REG_INFO_S {
  char name[256];                        ///< names its queue and semaphore; not empty
  char version[32];                      ///< text
  const TOLA_APP_MODULE_INFO_S* module;  ///< the module that takes the main process's requests; may be null
  uint32_t heartBeatIntervalMs;
  uint32_t superviseTimeoutS;
  uint8_t supervise;
  uint8_t appArmRestart;
};

/// Brings the manager up; the message manager must be. Registration with the main process goes on in the
/// background until it is acknowledged, so a main process that is not there yet is no failure. A second call
/// returns 0 and changes nothing; after a failure it may be called again.
/// @retval kIpcErrHandle @retval kIpcErrMainQueue @retval kIpcErrOwnKey @retval kIpcErrOwnQueue
/// @retval kIpcErrRemove @retval kIpcErrSemap @retval kIpcErrTableSema @retval kIpcErrTask
/// @retval kIpcErrTimer
/// @retval 1 null record or empty name, no memory for the class table, or the queue or semaphore could not
/// be handed to the platform's account
[[nodiscard]] uint32_t TolaFeatureIpcMgrInit(const TOLA_APP_REG_INFO_S* info);

/// Ask the main process to restart an application, by its registered name or its platform module id. 0 says
/// that the request is on its way. Blocks for up to 5 s while the main process's queue is full. Any thread.
/// @retval 1 not initialised, null or a name that is too long @retval kIpcErrSend (49410)
[[nodiscard]] uint32_t TolaRebootAppByAppName(const char* name);
[[nodiscard]] uint32_t TolaRebootAppByAppId(uint32_t id);

/// Tells the main process of modules that came (operation 0) or went (1) here. Never blocks: what does not
/// get through now is sent again until the main process's map shows it. Any thread.
/// @retval 1 unknown operation, or null @retval kIpcErrTableTake, also before the manager is initialised
/// @retval kIpcErrModule one of the ids has no place in the map
[[nodiscard]] uint32_t TolaFeatureAppModuleIDChangeNotify(uint32_t operation, uint32_t count,
                                                          const uint16_t* ids);
/// Announces the component `csi`, whose module id it is. Without effect, and 0, before the manager is
/// initialised. @retval other TolaFeatureAppModuleIDChangeNotify's
[[nodiscard]] uint32_t TolaFeatureAppCompIDAddNotify(uint32_t csi);

/// Lets the next tick ask the main process for this application's own restart.
void TolaFeatureAppArmRestart();
