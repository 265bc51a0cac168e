#include "comp/comp_manager.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>

#include "base/result_codes.h"
#include "comp/comp_log.h"
#include "comp/comp_manager_impl.h"
#include "comp/comp_msg_trans.h"
#include "securec.h"

namespace {

constexpr uint32_t kHaNone = 2;
constexpr uint32_t kCpiFlag = 0x80000000;
constexpr uint32_t kCpiHaFlag = 0x90000000;
constexpr uint32_t kSchPriorityMax = 13;
constexpr uint32_t kSchPriorityInstead = 7;
constexpr uint32_t kSchSixthFlag = 0x10000;

std::atomic<bool> g_haEnabled{false};
std::atomic<uint32_t> g_haDefaultState{kHaNone};
std::atomic<TolaCompIdAddNotifyFunc> g_idAddNotify{nullptr};

/// The name of a type, ended even where the record's is not.
struct TypeName {
  explicit TypeName(const TOLA_COMP_TYPE_S& type) { memcpy(text, type.name, sizeof(type.name)); }
  char text[sizeof(TOLA_COMP_TYPE_S::name) + 1] = {};
};

/// What a call answers that was given null.
uint32_t RefuseNull(const char* call) {
  COMP_LOG(kCompErr, "%s: null", call);
  return kFailure;
}

bool IsModuleAComponent(uint16_t moduleId) {
  return CompManagerImpl::GetInstance().IsComponent(moduleId);
}

void AppendLocalAddrs(const TOLA_COMP_REG_SET_S& set, TOLA_COMP_DST_PROC_S& local) {
  for (uint32_t t = 0; t < std::min(set.typeNum, kCompTypeMax); ++t) {
    const TOLA_COMP_TYPE_S& type = set.type[t];
    for (uint32_t i = 0; i < std::min(type.instNum, kCompInstMax) && local.addrNum < kCompAddrMax; ++i) {
      local.addr[local.addrNum++] = {type.inst[i].csi, type.typeId};
    }
  }
}

uint32_t AddLocal(CompManagerImpl& manager, const TOLA_COMP_DST_PROC_S& local) {
  TOLA_COMP_PROC_S proc{};
  memcpy(proc.ip, local.ip, sizeof(proc.ip));
  proc.procId = local.procId;
  uint32_t ret = manager.SetProcId(proc);
  const uint32_t count = std::min(local.addrNum, kCompAddrMax);
  for (uint32_t i = 0; i < count && ret == 0; ++i) {
    ret = manager.AddCompId(local.addr[i], TOLA_CompDefaultHaStateGet(), proc);
    const TolaCompIdAddNotifyFunc notify = g_idAddNotify.load(std::memory_order_acquire);
    if (ret == 0 && notify != nullptr) notify(local.addr[i].csi);
  }
  return ret;
}

/// Sets the instance's parameters and starts it.
uint32_t StartInstance(const TOLA_COMP_TYPE_S& type, const TOLA_COMP_INST_S& inst) {
  const TypeName name(type);
  if (inst.paraReg != nullptr) {
    const uint32_t ret = inst.paraReg(inst.csi) & 0xFFFF;
    if (ret != 0) {
      COMP_LOG(kCompErr, "Comp instance set Para failed type=%#x, name=%s, csi = %#x, ret=%#x", type.typeId,
               name.text, inst.csi, ret);
      return ret;
    }
  }
  const uint32_t ret = TolaCompKickOff(inst.csi);
  COMP_LOG(kCompInf, "Name:%s Type=%#x, csi=%#x, %s, ret=%#x", name.text, type.typeId, inst.csi,
           ret == 0 ? "Success" : "Fail", ret);
  return ret == 0 ? kSuccess : kFailure;
}

/// A hook of a type's start; null is success.
uint32_t RunHook(const TOLA_COMP_TYPE_S& type, uint32_t (*hook)()) {
  if (hook == nullptr) return kSuccess;
  const uint32_t ret = hook() & 0xFFFF;
  if (ret != 0) {
    COMP_LOG(kCompErr, "Comp type start up failed type=%#x, name=%s, ret=%#x", type.typeId,
             TypeName(type).text, ret);
  }
  return ret;
}

}  // namespace

TolaCompLogFunc g_compLog = nullptr;

void TolaCompRegLogFuc(TolaCompLogFunc log) {
  __atomic_store_n(&g_compLog, log, __ATOMIC_RELEASE);
}

void TolaCompRegIdAddNotify(TolaCompIdAddNotifyFunc notify) {
  g_idAddNotify.store(notify, std::memory_order_release);
}

uint32_t TolaOsCompFrameInit(const TOLA_COMP_REG_BLOCK_S* block) {
  if (block == nullptr) return RefuseNull(__func__);
  TOLA_COMP_DST_PROC_S local{};
  memcpy(local.ip, block->product.local.ip, sizeof(local.ip));
  local.procId = block->product.local.procId;
  AppendLocalAddrs(block->platform, local);
  AppendLocalAddrs(block->product, local);

  const std::unique_ptr<TOLA_COMP_DST_PROC_S[]> dst(new (std::nothrow) TOLA_COMP_DST_PROC_S[kCompDstMax]);
  if (dst == nullptr) {
    COMP_LOG(kCompErr, "nomem");
    return kFailure;
  }
  uint32_t dstNum = 0;
  for (const TOLA_COMP_REG_SET_S* set : {&block->product, &block->platform}) {
    for (uint32_t i = 0; i < std::min(set->dstNum, kCompDstMax) && dstNum < kCompDstMax; ++i) {
      dst[dstNum++] = set->dst[i];
    }
  }
  return TolaCompInit(&local, dstNum, dst.get());
}

void TolaOsRegAllComp(const TOLA_COMP_REG_BLOCK_S* block, uint32_t stage) {
  if (block == nullptr) return;
  TolaOsRegComps(&block->platform, stage);
  TolaOsRegComps(&block->product, stage);
}

void TolaOsRegComps(const TOLA_COMP_REG_SET_S* set, uint32_t stage) {
  if (set == nullptr) return;
  for (uint32_t i = 0; i < std::min(set->typeNum, kCompTypeMax); ++i) {
    if (set->type[i].stage != stage) continue;
    const uint32_t ret = TolaOsKickOffComps(&set->type[i]);
    COMP_LOG(kCompInf, "Comps kick result %#x", ret);
  }
}

uint32_t TolaOsKickOffComps(const TOLA_COMP_TYPE_S* type) {
  if (type == nullptr) return RefuseNull(__func__);
  uint32_t ret = RunHook(*type, type->beforeReg);
  if (ret != 0) return ret;
  ret = TolaCompReg(type);
  if (ret != 0) {
    COMP_LOG(kCompErr, "Comp type reg comp failed type=%#x, name=%s, ret=%#x", type->typeId,
             TypeName(*type).text, ret);
    return kFailure;
  }
  for (uint32_t i = 0; i < std::min(type->instNum, kCompInstMax); ++i) {
    ret = StartInstance(*type, type->inst[i]);
    if (ret != 0) return ret;
  }
  return RunHook(*type, type->afterStart);
}

uint32_t TolaCompInit(const TOLA_COMP_DST_PROC_S* local, uint32_t dstNum, const TOLA_COMP_DST_PROC_S* dst) {
  if (dstNum != 0 && dst == nullptr) {
    COMP_LOG(kCompErr, "dstNum[%d] but dstProc is null", dstNum);
    return kFailure;
  }
  if (local == nullptr) return RefuseNull(__func__);
  CompManagerImpl& manager = CompManagerImpl::GetInstance();
  if (manager.InitCompManagerImpl() != 0) return kFailure;
  TolaMsgSendToCompRegFun(IsModuleAComponent, TolaSendMsgToComp);
  if (local->procId == 0) {
    COMP_LOG(kCompErr, "invalid procId(%d)", local->procId);
    return kFailure;
  }
  uint32_t ret = AddLocal(manager, *local);
  if (ret != 0) return ret;
  for (uint32_t i = 0; i < std::min(dstNum, kCompDstMax); ++i) {
    ret = manager.AddDestProcId(dst[i]);
    if (ret != 0 && !IsCompHaEnable()) return ret;
  }
  return kSuccess;
}

uint32_t TolaCompReg(const TOLA_COMP_TYPE_S* type) {
  if (type == nullptr) return RefuseNull(__func__);
  RtfCompTypeInfo info{};
  errno_t err = strcpy_s(info.name, sizeof(info.name), type->name);
  if (err != EOK) {
    COMP_LOG(kCompErr, "strcpy_s name fail, err = %d", err);
    return kFailure;
  }
  err = strcpy_s(info.version, sizeof(info.version), type->version);
  if (err != EOK) {
    COMP_LOG(kCompErr, "strcpy_s ver fail, err = %d", err);
    return kFailure;
  }
  info.priority = type->priority;
  info.constructor = type->constructor;
  info.destructor = type->destructor;
  info.msgProc = type->msgProc;
  return CompManagerImpl::GetInstance().CompTypeRegister(type->typeId, info);
}

uint32_t TolaCompKickOff(uint32_t csi) {
  COMP_LOG(kCompTrace, "Enter");
  CompManagerImpl& manager = CompManagerImpl::GetInstance();
  uint32_t ret = manager.CreateComp(csi, MakeCompCpi(csi), nullptr);
  if (ret != 0) {
    COMP_LOG(kCompErr, "Create Comp fail[%#x]", ret);
    return ret;
  }
  COMP_LOG(kCompTrace, "EnableComp start");
  ret = manager.EnableComp(MakeCompCpi(csi));
  if (ret != 0) {
    COMP_LOG(kCompErr, "Enable Comp fail[%#x]", ret);
    return ret;
  }
  COMP_LOG(kCompTrace, "Exit");
  return kSuccess;
}

uint32_t TolaAddCompSch(const TOLA_COMP_SCH_S* sch) {
  if (sch == nullptr) return RefuseNull(__func__);
  RtfContainerAttrib attrib{};
  const errno_t err = strcpy_s(attrib.taskName, sizeof(attrib.taskName), sch->taskName);
  if (err != EOK) {
    COMP_LOG(kCompErr, "strcpy_s name fail, err = %d", err);
    return kFailure;
  }
  std::copy(std::begin(sch->settings), std::end(sch->settings), attrib.settings);
  std::copy(std::begin(sch->words), std::end(sch->words), attrib.words);
  if (attrib.settings[0] > kSchPriorityMax) attrib.settings[0] = kSchPriorityInstead;
  attrib.settings[5] |= kSchSixthFlag;
  return CompManagerImpl::GetInstance().CompSchInstRegister(attrib);
}

uint32_t AddIccCompSchAttr() {
  constexpr TOLA_COMP_SCH_S kSch = {.taskName = "INTER_CORE_COMM", .settings = {}, .words = {}};
  return TolaAddCompSch(&kSch);
}

uint32_t AddWifiCompSchAttr() {
  constexpr TOLA_COMP_SCH_S kSch = {.taskName = "WIFI_COMP", .settings = {}, .words = {}};
  return TolaAddCompSch(&kSch);
}

uint32_t TolaCompSetPara(uint32_t csi, void* para) {
  return CompManagerImpl::GetInstance().SaveCompPara(csi, para);
}

void* TolaCompGetPara(uint32_t csi) {
  return CompManagerImpl::GetInstance().GetCompPara(csi);
}

uint32_t TolaAddCompDstProcInfo(const TOLA_COMP_DST_PROC_S* dst) {
  return dst != nullptr ? CompManagerImpl::GetInstance().AddDestProcId(*dst) : RefuseNull(__func__);
}

uint32_t TolaAddCompDstProcInfoWithSecInfo(const TOLA_COMP_DST_PROC_S* dst, const void* secInfo) {
  if (secInfo != nullptr) {
    COMP_LOG(kCompErr, "no secured link: proc[%u] is not added", dst != nullptr ? dst->procId : 0);
    return kFailure;
  }
  return TolaAddCompDstProcInfo(dst);
}

uint32_t TolaDelCompDstProcInfo(const TOLA_COMP_PROC_S* dst) {
  return dst != nullptr ? CompManagerImpl::GetInstance().DelDestProcId(*dst) : RefuseNull(__func__);
}

uint32_t TolaCompGetLocalProcInfo(TOLA_COMP_PROC_S* local) {
  return local != nullptr ? CompManagerImpl::GetInstance().GetLocalProcInfo(*local) : RefuseNull(__func__);
}

uint32_t TolaOsGenProcId(uint32_t ip) {
  return 0x10000u | (ntohl(ip) & 0xFFFFu);
}

void TOLA_EnableCompHaState() {
  g_haEnabled = true;
}

bool IsCompHaEnable() {
  return g_haEnabled;
}

void TOLA_CompDefaultHaStateSet(uint32_t state) {
  g_haDefaultState = state;
}

uint32_t TOLA_CompDefaultHaStateGet() {
  return g_haDefaultState;
}

uint32_t GetDstDmsHaState(const char* localIp, const char* dstIp) {
  const uint32_t state = TOLA_CompDefaultHaStateGet();
  if (strcmp(localIp, dstIp) == 0 || state > 1) return state;
  return 1 - state;
}

uint32_t MakeCompCpi(uint32_t csi) {
  return csi | (IsCompHaEnable() && TOLA_CompDefaultHaStateGet() != kHaNone ? kCpiHaFlag : kCpiFlag);
}
