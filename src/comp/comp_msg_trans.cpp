#include "comp/comp_msg_trans.h"

#include "base/result_codes.h"
#include "comp/comp_log.h"
#include "comp/comp_msg.h"
#include "msg/process_msg_manager.h"
#include "securec.h"

namespace {

/// Copies data behind a head; nothing to copy is no failure.
bool CopyData(void* to, const void* from, uint32_t length) {
  if (length == 0) return true;
  const errno_t err = memcpy_s(to, length, from, length);
  if (err != EOK) COMP_LOG(kCompErr, "mcpy err:%d", err);
  return err == EOK;
}

}  // namespace

uint32_t TolaSendMsgToComp(uint16_t destination, tagMsgBuf* msg, bool urgent) {
  if (msg == nullptr) {
    COMP_LOG(kCompErr, "null msg");
    return kCompErrNull;
  }
  const uint32_t length = GetTolaMsgLen(msg);
  void* compMsg = TolaCompMsgAlloc(msg->source, msg->type, length);
  if (compMsg == nullptr) return kCompErrAlloc;
  if (urgent) TolaCompMsgPrioSet(compMsg, kTolaMsgPrioHigh);
  TolaCompMsgSetSeqNo(compMsg, msg->subType);
  if (!CopyData(compMsg, TolaMsgData(msg), length)) {
    TolaCompMsgFree(compMsg);
    return kErrCopy;
  }
  const uint32_t ret = TolaCompMsgSend(destination, compMsg);
  if (ret != 0) return ret & 0xFFFF;
  TOLA_MsgFree(msg);
  return kSuccess;
}

tagMsgBuf* TolaMsgAllocByCompMsg(const void* compMsg) {
  if (compMsg == nullptr) {
    COMP_LOG(kCompErr, "null msg");
    return nullptr;
  }
  const uint32_t length = TolaCompGetMsgLen(compMsg);
  const auto source = static_cast<uint16_t>(TolaCompGetSrcId(compMsg));
  const auto type = static_cast<uint16_t>(TolaCompGetMsgId(compMsg));
  tagMsgBuf* msg = TOLA_MsgAlloc(source, type, TolaCompMsgGetSeqNo(compMsg), length);
  if (msg == nullptr) {
    COMP_LOG(kCompErr, "MsgAlloc fail srcId:%#x, msgId:%#x, msgLen:%u", source, type, length);
    return nullptr;
  }
  msg->destination = static_cast<uint16_t>(TolaCompGetDstId(compMsg));
  if (!CopyData(TolaMsgData(msg), compMsg, length)) {
    TOLA_MsgFree(msg);
    return nullptr;
  }
  return msg;
}

uint32_t SendCompMsgToTola(uint32_t destination, void* compMsg) {
  const bool high = compMsg != nullptr && GetTolaCompMsgPrio(compMsg) == kTolaMsgPrioHigh;
  tagMsgBuf* msg = TolaMsgAllocByCompMsg(compMsg);
  TolaCompMsgFree(compMsg);
  if (msg == nullptr) return kFailure;
  const auto module = static_cast<uint16_t>(destination);
  bool taken = false;
  uint32_t ret = high ? MsgPost(module, msg, true, &taken) : kFailure;
  // A module that the high-priority object does not know is no failure of the post, yet nobody has the
  // message.
  if (!taken) ret = MsgPost(module, msg, false, &taken);
  if (ret != 0) {
    COMP_LOG(kCompErr, "0x%x send msg 0x%x to 0x%x fail:0x%x", msg->source, msg->type, destination, ret);
  }
  if (!taken) TOLA_MsgFree(msg);
  return ret;
}
