#include "frame/feature_app.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "securec.h"
#include "velto/kel_task.h"

namespace {

constexpr size_t kCommandSize = 256;
constexpr uint32_t kEmptyReadDelayMs = 20;
constexpr int kEmptyReadsMax = 500;

}  // namespace

uint32_t TolaOsGetUnSamePid(char* line, unsigned ownPid) {
  char* rest = nullptr;
  for (char* field = strtok_r(line, " \t\n", &rest); field != nullptr;
       field = strtok_r(nullptr, " \t\n", &rest)) {
    const unsigned long long pid = strtoull(field, nullptr, 10);
    if (pid != 0 && pid < kNoSuchProcess && pid != ownPid) return static_cast<uint32_t>(pid);
  }
  return kNoSuchProcess;
}

uint32_t TolaOsGetAppPidByName(const char* name) {
  char command[kCommandSize] = {};
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "pidof %s", name) < 0) return kErrTextFormat;
  const base::PipePtr pipe(popen(command, "re"));
  if (pipe == nullptr) return kNoSuchProcess;
  char line[257] = {};
  int emptyReads = 0;
  while (feof(pipe.get()) == 0 && emptyReads <= kEmptyReadsMax) {
    if (fgets(line, sizeof(line), pipe.get()) == nullptr) {
      if (feof(pipe.get()) != 0) break;
      ++emptyReads;
      KEL_TaskDelay(kEmptyReadDelayMs);
      continue;
    }
    const uint32_t pid = TolaOsGetUnSamePid(line, static_cast<unsigned>(getpid()));
    if (pid != kNoSuchProcess) return pid;
  }
  return kNoSuchProcess;
}

uint32_t TolaOsKillOneFeatureApp(const char* name) {
  char command[kCommandSize] = {};
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "killall -9 %s", name) < 0)
    return kErrTextFormat;
  if (TOLA_System(command) != 0) {
    (void)printf("kill all appName fail");
    return 0;
  }
  const uint32_t pid = TolaOsGetAppPidByName(name);
  if (pid == kNoSuchProcess) return 0;
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "kill -9 %d", static_cast<int>(pid)) < 0) {
    return kErrTextFormat;
  }
  return TOLA_System(command);
}

uint32_t TolaOsKillFeatureApp() {
  return TolaOsKillOneFeatureApp("");
}
