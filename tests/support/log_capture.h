/// The run log in a directory of its own, for tests that look at what was logged.
///
///   support::LogCapture log;                       // a fresh log: every level, nothing folded
///   DoSomething();
///   EXPECT_THAT(log.Lines(), ElementsAre("open file err"));
///
/// One per test (a fixture's member, or a local), never two at a time; the next one in the same process
/// starts afresh. Needs neither root nor any account: that the directory cannot be handed to the service
/// account is one line on standard output. Between captures nothing is logged.
#pragma once

#include <stdint.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/check.h"
#include "log/run_log.h"
#include "support/temp_dir.h"

namespace support {

/// One line of the log, taken apart.
struct LogLine {
  std::string date;    ///< "2024-03-05 14:02:07"
  std::string level;   ///< "DBG" to "EVT"
  std::string module;  ///< "M07"
  std::string file;
  uint32_t line = 0;
  std::string message;
};

class LogCapture {
 public:
  /// `threshold` is the lowest level that is written, `maxSize` the size of a file in bytes (0: 1 MiB). Only
  /// the current file is looked at, so a test that logs more must look in time.
  explicit LogCapture(uint32_t threshold = kLogDbg, uint32_t maxSize = 0) {
    const uint8_t off = 0;
    TOLA_CHECK(TOLA_LogRepeatControl(kLogRepeatEnable, &off) == 0);  // ends the folding of an earlier capture
    TOLA_CHECK(TOLA_SetRunLogFileName(dir_.File("run").c_str()) == 0);
    TOLA_CHECK(TOLA_PrintInitForArm9(maxSize, nullptr) == 0);
    TOLA_CHECK(TOLA_LogControl(0, threshold, 2) == 0);
    RestartLogPrint();
  }
  ~LogCapture() { StopLogPrint(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Messages logged since the start or the last Clear, in order.
  [[nodiscard]] std::vector<std::string> Lines() const {
    std::vector<std::string> messages;
    for (LogLine& line : Records()) messages.push_back(std::move(line.message));
    return messages;
  }

  /// The same with everything else that stands in a line.
  [[nodiscard]] std::vector<LogLine> Records() const {
    std::vector<LogLine> records;
    std::istringstream text(Text().substr(from_));
    for (std::string line; std::getline(text, line);) records.push_back(TakeApart(line));
    return records;
  }

  /// Forgets what has been logged so far.
  void Clear() { from_ = Text().size(); }

  [[nodiscard]] std::string CurrentFile() const { return dir_.File("run.log"); }
  [[nodiscard]] std::string BackupFile() const { return dir_.File("run_back.log"); }
  [[nodiscard]] std::string FullRecordFile() const { return dir_.File("run_full_record.tola"); }

 private:
  std::string Text() const {
    std::ifstream file(CurrentFile(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// A line that is none, such as the end marker, is a message without the rest.
  static LogLine TakeApart(const std::string& line) {
    constexpr size_t kDateLength = 19;
    const size_t number = line.find('[');
    const size_t text = line.find("]:", number);
    LogLine parts;
    parts.message = line;
    if (number == std::string::npos || text == std::string::npos || number < kDateLength) return parts;
    parts.date = line.substr(0, kDateLength);
    parts.message = line.substr(text + 2);
    std::istringstream words(line.substr(kDateLength, number - kDateLength));
    words >> parts.level >> parts.module >> parts.file;
    std::istringstream(line.substr(number + 1, text - number - 1)) >> parts.line;
    return parts;
  }

  TempDir dir_;
  size_t from_ = 0;
};

}  // namespace support
