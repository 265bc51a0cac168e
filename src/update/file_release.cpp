// The space rules: what a package unpacks to, as its listing says, against the memory that is free.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>

#include <algorithm>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/file_name_check.h"
#include "update/package_kind.h"

namespace {

constexpr char kSource[] = "file_release";
constexpr uint32_t kCommandMax = 210;
constexpr uint32_t kLineSize = 63;
constexpr size_t kFigureMax = 9;  ///< characters of a size, newline included
constexpr uint32_t kFreePercent = 10;

#define RELEASE_ERR(...) TOLA_LogPrint(0, kLogErr, kSource, __LINE__, __VA_ARGS__)
#define RELEASE_EVT(...) TOLA_LogPrint(0, kLogEvt, kSource, __LINE__, __VA_ARGS__)

/// Whether `path` stays one file name inside the double quotes of a measuring command.
bool IsMeasurable(const char* path) {
  return path != nullptr && path[0] != '-' && CheckFileNameSpecialChar(path, UINT32_MAX, nullptr, false) == 0;
}

/// The line as a whole decimal number; -1 for anything else, like the "1,3" of a device.
int64_t FigureOf(const char* line) {
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(line, &end, 10);
  const bool whole = end != line && (*end == '\n' || *end == '\0') && errno == 0;
  return whole ? value : -1;
}

/// @retval 0 `sum` holds the sum of all lines @retval 1 abnormal
uint32_t SumFigures(FILE* listing, uint32_t& sum) {
  uint64_t total = 0;
  char line[kLineSize];
  while (fgets(line, sizeof(line), listing) != nullptr) {
    const int64_t figure = strlen(line) > kFigureMax ? -1 : FigureOf(line);
    if (figure < 0) return kFailure;
    total += static_cast<uint64_t>(figure);
    if (total > UINT32_MAX) return kFailure;
  }
  sum = static_cast<uint32_t>(total);
  return ferror(listing) != 0 || total == 0 ? kFailure : 0;
}

uint32_t KiB(uint64_t units, uint64_t unitBytes) {
  return static_cast<uint32_t>(std::min<uint64_t>(units * unitBytes >> 10, UINT32_MAX));
}

}  // namespace

FILE* UpdatePopen(const char* command) {
  return popen(command, "re");
}

uint32_t GetTarPackFileSize(const char* packagePath, uint32_t& size) {
  if (!IsMeasurable(packagePath)) return kFailure;
  char command[kCommandMax + 1];
  const int length =
      snprintf_s(command, sizeof(command), kCommandMax, "tar -ztvf \"%s\"|awk '{print $3}'", packagePath);
  if (length < 0) {
    RELEASE_ERR("sprint err:%d,%s", length, packagePath);
    return kFailure;
  }
  RELEASE_EVT("cmd:%s", command);
  base::PipePtr listing(UpdatePopen(command));
  if (listing == nullptr) return kErrPipeOpen;
  uint32_t sum = 0;
  const uint32_t result = SumFigures(listing.get(), sum);
  listing.reset();
  if (result != 0) {
    RELEASE_ERR("file abnormal");
    return kFailure;
  }
  size = sum;
  return 0;
}

uint32_t GetZipPackFileSize(const char* packagePath, uint32_t& size) {
  if (!IsMeasurable(packagePath) || strchr(packagePath, '[') != nullptr) return kFailure;  // '[': a pattern
  char command[kCommandMax + 1];
  const int length =
      snprintf_s(command, sizeof(command), kCommandMax, "unzip -l \"%s\"|awk '{print $1}'", packagePath);
  if (length < 0) {
    RELEASE_ERR("sprintf err:%d %s", length, packagePath);
    return kFailure;
  }
  RELEASE_EVT("cmd:%s", command);
  base::PipePtr listing(UpdatePopen(command));
  if (listing == nullptr) return kErrPipeOpen;
  char last[kLineSize] = "";
  while (fgets(last, sizeof(last), listing.get()) != nullptr) {  // the total stands in the last line
  }
  const bool whole = ferror(listing.get()) == 0;
  listing.reset();
  if (strlen(last) > kFigureMax) return kFailure;
  const int64_t total = whole ? FigureOf(last) : -1;
  if (total <= 0) {
    RELEASE_ERR("file abnormal");
    return kFailure;
  }
  size = static_cast<uint32_t>(total);
  return 0;
}

uint32_t IsMemFreeSpaceEnough(uint32_t total, uint32_t free, uint32_t needed, uint32_t percent) {
  RELEASE_EVT("flash:%d,%d,%d,%d", static_cast<int>(total), static_cast<int>(free), static_cast<int>(needed),
              static_cast<int>(percent));
  if (total == 0 || free == 0) return 0;  // kept: unknown figures are taken as enough
  if (free < needed) {
    RELEASE_ERR("not enough space");
    return 1;
  }
  return free - needed <= uint64_t{total} * percent / 100 ? 1 : 0;
}

uint32_t GetSysFlashCapacityAvailableState(uint32_t neededBytes, uint32_t percent) {
  struct sysinfo info = {};
  if (sysinfo(&info) != 0) {
    RELEASE_EVT("get flash capacity fail");
    return 1;
  }
  const uint64_t unit = info.mem_unit;
  return IsMemFreeSpaceEnough(KiB(info.totalram, unit), KiB(info.freeram, unit), neededBytes >> 10, percent);
}

uint32_t IsReleasePackSafe(uint16_t kind, const char* packagePath) {
  uint32_t size = 0;
  uint32_t result = 0;
  if (kind == static_cast<uint16_t>(PackageKind::kTarGz)) result = GetTarPackFileSize(packagePath, size);
  if (kind == static_cast<uint16_t>(PackageKind::kZip)) result = GetZipPackFileSize(packagePath, size);
  RELEASE_EVT("file len:%d B", static_cast<int>(size));
  return result != 0 ? kFailure : GetSysFlashCapacityAvailableState(size, kFreePercent);
}

uint32_t IsReleasePackFileSafe(uint16_t kind, const char* packagePath) {
  DropCaches();
  if (IsReleasePackSafe(kind, packagePath) == 0) return 0;
  RELEASE_ERR("release pack unsafe");
  return kFailure;
}

bool TOLA_IsEnoughRamToDecompressPackage(const char* packagePath) {
  if (packagePath == nullptr) return false;
  const PackageKind kind = PackageKindOf(packagePath);
  if (kind == PackageKind::kUnknown) return false;
  return IsReleasePackFileSafe(static_cast<uint16_t>(kind), packagePath) == 0;
}
