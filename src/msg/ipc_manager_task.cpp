/// The tasks "IPCMGR" and its reader: reading, rebuilding, delivering, and the timer's work.
#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/heart_beat_manager.h"
#include "msg/ipc_manager_impl.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kFramesAtOnce = 1024;
// Looks at an empty queue before the reader task sleeps on the semaphore again: more when a sender is in
// flow.
constexpr uint32_t kBusyFrames = 8;
constexpr uint32_t kLooks = 10;
constexpr uint32_t kLooksWhenBusy = 300;
constexpr uint32_t kSemapWaitMs = 20;
constexpr uint32_t kTicksPerSecond = 50;
constexpr uint16_t kHeartBeatTimeoutS = 300;

}  // namespace

void CIpcManager::Run() {
  for (;;) {
    uint32_t events = 0;
    if (KEL_EventRead(kIpcEventTimer | kIpcEventRead, &events, kKelEventAny, KEL_WAIT_FOREVER) != 0) continue;
    if ((events & kIpcEventRead) != 0) OnReadEvent();
    if ((events & kIpcEventTimer) != 0) OnTick();
  }
}

/// Reads until the queue stays empty for a moment. A sender in full flow fills it again and again: as long as
/// frames come, its raises are taken along here instead of waking the reader task one by one.
void CIpcManager::OnReadEvent() {
  uint32_t frames = 0;
  uint32_t looks = 0;
  for (;;) {
    const uint32_t read = ReadQueue();
    if (read == kFramesAtOnce) LOG_ERR(kLogModule, "Recv App Msg Over");
    frames += read;
    if (frames >= kFramesAtOnce) {  // the timer's turn; more is read after it
      DrainSemap(endpoint_.semapId);
      (void)KEL_EventWrite(taskId_, kIpcEventRead);
      return;
    }
    if (read != 0) {
      looks = 0;
      continue;
    }
    if (looks == (frames >= kBusyFrames ? kLooksWhenBusy : kLooks)) break;
    ++looks;
    IpcPause();
  }
  DrainSemap(endpoint_.semapId);
  (void)ReadQueue();  // what the raises that went just now announced; later ones wake the reader task
  ReleaseReader();
}

/// Reads until the queue is empty, at most kFramesAtOnce frames; gives their number.
uint32_t CIpcManager::ReadQueue() {
  IPC_MSG_S frame;
  frame.sourcePid = 0;  // a message that is too short for a head leaves it
  uint32_t frames = 0;
  for (; frames < kFramesAtOnce; ++frames) {
    size_t size = 0;
    uint32_t sender = 0;
    const uint32_t ret = reader_.Read(&frame, &size, &sender);
    if (ret == kIpcErrEmpty) break;
    if (ret != 0) {
      LOG_DBG(kLogModule, "Recv App:%d  Msg Err:%#x", static_cast<int>(frame.sourcePid), ret);
      continue;
    }
    TakeFrame(frame, size, sender);
  }
  return frames;
}

void CIpcManager::TakeFrame(const IPC_MSG_S& frame, size_t size, uint32_t sender) {
  uint32_t ret = kIpcErrFrame;
  tagMsgBuf* msg = nullptr;
  if (size >= kIpcFrameHead) {
    if (frame.sourcePid == frame.destinationPid) return;
    // The main process passes frames of others on under their own names.
    const bool known = sender == 0 || sender == frame.sourcePid || registry_.PassesOn(sender);
    if (known) ret = reassembly_.Take(frame, size, &msg);
  }
  if (ret != 0) LOG_DBG(kLogModule, "Recv App:%d  Msg Err:%#x", static_cast<int>(frame.sourcePid), ret);
  if (msg != nullptr) Deliver(msg, frame);
}

void CIpcManager::Deliver(tagMsgBuf* msg, const IPC_MSG_S& frame) {
  if (msg->source == kIpcModule) {
    const uint32_t ret = HandleInner(msg, frame.sourcePid);
    if (ret != 0) LOG_ERR(kLogModule, "Inter Msgtype:%#x Err:%#x", msg->type, ret);
    TOLA_MsgFree(msg);
    return;
  }
  const uint16_t source = msg->source;  // the receiver may free the message as soon as it has it
  const uint16_t type = msg->type;
  const uint16_t destination = msg->destination;
  uint32_t ret = kSuccess;
  {
    const ArrivedMsg arrived(msg);
    ret = frame.urgent != 0 ? TOLA_MsgUrgPost(destination, msg, 1) : TOLA_MsgPost(destination, msg, 1);
  }
  if (ret == 0) return;
  LOG_ERR(kLogModule, "Src:%#x > Dst:%#x Msgtype:%#x Err:%#x", source, destination, type, ret);
  TOLA_MsgFree(msg);
}

void CIpcManager::OnTick() {
  const bool second = ++ticks_ % kTicksPerSecond == 0;
  SendHeartBeat();
  reassembly_.Age();
  if (second) {
    ProcAppArmRestart();
    WatchMain();
  }
  KeepHeartBeat(second);
  (void)ReadQueue();  // frames whose raise did not arrive; what is left over waits for the next tick
}

/// Asks for this application's own restart, once a second until the request is on its way.
void CIpcManager::ProcAppArmRestart() {
  if (!appArmRestart_.exchange(false, std::memory_order_relaxed)) return;
  const uint32_t ret = SendRebootMsg(kIpcRebootByName, 0, info_.name, IpcWait::kNever);
  LOG_EVT(kLogModule, "app arm restart result:%#x", ret);
  if (ret != 0) FlagAppArmRestart();
}

/// The heart-beat manager comes up after this one.
void CIpcManager::KeepHeartBeat(bool second) {
  if (!heartRegistered_) {
    if (heartRefused_ && !second) return;
    const uint32_t ret = TOLA_RegThreadHeartBeat(kHeartBeatTimeoutS, 0);
    heartRegistered_ = ret == 0;
    heartRefused_ = ret != 0 && ret != kHeartErrNotInit;  // each refusal may be a line in the log
  } else if (second) {
    (void)TOLA_SendThreadHeartBeat();  // what it complains about it logs
  }
}

void CIpcManager::ReadQueueTask() {
  for (;;) {
    const uint32_t ret = OperSemap(endpoint_.semapId, -1, kSemapWaitMs);
    if (ret == kSemapTimeout) continue;
    if (ret != 0) {  // the timer's work reads the queue as well, so nothing is lost
      LOG_ERR(kLogModule, "ReadQueueTask oper semap fail.");
      KEL_TaskDelay(kSemapWaitMs);
      continue;
    }
    readerParked_.store(true, std::memory_order_release);
    (void)KEL_EventWrite(taskId_, kIpcEventRead);  // the task never ends
    (void)KEL_SemaP(parkSema_, KEL_WAIT_FOREVER);
  }
}

void CIpcManager::ReleaseReader() {
  if (readerParked_.exchange(false, std::memory_order_acq_rel)) (void)KEL_SemaV(parkSema_);
}
