#include "msg/ipc_class.h"

#include "base/result_codes.h"
#include "msg/ipc_channel.h"

namespace {

constexpr uint16_t kBuckets = 300;

struct ClassNode {
  uint16_t type;
  uint16_t priorityClass;
};
constexpr ClassNode kClasses[] = {
    {2572, 2},   // fault-manager registration
    {41696, 2},  // register again
    {2573, 3},   // debug request
    {3585, 5},   // crash maps: whenever there is time
};

uint16_t HashOf(const void* key) {
  return *static_cast<const uint16_t*>(key) % kBuckets;
}

uint16_t IsType(void* data, void* context) {
  return static_cast<const ClassNode*>(data)->type == *static_cast<const uint16_t*>(context) ? 1 : 0;
}

}  // namespace

uint32_t IpcClassTable::Init(uint32_t memHandle) {
  if (table_.Init(memHandle, kBuckets, HashOf) != 0) return kFailure;
  for (const ClassNode& entry : kClasses) {
    void* node = table_.AddHashNodeWithData(&entry.type, sizeof(ClassNode));
    if (node == nullptr) return kFailure;
    *static_cast<ClassNode*>(node) = entry;
  }
  return kSuccess;
}

long IpcClassTable::ClassOf(uint16_t type, bool urgent) const {
  if (urgent) return kIpcClassUrgent;
  const void* node =
      table_.GetOneAppointNode(&type, IsType, &type, HashOf);  // by name: it becomes part of this
  return node != nullptr ? static_cast<const ClassNode*>(node)->priorityClass : kIpcClassDefault;
}
