#include "board_main/main_queue.h"

#include <string.h>
#include <sys/ipc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "board_main/authorisation.h"
#include "board_main/process_control.h"
#include "board_main/requester_comp.h"
#include "log/run_log.h"
#include "msg/semap.h"
#include "update/exe_script_proxy.h"
#include "velto/kel_mem.h"
#include "velto/kel_task.h"

namespace board_main {
namespace {

constexpr uint16_t kLogModule = kIpcModule;
constexpr uint32_t kTaskPriority = 15;
constexpr uint32_t kIdleWaitMs = 200;
constexpr uint32_t kKeptWaitMs = 5;  ///< while frames wait for room in a queue
constexpr uint32_t kErrorWaitMs = 200;
constexpr uint32_t kFramesARound = 1024;
constexpr uint32_t kEmptyReadsToLook = 8;  ///< at a read each 200 ms sooner than a sender gives up
constexpr uint64_t kLookMs = 1000;
constexpr uint64_t kNsPerMs = 1000000;
constexpr char kUpdateProcess[] = "update_active";  ///< the platform has a script to start it

uint64_t NowMs() {
  return KEL_ClockMonotonicNs() / kNsPerMs;
}

/// The requesters' own way to start the update process, which never starts a second one; it waits for
/// seconds.
void PullUpdateProcess(uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
  (void)CheckAndPullExeScriptProcess(kRequesterCompId);  // says in the log what came of it
}

/// Copies the fixed part of a message and the ids behind it. False when the length is not theirs.
template <class Record>
bool ReadWithIds(std::span<const uint8_t> data, Record& record, std::vector<uint16_t>& ids) {
  if (data.size() < sizeof(record)) return false;
  memcpy(&record, data.data(), sizeof(record));
  const std::span<const uint8_t> rest = data.subspan(sizeof(record));
  if (rest.size() != record.count * sizeof(uint16_t)) return false;
  ids.resize(record.count);
  if (!ids.empty()) memcpy(ids.data(), rest.data(), rest.size());
  return true;
}

template <class Record>
bool ReadRecord(std::span<const uint8_t> data, Record& record) {
  if (data.size() != sizeof(record)) return false;
  memcpy(&record, data.data(), sizeof(record));
  return true;
}

void LogRefusedIds(uint32_t pid, const std::vector<uint16_t>& refused) {
  if (!refused.empty())
    LOG_ERR(kLogModule, "process %u: module ids refused: %s", pid, IdRanges(refused).c_str());
}

}  // namespace

MainQueue::MainQueue()
    : pid_(static_cast<uint32_t>(getpid())),
      router_(
          registry_, [this](const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) { return PassOn(to, frame); },
          [this](const FrameLoss& loss) {
            lostFrames_ += loss.frames;
            LOG_ERR(kLogModule, "process %u: %u frames for module %#x dropped: %s", loss.sourcePid,
                    loss.frames, loss.destination, loss.why);
          }),
      supervisor_(
          registry_,
          {ProcessIsAlive,
           // Only the process itself reads its queue: nobody registers for another and has that ended.
           [this](const RegisteredApp& app) {
             return FillOf(app.queue.queueId).state.reader == app.queue.pid;
           },
           SignalProcess,
           [this](const std::string& name, const ProcessImage& image) { return StartApp(name, image); },
           [](const std::string& name, const char* what) {
             LOG_EVT(kLogModule, "application %s %s", name.c_str(), what);
           }}) {}

uint32_t MainQueue::Open() {
  uint32_t handle = 0;
  if (KEL_HandleInitialize("main queue", &handle) != 0 || classes_.Init(handle) != 0) return 1;
  return OpenObjects();
}

uint32_t MainQueue::OpenObjects() {
  const key_t key = ftok(kIpcMainPath, kIpcProject);
  if (key == -1 || IpcQueueOpen(key, &queueId_) != 0 || ChangeQueenOwner(queueId_, kIpcOwner) != 0) return 1;
  if (CreateSemap(kSemapPublicKey, &semaphoreId_) != 0 || ChangeSemapOwner(semaphoreId_, kIpcOwner) != 0)
    return 1;
  reader_ = IpcQueueReader(queueId_, kEmptyReadsToLook);
  LOG_EVT(kLogModule, "main queue %d, public semaphore %d", queueId_, semaphoreId_);
  return 0;
}

uint32_t MainQueue::Start() {
  uint32_t result =
      modules_.Start([this](uint32_t pid, const tagMsgBuf& head, const std::vector<uint8_t>& data) {
        return SendOfModule(pid, head, data);
      });
  if (result != 0) return result;
  const uintptr_t arguments[4] = {reinterpret_cast<uintptr_t>(this), 0, 0, 0};
  uint32_t task = 0;
  return KEL_TaskCreate("MAINQUEUE", &task, TaskEntry, kTaskPriority, 0, 0, arguments);
}

void MainQueue::TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<MainQueue*>(self)->Run();
}

void MainQueue::Run() {
  uint32_t waitMs = 0;  // an earlier main process may have left frames
  for (;;) {
    const uint32_t result = OperSemap(semaphoreId_, -1, waitMs);
    if (result != 0 && result != kSemapTimeout) KEL_TaskDelay(kErrorWaitMs);  // gone: the queue is still read
    DrainSemap(semaphoreId_);
    try {
      waitMs = Round();
    } catch (const std::exception& error) {
      LOG_ERR(kLogModule, "out of memory: %s", error.what());
      waitMs = kErrorWaitMs;
    }
  }
}

/// Where somebody has removed the queue or the semaphore they are made anew: without them nobody is heard,
/// and those that are supervised would be ended as silent.
void MainQueue::KeepObjects() {
  if (FillOf(static_cast<uint32_t>(queueId_)).exists && GetSemapVal(semaphoreId_) >= 0) return;
  LOG_ERR(kLogModule, "main queue or public semaphore removed, opened again:%u", OpenObjects());
}

/// Reads what is there, passes on what was kept, looks at the processes. @return how long to wait at most
uint32_t MainQueue::Round() {
  const std::lock_guard lock(mutex_);
  const uint64_t nowMs = NowMs();
  const bool isEmpty = ReadSome(nowMs);
  if (nowMs - lookedMs_ >= kLookMs) {
    lookedMs_ = nowMs;
    KeepObjects();
    std::erase_if(children_, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
    if (supervisor_.Step(nowMs)) RegistryChanged(nowMs);
  }
  router_.Retry(nowMs);
  SendTables();
  if (!isEmpty) return 0;
  return router_.Kept() != router_.KeptUnknown() || !tableDue_.empty() ? kKeptWaitMs : kIdleWaitMs;
}

/// @return whether the queue is empty now
bool MainQueue::ReadSome(uint64_t nowMs) {
  for (uint32_t count = 0; count < kFramesARound; ++count) {
    IPC_MSG_S frame;
    size_t size = 0;
    uint32_t sender = 0;
    const uint32_t result = reader_.Read(&frame, &size, &sender);
    if (result == kIpcErrEmpty) return true;
    if (result == 0) {
      HandleFrame(frame, size, sender, nowMs);
    } else {
      LOG_ERR(kLogModule, "frame of process %u refused: %#x", sender, result);
    }
  }
  return false;
}

void MainQueue::HandleFrame(const IPC_MSG_S& frame, size_t size, uint32_t sender, uint64_t nowMs) {
  if (size >= kIpcFrameHead && sender != 0 && sender != frame.sourcePid) {
    LOG_ERR(kLogModule, "frame of process %u says it is of %u", sender, frame.sourcePid);
    return;
  }
  if (router_.Take(frame, static_cast<uint32_t>(size), nowMs) == Verdict::kLocal) HandleLocal(frame, nowMs);
}

/// Messages of the main process's modules are single frames: none is longer than a few hundred bytes.
void MainQueue::HandleLocal(const IPC_MSG_S& frame, uint64_t nowMs) {
  if (frame.number != kIpcLastFrame) {
    LOG_ERR(kLogModule, "process %u: message of several frames refused", frame.sourcePid);
    return;
  }
  tagMsgBuf head;
  memcpy(&head, frame.payload, sizeof(head));
  const std::span<const uint8_t> data(frame.payload + kMsgHeadSize, frame.length - kMsgHeadSize);
  if (data.size() != GetTolaMsgLen(&head)) {
    LOG_ERR(kLogModule, "process %u: message %#x lies about its length", frame.sourcePid, head.type);
    return;
  }
  if (head.destination == kIpcModule) {
    if (head.source == kIpcModule) HandleOwn(frame.sourcePid, head.type, data, nowMs);
    return;
  }
  if (head.destination == kCommandModule && registry_.FindByPid(frame.sourcePid) == nullptr) {
    LOG_ERR(kLogModule, "process %u is not registered and may not have commands run", frame.sourcePid);
    return;
  }
  modules_.Post({frame.sourcePid, head, {data.begin(), data.end()}});
}

void MainQueue::HandleOwn(uint32_t pid, uint16_t type, std::span<const uint8_t> data, uint64_t nowMs) {
  bool taken = false;
  switch (type) {
    case kIpcRegister:
      taken = HandleRegister(pid, data, nowMs);
      break;
    case kIpcModuleChange:
      taken = HandleModuleChange(pid, data, nowMs);
      break;
    case kIpcHeartBeat:
      taken = HandleHeartBeat(pid, data, nowMs);
      break;
    case kIpcReboot:
      taken = HandleReboot(pid, data, nowMs);
      break;
    default:
      break;
  }
  if (!taken) LOG_ERR(kLogModule, "process %u: message type %u refused", pid, type);
}

bool MainQueue::HandleRegister(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs) {
  IpcRegisterMsg record;
  std::vector<uint16_t> ids;
  if (!ReadWithIds(data, record, ids) || record.pid != pid) return false;
  const QueueFill queue = FillOf(record.queueId);
  // A queue that another process reads is not this one's.
  if (!queue.exists || (queue.state.reader != 0 && queue.state.reader != pid)) return false;
  // What the main process may write to, and whoever registers may not, stays as it is.
  if (!IpcQueueIsOurs(static_cast<int32_t>(record.queueId))) return false;
  if (!SemapIsOurs(record.semaphoreId)) record.semaphoreId = kSemapNone;
  const RegisterResult result = TryRegister(pid, record, ids, nowMs);
  if (result == kRegistered) {
    LOG_EVT(kLogModule, "process %u registered as %s", pid, record.name);
    RegistryChanged(nowMs);
    return true;
  }
  IpcAcknowledgeMsg refusal = {};
  refusal.version = kIpcMainMsgVersion;
  refusal.result = result;
  refusal.mainPid = pid_;
  // One try: it asks again as long as it is not registered.
  (void)SendFrame({record.queueId, pid, record.moduleId, record.semaphoreId}, MakeTable(refusal));
  return false;
}

RegisterResult MainQueue::TryRegister(uint32_t pid, const IpcRegisterMsg& record,
                                      std::span<const uint16_t> ids, uint64_t nowMs) {
  ProcessImage image;
  if (record.queueId == static_cast<uint32_t>(queueId_) || pid == pid_ ||
      !ReadProcessImage(static_cast<pid_t>(pid), image) || supervisor_.IsEnding(image)) {
    return kRegisterErrRecord;
  }
  if (supervisor_.IsHeld(record)) return kRegisterErrTaken;
  std::vector<uint16_t> refused;
  const RegisterResult result = registry_.Register(record, ids, nowMs, refused);
  if (result != kRegistered) return result;
  LogRefusedIds(pid, refused);
  supervisor_.Registered(record.name, image);
  return result;
}

bool MainQueue::HandleModuleChange(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs) {
  IpcModuleChangeMsg record;
  std::vector<uint16_t> ids;
  std::vector<uint16_t> refused;
  if (!ReadWithIds(data, record, ids) || record.pid != pid || record.operation > 1) return false;
  if (!(record.operation == 0 ? registry_.AddModules(pid, ids, refused)
                              : registry_.RemoveModules(pid, ids, refused))) {
    return false;
  }
  LogRefusedIds(pid, refused);
  RegistryChanged(nowMs);
  return true;
}

bool MainQueue::HandleHeartBeat(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs) {
  IpcHeartBeatMsg record;
  if (!ReadRecord(data, record) || record.pid != pid) return false;
  // A process that this main process does not know yet beats, too; it will register.
  (void)registry_.Beat(pid, record.counter, nowMs);
  return true;
}

bool MainQueue::HandleReboot(uint32_t pid, std::span<const uint8_t> data, uint64_t nowMs) {
  IpcRebootMsg record;
  if (!ReadRecord(data, record) || record.pid != pid || registry_.FindByPid(pid) == nullptr) return false;
  const std::string name(record.name, strnlen(record.name, sizeof(record.name)));
  const RegisteredApp* app = nullptr;
  if (record.kind == kIpcRebootByName) app = registry_.FindByName(name);
  if (record.kind == kIpcRebootById) app = registry_.FindByAppId(record.appId);
  if (app == nullptr || !supervisor_.Restart(app->queue.pid, nowMs)) return false;
  RegistryChanged(nowMs);
  return true;
}

/// Everybody is to know, and frames that waited for a module go before those that come now.
void MainQueue::RegistryChanged(uint64_t nowMs) {
  tableDue_.clear();
  for (const RegisteredApp& app : registry_.Apps()) tableDue_.insert(app.queue.pid);
  router_.Retry(nowMs);
}

void MainQueue::SendTables() {
  std::erase_if(tableDue_, [&](uint32_t pid) { return SendTable(pid); });
}

/// @return whether the process needs no table any more
bool MainQueue::SendTable(uint32_t pid) {
  const RegisteredApp* app = registry_.FindByPid(pid);
  if (app == nullptr) return true;
  const IpcAcknowledgeMsg tables = registry_.Acknowledge(pid_, pid);
  return SendFrame(app->queue, MakeTable(tables)) != SendOutcome::kFull;
}

/// In the first class: the receiver takes frames of others from this process only once it has read it.
IPC_MSG_S MainQueue::MakeTable(const IpcAcknowledgeMsg& tables) {
  const tagMsgBuf head = {kIpcModule, kIpcModule, kIpcAcknowledge, 0, 0, 0};
  IPC_MSG_S frame = MakeFrame(head, &tables, sizeof(tables));
  frame.type = kIpcClassUrgent;
  return frame;
}

/// A frame of another process goes only to one that has been sent the latest tables.
SendOutcome MainQueue::PassOn(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) {
  if (tableDue_.contains(to.pid)) {
    if (!SendTable(to.pid)) return SendOutcome::kFull;
    tableDue_.erase(to.pid);
  }
  return SendFrame(to, frame);
}

SendOutcome MainQueue::SendFrame(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) const {
  IPC_MSG_S sent = frame;
  sent.destinationPid = to.pid;
  const IpcTarget target = {static_cast<int32_t>(to.queueId), to.semaphoreId, to.pid};
  if (IpcSendFrame(target, sent, IpcWait::kNever) == 0) return SendOutcome::kSent;
  return FillOf(to.queueId).exists ? SendOutcome::kFull : SendOutcome::kGone;
}

IPC_MSG_S MainQueue::MakeFrame(tagMsgBuf head, const void* data, size_t length) {
  IPC_MSG_S frame = {};
  frame.type = classes_.ClassOf(head.type, false);
  frame.sourcePid = pid_;
  frame.sequence = ++sequence_;
  frame.number = kIpcLastFrame;
  length = std::min(length, static_cast<size_t>(kIpcPayloadMax - kMsgHeadSize));
  frame.length = static_cast<uint16_t>(kMsgHeadSize + length);
  SetTolaMsgLen(&head, static_cast<uint32_t>(length));
  memcpy(frame.payload, &head, sizeof(head));
  if (length != 0) memcpy(frame.payload + sizeof(head), data, length);
  return frame;
}

/// Goes by the router: a process that is not registered yet gets it when it is.
bool MainQueue::SendOfModule(uint32_t pid, const tagMsgBuf& head, const std::vector<uint8_t>& data) {
  const std::lock_guard lock(mutex_);
  const RegisteredApp* holder = registry_.FindByModule(head.destination);
  if (holder != nullptr && holder->queue.pid != pid) return false;  // another process's module by now
  const IPC_MSG_S frame = MakeFrame(head, data.data(), data.size());
  return router_.Take(frame, frame.length + kIpcFrameHead, NowMs()) == Verdict::kRouted;
}

bool MainQueue::StartApp(const std::string& name, const ProcessImage& image) {
  if (name == kUpdateProcess) {
    uint32_t task = 0;
    return KEL_TaskCreate("STARTAPP", &task, PullUpdateProcess, kTaskPriority, 0, 0, nullptr) == 0;
  }
  const pid_t pid = StartProcess(image);
  if (pid > 0) children_.push_back(pid);
  return pid > 0;
}

QueueFill MainQueue::FillOf(uint32_t queueId) const {
  QueueFill fill;
  fill.exists = IpcQueueStateGet(static_cast<int32_t>(queueId), &fill.state) == 0;
  return fill;
}

PlatformStatus MainQueue::Status() {
  const std::lock_guard lock(mutex_);
  const uint64_t nowMs = NowMs();
  PlatformStatus status;
  status.pid = pid_;
  status.queue = FillOf(static_cast<uint32_t>(queueId_));
  status.keptUnknown = router_.KeptUnknown();
  status.lostFrames = lostFrames_;
  status.heldQuestions = AuthHeld();
  for (const RegisteredApp& app : registry_.Apps()) {
    const uint32_t pid = app.queue.pid;
    status.apps.push_back({app, registry_.ModulesOf(pid), nowMs - app.lastBeatMs, FillOf(app.queue.queueId),
                           router_.KeptFor(pid)});
  }
  return status;
}

bool MainQueue::RestartApp(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const RegisteredApp* app = registry_.FindByName(name);
  const uint64_t nowMs = NowMs();
  if (app == nullptr || !supervisor_.Restart(app->queue.pid, nowMs)) return false;
  RegistryChanged(nowMs);
  return true;
}

bool MainQueue::RegisterAgain(const std::string& name) {
  APP_QUEUE_INFO_S app = {};
  {
    const std::lock_guard lock(mutex_);
    const RegisteredApp* found = registry_.FindByName(name);
    if (found == nullptr) return false;
    app = found->queue;
  }
  return modules_.RegisterAgain(app.pid, static_cast<uint16_t>(app.moduleId));
}

bool MainQueue::Debug(const std::string& name, const std::vector<uint16_t>& words, uint16_t& result) {
  APP_QUEUE_INFO_S app = {};
  {
    const std::lock_guard lock(mutex_);
    const RegisteredApp* found = registry_.FindByName(name);
    if (found == nullptr) return false;
    app = found->queue;
  }
  return modules_.Debug(app.pid, static_cast<uint16_t>(app.moduleId), words, result);
}

}  // namespace board_main
