/// The frame in which platform messages travel between processes: one message of a System V queue; cutting a
/// platform message into frames, and building it again from them.
///
/// A platform message, header and data, is cut into pieces of 4076 bytes; every piece is one frame. All
/// fields are in the machine's order: both ends are processes of one board.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "msg/msg_interface_public.h"

inline constexpr uint32_t kIpcPayloadMax = 4076;    ///< of one frame
inline constexpr uint32_t kIpcFrameHead = 20;       ///< between the type word and the payload
inline constexpr uint32_t kIpcFrameMax = 4096;      ///< head and payload: what msgsnd(2) and msgrcv(2) count
inline constexpr uint16_t kIpcLastFrame = 0x8000;   ///< bit of `number`; alone it is a single-frame message
inline constexpr uint16_t kIpcFrameIndex = 0x7FFF;  ///< bits of `number`: the piece's index from 0

inline constexpr uint32_t kIpcErrMsgMemory = 41228;   ///< 0xA10C: no memory for a single-frame message
inline constexpr uint32_t kIpcErrNode = 41230;        ///< 0xA10E: no memory or no room for one more message
inline constexpr uint32_t kIpcErrNodeMemory = 41231;  ///< 0xA10F: no memory or no room for its bytes
inline constexpr uint32_t kIpcErrNoNode = 41232;      ///< 0xA110: a later frame of no message being built
inline constexpr uint32_t kIpcErrFrame = 41264;       ///< 0xA130: a frame that is not what it says it is

struct IPC_MSG_S {
  long type;  ///< the queue's type word: the priority class, of which the lowest is taken first
  uint32_t sourcePid;
  uint32_t destinationPid;  ///< 0: not known to the sender, the main process finds it
  uint16_t sequence;        ///< of the sending process, the same for all frames of one message
  uint16_t number;          ///< kIpcFrameIndex and kIpcLastFrame
  uint16_t length;          ///< payload bytes
  uint16_t urgent;          ///< not 0: to be delivered by the urgent post
  uint32_t reserved;        ///< 0
  uint8_t payload[kIpcPayloadMax];
};
static_assert(offsetof(IPC_MSG_S, payload) == sizeof(long) + kIpcFrameHead);
static_assert(sizeof(IPC_MSG_S) == sizeof(long) + kIpcFrameMax);

/// Frames that a message of `length` data bytes travels in.
constexpr uint32_t IpcFrameCount(uint32_t length) {
  return (length + kMsgHeadSize + kIpcPayloadMax - 1) / kIpcPayloadMax;
}
inline constexpr uint32_t kIpcFramesMax = IpcFrameCount(kMsgMaxDataLength);

/// Fills `number`, `length` and the payload of the frame `index` (below IpcFrameCount) of `msg`; the rest of
/// the frame is the caller's.
void IpcCutFrame(const tagMsgBuf* msg, uint32_t index, IPC_MSG_S* frame);

/// A message that is being built from its frames.
struct APP_MSG_FRAME_NODE_S {
  uint32_t sourcePid;
  uint16_t sequence;
  uint16_t destination;                      ///< module
  uint32_t age;                              ///< timer ticks
  uint32_t missing;                          ///< frames that have not come yet
  uint32_t seen[(kIpcFramesMax + 31) / 32];  ///< a bit for each frame that has
  tagMsgBuf* msg;                            ///< owned
  APP_MSG_FRAME_NODE_S* next;
};

/// Builds messages from frames, those of several senders and messages in any mixture. At most 64 messages of
/// 64 MiB together are under way; what is older than 1500 ticks without its last frame goes. For one thread.
class IpcReassembly {
 public:
  static constexpr uint32_t kMessagesMax = 64;
  static constexpr uint64_t kBytesMax = 64u << 20;
  static constexpr uint32_t kAgeMax = 1500;  ///< ticks: 30 s of 20 ms

  /// `memHandle` is where the nodes' memory is counted, "IPCMGR" when it is 0. Messages are counted as
  /// platform messages are, so the message manager must be up before the first frame.
  explicit IpcReassembly(uint32_t memHandle = 0) : memHandle_(memHandle) {}
  ~IpcReassembly();
  IpcReassembly(const IpcReassembly&) = delete;
  IpcReassembly& operator=(const IpcReassembly&) = delete;

  void SetMemHandle(uint32_t memHandle) { memHandle_ = memHandle; }

  /// Takes one frame, `size` bytes of it behind the type word as msgrcv(2) counted them. On 0 `*msg` is the
  /// message that this frame completed, the caller's now, or null while more is to come. On any other
  /// result `*msg` is null; kIpcErrFrame drops the message that the frame belongs to as well.
  /// @retval kIpcErrFrame the size is not the payload's, a length lies, the payload does not hold the header,
  /// a frame does not fit into its message, or its last one came while others are missing
  /// @retval kIpcErrMsgMemory @retval kIpcErrNode @retval kIpcErrNodeMemory @retval kIpcErrNoNode
  [[nodiscard]] uint32_t Take(const IPC_MSG_S& frame, size_t size, tagMsgBuf** msg);

  /// One timer tick: every message under way grows older, and those that are too old go, each with a line in
  /// the log.
  void Age();

  [[nodiscard]] uint32_t messages() const { return messages_; }
  [[nodiscard]] uint64_t bytes() const { return bytes_; }

 private:
  uint32_t TakeSingle(const IPC_MSG_S& frame, tagMsgBuf** msg);
  uint32_t TakeFirst(const IPC_MSG_S& frame);
  uint32_t TakeLater(const IPC_MSG_S& frame, tagMsgBuf** msg);
  APP_MSG_FRAME_NODE_S** Find(uint32_t sourcePid, uint16_t sequence);
  tagMsgBuf* Unlink(APP_MSG_FRAME_NODE_S** link);
  void Drop(APP_MSG_FRAME_NODE_S** link);

  uint32_t memHandle_;
  APP_MSG_FRAME_NODE_S* head_ = nullptr;  ///< newest first
  uint32_t messages_ = 0;
  uint64_t bytes_ = 0;
};
