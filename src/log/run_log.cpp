#include "log/run_log.h"

#include <stddef.h>
#include <string.h>

#include <array>
#include <atomic>

#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/log_file.h"
#include "log/log_lock.h"
#include "log/log_names.h"
#include "log/log_record.h"
#include "log/run_log_ex.h"
#include "securec.h"
#include "velto/kel_clock.h"

namespace runlog {
namespace {

constexpr uint32_t kModuleCount = 1857;  ///< ids 0..1856
constexpr uint32_t kFirstComponent = 4096;
constexpr uint32_t kComponentCount = 192;  ///< ids 4096..4287
constexpr uint8_t kThresholdMask = 0x0F;
constexpr uint32_t kDefaultPrintMaxNum = 200;

// Kept: each table has one byte more than there are ids; setting all of them fills that byte too.
std::array<std::atomic<uint8_t>, kModuleCount + 1> g_moduleParas{};
std::array<std::atomic<uint8_t>, kComponentCount + 1> g_componentParas{};

std::atomic<bool> g_isStopped{false};
std::atomic<uint32_t> g_initialLevel{0};
std::atomic<uint32_t> g_printMaxNum{kDefaultPrintMaxNum};
std::atomic<LogSeparatePrint> g_separatePrint{nullptr};
std::atomic<LogSecondaryControl> g_secondaryControl{nullptr};
std::atomic<LogMemoryPrint> g_memoryPrint{nullptr};

/// The parameter of `moduleId`, or null.
std::atomic<uint8_t>* ParaOf(uint16_t moduleId) {
  if (moduleId < kModuleCount) return &g_moduleParas[moduleId];
  if (moduleId < kFirstComponent || moduleId >= kFirstComponent + kComponentCount) return nullptr;
  return &g_componentParas[moduleId - kFirstComponent];
}

bool PassesLevel(uint16_t moduleId, uint32_t level) {
  return level >= kLogErr || level >= (GetPrintPara(moduleId) & kThresholdMask);
}

/// What a record has to pass before the semaphore.
bool IsWanted(uint16_t moduleId, uint32_t level) {
  return !IsLogStopped() && PassesLevel(moduleId, level);
}

/// Cuts at 199 characters and turns line ends into blanks, so that one call gives one line.
__attribute__((format(printf, 2, 0))) std::string_view FormatMessage(const Record& record, const char* fmt,
                                                                     va_list args) {
  static char message[kMessageSize];
  const int length = vsnprintf_s(message, sizeof(message), sizeof(message) - 1, fmt, args);
  const size_t end = strnlen(message, sizeof(message) - 1);  // a "%c" of 0 ends the text as well
  const bool isCut = length < 0 && end == sizeof(message) - 1;
  if (length < 0 && !isCut) printf("err!%s,%d\n", record.file.data(), static_cast<int>(record.line));
  for (const char lineEnd : {'\n', '\r'}) {
    for (void* at = memchr(message, lineEnd, end); at != nullptr; at = memchr(message, lineEnd, end)) {
      *static_cast<char*>(at) = ' ';
    }
  }
  return {message, end};
}

void Echo(const Record& record) {
  printf("%s%-3s %-3s %-25s[%d]:%s\n", Clock().Prefix(), LevelTag(record.level), record.module.data(),
         record.file.data(), static_cast<int>(record.line), record.message.data());
  (void)fflush(stdout);  // a console that is gone must not stop the file
}

/// What is done with a record once the semaphore is held.
__attribute__((format(printf, 2, 0))) void PrintRecord(const TOLA_LOG_PARA_S& para, const char* fmt,
                                                       va_list args) {
  Clock().Set(KEL_ClockWallNs());
  const uint32_t now = Clock().Second();
  CheckRunLogFileExist(now);

  char moduleName[kModuleNameSize] = "";
  Record record = {.moduleId = para.moduleId,
                   .level = para.level,
                   .line = para.line,
                   .file = BaseName(para.fileName),
                   .module = {},
                   .message = {}};
  record.message = FormatMessage(record, fmt, args);
  record.module = ModuleName(para.moduleId, moduleName);

  Repeats().Sweep(now);
  const uint8_t printPara = GetPrintPara(para.moduleId);
  if ((printPara & kLogParaEcho) != 0) Echo(record);
  if ((printPara & kLogParaFile) == 0 || Repeats().IsRepeat(record, now)) return;
  WriteArm9LogTofile(record);
}

/// Hands the directory of the log to the service account, by the command only where that fails without it: a
/// program is the dearest step of a start. A failure is told and the log goes on without.
void HandOverDirectory() {
  const std::string_view name = GetLogFileNames().current;
  const size_t slash = name.rfind('/');
  if (slash == std::string_view::npos) return;
  char directory[kLogFileNameMax + 1];
  directory[name.copy(directory, slash + 1)] = '\0';
  if (GiveToPlatform(directory) == kSuccess) return;
  char command[kLogFileNameMax + 32];
  const int length =
      snprintf_s(command, sizeof(command), sizeof(command) - 1, "chown prorunacc:quorin %s", directory);
  if (length < 0 || tola_excev_no_log(LogBaseName(__FILE__), __LINE__, command, nullptr) != 0) {
    printf("chown：%s err\n", directory);
  }
}

/// The handle and the semaphore that everything else of the log needs.
uint32_t MakeMeans() {
  uint32_t handle = 0;
  const uint32_t handleResult = PublicHandle(&handle);
  if (handleResult != 0) {
    printf("!Handle Init:%d \n", static_cast<int>(handleResult));
    return kFailure;
  }
  const uint32_t semaResult = MakeLogSema();
  if (semaResult != 0) {
    printf("!Sema create:%#x\n", semaResult);
    return kFailure;
  }
  return kSuccess;
}

uint32_t StartRepeatsAndNames(const TOLA_MODULE_NAME_TABLE_S* names) {
  if (Repeats().IsWanted()) {
    const uint32_t result = Repeats().SwitchOn();
    if (result != kSuccess) {
      printf("!EnableLog %#x!!\n", result);
      return result;
    }
  }
  return AddModuleNames(names);
}

}  // namespace

bool IsLogStopped() {
  return g_isStopped.load(std::memory_order_relaxed);
}

}  // namespace runlog

using runlog::LogLock;

uint8_t GetPrintPara(uint16_t moduleId) {
  const auto* para = runlog::ParaOf(moduleId);
  return para == nullptr ? uint8_t{0} : para->load(std::memory_order_relaxed);
}

void SetPrintPara(uint16_t moduleId, uint8_t value) {
  auto* para = runlog::ParaOf(moduleId);
  if (para != nullptr) para->store(value, std::memory_order_relaxed);
}

uint32_t TOLA_LogControl(uint16_t moduleId, uint32_t level, uint32_t mode) {
  if (runlog::MakeLogSema() != 0) return kFailure;
  const uint8_t value = static_cast<uint8_t>((level & runlog::kThresholdMask) + (mode << 4));
  if (moduleId != 0) {
    SetPrintPara(moduleId, value);
    return kSuccess;
  }
  for (auto& para : runlog::g_moduleParas) para.store(value, std::memory_order_relaxed);
  for (auto& para : runlog::g_componentParas) para.store(value, std::memory_order_relaxed);
  runlog::g_initialLevel = level;
  printf("\ninit mod:%d,%d\n", static_cast<int>(runlog::kModuleCount),
         static_cast<int>(runlog::kComponentCount));
  return kSuccess;
}

uint32_t GetInitialLogLevel() {
  return runlog::g_initialLevel;
}

void TOLA_LogPrint(uint16_t moduleId, uint32_t level, const char* file, uint32_t line, const char* fmt, ...) {
  if (level < kLogDbg || level > kLogEvt || fmt == nullptr) return;
  const LogSeparatePrint separate = runlog::g_separatePrint.load(std::memory_order_relaxed);
  if (separate == nullptr && !runlog::IsWanted(moduleId, level)) return;  // most records end here
  TOLA_LOG_PARA_S para = {};
  para.moduleId = moduleId;
  para.level = static_cast<uint16_t>(level);
  para.fileName = file;
  para.line = line;
  va_list args;
  va_start(args, fmt);
  if (separate == nullptr) {
    TOLA_LogPrintValist(&para, fmt, args);
  } else {
    runlog::FillLocalTime(KEL_ClockWallNs(), para);
    separate(&para, fmt, args);
  }
  va_end(args);
}

void TOLA_LogPrintValist(const TOLA_LOG_PARA_S* record, const char* fmt, va_list args) {
  if (!runlog::IsWanted(record->moduleId, record->level)) return;
  const LogLock lock;
  if (lock.IsFailed()) puts("!P");
  if (lock.IsHeld()) runlog::PrintRecord(*record, fmt, args);
}

uint32_t TOLA_PrintInitForArm9(uint32_t maxSize, const TOLA_MODULE_NAME_TABLE_S* names) {
  {
    const LogLock lock;
    if (!lock.MayChange()) return kFailure;
    MapLogFileNames();
    runlog::HandOverDirectory();
  }
  if (runlog::MakeMeans() != kSuccess) return kFailure;
  const LogLock lock;
  if (!lock.IsHeld() || StartRunLogFile(maxSize) != kSuccess) return kFailure;
  if (OpenFullRecordFile() != kSuccess) puts("!create log full record file!!");
  return runlog::StartRepeatsAndNames(names);
}

uint32_t TOLA_PrintInit(uint32_t count, const TOLA_MODULE_NAME_TABLE_S* names) {
  if (runlog::MakeMeans() != kSuccess) return kFailure;
  const LogLock lock;
  if (!lock.IsHeld() || ResumeRunLogFile() != kSuccess) return kFailure;
  SetPrintMaxNumValue(count == 0 ? runlog::kDefaultPrintMaxNum : count);
  return runlog::StartRepeatsAndNames(names);
}

void StopLogPrint() {
  runlog::g_isStopped = true;
}
void RestartLogPrint() {
  runlog::g_isStopped = false;
}
void RegLogSeparatePrintFunc(LogSeparatePrint func) {
  runlog::g_separatePrint = func;
}
void RegSLogControlFunc(LogSecondaryControl func) {
  runlog::g_secondaryControl = func;
}
void RegMemoryPrintFunc(LogMemoryPrint func) {
  runlog::g_memoryPrint = func;
}

void StopSLogPrint(uint32_t arg) {
  const LogSecondaryControl control = runlog::g_secondaryControl;
  if (control != nullptr) control(arg, 0);
}

void RestoreSLogPrint(uint32_t arg) {
  const LogSecondaryControl control = runlog::g_secondaryControl;
  if (control != nullptr) control(arg, 1);
}

void TOLA_MemoryPrint(uint16_t moduleId, const char* file, uint32_t line, const void* buffer,
                      uint32_t length) {
  const LogMemoryPrint print = runlog::g_memoryPrint;
  if (print != nullptr) print(moduleId, file, line, buffer, length);
}

void MemoryPrintWithLevel(uint16_t moduleId, uint32_t level, const char* file, uint32_t line,
                          const void* buffer, uint32_t length) {
  if (buffer == nullptr || level < kLogDbg || level > kLogEvt || !runlog::PassesLevel(moduleId, level))
    return;
  TOLA_MemoryPrint(moduleId, file, line, buffer, length);
}

uint32_t GetPrintMaxNumValue() {
  return runlog::g_printMaxNum;
}
void SetPrintMaxNumValue(uint32_t count) {
  runlog::g_printMaxNum = count;
}
