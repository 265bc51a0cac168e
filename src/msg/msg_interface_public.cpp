/// Message buffers: their memory, their length field, and the one call that fills and posts in one go.
#include "msg/msg_interface_public.h"

#include <algorithm>
#include <atomic>

#include "base/result_codes.h"
#include "msg/process_msg_manager.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace {

std::atomic<uint32_t> g_memHandle{0};
std::atomic<uint32_t> g_partition{0};
std::atomic<MsgMemStatisticBase*> g_memStatistic{nullptr};

}  // namespace

uint32_t MsgMemInit(uint32_t* handle) {
  if (KEL_HandleInitialize("msg manager", handle) != 0) return kFailure;
  g_memHandle.store(*handle, std::memory_order_release);
  return kSuccess;
}

void SetTolaMsgLen(tagMsgBuf* msg, uint32_t length) {
  if (msg == nullptr) return;
  msg->lengthLow = static_cast<uint16_t>(length);
  if (length >= 0x10000) msg->lengthHigh = static_cast<uint16_t>((length >> 16) & 0xFF);
}

uint32_t GetTolaMsgLen(const tagMsgBuf* msg) {
  if (msg == nullptr) return 0;
  return ((static_cast<uint32_t>(msg->lengthHigh) << 16) & 0xFF0000u) + msg->lengthLow;
}

tagMsgBuf* MsgAllocUncleared(uint16_t source, uint16_t type, uint16_t subType, uint32_t length) {
  if (length > kMsgMaxDataLength) return nullptr;  // the header could not tell it, and bytes would be lost
  const uint32_t size = length + kMsgHeadSize;
  void* memory = KEL_MemAlloc_F(g_memHandle.load(std::memory_order_acquire),
                                g_partition.load(std::memory_order_relaxed), size, __FILE__, __LINE__);
  if (memory == nullptr) return nullptr;
  auto* msg = static_cast<tagMsgBuf*>(memory);
  *msg = {};
  msg->source = source;
  msg->type = type;
  msg->subType = subType;
  SetTolaMsgLen(msg, length);
  if (MsgMemStatisticBase* statistic = GetMsgMemStatisticInstance()) statistic->OnAlloc(source, length);
  return msg;
}

tagMsgBuf* TOLA_MsgAlloc(uint16_t source, uint16_t type, uint16_t subType, uint32_t length) {
  tagMsgBuf* msg = MsgAllocUncleared(source, type, subType, length);
  if (msg != nullptr) std::fill_n(TolaMsgData(msg), length, uint8_t{0});
  return msg;
}

void TOLA_MsgAllocSpecifyPartition(uint32_t partition) {
  g_partition.store(partition, std::memory_order_relaxed);
}

void TOLA_MsgFree(tagMsgBuf* msg) {
  if (msg == nullptr) return;
  if (MsgMemStatisticBase* statistic = GetMsgMemStatisticInstance()) {
    statistic->OnFree(msg->source, GetTolaMsgLen(msg));
  }
  KEL_MEM_FREE(msg);
}

uint32_t SendSimpleFormatMsg(uint16_t source, uint16_t destination, uint16_t type, uint16_t subType,
                             uint32_t length, const void* data) {
  tagMsgBuf* msg = TOLA_MsgAlloc(source, type, subType, length);
  if (msg == nullptr) return kFailure;
  if (length != 0 && memcpy_s(TolaMsgData(msg), length, data, length) != EOK) {
    TOLA_MsgFree(msg);
    return kErrCopy;
  }
  bool taken = false;
  const uint32_t ret = MsgPost(destination, msg, false, &taken);
  if (!taken) TOLA_MsgFree(msg);
  return ret == 0 ? kSuccess : kFailure;
}

void SetMsgMemStatisticInstance(MsgMemStatisticBase* object) {
  g_memStatistic.store(object, std::memory_order_release);
}

MsgMemStatisticBase* GetMsgMemStatisticInstance() {
  return g_memStatistic.load(std::memory_order_acquire);
}
