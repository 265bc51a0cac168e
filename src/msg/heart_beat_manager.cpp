/// The table of heart beats and the counter for the supervisor outside.
///
/// The "heartbeat" semaphore orders those who write a slot. The second event and the beats do without it: a
/// slot's task id is written last and read first, its time-out is written after its seconds were reset, so a
/// second counted at that moment never makes a fresh slot overdue.
#include "msg/heart_beat_manager.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <span>
#include <string_view>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/run_log.h"
#include "securec.h"
#include "velto/ddm.h"
#include "velto/kel_mem.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kNoTask = 0xFFFFFFFF;
constexpr uint32_t kLockGroups = 3;
constexpr uint32_t kReportS = 2;  ///< for an overdue task's lines

constexpr std::string_view kMainProcessPrefix = "app_arm";
constexpr key_t kApparmKey = 1234;
constexpr size_t kApparmSize = 4;

/// An empty slot is all ones.
struct HeartBeatSlot {
  std::atomic<uint32_t> taskId{kNoTask};
  std::atomic<uint16_t> timeoutS{0xFFFF};
  std::atomic<uint16_t> elapsedS{0xFFFF};  ///< seconds since the last beat
  uint16_t id = 0xFFFF;                    ///< this and the flag belong to whoever holds the semaphore
  uint16_t flag = 0xFFFF;
};
static_assert(sizeof(HeartBeatSlot) == 12);

uint32_t g_sema = 0;                           ///< this and the number are written before g_slots
uint32_t g_taskNumber = 0;                     ///< slots
std::atomic<HeartBeatSlot*> g_slots{nullptr};  ///< set once the manager is up; lives as long as the process
std::atomic<void (*)(uint32_t)> g_recordTask{nullptr};
std::atomic<uint32_t> g_overdue{kNoTask};  ///< the task that is being reported
std::atomic<bool> g_apparmOn{true};
std::atomic<uint16_t*> g_apparmCounter{nullptr};  ///< in shared memory; null in all but the main process

std::span<HeartBeatSlot> Slots() {
  HeartBeatSlot* slots = g_slots.load(std::memory_order_acquire);
  return slots != nullptr ? std::span(slots, g_taskNumber) : std::span<HeartBeatSlot>();
}

HeartBeatSlot* FindSlot(std::span<HeartBeatSlot> slots, uint32_t taskId) {
  for (HeartBeatSlot& slot : slots) {
    if (slot.taskId.load(std::memory_order_acquire) == taskId) return &slot;
  }
  return nullptr;
}

struct TaskName {
  explicit TaskName(uint32_t taskId) {
    if (KEL_TaskNameGet(taskId, text, sizeof(text)) != 0) (void)strcpy_s(text, sizeof(text), "UNKNOW");
  }
  char text[kKelTaskNameSize] = {};
};

/// The table and the calling task, without which no call of a task goes on.
struct Caller {
  std::span<HeartBeatSlot> slots = Slots();
  uint32_t taskId = 0;

  [[nodiscard]] uint32_t Check() {
    if (slots.empty()) return kHeartErrNotInit;
    return KEL_TaskCurrentIdGet(&taskId) == 0 ? kSuccess : kHeartErrTaskId;
  }
};

/// Does `change` under the semaphore.
template <class Change>
uint32_t UnderSemaphore(const Change& change) {
  if (KEL_SemaP(g_sema, KEL_WAIT_FOREVER) != 0) return kHeartErrSemaTake;
  const uint32_t ret = change();
  return KEL_SemaV(g_sema) == 0 ? ret : kHeartErrSemaGive;
}

void Store(HeartBeatSlot& slot, uint32_t taskId, uint16_t id, uint16_t timeoutS, uint16_t flag) {
  slot.id = id;
  slot.flag = flag;
  slot.elapsedS.store(0, std::memory_order_relaxed);
  slot.timeoutS.store(timeoutS, std::memory_order_release);
  slot.taskId.store(taskId, std::memory_order_release);
}

uint32_t Register(const Caller& caller, uint16_t id, uint16_t timeoutS, uint16_t flag) {
  HeartBeatSlot* slot = FindSlot(caller.slots, caller.taskId);
  if (slot != nullptr) {
    LOG_EVT(kLogModule, "re_reg");
  } else {
    slot = FindSlot(caller.slots, kNoTask);
  }
  if (slot == nullptr) {
    LOG_ERR(kLogModule, "out max num : %u", g_taskNumber);
    return kHeartErrFull;
  }
  Store(*slot, caller.taskId, id, timeoutS, flag);
  int32_t threadId = 0;
  (void)KEL_TaskThreadIdGet(caller.taskId, &threadId);  // for the line below only
  LOG_EVT(kLogModule, "heartbeat:%u,task[%u:%u],%s time[%u]", id, static_cast<uint32_t>(threadId),
          caller.taskId, TaskName(caller.taskId).text, timeoutS);
  return kSuccess;
}

/// Whether this process is the platform's main process, which its name tells.
bool IsMainProcess() {
  char path[32];
  char commandLine[4096] = {};
  const pid_t pid = getpid();
  if (snprintf_s(path, sizeof(path), sizeof(path) - 1, "/proc/%d/cmdline", pid) < 0) return false;
  const base::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file || read(file.get(), commandLine, sizeof(commandLine) - 1) < 0) commandLine[0] = '\0';
  const char* slash = strrchr(commandLine, '/');  // the name ends at the first zero
  const char* name = slash != nullptr ? slash + 1 : commandLine;
  LOG_EVT(kLogModule, "pid %d, name %s", pid, name);
  return std::string_view(name).starts_with(kMainProcessPrefix);
}

uint32_t AttachApparmCounter() {
  const int segment = shmget(kApparmKey, kApparmSize, IPC_CREAT | 0600);
  if (segment < 0) {
    LOG_ERR(kLogModule, "share mem shmget failed err:%d", errno);
    return kHeartErrShare;
  }
  void* memory = shmat(segment, nullptr, 0);
  if (memory == reinterpret_cast<void*>(-1)) {
    LOG_ERR(kLogModule, "share mem shmat failed err:%d", errno);
    return kHeartErrShare;
  }
  (void)memset_s(memory, kApparmSize, 0, kApparmSize);
  g_apparmCounter.store(static_cast<uint16_t*>(memory), std::memory_order_release);
  return kSuccess;
}

uint32_t MakeTable(uint16_t taskNumber) {
  uint32_t handle = 0;
  if (KEL_HandleInitialize("public_handle", &handle) != 0) return kHeartErrMemory;
  void* memory = KEL_MEM_ALLOC(handle, static_cast<uint32_t>(sizeof(HeartBeatSlot)) * taskNumber);
  if (memory == nullptr) return kHeartErrMemory;
  auto* slots = static_cast<HeartBeatSlot*>(memory);
  for (uint32_t i = 0; i < taskNumber; ++i) new (&slots[i]) HeartBeatSlot;
  g_taskNumber = taskNumber;
  g_slots.store(slots, std::memory_order_release);
  return kSuccess;
}

/// Counts one second for every slot up to the first overdue one, whose task id is the result, or kNoTask.
uint32_t CountSecond(std::span<HeartBeatSlot> slots) {
  for (HeartBeatSlot& slot : slots) {
    const uint32_t taskId = slot.taskId.load(std::memory_order_acquire);
    const uint16_t timeoutS = slot.timeoutS.load(std::memory_order_acquire);
    if (taskId == kNoTask) continue;
    const auto elapsedS = static_cast<uint16_t>(slot.elapsedS.fetch_add(1, std::memory_order_relaxed) + 1);
    if (elapsedS >= timeoutS) return taskId;  // kept: the slots behind it do not count in this second
  }
  return kNoTask;
}

void Record(uint32_t taskId) {
  void (*record)(uint32_t) = g_recordTask.load(std::memory_order_acquire);
  if (record != nullptr) record(taskId);
}

/// The task may have stopped with the log or standard output in its hands. Whoever writes lines about it
/// would wait for it then: while this lives, for kReportS at most, and then the task is recorded without.
class ReportLimit {
 public:
  explicit ReportLimit(uint32_t taskId) {
    g_overdue.store(taskId);
    struct sigaction action = {};
    action.sa_handler = [](int) { Record(g_overdue.load()); };
    action.sa_flags = SA_ONSTACK | SA_RESTART;
    (void)sigaction(SIGALRM, &action, &before_);
    left_ = alarm(kReportS);
  }
  ~ReportLimit() {
    (void)alarm(0);
    (void)sigaction(SIGALRM, &before_, nullptr);
    (void)alarm(left_);  // a crash may be under way, with a limit of its own
  }
  ReportLimit(const ReportLimit&) = delete;
  ReportLimit& operator=(const ReportLimit&) = delete;

 private:
  struct sigaction before_ = {};
  unsigned left_ = 0;
};

void ReportOverdue(uint32_t taskId) {
  {
    const ReportLimit limit(taskId);
    for (uint32_t group = 0; group < kLockGroups; ++group) DDM_IpcRwLockShowInfo(group);
    LOG_ERR(kLogModule, "task: %s(%#x) has no heartbeat", TaskName(taskId).text, taskId);
  }
  Record(taskId);
  DisableApparmHeartBeat();  // the supervisor outside is to see the fault too
}

}  // namespace

uint32_t TOLA_HeartBeatManagerInit(uint16_t taskNumber) {
  if (!Slots().empty()) return kHeartErrInitAgain;
  LOG_EVT(kLogModule, "init task num:%d", taskNumber);
  if (taskNumber == 0) return kHeartErrTaskNumber;
  if (KEL_SemaCreate("heartbeat", 1, 0, &g_sema) != 0) return kHeartErrSema;
  uint32_t ret = IsMainProcess() ? AttachApparmCounter() : kSuccess;
  if (ret == kSuccess) ret = MakeTable(taskNumber);
  if (ret != kSuccess) (void)KEL_SemaDelete(g_sema);  // a later call makes its own
  return ret;
}

uint32_t TOLA_RegHeartBeatId(uint16_t id, uint16_t timeoutS, uint16_t flag) {
  Caller caller;
  if (const uint32_t ret = caller.Check(); ret != kSuccess) return ret;
  if (timeoutS == 0) {
    LOG_ERR(kLogModule, "hb:%d,%d:%s err time:%d", id, caller.taskId, TaskName(caller.taskId).text, timeoutS);
    return kHeartErrTimeout;
  }
  return UnderSemaphore([&] { return Register(caller, id, timeoutS, flag); });
}

uint32_t TOLA_RegThreadHeartBeat(uint16_t timeoutS, uint16_t flag) {
  return TOLA_RegHeartBeatId(kHeartNoId, timeoutS, flag);
}

uint32_t TOLA_SendThreadHeartBeat() {
  Caller caller;
  if (const uint32_t ret = caller.Check(); ret != kSuccess) return ret;
  HeartBeatSlot* slot = FindSlot(caller.slots, caller.taskId);
  if (slot == nullptr) {
    LOG_WRN(kLogModule, "task name(id): %s(0x%X) not reg to heartbeat manager", TaskName(caller.taskId).text,
            caller.taskId);
    return kHeartErrNotRegistered;
  }
  slot->elapsedS.store(0, std::memory_order_relaxed);
  return kSuccess;
}

uint32_t ModifyCurrentTaskHeartBeatTimeOut(uint16_t timeoutS) {
  Caller caller;
  if (const uint32_t ret = caller.Check(); ret != kSuccess) return ret;
  if (timeoutS == 0) {
    LOG_ERR(kLogModule, "task %d:%s err time:%d", caller.taskId, TaskName(caller.taskId).text, timeoutS);
    return kHeartErrTimeout;
  }
  return UnderSemaphore([&] {
    HeartBeatSlot* slot = FindSlot(caller.slots, caller.taskId);
    if (slot == nullptr) return kHeartErrNotRegistered;
    slot->timeoutS.store(timeoutS, std::memory_order_release);
    return kSuccess;
  });
}

uint32_t TOLA_HeartBeatProcessSecondEvent() {
  const std::span<HeartBeatSlot> slots = Slots();
  if (slots.empty()) return kHeartErrNotInit;
  uint16_t* counter = g_apparmCounter.load(std::memory_order_acquire);
  if (counter != nullptr && g_apparmOn.load(std::memory_order_relaxed)) {
    (void)std::atomic_ref(*counter).fetch_add(1, std::memory_order_relaxed);
  }
  const uint32_t overdue = CountSecond(slots);
  if (overdue != kNoTask) ReportOverdue(overdue);
  return kSuccess;
}

void DisableApparmHeartBeat() {
  g_apparmOn.store(false, std::memory_order_relaxed);
}

void RegTaskInfoRecordFunc(void (*record)(uint32_t taskId)) {
  g_recordTask.store(record, std::memory_order_release);
}
