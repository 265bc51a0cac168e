/// Semaphores, reader-writer locks, queues and relative timers. All ids are small numbers from 1; 0 is never
/// one.
#pragma once

#include <stdint.h>

#include "velto/kel_clock.h"

extern "C" {

inline constexpr uint32_t kKelErrSyncPara = 0x0301;    ///< null, zero or too long argument
inline constexpr uint32_t kKelErrSyncFull = 0x0302;    ///< the table of this kind is full
inline constexpr uint32_t kKelErrSyncId = 0x0303;      ///< no object of this id
inline constexpr uint32_t kKelErrSyncOver = 0x0304;    ///< KEL_SemaV: the count would pass 0x7FFFFFFF
inline constexpr uint32_t kKelErrQueueFull = 0x0305;   ///< nothing was written
inline constexpr uint32_t kKelErrQueueEmpty = 0x0306;  ///< nothing was read
inline constexpr uint32_t kKelErrQueueSize = 0x0307;   ///< the entry size is not the queue's
inline constexpr uint32_t kKelErrMemory = 0x0308;      ///< out of memory
inline constexpr uint32_t kKelErrSyncHeld = 0x0309;    ///< an unlock of a lock that is not held that way

/// A counting semaphore on a futex: taking a free one makes no system call, and a take or give is
/// async-signal-safe. `name` (at most 31 characters) is for people. `mode` is 0.
[[nodiscard]] uint32_t KEL_SemaCreate(const char* name, uint32_t count, uint32_t mode, uint32_t* semaId);
[[nodiscard]] uint32_t KEL_SemaDelete(uint32_t semaId);  ///< nobody may wait on it any more
/// @retval kKelErrTimeout (109) the time passed first; 0 looks once
[[nodiscard]] uint32_t KEL_SemaP(uint32_t semaId, uint32_t timeoutMs);
[[nodiscard]] uint32_t KEL_SemaV(uint32_t semaId);

/// A reader-writer lock between the threads of this process. Writers are not starved: while one waits, no new
/// reader gets in, so a reader must not lock again what it holds.
/// @retval kKelErrTimeout (109) the time passed first; 0 looks once
[[nodiscard]] uint32_t KEL_RWLockCreate(const char* name, uint32_t* lockId);
[[nodiscard]] uint32_t KEL_RWLockDelete(uint32_t lockId);
[[nodiscard]] uint32_t KEL_RWLockRLock(uint32_t lockId, uint32_t timeoutMs);
[[nodiscard]] uint32_t KEL_RWLockRUnlock(uint32_t lockId);
[[nodiscard]] uint32_t KEL_RWLockWLock(uint32_t lockId, uint32_t timeoutMs);
[[nodiscard]] uint32_t KEL_RWLockWUnlock(uint32_t lockId);

/// A bounded queue of `length` (1..1048576) entries of `entrySize` bytes (1..64), many writers and many
/// readers, never blocking: a write or read only lets another one that is under way finish its copy.
[[nodiscard]] uint32_t KEL_QueueCreate(const char* name, uint32_t length, uint32_t entrySize,
                                       uint32_t* queueId);
/// Entries left in it are dropped. Nobody may use it any more.
[[nodiscard]] uint32_t KEL_QueueDelete(uint32_t queueId);
[[nodiscard]] uint32_t KEL_QueueAsyWrite(uint32_t queueId, const void* entry, uint32_t size);
/// `*readSize` is the entry's size, or 0 when nothing was read.
[[nodiscard]] uint32_t KEL_QueueAsyRead(uint32_t queueId, void* entry, uint32_t size, uint32_t* readSize);
[[nodiscard]] uint32_t KEL_QueueMsgNumGet(uint32_t queueId, uint32_t* count);

typedef void (*KelTimerCallback)(uintptr_t arg);
inline constexpr uint32_t kKelTimerOnce = 0;
inline constexpr uint32_t kKelTimerRepeat = 1;

/// Calls `callback(arg)` on the runtime's one timer thread, the task "KELTIMER", after `intervalMs` (not 0),
/// once or again and again. Callbacks run one after the other and hold no lock; one may start and stop
/// timers. A repeating timer keeps its rhythm; expiries that were missed are made up for by one call. An id
/// is free again after a stop, and after the call of a timer that runs once.
/// @retval kKelErrTaskFull, kKelErrTaskThread  the timer thread could not be started
[[nodiscard]] uint32_t KEL_ReltmrCbkStart(uint32_t intervalMs, uint32_t mode, KelTimerCallback callback,
                                          uintptr_t arg, uint32_t* timerId);
/// When it returns no callback of this timer runs any more, unless it is called from that callback.
/// @retval kKelErrSyncId no such timer, or one that ran once and is done
[[nodiscard]] uint32_t KEL_ReltmrStop(uint32_t timerId);

}  // extern "C"
