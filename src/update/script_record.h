/// The results of the last six requests by sequence number, so that a repeated request is answered and not
/// run again.
#pragma once

#include <array>
#include <cstdint>

/// Not thread-safe; the executor's task owns the one of the process.
class ScriptExeRecords {
 public:
  /// Takes the first free slot, else the one after the slot written last.
  void Save(uint16_t seqNo, uint16_t result);

  /// The first slot of this number. kept: a free slot has number 0, so request 0 finds one and its result 0
  /// while any slot is free.
  [[nodiscard]] bool Find(uint16_t seqNo, uint16_t& result) const;

 private:
  struct Slot {
    uint16_t seqNo;
    uint16_t result;
  };
  std::array<Slot, 6> slots_{};
  uint16_t last_ = 0;
};

/// The table of the process.
void SaveScripExeRecord(uint16_t seqNo, uint16_t result);
[[nodiscard]] bool FindScripExeRecord(uint16_t seqNo, uint16_t& result);
