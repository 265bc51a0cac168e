#include "board_main/requester_comp.h"

#include "comp/comp_manager.h"
#include "comp/comp_msg.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/exe_script_proxy.h"
#include "update/script_exe_ids.h"

namespace board_main {
namespace {

constexpr char kLoopback[] = "127.0.0.1";
constexpr uint32_t kMainProcId = 100;
constexpr uint32_t kExecutorProcId = 104;

uint32_t Construct(uint32_t /*stage*/) {
  return 0;
}
uint32_t Destruct() {
  return 0;
}

/// The entries log what they refuse; the sender is not waiting for their result.
void ProcMsg(void* msg) {
  const auto* data = static_cast<const uint8_t*>(msg);
  switch (TolaCompGetMsgId(msg)) {
    case kMsgExeUpdateScriptAck:
      (void)ProcUpdateExeScriptReplyMsg(data, TolaCompGetMsgLen(msg), TolaCompMsgGetSeqNo(msg));
      break;
    case kMsgUpdateAuth:
      (void)ProcUpdateAuthReqMsg(data, TolaCompGetMsgLen(msg), TolaCompMsgGetSeqNo(msg));
      break;
    default:
      LOG_ERR(kRequesterCompId, "unknown message %#x from %#x", TolaCompGetMsgId(msg), TolaCompGetSrcId(msg));
      break;
  }
}

TOLA_COMP_DST_PROC_S ProcessOf(uint32_t procId, uint32_t compId) {
  TOLA_COMP_DST_PROC_S process = {};
  (void)strcpy_s(process.ip, sizeof(process.ip), kLoopback);  // 9 characters into 16
  process.procId = procId;
  process.addrNum = 1;
  process.addr[0] = {compId, compId};
  return process;
}

}  // namespace

uint32_t StartRequesterComp() {
  TolaCompRegLogFuc(TOLA_LogPrint);
  const TOLA_COMP_DST_PROC_S local = ProcessOf(kMainProcId, kRequesterCompId);
  const TOLA_COMP_DST_PROC_S executor = ProcessOf(kExecutorProcId, kScriptExeCompId);
  const uint32_t result = TolaCompInit(&local, 1, &executor);
  if (result != 0) return result;

  TOLA_COMP_TYPE_S type = {};
  (void)strcpy_s(type.name, sizeof(type.name), "UPDATE_REQUESTER");  // 16 characters into 24
  (void)strcpy_s(type.version, sizeof(type.version), "1.0.0");
  type.typeId = kRequesterCompId;
  type.priority = 1;
  type.constructor = Construct;
  type.destructor = Destruct;
  type.msgProc = ProcMsg;
  type.instNum = 1;
  type.inst[0].csi = kRequesterCompId;
  return TolaOsKickOffComps(&type);
}

}  // namespace board_main
