/// Lets a test see that a task, which waits most of the time, has woken, done its work and waits again.
#pragma once

#include <sched.h>

#include <fstream>
#include <string>

#include "base/check.h"
#include "velto/kel_task.h"

namespace support {

class TaskTurns {
 public:
  explicit TaskTurns(uint32_t taskId) {
    int32_t thread = 0;
    TOLA_CHECK(KEL_TaskThreadIdGet(taskId, &thread) == 0);
    status_ = "/proc/self/task/" + std::to_string(thread) + "/status";
  }

  /// Does `wake`, which must wake the task, once the task sleeps; returns when it sleeps again.
  template <class Wake>
  void Turn(const Wake& wake) const {
    const std::string before = Asleep();
    wake();
    while (Asleep() == before) (void)sched_yield();
  }

  /// Waits until the task sleeps; the line that tells how often it went to sleep so far.
  std::string Asleep() const {
    for (;; (void)sched_yield()) {
      std::ifstream file(status_);
      const std::string text{std::istreambuf_iterator<char>(file), {}};
      const size_t count = text.find("\nvoluntary_ctxt_switches:");
      if (text.find("\nState:\tS") == std::string::npos || count == std::string::npos) continue;
      return text.substr(count + 1, text.find('\n', count + 1) - count);
    }
  }

 private:
  std::string status_;
};

}  // namespace support
