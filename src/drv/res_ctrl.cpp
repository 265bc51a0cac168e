#include "drv/res_ctrl.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/wait.h>

#include "base/owners.h"
#include "drv/res_ctrl_command.h"
#include "securec.h"
#include "velto/kel_task.h"

namespace {

constexpr char kTag[] = "resctrldriver";
constexpr uint32_t kDelayMs = 100;

void PrintLine(const char* tag, const char* file, uint32_t line, const char* text) {
  (void)printf("[%s] %s:%u %s\n", tag, file, line, text);
}

DrvLogFunc g_drvLog = PrintLine;

__attribute__((format(printf, 2, 3))) void DrvLog(uint32_t line, const char* format, ...) {
  char text[200];
  va_list args;
  va_start(args, format);
  (void)vsnprintf_s(text, sizeof(text), sizeof(text) - 1, format, args);  // a cut line is still a line
  va_end(args);
  g_drvLog(kTag, "res_ctrl.cpp", line, text);
}

/// Starts `command` in a shell that gets descriptors 0 to 2 and none of this process's signal settings.
bool StartShell(const char* command, pid_t& pid) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return false;
  const base::UniqueC<posix_spawn_file_actions_t, posix_spawn_file_actions_destroy> ownActions(&actions);
  if (posix_spawnattr_init(&attributes) != 0) return false;
  const base::UniqueC<posix_spawnattr_t, posix_spawnattr_destroy> ownAttributes(&attributes);
  sigset_t none;
  sigset_t reset;
  sigemptyset(&none);
  sigemptyset(&reset);
  for (int signal : {SIGCHLD, SIGINT, SIGQUIT, SIGPIPE}) sigaddset(&reset, signal);
  if (posix_spawn_file_actions_addclosefrom_np(&actions, 3) != 0 ||
      posix_spawnattr_setsigmask(&attributes, &none) != 0 ||
      posix_spawnattr_setsigdefault(&attributes, &reset) != 0 ||
      posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) != 0) {
    return false;
  }
  char shell[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {shell, option, const_cast<char*>(command),
                             nullptr};  // exec writes to none of them
  return posix_spawn(&pid, "/bin/sh", &actions, &attributes, arguments, environ) == 0;
}

}  // namespace

void DrvSetLogFunc(DrvLogFunc func) {
  g_drvLog = func != nullptr ? func : PrintLine;
}

int32_t DRV_CfgInit(uint32_t deviceId) {
  return deviceId > UINT16_MAX ? 1 : 0;
}

int32_t DRV_System(const char* command) {
  if (command == nullptr) return -1;
  pid_t pid = -1;
  if (!StartShell(command, pid)) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool BuildResCtrlCommand(char (&line)[kResCtrlCommandSize], uint32_t command, uint16_t pid, uint16_t limit,
                         uint16_t period) {
  if (command != kResCtrlCmdSet && command != kResCtrlCmdUnset) return false;
  const char* word = command == kResCtrlCmdSet ? "SET" : "UNSET";
  return snprintf_s(line, sizeof(line), sizeof(line) - 1, "/etc/init.d/cgrouputil.sh %s %d %d %d", word, pid,
                    limit, period) > 0;
}

int32_t DRV_ResCtrlInit(uint32_t deviceId) {
  const int32_t ret = DRV_CfgInit(deviceId);
  if (ret != 0) {
    DrvLog(__LINE__, "DRV_CfgInit err %d", ret);
    return -1;
  }
  if (deviceId != kResCtrlDeviceId) {
    DrvLog(__LINE__, "DRV_ResCtrlInit id error %.4x", deviceId);
    return -1;
  }
  return 0;
}

int32_t DRV_ResCtrlIoctl(uint32_t deviceId, uint32_t command, const DRV_RES_CTRL_S* record) {
  const int32_t ret = DRV_CfgInit(deviceId);
  if (ret != 0) {
    DrvLog(__LINE__, "DRV_CfgInit err %d", ret);
    return -1;
  }
  if (deviceId != kResCtrlDeviceId) {
    DrvLog(__LINE__, "DRV_ResCtrlIoctl id error %.4x", deviceId);
    return -1;
  }
  if (record == nullptr) {
    DrvLog(__LINE__, "DRV_ResCtrlIoctl para is null");
    return -1;
  }
  if (command != kResCtrlCmdSet &&
      command != kResCtrlCmdUnset) {  // 0 and 1: another use of the device, not here
    DrvLog(__LINE__, "DRV_ResCtrlIoctl cmd err %d", static_cast<int>(command));
    return -1;
  }
  if (record->pidNum > kResCtrlPidMax) {
    DrvLog(__LINE__, "DRV_ResCtrlIoctl pid num err %d", record->pidNum);
    return -1;
  }
  for (uint32_t i = 0; i < record->pidNum; ++i) {
    char line[kResCtrlCommandSize];
    if (!BuildResCtrlCommand(line, command, record->pids[i], record->limit, record->period)) {
      DrvLog(__LINE__, "snprintf_s err");
      return -1;
    }
    const int32_t status = DRV_System(line);
    if (status != 0) {
      DrvLog(__LINE__, "excute cmd %s failed, ret:%d", line, status);
      return status;
    }
    KEL_TaskDelay(kDelayMs);
  }
  return 0;
}
