/// The module table, the post's routes, and receiving.
///
/// The "MsgMgr" semaphore guards the module blocks and the look-up of an IPC channel. It is never held while
/// a queue or an event is written or a hook sends. A reader of a block does not take it: it reads a turn that
/// writers move on before and after, and reads again until both turns are one and even. Hooks are atomic
/// words: of a pair, the one that opens the way is stored last and read first.
#include "msg/process_msg_manager.h"

#include <atomic>
#include <mutex>
#include <thread>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/msg_none_realtime_control.h"
#include "securec.h"
#include "velto/kel_mem.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint16_t kPortMsgNumMax = 1856;
constexpr uint32_t kNotifyAdd = 0;
constexpr uint32_t kNotifyRemove = 1;

/// A module's block as it stands in the table.
struct Slot {
  std::atomic<uint32_t> queueId;
  std::atomic<uint32_t> taskId;
  std::atomic<uint32_t> eventMask;
  uint32_t reserved;
};
static_assert(sizeof(Slot) == sizeof(MsgModuleBlock));

std::mutex g_initMutex;
uint32_t g_sema = 0;                    ///< written before g_blocks
std::atomic<Slot*> g_blocks{nullptr};   ///< set once the manager is up; lives as long as the process
std::atomic<uint32_t> g_blocksTurn{0};  ///< odd while a block changes
std::atomic<uint32_t> g_maxModule{kMsgDefaultMaxModule};

std::atomic<MsgIsCompFunc> g_isComp{nullptr};
std::atomic<MsgSendToCompFunc> g_sendToComp{nullptr};
std::atomic<MsgIsUseSameQueueFunc> g_isUseSameQueue{nullptr};
std::atomic<MsgGetSameQueueModuleIdFunc> g_getSameQueueModuleId{nullptr};
std::atomic<AppIpcGetChannelFunc> g_ipcGetChannel{nullptr};
std::atomic<AppIpcSendFunc> g_ipcSend{nullptr};
std::atomic<AppIpcNotifyFunc> g_ipcNotify{nullptr};
std::atomic<HighPriQueueProcBase*> g_highPri{nullptr};
std::atomic<MsgQueueStatistic*> g_queueStatistic{nullptr};

/// Holds "MsgMgr"; false when it could not be taken.
class MsgMgrGuard {
 public:
  MsgMgrGuard() : held_(KEL_SemaP(g_sema, KEL_WAIT_FOREVER) == 0) {}
  ~MsgMgrGuard() {
    if (held_) (void)KEL_SemaV(g_sema);  // fails only for a semaphore that is gone
  }
  MsgMgrGuard(const MsgMgrGuard&) = delete;
  MsgMgrGuard& operator=(const MsgMgrGuard&) = delete;
  [[nodiscard]] explicit operator bool() const { return held_; }

 private:
  bool held_;
};

/// What `slot` held at one moment.
inline MsgModuleBlock ReadBlock(const Slot& slot) {
  for (;;) {
    const uint32_t turn = g_blocksTurn.load(std::memory_order_acquire);
    const MsgModuleBlock block{slot.queueId.load(std::memory_order_acquire),
                               slot.taskId.load(std::memory_order_acquire),
                               slot.eventMask.load(std::memory_order_acquire), 0};
    if (turn % 2 == 0 && g_blocksTurn.load(std::memory_order_relaxed) == turn) return block;
    std::this_thread::yield();  // the writer is between a few stores
  }
}

/// Call with "MsgMgr" held.
void StoreBlock(Slot& slot, const MsgModuleBlock& block) {
  g_blocksTurn.fetch_add(1);
  slot.queueId.store(block.queueId, std::memory_order_release);
  slot.taskId.store(block.taskId, std::memory_order_release);
  slot.eventMask.store(block.eventMask, std::memory_order_release);
  g_blocksTurn.fetch_add(1);
}

void NotifyIpc(uint32_t operation, uint16_t moduleId) {
  const AppIpcNotifyFunc notify = g_ipcNotify.load(std::memory_order_acquire);
  if (notify != nullptr) (void)notify(operation, 1, &moduleId);  // registration here stands whatever it says
}

/// The queue that the new module will use: one of its own, or that of `shared` (-1: none).
uint32_t MakeQueue(const Slot* blocks, int32_t shared, uint32_t queueLength, uint32_t& queueId) {
  if (shared < 0) {
    return KEL_QueueCreate("Que", queueLength, sizeof(void*), &queueId) == 0 ? kSuccess : kMsgErrQueueCreate;
  }
  if (static_cast<uint32_t>(shared) >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;
  queueId = blocks[shared].queueId;
  return queueId != 0 ? kSuccess : kMsgErrNotRegistered;
}

/// Hands the message to the application IPC; `noHooks` is the result when it is not there.
uint32_t SendByIpc(tagMsgBuf* msg, uint32_t channelMask, bool urgent, uint32_t noHooks, bool* taken) {
  const AppIpcGetChannelFunc getChannel = g_ipcGetChannel.load(std::memory_order_acquire);
  const AppIpcSendFunc send = g_ipcSend.load(std::memory_order_acquire);
  if (getChannel == nullptr || send == nullptr) return noHooks;
  uint32_t channel = 0;
  {
    const MsgMgrGuard guard;
    if (!guard) return kFailure;
    channel = getChannel();
  }
  const uint32_t ret = send(msg, channel & channelMask, urgent);
  *taken = ret == 0;
  return ret;
}

/// Wakes the task of `block` for one message that was queued, unless it is in no hurry; the post has
/// succeeded whatever comes of it.
void WakeReceiver(const MsgModuleBlock& block, uint16_t source, uint16_t destination, uint16_t type,
                  bool urgent) {
  if (MsgNoneRealTimeHoldsBack(destination)) return;
  const uint32_t err = KEL_EventWriteQueued(block.taskId, block.eventMask);
  if (err == 0 || block.taskId == kMsgNoTask) return;
  if (urgent) {
    LOG_ERR(kLogModule, "Eer%d>%d:%#x=%#x", source, destination, type, err);
  } else {
    LOG_ERR(kLogModule, "Eer%u>%u(%u):%#x=%#x", source, destination, block.taskId, type, err);
  }
}

uint32_t Enqueue(const MsgModuleBlock& block, uint16_t destination, tagMsgBuf* msg, bool urgent,
                 bool* taken) {
  const uint16_t source = msg->source;  // the receiver may free the message as soon as it is queued
  const uint16_t type = msg->type;
  const uint32_t err = KEL_QueueAsyWrite(block.queueId, &msg, sizeof(void*));
  if (err != 0) {
    if (urgent) {
      LOG_ERR(kLogModule, "Qer%d>%d:%#x=%#x", source, destination, type, err);
    } else {
      LOG_ERR(kLogModule, "Qer%u>%u(%u):%#x=%#x", source, destination, block.queueId, type, err);
    }
    return kMsgErrQueueWrite;
  }
  *taken = true;
  WakeReceiver(block, source, destination, type, urgent);
  if (MsgQueueStatistic* statistic = g_queueStatistic.load(std::memory_order_acquire)) {
    uint32_t messages = 0;
    if (KEL_QueueMsgNumGet(block.queueId, &messages) == 0) {
      statistic->OnFill(destination, block.queueId, messages);
    }
  }
  return kSuccess;
}

}  // namespace

uint32_t TOLA_RegisterMsgManagerParameter(const uint16_t* maximum) {
  if (maximum == nullptr) return kFailure;
  if (*maximum <= kMsgDefaultMaxModule) return kSuccess;
  const std::lock_guard lock(g_initMutex);
  if (g_blocks.load(std::memory_order_acquire) != nullptr) return kFailure;  // the blocks are counted already
  g_maxModule.store(*maximum, std::memory_order_relaxed);
  return kSuccess;
}

uint32_t MsgMaxModule() {
  return g_maxModule.load(std::memory_order_relaxed);
}

uint32_t TOLA_MsgManagerInit() {
  const std::lock_guard lock(g_initMutex);
  if (g_blocks.load(std::memory_order_acquire) != nullptr) return kSuccess;
  if (g_sema == 0 && KEL_SemaCreate("MsgMgr", 1, 0, &g_sema) != 0) {
    g_sema = 0;
    return kMsgErrSema;
  }
  LOG_EVT(kLogModule, "tOla Release Date: %s %s", __DATE__, __TIME__);
  uint32_t handle = 0;
  if (MsgMemInit(&handle) != 0) return kFailure;
  const auto size = static_cast<uint32_t>(g_maxModule.load(std::memory_order_relaxed) * sizeof(Slot));
  void* blocks = KEL_MEM_ALLOC(handle, size);
  if (blocks == nullptr) return kFailure;
  if (memset_s(blocks, size, 0, size) != EOK) {
    KEL_MEM_FREE(blocks);
    return kFailure;
  }
  g_blocks.store(static_cast<Slot*>(blocks), std::memory_order_release);
  return kSuccess;
}

uint32_t TOLA_MsgModuleRegister(uint16_t moduleId, uint32_t taskId, uint32_t eventMask,
                                uint32_t queueLength) {
  if (moduleId >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;
  if (queueLength == 0) return kMsgErrQueueLength;
  Slot* blocks = g_blocks.load(std::memory_order_acquire);
  if (blocks == nullptr) return kMsgErrNotInit;

  int32_t shared = -1;
  const MsgIsUseSameQueueFunc isUseSameQueue = g_isUseSameQueue.load(std::memory_order_acquire);
  const MsgGetSameQueueModuleIdFunc getModuleId = g_getSameQueueModuleId.load(std::memory_order_acquire);
  if (isUseSameQueue != nullptr && isUseSameQueue(moduleId)) {
    shared = getModuleId != nullptr ? getModuleId(moduleId) : 0;
  }
  uint32_t queueId = 0;
  {
    const MsgMgrGuard guard;
    if (!guard) return kFailure;
    if (blocks[moduleId].queueId != 0) return kMsgErrRegistered;
    const uint32_t ret = MakeQueue(blocks, shared, queueLength, queueId);
    if (ret != 0) return ret;
    StoreBlock(blocks[moduleId], {queueId, taskId, eventMask, 0});
  }
  if (HighPriQueueProcBase* highPri = g_highPri.load(std::memory_order_acquire)) {
    (void)highPri->RegisterModule(moduleId, taskId, eventMask,
                                  queueLength);  // the normal queue stands without it
  }
  NotifyIpc(kNotifyAdd, moduleId);
  if (MsgQueueStatistic* statistic = g_queueStatistic.load(std::memory_order_acquire)) {
    statistic->OnRegister(moduleId, queueId, queueLength);
  }
  return kSuccess;
}

uint32_t TOLA_MsgModuleUnregister(uint16_t moduleId) {
  if (moduleId >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;
  Slot* blocks = g_blocks.load(std::memory_order_acquire);
  if (blocks == nullptr) return kMsgErrNotInit;
  {
    const MsgMgrGuard guard;
    if (!guard) return kFailure;
    StoreBlock(blocks[moduleId], {});
  }
  if (HighPriQueueProcBase* highPri = g_highPri.load(std::memory_order_acquire)) {
    (void)highPri->UnregisterModule(moduleId);  // nothing is left to undo here
  }
  NotifyIpc(kNotifyRemove, moduleId);
  return kSuccess;
}

uint32_t MsgPost(uint16_t destination, tagMsgBuf* msg, bool urgent, bool* taken) {
  *taken = false;
  HighPriQueueProcBase* highPri = g_highPri.load(std::memory_order_acquire);
  if (urgent && highPri == nullptr) return kFailure;
  if (msg == nullptr) return kMsgErrNull;
  msg->destination = destination;
  TOLA_dbg_send(msg, LogBaseName(__FILE__), __LINE__);

  const MsgIsCompFunc isComp = g_isComp.load(std::memory_order_acquire);
  if (isComp != nullptr && isComp(destination)) {
    const MsgSendToCompFunc send = g_sendToComp.load(std::memory_order_acquire);
    if (send == nullptr) return kSuccess;
    const uint32_t ret = send(destination, msg, urgent);
    *taken = ret == 0;
    return ret;
  }
  const Slot* blocks = g_blocks.load(std::memory_order_acquire);
  if (blocks == nullptr) return kMsgErrNotInit;
  if (destination >= kMsgAppCompFirst && destination < kMsgAppCompEnd) {
    return SendByIpc(msg, 0xFFFFFFFF, urgent, kMsgErrNoIpc, taken);
  }
  if (destination >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;

  MsgModuleBlock block{};
  if (!urgent) {
    block = ReadBlock(blocks[destination]);
  } else if (const uint32_t ret = highPri->GetBlock(destination, &block); ret != 0) {
    return ret;
  }
  if (block.queueId != 0) return Enqueue(block, destination, msg, urgent, taken);
  return SendByIpc(msg, 0xFFFF, urgent, kSuccess, taken);  // kept: 0 without hooks, though nobody took it
}

uint32_t TOLA_MsgPost(uint16_t destination, tagMsgBuf* msg, uint32_t /*flag*/) {
  bool taken = false;
  return MsgPost(destination, msg, false, &taken);
}

uint32_t TOLA_HighPriMsgPost(uint16_t destination, tagMsgBuf* msg, uint32_t /*flag*/) {
  bool taken = false;
  return MsgPost(destination, msg, true, &taken);
}

uint32_t TOLA_MsgUrgPost(uint16_t destination, tagMsgBuf* msg, uint32_t flag) {
  if (TOLA_HighPriMsgPost(destination, msg, flag) == 0) return kSuccess;
  return TOLA_MsgPost(destination, msg, flag);
}

uint32_t TOLA_MsgRecv(uint16_t moduleId, tagMsgBuf** out, uint32_t wait) {
  if (out == nullptr) return kMsgErrNull;
  *out = nullptr;
  if (moduleId >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;
  tagMsgBuf* msg = nullptr;
  HighPriQueueProcBase* highPri = g_highPri.load(std::memory_order_acquire);
  if (highPri == nullptr || highPri->Receive(moduleId, &msg, wait) != 0 || msg == nullptr) {
    const Slot* blocks = g_blocks.load(std::memory_order_acquire);
    if (blocks == nullptr) return kMsgErrNotInit;
    const uint32_t queueId = blocks[moduleId].queueId.load(std::memory_order_acquire);
    if (queueId == 0) return kMsgErrNotRegistered;
    uint32_t readSize = 0;
    const uint32_t err = KEL_QueueAsyRead(queueId, &msg, sizeof(void*), &readSize);
    if (err != 0 || readSize != sizeof(void*)) return kMsgErrQueueRead;
  }
  *out = msg;
  if (msg != nullptr) TOLA_dbg_recv(msg, LogBaseName(__FILE__), __LINE__);
  return kSuccess;
}

uint32_t TOLA_GetMsgBlock(uint16_t moduleId, MsgModuleBlock* out) {
  if (out == nullptr) return kFailure;
  if (moduleId >= g_maxModule.load(std::memory_order_relaxed)) return kMsgErrModuleId;
  const Slot* blocks = g_blocks.load(std::memory_order_acquire);
  if (blocks == nullptr) return kMsgErrNotInit;
  *out = ReadBlock(blocks[moduleId]);
  return kSuccess;
}

uint32_t TOLA_GetHighPriMsgBlock(uint16_t moduleId, MsgModuleBlock* out) {
  HighPriQueueProcBase* highPri = g_highPri.load(std::memory_order_acquire);
  return highPri != nullptr ? highPri->GetBlock(moduleId, out) : kSuccess;
}

int32_t TOLA_GetPortMsgNum(uint16_t moduleId) {
  if (moduleId > kPortMsgNumMax) return -1;
  MsgModuleBlock block{};
  uint32_t messages = 0;
  if (TOLA_GetMsgBlock(moduleId, &block) != 0 || KEL_QueueMsgNumGet(block.queueId, &messages) != 0) return -1;
  return static_cast<int32_t>(messages);
}

void TolaMsgSendToCompRegFun(MsgIsCompFunc isComp, MsgSendToCompFunc sendToComp) {
  g_sendToComp.store(sendToComp, std::memory_order_release);
  g_isComp.store(isComp, std::memory_order_release);
}

void Tola_MsgSameQueueRegFun(MsgIsUseSameQueueFunc isUseSameQueue, MsgGetSameQueueModuleIdFunc getModuleId) {
  g_getSameQueueModuleId.store(getModuleId, std::memory_order_release);
  g_isUseSameQueue.store(isUseSameQueue, std::memory_order_release);
}

void MsgMgrRegAppIpcMsgFun(AppIpcGetChannelFunc getChannel, AppIpcSendFunc send, AppIpcNotifyFunc notify) {
  g_ipcNotify.store(notify, std::memory_order_release);
  g_ipcSend.store(send, std::memory_order_release);
  g_ipcGetChannel.store(getChannel, std::memory_order_release);
}

void RegHighPriQueueProcObj(HighPriQueueProcBase* object) {
  g_highPri.store(object, std::memory_order_release);
}

void SetMsgQueueStatisticInstance(MsgQueueStatistic* object) {
  g_queueStatistic.store(object, std::memory_order_release);
}
