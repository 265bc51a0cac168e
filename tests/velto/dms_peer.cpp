// A component process for dms_test: dms_peer CONFIGURATION PROCESS_ID. Says the result of enabling its
// instance and its pid, and serves until it is killed, or the test ends.
#include "velto/dms_peer.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "velto/dms.h"
#include "velto/kel_cfg.h"
#include "velto/kel_mem.h"

namespace {

constexpr uint32_t kQueueLength = 4;

void Entry(void* request) {
  const uint32_t id = DMS_MsgRecvIidGet(request);
  const void* data = request;
  uint32_t length = DMS_MsgLenGet(request), handle = 0, priority = 0;
  uint64_t bytes = 0, count = 0;
  if (id == kCount) {
    if (KEL_HandleInitialize("dms", &handle) != 0 || KEL_HandleUseGet(handle, &bytes, &count) != 0) return;
    data = &count;
    length = sizeof(count);
  }
  void* answer = DMS_MsgAlloc(kPeerCsi, length);
  if (answer == nullptr) return;
  memcpy(answer, data, length);
  memcpy(DMS_MsgReserveHeadGet(answer), DMS_MsgReserveHeadGet(request), kDmsReservedHeadSize);
  DMS_MsgRecvIidSet(answer, id + 100);
  if (DMS_MsgQuePrioGet(request, &priority) != 0 ||
      DMS_MsgPrioSet(answer, static_cast<uint8_t>(priority)) != 0 ||
      DMS_MsgSend(CpiOf(DMS_MsgSendCidGet(request)), answer) != 0) {
    fputs("dms_peer: no answer\n", stderr);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return 2;
  const uint32_t processId = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
  if (KEL_CfgdbInitByFsldr(argv[1]) != 0 || KEL_Start(nullptr) != 0 || KEL_SysProcIdSet(processId) != 0 ||
      DMS_MeshCamProcAddrItemAdd(kPeerIp, processId) != 0 ||
      DMS_CamMeshOtherProcAddrItemAdd(kPeerIp, kTestProcess) != 0 ||
      DMS_CompAddrTableItemAdd(kTestCsi, 1, kPeerIp, kTestProcess) != 0 ||
      BuildComponent(kPeerCsi, Entry, kQueueLength) != 0 ||
      BuildComponent(kPeerDisabledCsi, Entry, kQueueLength) != 0) {
    return 2;
  }
  const uint32_t enabled = RTF_CompInstSchEnable(CpiOf(kPeerCsi), 1);
  printf("%u %d\n", enabled, getpid());
  (void)fflush(stdout);
  while (enabled == 0) pause();
  return 3;
}
