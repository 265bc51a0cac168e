#include "frame/init_ha_manager_comp.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <string>

#include "base/result_codes.h"
#include "frame/public_file_cfg.h"
#include "log/run_log.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr char kProductSource[] = "main";
constexpr char kDefaultIp[] = "127.0.0.1";
constexpr uint32_t kLocalProcId = 104;
constexpr uint32_t kRequesterCompId = 4150;

uint32_t DstCount(const TOLA_COMP_REG_SET_S& set) {
  return std::min(set.dstNum, kCompDstMax);
}

bool WriteIpText(uint32_t ip, char (&text)[kCompIpSize]) {
  const in_addr address = {ip};
  return inet_ntop(AF_INET, &address, text, sizeof(text)) != nullptr;
}

void StoreIsUsed(uint16_t flag) {
  if (StoreHAIpEnableInfo(flag) != 0) LOG_ERR(kLogModule, "StoreHAInfo fail");
}

/// Whether the pairing's local address is this process's from now on.
bool LocalIpIsUsed(const HaInitInfo& info, bool isDynamic) {
  if (!isDynamic) {
    uint16_t flag = 0;
    (void)GetHAIpEnableInfo(&flag);  // a missing file says no
    if (flag == 0) LOG_EVT(kLogModule, "isUesdLocalIp is false");
    return flag != 0;
  }
  const bool used = info.haSwitch != 0;
  LOG_EVT(kLogModule, "isUesdLocalIp is %s", used ? "true" : "false");
  StoreIsUsed(used ? 1 : 0);
  return used;
}

}  // namespace

uint32_t TOLA_OsRegDynCompProcInfo(uint32_t* processId) {
  *processId = kCompDynProcId;
  return kSuccess;
}

uint32_t TOLA_OsRegProductCompInitInfo(TOLA_COMP_REG_BLOCK_S* block) {
  std::string localIp = kDefaultIp;
  std::string destIp = kDefaultIp;
  GetCompIpFromXml(localIp, destIp);

  TOLA_COMP_REG_SET_S& set = block->product;
  if (strcpy_s(set.local.ip, sizeof(set.local.ip), localIp.c_str()) != EOK) return kFailure;
  set.local.procId = kLocalProcId;

  TOLA_COMP_DST_PROC_S& requester = set.dst[0];
  if (strcpy_s(requester.ip, sizeof(requester.ip), destIp.c_str()) != EOK) return kFailure;
  requester.procId = kCompDynProcId;
  requester.addrNum = 1;
  requester.addr[0] = {kRequesterCompId, kRequesterCompId};
  set.dstNum = 1;
  TOLA_LogPrint(kLogModule, 5, kProductSource, __LINE__, "local ip:%s, dest ip:%s", localIp.c_str(),
                destIp.c_str());
  return kSuccess;
}

void FlushLocalProcStaticInfo(TOLA_COMP_REG_BLOCK_S* block) {
  HaInitInfo info = {};
  (void)GetHaInfo(&info);  // without the file there is no pairing
  if (info.localIp == 0) return;
  TOLA_COMP_REG_SET_S& set = block->product;
  if (!LocalIpIsUsed(info, set.local.procId == kCompDynProcId)) return;

  (void)WriteIpText(info.localIp, set.local.ip);  // dotted IPv4 text always fits 16 bytes
  for (uint32_t i = 0; i < DstCount(set); ++i) (void)WriteIpText(info.localIp, set.dst[i].ip);
  TOLA_EnableCompHaState();
  TOLA_CompDefaultHaStateSet(info.defaultState);
}

void TolaOsUpdateDstProcInfo(TOLA_COMP_REG_BLOCK_S* block) {
  uint32_t marker = 0;
  if (TOLA_OsRegDynCompProcInfo(&marker) != 0 || marker == 0) return;
  HaInitInfo info = {};
  (void)GetHaInfo(&info);
  uint16_t isUsed = 0;
  (void)GetHAIpEnableInfo(&isUsed);
  LOG_EVT(kLogModule, "initInfo localip:%u, dstip:%u, haswitch:%u, defaultstate:%u, isUsed:%u", info.localIp,
          info.destIp, info.haSwitch, info.defaultState, isUsed);
  TOLA_COMP_REG_SET_S& set = block->product;
  if (info.localIp == 0 || isUsed == 0) return;
  for (uint32_t i = 0; i < DstCount(set); ++i) {
    if (set.dst[i].procId == marker) set.dst[i].procId = TolaOsGenProcId(info.localIp);
    (void)WriteIpText(info.localIp, set.dst[i].ip);
  }
}
