#include "update/exe_script_proxy.h"

#include <sys/random.h>

#include <array>
#include <atomic>
#include <mutex>

#include "base/result_codes.h"
#include "frame/sys_res_get.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "update/script_exe_messages.h"
#include "update/send_record.h"
#include "velto/kel_task.h"

namespace {

using TolaCmpMsg::TolaMsgExeUpdateAuthVerifyAckData;
using TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData;
using TolaCmpMsg::TolaMsgExeUpdateScriptAckData;
using TolaCmpMsg::TolaMsgExeUpdateScriptData;

constexpr uint16_t kModule = kScriptExeCompId;
constexpr char kProcessName[] = "update_active";
constexpr char kStartScript[] = "update_common.sh";
constexpr int kPullAttempts = 5;
constexpr int kPullPolls = 8;
constexpr uint32_t kSecondMs = 1000;
constexpr uint32_t kRunWaitMs = 1200000;
constexpr uint32_t kAuthWaitMs = 10000;
constexpr uint32_t kSendTries = 11;
constexpr uint32_t kEventReply = 1;
constexpr uint32_t kEventAuth = 2;

/// What the component's task leaves for the requesting one before it wakes it; a slot a task id, since
/// several tasks of a process may wait.
struct Slot {
  uint16_t awaited;  ///< sequence number of the task's request; 0: it waits for none
  uint16_t result;
  uint16_t authSeqNo;
};
std::array<Slot, kKelTaskMax + 1> g_slots;
std::mutex g_slotMutex;  ///< guards them; also held from a slot's filling until its task's event is written

/// Ids that no task can have share the slot 0, which nobody reads.
Slot& SlotOf(uint32_t taskId) {
  return g_slots[taskId < g_slots.size() ? taskId : 0];
}

Slot SlotNow(uint32_t taskId) {
  const std::lock_guard lock(g_slotMutex);
  return SlotOf(taskId);
}

/// Whether the message `seqNo` is for an earlier request, given up since: task ids are used again.
bool IsLate(const Slot& slot, uint16_t seqNo) {
  if (slot.awaited == 0 || slot.awaited == seqNo) return false;
  LOG_ERR(kModule, "late seq:%u, awaited:%u", seqNo, slot.awaited);
  return true;
}

/// From its beginning to its end the calling task waits for the request `seqNo`.
class Awaiting {
 public:
  Awaiting(uint32_t taskId, uint16_t seqNo) : taskId_(taskId) {
    const std::lock_guard lock(g_slotMutex);
    SlotOf(taskId_).awaited = seqNo;
    uint32_t stale = 0;  // the late reply to an earlier request may not answer this one
    (void)KEL_EventRead(kEventReply | kEventAuth, &stale, kKelEventAny, 0);
  }
  ~Awaiting() {
    const std::lock_guard lock(g_slotMutex);
    SlotOf(taskId_).awaited = 0;
  }
  Awaiting(const Awaiting&) = delete;
  Awaiting& operator=(const Awaiting&) = delete;

 private:
  uint32_t taskId_;
};

/// The executor remembers results by sequence number alone, so a restarted requester must not come with the
/// numbers of its former life, nor ever with 0.
uint16_t NextSeqNo() {
  static std::atomic<uint16_t> counter = [] {
    uint16_t start = 0;
    if (getrandom(&start, sizeof(start), 0) != sizeof(start)) start = static_cast<uint16_t>(GetMsTime());
    return start;
  }();
  const uint16_t next = ++counter;
  return next != 0 ? next : ++counter;
}

bool ProcessRuns() {
  return TOLA_GetProcessPidByName(kProcessName) >= 1;
}

/// Watches one start for its eight seconds; what the last look shows counts, `misses` counts on.
bool WatchStart(int& misses) {
  bool runs = false;
  for (int poll = 0; poll < kPullPolls; ++poll) {
    KEL_TaskDelay(kSecondMs);
    runs = ProcessRuns();
    if (!runs) ++misses;
  }
  return runs;
}

struct Exchange {
  uint32_t taskId;
  uint32_t compId;
  uint16_t seqNo;
  bool needAuth;
  uint32_t waitMs;
};

uint32_t AwaitResult(Exchange exchange, TolaMsgExeUpdateScriptData& request) {
  bool resent = false;
  while (true) {
    uint32_t events = 0;
    const uint32_t ret = KEL_EventRead(kEventReply | kEventAuth, &events, kKelEventAny, exchange.waitMs);
    if (ret == kKelErrTimeout) {
      LOG_ERR(kModule, "timeout,resend=%u", resent ? 1u : 0u);
      if (resent || TryToSendMsg(exchange.compId, exchange.seqNo, request) != 0) return kExeErrTimeout;
      resent = true;
    } else if (ret != 0) {
      LOG_ERR(kModule, "read event: %d", static_cast<int>(ret));
      return kFailure;
    } else if ((events & kEventReply) != 0) {
      return SlotNow(exchange.taskId).result;
    } else if ((events & kEventAuth) != 0) {
      const uint16_t answer = exchange.needAuth ? 0 : 1;
      const uint32_t sent =
          SendUpdateAuthReplyMsg(exchange.compId, SlotNow(exchange.taskId).authSeqNo, answer);
      if (!exchange.needAuth) return kSuccess;  // kept: refused, and success for the caller
      if (sent != 0) return sent;
      exchange.waitMs = kRunWaitMs;
    } else {
      LOG_ERR(kModule, "unknow event:%x", events);
    }
  }
}

void LogRequest(const TolaMsgExeUpdateScriptData& request, bool needAuth, uint16_t cpuLimit) {
  LOG_EVT(kModule, "sc:%s, F:%s, para:%s", request.scriptFullPath.c_str(), request.updateFileFullPath.c_str(),
          request.extendScriptPara.c_str());
  LOG_EVT(kModule, "sPath:%s, list:%s, sig:%s, crl:%s, ca:%d, auth:%d, cpu:%d", request.signaturePath.c_str(),
          request.fileListFileName.c_str(), request.signatureFileName.c_str(),
          request.signatureCrlFileName.c_str(), request.caType, needAuth ? 1 : 0, cpuLimit);
}

/// `seqNo` null: the reply's number is not known.
uint32_t TakeReply(const uint8_t* data, uint32_t length, const uint16_t* seqNo) {
  TolaMsgExeUpdateScriptAckData reply;
  const uint32_t parsed = reply.ParseFromMsg(data, length);
  if (parsed != 0) {
    LOG_ERR(kModule, "parse err:%d", static_cast<int>(parsed));
    return parsed;
  }
  const std::lock_guard lock(g_slotMutex);
  Slot& slot = SlotOf(reply.requesterTaskId);
  if (seqNo != nullptr && IsLate(slot, *seqNo)) return kFailure;
  slot.result = reply.result;
  const uint32_t ret = KEL_EventWrite(reply.requesterTaskId, kEventReply);
  LOG_EVT(kModule, "recv:%d exe ret:0x%x %d", static_cast<int>(reply.requesterTaskId), reply.result,
          static_cast<int>(ret));
  return ret;
}

}  // namespace

uint32_t ExeScriptProxy(uint32_t compId, TolaMsgExeUpdateScriptData* request, bool needAuth,
                        uint16_t cpuLimit) {
  if (request == nullptr) return kFailure;
  uint32_t taskId = 0;
  if (KEL_TaskCurrentIdGet(&taskId) != 0) return kFailure;  // nobody could be woken by the reply
  const uint32_t pulled = CheckAndPullExeScriptProcess(compId);
  if (pulled != 0) return pulled;

  if (needAuth) request->signaturePath.Empty();
  LogRequest(*request, needAuth, cpuLimit);
  request->cpuLimit = cpuLimit;
  request->requesterTaskId = taskId;

  const Exchange exchange = {taskId, compId, NextSeqNo(), needAuth, needAuth ? kAuthWaitMs : kRunWaitMs};
  const Awaiting awaiting(taskId, exchange.seqNo);
  const uint32_t sent = TryToSendMsg(compId, exchange.seqNo, *request);
  if (sent != 0) return sent;
  LOG_EVT(kModule, "send req:%d %d %d", static_cast<int>(taskId), static_cast<int>(exchange.waitMs),
          exchange.seqNo);
  return AwaitResult(exchange, *request);
}

uint32_t CheckAndPullExeScriptProcess(uint32_t /*compId*/) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  if (ProcessRuns()) return kSuccess;
  int misses = 0;
  for (int attempt = 0; attempt < kPullAttempts; ++attempt) {
    const uint32_t ret = TOLA_SystemSudoWithoutParam(kStartScript);
    if (ret != 0) {
      LOG_ERR(kModule, "pull err %u", ret);
      return ret;
    }
    if (WatchStart(misses)) {
      LOG_EVT(kModule, "pull success,cnt:%d", misses);
      return kSuccess;
    }
  }
  LOG_ERR(kModule, "!pull cnt:%d,%d", kPullAttempts, misses);
  return kFailure;
}

uint32_t SendUpdateExeScriptMsg(uint32_t compId, uint16_t seqNo, TolaMsgExeUpdateScriptData& request) {
  return SendRecord(compId, kScriptExeCompId, kMsgExeUpdateScript, seqNo, request);
}

uint32_t TryToSendMsg(uint32_t compId, uint16_t seqNo, TolaMsgExeUpdateScriptData& request) {
  uint32_t tries = 0;
  while (true) {
    const uint32_t ret = SendUpdateExeScriptMsg(compId, seqNo, request);
    if (ret == 0) return kSuccess;
    if (++tries == kSendTries) {
      LOG_ERR(kModule, "send qeq fail %u,%u", ret, kSendTries + 1);
      return ret;
    }
    KEL_TaskDelay(kSecondMs);
  }
}

uint32_t SendUpdateAuthReplyMsg(uint32_t compId, uint16_t seqNo, uint16_t result) {
  TolaMsgExeUpdateAuthVerifyAckData reply;
  reply.requesterTaskId = 0;
  reply.result = result;
  return SendRecord(compId, kScriptExeCompId, kMsgUpdateAuthAck, seqNo, reply);
}

uint32_t ProcUpdateExeScriptReplyMsg(const uint8_t* data, uint32_t length) {
  return TakeReply(data, length, nullptr);
}

uint32_t ProcUpdateExeScriptReplyMsg(const uint8_t* data, uint32_t length, uint16_t seqNo) {
  return TakeReply(data, length, &seqNo);
}

uint32_t ProcUpdateAuthReqMsg(const uint8_t* data, uint32_t length, uint16_t seqNo) {
  TolaMsgExeUpdateAuthVerifyData request;
  const uint32_t parsed = request.ParseFromMsg(data, length);
  if (parsed != 0) {
    LOG_ERR(kModule, "parse err:%d", static_cast<int>(parsed));
    return parsed;
  }
  const std::lock_guard lock(g_slotMutex);
  Slot& slot = SlotOf(request.requesterTaskId);
  if (IsLate(slot, seqNo)) return kFailure;
  slot.authSeqNo = seqNo;
  const uint32_t ret = KEL_EventWrite(request.requesterTaskId, kEventAuth);
  LOG_EVT(kModule, "recv:%d auth seq:%d %d", static_cast<int>(request.requesterTaskId), seqNo,
          static_cast<int>(ret));
  return ret;
}
