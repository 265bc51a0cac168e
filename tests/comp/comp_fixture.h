/// Components for tests: instances that keep what they get, the lines of the component layer, and a look at
/// what messages are still alive.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "comp/comp_manager.h"
#include "comp/comp_manager_impl.h"
#include "comp/comp_msg.h"
#include "support/components.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"

namespace comp_test {

using support::Arrived;
using support::CompType;
using support::NewCompMsg;

inline constexpr char kIp[] = "127.0.0.1";
inline constexpr uint32_t kProcId = 104;

inline TOLA_COMP_PROC_S Address(uint32_t procId) {
  return {"127.0.0.1", procId};
}

inline TOLA_COMP_DST_PROC_S Process(uint32_t procId, const std::vector<uint32_t>& csis,
                                    const char* ip = kIp) {
  TOLA_COMP_DST_PROC_S proc{};
  (void)strcpy_s(proc.ip, sizeof(proc.ip), ip);
  proc.procId = procId;
  for (const uint32_t csi : csis) proc.addr[proc.addrNum++] = {csi, csi};
  return proc;
}

/// The layer is initialised; at the end its instances and types are gone, and no message of either kind is
/// left.
class CompTest : public ::testing::Test {
 protected:
  void SetUp() override {
    support::StartRuntime();
    TolaCompRegLogFuc(TOLA_LogPrint);
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
  uint32_t Start(uint32_t csi) { return Start(CompType(csi, support::Keep)); }

  std::vector<TOLA_COMP_TYPE_S> types_;  ///< started by the test
  support::LogCapture log_{kLogErr};

 private:
  uint64_t compMessages_ = 0;
  uint64_t platformMessages_ = 0;
};

}  // namespace comp_test
