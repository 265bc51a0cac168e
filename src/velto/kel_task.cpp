/// Start, end and adoption of tasks.
#include "velto/kel_task.h"

#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "velto/kel_cfg_table.h"
#include "velto/kel_table.h"
#include "velto/kel_task_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constinit TaskSlot gTasks[kKelTaskMax]{};
thread_local constinit uint32_t tCurrentId = 0;

/// An alternate signal stack with a guard page below it, so that a handler still runs when the thread's own
/// stack is used up. Whoever entered it leaves it again before it is destroyed.
class SignalStack {
 public:
  SignalStack() = default;
  SignalStack(SignalStack&& other) noexcept : base_(std::exchange(other.base_, nullptr)) {}
  SignalStack& operator=(SignalStack&&) = delete;
  ~SignalStack() {
    if (base_ != nullptr) (void)munmap(base_, PageSize() + Size());
  }

  /// False when there is no memory; done already is true.
  [[nodiscard]] bool Map() {
    if (base_ != nullptr) return true;
    const size_t whole = PageSize() + Size();
    void* base = mmap(nullptr, whole, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return false;
    if (mprotect(base, PageSize(), PROT_NONE) != 0) {
      (void)munmap(base, whole);
      return false;
    }
    base_ = base;
    return true;
  }

  /// Makes it the calling thread's; the thread's former one comes back with Leave.
  void Enter() {
    stack_t own{};
    own.ss_sp = static_cast<char*>(base_) + PageSize();
    own.ss_size = Size();
    (void)sigaltstack(&own, &former_);
  }
  void Leave() { (void)sigaltstack(&former_, nullptr); }

 private:
  static size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  static size_t Size() { return std::max<size_t>(65536, static_cast<size_t>(sysconf(_SC_SIGSTKSZ))); }

  void* base_ = nullptr;
  stack_t former_{};
};

void SetPhase(TaskSlot& slot, TaskPhase phase) {
  slot.state.store((slot.state.load() & ~kTaskPhaseMask) | phase);
  WordWake(slot.state, kWakeAll);
}

/// Gives a slot that the caller holds (starting, running on this thread, or joining) to the next task.
void FreeSlot(TaskSlot& slot) {
  slot.state.store((slot.state.load() & ~kTaskPhaseMask) + kTaskUseStep);
  WordWake(slot.state, kWakeAll);
}

/// Joins the thread of an ended task, for the one caller who moves it from ended to joining.
bool Join(TaskSlot& slot, uint32_t ended) {
  if (!slot.state.compare_exchange_strong(ended, (ended & ~kTaskPhaseMask) | kTaskJoining)) return false;
  (void)pthread_join(slot.thread.load(), nullptr);  // it is in its last instructions
  FreeSlot(slot);
  return true;
}

bool ClaimFree(TaskSlot& slot) {
  uint32_t state = slot.state.load();
  if (TaskPhaseOf(state) == kTaskEnded && Join(slot, state)) state = slot.state.load();
  return TaskPhaseOf(state) == kTaskFree && slot.state.compare_exchange_strong(state, state | kTaskStarting);
}

/// Takes a slot for a task of this name and gives its id, or 0. It is in the phase starting.
uint32_t Claim(const char* name) {
  for (uint32_t i = 0; i < kKelTaskMax; ++i) {
    TaskSlot& slot = gTasks[i];
    if (!ClaimFree(slot)) continue;
    slot.events.store(0);
    slot.waiting.store(0);
    slot.threadId.store(0);
    std::array<uint64_t, std::size(TaskSlot{}.name)> words{};
    memcpy(words.data(), name, strlen(name));
    for (size_t word = 0; word < words.size(); ++word) slot.name[word].store(words[word]);
    return i + 1;
  }
  return 0;
}

/// Ties the calling thread to the slot it runs in.
void Enrol(uint32_t id) {
  TaskSlot& slot = gTasks[id - 1];
  slot.threadId.store(static_cast<int32_t>(syscall(SYS_gettid)));
  slot.thread.store(pthread_self());
  tCurrentId = id;
  SetPhase(slot, kTaskRunning);
}

struct Start {
  uint32_t id;
  KelTaskEntry entry;
  uintptr_t args[4];
  char threadName[16];
  SignalStack signalStack;
};

/// Ends the task when its thread leaves the entry, however it leaves.
class RunningTask {
 public:
  RunningTask(uint32_t id, SignalStack signalStack) : id_(id), signalStack_(std::move(signalStack)) {
    signalStack_.Enter();
    Enrol(id);
  }
  ~RunningTask() {
    signalStack_.Leave();
    tCurrentId = 0;
    SetPhase(gTasks[id_ - 1], kTaskEnded);
  }
  RunningTask(const RunningTask&) = delete;
  RunningTask& operator=(const RunningTask&) = delete;

 private:
  uint32_t id_;
  SignalStack signalStack_;
};

void* TaskThread(void* argument) {
  auto& start = *static_cast<Start*>(argument);  // the creator's, until this task is enrolled
  const KelTaskEntry entry = start.entry;
  const auto args = std::to_array(start.args);
  (void)pthread_setname_np(pthread_self(), start.threadName);
  const RunningTask running(start.id, std::move(start.signalStack));
  entry(args[0], args[1], args[2], args[3]);
  return nullptr;
}

/// Ends an adopted task with its thread.
struct AdoptedTask {
  uint32_t id = 0;
  SignalStack signalStack;

  ~AdoptedTask() {
    if (id == 0) return;
    signalStack.Leave();
    tCurrentId = 0;
    FreeSlot(gTasks[id - 1]);
  }
};
thread_local AdoptedTask tAdopted;

int StartThread(Start& start, uint32_t stackSize) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const uint64_t wanted = stackSize != 0 ? stackSize : CfgNumber(kCfgTaskStackBytes);
  const size_t least =
      std::max(static_cast<size_t>(wanted), static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN)));
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  error = pthread_attr_setstacksize(&attributes, (least + page - 1) / page * page);
  pthread_t thread{};
  if (error == 0) error = pthread_create(&thread, &attributes, TaskThread, &start);
  (void)pthread_attr_destroy(&attributes);
  return error;
}

/// Joins what has ended by itself when the process exits, so that no thread is left unjoined.
struct JoinAtExit {
  ~JoinAtExit() {
    for (TaskSlot& slot : gTasks) {
      const uint32_t state = slot.state.load();
      if (TaskPhaseOf(state) == kTaskEnded) (void)Join(slot, state);
    }
  }
};
const JoinAtExit gJoinAtExit;

std::atomic<uint32_t> gNobodyWakes{0};

}  // namespace

TaskSlot* TaskSlotOf(uint32_t taskId) {
  return taskId != 0 && taskId <= kKelTaskMax ? &gTasks[taskId - 1] : nullptr;
}

uint32_t TaskCurrentId() {
  return tCurrentId;
}

}  // namespace velto

using velto::TaskPhaseOf;
using velto::TaskSlot;

uint32_t KEL_TaskCreate(const char* name, uint32_t* taskId, KelTaskEntry entry,
                        [[maybe_unused]] uint32_t priority, uint32_t stackSize, uint32_t mode,
                        const uintptr_t args[4]) {
  if (!velto::NameFits(name) || taskId == nullptr || entry == nullptr || mode != 0) return kKelErrTaskPara;
  velto::Start start{};
  if (!start.signalStack.Map()) return kKelErrTaskThread;
  start.id = velto::Claim(name);
  if (start.id == 0) return kKelErrTaskFull;
  start.entry = entry;
  if (args != nullptr) memcpy(start.args, args, sizeof(start.args));
  memcpy(start.threadName, name, strnlen(name, sizeof(start.threadName) - 1));

  const uint32_t before = *taskId;
  *taskId = start.id;
  TaskSlot& slot = *velto::TaskSlotOf(start.id);
  const uint32_t starting = slot.state.load();
  if (velto::StartThread(start, stackSize) != 0) {
    *taskId = before;
    velto::FreeSlot(slot);
    return kKelErrTaskThread;
  }
  while (slot.state.load() == starting) velto::WordWait(slot.state, starting, velto::Deadline::Never());
  return 0;
}

uint32_t KEL_TaskWait(uint32_t taskId, uint32_t timeoutMs) {
  TaskSlot* slot = velto::TaskSlotOf(taskId);
  if (slot == nullptr) return kKelErrTaskId;
  if (taskId == velto::TaskCurrentId()) return kKelErrTaskPara;
  uint32_t state = slot->state.load();
  if (TaskPhaseOf(state) == velto::kTaskFree) return kKelErrTaskId;
  const uint32_t use = state & ~velto::kTaskPhaseMask;
  const velto::Deadline deadline(timeoutMs);
  for (;; state = slot->state.load()) {
    if ((state & ~velto::kTaskPhaseMask) != use) return 0;
    if (TaskPhaseOf(state) == velto::kTaskEnded) {
      (void)velto::Join(*slot, state);  // or another waiter does; the next look tells
      continue;
    }
    if (deadline.Passed()) return kKelErrTimeout;
    velto::WordWait(slot->state, state, deadline);
  }
}

uint32_t KEL_TaskAdopt(const char* name, uint32_t* taskId) {
  if (!velto::NameFits(name) || taskId == nullptr) return kKelErrTaskPara;
  if (velto::tCurrentId == 0) {
    velto::AdoptedTask& adopted = velto::tAdopted;
    if (!adopted.signalStack.Map()) return kKelErrTaskThread;
    const uint32_t id = velto::Claim(name);
    if (id == 0) return kKelErrTaskFull;
    adopted.signalStack.Enter();
    adopted.id = id;
    velto::Enrol(id);
  }
  *taskId = velto::tCurrentId;
  return 0;
}

uint32_t KEL_TaskCurrentIdGet(uint32_t* taskId) {
  if (taskId == nullptr) return kKelErrTaskPara;
  *taskId = velto::TaskCurrentId();
  return *taskId != 0 ? 0 : kKelErrTaskId;
}

void KEL_TaskDelay(uint32_t milliseconds) {
  if (velto::ClockMode() == kKelClockAutoAdvance) {
    KEL_ClockAdvanceMs(milliseconds);
    (void)sched_yield();
    return;
  }
  const velto::Deadline deadline(milliseconds);
  while (!deadline.Passed()) velto::WordWait(velto::gNobodyWakes, 0, deadline);
}
