/// The main control loop's manager and the notifications to the modules that share the loop.
#include "msg/mcl_manager.h"

#include <string.h>

#include <algorithm>
#include <new>
#include <span>

#include "base/result_codes.h"
#include "log/run_log.h"
#include "msg/process_msg_manager.h"
#include "velto/kel_cfg.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr const char* kDefaultName = "MCLTASK";
constexpr uint32_t kPriority = 15;
constexpr uint64_t kDefaultStackSize = 0x40000;
constexpr uint16_t kHeartBeatTimeoutS = 600;
constexpr uint32_t kWaitPeriodS = 100;

std::atomic<uint32_t> g_initEnd{0};
std::atomic<CMclManager*> g_manager{nullptr};  ///< lives as long as the process, as its task does

uint32_t StackSize() {
  uint64_t size = kDefaultStackSize;
  (void)KEL_CfgNumberGet("task.stack_bytes", &size);  // the default stays without it
  return static_cast<uint32_t>(size);
}

/// Both of what a registration needs; a failure is logged.
uint32_t EnsureLoop(const char* name, CMclManager** manager) {
  *manager = CMclManager::GetInstance();
  const uint32_t ret = *manager != nullptr ? (*manager)->MclTaskCreate(name) : kMclErrManager;
  if (ret != kSuccess) LOG_ERR(kLogModule, "MCL TASK init err:0x%x", ret);
  return ret;
}

/// The modules of the loop at one moment, with the numbers of the notifications that tell of it.
struct Listing {
  std::array<uint16_t, kMclModules> modules;
  uint16_t count;
  uint16_t sequence;
};

/// Message for `to`: how many other modules there are, and which. Null without memory.
tagMsgBuf* MakeNotification(const Listing& listing, uint16_t to, uint16_t sequence) {
  std::array<uint16_t, kMclModules> data{};
  uint16_t others = 0;
  for (const uint16_t id : listing.modules) {
    if (id != 0 && id != to) data[++others] = id;
  }
  data[0] = others;
  const auto length = static_cast<uint32_t>((others + 1u) * sizeof(uint16_t));
  tagMsgBuf* msg = TOLA_MsgAlloc(kMclModule, kMclNotifyType, sequence, length);
  if (msg != nullptr) memcpy(TolaMsgData(msg), data.data(), length);
  return msg;
}

/// Tells every module of the list. kept: the first that cannot be told ends it.
void TellModules(const Listing& listing) {
  if (listing.count < 2) return;
  uint16_t sequence = listing.sequence;
  for (const uint16_t id : listing.modules) {
    if (id == 0) continue;
    tagMsgBuf* msg = MakeNotification(listing, id, sequence++);
    bool taken = false;
    const uint32_t ret = MsgPost(id, msg, false, &taken);
    if (!taken) TOLA_MsgFree(msg);
    if (ret != kSuccess) return;
  }
}

}  // namespace

CMclManager* CMclManager::GetInstance() {
  static std::mutex making;
  const std::lock_guard lock(making);
  CMclManager* manager = g_manager.load(std::memory_order_acquire);
  if (manager == nullptr) {
    manager = new (std::nothrow) CMclManager;
    g_manager.store(manager, std::memory_order_release);
  }
  return manager;
}

uint32_t CMclManager::MclTaskCreate(const char* name) {
  if (name == nullptr || strnlen(name, kTaskManagerNameMax + 1) > kTaskManagerNameMax) return kMclErrName;
  const std::lock_guard lock(createLock_);
  if (task_.TaskId() != kTaskManagerNoTask) return kSuccess;
  uint32_t caller = 0;
  if (KEL_TaskCurrentIdGet(&caller) != 0) caller = kTaskManagerNoTask;
  mainTaskId_.store(caller, std::memory_order_relaxed);
  const RegToTaskManagerModuleInfo info{.name = name,
                                        .priority = kPriority,
                                        .stackSize = StackSize(),
                                        .argument = 0,
                                        .owner = &task_,
                                        .ready = &g_initEnd,
                                        .heartBeatTimeoutS = kHeartBeatTimeoutS,
                                        .waitPeriodS = kWaitPeriodS,
                                        .usedEvents = 0};
  return task_.Init(&info);
}

uint32_t CMclManager::RegEvent(uint32_t eventBit, TaskEventFunc callback, uint32_t* taskId) {
  if (taskId == nullptr) return kFailure;
  *taskId = task_.TaskId();
  return task_.RegEventFuncToTask(eventBit, callback, nullptr);
}

uint32_t CMclManager::RegModuleId(uint16_t moduleId) {
  if (moduleId == 0) return kFailure;  // it would look like a free slot
  Listing listing{};
  {
    const std::lock_guard lock(listLock_);
    if (std::ranges::find(modules_, moduleId) != modules_.end()) return kSuccess;
    const auto slot = std::ranges::find(modules_, 0);
    if (slot == modules_.end()) return kFailure;
    *slot = moduleId;
    ++count_;
    listing = {modules_, count_, notifySequence_};
    // Numbered with the list in hand: of two lists that cross on their way the later one has the higher
    // number.
    if (count_ >= 2) notifySequence_ = static_cast<uint16_t>(notifySequence_ + count_);
  }
  TellModules(listing);
  return kSuccess;
}

bool CMclManager::HasModuleId(uint16_t moduleId) {
  const std::lock_guard lock(listLock_);
  return moduleId != 0 && std::ranges::find(modules_, moduleId) != modules_.end();
}

uint32_t TOLA_MclTaskInit(const char* name) {
  CMclManager* manager = nullptr;
  return EnsureLoop(name != nullptr ? name : kDefaultName, &manager);
}

uint32_t TOLA_RegEventToMcl(uint32_t eventBit, TaskEventFunc callback, uint32_t* taskId) {
  CMclManager* manager = nullptr;
  const uint32_t ret = EnsureLoop(kDefaultName, &manager);
  return ret == kSuccess ? manager->RegEvent(eventBit, callback, taskId) : ret;
}

uint32_t TOLA_RegModuleIdToMcl(uint16_t moduleId, uint32_t /*flag*/) {
  CMclManager* manager = nullptr;
  const uint32_t ret = EnsureLoop(kDefaultName, &manager);
  return ret == kSuccess ? manager->RegModuleId(moduleId) : ret;
}

void TOLA_NotifyMclInitEnd() {
  g_initEnd.store(1, std::memory_order_release);
}

uint32_t TOLA_GetMclInitEndFlag() {
  return g_initEnd.load(std::memory_order_acquire);
}

uint32_t MclModuleIsReady(uint16_t moduleId) {
  CMclManager* manager = g_manager.load(std::memory_order_acquire);
  return manager != nullptr && manager->HasModuleId(moduleId) ? kSuccess : kFailure;
}

uint32_t MclModuleIdNotify(const tagMsgBuf* msg, uint16_t moduleId) {
  if (msg == nullptr || msg->type != kMclNotifyType) return kFailure;
  const std::span<const uint8_t> data(TolaMsgData(msg), GetTolaMsgLen(msg));
  uint16_t word = 0;
  if (data.size() < sizeof(word)) return kFailure;
  memcpy(&word, data.data(), sizeof(word));
  const size_t claimed = (word + size_t{1}) * sizeof(word);
  for (size_t at = sizeof(word); at < claimed && at + sizeof(word) <= data.size(); at += sizeof(word)) {
    memcpy(&word, data.data() + at, sizeof(word));
    if (word == moduleId) return kSuccess;
  }
  return kFailure;
}
