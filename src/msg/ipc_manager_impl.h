/// The IPC manager's inside: who runs what, and what they share.
///
/// Senders are any thread; they share the registry, which locks itself, and atomic words. Everything else
/// belongs to the task "IPCMGR" from its start on: the queue's reader, the messages being built, the timer's
/// work. The reader task only waits on the semaphore; while the queue is being read it is parked, so that a
/// sender in full flow raises a semaphore on which nobody sleeps.
#pragma once

#include <stdint.h>

#include <atomic>
#include <mutex>

#include "base/never_destroyed.h"
#include "msg/ipc_class.h"
#include "msg/ipc_endpoint.h"
#include "msg/ipc_manager.h"

inline constexpr uint32_t kIpcEventTimer = 1;
inline constexpr uint32_t kIpcEventRead = 16;

/// While it lives, `msg` has arrived here and is on its way to its module: it may not leave again.
class ArrivedMsg {
 public:
  explicit ArrivedMsg(const tagMsgBuf* msg);
  ~ArrivedMsg();
  ArrivedMsg(const ArrivedMsg&) = delete;
  ArrivedMsg& operator=(const ArrivedMsg&) = delete;
};

class CIpcManager {
 public:
  static CIpcManager& GetInstance();

  [[nodiscard]] uint32_t Init(const TOLA_APP_REG_INFO_S* info);
  [[nodiscard]] bool IsInit() const { return ready_.load(std::memory_order_acquire); }

  /// The sequence number of the next message of this process.
  uint16_t GetAppIpcSeq() { return sequence_.fetch_add(1, std::memory_order_relaxed); }

  /// Sends the message to the process that has its destination module; it stays the caller's.
  /// @retval kIpcErrModule @retval kIpcErrTableTake @retval kIpcErrLocal @retval kIpcErrSend
  /// @retval kMsgErrNotRegistered it has just come from another process for a module that is not here
  [[nodiscard]] uint32_t AppSendIpcMsg(const tagMsgBuf* msg, uint16_t sequence, bool urgent);

  /// @retval 1 a name that is too long, or no memory @retval kIpcErrSend
  [[nodiscard]] uint32_t SendRebootMsg(uint32_t kind, uint32_t appId, const char* name, IpcWait wait);
  /// @retval 1 unknown operation, or null @retval kIpcErrTableTake @retval kIpcErrModule
  [[nodiscard]] uint32_t ProcModuleIdChangeNotify(uint16_t operation, uint32_t count, const uint16_t* ids);
  void FlagAppArmRestart() { appArmRestart_.store(true, std::memory_order_relaxed); }

 private:
  friend class base::NeverDestroyed<CIpcManager>;
  CIpcManager() = default;

  // Start-up.
  uint32_t Build(const TOLA_APP_REG_INFO_S& info);
  uint32_t StartTasks();
  void NoteRegisteredModules();

  // Messages to the main process; one try each.
  [[nodiscard]] IpcTarget MainTarget() const;
  uint32_t SendToMain(uint16_t type, const void* data, uint32_t length, IpcWait wait);
  uint32_t RegAppInfo();
  uint32_t SendChanges(uint16_t operation, uint32_t count, const uint16_t* ids);
  void SendHeartBeat();

  // The task "IPCMGR".
  void Run();
  void OnReadEvent();
  uint32_t ReadQueue();
  void TakeFrame(const IPC_MSG_S& frame, size_t size, uint32_t sender);
  void Deliver(tagMsgBuf* msg, const IPC_MSG_S& frame);
  uint32_t HandleInner(const tagMsgBuf* msg, uint32_t sourcePid);
  void OnTick();
  void ProcAppArmRestart();
  void WatchMain();
  void KeepOwnQueue();
  void KeepHeartBeat(bool second);

  // The reader task.
  void ReadQueueTask();
  void ReleaseReader();

  std::mutex initMutex_;
  std::atomic<bool> ready_{false};
  TOLA_APP_REG_INFO_S info_ = {};
  uint16_t moduleId_ = 0;
  uint32_t pid_ = 0;
  /// Written before other threads run, but for the own queue's id: the manager's task alone uses it then, and
  /// makes the queue again. What is the main process's stands below.
  IpcEndpoint endpoint_;
  std::atomic<int32_t> mainQueueId_{-1};  ///< may be opened again, as may the next
  std::atomic<int32_t> publicSemapId_{kSemapNone};
  IpcClassTable classes_;
  IpcRegistry registry_;
  std::atomic<uint16_t> sequence_{0};
  std::atomic<bool> appArmRestart_{false};

  uint32_t taskId_ = 0;
  uint32_t readerTaskId_ = 0;
  uint32_t timerId_ = 0;
  uint32_t parkSema_ = 0;
  std::atomic<bool> readerParked_{false};

  IpcQueueReader reader_;
  IpcReassembly reassembly_;
  uint32_t ticks_ = 0;
  uint32_t beats_ = 0;
  int64_t beatSentAt_ = 0;    ///< the main queue's second of the last beat
  int64_t registeredAt_ = 0;  ///< ... and of the last registration
  bool heartRegistered_ = false;
  bool heartRefused_ = false;
};
