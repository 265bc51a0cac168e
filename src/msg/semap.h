/// System V semaphores, one per process, with which senders wake the reader of a queue.
///
/// Every semaphore is a set of one, of mode 0600. An id is semget(2)'s; -1 is none.
#pragma once

#include <stdint.h>

inline constexpr int32_t kSemapNone = -1;
inline constexpr int32_t kSemapPublicKey = 65;  ///< the main process's semaphore

inline constexpr uint32_t kSemapTimeout = 2;  ///< the time passed, or a signal came, before it was raised

/// Makes the semaphore of `key` with the value 0, or opens the one that is there.
/// @retval 1 it could not be had, or it belongs to somebody else (see IpcIsOurs in ipc_channel.h): errno
/// says why, EPERM for the latter; `*semaphoreId` is kSemapNone then
[[nodiscard]] uint32_t CreateSemap(int32_t key, int32_t* semaphoreId);

/// Whether the semaphore is there and the platform's own; errno says why not, EPERM for the latter.
[[nodiscard]] bool SemapIsOurs(int32_t semaphoreId);

/// Adds `value` (raises), or waits until -`value` can be taken off and takes it. A wait of 0 looks once.
/// @retval kSemapTimeout a wait that ended without it @retval 1 the semaphore is gone or may not be touched
[[nodiscard]] uint32_t OperSemap(int32_t semaphoreId, int16_t value, uint32_t timeoutMs);

[[nodiscard]] uint32_t SetSemapVal(int32_t semaphoreId, int32_t value);  ///< @retval 1
/// @retval -1 the semaphore is gone or may not be looked at
[[nodiscard]] int32_t GetSemapVal(int32_t semaphoreId);
[[nodiscard]] uint32_t DeleteSemap(
    int32_t semaphoreId);  ///< whoever waits is woken with a failure. @retval 1

/// Takes off all that the semaphore has been raised by, without waiting; frames that these raises announced
/// are in the queue already.
void DrainSemap(int32_t semaphoreId);

/// Semaphore key of the application `name`: never 0 (a private one) and never kSemapPublicKey.
int32_t SemapStringHash(const char* name);

/// Hands the semaphore to `user` (and that user's group); its mode stays. @retval 1 no such user, or refused
[[nodiscard]] uint32_t ChangeSemapOwner(int32_t semaphoreId, const char* user);
