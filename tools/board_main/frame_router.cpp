#include "board_main/frame_router.h"

#include <string.h>

#include <iterator>
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

}  // namespace

FrameRouter::FrameRouter(const Registry& registry, SendFunc send, LossFunc loss, const RouterLimits& limits)
    : registry_(registry), send_(std::move(send)), loss_(std::move(loss)), limits_(limits) {}

Verdict FrameRouter::Take(const IPC_MSG_S& frame, uint32_t size, uint64_t nowMs) {
  if (size < kIpcFrameHead || size != frame.length + kIpcFrameHead)
    return Lose(frame, 0, 1, "its length is not its size");
  const Key key = {frame.sourcePid, frame.sequence};
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
  lane.frames.push_back({frame, route.destination});
  ++kept_;
  return true;
}

void FrameRouter::Retry(uint64_t nowMs) {
  for (auto lane = lanes_.begin(); lane != lanes_.end();) {
    const Target target = lane->first;
    const RegisteredApp* app =
        target.kind == Target::kModule ? registry_.FindByModule(static_cast<uint16_t>(target.id)) : nullptr;
    if (app != nullptr) {
      Adopt(target, app->queue.pid);
      lane = lanes_.begin();  // the process's lane may stand before this one
      continue;
    }
    const char* why = target.kind == Target::kProcess ? Drain(target, lane->second, nowMs) : nullptr;
    if (why == nullptr && !lane->second.frames.empty() && nowMs - lane->second.progressMs >= limits_.waitMs)
      why = target.kind == Target::kProcess ? "its process does not read" : kNoProcess;
    if (why != nullptr) DropLane(target, lane->second, why);
    lane = lane->second.frames.empty() ? lanes_.erase(lane) : std::next(lane);
  }
  std::erase_if(routes_, [&](const auto& each) { return nowMs - each.second.lastMs >= limits_.waitMs; });
}

/// A module's frames go on behind those that wait for its process already.
void FrameRouter::Adopt(Target module, uint32_t pid) {
  const Target process = {Target::kProcess, pid};
  auto waiting = lanes_.extract(module);
  Lane& lane = lanes_[process];
  if (lane.frames.empty()) lane.progressMs = waiting.mapped().progressMs;
  lane.frames.insert(lane.frames.end(), waiting.mapped().frames.begin(), waiting.mapped().frames.end());
  for (auto& [key, route] : routes_) {
    if (route.target == module) route.target = process;
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
    waiting = std::erase_if(lane->second.frames, [&](const KeptFrame& kept) {
      return kept.frame.sourcePid == frame.sourcePid && kept.frame.sequence == frame.sequence;
    });
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
