#include "comp/comp_msg.h"

#include "base/result_codes.h"
#include "comp/comp_log.h"
#include "comp/comp_manager_impl.h"
#include "comp/comp_msg_trans.h"
#include "securec.h"
#include "velto/dms.h"

namespace {

constexpr uint32_t kIdMask = 0x7FFFFFFF;    ///< ids without the runtime's address flag
constexpr uint32_t kHaIdMask = 0x0FFFFFFF;  ///< and without the HA flag
constexpr uint32_t kQueueLengthMax = 65536;
constexpr uint32_t kStreams = 2;

void* Allocated(void* msg, uint16_t messageId) {
  if (MsgMemStatisticBase* statistic = GetMsgMemStatisticInstance()) {
    statistic->OnAlloc(TolaCompGetSrcId(msg), TolaCompGetMsgLen(msg));  // the same id as when it leaves
  }
  DMS_MsgRecvIidSet(msg, messageId);
  return msg;
}

void CountOut(const void* msg) {
  if (MsgMemStatisticBase* statistic = GetMsgMemStatisticInstance()) {
    statistic->OnFree(TolaCompGetSrcId(msg), TolaCompGetMsgLen(msg));
  }
}

uint32_t RefuseNull() {
  COMP_LOG(kCompErr, "null msg");
  return kCompErrNull;
}

uint32_t SendToAddress(uint32_t address, uint32_t destination, void* msg) {
  const uint32_t sourceId = TolaCompGetSrcId(msg);  // the send consumes the message
  const uint32_t messageId = TolaCompGetMsgId(msg);
  CountOut(msg);
  const uint32_t ret = DMS_MsgSend(address, msg);
  if (ret != 0) {
    COMP_LOG(kCompErr, "0x%x send msg 0x%x to 0x%x fail:0x%x", sourceId, messageId, destination, ret);
    return ret;
  }
  COMP_LOG(kCompTrace, "Exit");
  return kSuccess;
}

}  // namespace

void* TolaCompMsgAlloc(uint32_t sourceId, uint16_t messageId, uint32_t length) {
  void* msg = DMS_MsgAlloc(sourceId, length);
  if (msg != nullptr) return Allocated(msg, messageId);
  COMP_LOG(kCompErr, "MsgAlloc fail srcId:%#x, msgId:%#x, msgLen:%u", sourceId, messageId, length);
  return nullptr;
}

void* TolaCompMsgFlowCtrlAlloc(uint32_t sourceId, uint32_t limit, uint16_t messageId, uint32_t length) {
  void* msg = DMS_MsgFlowCtrlAlloc(sourceId, limit, length);
  if (msg != nullptr) return Allocated(msg, messageId);
  COMP_LOG(kCompErr, "DMS_MsgFlowCtrlAlloc fail");
  return nullptr;
}

void TolaCompMsgFree(void* msg) {
  if (msg == nullptr) return;
  CountOut(msg);
  const uint32_t ret = DMS_MsgFree(TolaCompGetSrcId(msg), msg);
  if (ret != 0) COMP_LOG(kCompErr, "free error:%#x", ret);
}

void TolaCompMsgPrioSet(void* msg, TolaMsgPrio priority) {
  const uint32_t ret = DMS_MsgPrioSet(msg, static_cast<uint8_t>(priority));
  if (ret != 0) COMP_LOG(kCompErr, "Prio Set error:%#x", ret);
}

TolaMsgPrio GetTolaCompMsgPrio(const void* msg) {
  uint32_t priority = 0;
  const uint32_t ret = DMS_MsgQuePrioGet(msg, &priority);
  if (ret != 0) {
    COMP_LOG(kCompErr, "Prio Get error:%#x", ret);
    return kTolaMsgPrioNormal;
  }
  return static_cast<TolaMsgPrio>(priority);
}

void TolaCompMsgSetSeqNo(void* msg, uint16_t seqNo) {
  void* head = DMS_MsgReserveHeadGet(msg);
  if (head == nullptr) {
    COMP_LOG(kCompErr, "Get msg head err");
    return;
  }
  const errno_t err = memcpy_s(head, kDmsReservedHeadSize, &seqNo, sizeof(seqNo));
  if (err != EOK) COMP_LOG(kCompErr, "Set seq err:%d", err);
}

uint16_t TolaCompMsgGetSeqNo(const void* msg) {
  const void* head = DMS_MsgReserveHeadGet(const_cast<void*>(msg));  // only read
  if (head == nullptr) {
    COMP_LOG(kCompErr, "Get msg head err");
    return 0;
  }
  uint16_t seqNo = 0;
  if (memcpy_s(&seqNo, sizeof(seqNo), head, sizeof(seqNo)) != EOK) {
    COMP_LOG(kCompErr, "Get seq err");
    return 0;
  }
  return seqNo;
}

uint32_t TolaCompGetMsgId(const void* msg) {
  return msg != nullptr ? DMS_MsgRecvIidGet(msg) : 0;
}

uint32_t TolaCompGetMsgLen(const void* msg) {
  return msg != nullptr ? DMS_MsgLenGet(msg) : 0;
}

uint32_t TolaCompGetSrcId(const void* msg) {
  return msg != nullptr ? DMS_MsgSendCidGet(msg) & kIdMask : 0;
}

uint32_t TolaCompGetDstId(const void* msg) {
  return msg != nullptr ? DMS_MsgRecvCidGet(msg) & kIdMask : 0;
}

uint32_t TolaCompMsgSend(uint32_t destination, void* msg) {
  if (msg == nullptr) return RefuseNull();
  const uint32_t asked = IsCompHaEnable() ? destination & kHaIdMask : destination;
  if (!CompManagerImpl::GetInstance().IsComponent(asked)) return SendCompMsgToTola(destination, msg);
  return SendToAddress(MakeCompCpi(destination), destination, msg);
}

uint32_t TolaCompMsgSendToPeer(uint32_t address, void* msg) {
  return msg != nullptr ? SendToAddress(address, address, msg) : RefuseNull();
}

uint32_t TOLA_SetCompMaxMsgQueueLen(uint32_t csi, uint32_t length) {
  if (length == 0 || length > kQueueLengthMax) {
    COMP_LOG(kCompErr, "msglen err, ret = %#x", kCompErrQueueLength);
    return kCompErrQueueLength;
  }
  for (uint32_t stream = 0; stream < kStreams; ++stream) {
    const uint32_t ret = RTF_ScmCompStmMaxMsgNumSet(MakeCompCpi(csi), stream, 0, length);
    if (ret != 0) {
      COMP_LOG(kCompErr, "msglen err, ret = %#x", ret);
      return kCompErrQueueSet;
    }
  }
  return kSuccess;
}
