#include "frame/function_feature_sys_init.h"

#include <stdio.h>

#include "frame/box_init.h"
#include "frame/feature_identity.h"
#include "frame/init_comps.h"
#include "frame/platform_init_stages.h"
#include "frame/product_init_stages.h"
#include "frame/public_file_cfg.h"
#include "log/run_log.h"
#include "log/run_log_ex.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kLogFileSize = 102400;
constexpr uint32_t kRepeatSwitch = 2;
constexpr uint32_t kLevelError = 4;
constexpr uint32_t kModeConsoleAndFile = 3;

struct Stage {
  const char* name;
  uint32_t (*run)();
};

constexpr Stage kStages[] = {
    {"box", TolaOsFetureBoxInit},
    {"runlog", TolaOsLogInit},
    {"PduVersion", TolaOsProductProcVersion},
    {"msgMgr", TolaOsMsgInit},
    {"ipcMgr", TolaOsFeatureIpcIpcMgrInitInit},
    {"TaskHeartMgr", TolaOsTaskHeartBeatManagerInit},
    {"faultMgr", TolaOsFaultManagerInit},
    {"AfterCfg", TolaOsProductProcAfterCfgMgr},
    {"BeforeComp", TolaOsProductProcBeforeComp},
    {"NotifyMclEnd", TolaOsNotifyMclInitEnd},
    {"CompMgr", TolaOsCompManagerInit},
    {"AfterComp", TolaOsProductProcAfterComp},
};

}  // namespace

uint32_t TolaOsFeatureSystemInit() {
  for (const Stage& stage : kStages) {
    TOLA_LogPrint(kLogModule, 5, __FILE__, __LINE__, "%s Init", stage.name);
    const uint32_t result = stage.run();
    TOLA_LogPrint(kLogModule, 5, __FILE__, __LINE__, "%s, ret=%#x", stage.name, result);
    if (result != 0) return result;
  }
  return 0;
}

uint32_t TolaOsLogInit() {
  LogSetPathLookup(TOLA_GetFileFullName);
  uint8_t enable = 1;
  (void)TOLA_LogRepeatControl(kRepeatSwitch,
                              &enable);  // on is the default too: nothing is lost if it is refused
  char name[128] = {};
  const int written =
      snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s%s_run_log",
                 TOLA_GetPathName("/mnt/sub_bin/sys_log/", "log.run"), g_featureIdentity.name);
  if (written < 0) (void)printf("feature log file err %s\n", name);
  (void)TOLA_SetRunLogFileName(name);  // kept: a name that does not fit leaves the default names
  const uint32_t result = TOLA_PrintInitForArm9(kLogFileSize, nullptr);
  if (result != 0)
    (void)printf("run log init err %#x\n", result);  // kept: the stage goes on; records make the file
  return TOLA_LogControl(0, kLevelError, kModeConsoleAndFile);
}
