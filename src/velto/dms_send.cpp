// Sending: the choice of the road, and one kept connection to each destination process.
//
// A message is never delivered twice. A kept connection may have died since its last use; another is tried
// only when the very first packet was refused by the kernel, for then nothing of the message was taken.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <new>

#include "base/never_destroyed.h"
#include "securec.h"
#include "velto/dms_socket.h"
#include "velto/dms_wire.h"
#include "velto/kel_cfg_table.h"

namespace velto {
namespace {

enum class Sent : uint8_t { kAll, kNothing, kBroken };

// One packet. kNothing: the peer's end is closed and the kernel took nothing.
Sent SendPacket(int connection, const WireHead& head, const uint8_t* data, size_t size,
                const Deadline& deadline) {
  iovec parts[] = {{const_cast<WireHead*>(&head), sizeof(head)}, {const_cast<uint8_t*>(data), size}};
  msghdr packet{};
  packet.msg_iov = parts;
  packet.msg_iovlen = 2;
  while (sendmsg(connection, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EPIPE || errno == ECONNRESET) return Sent::kNothing;
    if (errno == EINTR) continue;
    if (errno != EAGAIN || !SocketWait(connection, POLLOUT, deadline)) return Sent::kBroken;
  }
  return Sent::kAll;
}

Sent SendMessage(int connection, const MsgHead& message, const Deadline& deadline) {
  WireHead head{
      kWireMagic, message.length, 0, message.recvCid, message.sendCid, message.messageId, message.priority, 0,
      {}};
  if (memcpy_s(head.reserved, sizeof(head.reserved), message.reserved, sizeof(message.reserved)) != EOK) {
    return Sent::kBroken;
  }
  const auto* data = reinterpret_cast<const uint8_t*>(&message + 1);
  do {
    const uint32_t size = std::min(kWireDataMax, head.total - head.offset);
    const Sent sent = SendPacket(connection, head, data + head.offset, size, deadline);
    if (sent != Sent::kAll) return head.offset == 0 ? sent : Sent::kBroken;
    head.offset += size;
  } while (head.offset < head.total);
  return Sent::kAll;
}

uint32_t ReadAnswer(int connection, const Deadline& deadline) {
  uint32_t answer = kDmsErrLink;
  for (;;) {
    const ssize_t size = recv(connection, &answer, sizeof(answer), MSG_DONTWAIT | MSG_TRUNC);
    if (size == static_cast<ssize_t>(sizeof(answer))) break;
    if (size >= 0 || (errno != EAGAIN && errno != EINTR)) return kDmsErrLink;
    if (!SocketWait(connection, POLLIN, deadline)) return kDmsErrLink;
  }
  const bool known = answer == 0 || answer == kDmsErrRefused || answer == kDmsErrTooLong;
  return known ? answer : kDmsErrLink;
}

// The connection to one process; senders to it wait for each other.
class Link {
 public:
  uint32_t Send(const ProcAddr& peer, const MsgHead& message) {
    const std::lock_guard lock(mutex_);
    const bool kept = static_cast<bool>(connection_);
    uint32_t result = Exchange(peer, message);
    if (kept && result == kNothingTaken) result = Exchange(peer, message);
    return result == kNothingTaken ? kDmsErrLink : result;
  }

 private:
  static constexpr uint32_t kNothingTaken = UINT32_MAX;

  uint32_t Exchange(const ProcAddr& peer, const MsgHead& message) {
    const Deadline deadline(static_cast<uint32_t>(CfgNumber(kCfgDmsAnswerMs)));
    if (!connection_) {
      const uint32_t connected = SocketConnect(peer, deadline, connection_);
      if (connected != 0) return connected;
    }
    const Sent sent = SendMessage(connection_.get(), message, deadline);
    const uint32_t result = sent == Sent::kAll ? ReadAnswer(connection_.get(), deadline) : kDmsErrLink;
    if (result == kDmsErrLink) connection_.reset();  // a late answer must not be taken for the next one
    return sent == Sent::kNothing ? kNothingTaken : result;
  }

  std::mutex mutex_;
  base::UniqueFd connection_;
};

struct Links {
  std::mutex mutex;  // guards the map, never held during a send
  std::map<ProcAddr, std::shared_ptr<Link>> byProcess;
};

Links& AllLinks() {
  static base::NeverDestroyed<Links> links;
  return *links;
}

std::shared_ptr<Link> LinkOf(const ProcAddr& peer) {
  Links& links = AllLinks();
  const std::lock_guard lock(links.mutex);
  try {
    std::shared_ptr<Link>& link = links.byProcess[peer];
    if (link == nullptr) link = std::make_shared<Link>();
    return link;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

uint32_t LinkSend(const ProcAddr& peer, const MsgHead& message) {
  if (message.length > CfgNumber(kCfgDmsMessageBytes)) return kDmsErrTooLong;
  const std::shared_ptr<Link> link = LinkOf(peer);
  return link == nullptr ? kDmsErrLink : link->Send(peer, message);
}

void LinkDrop(const ProcAddr& peer) {
  Links& links = AllLinks();
  const std::lock_guard lock(links.mutex);
  links.byProcess.erase(peer);  // closed when the last sender that uses it has gone
}

}  // namespace velto

uint32_t DMS_MsgSend(uint32_t cpi, void* message) {
  velto::MsgHead* head = velto::MsgHeadOf(message);
  if (head == nullptr) return kDmsErrPara;
  velto::MsgPtr owned(message);
  if (!velto::IsCpi(cpi)) return kDmsErrPara;
  head->recvCid = cpi;
  const velto::Route route = velto::RouteOf(velto::CsiOf(cpi));
  switch (route.kind) {
    case velto::RouteKind::kLocal:
      return velto::RtfPost(std::move(owned), velto::Origin::kLocal);
    case velto::RouteKind::kPeer:
      return velto::LinkSend(route.peer, *head);
    case velto::RouteKind::kFarHost:
      return kDmsErrFarHost;
    case velto::RouteKind::kUnknown:
      break;
  }
  return kDmsErrNoAddr;
}
