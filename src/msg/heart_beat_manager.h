/// Heart beats: watches that every registered task is still alive.
///
/// A task registers itself with a time-out in seconds and beats within it. Once a second the process's main
/// loop counts for all of them; the first overdue task is logged and handed to the task-record function,
/// which ends the process. The process whose name starts with "app_arm" also counts its seconds in shared
/// memory, where a supervisor outside watches them.
///
/// Registration, beats and time-out changes are for the calling task, which must be a platform task; any
/// number of tasks may call. TOLA_HeartBeatManagerInit and TOLA_HeartBeatProcessSecondEvent have one caller
/// each.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kHeartErrSema = 0x5A01;           ///< 23041: semaphore not created
inline constexpr uint32_t kHeartErrMemory = 0x5A02;         ///< 23042: no memory for the table
inline constexpr uint32_t kHeartErrTaskNumber = 0x5A03;     ///< 23043: task number 0
inline constexpr uint32_t kHeartErrInitAgain = 0x5A04;      ///< 23044: already initialised
inline constexpr uint32_t kHeartErrFull = 0x5A05;           ///< 23045: no empty slot
inline constexpr uint32_t kHeartErrNotRegistered = 0x5A07;  ///< 23047: calling task not registered
inline constexpr uint32_t kHeartErrNotInit = 0x5A08;        ///< 23048: manager not initialised
inline constexpr uint32_t kHeartErrTaskId = 0x5A09;         ///< 23049: the calling thread is no platform task
inline constexpr uint32_t kHeartErrSemaTake = 0x5A0B;       ///< 23051: semaphore take failed
inline constexpr uint32_t kHeartErrSemaGive = 0x5A0C;       ///< 23052: semaphore give failed
inline constexpr uint32_t kHeartErrShare = 0x5A0D;          ///< 23053: shared memory could not be set up
inline constexpr uint32_t kHeartErrTimeout = 0x5A0E;        ///< 23054: time-out 0

inline constexpr uint16_t kHeartNoId = 0xFFFF;  ///< heart-beat id of a thread heart beat

/// Makes room for `taskNumber` tasks. After a failure it may be called again.
/// @retval kHeartErrInitAgain @retval kHeartErrTaskNumber @retval kHeartErrSema @retval kHeartErrShare
/// @retval kHeartErrMemory
[[nodiscard]] uint32_t TOLA_HeartBeatManagerInit(uint16_t taskNumber);

/// Registers the calling task, or registers it again in its slot; it has `timeoutS` seconds from now. `flag`
/// is kept with it and looked at by nobody.
/// @retval kHeartErrNotInit @retval kHeartErrTaskId @retval kHeartErrTimeout @retval kHeartErrFull
/// @retval kHeartErrSemaTake @retval kHeartErrSemaGive
[[nodiscard]] uint32_t TOLA_RegHeartBeatId(uint16_t id, uint16_t timeoutS, uint16_t flag);
/// The same without an id of its own (kHeartNoId).
[[nodiscard]] uint32_t TOLA_RegThreadHeartBeat(uint16_t timeoutS, uint16_t flag);

/// The calling task's beat. Takes no lock.
/// @retval kHeartErrNotInit @retval kHeartErrTaskId
/// @retval kHeartErrNotRegistered one level-3 line
[[nodiscard]] uint32_t TOLA_SendThreadHeartBeat();

/// Changes the calling task's time-out. This is no beat: the seconds since the last one still count.
/// @retval kHeartErrNotInit @retval kHeartErrTaskId @retval kHeartErrTimeout @retval kHeartErrNotRegistered
/// @retval kHeartErrSemaTake @retval kHeartErrSemaGive
[[nodiscard]] uint32_t ModifyCurrentTaskHeartBeatTimeOut(uint16_t timeoutS);

/// One second has passed. Slots behind an overdue one do not count in that second. 0 also when a task was
/// overdue. @retval kHeartErrNotInit nothing was done
[[nodiscard]] uint32_t TOLA_HeartBeatProcessSecondEvent();

/// Stops the counter in shared memory for good, so that the supervisor outside takes action. Any thread.
void DisableApparmHeartBeat();

/// Sets what an overdue task's id is handed to, null for nothing. Called by the caller of
/// TOLA_HeartBeatProcessSecondEvent, or out of a signal (SIGALRM) when the lines about the task took more
/// than two seconds: only what is async-signal-safe may be done there. Any thread.
void RegTaskInfoRecordFunc(void (*record)(uint32_t taskId));
