/// The two small files that hold the high-availability pairing of this board.

#include <fcntl.h>
#include <unistd.h>

#include <span>

#include "base/owners.h"
#include "base/result_codes.h"
#include "frame/public_file_cfg.h"
#include "log/file_public.h"

char HA_IP_ENABLE_INFO[256] = "/home/sys_cfg/ha_ip_enable.tola";

namespace {

constexpr char kHaInitInfo[] = "/home/sys_cfg/ha_init_info.tola";

/// Fills `bytes` from the start of the file; a shorter file is a failure.
bool ReadExactly(const char* path, std::span<std::byte> bytes) {
  const base::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  return TEMP_FAILURE_RETRY(read(fd.get(), bytes.data(), bytes.size())) == static_cast<ssize_t>(bytes.size());
}

}  // namespace

uint32_t GetHaInfo(HaInitInfo* info) {
  HaInitInfo record = {};
  if (info == nullptr || !ReadExactly(kHaInitInfo, std::as_writable_bytes(std::span(&record, 1))))
    return kFailure;
  *info = record;
  return kSuccess;
}

uint32_t GetHAIpEnableInfo(uint16_t* isUsed) {
  uint16_t flag = 0;
  if (isUsed == nullptr || !ReadExactly(HA_IP_ENABLE_INFO, std::as_writable_bytes(std::span(&flag, 1))))
    return kFailure;
  *isUsed = flag;
  return kSuccess;
}

uint32_t StoreHAIpEnableInfo(uint16_t isUsed) {
  const base::UniqueFd fd(open(HA_IP_ENABLE_INFO, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) return kFailure;
  // Written over in place: the two bytes never pass through an empty file.
  if (TEMP_FAILURE_RETRY(pwrite(fd.get(), &isUsed, sizeof(isUsed), 0)) != sizeof(isUsed)) return kFailure;
  if (ftruncate(fd.get(), sizeof(isUsed)) != 0 || fsync(fd.get()) != 0) return kFailure;
  (void)ChangeFileProperty(
      HA_IP_ENABLE_INFO);  // the flag is stored; an owner that cannot be set loses nothing
  return kSuccess;
}
