/// Lets a test see that a task, which waits most of the time, has woken, done its work and waits again.
#pragma once

#include <sched.h>
#include <stdint.h>
#include <unistd.h>

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
    const uint64_t before = Asleep();
    wake();
    while (Asleep() == before) (void)sched_yield();
  }

 private:
  /// Waits until the task sleeps; how often it went to sleep so far.
  [[nodiscard]] uint64_t Asleep() const {
    for (;; (void)sched_yield()) {
      std::ifstream file(status_);
      bool sleeps = false;
      for (std::string word; file >> word;) {
        if (word == "State:") sleeps = (file >> word) && word == "S";
        if (word != "voluntary_ctxt_switches:") continue;
        uint64_t switches = 0;
        file >> switches;
        if (sleeps) return switches;
      }
    }
  }

  std::string status_;
};

}  // namespace support
