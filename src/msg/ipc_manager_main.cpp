/// What this process and the main process tell each other.
///
/// Nothing here waits for room in the main process's queue but a request for a restart: registration,
/// changes and heart beats are tried once and tried again later, so that a main process that does not read
/// holds up nobody.
#include <errno.h>
#include <signal.h>
#include <time.h>

#include <memory>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/ipc_manager_impl.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kChangeIdsMax = 1024;  ///< of one message; it travels in one frame

using MsgPtr = std::unique_ptr<tagMsgBuf, decltype([](tagMsgBuf* msg) { TOLA_MsgFree(msg); })>;

/// Whether process `pid` exists.
bool IsAlive(uint32_t pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

/// The second as the kernel stamps a queue with it; no system call.
int64_t QueueSecond() {
  struct timespec now = {};
  (void)clock_gettime(CLOCK_REALTIME_COARSE, &now);  // fails for no clock that there is
  return now.tv_sec;
}

/// Whether process `pid` was the last that read the queue.
bool ReadsQueue(int32_t queueId, uint32_t pid) {
  IpcQueueState state = {};
  return IpcQueueStateGet(queueId, &state) == 0 && state.reader == pid;
}

/// Whether what was sent at `sentAt` may still lie in the queue unread. After the wall clock was set back
/// that moment is yet to come, and says nothing.
bool MayBeUnread(const IpcQueueState& state, int64_t sentAt) {
  return state.messages != 0 && state.readAt <= sentAt && sentAt <= QueueSecond();
}

}  // namespace

IpcTarget CIpcManager::MainTarget() const {
  return {mainQueueId_.load(std::memory_order_relaxed), publicSemapId_.load(std::memory_order_relaxed),
          registry_.mainPid()};
}

uint32_t CIpcManager::SendToMain(uint16_t type, const void* data, uint32_t length, IpcWait wait) {
  const MsgPtr msg(TOLA_MsgAlloc(kIpcModule, type, 0, length));
  if (msg == nullptr || memcpy_s(TolaMsgData(msg.get()), length, data, length) != EOK) return kFailure;
  msg->destination = kIpcModule;
  const IpcEnvelope envelope = {classes_.ClassOf(type, false), pid_, GetAppIpcSeq(), false};
  return IpcSendMessage(MainTarget(), envelope, msg.get(), wait);
}

uint32_t CIpcManager::RegAppInfo() {
  struct {
    IpcRegisterMsg head;
    uint16_t ids[kIpcRegisterIdsMax];
  } message = {};
  IpcRegisterMsg& head = message.head;
  head.version = kIpcMainMsgVersion;
  head.pid = pid_;
  head.queueId = static_cast<uint32_t>(endpoint_.queueId);
  head.semaphoreId = endpoint_.semapId;
  head.moduleId = moduleId_;
  head.supervise = info_.supervise;
  head.appArmRestart = info_.appArmRestart;
  head.intervalMs = info_.heartBeatIntervalMs;
  head.timeoutS = info_.superviseTimeoutS;
  if (strcpy_s(head.name, sizeof(head.name), info_.name) != EOK) return kErrCopy;
  if (strcpy_s(head.versionText, sizeof(head.versionText), info_.version) != EOK) return kErrCopy;
  head.count = static_cast<uint16_t>(registry_.LocalModules(message.ids, kIpcRegisterIdsMax));
  const auto length = static_cast<uint32_t>(sizeof(head) + head.count * sizeof(uint16_t));
  return SendToMain(kIpcRegister, &message, length, IpcWait::kNever);
}

uint32_t CIpcManager::SendChanges(uint16_t operation, uint32_t count, const uint16_t* ids) {
  struct {
    IpcModuleChangeMsg head;
    uint16_t ids[kChangeIdsMax];
  } message = {};
  if (count == 0 || count > kChangeIdsMax) return kFailure;
  message.head = {pid_, operation, static_cast<uint16_t>(count)};
  const auto size = static_cast<uint32_t>(count * sizeof(uint16_t));
  if (memcpy_s(message.ids, sizeof(message.ids), ids, size) != EOK) return kErrCopy;
  return SendToMain(kIpcModuleChange, &message, static_cast<uint32_t>(sizeof(message.head) + size),
                    IpcWait::kNever);
}

/// One beat a tick, unless an earlier one may still lie unread: the main process's queue is everybody's.
void CIpcManager::SendHeartBeat() {
  const int32_t queueId = mainQueueId_.load(std::memory_order_relaxed);
  IpcQueueState state = {};
  if (IpcQueueStateGet(queueId, &state) != 0) return;
  if (MayBeUnread(state, beatSentAt_)) return;
  const IpcHeartBeatMsg beat = {pid_, ++beats_};
  if (SendToMain(kIpcHeartBeat, &beat, sizeof(beat), IpcWait::kNever) == 0) beatSentAt_ = QueueSecond();
}

/// Without the own queue, which somebody may have removed, this process hears nobody: one that is made again
/// has to be registered.
void CIpcManager::KeepOwnQueue() {
  IpcQueueState state = {};
  if (IpcQueueStateGet(endpoint_.queueId, &state) == 0 || (errno != EINVAL && errno != EIDRM)) return;
  if (IpcOwnQueueMake(info_.name, &endpoint_.queueId) != 0) return;
  LOG_ERR(kLogModule, "own queue removed, made again:App@%d", endpoint_.queueId);
  reader_ = IpcQueueReader(endpoint_.queueId);
  (void)registry_.Init({endpoint_.queueId, endpoint_.semapId, pid_});  // its semaphore is there
  registry_.ForgetMain();
  registeredAt_ = -1;  // what lies unread there tells of the old one
}

/// Once a second: sees to it that the main process knows this process, and knows it right.
void CIpcManager::WatchMain() {
  KeepOwnQueue();
  IpcQueueState state = {};
  const int32_t queueId = mainQueueId_.load(std::memory_order_relaxed);
  if (IpcQueueStateGet(queueId, &state) != 0) {
    int32_t again = -1;
    if (IpcMainQueueOpen(&again) == 0) mainQueueId_.store(again, std::memory_order_relaxed);
    registry_.ForgetMain();
  }
  if (!SemapIsOurs(publicSemapId_.load(std::memory_order_relaxed))) {  // removed: each raise would fail
    int32_t again = kSemapNone;
    if (CreateSemap(kSemapPublicKey, &again) == 0) publicSemapId_.store(again, std::memory_order_relaxed);
  }
  const uint32_t mainPid = registry_.mainPid();
  const bool other = state.reader != 0 && state.reader != mainPid;  // a new one reads already
  if (mainPid != 0 && (other || !IsAlive(mainPid))) registry_.ForgetMain();
  if (registry_.mainPid() == 0) {
    if (MayBeUnread(state, registeredAt_)) return;  // one is enough for a main process that is to come
    const uint32_t ret = RegAppInfo();
    if (ret == 0) registeredAt_ = QueueSecond();
    if (ret != 0) LOG_WRN(kLogModule, "RegAppInfo err:%#x", ret);
    return;
  }
  for (const uint16_t operation : {kIpcModuleAdded, kIpcModuleRemoved}) {
    uint16_t ids[kChangeIdsMax];
    const uint32_t count = registry_.Differences(operation, ids, kChangeIdsMax);
    if (count != 0) (void)SendChanges(operation, count, ids);  // again in a second, until the map shows them
  }
}

uint32_t CIpcManager::HandleInner(const tagMsgBuf* msg, uint32_t sourcePid) {
  const uint8_t* data = TolaMsgData(msg);
  const uint32_t length = GetTolaMsgLen(msg);
  if (msg->type == kIpcAcknowledge) {
    IpcAcknowledgeMsg acknowledge = {};
    if (length != sizeof(acknowledge)) return kFailure;
    if (memcpy_s(&acknowledge, sizeof(acknowledge), data, length) != EOK) return kErrCopy;
    if (acknowledge.mainPid != sourcePid || !ReadsQueue(mainQueueId_, sourcePid)) return kFailure;
    if (acknowledge.result != 0) LOG_ERR(kLogModule, "registration refused:%u", acknowledge.result);
    return registry_.TakeAcknowledge(acknowledge);
  }
  if (msg->type == kIpcReboot) {  // the main process wants this one to ask for its own restart
    if (sourcePid != registry_.mainPid() || info_.appArmRestart == 0) return kFailure;
    FlagAppArmRestart();
    return kSuccess;
  }
  return kFailure;
}
