#include "frame/sys_res_get.h"

#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "base/owners.h"
#include "frame/sys_res_parse.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "velto/kel_cfg.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint16_t kLogPartition = 6;
constexpr char kMemInfo[] = "/proc/meminfo";
constexpr char kMounts[] = "/proc/mounts";
constexpr int32_t kNoProcess = -1;
constexpr size_t kPartitionNameSize = 129;

/// File systems that live in memory: their size is the machine's memory. A product may change the entries.
std::array<const char*, 3> g_memPartitions = {"/dev", "/var", "/tmp"};

using MountTable = base::UniqueC<FILE, endmntent>;

MountTable OpenMounts() {
  MountTable table(setmntent(kMounts, "re"));
  if (table == nullptr) TOLA_LogPrint(kLogPartition, 4, __FILE__, __LINE__, "setmntent error");
  return table;
}

uint32_t ReadMemInfo(char* text, size_t size) {
  const base::FilePtr file(fopen(kMemInfo, "re"));
  if (file == nullptr) return kSysResErrOpen;
  const size_t length = fread(text, 1, size - 1, file.get());
  if (length == 0) return kSysResErrRead;
  text[length] = '\0';
  return 0;
}

/// Leaves `info` as it is when nothing is mounted at `mountDir`, which is a success.
uint32_t GetPartitionFsinfo(const char* mountDir, struct statfs64& info) {
  const MountTable table = OpenMounts();
  if (table == nullptr || mountDir == nullptr) return 1;
  struct mntent entry = {};
  char buffer[128];
  while (getmntent_r(table.get(), &entry, buffer, sizeof(buffer)) != nullptr) {
    if (strcmp(entry.mnt_dir, mountDir) != 0) continue;
    if (statfs64(mountDir, &info) != 0) {
      TOLA_LogPrint(kLogPartition, 4, __FILE__, __LINE__, "statfs failed! %s", mountDir);
      return 1;
    }
    return 0;
  }
  return 0;
}

bool IsMemPartition(const char* mountDir) {
  return std::any_of(g_memPartitions.begin(), g_memPartitions.end(),
                     [mountDir](const char* each) { return strcmp(each, mountDir) == 0; });
}

/// Bytes of the number that follows `label` in a line of "/proc/meminfo", which counts in kB.
uint32_t BytesAfter(const char* line, std::string_view label) {
  const auto bytes = static_cast<uint32_t>(strtoull(line + label.size(), nullptr, 10) * 1024);
  TOLA_LogPrint(kLogModule, 1, __FILE__, __LINE__, "%.*s%u", static_cast<int>(label.size()), label.data(),
                bytes);
  return bytes;
}

}  // namespace

uint32_t TOLA_GetSysCpuUsage() {
  return KEL_CpupUseRateGet();
}

uint32_t TOLA_GetSysMemUsage(uint32_t& percent) {
  char text[256] = {};
  const uint32_t result = ReadMemInfo(text, sizeof(text));
  return result != 0 ? result : GetSysMemUsage(text, percent);
}

int32_t TOLA_GetProcessPidByName(const char* name) {
  if (name == nullptr) {
    TOLA_LogPrint(kLogModule, 4, __FILE__, __LINE__, "name null!");
    return kNoProcess;
  }
  char command[256] = {};
  const int written = snprintf_s(command, sizeof(command), sizeof(command) - 1, "pidof %s", name);
  if (written < 0) {
    TOLA_LogPrint(kLogModule, 5, __FILE__, __LINE__, "sprintf err %d", written);
    return kNoProcess;
  }
  if (CheckSpecialCharWithExWhiteList(command) != 0) return kNoProcess;
  const base::PipePtr pipe(popen(command, "re"));
  if (pipe == nullptr) {
    TOLA_LogPrint(kLogModule, 5, __FILE__, __LINE__, "popen fail");
    return kNoProcess;
  }
  char line[255] = {};
  while (fgets(line, sizeof(line), pipe.get()) != nullptr) {
    if (const int32_t pid = GetProcessPidInLine(line, getpid()); pid != kNoProcess) return pid;
  }
  return kNoProcess;
}

uint32_t TOLA_GetFlashPartitionUsage(const char* mountDir, uint32_t& percent) {
  struct statfs64 info = {};
  if (GetPartitionFsinfo(mountDir, info) != 0) return 1;
  percent = CalcBlocksUsedPercent(info.f_blocks, info.f_bfree, info.f_bavail);
  return 0;
}

uint32_t TOLA_GetFlashPartitionSize(const char* mountDir, uint32_t& totalBytes, uint32_t& freeBytes) {
  struct statfs64 info = {};
  if (GetPartitionFsinfo(mountDir, info) != 0) return 0;
  // kept: 32-bit products, they wrap above 4 GiB
  totalBytes = static_cast<uint32_t>(info.f_bsize) * static_cast<uint32_t>(info.f_blocks);
  freeBytes = static_cast<uint32_t>(info.f_bsize) * static_cast<uint32_t>(info.f_bfree);
  TOLA_LogPrint(kLogPartition, 1, __FILE__, __LINE__, "%s:%u-%u", mountDir, totalBytes, freeBytes);
  return 1;
}

uint32_t TOLA_GetFlashPartitionNameByDir(const char* dir, char* mountDir, uint32_t outSize) {
  const MountTable table = dir == nullptr ? nullptr : OpenMounts();
  if (table == nullptr) {
    if (dir == nullptr) TOLA_LogPrint(kLogPartition, 4, __FILE__, __LINE__, "setmntent error");
    return 0;
  }
  uint32_t found = 0;
  uint8_t bestLength = 0;
  struct mntent entry = {};
  char buffer[128];
  while (getmntent_r(table.get(), &entry, buffer, sizeof(buffer)) != nullptr) {
    if (!IsMountOfDir(entry.mnt_dir, dir, bestLength)) continue;
    bestLength = static_cast<uint8_t>(strlen(entry.mnt_dir));
    found = 1;
    if (strcpy_s(mountDir, outSize, entry.mnt_dir) != EOK) {
      TOLA_LogPrint(kLogPartition, 4, __FILE__, __LINE__, "cp %s fail", entry.mnt_dir);
      found = 0;
    }
  }
  return found;
}

uint32_t TOLA_GetPartitionSizeByDir(const char* dir, uint32_t& totalBytes, uint32_t& freeBytes) {
  char mountDir[kPartitionNameSize] = {};
  if (TOLA_GetFlashPartitionNameByDir(dir, mountDir, sizeof(mountDir)) == 0) return 0;
  if (IsMemPartition(mountDir)) return TOLA_GetLinuxSysMemRes(totalBytes, freeBytes);
  return TOLA_GetFlashPartitionSize(mountDir, totalBytes, freeBytes);
}

uint32_t TOLA_GetLinuxSysMemRes(uint32_t& totalBytes, uint32_t& availableBytes) {
  constexpr std::string_view kTotal = "MemTotal:";
  constexpr std::string_view kAvailable = "MemAvailable:";
  const base::FilePtr file(fopen(kMemInfo, "rbe"));
  if (file == nullptr) {
    TOLA_LogPrint(kLogModule, 4, __FILE__, __LINE__, "open file err");
    return 0;
  }
  totalBytes = 0;
  availableBytes = 0;
  bool haveTotal = false;
  bool haveAvailable = false;
  char line[63] = {};
  while ((!haveTotal || !haveAvailable) && fgets(line, sizeof(line), file.get()) != nullptr) {
    if (const char* at = strstr(line, kTotal.data()); at != nullptr) {
      totalBytes = BytesAfter(at, kTotal);
      haveTotal = true;
    } else if (at = strstr(line, kAvailable.data()); at != nullptr) {
      availableBytes = BytesAfter(at, kAvailable);
      haveAvailable = true;
    }
  }
  return 1;
}
