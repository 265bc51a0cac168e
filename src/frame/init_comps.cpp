#include "frame/init_comps.h"

#include <unistd.h>

#include <memory>

#include "base/result_codes.h"
#include "cms/root_ca.h"
#include "comp/comp_manager.h"
#include "drv/res_ctrl.h"
#include "frame/feature_identity.h"
#include "frame/init_ha_manager_comp.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "msg/ipc_manager.h"
#include "velto/kel_cfg.h"
#include "velto/kel_mem.h"
#include "verify/signature.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kStage = 0;

struct BlockDeleter {
  void operator()(TOLA_COMP_REG_BLOCK_S* block) const { KEL_MEM_FREE(block); }
};
using BlockPtr = std::unique_ptr<TOLA_COMP_REG_BLOCK_S, BlockDeleter>;

/// A zero-filled registration block, or null.
BlockPtr NewBlock() {
  uint32_t handle = 0;
  if (KEL_HandleInitialize("init_comps", &handle) != 0) return nullptr;
  void* memory = KEL_MEM_ALLOC(handle, sizeof(TOLA_COMP_REG_BLOCK_S));
  if (memory == nullptr) return nullptr;
  return BlockPtr(new (memory) TOLA_COMP_REG_BLOCK_S{});
}

void BringLoopbackUp() {
  // The outcome is not checked: an interface that stays down shows in the first message that cannot be sent.
  if (geteuid() != 0) {
    (void)TOLA_SystemSudoWithoutParam("ifconfig_lo_up.sh");
  } else {
    (void)TOLA_System("ifconfig lo up");
  }
}

void PrintDriverLog(const char* tag, const char* file, uint32_t line, const char* text) {
  TOLA_LogPrint(kLogModule, kLogErr, file, line, "%s: %s", tag, text);
}

/// Switches package verification on. The configuration may change the word that it is given, never whether it
/// is done, and no instance is enabled before a verifier stands.
uint32_t EnableVerification() {
  uint64_t enableInfo = 0;
  uint32_t result = KEL_CfgNumberGet("feature.signature_enable", &enableInfo);
  if (result != 0) return result;
  result = TolaEnableSignatureVerification(static_cast<uint32_t>(enableInfo));
  if (result != 0) {
    LOG_ERR(kLogModule, "enable signature verification err %#x", result);
    return result;
  }
  if (!TolaSignatureVerifierRegistered()) {
    LOG_ERR(kLogModule, "no signature verifier");
    return kFailure;
  }
  if (UsesDevelopmentRoots())
    LOG_EVT(kLogModule, "development root certificates: not for a device in the field");
  return kSuccess;
}

}  // namespace

uint32_t TolaOsCompManagerInit() {
  TolaCompRegLogFuc(TOLA_LogPrint);
  // What cannot be announced now is announced again by the IPC manager itself.
  TolaCompRegIdAddNotify([](uint32_t csi) { (void)TolaFeatureAppCompIDAddNotify(csi); });
  DrvSetLogFunc(PrintDriverLog);
  const BlockPtr block = NewBlock();
  if (block == nullptr) {
    LOG_ERR(kLogModule, "nomem");
    return kFailure;
  }
  uint32_t result = TOLA_OsRegProductCompInitInfo(block.get());
  if (result != 0) {
    LOG_ERR(kLogModule, "RegErr:%#x", result);
    return kFailure;
  }
  FlushLocalProcStaticInfo(block.get());
  TolaOsUpdateDstProcInfo(block.get());
  if (g_featureIdentity.addComponents != nullptr && g_featureIdentity.addComponents(block.get()) != 0) {
    return kFailure;
  }
  BringLoopbackUp();
  result = EnableVerification();
  if (result != 0) return result;
  result = TolaOsCompFrameInit(block.get());
  if (result != 0) return result;
  TolaOsRegAllComp(block.get(), kStage);
  return kSuccess;
}
