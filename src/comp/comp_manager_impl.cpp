#include "comp/comp_manager_impl.h"

#include <string.h>

#include <new>

#include "base/result_codes.h"
#include "comp/comp_log.h"
#include "velto/dms.h"
#include "velto/kel_sync.h"

namespace {

constexpr uint32_t kCreateStages = 3;

/// Holds a platform reader-writer lock for reading or writing; false when there is no such lock.
template <auto Lock, auto Unlock>
class RwGuard {
 public:
  explicit RwGuard(uint32_t lockId) : lockId_(lockId), held_(Lock(lockId, KEL_WAIT_FOREVER) == 0) {
    if (!held_) COMP_LOG(kCompErr, "rwlock[%u] fail", lockId_);
  }
  ~RwGuard() {
    if (held_) (void)Unlock(lockId_);  // fails only for a lock that is gone
  }
  RwGuard(const RwGuard&) = delete;
  RwGuard& operator=(const RwGuard&) = delete;
  [[nodiscard]] explicit operator bool() const { return held_; }

 private:
  uint32_t lockId_;
  bool held_;
};
using ReadGuard = RwGuard<KEL_RWLockRLock, KEL_RWLockRUnlock>;
using WriteGuard = RwGuard<KEL_RWLockWLock, KEL_RWLockWUnlock>;

bool HasEnd(const char (&ip)[kCompIpSize]) {
  if (memchr(ip, '\0', kCompIpSize) != nullptr) return true;
  COMP_LOG(kCompErr, "proc ip without end");
  return false;
}

bool Same(const TOLA_COMP_PROC_S& a, const TOLA_COMP_PROC_S& b) {
  return a.procId == b.procId && strcmp(a.ip, b.ip) == 0;
}

TOLA_COMP_PROC_S ProcOf(const TOLA_COMP_DST_PROC_S& dst) {
  TOLA_COMP_PROC_S proc{};
  static_assert(sizeof(proc.ip) == sizeof(dst.ip));
  memcpy(proc.ip, dst.ip, sizeof(proc.ip));
  proc.procId = dst.procId;
  return proc;
}

}  // namespace

CompManagerImpl& CompManagerImpl::GetInstance() {
  static base::NeverDestroyed<CompManagerImpl> instance;
  return *instance;
}

uint32_t CompManagerImpl::InitCompManagerImpl() {
  const std::lock_guard lock(initMutex_);
  if (addrLock_ != 0) return kSuccess;
  uint32_t addrLock = 0;
  uint32_t paraLock = 0;
  if (KEL_RWLockCreate("CompAddr", &addrLock) != 0 || KEL_RWLockCreate("CompPara", &paraLock) != 0) {
    COMP_LOG(kCompErr, "rwlock create fail");
    if (addrLock != 0) (void)KEL_RWLockDelete(addrLock);  // it was made a line above
    return kFailure;
  }
  paraLock_ = paraLock;
  addrLock_ = addrLock;
  return kSuccess;
}

uint32_t CompManagerImpl::CompTypeRegister(uint32_t typeId, const RtfCompTypeInfo& info) {
  COMP_LOG(kCompTrace, "Enter compType reg:typeId[%u], typeName[%s], prio[%u]", typeId, info.name,
           info.priority);
  const uint32_t ret = RTF_CompTypeRegister(typeId, &info);
  if (ret != 0) {
    COMP_LOG(kCompErr, "reg fail(%#x)! typeId[%u], typeName[%s], prio[%u]", ret, typeId, info.name,
             info.priority);
    return ret;
  }
  COMP_LOG(kCompTrace, "Exit compType reg");
  return kSuccess;
}

uint32_t CompManagerImpl::DeleteCompType(uint32_t typeId) {
  const uint32_t ret = RTF_CompTypeDelete(typeId);
  if (ret != 0) COMP_LOG(kCompErr, "del type[%u] fail(%#x)", typeId, ret);
  return ret;
}

uint32_t CompManagerImpl::CompSchInstRegister(const RtfContainerAttrib& attrib) {
  const uint32_t ret = RTF_CmaSContInstRegister(&attrib);
  if (ret != 0) COMP_LOG(kCompErr, "reg container[%s] fail(%#x)", attrib.taskName, ret);
  return ret;
}

uint32_t CompManagerImpl::CreateComp(uint32_t csi, uint32_t cpi, const RtfMsgStreamAttrib* attrib) {
  CompAddr addr{};
  const bool known = GetCompAddr(csi, addr) == 0;  // an unknown one is not of a type 0 that there may be
  const RtfCompInst inst{csi, cpi};
  for (uint32_t stage = 0; stage < kCreateStages; ++stage) {
    const uint32_t ret = known ? RTF_CompInstCreate(stage, addr.typeId, &inst) : kRtfErrNoType;
    if (ret != 0) {
      COMP_LOG(kCompErr, "stage[%d],csi[%d],type[%u],fail(%#x)", stage, csi, addr.typeId, ret);
      return ret;
    }
  }
  if (attrib != nullptr) {
    COMP_LOG(kCompTrace, "stage3: Prio[%u], streamId[%u], msgNum[%u], maxAppMsgNum[%u], fcmQue[%u]",
             attrib->priority, attrib->streamId, attrib->msgNum, attrib->maxAppMsgNum, attrib->fcmQue);
    const uint32_t ret = RTF_ScmCompAllMsgStmAttribSet(cpi, attrib);
    if (ret != 0) {
      COMP_LOG(kCompErr, "set fail(%#x) Prio[%u], streamId[%u], msgNum[%u],maxAppMsgNum[%u], fcmQue[%u]", ret,
               attrib->priority, attrib->streamId, attrib->msgNum, attrib->maxAppMsgNum, attrib->fcmQue);
      return ret;
    }
  }
  COMP_LOG(kCompTrace, "Exit create comp");
  return kSuccess;
}

uint32_t CompManagerImpl::EnableComp(uint32_t cpi) {
  const uint32_t ret = RTF_CompInstSchEnable(cpi, 1);
  if (ret != 0) {
    COMP_LOG(kCompErr, "enable cpi[%u] fail(%#x)", cpi, ret);
    return ret;
  }
  COMP_LOG(kCompTrace, "Exit enable comp");
  return kSuccess;
}

uint32_t CompManagerImpl::CompDestroy(uint32_t csi) {
  const uint32_t ret = RTF_CompInstDestroy(MakeCompCpi(csi));
  if (ret != 0) {
    COMP_LOG(kCompErr, "destroy csi[%u] fail(%#x)", csi, ret);
    return ret;
  }
  {
    const WriteGuard guard(paraLock_);
    if (guard) paras_.erase(csi);  // a later instance of this id must not find it
  }
  return RmvCompInfo(csi);
}

uint32_t CompManagerImpl::SetProcId(const TOLA_COMP_PROC_S& local) {
  if (!HasEnd(local.ip)) return kFailure;
  uint32_t ret = KEL_SysProcIdSet(local.procId);
  if (ret == 0) ret = DMS_MeshCamProcAddrItemAdd(local.ip, local.procId);
  if (ret != 0) {
    COMP_LOG(kCompErr, "set local proc[%s, %u] fail(%#x)", local.ip, local.procId, ret);
    return ret;
  }
  const WriteGuard guard(addrLock_);
  if (!guard) return kFailure;
  local_ = local;
  return kSuccess;
}

uint32_t CompManagerImpl::GetLocalProcInfo(TOLA_COMP_PROC_S& local) const {
  const ReadGuard guard(addrLock_);
  if (!guard || local_.procId == 0) return kFailure;
  local = local_;
  return kSuccess;
}

uint32_t CompManagerImpl::AddProcAddr(const TOLA_COMP_PROC_S& proc) {
  if (!HasEnd(proc.ip)) return kFailure;
  const uint32_t ret = DMS_CamMeshOtherProcAddrItemAdd(proc.ip, proc.procId);
  if (ret != 0) COMP_LOG(kCompErr, "add proc[%s, %u] fail(%#x)", proc.ip, proc.procId, ret);
  return ret;
}

uint32_t CompManagerImpl::AddDestProcId(const TOLA_COMP_DST_PROC_S& dst) {
  const TOLA_COMP_PROC_S proc = ProcOf(dst);
  TOLA_COMP_PROC_S local{};
  if (GetLocalProcInfo(local) != 0) {
    COMP_LOG(kCompErr, "add proc[%u] before the local one", proc.procId);
    return kFailure;
  }
  uint32_t ret = AddProcAddr(proc);
  if (ret != 0) return ret;
  const uint32_t haState = GetDstDmsHaState(local.ip, proc.ip);
  const uint32_t count = dst.addrNum < kCompAddrMax ? dst.addrNum : kCompAddrMax;
  for (uint32_t i = 0; i < count; ++i) {
    if (!Same(proc, local) && IsLocal(dst.addr[i].csi)) {
      COMP_LOG(kCompErr, "csi[%u] of proc[%s, %u] is local", dst.addr[i].csi, proc.ip, proc.procId);
      continue;
    }
    const uint32_t one = AddCompId(dst.addr[i], haState, proc);
    if (ret == 0) ret = one;
  }
  return ret;
}

uint32_t CompManagerImpl::DelDestProcId(const TOLA_COMP_PROC_S& proc) {
  if (!HasEnd(proc.ip)) return kFailure;
  TOLA_COMP_PROC_S local{};
  const bool own = GetLocalProcInfo(local) == 0 && Same(proc, local);
  // Takes its components out of the runtime's table as well.
  const uint32_t ret = own ? kFailure : DMS_CamMeshOtherProcAddrItemDel(proc.ip, proc.procId);
  if (ret != 0) {
    COMP_LOG(kCompErr, "del proc[%s, %u] fail(%#x)", proc.ip, proc.procId, ret);
    return ret;
  }
  const WriteGuard guard(addrLock_);
  if (!guard) return kFailure;
  std::erase_if(csiTable_, [&](const auto& item) { return Same(item.second.proc, proc); });
  return kSuccess;
}

uint32_t CompManagerImpl::AddCompId(const TOLA_COMP_ADDR_S& addr, uint32_t haState,
                                    const TOLA_COMP_PROC_S& proc) {
  if (!HasEnd(proc.ip)) return kFailure;
  const uint32_t ret = DMS_CompAddrTableItemAdd(addr.csi, addr.typeId, proc.ip, proc.procId);
  if (ret != 0) {
    COMP_LOG(kCompErr, "add csi[%u] type[%u] at proc[%s, %u] fail(%#x)", addr.csi, addr.typeId, proc.ip,
             proc.procId, ret);
    return ret;
  }
  return PutItem(addr.csi, {addr.typeId, haState, proc});
}

uint32_t CompManagerImpl::CompImport(uint32_t csi, uint32_t typeId) {
  return PutItem(csi, {typeId, TOLA_CompDefaultHaStateGet(), {}});
}

uint32_t CompManagerImpl::RmvCompInfo(uint32_t csi) {
  CompAddr addr{};
  uint32_t ret = GetCompAddr(csi, addr);
  if (ret == 0) ret = EraseItemFromCsiTable(csi);
  if (ret == 0 && addr.proc.procId != 0) ret = DMS_CompAddrTableItemDel(csi);
  if (ret != 0) COMP_LOG(kCompErr, "rmv csi[%u] fail(%#x)", csi, ret);
  return ret;
}

uint32_t CompManagerImpl::EraseItemFromCsiTable(uint32_t csi) {
  const WriteGuard guard(addrLock_);
  return guard && csiTable_.erase(csi) == 1 ? kSuccess : kFailure;
}

uint32_t CompManagerImpl::GetCompAddr(uint32_t csi, CompAddr& out) const {
  const ReadGuard guard(addrLock_);
  if (!guard) return kFailure;
  const auto item = csiTable_.find(csi);
  if (item == csiTable_.end()) return kFailure;
  out = item->second;
  return kSuccess;
}

bool CompManagerImpl::IsComponent(uint32_t csi) const {
  const ReadGuard guard(addrLock_);
  return guard && csiTable_.contains(csi);
}

bool CompManagerImpl::IsLocal(uint32_t csi) const {
  const ReadGuard guard(addrLock_);
  if (!guard) return false;
  const auto item = csiTable_.find(csi);
  return item != csiTable_.end() && Same(item->second.proc, local_);
}

uint32_t CompManagerImpl::PutItem(uint32_t csi, const CompAddr& item) {
  try {
    const WriteGuard guard(addrLock_);
    if (!guard) return kFailure;
    csiTable_.insert_or_assign(csi, item);
    return kSuccess;
  } catch (const std::bad_alloc&) {
    COMP_LOG(kCompErr, "nomem");
    return kFailure;
  }
}

uint32_t CompManagerImpl::SaveCompPara(uint32_t csi, void* para) {
  try {
    const WriteGuard guard(paraLock_);
    if (!guard) return kFailure;
    paras_.insert_or_assign(csi, para);
    return kSuccess;
  } catch (const std::bad_alloc&) {
    COMP_LOG(kCompErr, "nomem");
    return kFailure;
  }
}

void* CompManagerImpl::GetCompPara(uint32_t csi) const {
  const ReadGuard guard(paraLock_);
  if (!guard) return nullptr;
  const auto para = paras_.find(csi);
  return para != paras_.end() ? para->second : nullptr;
}
