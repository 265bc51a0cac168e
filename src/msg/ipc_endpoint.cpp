#include "msg/ipc_endpoint.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include "base/result_codes.h"
#include "frame/public_file_cfg.h"
#include "log/run_log.h"
#include "msg/ipc_channel.h"
#include "msg/ipc_manager.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr key_t kNoKey = -1;
constexpr int kMode = 0600;
constexpr char kAppFolder[] = "/app_run/app_bin/";
constexpr char kAppFolderKey[] = "run.appload_bin";

key_t KeyIn(const char* folder, const char* name) {
  char path[PATH_MAX] = {};
  if (folder == nullptr || snprintf_s(path, sizeof(path), sizeof(path) - 1, "%s%s", folder, name) <= 0) {
    return kNoKey;
  }
  return ftok(path, kIpcProject);
}

/// Key of the own queue: from the application's file, wherever it lies.
key_t OwnKey(const char* name) {
  const key_t key = KeyIn(getenv("TOLA_ROOT_DIR"), name);
  return key != kNoKey ? key : KeyIn(TOLA_GetPathName(kAppFolder, kAppFolderKey), name);
}

uint32_t OpenOwnQueue(const char* name, IpcEndpoint* endpoint) {
  const key_t key = OwnKey(name);
  if (key == kNoKey) return kIpcErrOwnKey;
  int32_t stale = -1;
  if (IpcQueueOpen(key, &stale) != 0) return kIpcErrOwnQueue;
  if (stale == endpoint->mainQueueId) return kIpcErrRemove;  // keys of different files may be equal
  if (IpcQueueRemove(stale) != 0) return kIpcErrRemove;
  return IpcQueueOpen(key, &endpoint->queueId) == 0 ? kSuccess : kIpcErrOwnQueue;
}

uint32_t OpenSemaps(const char* name, IpcEndpoint* endpoint) {
  if (CreateSemap(kSemapPublicKey, &endpoint->publicSemapId) != 0) return kIpcErrSemap;
  if (CreateSemap(SemapStringHash(name), &endpoint->semapId) != 0) return kIpcErrSemap;
  return SetSemapVal(endpoint->semapId, 0) == 0 ? kSuccess : kIpcErrSemap;
}

}  // namespace

uint32_t IpcOwnQueueMake(const char* name, int32_t* queueId) {
  const key_t key = OwnKey(name);
  const int32_t made = key != kNoKey ? msgget(key, IPC_CREAT | IPC_EXCL | kMode) : -1;
  if (made < 0) return kFailure;
  if (ChangeQueenOwner(made, kIpcOwner) != 0) {
    (void)IpcQueueRemove(made);  // for the next attempt
    return kFailure;
  }
  *queueId = made;
  return kSuccess;
}

uint32_t IpcMainQueueOpen(int32_t* queueId) {
  const key_t key = ftok(kIpcMainPath, kIpcProject);
  return key != kNoKey ? IpcQueueOpen(key, queueId) : kFailure;
}

uint32_t IpcEndpointOpen(const char* name, IpcEndpoint* endpoint) {
  if (IpcMainQueueOpen(&endpoint->mainQueueId) != 0) {
    LOG_ERR(kLogModule, "main queue err:%d", errno);
    return kIpcErrMainQueue;
  }
  uint32_t ret = OpenOwnQueue(name, endpoint);
  if (ret == 0) ret = OpenSemaps(name, endpoint);
  if (ret != 0) {
    LOG_ERR(kLogModule, "app queue or semap err:%#x errno:%d", ret, errno);
    return ret;
  }
  LOG_EVT(kLogModule, "m_PublicSemaRecv(%d) m_SemaRecv(%d)", endpoint->publicSemapId, endpoint->semapId);
  ret = ChangeQueenOwner(endpoint->queueId, kIpcOwner);
  if (ret == 0) ret = ChangeSemapOwner(endpoint->semapId, kIpcOwner);
  if (ret != 0) {
    LOG_ERR(kLogModule, "Change semap owner error.");
    return ret;
  }
  LOG_EVT(kLogModule, "IPC create Success:Pid:%d,Main@%d,App@%d", getpid(), endpoint->mainQueueId,
          endpoint->queueId);
  return kSuccess;
}
