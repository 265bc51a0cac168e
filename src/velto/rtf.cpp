// Component types, instances and the delivery of their messages.
//
// An instance is built in three stages, gets its task when it is first enabled, and dies in that task: what
// waits is freed and the destructor called there, so that an entry may even destroy its own instance.
// Locks: the registry's before an instance's; neither is held while a constructor, entry or destructor runs.
#include "velto/rtf.h"

#include <string.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "base/never_destroyed.h"
#include "velto/dms_internal.h"
#include "velto/kel_task.h"

namespace velto {
namespace {

constexpr size_t kTypeMax = 256;
constexpr size_t kInstanceMax = kKelTaskMax;
constexpr size_t kContainerMax = 64;
constexpr uint32_t kStageCount = 3;
constexpr uint32_t kStreamCount = 2;  // 0 normal, 1 priority
constexpr uint32_t kDefaultLength[kStreamCount] = {64, 16};

template <size_t kSize>
bool IsTerminated(const char (&text)[kSize]) {
  return strnlen(text, kSize) < kSize;
}

// Messages in the order of arrival, chained through their heads.
class MsgQueue {
 public:
  [[nodiscard]] uint32_t length() const { return length_; }
  void Push(MsgHead* head) {
    head->next = nullptr;
    (last_ == nullptr ? first_ : last_->next) = head;
    last_ = head;
    ++length_;
  }
  [[nodiscard]] MsgHead* Pop() {
    MsgHead* head = first_;
    first_ = head->next;
    if (first_ == nullptr) last_ = nullptr;
    --length_;
    return head;
  }

 private:
  MsgHead* first_ = nullptr;
  MsgHead* last_ = nullptr;
  uint32_t length_ = 0;
};

class Instance {
 public:
  Instance(uint32_t typeId, const RtfCompTypeInfo& type) : typeId_(typeId), type_(type) {}

  [[nodiscard]] uint32_t typeId() const { return typeId_; }

  uint32_t Build(uint32_t stage);
  uint32_t Enable(std::shared_ptr<Instance> self);
  void Disable();
  uint32_t Post(MsgPtr message, Origin origin);
  void LengthSet(uint32_t stream, uint32_t length);
  [[nodiscard]] bool IsBuilt();
  [[nodiscard]] bool IsEnabled();
  [[nodiscard]] bool IsBuilding();
  /// Ends the instance; waits for its task unless that is the caller.
  void End();

 private:
  static void TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t);
  void Run();
  void Finish();
  MsgPtr Take(std::unique_lock<std::mutex>& lock);

  const uint32_t typeId_;
  const RtfCompTypeInfo type_;
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  uint32_t nextStage_ = 0;
  bool building_ = false;
  bool enabled_ = false;
  bool ending_ = false;
  uint32_t taskId_ = 0;
  MsgQueue streams_[kStreamCount];
  uint32_t lengths_[kStreamCount] = {kDefaultLength[0], kDefaultLength[1]};
};

uint32_t Instance::Build(uint32_t stage) {
  {
    const std::lock_guard lock(mutex_);
    if (stage == 0 && nextStage_ != 0) return kRtfErrExists;
    if (ending_ || building_ || stage != nextStage_) return kRtfErrStage;
    building_ = true;
  }
  const bool built = type_.constructor == nullptr || type_.constructor(stage) == 0;
  const std::lock_guard lock(mutex_);
  building_ = false;
  if (built) ++nextStage_;
  return built ? 0 : kRtfErrCtor;
}

uint32_t Instance::Enable(std::shared_ptr<Instance> self) {
  const std::lock_guard lock(mutex_);
  if (ending_) return kRtfErrNoInst;
  if (taskId_ == 0) {
    auto* kept = new (std::nothrow) std::shared_ptr<Instance>(std::move(self));
    if (kept == nullptr) return kRtfErrTask;
    const uintptr_t args[4] = {reinterpret_cast<uintptr_t>(kept), 0, 0, 0};
    if (KEL_TaskCreate(type_.name, &taskId_, TaskEntry, type_.priority, 0, 0, args) != 0) {
      delete kept;
      taskId_ = 0;
      return kRtfErrTask;
    }
  }
  enabled_ = true;
  changed_.notify_all();
  return 0;
}

void Instance::Disable() {
  const std::lock_guard lock(mutex_);
  enabled_ = false;
}

uint32_t Instance::Post(MsgPtr message, Origin origin) {
  MsgHead* head = MsgHeadOf(message.get());
  const uint32_t stream = head->priority == kPriorityUrgent ? 1 : 0;
  const std::lock_guard lock(mutex_);
  if (ending_ || nextStage_ != kStageCount) return kDmsErrRefused;
  if (origin == Origin::kPeer && !enabled_) return kDmsErrRefused;
  if (streams_[stream].length() >= lengths_[stream]) return kDmsErrQueueFull;
  streams_[stream].Push(head);
  (void)message.release();  // the queue's now
  changed_.notify_one();
  return 0;
}

void Instance::LengthSet(uint32_t stream, uint32_t length) {
  const std::lock_guard lock(mutex_);
  lengths_[stream] = length;
}

bool Instance::IsBuilt() {
  const std::lock_guard lock(mutex_);
  return nextStage_ == kStageCount;
}

bool Instance::IsEnabled() {
  const std::lock_guard lock(mutex_);
  return enabled_ && !ending_;
}

bool Instance::IsBuilding() {
  const std::lock_guard lock(mutex_);
  return building_;
}

void Instance::End() {
  uint32_t taskId = 0;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    taskId = taskId_;
    changed_.notify_all();
  }
  uint32_t caller = 0;
  if (taskId == 0) {
    Finish();
  } else if (KEL_TaskCurrentIdGet(&caller) != 0 || caller != taskId) {
    (void)KEL_TaskWait(taskId, KEL_WAIT_FOREVER);  // fails only for a task that is gone already
  }
}

void Instance::TaskEntry(uintptr_t self, uintptr_t, uintptr_t, uintptr_t) {
  const std::unique_ptr<std::shared_ptr<Instance>> kept(reinterpret_cast<std::shared_ptr<Instance>*>(self));
  (*kept)->Run();
}

// Waits for the next message, priority stream first; null when the instance ends.
MsgPtr Instance::Take(std::unique_lock<std::mutex>& lock) {
  for (;;) {
    if (ending_) return nullptr;
    for (MsgQueue* stream : {&streams_[1], &streams_[0]}) {
      if (enabled_ && stream->length() != 0) return MsgPtr(MsgDataOf(stream->Pop()));
    }
    changed_.wait(lock);
  }
}

void Instance::Run() {
  for (;;) {
    std::unique_lock lock(mutex_);
    const MsgPtr message = Take(lock);
    lock.unlock();
    if (message == nullptr) break;
    type_.msgProc(message.get());
  }
  Finish();
}

void Instance::Finish() {
  bool wasBuilt = false;
  {
    const std::lock_guard lock(mutex_);
    for (MsgQueue& stream : streams_) {
      while (stream.length() != 0) MsgPtr(MsgDataOf(stream.Pop())).reset();
    }
    wasBuilt = nextStage_ != 0;
  }
  if (wasBuilt && type_.destructor != nullptr) (void)type_.destructor();  // nobody is left to tell
}

struct Registry {
  std::mutex mutex;  // guards all below
  std::map<uint32_t, RtfCompTypeInfo> types;
  std::map<uint32_t, std::shared_ptr<Instance>> instances;  // by csi
  std::vector<RtfContainerAttrib> containers;

  [[nodiscard]] std::shared_ptr<Instance> Find(uint32_t csi) {
    const std::lock_guard lock(mutex);
    const auto entry = instances.find(csi);
    return entry == instances.end() ? nullptr : entry->second;
  }
};

Registry& Reg() {
  static base::NeverDestroyed<Registry> registry;
  return *registry;
}

std::shared_ptr<Instance> FindByCpi(uint32_t cpi) {
  return IsCpi(cpi) ? Reg().Find(CsiOf(cpi)) : nullptr;
}

// The instance that a stage works on; stage 0 makes it, or finds the one whose stage 0 failed before.
uint32_t InstanceFor(uint32_t stage, uint32_t typeId, uint32_t csi, std::shared_ptr<Instance>& instance) {
  Registry& registry = Reg();
  const std::lock_guard lock(registry.mutex);
  const auto type = registry.types.find(typeId);
  if (type == registry.types.end()) return kRtfErrNoType;
  const auto entry = registry.instances.find(csi);
  if (entry != registry.instances.end()) {
    instance = entry->second;
    return instance->typeId() == typeId ? 0 : kRtfErrExists;
  }
  if (stage != 0) return kRtfErrNoInst;
  if (registry.instances.size() >= kInstanceMax) return kRtfErrFull;
  try {
    instance = std::make_shared<Instance>(typeId, type->second);
    registry.instances.emplace(csi, instance);
  } catch (const std::bad_alloc&) {
    return kRtfErrFull;
  }
  return 0;
}

}  // namespace

bool RtfHas(uint32_t csi) {
  const auto instance = Reg().Find(csi);
  return instance != nullptr && instance->IsBuilt();
}

bool RtfTakes(uint32_t csi) {
  const auto instance = Reg().Find(csi);
  return instance != nullptr && instance->IsEnabled();
}

uint32_t RtfPost(MsgPtr message, Origin origin) {
  const auto instance = Reg().Find(CsiOf(MsgHeadOf(message.get())->recvCid));
  return instance == nullptr ? kDmsErrRefused : instance->Post(std::move(message), origin);
}

}  // namespace velto

using velto::Reg;
using velto::Registry;

uint32_t RTF_CompTypeRegister(uint32_t typeId, const RtfCompTypeInfo* info) {
  if (info == nullptr || info->msgProc == nullptr || info->name[0] == '\0' ||
      !velto::IsTerminated(info->name) || !velto::IsTerminated(info->version)) {
    return kRtfErrPara;
  }
  Registry& registry = Reg();
  const std::lock_guard lock(registry.mutex);
  if (registry.types.contains(typeId)) return kRtfErrExists;
  if (registry.types.size() >= velto::kTypeMax) return kRtfErrFull;
  try {
    registry.types.emplace(typeId, *info);
  } catch (const std::bad_alloc&) {
    return kRtfErrFull;
  }
  return 0;
}

uint32_t RTF_CompTypeDelete(uint32_t typeId) {
  Registry& registry = Reg();
  const std::lock_guard lock(registry.mutex);
  for (const auto& [csi, instance] : registry.instances) {
    if (instance->typeId() == typeId) return kRtfErrBusy;
  }
  return registry.types.erase(typeId) == 1 ? 0 : kRtfErrNoType;
}

uint32_t RTF_CompInstCreate(uint32_t stage, uint32_t typeId, const RtfCompInst* inst) {
  if (stage >= velto::kStageCount || inst == nullptr || inst->csi > velto::kCsiMask ||
      !velto::IsCpi(inst->cpi) || velto::CsiOf(inst->cpi) != inst->csi) {
    return kRtfErrPara;
  }
  std::shared_ptr<velto::Instance> instance;
  const uint32_t result = velto::InstanceFor(stage, typeId, inst->csi, instance);
  return result != 0 ? result : instance->Build(stage);
}

uint32_t RTF_CompInstSchEnable(uint32_t cpi, uint32_t enable) {
  if (enable > 1) return kRtfErrPara;
  const auto instance = velto::FindByCpi(cpi);
  if (instance == nullptr) return kRtfErrNoInst;
  if (!instance->IsBuilt()) return kRtfErrStage;
  if (enable == 0) {
    instance->Disable();
    return 0;
  }
  // Bound before the instance is enabled, served only after: a refused socket leaves the instance as it was,
  // and no peer is told that nobody is there.
  const uint32_t bound = velto::ReceiverBind();
  if (bound != 0) return bound;
  const uint32_t enabled = instance->Enable(instance);
  if (enabled != 0) return enabled;
  if (velto::ReceiverStart() == 0) return 0;
  instance->Disable();
  return kRtfErrTask;
}

uint32_t RTF_CompInstDestroy(uint32_t cpi) {
  std::shared_ptr<velto::Instance> instance;
  {
    Registry& registry = Reg();
    const std::lock_guard lock(registry.mutex);
    const auto entry = registry.instances.find(velto::CsiOf(cpi));
    if (!velto::IsCpi(cpi) || entry == registry.instances.end()) return kRtfErrNoInst;
    if (entry->second->IsBuilding()) return kRtfErrStage;
    instance = std::move(entry->second);
    registry.instances.erase(entry);
  }
  instance->End();
  return 0;
}

uint32_t RTF_ScmCompAllMsgStmAttribSet(uint32_t cpi, const RtfMsgStreamAttrib* attrib) {
  if (attrib == nullptr) return kRtfErrPara;
  return RTF_ScmCompStmMaxMsgNumSet(cpi, attrib->streamId, 0, attrib->msgNum);
}

uint32_t RTF_ScmCompStmMaxMsgNumSet(uint32_t cpi, uint32_t stream, uint32_t mode, uint32_t length) {
  if (stream >= velto::kStreamCount || mode != 0 || length == 0) return kRtfErrPara;
  const auto instance = velto::FindByCpi(cpi);
  if (instance == nullptr) return kRtfErrNoInst;
  instance->LengthSet(stream, length);
  return 0;
}

uint32_t RTF_CmaSContInstRegister(const RtfContainerAttrib* attrib) {
  if (attrib == nullptr || attrib->taskName[0] == '\0' || !velto::IsTerminated(attrib->taskName)) {
    return kRtfErrPara;
  }
  Registry& registry = Reg();
  const std::lock_guard lock(registry.mutex);
  for (const RtfContainerAttrib& container : registry.containers) {
    if (strcmp(container.taskName, attrib->taskName) == 0) return kRtfErrExists;
  }
  if (registry.containers.size() >= velto::kContainerMax) return kRtfErrFull;
  try {
    registry.containers.push_back(*attrib);
  } catch (const std::bad_alloc&) {
    return kRtfErrFull;
  }
  return 0;
}
