#include "log/run_log_ex.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <span>

#include "base/result_codes.h"
#include "log/log_file.h"
#include "log/log_lock.h"
#include "log/log_names.h"
#include "securec.h"
#include "velto/kel_clock.h"
#include "velto/kel_mem.h"

namespace runlog {
namespace {

/// Eight bytes a step: a full list is told apart by this word alone, so that a record is compared with at
/// most one node.
class Hash {
 public:
  void Add(uint64_t word) {
    value_ = (value_ ^ word) * 0x9E3779B97F4A7C15u;
    value_ ^= value_ >> 32;
  }
  void Add(std::string_view text) {
    while (text.size() >= sizeof(uint64_t)) {
      uint64_t word = 0;
      memcpy(&word, text.data(), sizeof(word));
      Add(word);
      text.remove_prefix(sizeof(word));
    }
    uint64_t rest = text.size();
    for (const char c : text) rest = rest << 8 | static_cast<uint8_t>(c);
    Add(rest);
  }
  [[nodiscard]] uint64_t Value() const { return value_; }

 private:
  uint64_t value_ = 0;
};

uint64_t HashOf(const Record& record, std::string_view file) {
  Hash hash;
  hash.Add(uint64_t{record.line} << 16 | record.moduleId);
  hash.Add(file);
  hash.Add(record.message);
  return hash.Value();
}

uint32_t Distance(uint32_t a, uint32_t b) {
  return a > b ? a - b : b - a;
}

uint16_t ReadU16(const void* para) {
  uint16_t value = 0;
  memcpy(&value, para, sizeof(value));
  return value;
}

uint32_t ReadU32(const void* para) {
  uint32_t value = 0;
  memcpy(&value, para, sizeof(value));
  return value;
}

uint32_t Enable(bool isOn, bool isStarted) {
  Repeats().Want(isOn);
  if (!isStarted) return kSuccess;  // initialisation makes the list
  if (isOn) return Repeats().SwitchOn();
  Clock().Set(KEL_ClockWallNs());
  Repeats().SwitchOff();
  return kSuccess;
}

}  // namespace

RepeatControl& Repeats() {
  static constinit RepeatControl control;
  return control;
}

uint32_t RepeatControl::AddBlock(uint32_t count) {
  uint32_t handle = 0;
  if (PublicHandle(&handle) != 0) return kLogErrRepeatMemory;
  const uint32_t size = static_cast<uint32_t>(sizeof(Block) + count * sizeof(RepeatNode));  // count < 65536
  auto* block = static_cast<Block*>(KEL_MEM_ALLOC(handle, size));
  if (block == nullptr) return kLogErrRepeatMemory;
  (void)memset_s(block, size, 0, size);
  block->next = blocks_;
  blocks_ = block;
  list_.AddSpare(block->nodes, count);
  return kSuccess;
}

uint32_t RepeatControl::SwitchOn() {
  return IsOn() ? kSuccess : AddBlock(queueLength_);
}

void RepeatControl::SwitchOff() {
  // Kept: a record that never came again is summed up too, with a count of 0. A stopped log writes nothing.
  for (const RepeatNode* node = IsLogStopped() ? nullptr : list_.First(); node != nullptr; node = node->next)
    WriteSummary(*node, "F Cnt");
  list_ = {};
  while (blocks_ != nullptr) {
    Block* block = blocks_;
    blocks_ = block->next;
    KEL_MEM_FREE(block);
  }
}

void RepeatControl::SetTimeout(uint32_t seconds) {
  timeout_ = seconds;
  sweptSecond_ = 0;
}

uint32_t RepeatControl::SetQueueLength(uint32_t length) {
  length = std::max(length, kRepeatQueueLength);
  if (IsOn() && length > list_.Capacity()) {
    const uint32_t result = AddBlock(length - list_.Capacity());
    if (result != kSuccess) return result;
  }
  queueLength_ = length;
  return kSuccess;
}

uint32_t RepeatControl::SetExceptions(const TOLA_LOG_EXCEPTION_S& exceptions) {
  if (areExceptionsSet_) return kLogErrRepeatSet;
  const uint64_t size = uint64_t{exceptions.count} * sizeof(uint16_t);
  if (size != 0) {
    if (exceptions.moduleIds == nullptr) return kLogErrRepeatNull;
    uint32_t handle = 0;
    if (size > INT32_MAX || PublicHandle(&handle) != 0) return kLogErrRepeatMemory;
    exceptions_ = static_cast<uint16_t*>(KEL_MEM_ALLOC(handle, static_cast<uint32_t>(size)));
    if (exceptions_ == nullptr) return kLogErrRepeatMemory;
    std::copy_n(exceptions.moduleIds, exceptions.count, exceptions_);
  }
  exceptionCount_ = exceptions.count;
  areExceptionsSet_ = true;
  return kSuccess;
}

void RepeatControl::Sweep(uint32_t now) {
  // Within one second nothing new can run out, unless everything does at once.
  if (!IsOn() || (now == sweptSecond_ && timeout_ != 0)) return;
  sweptSecond_ = now;
  RepeatNode* previous = nullptr;
  for (RepeatNode* node = list_.First(); node != nullptr;) {
    RepeatNode* next = node->next;
    if (Distance(now, node->firstSecond) >= timeout_) {
      if (node->count != 0) WriteSummary(*node, "T Cnt");
      list_.RemoveAfter(previous);
    } else {
      previous = node;
    }
    node = next;
  }
}

bool RepeatControl::IsException(uint16_t moduleId) const {
  if (moduleId == kNeverFoldedModule) return true;
  const std::span<const uint16_t> exceptions(exceptions_, exceptionCount_);
  return std::find(exceptions.begin(), exceptions.end(), moduleId) != exceptions.end();
}

RepeatNode* RepeatControl::Find(const Record& record, std::string_view file, uint64_t hash) const {
  for (RepeatNode* node = list_.First(); node != nullptr; node = node->next) {
    if (node->hash == hash && node->line == record.line && node->moduleId == record.moduleId &&
        file == std::string_view(node->file, node->fileLength) &&
        record.message == std::string_view(node->message, node->messageLength)) {
      return node;
    }
  }
  return nullptr;
}

void RepeatControl::PushOutOldest() {
  if (list_.First()->count != 0) WriteSummary(*list_.First(), "Q Cnt");
  list_.RemoveAfter(nullptr);
}

bool RepeatControl::IsRepeat(const Record& record, uint32_t now) {
  if (!IsOn() || IsException(record.moduleId)) return false;
  const std::string_view file = record.file.substr(0, sizeof(RepeatNode::file) - 1);
  const uint64_t hash = HashOf(record, file);
  RepeatNode* node = Find(record, file, hash);
  if (node != nullptr) {
    ++node->count;
    return true;
  }
  while (list_.Size() >= queueLength_) PushOutOldest();
  node = list_.Append();
  if (node == nullptr) return false;
  node->hash = hash;
  node->line = record.line;
  node->count = 0;
  node->firstSecond = now;
  node->moduleId = record.moduleId;
  node->level = static_cast<uint8_t>(record.level);
  node->fileLength = static_cast<uint8_t>(file.copy(node->file, file.size()));
  node->file[node->fileLength] = '\0';
  node->messageLength = static_cast<uint16_t>(record.message.copy(node->message, kMessageSize - 1));
  node->message[node->messageLength] = '\0';
  return false;
}

void RepeatControl::WriteSummary(const RepeatNode& node, const char* tag) {
  static char text[kLineSize];
  char moduleName[kModuleNameSize] = "";
  TOLA_LOG_PARA_S first = {};
  FillLocalTime(uint64_t{node.firstSecond} * 1'000'000'000u, first);
  const int length = snprintf_s(text, sizeof(text), sizeof(text) - 1,
                                "%s:0x%x,%s %04d-%02d-%02d %02d:%02d:%02d", tag, node.count, node.message,
                                first.year, first.month, first.day, first.hour, first.minute, first.second);
  if (length < 0) {
    printf("err %s,%d\n", node.file, static_cast<int>(node.line));
    return;
  }
  WriteArm9LogTofile({.moduleId = node.moduleId,
                      .level = node.level,
                      .line = node.line,
                      .file = {node.file, node.fileLength},
                      .module = ModuleName(node.moduleId, moduleName),
                      .message = {text, static_cast<size_t>(length)}});
}

}  // namespace runlog

uint32_t TOLA_LogRepeatControl(uint32_t command, const void* para) {
  if (para == nullptr) return kLogErrRepeatNull;
  const runlog::LogLock lock;
  if (!lock.MayChange()) return kFailure;
  switch (command) {
    case kLogRepeatTimeout:
      runlog::Repeats().SetTimeout(runlog::ReadU32(para));
      return kSuccess;
    case kLogRepeatExceptions:
      return runlog::Repeats().SetExceptions(*static_cast<const TOLA_LOG_EXCEPTION_S*>(para));
    case kLogRepeatEnable:
      return runlog::Enable(*static_cast<const uint8_t*>(para) != 0, lock.IsHeld());
    case kLogRepeatQueueLength:
      return runlog::Repeats().SetQueueLength(runlog::ReadU16(para));
    default:
      return kLogErrRepeatCommand;
  }
}
