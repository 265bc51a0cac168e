/// The queues and semaphores that this process uses, opened or made at start-up.
#pragma once

#include <stdint.h>

#include "msg/semap.h"

struct IpcEndpoint {
  int32_t mainQueueId = -1;
  int32_t queueId = -1;  ///< this process's own
  int32_t publicSemapId = kSemapNone;
  int32_t semapId = kSemapNone;  ///< this process's own
};

/// Opens the main process's queue and semaphore, and makes those of the application `name` anew, so that
/// nothing that was meant for an earlier process is read. What is there already but belongs to somebody else
/// is refused and left alone; the main queue is never emptied nor removed.
/// @retval kIpcErrMainQueue @retval kIpcErrOwnKey @retval kIpcErrOwnQueue @retval kIpcErrRemove
/// @retval kIpcErrSemap @retval 1 the own queue or semaphore could not be handed to the platform's account
[[nodiscard]] uint32_t IpcEndpointOpen(const char* name, IpcEndpoint* endpoint);

/// Makes the own queue of the application `name` again, which has been removed. One that is there again is
/// somebody else's by now and left alone. @retval 1 it cannot be had; `*queueId` is as before
[[nodiscard]] uint32_t IpcOwnQueueMake(const char* name, int32_t* queueId);

/// The main process's queue, opened again when it has been removed. @retval 1 it cannot be had
[[nodiscard]] uint32_t IpcMainQueueOpen(int32_t* queueId);
