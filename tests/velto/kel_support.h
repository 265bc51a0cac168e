/// What the runtime's cases share: a clock that stands until it is moved, and threads that are joined.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "velto/kel_clock.h"
#include "velto/kel_task.h"

/// Puts the clock into a mode for the life of a case.
class ClockModeScope {
 public:
  explicit ClockModeScope(uint32_t mode) { KEL_ClockModeSet(mode); }
  ~ClockModeScope() { KEL_ClockModeSet(kKelClockReal); }
  ClockModeScope(const ClockModeScope&) = delete;
  ClockModeScope& operator=(const ClockModeScope&) = delete;
};

/// Waits in real time until `condition` holds, for 30 s at most; true when it does.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// A task that runs a function; joined, slot included, at the end of its life.
class TestTask {
 public:
  TestTask(const char* name, std::function<void()> body) : body_(std::move(body)) {
    const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(&body_), 0, 0, 0};
    const auto entry = [](uintptr_t arg, uintptr_t, uintptr_t, uintptr_t) {
      (*reinterpret_cast<std::function<void()>*>(arg))();
    };
    EXPECT_EQ(KEL_TaskCreate(name, &id_, entry, 20, 0, 0, args), 0u);
  }
  ~TestTask() { Join(); }
  TestTask(const TestTask&) = delete;
  TestTask& operator=(const TestTask&) = delete;

  void Join() {
    if (id_ == 0) return;
    EXPECT_EQ(KEL_TaskWait(id_, KEL_WAIT_FOREVER), 0u) << "task " << id_ << " did not end";
    id_ = 0;
  }
  /// Moves the time on by `milliseconds`, again and again since the task may not wait yet, until it has
  /// ended.
  [[nodiscard]] bool EndsWhenTimeMoves(uint64_t milliseconds) const {
    return Eventually([this, milliseconds] {
      KEL_ClockAdvanceMs(milliseconds);
      return KEL_TaskIsValid(id_) == 0;
    });
  }
  [[nodiscard]] uint32_t id() const { return id_; }

 private:
  std::function<void()> body_;
  uint32_t id_ = 0;
};
