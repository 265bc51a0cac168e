/// One record as text: the clock that stamps it, its level tag and its line.
///
/// All of it is used under the log's semaphore and allocates nothing.
#pragma once

#include <stdint.h>

#include <string_view>

#include "log/run_log.h"

namespace runlog {

inline constexpr uint32_t kMessageSize = 200;  ///< with the terminator
inline constexpr uint32_t kLineSize = 401;     ///< with the terminator

/// What a line is made of. The texts are zero-terminated.
struct Record {
  uint16_t moduleId;
  uint32_t level;
  uint32_t line;
  std::string_view file;
  std::string_view module;
  std::string_view message;
};

inline uint32_t WallSecond(uint64_t wallNs) {
  return static_cast<uint32_t>(wallNs / 1'000'000'000u);
}

/// Fills the time fields with the local time of `wallNs`.
void FillLocalTime(uint64_t wallNs, TOLA_LOG_PARA_S& para);

/// The time of the record in hand; local time is worked out once a second only.
class LineClock {
 public:
  void Set(uint64_t wallNs) {
    const uint64_t second = wallNs / 1'000'000'000u;
    if (second != second_) Change(second);
  }
  [[nodiscard]] uint32_t Second() const { return static_cast<uint32_t>(second_); }
  /// "2024-03-05 14:02:07 "
  [[nodiscard]] const char* Prefix() const { return prefix_; }

 private:
  void Change(uint64_t second);

  uint64_t second_ = UINT64_MAX;
  char prefix_[32] = "";
};
LineClock& Clock();

/// Between StopLogPrint and RestartLogPrint. Any thread.
bool IsLogStopped();

/// "DBG" to "EVT"; "" for any other level.
const char* LevelTag(uint32_t level);

/// Text of `path` behind its last '\' and then its last '/'; "" for null.
std::string_view BaseName(const char* path);

/// Writes the line of `record`, stamped with Clock(), to `line`.
/// @return its length without the terminator, or 0 when it does not fit
[[nodiscard]] uint32_t BuildLine(const Record& record, char (&line)[kLineSize]);

}  // namespace runlog
