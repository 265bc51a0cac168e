/// What this room's tests share: a clock that stands still, files as text, and a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <fstream>
#include <iterator>
#include <string>

#include "velto/kel_clock.h"

/// The machine's clocks stand still at 2024-03-05 14:02:07 (local time is UTC) while one of these lives.
class StandingClock {
 public:
  StandingClock() {
    (void)setenv("TZ", "UTC0", 1);
    tzset();
    KEL_ClockModeSet(kKelClockManual);
    KEL_ClockWallSetNs(1'709'647'327'000'000'000u);
  }
  ~StandingClock() { KEL_ClockModeSet(kKelClockReal); }
  StandingClock(const StandingClock&) = delete;
  StandingClock& operator=(const StandingClock&) = delete;

  static void MoveSeconds(uint64_t seconds) { KEL_ClockAdvanceMs(seconds * 1000); }
};

inline std::string ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Permission bits of `path` itself, 0 when nothing is there.
inline mode_t ModeOf(const std::string& path) {
  struct stat info = {};
  return lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

/// Runs `body` in a process that has not touched the log yet: some of its settings are made once for all.
template <class Body>
void InFreshProcess(Body body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        body();
        exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}
