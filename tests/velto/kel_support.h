/// What the runtime's cases share: a clock that stands until it is moved, and threads that are joined.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <string>
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

/// A random number below `limit`, the same for a seed everywhere.
inline uint32_t Below(std::mt19937& random, uint32_t limit) {
  return static_cast<uint32_t>(random() % limit);
}

/// Waits in real time until `condition` holds, for 30 s at most; true when it does.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// Waits until the kernel shows task `id` asleep, so that what comes next must wake it.
inline bool FallsAsleep(uint32_t id) {
  int32_t threadId = 0;
  if (KEL_TaskThreadIdGet(id, &threadId) != 0) return false;
  return Eventually([threadId] {
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string line;
    std::getline(file, line);
    return line.find(") S ") != std::string::npos;
  });
}

/// A task that runs a function; joined, slot included, at the end of its life.
class TestTask {
 public:
  TestTask(const char* name, std::function<void()> body) : body_(std::move(body)) {
    const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(&body_), 0, 0, 0};
    created_ = KEL_TaskCreate(
        name, &id_,
        [](uintptr_t arg, uintptr_t, uintptr_t, uintptr_t) {
          (*reinterpret_cast<std::function<void()>*>(arg))();
        },
        20, 0, 0, args);
  }
  ~TestTask() { Join(); }
  TestTask(const TestTask&) = delete;
  TestTask& operator=(const TestTask&) = delete;

  void Join() {
    if (id_ == 0) return;
    EXPECT_EQ(KEL_TaskWait(id_, KEL_WAIT_FOREVER), 0u) << "task " << id_ << " did not end";
    id_ = 0;
  }
  [[nodiscard]] uint32_t id() const { return id_; }
  [[nodiscard]] uint32_t created() const { return created_; }

 private:
  std::function<void()> body_;
  uint32_t id_ = 0;
  uint32_t created_ = 0;
};
