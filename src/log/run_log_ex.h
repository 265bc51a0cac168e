/// Repeat control: a record that equals a recent one is counted instead of written, and its count is written
/// as a summary when it has been kept long enough ("T Cnt"), is pushed out by newer records ("Q Cnt") or the
/// control is switched off ("F Cnt").
///
/// All of it is used under the log's semaphore, or before it exists, and allocates only where it says so.
#pragma once

#include <stdint.h>

#include <array>
#include <string_view>

#include "log/log_record.h"
#include "log/run_log.h"
#include "log/unidirectional_list.h"

namespace runlog {

inline constexpr uint32_t kRepeatTimeoutSeconds = 300;
inline constexpr uint32_t kRepeatQueueLength = 30;
inline constexpr uint16_t kNeverFoldedModule = 5;

struct RepeatNode {
  RepeatNode* next;
  uint64_t hash;
  uint32_t line;
  uint32_t count;
  uint32_t firstSecond;  ///< since 1970
  uint16_t moduleId;
  uint16_t messageLength;
  uint8_t level;
  uint8_t fileLength;
  char file[64];
  char message[kMessageSize];
};

class RepeatControl {
 public:
  [[nodiscard]] bool IsOn() const { return blocks_ != nullptr; }
  [[nodiscard]] bool IsWanted() const { return isWanted_; }
  void Want(bool isWanted) { isWanted_ = isWanted; }

  /// Makes the list; nothing happens when it is there. Allocates. @retval kLogErrRepeatMemory
  [[nodiscard]] uint32_t SwitchOn();
  /// Writes every node as a summary and frees the list.
  void SwitchOff();

  void SetTimeout(uint32_t seconds);
  /// Allocates. @retval kLogErrRepeatMemory nothing changed
  [[nodiscard]] uint32_t SetQueueLength(uint32_t length);
  /// Allocates. @retval kLogErrRepeatMemory, kLogErrRepeatNull, kLogErrRepeatSet
  [[nodiscard]] uint32_t SetExceptions(const TOLA_LOG_EXCEPTION_S& exceptions);

  /// Removes what is as old as the time-out at `now`, summaries first.
  void Sweep(uint32_t now);
  /// True: counted, not to be written. False: written, and from now on remembered.
  [[nodiscard]] bool IsRepeat(const Record& record, uint32_t now);

 private:
  struct Block {
    Block* next;
    RepeatNode nodes[];
  };

  [[nodiscard]] uint32_t AddBlock(uint32_t count);
  [[nodiscard]] bool IsException(uint16_t moduleId) const;
  [[nodiscard]] RepeatNode* Find(const Record& record, std::string_view file, uint64_t hash) const;
  void PushOutOldest();
  static void WriteSummary(const RepeatNode& node, const char* tag);

  CUnidirectionalList<RepeatNode> list_;
  Block* blocks_ = nullptr;
  uint16_t* exceptions_ = nullptr;
  uint32_t exceptionCount_ = 0;
  uint32_t timeout_ = kRepeatTimeoutSeconds;
  uint32_t queueLength_ = kRepeatQueueLength;
  uint32_t sweptSecond_ = 0;
  bool areExceptionsSet_ = false;
  bool isWanted_ = true;
};
RepeatControl& Repeats();

}  // namespace runlog
