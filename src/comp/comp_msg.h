/// Component messages: allocation, attributes, sending to components and, for a destination that is none, to
/// platform modules.
///
/// A message is the pointer to its data; everything else is read and written here. A function takes null for
/// a message with a result that says so. Any task may call; a message belongs to one at a time. Failures
/// leave one line through the component log hook.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kCompErrQueueLength = 0x4915;  ///< 18709: queue length not in 1..65536
inline constexpr uint32_t kCompErrQueueSet = 0x4916;     ///< 18710: the runtime did not take the length
inline constexpr uint32_t kCompErrAlloc = 0x4919;        ///< 18713: component message allocation failed
inline constexpr uint32_t kCompErrNull = 0x491A;         ///< 18714: null message

enum TolaMsgPrio : uint32_t {
  kTolaMsgPrioNormal = 0,
  kTolaMsgPrioHigh = 1,  ///< is delivered before all normal ones
};

/// A message of `length` zeroed bytes from component `sourceId`; null when memory is used up. The caller owns
/// it until it is sent or freed.
[[nodiscard]] void* TolaCompMsgAlloc(uint32_t sourceId, uint16_t messageId, uint32_t length);
/// The same under the runtime's flow control: null too while `limit` messages of the source are under way.
[[nodiscard]] void* TolaCompMsgFlowCtrlAlloc(uint32_t sourceId, uint32_t limit, uint16_t messageId,
                                             uint32_t length);
void TolaCompMsgFree(void* msg);  ///< null is ignored

void TolaCompMsgPrioSet(void* msg, TolaMsgPrio priority);
TolaMsgPrio GetTolaCompMsgPrio(const void* msg);  ///< normal when it cannot be read

/// The number that pairs a reply with its request.
void TolaCompMsgSetSeqNo(void* msg, uint16_t seqNo);
uint16_t TolaCompMsgGetSeqNo(const void* msg);  ///< 0 when it cannot be read

// 0 for null. Ids come without the runtime's address flag (bit 31).
uint32_t TolaCompGetMsgId(const void* msg);
uint32_t TolaCompGetMsgLen(const void* msg);
uint32_t TolaCompGetSrcId(const void* msg);
uint32_t TolaCompGetDstId(const void* msg);  ///< 0 before it is sent

/// Sends to component `destination`, or, when the component manager knows none of this id, to the platform
/// module of its low 16 bits. The message is consumed in every case, also on failure.
/// @retval kCompErrNull null message
/// @retval 1 no platform message could be made of it
/// @retval other the runtime's (component) or the message manager's (platform module) result
[[nodiscard]] uint32_t TolaCompMsgSend(uint32_t destination, void* msg);
/// Sends to the runtime address `address` as it stands. Consumes the message in every case.
[[nodiscard]] uint32_t TolaCompMsgSendToPeer(uint32_t address, void* msg);

/// How many messages may wait for instance `csi`, in its normal and its high-priority stream.
/// @retval kCompErrQueueLength @retval kCompErrQueueSet
[[nodiscard]] uint32_t TOLA_SetCompMaxMsgQueueLen(uint32_t csi, uint32_t length);
