/// `board_main`, the platform's main process: it owns the main queue, knows every process of the platform,
/// passes on what they send each other and keeps them running, authorises updates, and hosts the component
/// that asks for them. Usage: board_main [--config FILE] [--socket PATH]

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "base/owners.h"
#include "board_link/board_link.h"
#include "board_main/main_queue.h"
#include "board_main/request_server.h"
#include "board_main/requester_comp.h"
#include "frame/public_file_cfg.h"
#include "log/run_log.h"
#include "velto/kel_cfg.h"

namespace {

constexpr char kPathCfg[] = "/app_run/app_bin/app_config/tola.cfg";
constexpr uint32_t kLogFileSize = 102400;

constexpr char kOwnConfig[] = "/mnt/config/board_main.cfg";
constexpr char kCommonConfig[] = "/mnt/config/feature.cfg";

struct Options {
  const char* config = access(kOwnConfig, F_OK) == 0 ? kOwnConfig : kCommonConfig;
  const char* socket = board_link::kSocketPath;
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 < argc && strcmp(argv[i], "--config") == 0) {
      options.config = argv[i + 1];
    } else if (i + 1 < argc && strcmp(argv[i], "--socket") == 0) {
      options.socket = argv[i + 1];
    } else {
      return false;
    }
  }
  return true;
}

uint32_t StartLog() {
  LogSetPathLookup(TOLA_GetFileFullName);
  const std::string name =
      std::string(TOLA_GetPathName("/mnt/sub_bin/sys_log/", "log.run")) + "board_main_run_log";
  uint32_t result = TOLA_SetRunLogFileName(name.c_str());
  if (result == 0) result = TOLA_PrintInitForArm9(kLogFileSize, nullptr);
  return result != 0 ? result : TOLA_LogControl(0, 4, 3);
}

/// Two main processes would take each other's frames, wherever they listen: there is one main queue, and so
/// there is one lock. It is held as long as the process lives.
uint32_t LockOut() {
  static base::UniqueFd lock;
  const std::string path = std::string(board_link::kSocketPath) + ".lock";
  lock.reset(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  return lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
}

/// One step of start-up; its failure is said and ends the process.
bool Step(const char* name, uint32_t result) {
  if (result != 0) (void)fprintf(stderr, "board_main: %s failed with %#x\n", name, result);
  return result == 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
      (void)fprintf(stderr, "usage: board_main [--config FILE] [--socket PATH]\n");
      return 2;
    }
    static auto& mainQueue = *new board_main::MainQueue;  // never ends: its tasks do not either
    const bool started = Step("being the only main process", LockOut()) &&
                         Step("reading the configuration", KEL_CfgdbInitByFsldr(options.config)) &&
                         Step("starting the runtime", KEL_Start(nullptr)) &&
                         Step("reading the path configuration", TOLA_Start(kPathCfg, nullptr)) &&
                         Step("starting the run log", StartLog()) &&
                         Step("opening the main queue", mainQueue.Open()) &&
                         Step("starting the main queue", mainQueue.Start()) &&
                         Step("starting the requesting component", board_main::StartRequesterComp());
    return started ? board_main::ServeRequests(options.socket, mainQueue) : 1;
  } catch (const std::exception& error) {
    (void)fprintf(stderr, "board_main: %s\n", error.what());
    return 1;
  }
}
