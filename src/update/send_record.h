/// Sending one of the exchange's records as a component message; both sides of the exchange do it alike.
#pragma once

#include <stdint.h>

#include "comp/comp_msg.h"
#include "update/script_exe_ids.h"

/// @retval kExeErrMsgAlloc, kExeErrSerialize, or the result of TolaCompMsgSend
template <class Record>
[[nodiscard]] uint32_t SendRecord(uint32_t source, uint32_t destination, uint16_t messageId, uint16_t seqNo,
                                  const Record& record) {
  const uint32_t length = record.GetMsgLength();
  void* msg = TolaCompMsgAlloc(source, messageId, length);
  if (msg == nullptr) return kExeErrMsgAlloc;
  TolaCompMsgSetSeqNo(msg, seqNo);
  if (record.SerializeToMsg(static_cast<unsigned char*>(msg), length) != 0) {
    TolaCompMsgFree(msg);
    return kExeErrSerialize;
  }
  return TolaCompMsgSend(destination, msg);
}
