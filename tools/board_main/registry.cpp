#include "board_main/registry.h"

#include <string.h>

#include <algorithm>

namespace board_main {
namespace {

/// The text of a fixed field, empty when it has no end or holds anything but printable characters.
template <size_t Size>
std::string_view TextOf(const char (&field)[Size]) {
  const std::string_view text(field, strnlen(field, Size));
  const bool clean = text.size() < Size && std::all_of(text.begin(), text.end(),
                                                       [](unsigned char c) { return c >= ' ' && c < 0x7F; });
  return clean ? text : std::string_view();
}

bool Taken(const RegisteredApp& app) {
  return app.queue.pid != 0;
}

constexpr uint16_t IdAtPlace(size_t place) {
  return static_cast<uint16_t>(place < kIpcIdPlatformEnd ? place
                                                         : place - kIpcIdPlatformEnd + kIpcIdCompFirst);
}

}  // namespace

RegisterResult Registry::Register(const IpcRegisterMsg& record, std::span<const uint16_t> ids, uint64_t nowMs,
                                  std::vector<uint16_t>& refused) {
  if (record.version != kIpcMainMsgVersion) return kRegisterErrVersion;
  if (record.pid == 0 || record.pid > INT32_MAX || record.queueId > INT32_MAX || TextOf(record.name).empty())
    return kRegisterErrRecord;
  const size_t place = PlaceFor(record);
  if (place == apps_.size()) return kRegisterErrFull;
  RegisteredApp& app = apps_[place];
  app.queue = {record.queueId, record.pid, record.moduleId, record.semaphoreId};
  app.name = TextOf(record.name);
  app.version = TextOf(record.versionText);
  app.supervise = record.supervise != 0;
  app.appArmRestart = record.appArmRestart != 0;
  app.intervalMs = record.intervalMs;
  app.timeoutS = record.timeoutS;
  app.lastBeatMs = nowMs;
  app.beats = 0;
  Claim(place, ids, refused);
  return kRegistered;
}

/// Frees the places of those whom the newcomer replaces; its own is one of theirs, else the first free one.
size_t Registry::PlaceFor(const IpcRegisterMsg& record) {
  size_t replaced = apps_.size();
  for (size_t place = 0; place < apps_.size(); ++place) {
    const RegisteredApp& app = apps_[place];
    if (!Taken(app) || (app.queue.pid != record.pid && app.queue.queueId != record.queueId &&
                        app.name != TextOf(record.name))) {
      continue;
    }
    Release(place);
    replaced = std::min(replaced, place);
  }
  if (replaced != apps_.size()) return replaced;
  return static_cast<size_t>(std::find_if_not(apps_.begin(), apps_.end(), Taken) - apps_.begin());
}

void Registry::Release(size_t place) {
  apps_[place] = {};
  std::replace(map_.begin(), map_.end(), static_cast<uint8_t>(place), kIpcNoApp);
}

void Registry::Claim(size_t place, std::span<const uint16_t> ids, std::vector<uint16_t>& refused) {
  for (const uint16_t id : ids) {
    const uint32_t at = IpcMapPlace(id);
    if (at == kIpcNoPlace || IsMainModule(id) || (map_[at] != kIpcNoApp && map_[at] != place)) {
      refused.push_back(id);
    } else {
      map_[at] = static_cast<uint8_t>(place);
    }
  }
}

bool Registry::AddModules(uint32_t pid, std::span<const uint16_t> ids, std::vector<uint16_t>& refused) {
  const uint8_t place = PlaceOf(pid);
  if (place == kIpcNoApp) return false;
  Claim(place, ids, refused);
  return true;
}

bool Registry::RemoveModules(uint32_t pid, std::span<const uint16_t> ids, std::vector<uint16_t>& refused) {
  const uint8_t place = PlaceOf(pid);
  if (place == kIpcNoApp) return false;
  for (const uint16_t id : ids) {
    const uint32_t at = IpcMapPlace(id);
    if (at == kIpcNoPlace || map_[at] != place) {
      refused.push_back(id);
    } else {
      map_[at] = kIpcNoApp;
    }
  }
  return true;
}

bool Registry::Beat(uint32_t pid, uint32_t counter, uint64_t nowMs) {
  const uint8_t place = PlaceOf(pid);
  if (place == kIpcNoApp) return false;
  apps_[place].beats = counter;
  apps_[place].lastBeatMs = nowMs;
  return true;
}

void Registry::Drop(uint32_t pid) {
  const uint8_t place = PlaceOf(pid);
  if (place != kIpcNoApp) Release(place);
}

uint8_t Registry::PlaceOf(uint32_t pid) const {
  for (size_t place = 0; place < apps_.size(); ++place) {
    if (pid != 0 && apps_[place].queue.pid == pid) return static_cast<uint8_t>(place);
  }
  return kIpcNoApp;
}

const RegisteredApp* Registry::FindIf(const std::function<bool(const RegisteredApp&)>& matches) const {
  const auto found = std::find_if(apps_.begin(), apps_.end(),
                                  [&](const RegisteredApp& app) { return Taken(app) && matches(app); });
  return found == apps_.end() ? nullptr : &*found;
}

const RegisteredApp* Registry::FindByPid(uint32_t pid) const {
  return FindIf([pid](const RegisteredApp& app) { return app.queue.pid == pid; });
}

const RegisteredApp* Registry::FindByName(std::string_view name) const {
  return FindIf([name](const RegisteredApp& app) { return app.name == name; });
}

const RegisteredApp* Registry::FindByAppId(uint32_t appId) const {
  return FindIf([appId](const RegisteredApp& app) { return app.queue.moduleId == appId; });
}

const RegisteredApp* Registry::FindByModule(uint16_t moduleId) const {
  const uint32_t at = IpcMapPlace(moduleId);
  return at == kIpcNoPlace || map_[at] == kIpcNoApp ? nullptr : &apps_[map_[at]];
}

std::vector<RegisteredApp> Registry::Apps() const {
  std::vector<RegisteredApp> apps;
  std::copy_if(apps_.begin(), apps_.end(), std::back_inserter(apps), Taken);
  return apps;
}

std::vector<uint16_t> Registry::ModulesOf(uint32_t pid) const {
  std::vector<uint16_t> ids;
  const uint8_t place = PlaceOf(pid);
  for (size_t at = 0; place != kIpcNoApp && at < map_.size(); ++at) {
    if (map_[at] == place) ids.push_back(IdAtPlace(at));
  }
  return ids;
}

IpcAcknowledgeMsg Registry::Acknowledge(uint32_t mainPid, uint32_t pid) const {
  IpcAcknowledgeMsg msg = {};
  msg.version = kIpcMainMsgVersion;
  msg.mainPid = mainPid;
  msg.ownIndex = PlaceOf(pid);
  for (size_t place = 0; place < apps_.size(); ++place) {
    msg.apps[place] = apps_[place].queue;
    if (Taken(apps_[place])) ++msg.count;
  }
  static_assert(sizeof(msg.map) == sizeof(map_));
  std::copy(map_.begin(), map_.end(), msg.map);
  for (const uint16_t id : kMainModules) msg.map[IpcMapPlace(id)] = kIpcMainApp;
  return msg;
}

}  // namespace board_main
