/// Cutting and rebuilding. What a frame says about itself is believed only after it has been measured: sizes
/// against what the queue counted, places against the message's own length.
#include "msg/ipc_frame.h"

#include "base/check.h"
#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/process_msg_manager.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint32_t kBitsPerWord = 32;

uint32_t Size(const tagMsgBuf& head) {
  return GetTolaMsgLen(&head) + kMsgHeadSize;
}

/// The message's header in the payload of its first frame, which holds at least that many bytes.
tagMsgBuf HeadOf(const IPC_MSG_S& frame) {
  tagMsgBuf head = {};
  (void)memcpy_s(&head, sizeof(head), frame.payload, sizeof(head));  // both sizes are the header's
  return head;
}

/// A buffer for the message with `head` and `length` data bytes. It is not cleared: a message is handed out
/// only when frames have filled all of it.
tagMsgBuf* AllocAs(const tagMsgBuf& head, uint32_t length) {
  tagMsgBuf* msg = MsgAllocUncleared(head.source, head.type, head.subType, length);
  if (msg != nullptr) msg->destination = head.destination;
  return msg;
}

/// Copies bytes of the message, header included, to their place; the caller has measured both.
void CopyTo(tagMsgBuf* msg, uint32_t offset, const uint8_t* bytes, uint32_t length) {
  TOLA_CHECK(memcpy_s(reinterpret_cast<uint8_t*>(msg) + offset, length, bytes, length) == EOK);
}

/// Notes a frame as come; false when it had come before.
bool Note(APP_MSG_FRAME_NODE_S& node, uint32_t index) {
  uint32_t& word = node.seen[index / kBitsPerWord];
  const uint32_t bit = 1u << (index % kBitsPerWord);
  if ((word & bit) != 0) return false;
  word |= bit;
  --node.missing;
  return true;
}

}  // namespace

void IpcCutFrame(const tagMsgBuf* msg, uint32_t index, IPC_MSG_S* frame) {
  const uint32_t size = Size(*msg);
  const uint32_t offset = index * kIpcPayloadMax;
  TOLA_CHECK(offset < size);
  const uint32_t rest = size - offset;
  const bool last = rest <= kIpcPayloadMax;
  const uint32_t length = last ? rest : kIpcPayloadMax;
  frame->number = static_cast<uint16_t>(last ? index | kIpcLastFrame : index);
  frame->length = static_cast<uint16_t>(length);
  const auto* bytes = reinterpret_cast<const uint8_t*>(msg) + offset;
  TOLA_CHECK(memcpy_s(frame->payload, sizeof(frame->payload), bytes, length) == EOK);
}

IpcReassembly::~IpcReassembly() {
  while (head_ != nullptr) Drop(&head_);
}

uint32_t IpcReassembly::Take(const IPC_MSG_S& frame, size_t size, tagMsgBuf** msg) {
  *msg = nullptr;
  if (frame.length > kIpcPayloadMax || size != kIpcFrameHead + frame.length) return kIpcErrFrame;
  if (frame.number == kIpcLastFrame) return TakeSingle(frame, msg);
  return frame.number == 0 ? TakeFirst(frame) : TakeLater(frame, msg);
}

uint32_t IpcReassembly::TakeSingle(const IPC_MSG_S& frame, tagMsgBuf** msg) {
  if (frame.length < kMsgHeadSize) return kIpcErrFrame;
  const tagMsgBuf head = HeadOf(frame);
  // kept: a full frame is taken whatever length its header tells; the message then has what came, no more.
  if (Size(head) != frame.length && frame.length != kIpcPayloadMax) return kIpcErrFrame;
  const uint32_t length = frame.length - kMsgHeadSize;
  tagMsgBuf* whole = AllocAs(head, length);
  if (whole == nullptr) return kIpcErrMsgMemory;
  if (length != 0) CopyTo(whole, kMsgHeadSize, frame.payload + kMsgHeadSize, length);
  *msg = whole;
  return kSuccess;
}

uint32_t IpcReassembly::TakeFirst(const IPC_MSG_S& frame) {
  // A second start of a message that is under way: its first one will never be whole.
  if (APP_MSG_FRAME_NODE_S** old = Find(frame.sourcePid, frame.sequence)) Drop(old);
  if (frame.length != kIpcPayloadMax) return kIpcErrFrame;
  const tagMsgBuf head = HeadOf(frame);
  if (Size(head) <= kIpcPayloadMax) return kIpcErrFrame;  // a message of one frame has no later ones
  if (messages_ >= kMessagesMax) return kIpcErrNode;
  if (bytes_ + Size(head) > kBytesMax) return kIpcErrNodeMemory;

  if (memHandle_ == 0 && KEL_HandleInitialize("IPCMGR", &memHandle_) != 0) return kIpcErrNode;
  auto* node = static_cast<APP_MSG_FRAME_NODE_S*>(KEL_MEM_ALLOC(memHandle_, sizeof(APP_MSG_FRAME_NODE_S)));
  if (node == nullptr) return kIpcErrNode;
  *node = {};
  node->msg = AllocAs(head, GetTolaMsgLen(&head));
  if (node->msg == nullptr) {
    KEL_MEM_FREE(node);
    return kIpcErrNodeMemory;
  }
  node->sourcePid = frame.sourcePid;
  node->sequence = frame.sequence;
  node->destination = head.destination;
  node->missing = IpcFrameCount(GetTolaMsgLen(&head));
  (void)Note(*node, 0);
  CopyTo(node->msg, kMsgHeadSize, frame.payload + kMsgHeadSize, kIpcPayloadMax - kMsgHeadSize);
  node->next = head_;
  head_ = node;
  ++messages_;
  bytes_ += Size(head);
  return kSuccess;
}

uint32_t IpcReassembly::TakeLater(const IPC_MSG_S& frame, tagMsgBuf** msg) {
  APP_MSG_FRAME_NODE_S** link = Find(frame.sourcePid, frame.sequence);
  if (link == nullptr) return kIpcErrNoNode;
  APP_MSG_FRAME_NODE_S& node = **link;
  const bool last = (frame.number & kIpcLastFrame) != 0;
  const uint32_t index = frame.number & kIpcFrameIndex;
  const uint32_t offset = index * kIpcPayloadMax;
  const uint32_t size = Size(*node.msg);
  const uint32_t end = offset + frame.length;
  const bool fits = last ? end == size && frame.length != 0 : frame.length == kIpcPayloadMax && end < size;
  if (!fits) {
    Drop(link);
    return kIpcErrFrame;
  }
  (void)Note(node, index);  // a repeated frame is copied again and counts once
  CopyTo(node.msg, offset, frame.payload, frame.length);
  if (!last) return kSuccess;
  if (node.missing != 0) {  // never hand out a message with a hole
    Drop(link);
    return kIpcErrFrame;
  }
  *msg = Unlink(link);
  return kSuccess;
}

void IpcReassembly::Age() {
  APP_MSG_FRAME_NODE_S** link = &head_;
  while (*link != nullptr) {
    APP_MSG_FRAME_NODE_S& node = **link;
    if (++node.age <= kAgeMax) {
      link = &node.next;
      continue;
    }
    LOG_EVT(kLogModule, "FreeNode SrcPid:%d,DstModId:%#x", static_cast<int>(node.sourcePid),
            node.destination);
    Drop(link);
  }
}

APP_MSG_FRAME_NODE_S** IpcReassembly::Find(uint32_t sourcePid, uint16_t sequence) {
  for (APP_MSG_FRAME_NODE_S** link = &head_; *link != nullptr; link = &(*link)->next) {
    if ((*link)->sourcePid == sourcePid && (*link)->sequence == sequence) return link;
  }
  return nullptr;
}

/// Takes the node out and gives its message, the caller's now.
tagMsgBuf* IpcReassembly::Unlink(APP_MSG_FRAME_NODE_S** link) {
  APP_MSG_FRAME_NODE_S* node = *link;
  tagMsgBuf* msg = node->msg;
  *link = node->next;
  --messages_;
  bytes_ -= Size(*msg);
  KEL_MEM_FREE(node);
  return msg;
}

void IpcReassembly::Drop(APP_MSG_FRAME_NODE_S** link) {
  TOLA_MsgFree(Unlink(link));
}
