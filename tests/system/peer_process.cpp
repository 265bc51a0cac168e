/// A feature process for the system tests: the frame under a name of its own, and in place of a component one
/// task that exchanges messages with its twin and compares every byte of them.
///
/// Files in /run steer it: "exchange" starts the exchange, "exchange.stop" ends it, "<name>.stick" stops the
/// task's heart beat, "<name>.fill" uses up the memory, "<name>.map" asks for its memory map. How it stands
/// is one line in "/log/<name>.result".

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "fault/box.h"
#include "fault/feature_fault_manager.h"
#include "frame/feature_identity.h"
#include "frame/feature_process.h"
#include "log/run_log.h"
#include "msg/heart_beat_manager.h"
#include "support/platform_msg.h"
#include "velto/kel_task.h"

namespace {

constexpr char kName[] = PEER_NAME;
constexpr uint16_t kModule = PEER_MODULE;
constexpr uint16_t kOwn = PEER_MODULE + 1;  ///< of the task
constexpr uint16_t kTwin = PEER_TWIN + 1;

constexpr uint32_t kEventMsg = 1;
constexpr uint32_t kQueueLength = 64;
constexpr uint32_t kTurnMs = 20;
constexpr uint16_t kHeartBeatS = 60;
constexpr uint16_t kMemoryPercent = 90;

// Message types; the sub-type is a number of the sender's.
constexpr uint16_t kData = 0x5001;
constexpr uint16_t kDataBack = 0x5002;  ///< the data came, once and without a fault

constexpr uint32_t kSizes[] = {0, 4064, 4065, 65538, 16777215};
constexpr uint32_t kWindow = 4;  ///< messages that are not answered yet: far fewer than the queue holds
constexpr uint32_t kMost = 60000;

uint32_t SizeOf(uint16_t number) {
  return kSizes[number % std::size(kSizes)];
}

/// Bytes that no other message and no other place of this one has.
std::vector<uint64_t> ContentOf(uint16_t sender, uint16_t number) {
  std::vector<uint64_t> words(SizeOf(number) / sizeof(uint64_t) + 1);
  uint64_t word = (uint64_t{sender} << 32 | number) * 0x9E3779B97F4A7C15U;
  for (uint64_t& each : words) each = word += 0xD1B54A32D192ED03U;
  return words;
}

bool FileIsThere(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

class Exchange {
 public:
  [[noreturn]] void Run();

 private:
  void Take(const tagMsgBuf& msg);
  void SendMore();
  void ObeyFiles() const;
  void Report() const;
  /// Sends until the message is taken: what was refused has not arrived.
  static void Send(uint16_t type, uint16_t number, const void* data, uint32_t length);

  uint32_t sent_ = 0;
  uint32_t answered_ = 0;
  uint32_t wrong_ = 0;  ///< messages and answers that came twice, changed or unasked
  std::vector<bool> came_ = std::vector<bool>(kMost);
  std::vector<bool> back_ = std::vector<bool>(kMost);
};

void Exchange::Send(uint16_t type, uint16_t number, const void* data, uint32_t length) {
  for (;;) {
    support::MsgPtr msg(TOLA_MsgAlloc(kOwn, type, number, length));
    if (msg != nullptr) {
      if (length != 0) memcpy(TolaMsgData(msg.get()), data, length);
      if (TOLA_MsgPost(kTwin, msg.get(), 1) == 0) return (void)msg.release();
    }
    (void)TOLA_SendThreadHeartBeat();
    KEL_TaskDelay(kTurnMs);
  }
}

void Exchange::Take(const tagMsgBuf& msg) {
  const uint16_t number = msg.subType;
  const bool isData = msg.type == kData;
  std::vector<bool>& known = isData ? came_ : back_;
  bool isGood = msg.source == kTwin && msg.destination == kOwn && number < (isData ? kMost : sent_) &&
                !known[number] && GetTolaMsgLen(&msg) == (isData ? SizeOf(number) : 0);
  if (isData)
    isGood = isGood && memcmp(TolaMsgData(&msg), ContentOf(kTwin, number).data(), SizeOf(number)) == 0;
  if (!isGood) return (void)++wrong_;
  known[number] = true;
  if (isData) return Send(kDataBack, number, nullptr, 0);
  ++answered_;
}

void Exchange::SendMore() {
  while (sent_ - answered_ < kWindow && sent_ < kMost) {
    const auto number = static_cast<uint16_t>(sent_++);
    Send(kData, number, ContentOf(kOwn, number).data(), SizeOf(number));
  }
}

void Exchange::ObeyFiles() const {
  const std::string own = std::string("/run/") + kName;
  if (unlink((own + ".fill").c_str()) == 0) {
    uint32_t handle = 0;
    if (KEL_HandleInitialize("fill", &handle) != 0) _exit(1);
    while (KEL_MemGetFreeSize() > KEL_MemGetTotalSize() / 20) {
      if (KEL_MEM_ALLOC(handle, 1024 * 1024) == nullptr) break;  // is never given back
    }
  }
  if (unlink((own + ".map").c_str()) == 0) {  // as its box does when it may not read the map itself
    const std::string command =
        "cat /proc/" + std::to_string(getpid()) + "/maps >> /log/root_log/" + kName + ".map.tmp";
    (void)SendSystemCmdExecMsg(command.c_str(), static_cast<uint16_t>(command.size() + 1), 0);
  }
  if (unlink((own + ".stick").c_str()) == 0) {
    uint32_t received = 0;
    for (;;) (void)KEL_EventRead(2, &received, kKelEventAny, KEL_WAIT_FOREVER);
  }
}

void Exchange::Report() const {
  const std::string path = std::string("/log/") + kName + ".result";
  const bool isDone = FileIsThere("/run/exchange.stop") && answered_ == sent_;
  std::ofstream(path + ".new") << (isDone ? "done" : "runs") << " sent " << sent_ << " answered " << answered_
                               << " wrong " << wrong_ << "\n";
  (void)rename((path + ".new").c_str(), path.c_str());  // whoever reads it reads a whole line
}

void Exchange::Run() {
  for (;;) {
    uint32_t received = 0;
    (void)KEL_EventRead(kEventMsg, &received, kKelEventAny, kTurnMs);  // a turn without a message is one, too
    tagMsgBuf* msg = nullptr;
    while (TOLA_MsgRecv(kOwn, &msg, 0) == 0) {
      Take(*msg);
      TOLA_MsgFree(msg);
    }
    (void)TOLA_SendThreadHeartBeat();
    ObeyFiles();
    if (!FileIsThere("/run/exchange")) continue;
    if (!FileIsThere("/run/exchange.stop")) SendMore();
    Report();
  }
}

void RunTask(uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
  uint32_t self = 0;
  if (KEL_TaskCurrentIdGet(&self) != 0 || TOLA_RegThreadHeartBeat(kHeartBeatS, 0) != 0 ||
      TOLA_MsgModuleRegister(kOwn, self, kEventMsg, kQueueLength) != 0) {
    LOG_ERR(kModule, "peer task cannot start");
    return;
  }
  Exchange().Run();
}

uint32_t StartTask(TOLA_COMP_REG_BLOCK_S* /*no components*/) {
  const uint32_t result = TOLA_CfgProcessMemThreshold(kMemoryPercent, kName);
  if (result != 0) return result;
  uint32_t taskId = 0;
  return KEL_TaskCreate("PEER", &taskId, RunTask, 20, 0, 0, nullptr);
}

}  // namespace

const FeatureIdentity g_featureIdentity = {kName, kModule, StartTask};

int main(int /*argc*/, char** argv) {
  return static_cast<int>(TolaOsFeatureProcessMain(argv[0], PEER_NAME "_main"));
}
