/// The table of tasks. For the runtime's own sources only.
///
/// A slot's state word holds its phase in the lowest bits and above them how often it was used; look-ups read
/// the word, the wanted field and the word again, so they take no lock and never mix two tasks.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "velto/kel_task.h"

namespace velto {

enum TaskPhase : uint32_t {
  kTaskFree,
  kTaskStarting,
  kTaskRunning,
  kTaskEnded,    ///< its thread waits to be joined
  kTaskJoining,  ///< somebody does
};
inline constexpr uint32_t kTaskPhaseMask = 7;
inline constexpr uint32_t kTaskUseStep = kTaskPhaseMask + 1;

struct TaskSlot {
  std::atomic<uint32_t> state;    ///< also the word on which starters and enders are awaited
  std::atomic<uint32_t> events;   ///< sticky bits that nobody read yet
  std::atomic<uint32_t> waiting;  ///< the bits for which the task sleeps, or 0; also the word it sleeps on
  std::atomic<int32_t> threadId;
  std::atomic<pthread_t> thread;
  std::atomic<uint64_t> name[kKelTaskNameSize / sizeof(uint64_t)];
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<pthread_t>::is_always_lock_free,
              "a signal handler may look tasks up");

/// The slot of `taskId` in any phase; null when the id is out of the table.
[[nodiscard]] TaskSlot* TaskSlotOf(uint32_t taskId);

[[nodiscard]] inline uint32_t TaskPhaseOf(uint32_t state) {
  return state & kTaskPhaseMask;
}

/// Id of the calling task, or 0. Async-signal-safe.
[[nodiscard]] uint32_t TaskCurrentId();

}  // namespace velto
