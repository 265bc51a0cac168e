/// Components for tests: the real runtime with its sockets in a directory of the test, instances that record
/// what they get, the lines of the component layer, and a look at what messages are still alive.
#pragma once

#include <gmock/gmock.h>
#include <stdarg.h>

#include <algorithm>
#include <string>
#include <vector>

#include "comp/comp_manager.h"
#include "comp/comp_manager_impl.h"
#include "comp/comp_msg.h"
#include "msg/msg_interface_public.h"
#include "support/inbox.h"
#include "support/platform_msg.h"

namespace comp_test {

inline constexpr char kIp[] = "127.0.0.1";
inline constexpr uint32_t kProcId = 104;

/// What an instance was given.
struct Got {
  uint32_t destination;
  uint32_t source;
  uint32_t id;
  uint16_t seqNo;
  TolaMsgPrio priority;
  std::string data;
};

inline support::Inbox<Got>& Arrived() {
  return support::TheInbox<Got>();
}
inline support::Inbox<std::string>& Logged() {
  return support::TheInbox<std::string>();
}

/// Error lines (level 4) and the start of types (level 5), "source: text"; traces are left out.
__attribute__((format(printf, 5, 6))) inline void LogLine(uint16_t moduleId, uint32_t level, const char* file,
                                                          uint32_t, const char* fmt, ...) {
  if (level < 4) return;
  char text[256];
  va_list args;
  va_start(args, fmt);
  (void)vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  Logged().Put((moduleId == kCompLogModule ? "" : "wrong module: ") + std::string(file) + ": " + text);
}

inline void Record(void* msg) {
  Arrived().Put({TolaCompGetDstId(msg), TolaCompGetSrcId(msg), TolaCompGetMsgId(msg),
                 TolaCompMsgGetSeqNo(msg), GetTolaCompMsgPrio(msg),
                 std::string(static_cast<char*>(msg), TolaCompGetMsgLen(msg))});
}

inline TOLA_COMP_TYPE_S Type(const char* name, uint32_t id, RtfCompMsgProc proc) {
  TOLA_COMP_TYPE_S type{};
  (void)snprintf(type.name, sizeof(type.name), "%s", name);
  (void)snprintf(type.version, sizeof(type.version), "1.0.0");
  type.typeId = id;
  type.priority = 1;
  type.msgProc = proc;
  type.instNum = 1;
  type.inst[0].csi = id;
  return type;
}

inline void* NewMsg(uint32_t source, uint16_t id, uint16_t seqNo, const std::string& data) {
  void* msg = TolaCompMsgAlloc(source, id, static_cast<uint32_t>(data.size()));
  if (msg == nullptr) abort();
  std::copy(data.begin(), data.end(), static_cast<char*>(msg));
  TolaCompMsgSetSeqNo(msg, seqNo);
  return msg;
}

inline TOLA_COMP_DST_PROC_S Process(uint32_t procId, const std::vector<uint32_t>& csis,
                                    const char* ip = kIp) {
  TOLA_COMP_DST_PROC_S proc{};
  (void)snprintf(proc.ip, sizeof(proc.ip), "%s", ip);
  proc.procId = procId;
  for (const uint32_t csi : csis) proc.addr[proc.addrNum++] = {csi, csi};
  return proc;
}

inline TOLA_COMP_PROC_S Address(uint32_t procId) {
  TOLA_COMP_PROC_S proc{};
  (void)snprintf(proc.ip, sizeof(proc.ip), "%s", kIp);
  proc.procId = procId;
  return proc;
}

/// The layer is initialised; at the end its instances and types are gone, and no message of either kind is
/// left.
class CompTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TolaCompRegLogFuc(LogLine);
    (void)Logged().TakeAll();
    const TOLA_COMP_DST_PROC_S local = Process(kProcId, {});
    ASSERT_EQ(TolaCompInit(&local, 0, nullptr), 0u);
    compMessages_ = support::Live("dms");
    platformMessages_ = support::Live("msg manager");
  }
  void TearDown() override {
    CompManagerImpl& manager = CompManagerImpl::GetInstance();
    for (const TOLA_COMP_TYPE_S& type : types_) {
      // A test may have spoilt a type on purpose, so that there is nothing to end.
      for (uint32_t i = 0; i < std::min(type.instNum, kCompInstMax); ++i) {
        if (manager.CompDestroy(type.inst[i].csi) != 0) (void)manager.RmvCompInfo(type.inst[i].csi);
      }
      (void)manager.DeleteCompType(type.typeId);
    }
    EXPECT_EQ(support::Live("msg manager"), platformMessages_) << "a platform message was lost";
    EXPECT_EQ(support::Live("dms"), compMessages_) << "a component message was lost";
  }

  /// Makes the type's instances known here and starts them. @return the start's result
  uint32_t Start(const TOLA_COMP_TYPE_S& type) {
    TOLA_COMP_DST_PROC_S local = Process(kProcId, {});
    for (uint32_t i = 0; i < type.instNum; ++i) local.addr[local.addrNum++] = {type.inst[i].csi, type.typeId};
    EXPECT_EQ(TolaCompInit(&local, 0, nullptr), 0u);
    types_.push_back(type);
    return TolaOsKickOffComps(&type);
  }

  std::vector<TOLA_COMP_TYPE_S> types_;  ///< started by the test

 private:
  uint64_t compMessages_ = 0;
  uint64_t platformMessages_ = 0;
};

}  // namespace comp_test
