#include "log/log_record.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "securec.h"

namespace runlog {
namespace {

constexpr std::array<const char*, 6> kLevelTags = {"", "DBG", "INF", "WRN", "ERR", "EVT"};
constexpr size_t kTagWidth = 3;
constexpr size_t kModuleWidth = 3;
constexpr size_t kFileWidth = 25;

/// Appends to a fixed buffer; once a piece does not fit, nothing more is taken.
class LineWriter {
 public:
  LineWriter(char* begin, size_t size) : at_(begin), end_(begin + size - 1) {}

  void Append(std::string_view text) {
    if (static_cast<size_t>(end_ - at_) < text.size()) {
      fits_ = false;
      end_ = at_;
      return;
    }
    at_ = std::copy(text.begin(), text.end(), at_);
  }
  void AppendPadded(std::string_view text, size_t width) {
    static constexpr std::string_view kBlanks = "                         ";
    static_assert(kBlanks.size() >= kFileWidth);
    Append(text);
    if (text.size() < width) Append(kBlanks.substr(0, width - text.size()));
  }
  void AppendNumber(int32_t value) {
    char digits[12];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value);
    Append({digits, static_cast<size_t>(result.ptr - digits)});
  }
  /// End of the text, terminated; null when a piece did not fit.
  [[nodiscard]] char* Finish() {
    *at_ = '\0';
    return fits_ ? at_ : nullptr;
  }

 private:
  char* at_;
  char* end_;
  bool fits_ = true;
};

tm LocalTime(uint64_t second) {
  tm local = {};
  const time_t time = static_cast<time_t>(second);
  (void)localtime_r(&time, &local);  // a year beyond int leaves zeros
  return local;
}

}  // namespace

void FillLocalTime(uint64_t wallNs, TOLA_LOG_PARA_S& para) {
  const tm local = LocalTime(wallNs / 1'000'000'000u);
  para.year = static_cast<uint16_t>(local.tm_year + 1900);
  para.month = static_cast<uint8_t>(local.tm_mon + 1);
  para.day = static_cast<uint8_t>(local.tm_mday);
  para.hour = static_cast<uint8_t>(local.tm_hour);
  para.minute = static_cast<uint8_t>(local.tm_min);
  para.second = static_cast<uint8_t>(local.tm_sec);
  para.millisecond = static_cast<uint16_t>(wallNs / 1'000'000u % 1000u);
}

void LineClock::Change(uint64_t second) {
  second_ = second;
  const tm local = LocalTime(second);
  (void)snprintf_s(prefix_, sizeof(prefix_), sizeof(prefix_) - 1, "%04d-%02d-%02d %02d:%02d:%02d ",
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                   local.tm_sec);
}

LineClock& Clock() {
  static constinit LineClock clock;
  return clock;
}

const char* LevelTag(uint32_t level) {
  return level < kLevelTags.size() ? kLevelTags[level] : "";
}

std::string_view BaseName(const char* path) {
  if (path == nullptr) return "";
  std::string_view name = path;
  for (const char separator : {'\\', '/'}) {
    const size_t at = name.rfind(separator);
    if (at != std::string_view::npos) name.remove_prefix(at + 1);
  }
  return name;
}

uint32_t BuildLine(const Record& record, char (&line)[kLineSize]) {
  LineWriter writer(line, sizeof(line));
  writer.Append(Clock().Prefix());
  writer.AppendPadded(LevelTag(record.level), kTagWidth);
  writer.Append(" ");
  writer.AppendPadded(record.module, kModuleWidth);
  writer.Append(" ");
  writer.AppendPadded(record.file, kFileWidth);
  writer.Append("[");
  writer.AppendNumber(static_cast<int32_t>(record.line));  // "%d" of the line
  writer.Append("]:");
  writer.Append(record.message);
  writer.Append("\n");
  const char* end = writer.Finish();
  return end == nullptr ? 0 : static_cast<uint32_t>(end - line);
}

}  // namespace runlog
