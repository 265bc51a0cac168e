/// The run log: the process's one diagnostic log. A call gives one text line in a size-bounded file that is
/// moved to a backup file when full; repeats of a recent record are counted instead of written.
///
/// Any thread may log. All records pass through the semaphore "LogPrint", which guards the buffers, the
/// repeat list and the files; the level filter, the stop flag and the separate-print hook come before it. A
/// record is dropped in silence before that semaphore exists, and when a hook that runs under it logs in its
/// turn: the log never waits for itself. The log's own failures go to standard output, never into the log.
///
/// Set-up (file names, look-up, hooks, overwrite mode) belongs before TOLA_PrintInitForArm9, from one thread.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

enum LogLevel : uint32_t {
  kLogDbg = 1,
  kLogInf = 2,
  kLogWrn = 3,
  kLogErr = 4,  ///< passes every threshold
  kLogEvt = 5,  ///< passes every threshold
};

inline constexpr uint32_t kLogDefaultMaxSize = 0x100000;
inline constexpr uint32_t kLogErrNameMemory = 0x2266;   ///< 8806: no memory for the module names
inline constexpr uint32_t kLogErrNameTooLong = 0x2268;  ///< 8808: a module name has more than 10 characters

/// One record on its way to the file. A caller of TOLA_LogPrintValist sets fileName, line, level and
/// moduleId.
struct TOLA_LOG_PARA_S {
  uint16_t year;
  uint8_t month;  ///< 1..12
  uint8_t day;
  uint8_t hour;
  uint8_t minute;
  uint8_t second;
  uint16_t millisecond;
  const char* fileName;  ///< a path is cut to its base name
  uint32_t line;
  const char* moduleName;
  const char* message;
  uint16_t level;
  uint16_t moduleId;
};

/// Writes one record; nothing happens for a level outside 1..5 or a null format. The message is cut at 199
/// characters, and line ends in it become blanks. The default threshold lets levels 4 and 5 through.
void TOLA_LogPrint(uint16_t moduleId, uint32_t level, const char* file, uint32_t line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

/// The path of a record behind TOLA_LogPrint; neither level nor format are checked for being there.
void TOLA_LogPrintValist(const TOLA_LOG_PARA_S* record, const char* fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

/// Part of `path` behind its last '\' and '/', taken at compile time.
consteval const char* LogBaseName(const char* path) {
  const char* base = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (*at == '/' || *at == '\\') base = at + 1;
  }
  return base;
}

/// TOLA_LogPrint with the place of the call: LOG_ERR(module, "open %s: %d", path, errno).
#define LOG_AT_LEVEL(module, level, ...) \
  TOLA_LogPrint((module), (level), LogBaseName(__FILE__), __LINE__, __VA_ARGS__)
#define LOG_DBG(module, ...) LOG_AT_LEVEL(module, kLogDbg, __VA_ARGS__)
#define LOG_INF(module, ...) LOG_AT_LEVEL(module, kLogInf, __VA_ARGS__)
#define LOG_WRN(module, ...) LOG_AT_LEVEL(module, kLogWrn, __VA_ARGS__)
#define LOG_ERR(module, ...) LOG_AT_LEVEL(module, kLogErr, __VA_ARGS__)
#define LOG_EVT(module, ...) LOG_AT_LEVEL(module, kLogEvt, __VA_ARGS__)

// Print parameter: bits 0-3 the lowest level that is written, 0x10 echo to standard output, 0x20 write to the
// file. Modules 0..1856 and components 4096..4287 have one, 0 until it is set; another id reads as 0 and
// cannot be set. Any thread.
inline constexpr uint8_t kLogParaEcho = 0x10;
inline constexpr uint8_t kLogParaFile = 0x20;
uint8_t GetPrintPara(uint16_t moduleId);
void SetPrintPara(uint16_t moduleId, uint8_t value);

/// Sets the parameter of `moduleId`, of all ids for 0, to `(level & 15) + (mode << 4)`: mode 1 echoes, 2
/// writes, 3 both. Makes the semaphore when there is none yet.
/// @retval 1 the semaphore cannot be made
[[nodiscard]] uint32_t TOLA_LogControl(uint16_t moduleId, uint32_t level, uint32_t mode);
/// Level of the last TOLA_LogControl for all ids; 0 before.
uint32_t GetInitialLogLevel(void);

struct TOLA_MODULE_NAME_S {
  uint16_t moduleId;
  const char* name;  ///< at most 10 characters; must live as long as the process
};
struct TOLA_MODULE_NAME_TABLE_S {
  uint32_t count;
  const TOLA_MODULE_NAME_S* entries;  ///< copied; the names are not
};

/// Puts names in front of those that are known, all or none; the first name of an id counts, an id without
/// one shows as "M07". A null table or a count of 0 does nothing.
/// @retval kLogErrNameTooLong, kLogErrNameMemory  @retval kErrCopy (17665)
/// @retval 1 called from a hook that runs under the log's semaphore
[[nodiscard]] uint32_t RegLogModuleInfo(const TOLA_MODULE_NAME_TABLE_S* table);

/// Configured path of the file known as `defaultFullPath`. Initialisation asks it for each file name; without
/// a look-up the names are taken as they are.
using LogPathLookup = const char* (*)(const char* defaultFullPath);
void LogSetPathLookup(LogPathLookup lookup);

/// File names become "<base>.log", "<base>_back.log" and "<base>_full_record.tola".
/// @retval 1 `base` is null or a name would have more than 99 characters; no name changes
[[nodiscard]] uint32_t TOLA_SetRunLogFileName(const char* base);

/// Overwrite mode: a full file is written again from its start instead of being moved. Before initialisation.
void TOLA_RunLogRecordTypeEnable(void);

/// Starts the log: maps the file names, hands the directory to the service account, makes the semaphore,
/// opens the file and carries on where it ends. `maxSize` in bytes, 0 means 1 MiB; `names` may be null. May
/// be called again, with other names, to start afresh.
/// @retval 1 no memory handle, no semaphore, or the file can be neither opened nor made
/// @retval other of TOLA_LogRepeatControl or RegLogModuleInfo
[[nodiscard]] uint32_t TOLA_PrintInitForArm9(uint32_t maxSize, const TOLA_MODULE_NAME_TABLE_S* names);

/// The older start: opens the file at the position that was kept, without looking at what stands in it, and
/// keeps `count` (0 means 200) as the print maximum number. Results as above.
[[nodiscard]] uint32_t TOLA_PrintInit(uint32_t count, const TOLA_MODULE_NAME_TABLE_S* names);

void StopLogPrint(void);     ///< from now on nothing is printed or written
void RestartLogPrint(void);  ///< undoes it

/// Replaces the whole way of a record, before the level filter. Null for none. Any thread may be in the hook.
using LogSeparatePrint = void (*)(const TOLA_LOG_PARA_S* record, const char* fmt, va_list args);
void RegLogSeparatePrintFunc(LogSeparatePrint func);

/// Called under the semaphore with `moduleId` and the bytes, before they go to the current file; a non-zero
/// result is printed and the write goes on.
using LogReport = uint32_t (*)(uint16_t moduleId, const void* bytes, uint32_t length);
void SetRunLogReport(uint16_t moduleId, LogReport func);

/// Flow control, under the semaphore: (0, file, path) after a log file was opened, (2, file, null) before
/// each write to the current file; a non-zero result of the latter skips that write.
using LogFileOperate = uint32_t (*)(uint32_t operation, FILE* file, const char* path);
void RegLogFileOprateFunc(LogFileOperate func);

/// Control of a secondary log: called with (arg, 0) to stop it and (arg, 1) to restore it.
using LogSecondaryControl = void (*)(uint32_t arg, uint32_t on);
void RegSLogControlFunc(LogSecondaryControl func);
void StopSLogPrint(uint32_t arg);
void RestoreSLogPrint(uint32_t arg);

/// Memory dumps go to the registered function, and nowhere without one.
using LogMemoryPrint = void (*)(uint16_t moduleId, const char* file, uint32_t line, const void* buffer,
                                uint32_t length);
void RegMemoryPrintFunc(LogMemoryPrint func);
void TOLA_MemoryPrint(uint16_t moduleId, const char* file, uint32_t line, const void* buffer,
                      uint32_t length);
/// The same for records of `level`: skipped when the module's threshold filters it or `buffer` is null.
void MemoryPrintWithLevel(uint16_t moduleId, uint32_t level, const char* file, uint32_t line,
                          const void* buffer, uint32_t length);

/// Where a file that is about to be moved or overwritten is copied to first.
struct TOLA_FILE_BACKUP_S {
  const char* filePath;
  const char* backupPath;  ///< null: no copy
  uintptr_t reserved;
};
/// Keeps `table` itself, which must live as long as the process. @retval 1 null table or count 0
[[nodiscard]] uint32_t TolaRegFileBackupPath(const TOLA_FILE_BACKUP_S* table, uint32_t count);

/// Trace of a platform message (a 12-byte header of six words, then the data) on standard output, when the
/// threshold of the sending (send) or receiving (recv) module is 0 or 1. Null is ignored.
void TOLA_dbg_send(const void* message, const char* file, uint32_t line);
void TOLA_dbg_recv(const void* message, const char* file, uint32_t line);
/// What both call: a message with its head's length (any but 12 is not traced) and its way.
struct TOLA_DBG_MSG_S {
  const void* message;
  uint32_t headLength;
  bool isSend;
};
void DbgPrint(const TOLA_DBG_MSG_S* message, const char* file, uint32_t line);

/// Commands of TOLA_LogRepeatControl and what `para` points at.
enum LogRepeatCommand : uint32_t {
  kLogRepeatTimeout = 0,      ///< uint32_t: seconds from a record to its summary, 300 at first
  kLogRepeatExceptions = 1,   ///< TOLA_LOG_EXCEPTION_S, copied; accepted once only
  kLogRepeatEnable = 2,       ///< uint8_t: 0 writes all counts and ends the folding, other starts it
  kLogRepeatQueueLength = 3,  ///< uint16_t: records that are remembered, at least (and at first) 30
};
struct TOLA_LOG_EXCEPTION_S {
  uint32_t count;
  const uint16_t* moduleIds;  ///< never folded; module 5 never is either
};
inline constexpr uint32_t kLogErrRepeatNull = 0x3943;     ///< 14659: null argument
inline constexpr uint32_t kLogErrRepeatMemory = 0x3944;   ///< 14660: no memory
inline constexpr uint32_t kLogErrRepeatCommand = 0x3949;  ///< 14665: unknown command
inline constexpr uint32_t kLogErrRepeatSet = 0x394A;      ///< 14666: the exception list is already set

/// Settings of the folding of repeats. Any thread. Before the semaphore exists a setting is stored only, and
/// initialisation applies it.
/// @retval kLogErrRepeatNull, kLogErrRepeatMemory, kLogErrRepeatCommand, kLogErrRepeatSet
/// @retval 1 the semaphore cannot be taken, or a hook that runs under it is the caller
[[nodiscard]] uint32_t TOLA_LogRepeatControl(uint32_t command, const void* para);

// Accessors, any thread. The files are the log's: the setters neither close what was there nor own what is
// given; SetFileLogRecord forgets the full-record file.
FILE* GetFileLog(void);
void SetFileLog(FILE* file);
FILE* GetFileLogRecord(void);
void SetFileLogRecord(void);
uint32_t GetLogFileMaxSize(void);
uint32_t GetLogFileAddSize(void);  ///< bytes logged over all starts, capped at the maximum size
void SetLogFileAddSize(uint32_t size);
uint32_t GetLogFileAddNum(void);  ///< records written since the start
uint32_t GetPrintMaxNumValue(void);
void SetPrintMaxNumValue(uint32_t count);
uint32_t GetSemaLogPrint(void);  ///< id of the semaphore "LogPrint"; 0 before it is made
