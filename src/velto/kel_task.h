/// Tasks: threads with a name, a small id and a 32-bit sticky event word.
///
/// Ids are indexes from 1 into a fixed table; a slot is used again only after its task ended. Priorities are
/// the callers' wish and without effect: the kernel schedules all tasks alike. Look-ups (name, kernel thread,
/// validity, highest id) take no lock and are async-signal-safe.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "velto/kel_clock.h"

extern "C" {

inline constexpr uint32_t kKelTaskMax = 256;
inline constexpr uint32_t kKelTaskNameSize = 32;  ///< with the terminator; longer names are refused

inline constexpr uint32_t kKelErrTimeout = 109;        ///< a wait ended by its time-out
inline constexpr uint32_t kKelErrTaskPara = 0x0201;    ///< null or too long argument
inline constexpr uint32_t kKelErrTaskFull = 0x0202;    ///< no free task slot
inline constexpr uint32_t kKelErrTaskThread = 0x0203;  ///< the system refused a thread
inline constexpr uint32_t kKelErrTaskId = 0x0204;      ///< no task of this id, or the caller is no task

typedef void (*KelTaskEntry)(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);

/// Starts a task. `stackSize` 0 is the configured default (key task.stack_bytes), `mode` is 0, `args` null is
/// four zeros. `*taskId` is set before the entry runs. The task ends when its entry returns.
[[nodiscard]] uint32_t KEL_TaskCreate(const char* name, uint32_t* taskId, KelTaskEntry entry,
                                      uint32_t priority, uint32_t stackSize, uint32_t mode,
                                      const uintptr_t args[4]);

/// Waits until task `taskId` has ended; its slot is free afterwards. Any thread but the task itself.
/// @retval kKelErrTimeout it still runs @retval kKelErrTaskId no such task, or its slot is free already
[[nodiscard]] uint32_t KEL_TaskWait(uint32_t taskId, uint32_t timeoutMs);

/// Makes the calling thread a task that was not started by KEL_TaskCreate. A thread that is one keeps its id.
[[nodiscard]] uint32_t KEL_TaskAdopt(const char* name, uint32_t* taskId);

/// Id of the calling task. @retval kKelErrTaskId the thread is no task; `*taskId` is 0 then
[[nodiscard]] uint32_t KEL_TaskCurrentIdGet(uint32_t* taskId);

/// Sleeps on the runtime's clock.
void KEL_TaskDelay(uint32_t milliseconds);

[[nodiscard]] uint32_t KEL_TaskNameGet(uint32_t taskId, char* buffer, uint32_t size);
/// Kernel thread id (gettid(2)).
[[nodiscard]] uint32_t KEL_TaskThreadIdGet(uint32_t taskId, int32_t* threadId);
[[nodiscard]] uint32_t KEL_TaskPthreadGet(uint32_t taskId, pthread_t* thread);
/// 1 while a task of this id runs, else 0.
uint32_t KEL_TaskIsValid(uint32_t taskId);
/// Highest id in use; ids are walked from 1 to it.
uint32_t KEL_TaskMaxIdGet(void);

/// Adds `mask` to the task's event word and wakes it when it waits for one of the bits. Bits stay until they
/// are read. Any thread; async-signal-safe.
[[nodiscard]] uint32_t KEL_EventWrite(uint32_t taskId, uint32_t mask);

/// KEL_EventWrite for a thread that has just put an entry into a queue (KEL_QueueAsyWrite): bits that the
/// task has not read yet are left as they are, since it finds the entry when it drains the queue after
/// reading them. For anything but a queue's entries it may come too early.
[[nodiscard]] uint32_t KEL_EventWriteQueued(uint32_t taskId, uint32_t mask);

inline constexpr uint32_t kKelEventAny =
    0;  ///< the one mode of KEL_EventRead: any bit of the mask ends the wait

/// Waits until one of `mask`'s bits is set in the calling task's event word, returns those that are and
/// clears them. `timeoutMs` 0 looks once. @retval kKelErrTimeout none came @retval kKelErrTaskId the caller
/// is no task
[[nodiscard]] uint32_t KEL_EventRead(uint32_t mask, uint32_t* received, uint32_t mode, uint32_t timeoutMs);

}  // extern "C"
