/// The frame in which platform messages travel between processes: one message of a System V queue.
///
/// A platform message, header and data, is cut into pieces of 4076 bytes; every piece is one frame. All
/// fields are in the machine's order: both ends are processes of one board.
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t kIpcPayloadMax = 4076;    ///< of one frame
inline constexpr uint32_t kIpcFrameHead = 20;       ///< between the type word and the payload
inline constexpr uint32_t kIpcFrameMax = 4096;      ///< head and payload: what msgsnd(2) and msgrcv(2) count
inline constexpr uint16_t kIpcLastFrame = 0x8000;   ///< bit of `number`; alone it is a single-frame message
inline constexpr uint16_t kIpcFrameIndex = 0x7FFF;  ///< bits of `number`: the piece's index from 0

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
