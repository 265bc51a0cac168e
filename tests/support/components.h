/// Components of a test's own process on the real runtime, with its sockets in a directory of the test: what
/// they are given is kept for the test to look at.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "comp/comp_manager.h"
#include "comp/comp_msg.h"
#include "msg/msg_interface_public.h"
#include "securec.h"
#include "support/inbox.h"
#include "support/temp_dir.h"
#include "velto/kel_cfg.h"

namespace support {

/// What a component was given.
struct CompMsg {
  uint32_t destination = 0;
  uint32_t source = 0;
  uint32_t id = 0;
  uint16_t seqNo = 0;
  TolaMsgPrio priority = kTolaMsgPrioNormal;
  std::string data;
};

/// Where the entry Keep<kId> puts what it is given.
template <uint32_t kId = 0>
Inbox<CompMsg>& Arrived() {
  return TheInbox<CompMsg, kId>();
}
template <uint32_t kId = 0>
void Keep(void* msg) {
  Arrived<kId>().Put({TolaCompGetDstId(msg), TolaCompGetSrcId(msg), TolaCompGetMsgId(msg),
                      TolaCompMsgGetSeqNo(msg), GetTolaCompMsgPrio(msg),
                      std::string(static_cast<char*>(msg), TolaCompGetMsgLen(msg))});
}

/// A component type with one instance, both of this id.
inline TOLA_COMP_TYPE_S CompType(uint32_t id, RtfCompMsgProc entry, const std::string& name = "COMP") {
  TOLA_COMP_TYPE_S type{};
  (void)strcpy_s(type.name, sizeof(type.name), name.c_str());
  type.typeId = id;
  type.priority = 1;
  type.msgProc = entry;
  type.instNum = 1;
  type.inst[0].csi = id;
  return type;
}

inline void* NewCompMsg(uint32_t source, uint16_t id, uint16_t seqNo, std::string_view data) {
  void* msg = TolaCompMsgAlloc(source, id, static_cast<uint32_t>(data.size()));
  if (msg == nullptr) abort();
  std::copy(data.begin(), data.end(), static_cast<char*>(msg));
  TolaCompMsgSetSeqNo(msg, seqNo);
  return msg;
}

/// Starts the runtime and the message manager, once a process.
inline void StartRuntime() {
  static const TempDir sockets;
  static const std::string cfg = sockets.Write("feature.cfg", "dms.dir=" + sockets.File("dms") + "\n");
  static const bool started =
      KEL_CfgdbInitByFsldr(cfg.c_str()) == 0 && KEL_Start(nullptr) == 0 && TOLA_MsgManagerInit() == 0;
  ASSERT_TRUE(started);
}

}  // namespace support
