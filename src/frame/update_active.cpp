/// What makes a process of the frame the one that activates updates: its name, its platform module and the
/// script executor.

#include "base/result_codes.h"
#include "comp/comp_manager.h"
#include "frame/feature_identity.h"
#include "securec.h"
#include "update/scritp_execuotr_comp.h"

namespace {

constexpr uint16_t kModuleId = 1056;
constexpr uint32_t kTypePriority = 1;

/// The script executor's record, the platform set's only one.
uint32_t AddScriptExecutor(TOLA_COMP_REG_BLOCK_S* block) {
  TOLA_COMP_TYPE_S& type = block->platform.type[0];
  if (strcpy_s(type.name, sizeof(type.name), kScriptExeCompName) != EOK) return kFailure;
  if (strcpy_s(type.version, sizeof(type.version), kScriptExeCompVersion) != EOK) return kFailure;
  type.typeId = kScriptExeCompId;
  type.priority = kTypePriority;
  type.constructor = TOLA_ScriptExeCompConstructor;
  type.destructor = TOLA_ScriptExeCompDestructor;
  type.msgProc = TOLA_ScriptExeCompMsgProc;
  type.instNum = 1;
  type.inst[0].csi = kScriptExeCompId;
  block->platform.typeNum = 1;
  return kSuccess;
}

}  // namespace

const FeatureIdentity g_featureIdentity = {"update_active", kModuleId, AddScriptExecutor};
