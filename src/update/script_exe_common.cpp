#include "update/script_exe_common.h"

#include <stdio.h>
#include <string.h>

#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/file_name_check.h"
#include "update/script_exe_ids.h"
#include "update/script_run.h"

namespace {

constexpr uint16_t kModule = kScriptExeCompId;
constexpr size_t kCommandMax = 512;
constexpr int kLineSize = 512;

/// kept: of a path that is too long `innerFile` holds what fits. The script then misses its file; with the
/// entry before it would take a wrong one.
void TakeInnerFile(const char* directory, const char* line, char* innerFile, uint32_t size) {
  if (snprintf_s(innerFile, size, size - 1, "%s/%s", directory, line) < 0) {
    LOG_ERR(kModule, "sprint bsp err %s", line);
    return;
  }
  LOG_EVT(kModule, "bsp pack file:%s", innerFile);
}

}  // namespace

void DecompressUpdatePackage(char* commandBuffer, uint32_t size, const char* packagePath,
                             const char* directory) {
  LOG_EVT(kModule, "found %s", commandBuffer);
  if (CheckFileNameSpecialChar(directory, static_cast<uint32_t>(strlen(directory)), nullptr, true) != 0) {
    return;
  }
  if (snprintf_s(commandBuffer, size, kCommandMax, "tar -zxf \"%s\" -C \"%s\"", packagePath, directory) < 0) {
    LOG_ERR(kModule, "sprint err %s", packagePath);
    return;
  }
  LOG_EVT(kModule, "exec %s", commandBuffer);
  if (tola_excev(LogBaseName(__FILE__), __LINE__, commandBuffer, nullptr) != 0) {
    LOG_ERR(kModule, "sys cmd err");
  }
}

uint32_t GetInnerShFile(const char* directory, const char* packagePath, const char* scriptName,
                        char* innerFile, uint32_t size) {
  const uint32_t refused = CheckFileNameInCompressedPackage(packagePath);
  if (refused != 0) return refused;
  if (packagePath[0] == '-') return kFailure;  // tar would take it for its standard input

  char buffer[kCommandMax + 1];
  if (snprintf_s(buffer, sizeof(buffer), kCommandMax, "tar -ztf \"%s\"", packagePath) < 0) return kErrFormat;
  FILE* listing = popen(buffer, "re");
  if (listing == nullptr) return kSuccess;
  while (fgets(buffer, kLineSize, listing) != nullptr) {
    if (strstr(buffer, scriptName) != nullptr) {
      DecompressUpdatePackage(buffer, sizeof(buffer), packagePath, directory);
    } else {
      TakeInnerFile(directory, buffer, innerFile, size);
    }
  }
  return static_cast<uint32_t>(pclose(listing));
}

uint32_t GetInnerScript(const char* scriptPath, const char* packagePath, char* innerFile,
                        uint32_t innerFileSize) {
  const char* packageSlash = strrchr(packagePath, '/');
  const size_t length = packageSlash != nullptr ? static_cast<size_t>(packageSlash - packagePath) : 0;
  char directory[kCommandMax + 1];
  if (strncpy_s(directory, sizeof(directory), packagePath, length) == EOK) {
    (void)GetInnerShFile(directory, packagePath, ScriptBaseName(scriptPath), innerFile,
                         innerFileSize);  // the file decides
  }
  const uint32_t missing = CheckFileExist(scriptPath);
  if (missing != 0) LOG_ERR(kModule, "script file not exist, %d", static_cast<int>(missing));
  return missing;
}
