/// Finds the process for each frame that reached the main queue, and keeps what cannot be handed on at once.
///
/// The header in the first frame names the destination; the frames after it follow by source process and
/// sequence number, to the same process even when the module moves meanwhile. Frames of one message never
/// overtake each other. A full destination gets a lane of its own, so it holds up nobody else; a module that
/// nobody has registered yet gets one too. Lanes are bounded in number and time, and what they lose is lost
/// by whole messages and reported. Single-threaded; times are the caller's.
#pragma once

#include <stdint.h>

#include <deque>
#include <functional>
#include <map>

#include "board_main/registry.h"
#include "msg/ipc_frame.h"

namespace board_main {

enum class SendOutcome : uint8_t {
  kSent,
  kFull,  ///< try again later
  kGone,  ///< its queue does not exist any more
};

enum class Verdict : uint8_t {
  kRouted,   ///< sent, or kept for later
  kLocal,    ///< for a module of the main process; the caller takes it
  kDropped,  ///< reported
};

/// What was lost, and why.
struct FrameLoss {
  uint32_t sourcePid;
  uint16_t destination;  ///< module id; 0 when the header was not seen
  uint32_t frames;
  const char* why;
};

struct RouterLimits {
  size_t laneFrames = 8192;  ///< of one destination: twice the longest message
  size_t allFrames = 16384;  ///< 64 MiB in all lanes
  size_t routes = 1024;      ///< messages whose last frame has not come yet
  uint64_t waitMs = 30000;   ///< of a process without any progress, and of each message whose module nobody
                             ///< has; a receiver gives a message up after the same time
};

class FrameRouter {
 public:
  using SendFunc = std::function<SendOutcome(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame)>;
  using LossFunc = std::function<void(const FrameLoss&)>;

  /// `registry` outlives the router. `send` never waits.
  FrameRouter(const Registry& registry, SendFunc send, LossFunc loss, const RouterLimits& limits = {});

  /// `size` is what msgrcv(2) returned.
  [[nodiscard]] Verdict Take(const IPC_MSG_S& frame, uint32_t size, uint64_t nowMs);
  /// Tries the kept frames again and drops those whose time has passed. After each change of the registry,
  /// and every few milliseconds while Kept() is not 0.
  void Retry(uint64_t nowMs);

  [[nodiscard]] size_t Kept() const { return kept_; }
  [[nodiscard]] size_t KeptFor(uint32_t pid) const;  ///< for a full destination
  [[nodiscard]] size_t KeptUnknown() const;          ///< for modules that nobody has

 private:
  /// Where the frames of a message go: a process, or a module that is still to be found.
  struct Target {
    enum Kind : uint8_t { kProcess, kModule, kLocal, kNowhere } kind = kNowhere;
    uint32_t id = 0;  ///< process id, or module id
    bool operator<(const Target& other) const {
      return kind != other.kind ? kind < other.kind : id < other.id;
    }
    bool operator==(const Target& other) const { return kind == other.kind && id == other.id; }
  };
  struct Route {
    Target target;
    uint16_t destination;
    uint64_t lastMs;
  };
  struct KeptFrame {
    IPC_MSG_S frame;
    uint16_t destination;
    uint64_t sinceMs;
  };
  struct Lane {
    std::deque<KeptFrame> frames;
    uint64_t progressMs = 0;  ///< its first frame came, or one was sent
  };
  using Key = std::pair<uint32_t, uint16_t>;

  [[nodiscard]] Target Find(uint16_t destination, uint32_t sourcePid) const;
  [[nodiscard]] Verdict Forward(const IPC_MSG_S& frame, Route& route, uint64_t nowMs);
  [[nodiscard]] bool Keep(const IPC_MSG_S& frame, const Route& route, uint64_t nowMs);
  void Adopt(Target module, uint32_t pid, uint64_t nowMs);
  [[nodiscard]] const char* Drain(Target target, Lane& lane, uint64_t nowMs);
  void DropOld(Target module, Lane& lane, uint64_t nowMs);
  void DropLane(Target target, Lane& lane, const char* why);
  void DropMessage(const IPC_MSG_S& frame, Route& route, const char* why);
  Verdict Lose(const IPC_MSG_S& frame, uint16_t destination, uint32_t frames, const char* why);

  const Registry& registry_;
  SendFunc send_;
  LossFunc loss_;
  RouterLimits limits_;
  std::map<Key, Route> routes_;
  std::map<Target, Lane> lanes_;
  size_t kept_ = 0;
};

}  // namespace board_main
