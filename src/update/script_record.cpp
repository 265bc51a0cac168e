#include "update/script_record.h"

void ScriptExeRecords::Save(uint16_t seqNo, uint16_t result) {
  uint16_t at = 0;
  while (at < slots_.size() && slots_[at].seqNo != 0) ++at;
  if (at == slots_.size()) at = static_cast<uint16_t>((last_ + 1u) % slots_.size());
  slots_[at] = {seqNo, result};
  last_ = at;
}

bool ScriptExeRecords::Find(uint16_t seqNo, uint16_t& result) const {
  for (const Slot& slot : slots_) {
    if (slot.seqNo == seqNo) {
      result = slot.result;
      return true;
    }
  }
  return false;
}

namespace {
ScriptExeRecords g_records;
}

void SaveScripExeRecord(uint16_t seqNo, uint16_t result) {
  g_records.Save(seqNo, result);
}

bool FindScripExeRecord(uint16_t seqNo, uint16_t& result) {
  return g_records.Find(seqNo, result);
}
