#include "board_main/supervisor.h"

#include <signal.h>
#include <string.h>

#include <string_view>
#include <utility>

namespace board_main {
namespace {

constexpr uint64_t kTermWaitMs = 2000;
constexpr uint64_t kMsPerS = 1000;

uint64_t TimeoutMs(const RegisteredApp& app) {
  return app.supervise ? app.timeoutS * kMsPerS : 0;
}

bool IsSilent(const RegisteredApp& app, uint64_t nowMs) {
  return TimeoutMs(app) != 0 && nowMs - app.lastBeatMs >= TimeoutMs(app);
}

}  // namespace

void Supervisor::Registered(const std::string& name, const ProcessImage& image) {
  known_[static_cast<uint32_t>(image.pid)] = {image, false};
  pending_.remove_if([&](const Pending& pending) { return pending.name == name && !pending.ending; });
}

bool Supervisor::IsEnding(const ProcessImage& image) const {
  for (const Pending& pending : pending_) {
    if (pending.ending && pending.image.pid == image.pid && pending.image.startTicks == image.startTicks)
      return true;
  }
  return false;
}

bool Supervisor::IsHeld(const IpcRegisterMsg& record) const {
  const std::string_view name(record.name, strnlen(record.name, sizeof(record.name)));
  for (const RegisteredApp* app : {registry_.FindByPid(record.pid), registry_.FindByName(name)}) {
    if (app == nullptr || app->queue.queueId == record.queueId) continue;
    const auto known = known_.find(app->queue.pid);
    if (known != known_.end() && actions_.alive(known->second.image) && actions_.confirmed(*app)) return true;
  }
  return false;
}

bool Supervisor::Restart(uint32_t pid, uint64_t nowMs) {
  const RegisteredApp* app = registry_.FindByPid(pid);
  const auto known = known_.find(pid);
  if (app == nullptr || known == known_.end() || !actions_.confirmed(*app)) return false;
  actions_.report(app->name, "is ended and started again");
  actions_.signal(known->second.image, SIGTERM);
  pending_.push_back({app->name, known->second.image, true, nowMs + kTermWaitMs, TimeoutMs(*app)});
  known_.erase(known);
  registry_.Drop(pid);
  return true;
}

bool Supervisor::Step(uint64_t nowMs) {
  bool changed = false;
  const std::set<uint32_t> silentBefore = std::exchange(silent_, {});
  std::erase_if(known_, [&](const auto& each) { return registry_.FindByPid(each.first) == nullptr; });
  for (const RegisteredApp& app : registry_.Apps()) {
    const auto known = known_.find(app.queue.pid);
    if (known != known_.end() && !known->second.confirmed) known->second.confirmed = actions_.confirmed(app);
    if (known != known_.end() && actions_.alive(known->second.image)) {
      if (IsSilent(app, nowMs)) silent_.insert(app.queue.pid);
      if (IsSilent(app, nowMs) && silentBefore.contains(app.queue.pid)) {
        actions_.report(app.name, "sends no heart beat");
        changed = true;
        if (!Restart(app.queue.pid, nowMs)) registry_.Drop(app.queue.pid);
      }
      continue;
    }
    actions_.report(app.name, "has gone");
    if (TimeoutMs(app) != 0 && known != known_.end() && known->second.confirmed) {
      const uint64_t timeoutMs = TimeoutMs(app);
      pending_.push_back({app.name, known->second.image, false, app.lastBeatMs + timeoutMs, timeoutMs});
    }
    if (known != known_.end()) known_.erase(known);
    registry_.Drop(app.queue.pid);
    changed = true;
  }
  StepPending(nowMs);
  return changed;
}

void Supervisor::StepPending(uint64_t nowMs) {
  for (auto pending = pending_.begin(); pending != pending_.end();) {
    bool done = false;
    if (pending->ending && actions_.alive(pending->image)) {
      if (nowMs >= pending->atMs) actions_.signal(pending->image, SIGKILL);
    } else if (pending->ending || nowMs >= pending->atMs) {
      done = Start(*pending, nowMs);
    }
    pending = done ? pending_.erase(pending) : std::next(pending);
  }
}

/// @return whether this start was the last
bool Supervisor::Start(Pending& pending, uint64_t nowMs) {
  if (registry_.FindByName(pending.name) != nullptr) return true;
  actions_.report(pending.name,
                  actions_.start(pending.name, pending.image) ? "was started" : "could not be started");
  pending.ending = false;
  pending.atMs = nowMs + pending.againMs;
  return pending.againMs == 0;
}

}  // namespace board_main
