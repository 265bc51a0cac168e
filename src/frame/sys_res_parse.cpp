#include "frame/sys_res_parse.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "log/run_log.h"

namespace {

constexpr size_t kNameMax = 64;
constexpr char kSourceName[] = "sys_res_get.cpp";

/// A line of "/proc/meminfo": a name and an unsigned number.
struct MemLine {
  std::string_view name;
  uint32_t value = 0;
};

bool ScanMemLine(std::string_view line, MemLine& out) {
  const size_t nameEnd = line.find_first_of(" \t");
  if (nameEnd == std::string_view::npos || nameEnd == 0 || nameEnd > kNameMax) return false;
  const size_t number = line.find_first_not_of(" \t", nameEnd);
  if (number == std::string_view::npos || line[number] < '0' || line[number] > '9') return false;
  uint64_t value = 0;
  for (size_t i = number; i < line.size() && line[i] >= '0' && line[i] <= '9' && value <= UINT32_MAX; ++i) {
    value = value * 10 + static_cast<uint64_t>(line[i] - '0');
  }
  if (value > UINT32_MAX) return false;
  out = {line.substr(0, nameEnd), static_cast<uint32_t>(value)};
  return true;
}

}  // namespace

uint32_t GetSysMemUsage(const char* meminfo, uint32_t& percent) {
  uint32_t total = 0;
  uint32_t available = 0;
  std::string_view text(meminfo);
  while (!text.empty() && (total == 0 || available == 0)) {
    const size_t end = text.find('\n');
    MemLine line;
    if (ScanMemLine(text.substr(0, end), line)) {
      TOLA_LogPrint(0, 1, kSourceName, __LINE__, "name:%.*s, size:%d", static_cast<int>(line.name.size()),
                    line.name.data(), static_cast<int>(line.value));
      if (line.name.find("MemTotal") != std::string_view::npos) {
        total = line.value;
      } else if (line.name.find("MemAvailable") != std::string_view::npos) {
        available = line.value;
      }
    }
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  if (total == 0 || total < available) {
    TOLA_LogPrint(0, 4, kSourceName, __LINE__, "total:%u, available:%u", total, available);
    return 1;
  }
  percent = static_cast<uint32_t>(100 - 100 * static_cast<uint64_t>(available) / total);
  return 0;
}

int32_t GetProcessPidInLine(char* line, pid_t ownPid) {
  char* rest = nullptr;
  for (char* field = strtok_r(line, " \t\n", &rest); field != nullptr;
       field = strtok_r(nullptr, " \t\n", &rest)) {
    const unsigned long long pid = strtoull(field, nullptr, 10);
    if (pid != 0 && pid <= INT_MAX && pid != static_cast<unsigned long long>(ownPid))
      return static_cast<int32_t>(pid);
  }
  return -1;
}

uint32_t CalcBlocksUsedPercent(uint64_t total, uint64_t free, uint64_t available) {
  if (static_cast<int64_t>(free) < 0 || free > total) return 0;
  const uint64_t used = total - free;
  const uint64_t denominator = used + available;
  if (denominator == 0) return 0;
  return static_cast<uint32_t>((100 * used + denominator / 2) / denominator);
}

bool IsMountOfDir(const char* mount, const char* dir, uint8_t bestLength) {
  const auto mountLength = static_cast<uint8_t>(strlen(mount));
  const auto dirLength = static_cast<uint8_t>(strlen(dir));
  if (mountLength == 0 || mountLength > dirLength || mountLength < bestLength) return false;
  if (strncmp(mount, dir, mountLength) != 0) return false;
  return mountLength == dirLength || mount[mountLength - 1] == '/' || dir[mountLength] == '/';
}
