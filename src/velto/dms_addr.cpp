// The address tables: this process, the processes that may be sent to, and the component instances at each.
#include <arpa/inet.h>

#include <map>
#include <mutex>
#include <new>
#include <set>
#include <shared_mutex>

#include "base/never_destroyed.h"
#include "velto/dms_internal.h"

namespace velto {
namespace {

constexpr size_t kProcessMax = 64;
constexpr size_t kComponentMax = 8192;

struct AddrTables {
  std::shared_mutex mutex;  // guards all below
  ProcAddr local;           // a half that is 0 is not set yet
  bool sealed = false;
  std::set<ProcAddr> processes;
  std::map<uint32_t, ProcAddr> components;  // by csi
};

AddrTables& Tables() {
  static base::NeverDestroyed<AddrTables> tables;
  return *tables;
}

std::optional<ProcAddr> ParseAddr(const char* ip, uint32_t processId) {
  in_addr address{};
  if (ip == nullptr || processId == 0 || inet_pton(AF_INET, ip, &address) != 1 || address.s_addr == 0) {
    return std::nullopt;
  }
  return ProcAddr{address.s_addr, processId};
}

uint32_t LocalSet(AddrTables& tables, const ProcAddr& wanted) {
  if (tables.sealed && tables.local != wanted) return kDmsErrPara;
  tables.local = wanted;
  return 0;
}

}  // namespace

std::optional<ProcAddr> LocalAddr() {
  AddrTables& tables = Tables();
  const std::shared_lock lock(tables.mutex);
  if (tables.local.ip == 0 || tables.local.processId == 0) return std::nullopt;
  return tables.local;
}

void LocalAddrSeal() {
  AddrTables& tables = Tables();
  const std::lock_guard lock(tables.mutex);
  tables.sealed = true;
}

Route RouteOf(uint32_t csi) {
  AddrTables& tables = Tables();
  {
    const std::shared_lock lock(tables.mutex);
    const auto entry = tables.components.find(csi);
    if (entry != tables.components.end()) {
      const ProcAddr& at = entry->second;
      if (at == tables.local) return {RouteKind::kLocal, at};
      const bool sameHost = tables.local.ip == 0 || at.ip == tables.local.ip;
      return {sameHost ? RouteKind::kPeer : RouteKind::kFarHost, at};
    }
  }
  return {RtfHas(csi) ? RouteKind::kLocal : RouteKind::kUnknown, {}};
}

}  // namespace velto

using velto::AddrTables;
using velto::ProcAddr;

uint32_t KEL_SysProcIdSet(uint32_t processId) {
  if (processId == 0) return kDmsErrPara;
  AddrTables& tables = velto::Tables();
  const std::lock_guard lock(tables.mutex);
  return velto::LocalSet(tables, {tables.local.ip, processId});
}

uint32_t DMS_MeshCamProcAddrItemAdd(const char* ip, uint32_t processId) {
  const auto address = velto::ParseAddr(ip, processId);
  if (!address) return kDmsErrPara;
  AddrTables& tables = velto::Tables();
  const std::lock_guard lock(tables.mutex);
  return velto::LocalSet(tables, *address);
}

uint32_t DMS_CamMeshOtherProcAddrItemAdd(const char* ip, uint32_t processId) {
  const auto address = velto::ParseAddr(ip, processId);
  if (!address) return kDmsErrPara;
  AddrTables& tables = velto::Tables();
  const std::lock_guard lock(tables.mutex);
  if (tables.processes.contains(*address)) return 0;
  if (tables.processes.size() >= velto::kProcessMax) return kDmsErrFull;
  try {
    tables.processes.insert(*address);
  } catch (const std::bad_alloc&) {
    return kDmsErrFull;
  }
  return 0;
}

uint32_t DMS_CamMeshOtherProcAddrItemDel(const char* ip, uint32_t processId) {
  const auto address = velto::ParseAddr(ip, processId);
  if (!address) return kDmsErrPara;
  {
    AddrTables& tables = velto::Tables();
    const std::lock_guard lock(tables.mutex);
    if (tables.processes.erase(*address) == 0) return kDmsErrNoAddr;
    std::erase_if(tables.components, [&](const auto& entry) { return entry.second == *address; });
  }
  velto::LinkDrop(*address);
  return 0;
}

uint32_t DMS_CompAddrTableItemAdd(uint32_t csi, uint32_t /*typeId*/, const char* ip, uint32_t processId) {
  const auto address = velto::ParseAddr(ip, processId);
  if (!address || csi > velto::kCsiMask) return kDmsErrPara;
  AddrTables& tables = velto::Tables();
  const std::lock_guard lock(tables.mutex);
  if (*address != tables.local && !tables.processes.contains(*address)) return kDmsErrNoAddr;
  if (tables.components.size() >= velto::kComponentMax && !tables.components.contains(csi))
    return kDmsErrFull;
  try {
    tables.components[csi] = *address;
  } catch (const std::bad_alloc&) {
    return kDmsErrFull;
  }
  return 0;
}

uint32_t DMS_CompAddrTableItemDel(uint32_t csi) {
  AddrTables& tables = velto::Tables();
  const std::lock_guard lock(tables.mutex);
  return tables.components.erase(csi) == 1 ? 0 : kDmsErrNoAddr;
}
