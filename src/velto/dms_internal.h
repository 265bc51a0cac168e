/// What the sources of the component half (dms_*.cpp, rtf.cpp) share; nobody else includes it.
///
/// The road of a message: DMS_MsgSend asks RouteOf, then either posts to a local instance (RtfPost) or hands
/// the message to the link of the destination's process (LinkSend). In that process the receiver task puts it
/// together again and posts it in the same way. All of it is thread-safe.
#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <compare>
#include <memory>
#include <optional>

#include "velto/dms.h"

namespace velto {

/// Stands right in front of a message's data.
struct alignas(max_align_t) MsgHead {
  MsgHead* next;   ///< in an instance's queue
  uint32_t magic;  ///< marks a live message at this very place
  uint32_t length;
  uint32_t messageId;
  uint32_t sendCid;
  uint32_t recvCid;
  uint32_t priority;
  uint8_t reserved[kDmsReservedHeadSize];
};

/// The head of a message, or null for null and for memory that holds none. Reads what stands in front of the
/// pointer, so memory that was given back must not be asked about.
[[nodiscard]] MsgHead* MsgHeadOf(const void* message);
inline void* MsgDataOf(MsgHead* head) {
  return head + 1;
}

struct MsgDeleter {
  void operator()(void* message) const { (void)DMS_MsgFree(0, message); }  // what is owned is a message
};
using MsgPtr = std::unique_ptr<void, MsgDeleter>;

inline constexpr uint32_t kPriorityUrgent = 1;

/// Instance ids have 28 bits; a CPI is one with 8 or 9 in front.
inline constexpr uint32_t kCsiMask = 0x0FFFFFFF;
inline constexpr uint32_t CsiOf(uint32_t cpi) {
  return cpi & kCsiMask;
}
inline constexpr bool IsCpi(uint32_t cpi) {
  return (cpi >> 28 & ~1u) == 8;
}

struct ProcAddr {
  in_addr_t ip = 0;  ///< network order
  uint32_t processId = 0;
  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 takes the compiler's own 0 for one written here
  auto operator<=>(const ProcAddr&) const = default;
};

/// This process's own address, once both halves of it are set.
[[nodiscard]] std::optional<ProcAddr> LocalAddr();
/// From now on the own address cannot change: the socket carries it.
void LocalAddrSeal();

enum class RouteKind : uint8_t { kUnknown, kLocal, kPeer, kFarHost };
struct Route {
  RouteKind kind = RouteKind::kUnknown;
  ProcAddr peer;  ///< of kPeer
};
[[nodiscard]] Route RouteOf(uint32_t csi);

enum class Origin : uint8_t { kLocal, kPeer };

/// Queues the message for the instance of its recvCid; consumed in every case. A message of a peer needs an
/// enabled instance, one of this process may wait for the enabling.
/// @retval kDmsErrRefused no such instance @retval kDmsErrQueueFull
[[nodiscard]] uint32_t RtfPost(MsgPtr message, Origin origin);
[[nodiscard]] bool RtfHas(uint32_t csi);    ///< an instance that was built completely
[[nodiscard]] bool RtfTakes(uint32_t csi);  ///< ... and is enabled

/// Sends the message to a process of this host and waits for its answer; it is not consumed.
[[nodiscard]] uint32_t LinkSend(const ProcAddr& peer, const MsgHead& message);
/// Closes the kept connection to a process.
void LinkDrop(const ProcAddr& peer);

/// Binds this process's socket, once; a process without an address has none. Messages wait in the socket
/// until ReceiverStart. @retval kDmsErrSocket
[[nodiscard]] uint32_t ReceiverBind();
/// Starts the task that serves the socket, once. @retval other result of KEL_TaskCreate
[[nodiscard]] uint32_t ReceiverStart();

}  // namespace velto
