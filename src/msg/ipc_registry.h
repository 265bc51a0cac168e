/// Who has which module: the application table and the module map as the main process last told them, and the
/// modules that this process has.
///
/// "FEATURE_IPC_SEMA" guards all of it, for as long as it takes to look or to copy: never while something is
/// sent.
#pragma once

#include <stdint.h>

#include <atomic>
#include <bitset>

#include "msg/ipc_channel.h"
#include "msg/ipc_main_msg.h"

inline constexpr uint32_t kIpcErrTableSema = 49409;  ///< 0xC101: "FEATURE_IPC_SEMA" could not be made
inline constexpr uint32_t kIpcErrTableTake = 49413;  ///< 0xC105: "FEATURE_IPC_SEMA" could not be taken
inline constexpr uint32_t kIpcErrModule = 49415;     ///< 0xC107: a module id outside both ranges
inline constexpr uint32_t kIpcErrLocal = 49419;      ///< 0xC10B: a module of this very process

inline constexpr uint16_t kIpcModuleAdded = 0;
inline constexpr uint16_t kIpcModuleRemoved = 1;

/// Any thread, once Init has returned 0.
class IpcRegistry {
 public:
  /// Makes the semaphore. `app` is this process, as others reach it; logged when it fails. Again, by the
  /// thread that takes acknowledgements: the process has another queue now.
  /// @retval kIpcErrTableSema
  [[nodiscard]] uint32_t Init(const IpcTarget& app);

  /// Where messages for `moduleId` go: to its application, or, where that is not known, to `*toMain`.
  /// @retval kIpcErrModule @retval kIpcErrTableTake @retval kIpcErrLocal
  [[nodiscard]] uint32_t Find(uint16_t moduleId, IpcTarget* target, bool* toMain);

  /// Notes modules of this process that came or went.
  /// @retval kIpcErrModule one of the ids has no place in the map; the others are noted @retval
  /// kIpcErrTableTake
  [[nodiscard]] uint32_t NoteLocal(uint16_t operation, uint32_t count, const uint16_t* ids);

  /// The first `max` modules of this process, in the order of their ids; gives their number.
  uint32_t LocalModules(uint16_t* ids, uint32_t max);
  /// The first `max` modules that came (or went) here and that the main process's map does not show yet;
  /// gives their number. What the map has at another application is not asked for.
  uint32_t Differences(uint16_t operation, uint16_t* ids, uint32_t max);

  /// Takes the main process's table and map over, as of now, if they are about this process.
  /// @retval 1 they are not, or the main process refused the registration: it has to be sent again
  /// @retval kIpcErrTableTake
  [[nodiscard]] uint32_t TakeAcknowledge(const IpcAcknowledgeMsg& acknowledge);

  /// Process id of the main process that acknowledged; 0 while none has. Needs no semaphore.
  [[nodiscard]] uint32_t mainPid() const { return mainPid_.load(std::memory_order_relaxed); }
  /// The main process that acknowledged is gone. What it told about the others still counts.
  void ForgetMain();
  /// Whether `pid` passes on what others sent: the main process, or the one before it for 30 s more, since
  /// its last frames may lie unread. For the reading task, as is ForgetMain.
  [[nodiscard]] bool PassesOn(uint32_t pid) const;

 private:
  [[nodiscard]] bool IsAbout(const IpcAcknowledgeMsg& acknowledge) const;
  [[nodiscard]] const APP_QUEUE_INFO_S* HolderBefore(uint32_t place) const;
  void KeepBefore();

  uint32_t sema_ = 0;
  IpcTarget app_ = {};
  std::atomic<uint32_t> mainPid_{0};
  uint32_t formerMainPid_ = 0;
  uint64_t formerUntilNs_ = 0;
  std::bitset<kIpcMapSize> local_;
  bool known_ = false;  ///< `table_` is from the main process
  IpcAcknowledgeMsg table_ = {};
  /// What the main processes before this one told last: a new one does not know everybody at once, and until
  /// it does, messages keep the road that they had.
  IpcAcknowledgeMsg before_ = {};
  uint64_t beforeUntilNs_ = 0;
};
