/// Look-ups of tasks and their events: everything here takes no lock and may run in a signal handler.
#include <sched.h>
#include <string.h>

#include "velto/kel_task_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kLooksBeforeSleep = 8;
constexpr uint64_t kStreamNs = 100'000;
thread_local constinit bool tInStream = false;  // the last sleep was shorter than that

bool Runs(uint32_t state) {
  return TaskPhaseOf(state) == kTaskRunning;
}

/// Reads a running task's slot by `read`, again while the slot changes. False when no task of this id runs.
template <class Read>
bool ReadRunning(uint32_t taskId, const Read& read) {
  const TaskSlot* slot = TaskSlotOf(taskId);
  if (slot == nullptr) return false;
  for (;;) {
    const uint32_t state = slot->state.load();
    if (!Runs(state)) return false;
    read(*slot);
    if (slot->state.load() == state) return true;
  }
}

uint32_t TakeEvents(TaskSlot& slot, uint32_t mask) {
  if ((slot.events.load() & mask) == 0) return 0;
  return slot.events.fetch_and(~mask) & mask;
}

uint32_t AwaitEvents(TaskSlot& slot, uint32_t mask, uint32_t timeoutMs) {
  // A stream of messages brings the next event within a microsecond: looking again is cheaper than sleeping.
  // The pauses between the looks grow, so that a sender that is slower than this task gets a few messages
  // ahead instead of sharing the word with it after each one.
  for (uint32_t look = 0; look < kLooksBeforeSleep; ++look) {
    for (uint32_t pause = 0; pause < 4 + look; ++pause) WaitBriefly(0);
    const uint32_t taken = TakeEvents(slot, mask);
    if (taken != 0) return taken;
  }
  // In a stream whose sender may want this very processor, who slept at once would be woken by the next
  // message and drive the sender off after each few: let it write until its queue is full instead. Nobody
  // else gives the processor away: an event that comes then finds no sleeper to put in front of the others.
  if (tInStream) {
    (void)sched_yield();
    const uint32_t taken = TakeEvents(slot, mask);
    if (taken != 0) return taken;
  }
  const uint64_t begin = KEL_ClockMonotonicNs();
  const Deadline deadline(timeoutMs);
  for (;;) {
    // The bits are looked at after the wish is noted, and set before the note is read: one of the two sees
    // the other. The writer that takes the note away wakes.
    slot.waiting.store(mask);
    const uint32_t taken = TakeEvents(slot, mask);
    if (taken != 0 || deadline.Passed()) {
      slot.waiting.store(0);
      tInStream = taken != 0 && KEL_ClockMonotonicNs() - begin < kStreamNs;
      return taken;
    }
    WordWait(slot.waiting, mask, deadline);
  }
}

/// The slot of a task that may be sent events, or null.
TaskSlot* EventTarget(uint32_t taskId) {
  TaskSlot* slot = TaskSlotOf(taskId);
  if (slot == nullptr) return nullptr;
  const uint32_t phase = TaskPhaseOf(slot->state.load());
  return phase == kTaskRunning || phase == kTaskStarting ? slot : nullptr;
}

void SetEvents(TaskSlot& slot, uint32_t mask) {
  slot.events.fetch_or(mask);
  if ((slot.waiting.load() & mask) != 0 && slot.waiting.exchange(0) != 0) WordWake(slot.waiting, 1);
}

}  // namespace
}  // namespace velto

using velto::ReadRunning;
using velto::TaskSlot;

uint32_t KEL_EventWrite(uint32_t taskId, uint32_t mask) {
  TaskSlot* slot = velto::EventTarget(taskId);
  if (slot == nullptr) return kKelErrTaskId;
  velto::SetEvents(*slot, mask);
  return 0;
}

uint32_t KEL_EventWriteQueued(uint32_t taskId, uint32_t mask) {
  TaskSlot* slot = velto::EventTarget(taskId);
  if (slot == nullptr) return kKelErrTaskId;
  // The queue's tail was moved before this look; the reader takes the bits before it looks at the tail. So
  // either its reading is seen here, or it sees the entry.
  if ((slot->events.load() & mask) != mask) velto::SetEvents(*slot, mask);
  return 0;
}

uint32_t KEL_EventRead(uint32_t mask, uint32_t* received, uint32_t mode, uint32_t timeoutMs) {
  if (received == nullptr || mask == 0 || mode != kKelEventAny) return kKelErrTaskPara;
  *received = 0;
  TaskSlot* slot = velto::TaskSlotOf(velto::TaskCurrentId());
  if (slot == nullptr) return kKelErrTaskId;
  uint32_t taken = velto::TakeEvents(*slot, mask);
  if (taken == 0 && timeoutMs != 0) taken = velto::AwaitEvents(*slot, mask, timeoutMs);
  *received = taken;
  return taken != 0 ? 0 : kKelErrTimeout;
}

uint32_t KEL_TaskNameGet(uint32_t taskId, char* buffer, uint32_t size) {
  if (buffer == nullptr || size == 0) return kKelErrTaskPara;
  uint64_t words[kKelTaskNameSize / sizeof(uint64_t)];
  const bool found = ReadRunning(taskId, [&words](const TaskSlot& slot) {
    for (size_t i = 0; i < sizeof(words) / sizeof(words[0]); ++i) words[i] = slot.name[i].load();
  });
  if (!found) return kKelErrTaskId;
  char name[kKelTaskNameSize];
  memcpy(name, words, sizeof(name));
  const size_t needed = strnlen(name, sizeof(name) - 1) + 1;
  if (needed > size) return kKelErrTaskPara;
  memcpy(buffer, name, needed - 1);
  buffer[needed - 1] = '\0';
  return 0;
}

uint32_t KEL_TaskThreadIdGet(uint32_t taskId, int32_t* threadId) {
  if (threadId == nullptr) return kKelErrTaskPara;
  const bool found = ReadRunning(taskId, [=](const TaskSlot& slot) { *threadId = slot.threadId.load(); });
  return found ? 0 : kKelErrTaskId;
}

uint32_t KEL_TaskPthreadGet(uint32_t taskId, pthread_t* thread) {
  if (thread == nullptr) return kKelErrTaskPara;
  const bool found = ReadRunning(taskId, [=](const TaskSlot& slot) { *thread = slot.thread.load(); });
  return found ? 0 : kKelErrTaskId;
}

uint32_t KEL_TaskIsValid(uint32_t taskId) {
  return ReadRunning(taskId, [](const TaskSlot&) {}) ? 1 : 0;
}

uint32_t KEL_TaskMaxIdGet(void) {
  uint32_t id = kKelTaskMax;
  while (id > 0 && KEL_TaskIsValid(id) == 0) --id;
  return id;
}
