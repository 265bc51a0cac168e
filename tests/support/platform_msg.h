/// Platform messages in tests: an owner, a high-priority object over runtime queues, and what is still alive.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>

#include "msg/msg_interface_public.h"
#include "velto/kel_mem.h"
#include "velto/kel_sync.h"

namespace support {

struct MsgFree {
  void operator()(tagMsgBuf* msg) const { TOLA_MsgFree(msg); }
};
using MsgPtr = std::unique_ptr<tagMsgBuf, MsgFree>;

/// A message of a pattern that differs from frame to frame, and with `seed`.
inline MsgPtr NewMsg(uint16_t destination, uint32_t length, uint32_t seed = 0) {
  MsgPtr msg(TOLA_MsgAlloc(7, 0x111, 3, length));
  if (msg == nullptr) abort();
  msg->destination = destination;
  uint8_t* data = TolaMsgData(msg.get());
  for (uint32_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(seed + i + (i >> 8) * 3);
  return msg;
}

/// Header and data.
inline bool Same(const tagMsgBuf* one, const tagMsgBuf* other) {
  return GetTolaMsgLen(one) == GetTolaMsgLen(other) &&
         memcmp(one, other, GetTolaMsgLen(one) + kMsgHeadSize) == 0;
}

/// Live allocations of a memory handle.
inline uint64_t Live(const char* handleName) {
  uint32_t handle = 0;
  uint64_t bytes = 0;
  uint64_t count = 0;
  if (KEL_HandleInitialize(handleName, &handle) != 0 || KEL_HandleUseGet(handle, &bytes, &count) != 0)
    abort();
  return count;
}

/// A queue for every module that registers while this is the high-priority object.
class HighPri final : public HighPriQueueProcBase {
 public:
  uint32_t RegisterModule(uint16_t id, uint32_t task, uint32_t mask, uint32_t length) override {
    MsgModuleBlock block{0, task, mask, 0};
    if (KEL_QueueCreate("High", length, sizeof(tagMsgBuf*), &block.queueId) != 0) return 1;
    blocks_[id] = block;
    return 0;
  }
  uint32_t UnregisterModule(uint16_t id) override { return blocks_.erase(id) == 1 ? 0 : 1; }
  uint32_t Receive(uint16_t id, tagMsgBuf** out, uint32_t) override {
    uint32_t size = 0;
    const auto block = blocks_.find(id);
    return block != blocks_.end() ? KEL_QueueAsyRead(block->second.queueId, out, sizeof(*out), &size) : 1;
  }
  uint32_t GetBlock(uint16_t id, MsgModuleBlock* out) override {
    const auto block = blocks_.find(id);
    *out = block != blocks_.end() ? block->second : MsgModuleBlock{};
    return 0;
  }

 private:
  std::map<uint16_t, MsgModuleBlock> blocks_;
};

}  // namespace support
