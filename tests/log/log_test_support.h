/// What this room's tests share: a clock that stands still, files as text, and a process of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log/run_log.h"
#include "support/log_capture.h"
#include "velto/kel_clock.h"

namespace logtest {

using support::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
namespace fs = std::filesystem;

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

/// Permission bits of `path`.
inline unsigned ModeOf(const std::string& path) {
  return static_cast<unsigned>(fs::status(path).permissions());
}

/// Runs `body` in a process that has not touched the log yet: some of its settings are made once for all.
template <class Body>
void InFreshProcess(Body body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [&] {
    body();
    exit(testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace logtest
