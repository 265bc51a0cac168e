#include "board_main/authorisation.h"

#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "board_main/registry.h"
#include "board_main/requester_comp.h"
#include "log/run_log.h"
#include "update/exe_script_proxy.h"
#include "update/script_exe_messages.h"

namespace board_main {
namespace {

using board_link::Authorisation;

constexpr uint16_t kGranted = 0;
constexpr uint16_t kRefused = 1;
constexpr size_t kHeldMax = 16;

struct Desk {
  std::mutex mutex;
  std::map<uint32_t, Authorisation> announced;  ///< by task
  std::deque<uint16_t> held;                    ///< sequence numbers
};

Desk& TheDesk() {
  static Desk desk;
  return desk;
}

Authorisation AnswerFor(uint32_t taskId, uint16_t seqNo) {
  Desk& desk = TheDesk();
  const std::lock_guard lock(desk.mutex);
  const auto found = desk.announced.find(taskId);
  if (found == desk.announced.end()) return Authorisation::kRefuse;
  if (found->second != Authorisation::kHold) return found->second;
  if (desk.held.size() >= kHeldMax) return Authorisation::kRefuse;
  desk.held.push_back(seqNo);
  return Authorisation::kHold;
}

void Answer(uint16_t seqNo, uint16_t result) {
  const uint32_t sent = SendUpdateAuthReplyMsg(kRequesterCompId, seqNo, result);
  LOG_EVT(kAuthModule, "auth seq:%u answered:%u sent:%#x", seqNo, result, sent);
}

}  // namespace

AuthAnnouncement::AuthAnnouncement(uint32_t taskId, Authorisation answer) : taskId_(taskId) {
  Desk& desk = TheDesk();
  const std::lock_guard lock(desk.mutex);
  desk.announced.insert_or_assign(taskId, answer);
}

AuthAnnouncement::~AuthAnnouncement() {
  Desk& desk = TheDesk();
  const std::lock_guard lock(desk.mutex);
  desk.announced.erase(taskId_);
}

void AuthQuestion(const uint8_t* data, uint32_t length, uint16_t seqNo) {
  TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData question;
  if (question.ParseFromMsg(data, length) != 0) {
    LOG_ERR(kAuthModule, "auth seq:%u garbled", seqNo);
    return;
  }
  switch (AnswerFor(question.requesterTaskId, seqNo)) {
    case Authorisation::kGrant:  // the proxy that waits for the question grants it; for another nobody does
      if (ProcUpdateAuthReqMsg(data, length, seqNo) != 0) Answer(seqNo, kRefused);
      break;
    case Authorisation::kHold:
      LOG_EVT(kAuthModule, "auth seq:%u held", seqNo);
      break;
    case Authorisation::kRefuse:
      Answer(seqNo, kRefused);
      break;
  }
}

uint32_t AuthRelease() {
  std::deque<uint16_t> held;
  {
    Desk& desk = TheDesk();
    const std::lock_guard lock(desk.mutex);
    held = std::exchange(desk.held, {});
  }
  for (const uint16_t seqNo : held) Answer(seqNo, kGranted);
  return static_cast<uint32_t>(held.size());
}

uint32_t AuthHeld() {
  Desk& desk = TheDesk();
  const std::lock_guard lock(desk.mutex);
  return static_cast<uint32_t>(desk.held.size());
}

}  // namespace board_main
