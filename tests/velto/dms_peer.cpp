// A component process for dms_test: dms_peer CONFIGURATION PROCESS_ID. Says "enabled RESULT" when its
// instance is enabled, and serves until its standard input ends.
#include "velto/dms_peer.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "velto/dms.h"
#include "velto/kel_cfg.h"
#include "velto/kel_mem.h"
#include "velto/rtf.h"

namespace {

void Say(const char* text, uint32_t number) {
  (void)printf("%s %u\n", text, number);
  (void)fflush(stdout);
}

void Answer(void* request, const void* data, uint32_t length) {
  void* answer = DMS_MsgAlloc(kPeerCsi, length);
  if (answer == nullptr) return;
  if (length != 0) memcpy(answer, data, length);
  memcpy(DMS_MsgReserveHeadGet(answer), DMS_MsgReserveHeadGet(request), kDmsReservedHeadSize);
  DMS_MsgRecvIidSet(answer, DMS_MsgRecvIidGet(request) + 100);
  uint32_t priority = 0;
  if (DMS_MsgQuePrioGet(request, &priority) == 0) {
    (void)DMS_MsgPrioSet(answer, static_cast<uint8_t>(priority));
  }
  const uint32_t sent = DMS_MsgSend(CpiOf(DMS_MsgSendCidGet(request)), answer);
  if (sent != 0) Say("answer refused", sent);
}

void Entry(void* message) {
  switch (DMS_MsgRecvIidGet(message)) {
    case kEcho:
      return Answer(message, message, DMS_MsgLenGet(message));
    case kCount: {
      uint32_t handle = 0;
      uint64_t bytes = 0;
      uint64_t count = 0;
      if (KEL_HandleInitialize("dms", &handle) == 0 && KEL_HandleUseGet(handle, &bytes, &count) == 0) {
        Answer(message, &count, sizeof(count));
      }
      return;
    }
    default:
      return;
  }
}

uint32_t Build(uint32_t csi) {
  const RtfCompInst instance{csi, CpiOf(csi)};
  for (uint32_t stage = 0; stage < 3; ++stage) {
    const uint32_t result = RTF_CompInstCreate(stage, 1, &instance);
    if (result != 0) return result;
  }
  return RTF_ScmCompStmMaxMsgNumSet(instance.cpi, 0, 0, kPeerQueueLength);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const uint32_t processId = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
  const RtfCompTypeInfo type{"PEER", "1.0.0", 1, nullptr, nullptr, Entry};
  if (KEL_CfgdbInitByFsldr(argv[1]) != 0 || KEL_Start(nullptr) != 0 || KEL_SysProcIdSet(processId) != 0 ||
      DMS_MeshCamProcAddrItemAdd(kPeerIp, processId) != 0 ||
      DMS_CamMeshOtherProcAddrItemAdd(kPeerIp, kTestProcess) != 0 ||
      DMS_CompAddrTableItemAdd(kTestCsi, 1, kPeerIp, kTestProcess) != 0 ||
      RTF_CompTypeRegister(1, &type) != 0 || Build(kPeerCsi) != 0 || Build(kPeerDisabledCsi) != 0) {
    return 2;
  }
  const uint32_t enabled = RTF_CompInstSchEnable(CpiOf(kPeerCsi), 1);
  Say("enabled", enabled);
  if (enabled != 0) return 3;
  while (getchar() != EOF) continue;
  _Exit(0);  // the tasks still run
}
