/// The trace of platform messages on standard output.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "log/log_lock.h"
#include "log/log_record.h"
#include "log/run_log.h"
#include "velto/kel_clock.h"

namespace runlog {
namespace {

constexpr uint32_t kHeadLength = 12;
constexpr uint32_t kTraceMax = 65535;
constexpr uint8_t kTraceThreshold = 1;

/// Words of a message's head, in the machine's byte order.
enum HeadWord : uint32_t { kSource, kDestination, kType, kSubType, kLengthHigh, kLengthLow, kHeadWords };

void PrintBytes(const uint8_t* bytes, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) printf(" %02X", bytes[i]);
}

/// Whether the module that `message` goes through is traced. Asked for every message: reads one word.
bool IsTraced(const void* message, bool isSend) {
  uint16_t moduleId = 0;
  memcpy(&moduleId, static_cast<const uint16_t*>(message) + (isSend ? kSource : kDestination),
         sizeof(moduleId));
  // Kept: an id without a parameter reads as threshold 0 and is traced.
  return (GetPrintPara(moduleId) & 0x0F) <= kTraceThreshold && !IsLogStopped();
}

}  // namespace
}  // namespace runlog

void DbgPrint(const TOLA_DBG_MSG_S* message, const char* file, uint32_t line) {
  using namespace runlog;
  if (message == nullptr || message->message == nullptr || message->headLength != kHeadLength) return;
  if (!IsTraced(message->message, message->isSend)) return;
  const auto* bytes = static_cast<const uint8_t*>(message->message);
  uint16_t head[kHeadWords];
  memcpy(head, bytes, sizeof(head));

  const LogLock lock;
  if (!lock.IsHeld()) return;
  TOLA_LOG_PARA_S now = {};
  FillLocalTime(KEL_ClockWallNs(), now);
  const uint32_t length = (uint32_t{head[kLengthHigh]} << 16 & 0xFF0000u) + head[kLengthLow];
  printf("%-30s[%-4d][%02d:%02d:%02d.%d]: >>%s msg[%3d]:", BaseName(file).data(), static_cast<int>(line),
         now.hour, now.minute, now.second, now.millisecond, message->isSend ? "Send" : "Recv",
         static_cast<int>(length));
  PrintBytes(bytes, kHeadLength);
  printf(" ::");
  PrintBytes(bytes + kHeadLength, std::min(length, kTraceMax));
  printf("\n");
}

void TOLA_dbg_send(const void* message, const char* file, uint32_t line) {
  if (message == nullptr || !runlog::IsTraced(message, true)) return;
  const TOLA_DBG_MSG_S trace = {.message = message, .headLength = runlog::kHeadLength, .isSend = true};
  DbgPrint(&trace, file, line);
}

void TOLA_dbg_recv(const void* message, const char* file, uint32_t line) {
  if (message == nullptr || !runlog::IsTraced(message, false)) return;
  const TOLA_DBG_MSG_S trace = {.message = message, .headLength = runlog::kHeadLength, .isSend = false};
  DbgPrint(&trace, file, line);
}
