#include "board_main/frame_router.h"

#include <string.h>

#include <iterator>
#include <set>
#include <utility>

#include "msg/msg_interface_public.h"

namespace board_main {
namespace {

constexpr char kNoProcess[] = "no process has the module";

bool IsFirst(const IPC_MSG_S& frame) {
  return (frame.number & kIpcFrameIndex) == 0;
}
bool IsLast(const IPC_MSG_S& frame) {
  return (frame.number & kIpcLastFrame) != 0;
}
/// What the frames of a message have in common.
std::pair<uint32_t, uint16_t> KeyOf(const IPC_MSG_S& frame) {
  return {frame.sourcePid, frame.sequence};
}

}  // namespace

FrameRouter::FrameRouter(const Registry& registry, SendFunc send, LossFunc loss, const RouterLimits& limits)
    : registry_(registry), send_(std::move(send)), loss_(std::move(loss)), limits_(limits) {}

Verdict FrameRouter::Take(const IPC_MSG_S& frame, uint32_t size, uint64_t nowMs) {
  if (size < kIpcFrameHead || size != frame.length + kIpcFrameHead)
    return Lose(frame, 0, 1, "its length is not its size");
  const Key key = KeyOf(frame);
  if (!IsFirst(frame)) {
    const auto found = routes_.find(key);
    if (found == routes_.end()) return Lose(frame, 0, 1, "its first frame did not come");
    const Verdict verdict = Forward(frame, found->second, nowMs);
    if (IsLast(frame)) routes_.erase(found);
    return verdict;
  }
  if (frame.length < kMsgHeadSize) return Lose(frame, 0, 1, "no header");
  tagMsgBuf head;
  memcpy(&head, frame.payload, sizeof(head));
  Route route = {Find(head.destination, frame.sourcePid), head.destination, nowMs};
  if (IsLast(frame)) {
    routes_.erase(key);  // the number is used again: the message that had it will not be finished
    return Forward(frame, route, nowMs);
  }
  if (routes_.size() >= limits_.routes && !routes_.contains(key))
    return Lose(frame, head.destination, 1, "too many unfinished messages");
  const auto entry = routes_.insert_or_assign(key, route).first;
  return Forward(frame, entry->second, nowMs);
}

FrameRouter::Target FrameRouter::Find(uint16_t destination, uint32_t sourcePid) const {
  if (IsMainModule(destination)) return {Target::kLocal, destination};
  if (IpcMapPlace(destination) == kIpcNoPlace) return {Target::kNowhere, destination};
  const RegisteredApp* app = registry_.FindByModule(destination);
  if (app == nullptr) return {Target::kModule, destination};
  // Its own process would not take it: that looks for its modules before it asks here.
  if (app->queue.pid == sourcePid) return {Target::kNowhere, destination};
  return {Target::kProcess, app->queue.pid};
}

Verdict FrameRouter::Forward(const IPC_MSG_S& frame, Route& route, uint64_t nowMs) {
  route.lastMs = nowMs;
  if (route.target.kind == Target::kLocal) return Verdict::kLocal;
  if (route.target.kind == Target::kNowhere)
    return IsFirst(frame) ? Lose(frame, route.destination, 1, kNoProcess) : Verdict::kDropped;
  if (route.target.kind == Target::kProcess && !lanes_.contains(route.target)) {
    const RegisteredApp* app = registry_.FindByPid(route.target.id);
    const SendOutcome outcome = app == nullptr ? SendOutcome::kGone : send_(app->queue, frame);
    if (outcome == SendOutcome::kSent) return Verdict::kRouted;
    if (outcome == SendOutcome::kGone) {
      DropMessage(frame, route, "its process is gone");
      return Verdict::kDropped;
    }
  }
  if (Keep(frame, route, nowMs)) return Verdict::kRouted;
  DropMessage(frame, route, "too many frames wait");
  return Verdict::kDropped;
}

bool FrameRouter::Keep(const IPC_MSG_S& frame, const Route& route, uint64_t nowMs) {
  if (kept_ >= limits_.allFrames) return false;
  Lane& lane = lanes_[route.target];
  if (lane.frames.size() >= limits_.laneFrames) return false;
  if (lane.frames.empty()) lane.progressMs = nowMs;
  lane.frames.push_back({frame, route.destination, nowMs});
  ++kept_;
  return true;
}

void FrameRouter::Retry(uint64_t nowMs) {
  for (auto lane = lanes_.begin(); lane != lanes_.end();) {
    const Target target = lane->first;
    const RegisteredApp* app =
        target.kind == Target::kModule ? registry_.FindByModule(static_cast<uint16_t>(target.id)) : nullptr;
    if (app != nullptr) {
      Adopt(target, app->queue.pid, nowMs);
      lane = lanes_.begin();  // the process's lane may stand before this one
      continue;
    }
    if (target.kind == Target::kModule) {
      DropOld(target, lane->second, nowMs);
    } else if (const char* why = Drain(target, lane->second, nowMs)) {
      DropLane(target, lane->second, why);
    } else if (!lane->second.frames.empty() && nowMs - lane->second.progressMs >= limits_.waitMs) {
      DropLane(target, lane->second, "its process does not read");
    }
    lane = lane->second.frames.empty() ? lanes_.erase(lane) : std::next(lane);
  }
  std::erase_if(routes_, [&](const auto& each) { return nowMs - each.second.lastMs >= limits_.waitMs; });
}

/// A module's frames go on behind those that wait for its process already. A process skips what comes from
/// itself: what it sent before it had the module is lost, which is to be seen.
void FrameRouter::Adopt(Target module, uint32_t pid, uint64_t nowMs) {
  const Target process = {Target::kProcess, pid};
  const Target nowhere = {Target::kNowhere, module.id};
  auto lane = lanes_.extract(module);
  std::deque<KeptFrame>& frames = lane.mapped().frames;
  const size_t own =
      std::erase_if(frames, [pid](const KeptFrame& kept) { return kept.frame.sourcePid == pid; });
  kept_ -= own;
  if (own != 0) loss_({pid, static_cast<uint16_t>(module.id), static_cast<uint32_t>(own), kNoProcess});
  Lane& to = lanes_[process];
  if (to.frames.empty()) to.progressMs = nowMs;
  to.frames.insert(to.frames.end(), frames.begin(), frames.end());
  for (auto& [key, route] : routes_) {
    if (route.target == module) route.target = key.first == pid ? nowhere : process;
  }
}

/// Sends what the destination takes. @return why the rest is lost; null when it is not
const char* FrameRouter::Drain(Target target, Lane& lane, uint64_t nowMs) {
  const RegisteredApp* app = registry_.FindByPid(target.id);
  if (app == nullptr) return "its process is gone";
  while (!lane.frames.empty()) {
    const SendOutcome outcome = send_(app->queue, lane.frames.front().frame);
    if (outcome == SendOutcome::kFull) break;
    if (outcome == SendOutcome::kGone) return "its queue is gone";
    lane.frames.pop_front();
    --kept_;
    lane.progressMs = nowMs;
  }
  return nullptr;
}

/// Drops the messages that have waited too long for a module; those that came later may still see it.
void FrameRouter::DropOld(Target module, Lane& lane, uint64_t nowMs) {
  std::set<Key> old;
  const size_t before = lane.frames.size();
  const KeptFrame first = lane.frames.front();
  while (!lane.frames.empty() && nowMs - lane.frames.front().sinceMs >= limits_.waitMs) {
    old.insert(KeyOf(lane.frames.front().frame));
    lane.frames.pop_front();
  }
  if (old.empty()) return;
  std::erase_if(lane.frames, [&](const KeptFrame& kept) { return old.contains(KeyOf(kept.frame)); });
  for (auto& [key, route] : routes_) {
    if (route.target == module && old.contains(key)) route.target = {Target::kNowhere, route.destination};
  }
  kept_ -= before - lane.frames.size();
  (void)Lose(first.frame, first.destination, static_cast<uint32_t>(before - lane.frames.size()), kNoProcess);
}

void FrameRouter::DropLane(Target target, Lane& lane, const char* why) {
  const KeptFrame& first = lane.frames.front();
  (void)Lose(first.frame, first.destination, static_cast<uint32_t>(lane.frames.size()), why);
  kept_ -= lane.frames.size();
  lane.frames.clear();
  for (auto& [key, route] : routes_) {
    if (route.target == target) route.target = {Target::kNowhere, route.destination};
  }
}

/// Drops `frame`, what waits of its message, and what is still to come of it.
void FrameRouter::DropMessage(const IPC_MSG_S& frame, Route& route, const char* why) {
  size_t waiting = 0;
  if (const auto lane = lanes_.find(route.target); lane != lanes_.end()) {
    waiting = std::erase_if(lane->second.frames,
                            [&](const KeptFrame& kept) { return KeyOf(kept.frame) == KeyOf(frame); });
    kept_ -= waiting;
    if (lane->second.frames.empty()) lanes_.erase(lane);
  }
  route.target = {Target::kNowhere, route.destination};
  (void)Lose(frame, route.destination, static_cast<uint32_t>(waiting) + 1, why);
}

Verdict FrameRouter::Lose(const IPC_MSG_S& frame, uint16_t destination, uint32_t frames, const char* why) {
  loss_({frame.sourcePid, destination, frames, why});
  return Verdict::kDropped;
}

size_t FrameRouter::KeptFor(uint32_t pid) const {
  const auto lane = lanes_.find({Target::kProcess, pid});
  return lane == lanes_.end() ? 0 : lane->second.frames.size();
}

size_t FrameRouter::KeptUnknown() const {
  size_t count = 0;
  for (const auto& [target, lane] : lanes_) {
    if (target.kind == Target::kModule) count += lane.frames.size();
  }
  return count;
}

}  // namespace board_main
