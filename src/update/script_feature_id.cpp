#include "update/script_feature_id.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/script_exe_ids.h"

namespace {

constexpr uint16_t kModule = kScriptExeCompId;
constexpr size_t kLineSize = 128;
constexpr size_t kValueMax = 127;

}  // namespace

uint32_t GetKeyValue(FILE* file, int64_t& offset, const char* key, char* value, uint32_t valueSize) {
  if (TOLA_SeekFile(file, offset, SEEK_SET) != 0) return kFailure;
  char line[kLineSize];
  const char* found = nullptr;
  while (found == nullptr) {
    if (fgets(line, sizeof(line), file) == nullptr) return kFailure;
    found = strstr(line, key);
  }
  offset = ftello(file);
  const char* text = found + strlen(key);
  const size_t length = std::min(strcspn(text, "\r\n"), kValueMax);
  const errno_t err = strncpy_s(value, valueSize, text, length);
  if (err != EOK) {
    LOG_ERR(kModule, "Key %s Value %s %d", key, text, err);
    return kFailure;
  }
  return kSuccess;
}

uint32_t ParsingFeatureIdFromFile(const char* path, uint32_t& featureId) {
  featureId = 0;
  const base::FilePtr file(TOLA_OpenFile(path, "r"));
  char value[kValueMax + 2];
  int64_t offset = 0;
  if (!file || GetKeyValue(file.get(), offset, "FeatureID=", value, sizeof(value)) != 0) {
    LOG_ERR(kModule, "get FeatureID failed");
    return kFailure;
  }
  // No digits read as 0, and what passes 32 bits as their largest number, as strtoul does on the device.
  featureId = static_cast<uint32_t>(std::min<unsigned long long>(strtoull(value, nullptr, 0), UINT32_MAX));
  return kSuccess;
}

uint32_t CheckFeatureIdFromFile(const char* path, uint32_t required) {
  uint32_t found = 0;
  (void)ParsingFeatureIdFromFile(path, found);  // a script without an id counts as 0
  LOG_EVT(kModule, "-- to match fi[%lu:%lu]", static_cast<unsigned long>(found),
          static_cast<unsigned long>(required));
  return found < required ? kExeErrFeatureId : kSuccess;
}
