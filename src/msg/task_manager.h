/// A platform task whose work is driven by event bits: each of the 32 bits may have a callback, and the task
/// calls those whose bits were raised (KEL_EventWrite on its id), lowest bit first, one at a time.
///
/// Every call may be made by any thread, callbacks included; binding and unbinding take effect from the next
/// callback on, so one that runs already is not waited for.
#pragma once

#include <stdint.h>

#include <array>
#include <atomic>
#include <mutex>

inline constexpr uint32_t kTaskManagerNameMax = 30;  ///< characters of a task name
inline constexpr uint32_t kTaskManagerEvents = 32;
inline constexpr uint32_t kTaskManagerNoTask = 0xFFFFFFFF;  ///< id of a task that was not created

inline constexpr uint32_t kTaskManagerErrCreate = 0x210A;  ///< 8458: the runtime refused the task
inline constexpr uint32_t kTaskManagerErrMap = 0x2117;     ///< 8471: no memory to find the task by its id

/// Called in the task with the one bit that was raised; its result is not used.
using TaskEventFunc = uint32_t (*)(uint32_t eventBit, void* argument);

class CTaskManager;

/// What a task is made from.
struct RegToTaskManagerModuleInfo {
  const char* name;  ///< 1 to kTaskManagerNameMax characters
  uint32_t priority;
  uint32_t stackSize;                  ///< bytes; 0 is the runtime's default
  uintptr_t argument;                  ///< handed to the task; the loop has no use for it
  CTaskManager* owner;                 ///< the manager that is initialised, or null
  const std::atomic<uint32_t>* ready;  ///< callbacks are held back until it is 1; null: never held back. Must
                                       ///< live as long as the process
  uint16_t heartBeatTimeoutS;
  uint32_t waitPeriodS;  ///< longest sleep without a wake; 0 is for ever
  uint32_t usedEvents;   ///< bits that ApplyTaskEvent must not hand out
};

/// Must live as long as the process once Init has succeeded: its task never ends.
class CTaskManager {
 public:
  CTaskManager() = default;
  CTaskManager(const CTaskManager&) = delete;
  CTaskManager& operator=(const CTaskManager&) = delete;

  /// Starts the task. With a wait period below the heart-beat time-out it is supervised by heart beats, from
  /// the moment the heart-beat manager is there.
  /// @retval 1 null or wrong name, another manager's info, or the task exists
  /// @retval kTaskManagerErrCreate one level-4 line @retval kTaskManagerErrMap
  [[nodiscard]] uint32_t Init(const RegToTaskManagerModuleInfo* info);

  /// @retval 1 null callback, not exactly one bit, or a bit that has a callback (one level-4 line)
  [[nodiscard]] uint32_t RegEventFuncToTask(uint32_t eventBit, TaskEventFunc callback, void* argument);
  /// Takes the callback away and releases the bit. @retval 1 not exactly one bit
  [[nodiscard]] uint32_t UnregEventFuncToTask(uint32_t eventBit);

  /// Hands out the lowest bit that is not used; never 0x1. @retval 1 none is free, `eventBit` is as before
  [[nodiscard]] uint32_t ApplyTaskEvent(uint32_t& eventBit);
  /// kept: a callback on the bit stays bound. @retval 1 not exactly one bit
  [[nodiscard]] uint32_t ReleaseTaskEvent(uint32_t eventBit);

  /// Id of the task, kTaskManagerNoTask before Init.
  [[nodiscard]] uint32_t TaskId() const { return taskId_.load(std::memory_order_acquire); }

  /// The manager of a task. @retval 1 null, or no such task; `*manager` is null then
  [[nodiscard]] static uint32_t GetTaskManagerInstanceById(uint32_t taskId, CTaskManager** manager);

 private:
  struct EventFunc {
    TaskEventFunc callback = nullptr;
    void* argument = nullptr;
  };

  enum class Supervision : uint8_t {
    kNone,
    kWanted,  ///< there is no heart-beat manager yet
    kOn,
  };

  static void TaskEntry(uintptr_t manager, uintptr_t argument, uintptr_t, uintptr_t);
  [[noreturn]] void RunTask();
  [[nodiscard]] Supervision Supervise() const;
  void ProcessEvents(uint32_t pending);
  EventFunc Bound(uint32_t bit);
  void Release(uint32_t eventBit);  ///< under the lock

  std::atomic<uint32_t> taskId_{kTaskManagerNoTask};
  uint16_t heartBeatTimeoutS_ = 0;  ///< this and the next two are set before the task runs
  uint32_t waitPeriodS_ = 0;
  const std::atomic<uint32_t>* ready_ = nullptr;
  std::mutex lock_;  ///< guards what follows; never held while a callback runs
  std::array<EventFunc, kTaskManagerEvents> events_{};
  uint32_t used_ = 0;
};
