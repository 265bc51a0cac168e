/// What the update tests share: captured run-log lines, scripts and packages on disk, and a clock that does
/// not make anybody wait.
#pragma once

#include <gmock/gmock.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "velto/kel_clock.h"

namespace update_test {

/// Runs a shell command of the test itself.
inline void Shell(const std::string& command) {
  ASSERT_EQ(system(command.c_str()), 0) << command;
}

class UpdateTest : public ::testing::Test {
 protected:
  UpdateTest() { KEL_ClockModeSet(kKelClockAutoAdvance); }
  ~UpdateTest() override { KEL_ClockModeSet(kKelClockReal); }

  std::string Script(const std::string& name, const std::string& body) const {
    return dir_.Write(name, "#!/bin/sh\n" + body + "\n");
  }
  [[nodiscard]] bool Exists(const std::string& name) const {
    return std::filesystem::exists(dir_.File(name));
  }
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream file(dir_.File(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// How many log lines hold `part`.
  [[nodiscard]] std::ptrdiff_t Logged(const std::string& part) const {
    const std::vector<std::string> lines = log_.Lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.find(part) != std::string::npos; });
  }

  support::TempDir dir_;
  support::LogCapture log_;
};

}  // namespace update_test
