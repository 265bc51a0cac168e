// Messages: memory, attributes, and the count of each sender's messages that flow control looks at.
#include <string.h>

#include <mutex>
#include <new>
#include <unordered_map>

#include "base/never_destroyed.h"
#include "velto/dms_internal.h"
#include "velto/kel_mem.h"

namespace velto {
namespace {

static_assert(sizeof(MsgHead) == 48, "the data keep the alignment of the allocation");

constexpr uint32_t kMagic = 0x3D6B51A7;
constexpr uint32_t kNoLimit = UINT32_MAX;

// Bound to its place, so that a copy of a message is none.
uint32_t MagicOf(const MsgHead* head) {
  return kMagic ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(head));
}

uint32_t MemHandle() {
  static const uint32_t handle = [] {
    uint32_t made = 0;
    return KEL_HandleInitialize("dms", &made) == 0 ? made : 0;  // 0 is no handle: allocation fails
  }();
  return handle;
}

// Live messages by sender. Senders without one have no entry, so foreign ids cannot make it grow.
class SenderCounts {
 public:
  [[nodiscard]] bool Take(uint32_t sendCid, uint32_t limit) {
    const std::lock_guard lock(mutex_);
    try {
      const auto entry = counts_.try_emplace(CsiOf(sendCid), 0).first;
      if (entry->second < limit) {
        ++entry->second;
        return true;
      }
      if (entry->second == 0) counts_.erase(entry);
      return false;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  void Give(uint32_t sendCid) {
    const std::lock_guard lock(mutex_);
    const auto entry = counts_.find(CsiOf(sendCid));
    if (entry != counts_.end() && --entry->second == 0) counts_.erase(entry);
  }

 private:
  std::mutex mutex_;
  std::unordered_map<uint32_t, uint32_t> counts_;
};

SenderCounts& Counts() {
  static base::NeverDestroyed<SenderCounts> counts;
  return *counts;
}

void* Alloc(uint32_t sendCid, uint32_t limit, uint32_t length) {
  if (length > UINT32_MAX - sizeof(MsgHead) || !Counts().Take(sendCid, limit)) return nullptr;
  void* memory = KEL_MEM_ALLOC(MemHandle(), static_cast<uint32_t>(sizeof(MsgHead)) + length);
  if (memory == nullptr) {
    Counts().Give(sendCid);
    return nullptr;
  }
  memset(memory, 0, sizeof(MsgHead) + length);
  auto* head = new (memory) MsgHead{};
  head->magic = MagicOf(head);
  head->length = length;
  head->sendCid = sendCid;
  return MsgDataOf(head);
}

}  // namespace

MsgHead* MsgHeadOf(const void* message) {
  if (message == nullptr || reinterpret_cast<uintptr_t>(message) % alignof(MsgHead) != 0) return nullptr;
  auto* head = static_cast<MsgHead*>(const_cast<void*>(message)) - 1;
  return head->magic == MagicOf(head) ? head : nullptr;
}

}  // namespace velto

using velto::MsgHead;
using velto::MsgHeadOf;

void* DMS_MsgAlloc(uint32_t sendCid, uint32_t length) {
  return velto::Alloc(sendCid, velto::kNoLimit, length);
}

void* DMS_MsgFlowCtrlAlloc(uint32_t sendCid, uint32_t limit, uint32_t length) {
  return velto::Alloc(sendCid, limit, length);
}

uint32_t DMS_MsgFree(uint32_t, void* message) {
  MsgHead* head = MsgHeadOf(message);
  if (head == nullptr) return kDmsErrPara;
  velto::Counts().Give(head->sendCid);
  head->magic = 0;
  KEL_MEM_FREE(head);
  return 0;
}

uint32_t DMS_MsgRecvIidGet(const void* message) {
  const MsgHead* head = MsgHeadOf(message);
  return head == nullptr ? 0 : head->messageId;
}

void DMS_MsgRecvIidSet(void* message, uint32_t messageId) {
  if (MsgHead* head = MsgHeadOf(message)) head->messageId = messageId;
}

uint32_t DMS_MsgSendCidGet(const void* message) {
  const MsgHead* head = MsgHeadOf(message);
  return head == nullptr ? 0 : head->sendCid;
}

uint32_t DMS_MsgRecvCidGet(const void* message) {
  const MsgHead* head = MsgHeadOf(message);
  return head == nullptr ? 0 : head->recvCid;
}

uint32_t DMS_MsgLenGet(const void* message) {
  const MsgHead* head = MsgHeadOf(message);
  return head == nullptr ? 0 : head->length;
}

uint32_t DMS_MsgQuePrioGet(const void* message, uint32_t* priority) {
  const MsgHead* head = MsgHeadOf(message);
  if (head == nullptr || priority == nullptr) return kDmsErrPara;
  *priority = head->priority;
  return 0;
}

uint32_t DMS_MsgPrioSet(void* message, uint8_t priority) {
  MsgHead* head = MsgHeadOf(message);
  if (head == nullptr) return kDmsErrPara;
  head->priority = priority;
  return 0;
}

void* DMS_MsgReserveHeadGet(void* message) {
  MsgHead* head = MsgHeadOf(message);
  return head == nullptr ? nullptr : head->reserved;
}
