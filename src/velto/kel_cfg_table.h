/// The configuration's keys as data, and their values for the runtime's own sources, without a search by
/// name.
#pragma once

#include <stdint.h>

#include <span>

namespace velto {

enum class CfgKind : uint8_t { kNumber, kText, kChoice };

/// The order of the table in kel_cfg.cpp.
enum CfgKeyId : uint32_t {
  kCfgTaskStackBytes,
  kCfgMemBudgetBytes,
  kCfgDmsDir,
  kCfgDmsMessageBytes,
  kCfgDmsAnswerMs,
  kCfgDmsPeerUser,
  kCfgSignatureEnable,
  kCfgExpiredCrl,
  kCfgClockControl,
  kCfgDebugCore,
  kCfgKeyCount,
};

inline constexpr uint32_t kCfgTextSize = 96;  ///< longest text value with its terminator

struct CfgKey {
  const char* name;
  CfgKind kind;
  uint64_t least;  ///< number: the bounds; text: the shortest and longest length
  uint64_t most;
  uint64_t defaultNumber;   ///< number
  const char* defaultText;  ///< text and choice
  const char* rule;         ///< text: what it begins with; choice: the words, parted by '|'
};

[[nodiscard]] std::span<const CfgKey> CfgKeys();

/// Value of a number key. Any thread, once the configuration has been read.
[[nodiscard]] uint64_t CfgNumber(CfgKeyId id);

}  // namespace velto
