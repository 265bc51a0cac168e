/// The start-up sequence. Until the run log stands, its words go to standard output.

#include "frame/feature_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/result_codes.h"
#include "frame/feature_identity.h"
#include "frame/function_feature_sys_init.h"
#include "frame/public_file_cfg.h"
#include "frame/user_tick.h"
#include "msg/heart_beat_manager.h"
#include "securec.h"
#include "velto/dms.h"
#include "velto/kel_cfg.h"
#include "velto/kel_task.h"

std::atomic<uint8_t> g_isfeatureProcessExit = 0;

namespace {

constexpr char kDefaultRuntimeCfg[] = "/mnt/config/feature.cfg";
constexpr char kPathCfg[] = "/app_run/app_bin/app_config/tola.cfg";
constexpr uint32_t kInitTaskPriority = 29;
constexpr uint32_t kSecondMs = 1000;
constexpr int kFirstInheritedFd = 3;
constexpr int kLastInheritedFd = 255;
constexpr size_t kEnvSize = 256;

char g_appEnv[kEnvSize];  // putenv keeps the pointer
char g_logDirEnv[] = "TOLA_LOG_DIR=/mnt/";

/// Goes on in the child alone.
void ForkAndLeaveParent() {
  const pid_t pid = fork();
  if (pid != 0) _exit(pid < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
}

/// A descriptor that was closed at the start becomes "/dev/null": the next file to be opened would otherwise
/// take its place and receive everything that is printed.
void KeepStandardDescriptorsOpen() {
  for (int fd = 0; fd < kFirstInheritedFd; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) (void)open("/dev/null", O_RDWR);  // takes the lowest: fd
  }
}

/// What the starter blocks, ignores or lets others write is its own affair. Inherited it would make a process
/// that no signal ends, a crash without a record, commands without a status, folders that everybody may
/// change.
void DropInheritedSettings() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
      (void)signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)umask(umask(0) | S_IWGRP | S_IWOTH);
}

}  // namespace

void TolaOsMakeMeDaemon() {
  ForkAndLeaveParent();
  (void)setsid();  // fails only for a group leader, which a fresh child is not
  ForkAndLeaveParent();
  if (chdir("/tmp") != 0) perror("chdir /tmp");
  for (int fd = kFirstInheritedFd; fd <= kLastInheritedFd; ++fd) (void)close(fd);  // most are not open
  KeepStandardDescriptorsOpen();
  DropInheritedSettings();
  // A reader of standard output that goes away must not end an update. A handler, since commands that are
  // started go back to the default action with it, which they would not from "ignore".
  (void)signal(SIGPIPE, [](int) {});
}

uint32_t TolaOsInitVelto() {
  std::string fromXml;
  const bool named = GetVeltoCfgFromXml(fromXml) == 0;
  uint32_t result = KEL_CfgdbInitByFsldr(named ? fromXml.c_str() : kDefaultRuntimeCfg);
  if (result != 0) return result;
  result = KEL_Start(nullptr);
  // The runtime's timer thread runs already and reads the hook.
  if (result == 0) __atomic_store_n(&g_pfnUsrAdjustHook, &TolaOsUserTickAdjust, __ATOMIC_RELEASE);
  return result;
}

uint32_t TolaOsGetAppEnv(const char* exePath, const char* appName, char* dst, unsigned dstSize) {
  if (exePath == nullptr) return kFailure;  // a process may be started without any argument
  const size_t pathLength = strlen(exePath);
  const size_t nameLength = strlen(appName);
  if (pathLength <= nameLength || pathLength - nameLength >= dstSize) return kFailure;
  char directory[kEnvSize] = {};
  if (strncpy_s(directory, sizeof(directory), exePath, pathLength - nameLength) != EOK) return kErrTextCopy;
  if (snprintf_s(dst, dstSize, dstSize - 1, "TOLA_ROOT_DIR=%s", directory) <= 0) return kErrTextFormat;
  return kSuccess;
}

uint32_t TolaOsSetEnv(const char* exePath) {
  const uint32_t result = TolaOsGetAppEnv(exePath, g_featureIdentity.name, g_appEnv, sizeof(g_appEnv));
  if (result != 0) return result;
  (void)putenv(g_appEnv);
  (void)puts(g_appEnv);
  (void)putenv(g_logDirEnv);
  return kSuccess;
}

void TolaOsfeatureProcessInitTask(uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
  const uint32_t result = TolaOsFeatureSystemInit();
  if (result != 0) {
    (void)printf("\n=====init fail:%#x\n", result);
    g_isfeatureProcessExit = 1;
  }
}

uint32_t TolaOsCreatfeatureProcessInitTask(const char* taskName) {
  uint32_t taskId = 0;
  const uintptr_t noArguments[4] = {};
  return KEL_TaskCreate(taskName, &taskId, TolaOsfeatureProcessInitTask, kInitTaskPriority, 0, 0,
                        noArguments);
}

uint32_t TolaOsFeatureProcessMain(const char* exePath, const char* initTaskName) {
  TolaOsMakeMeDaemon();
  (void)setvbuf(stdout, nullptr, _IOLBF,
                0);  // mostly a file from here on; its lines come as they are written
  (void)printf("\n======== need init velto ===========:%s", kDefaultRuntimeCfg);

  uint32_t result = TolaOsInitVelto();
  if (result != 0) {
    (void)printf("\n==================== init velto fail:%#x ====================\n", result);
    return result;
  }
  // A second process of the name would take the queue, the log and the exception file of the first away, and
  // have no component. Without a folder for the lock there is none for the component's socket either.
  result = DMS_ProcNameTake(g_featureIdentity.name);
  if (result == kDmsErrNameTaken) {
    (void)printf("\n==================== %s runs already ====================\n", g_featureIdentity.name);
    return result;
  }
  result = TolaOsSetEnv(exePath);
  if (result != 0) {
    (void)printf("\n==================== set env fail:%#x ====================\n", result);
    return result;
  }
  result = TOLA_Start(kPathCfg, nullptr);
  if (result != 0) {
    (void)printf("\n==================== tola cfg fail:%#x ====================\n", result);
    return result;
  }
  result = TolaOsCreatfeatureProcessInitTask(initTaskName);
  if (result != 0) {
    (void)printf("\n==================== create task fail:%#x ====================\n", result);
    return result;
  }
  while (g_isfeatureProcessExit == 0) {
    (void)TOLA_HeartBeatProcessSecondEvent();  // refused until its stage has run
    KEL_TaskDelay(kSecondMs);
  }
  (void)printf("\n==================== %s process exit ================\n", initTaskName);
  return kSuccess;
}
