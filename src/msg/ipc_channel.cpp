#include "msg/ipc_channel.h"

#include <errno.h>
#include <pwd.h>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/semap.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr int kMode = 0600;
constexpr mode_t kModeOthers = 0077;
constexpr size_t kUserBuffer = 1024;

/// The wait at a full queue: it holds four full frames, so a reader that is awake has made room within
/// microseconds; one that sleeps or is stuck is asked less and less often.
class RoomWait {
 public:
  /// False when 5 s have been waited already.
  bool Next() {
    if (turns_ < kTurns) {
      ++turns_;
      IpcPause();
      return true;
    }
    if (waitedMs_ >= kIpcSendWaits * kIpcSendWaitMs) return false;
    KEL_TaskDelay(delayMs_);
    waitedMs_ += delayMs_;
    delayMs_ = std::min(delayMs_ * 2, kIpcSendWaitMs);
    return true;
  }

 private:
  static constexpr uint32_t kTurns = 1000;
  uint32_t turns_ = 0;
  uint32_t delayMs_ = 1;
  uint32_t waitedMs_ = 0;
};

/// Puts frames into one queue and raises the semaphore as often. Raises are made together when there is no
/// room for more, and at the end: whoever reads what has come in the meantime need not be told again and
/// again.
class FrameSender {
 public:
  FrameSender(const IpcTarget& target, IpcWait wait) : target_(target), wait_(wait) {}
  ~FrameSender() { Raise(); }
  FrameSender(const FrameSender&) = delete;
  FrameSender& operator=(const FrameSender&) = delete;

  bool Put(const IPC_MSG_S& frame) {
    RoomWait room;
    while (msgsnd(target_.queueId, &frame, kIpcFrameHead + frame.length, IPC_NOWAIT) != 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN || wait_ == IpcWait::kNever) return false;
      Raise();
      if (!room.Next()) return false;
    }
    ++raises_;
    return true;
  }

 private:
  void Raise() {
    const int16_t raises = std::exchange(raises_, int16_t{0});
    if (raises == 0 || target_.semaphoreId == kSemapNone) return;
    if (OperSemap(target_.semaphoreId, raises, 0) != 0) LOG_ERR(kLogModule, "semap oper failed.");
  }

  const IpcTarget& target_;
  IpcWait wait_;
  int16_t raises_ = 0;
};
static_assert(kIpcFramesMax <= INT16_MAX);

/// A message that was found to be too long, with one byte behind the frame: a good frame that came in front
/// of it meanwhile leaves that byte free.
struct CutMessage {
  IPC_MSG_S frame;
  uint8_t more;
};
static_assert(offsetof(CutMessage, more) == sizeof(long) + kIpcFrameMax);

}  // namespace

void IpcPause() {
  // Not a spin: each look takes the queue's lock, and the other one may need this very processor.
  (void)sched_yield();
}

uint32_t IpcUserGet(const char* user, uid_t* uid, gid_t* gid) {
  struct passwd entry = {};
  struct passwd* found = nullptr;
  char buffer[kUserBuffer];
  if (getpwnam_r(user, &entry, buffer, sizeof(buffer), &found) != 0 || found == nullptr) return kFailure;
  *uid = entry.pw_uid;
  *gid = entry.pw_gid;
  return kSuccess;
}

bool IpcIsOurs(const struct ipc_perm& perm) {
  uid_t platform = geteuid();
  gid_t group = 0;
  (void)IpcUserGet(kIpcOwner, &platform, &group);  // without the account it is ourselves and the superuser
  const auto known = [platform](uid_t uid) { return uid == geteuid() || uid == 0 || uid == platform; };
  return known(perm.uid) && known(perm.cuid) && (perm.mode & kModeOthers) == 0;
}

bool IpcQueueIsOurs(int32_t queueId) {
  struct msqid_ds state = {};
  if (msgctl(queueId, IPC_STAT, &state) != 0) return false;
  if (IpcIsOurs(state.msg_perm)) return true;
  errno = EPERM;
  return false;
}

uint32_t IpcQueueOpen(key_t key, int32_t* queueId) {
  *queueId = msgget(key, IPC_CREAT | kMode);
  if (*queueId >= 0 && IpcQueueIsOurs(*queueId)) return kSuccess;
  *queueId = -1;
  return kFailure;
}

uint32_t IpcQueueRemove(int32_t queueId) {
  return msgctl(queueId, IPC_RMID, nullptr) == 0 ? kSuccess : kFailure;
}

uint32_t ChangeQueenOwner(int32_t queueId, const char* user) {
  struct msqid_ds state = {};
  if (msgctl(queueId, IPC_STAT, &state) != 0) return kFailure;
  if (IpcUserGet(user, &state.msg_perm.uid, &state.msg_perm.gid) != 0) return kFailure;
  return msgctl(queueId, IPC_SET, &state) == 0 ? kSuccess : kFailure;
}

uint32_t IpcQueueStateGet(int32_t queueId, IpcQueueState* state) {
  struct msqid_ds kernel = {};
  if (msgctl(queueId, IPC_STAT, &kernel) != 0) return kFailure;
  *state = {kernel.msg_qnum,
            kernel.msg_cbytes,
            kernel.msg_qbytes,
            kernel.msg_stime,
            kernel.msg_rtime,
            static_cast<uint32_t>(kernel.msg_lspid),
            static_cast<uint32_t>(kernel.msg_lrpid)};
  return kSuccess;
}

uint32_t IpcSendFrame(const IpcTarget& target, const IPC_MSG_S& frame, IpcWait wait) {
  if (frame.length > kIpcPayloadMax) return kIpcErrSend;
  FrameSender sender(target, wait);
  return sender.Put(frame) ? kSuccess : kIpcErrSend;
}

uint32_t IpcSendMessage(const IpcTarget& target, const IpcEnvelope& envelope, const tagMsgBuf* msg,
                        IpcWait wait) {
  IPC_MSG_S frame;  // not cleared: IpcCutFrame fills what is sent of the payload
  frame.type = envelope.priorityClass;
  frame.sourcePid = envelope.sourcePid;
  frame.destinationPid = target.pid;
  frame.sequence = envelope.sequence;
  frame.urgent = envelope.urgent ? 1 : 0;
  frame.reserved = 0;
  const uint32_t count = IpcFrameCount(GetTolaMsgLen(msg));
  FrameSender sender(target, wait);
  for (uint32_t index = 0; index < count; ++index) {
    IpcCutFrame(msg, index, &frame);
    if (!sender.Put(frame)) return kIpcErrSend;
  }
  return kSuccess;
}

/// Takes the next message of the lowest class; with `any` set the oldest of any class, also of those that
/// nobody reads and that would fill the queue for good.
ssize_t IpcQueueReader::Receive(IPC_MSG_S* frame, bool any, uint32_t* ret) const {
  const long type = any ? 0 : -kIpcClassLast;
  ssize_t got = msgrcv(queueId_, frame, kIpcFrameMax, type, IPC_NOWAIT);
  if (got < 0 && errno == E2BIG) {  // it would stay in front for ever: take it cut, and throw it away
    CutMessage cut = {};
    got = msgrcv(queueId_, &cut, kIpcFrameMax + 1, type, IPC_NOWAIT | MSG_NOERROR);
    if (got > static_cast<ssize_t>(kIpcFrameMax)) {
      got = kIpcFrameMax;
      *ret = kIpcErrFrame;
    }
    *frame = cut.frame;
  }
  if (got >= 0 && frame->type > kIpcClassLast) *ret = kIpcErrFrame;
  return got;
}

/// Whether the queue holds nothing at all, strangers included; `sender` is who sent last.
bool IpcQueueReader::LooksEmpty(uint32_t* sender) const {
  IpcQueueState state = {};
  if (IpcQueueStateGet(queueId_, &state) != 0) return false;
  *sender = state.sender;
  return state.messages == 0;
}

uint32_t IpcQueueReader::Read(IPC_MSG_S* frame, size_t* size, uint32_t* sender) {
  *size = 0;
  *sender = 0;
  uint32_t ret = kSuccess;
  uint32_t last = 0;
  ssize_t got = Receive(frame, false, &ret);
  if (got < 0) {
    const bool look = ++emptyReads_ % emptyReadsToLook_ == 0;
    empty_ = !look || LooksEmpty(&last);
    if (empty_ || (got = Receive(frame, true, &ret)) < 0) return kIpcErrEmpty;
    emptyReads_ = emptyReadsToLook_ - 1;  // where one was found there may be more
  }
  *size = static_cast<size_t>(got);
  if (!empty_) return ret;
  // Empty before and empty after: this one alone was sent meanwhile, and the queue knows by whom.
  empty_ = LooksEmpty(&last);
  if (empty_) *sender = last;
  return ret;
}
