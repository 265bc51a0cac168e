// Receiving: one task serves the process's socket and all its connections.
//
// A message that cannot be delivered is known to be so at its first packet; its data are then read and
// dropped, and the answer says why. A peer that breaks the form, sends more than is read for it, or falls
// silent within a message loses its connection and nothing else happens.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

#include "base/never_destroyed.h"
#include "securec.h"
#include "velto/dms_socket.h"
#include "velto/dms_wire.h"
#include "velto/kel_cfg_table.h"
#include "velto/kel_task.h"

namespace velto {
namespace {

constexpr size_t kConnectionMax = 64;
constexpr uint64_t kAssemblyMessages =
    4;  // longest messages' worth of memory for all that is being put together
constexpr uint32_t kTaskPriority = 20;
constexpr int kAcceptPauseMs = 100;

struct Connection {
  base::UniqueFd fd;
  uint64_t lastUse = 0;  // round of its last packet
  bool inMessage = false;
  WireHead first{};  // of the message in hand, as are all below
  uint32_t filled = 0;
  uint32_t verdict = 0;
  MsgPtr message;  // none when the data are dropped
  Deadline silence = Deadline::Never();
};

class Receiver {
 public:
  explicit Receiver(base::UniqueFd listener) : listener_(std::move(listener)) {}

  [[noreturn]] void Serve();

 private:
  int FillPolled(bool withListener);
  bool Accept();
  bool MakeRoom();
  bool TakePacket(Connection& connection);
  bool Begin(Connection& connection, const WireHead& head);
  bool Finish(Connection& connection);
  MsgPtr NewMessage(const WireHead& head) const;
  [[nodiscard]] uint64_t AssemblyBytes() const;

  base::UniqueFd listener_;
  std::vector<Connection> connections_;
  std::vector<pollfd> polled_;  // connections_ in their order, then the listener
  uint64_t round_ = 0;
  uint8_t packet_[kWirePacketMax];
};

// Sets up polled_ and gives the longest sleep.
int Receiver::FillPolled(bool withListener) {
  polled_.clear();
  int timeout = withListener ? -1 : kAcceptPauseMs;
  for (const Connection& connection : connections_) {
    polled_.push_back({connection.fd.get(), POLLIN, 0});
    if (connection.inMessage) timeout = kPollSliceMs;
  }
  if (withListener) polled_.push_back({listener_.get(), POLLIN, 0});
  return timeout;
}

void Receiver::Serve() {
  connections_.reserve(kConnectionMax);
  polled_.reserve(kConnectionMax + 1);
  bool accepting = true;
  for (;;) {
    const int timeout = FillPolled(accepting);
    const bool listening = accepting;
    accepting = true;
    if (poll(polled_.data(), polled_.size(), timeout) < 0) continue;  // EINTR, or a moment without memory
    ++round_;
    for (size_t i = 0; i < connections_.size(); ++i) {
      Connection& connection = connections_[i];
      const bool kept = polled_[i].revents == 0 || TakePacket(connection);
      if (!kept || (connection.inMessage && connection.silence.Passed())) connection.fd.reset();
    }
    const bool waiting = listening && polled_.back().revents != 0;
    std::erase_if(connections_, [](const Connection& connection) { return !connection.fd; });
    if (waiting) accepting = Accept();
  }
}

// False when the system has no descriptor to spare: then it is asked again a little later.
bool Receiver::Accept() {
  base::UniqueFd accepted = SocketAccept(listener_.get());
  if (!accepted) return errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM;
  if (connections_.size() >= kConnectionMax && !MakeRoom()) return true;
  Connection& connection = connections_.emplace_back();
  connection.fd = std::move(accepted);
  connection.lastUse = round_;
  return true;
}

// Closes the connection that was idle longest; its peer connects again with its next message.
bool Receiver::MakeRoom() {
  const auto older = [](const Connection& a, const Connection& b) {
    return a.inMessage != b.inMessage ? b.inMessage : a.lastUse < b.lastUse;
  };
  const auto oldest = std::min_element(connections_.begin(), connections_.end(), older);
  if (oldest->inMessage) return false;
  connections_.erase(oldest);
  return true;
}

uint64_t Receiver::AssemblyBytes() const {
  uint64_t bytes = 0;
  for (const Connection& connection : connections_) {
    if (connection.message != nullptr) bytes += connection.first.total;
  }
  return bytes;
}

MsgPtr Receiver::NewMessage(const WireHead& head) const {
  const uint64_t room = CfgNumber(kCfgDmsMessageBytes) * kAssemblyMessages;
  if (AssemblyBytes() + head.total > room) return nullptr;
  MsgPtr message(DMS_MsgAlloc(head.sendCid, head.total));
  if (message == nullptr) return nullptr;
  MsgHead* made = MsgHeadOf(message.get());
  made->messageId = head.messageId;
  made->recvCid = head.recvCpi;
  made->priority = head.priority;
  return memcpy_s(made->reserved, sizeof(made->reserved), head.reserved, sizeof(head.reserved)) == EOK
             ? std::move(message)
             : nullptr;
}

bool Receiver::Begin(Connection& connection, const WireHead& head) {
  if (head.magic != kWireMagic || head.offset != 0 || head.priority > UINT8_MAX || head.zero != 0)
    return false;
  connection.inMessage = true;
  connection.first = head;
  connection.filled = 0;
  connection.verdict = 0;
  if (head.total > CfgNumber(kCfgDmsMessageBytes)) {
    connection.verdict = kDmsErrTooLong;
  } else if (!IsCpi(head.recvCpi) || !RtfTakes(CsiOf(head.recvCpi))) {
    connection.verdict = kDmsErrRefused;
  } else {
    connection.message = NewMessage(head);
    if (connection.message == nullptr) connection.verdict = kDmsErrRefused;
  }
  return true;
}

// False when the connection has to be closed.
bool Receiver::TakePacket(Connection& connection) {
  const ssize_t size = recv(connection.fd.get(), packet_, sizeof(packet_), MSG_DONTWAIT | MSG_TRUNC);
  if (size < 0) return errno == EAGAIN || errno == EINTR;
  WireHead head;
  if (size < static_cast<ssize_t>(sizeof(head)) || size > static_cast<ssize_t>(sizeof(packet_)) ||
      memcpy_s(&head, sizeof(head), packet_, sizeof(head)) != EOK) {
    return false;
  }
  connection.lastUse = round_;
  if (!connection.inMessage) {
    if (!Begin(connection, head)) return false;
  } else {
    connection.first.offset = connection.filled;
    if (memcmp(&connection.first, &head, sizeof(head)) != 0) return false;
  }
  const uint32_t length = static_cast<uint32_t>(size) - static_cast<uint32_t>(sizeof(head));
  const uint32_t left = head.total - connection.filled;
  if (length != std::min(kWireDataMax, left)) return false;
  if (connection.message != nullptr && length != 0) {
    uint8_t* data = static_cast<uint8_t*>(connection.message.get()) + connection.filled;
    if (memcpy_s(data, left, packet_ + sizeof(head), length) != EOK) return false;
  }
  connection.filled += length;
  connection.silence = Deadline(static_cast<uint32_t>(CfgNumber(kCfgDmsAnswerMs)));
  return connection.filled < head.total || Finish(connection);
}

bool Receiver::Finish(Connection& connection) {
  uint32_t verdict = connection.verdict;
  if (connection.message != nullptr && RtfPost(std::move(connection.message), Origin::kPeer) != 0) {
    verdict = kDmsErrRefused;
  }
  connection.inMessage = false;
  return send(connection.fd.get(), &verdict, sizeof(verdict), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(sizeof(verdict));
}

struct ReceiverState {
  std::mutex mutex;  // guards both
  std::unique_ptr<Receiver> receiver;
  bool started = false;
};

ReceiverState& State() {
  static base::NeverDestroyed<ReceiverState> state;
  return *state;
}

void TaskEntry(uintptr_t receiver, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<Receiver*>(receiver)->Serve();
}

}  // namespace

uint32_t ReceiverBind() {
  ReceiverState& state = State();
  const std::lock_guard lock(state.mutex);
  const std::optional<ProcAddr> own = LocalAddr();
  if (state.receiver != nullptr || !own) return 0;
  base::UniqueFd listener;
  const uint32_t bound = SocketBind(*own, listener);
  if (bound != 0) return bound;
  state.receiver.reset(new (std::nothrow) Receiver(std::move(listener)));
  if (state.receiver == nullptr) return kDmsErrSocket;
  LocalAddrSeal();
  return 0;
}

uint32_t ReceiverStart() {
  ReceiverState& state = State();
  const std::lock_guard lock(state.mutex);
  if (state.receiver == nullptr || state.started) return 0;
  uint32_t taskId = 0;
  const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(state.receiver.get()), 0, 0, 0};
  const uint32_t result = KEL_TaskCreate("DMSRECV", &taskId, TaskEntry, kTaskPriority, 0, 0, args);
  state.started = result == 0;
  return result;
}

}  // namespace velto
