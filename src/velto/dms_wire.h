/// What travels between two processes over a SOCK_SEQPACKET connection.
///
/// A message is one or more packets, each a WireHead followed by data: every packet but the last carries
/// kWireDataMax bytes of data, the last one the rest, so one of 0 bytes is a head alone. The heads of a
/// message differ in `offset` only. Packets of two messages never mix on a connection.
///
/// The receiver answers each message, after its last packet, with one packet of 4 bytes: a 32-bit result that
/// is 0, kDmsErrRefused or kDmsErrTooLong. The sender does not begin another message before that.
///
/// Both ends are on one machine, so words have the machine's byte order; all sizes are explicit, so a 32-bit
/// and a 64-bit process understand each other. Whoever sees a packet of another form closes the connection.
#pragma once

#include <stdint.h>

#include "velto/dms.h"

namespace velto {

inline constexpr uint32_t kWireMagic = 0x31534D44;  // "DMS1" in memory on a little-endian machine

struct WireHead {
  uint32_t magic;
  uint32_t total;   ///< data bytes of the message
  uint32_t offset;  ///< of this packet's data in them
  uint32_t recvCpi;
  uint32_t sendCid;
  uint32_t messageId;
  uint32_t priority;  ///< 0..255
  uint32_t zero;
  uint8_t reserved[kDmsReservedHeadSize];
};
static_assert(sizeof(WireHead) == 48);

inline constexpr uint32_t kWirePacketMax = 32 * 1024;
inline constexpr uint32_t kWireDataMax = kWirePacketMax - sizeof(WireHead);

}  // namespace velto
