#include "frame/platform_init_stages.h"

#include "base/result_codes.h"
#include "fault/fault_public.h"
#include "fault/feature_fault_manager.h"
#include "frame/feature_identity.h"
#include "log/run_log.h"
#include "msg/heart_beat_manager.h"
#include "msg/ipc_manager.h"
#include "msg/mcl_manager.h"
#include "msg/msg_interface_public.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr char kMsgSource[] = "function_msg";

constexpr char kVersion[] = "1.0.0";
constexpr uint32_t kHeartBeatIntervalMs = 10000;
constexpr uint32_t kSuperviseTimeoutS = 120;
constexpr uint16_t kSupervisedTasks = 16;
constexpr uint32_t kLeakBlocks = 800;
constexpr uint32_t kLeakSeconds = 600;

/// Where records of faults of this process go: "/log/root_log/<name><suffix>".
struct RecordPath {
  explicit RecordPath(const char* suffix) {
    isComplete = snprintf_s(text, sizeof(text), sizeof(text) - 1, "/log/root_log/%s%s",
                            g_featureIdentity.name, suffix) > 0;
  }
  char text[kFaultPathSize] = {};
  bool isComplete = false;
};

}  // namespace

uint32_t TolaOsMsgInit() {
  const uint32_t result = TOLA_MsgManagerInit();
  TOLA_LogPrint(kLogModule, kLogEvt, kMsgSource, __LINE__, "msg init %#x", result);
  return result;
}

uint32_t TolaOsFeatureIpcIpcMgrInitInit() {
  static const TOLA_APP_MODULE_INFO_S module = {g_featureIdentity.moduleId};
  TOLA_APP_REG_INFO_S info = {};
  if (strcpy_s(info.name, sizeof(info.name), g_featureIdentity.name) != EOK) return kErrTextCopy;
  if (strcpy_s(info.version, sizeof(info.version), kVersion) != EOK) return kErrTextCopy;
  info.module = &module;
  info.heartBeatIntervalMs = kHeartBeatIntervalMs;
  info.superviseTimeoutS = kSuperviseTimeoutS;
  info.supervise = 1;
  info.appArmRestart = 0;
  return TolaFeatureIpcMgrInit(&info);
}

uint32_t TolaOsTaskHeartBeatManagerInit() {
  return TOLA_HeartBeatManagerInit(kSupervisedTasks);
}

uint32_t TolaOsFaultManagerInit() {
  CFeatureFaultManager* manager = TolaGetFaultMgr();
  if (manager == nullptr) return kFailure;
  const RecordPath damage("_mem_damage_fault.tola");
  const RecordPath leak("_memleak_info.tola");
  if (!damage.isComplete || !leak.isComplete) return kErrTextFormat;
  // Detection helps to find a fault; a process without it does its work all the same.
  (void)TOLA_SetMemDamageRecordPath(damage.text);
  (void)TOLA_EnableMemDamageForLinux();
  (void)TOLA_SetMemLeakRecordPath(leak.text);
  (void)TOLA_EnableMemLeakForLinux(kLeakBlocks, kLeakSeconds, leak.text, 0);
  TOLA_FAULT_MGR_CFG_S cfg = {};
  cfg.moduleId = g_featureIdentity.moduleId;
  return manager->Init(&cfg);
}

uint32_t TolaOsNotifyMclInitEnd() {
  TOLA_NotifyMclInitEnd();
  return kSuccess;
}
