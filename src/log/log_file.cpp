#include "log/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/log_file_state.h"
#include "log/log_lock.h"
#include "securec.h"

namespace runlog {

constinit FileState g_files = {
    .names = {"/mnt/sub_bin/sys_log/run_log.log", "/mnt/sub_bin/sys_log/run_log_back.log",
              "/mnt/sub_bin/sys_log/run_log_full_record.tola"},
    .file = nullptr,
    .fullRecord = nullptr,
    .offset = 0,
    .maxSize = kLogDefaultMaxSize,
    .addSize = 0,
    .addNum = 0,
    .overwrite = false,
};

namespace {

constexpr uint32_t kExistCheckSeconds = 3601;
constexpr int kOpenFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW;
constexpr uint32_t kOperateOpen = 0;
constexpr uint32_t kOperateWrite = 2;

std::atomic<LogFileOperate> g_operate{nullptr};
std::atomic<LogReport> g_report{nullptr};
std::atomic<uint16_t> g_reportModule{0};
std::atomic<const TOLA_FILE_BACKUP_S*> g_backups{nullptr};
std::atomic<uint32_t> g_backupCount{0};
uint32_t g_lastExistCheck = 0;  // in seconds since 1970

void PrintRecordError(const Record& record) {
  printf("err %s,%d\n", record.file.data(), static_cast<int>(record.line));
}

/// Keeps the blocks of a whole file in store, so that a record never waits for one. The size of the file does
/// not change; a file system that cannot do it is as good, only slower.
void ReserveSpace(FILE* file) {
  (void)fallocate(fileno(file), FALLOC_FL_KEEP_SIZE, 0, g_files.maxSize);
}

void MoveToBackup() {
  const LogFileNames& names = g_files.names;
  if (rename(names.current, names.backup) == 0) return;
  char command[2 * kLogFileNameMax + 16];
  const int length =
      snprintf_s(command, sizeof(command), sizeof(command) - 1, "mv -f %s %s", names.current, names.backup);
  if (length < 0 || tola_excev_no_log(LogBaseName(__FILE__), __LINE__, command, nullptr) != 0) {
    printf("err:%s\n", command);
  }
}

void TurnOver() {
  if (WriteCurrent(kEndMarker, g_files.offset) == WriteResult::kFailed)
    PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
  if (g_files.overwrite) {
    BackupFileToSpecificPath(g_files.names.current);
    (void)WriteFreshHead(kFirstOffset);  // reported there; the record is tried all the same
    return;
  }
  CloseLogFile(g_files.file);
  BackupFileToSpecificPath(g_files.names.current);
  MoveToBackup();
  (void)CreatRunLogFile();  // without a file the record is lost, and the next one tries again
  g_files.offset = 0;
}

/// A file for the records after the one that found none. It begins at 0 where it is made; one that is there
/// all the same, because it could not be opened for a while, goes on behind its lines.
void OpenForNextRecord() {
  if (CreatRunLogFile() != kSuccess) return;
  if (g_files.overwrite) {
    (void)WriteFreshHead(kFirstOffset);  // reported there
    return;
  }
  struct stat info = {};
  const bool isKnown = fstat(fileno(g_files.file), &info) == 0;
  const int64_t size = isKnown ? int64_t{info.st_size} : 0;
  g_files.offset = static_cast<uint32_t>(std::min(size, int64_t{g_files.maxSize}));
}

/// Saved with each record, since nobody knows how the process ends; no more once the count has reached the
/// size.
void CountBytes(uint32_t length, uint32_t maxSize) {
  const uint64_t added = uint64_t{g_files.addSize} + length;
  const auto count = static_cast<uint32_t>(added < maxSize ? added : maxSize);
  if (g_files.addSize.exchange(count) != count) SaveFullRecord();
}

void WriteLine(const Record& record, std::string_view line) {
  const WriteResult result = WriteCurrent(line, g_files.offset);
  if (result == WriteResult::kFailed) PrintRecordError(record);
  if (result != WriteResult::kDone) return;
  const uint32_t end = g_files.offset + static_cast<uint32_t>(line.size());
  if (g_files.overwrite) {
    const FileHead head = {.reserved = 0, .offset = end, .magic = kHeadMagic};
    const std::string_view bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    if (WriteCurrent(bytes, 0) == WriteResult::kFailed) {
      PrintRecordError(record);
      return;  // the next record takes this one's place, where the head on the disk points
    }
  }
  g_files.offset = end;
  g_files.addNum.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

void PrintFileError(uint32_t code, const char* file, uint32_t line) {
  printf("err:%x,%s,%d\n", code, file, static_cast<int>(line));
}

FILE* OpenLogFile(const char* path, int flags) {
  base::UniqueFd fd(open(path, kOpenFlags | flags, S_IRUSR | S_IWUSR));
  struct stat info = {};
  if (!fd || fstat(fd.get(), &info) != 0) return nullptr;
  if (!S_ISREG(info.st_mode) || info.st_nlink > 1) {
    errno = EMLINK;
    return nullptr;
  }
  FILE* file = fdopen(fd.get(), "r+");
  if (file == nullptr) return nullptr;
  (void)fd.release();  // the FILE's now
  const LogFileOperate operate = g_operate;
  if (operate != nullptr) (void)operate(kOperateOpen, file, path);  // only a write can be refused
  return file;
}

void CloseLogFile(std::atomic<FILE*>& file) {
  FILE* held = file.exchange(nullptr);
  if (held != nullptr && fclose(held) != 0) PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
}

WriteResult WriteCurrent(std::string_view bytes, uint32_t offset) {
  FILE* file = g_files.file.load(std::memory_order_relaxed);
  if (file == nullptr) return WriteResult::kFailed;
  const LogFileOperate operate = g_operate.load(std::memory_order_relaxed);
  if (operate != nullptr && operate(kOperateWrite, file, nullptr) != 0) return WriteResult::kSkipped;
  const LogReport report = g_report.load(std::memory_order_relaxed);
  if (report != nullptr) {
    const uint32_t result = report(g_reportModule, bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (result != 0) printf("!%d\n", static_cast<int>(result));
  }
  const ssize_t written = pwrite(fileno(file), bytes.data(), bytes.size(), static_cast<off_t>(offset));
  return written == static_cast<ssize_t>(bytes.size()) ? WriteResult::kDone : WriteResult::kFailed;
}

bool WriteFreshHead(uint32_t offset) {
  const FileHead head = {.reserved = 0, .offset = offset, .magic = kHeadMagic};
  char bytes[kFirstOffset] = {};
  (void)memcpy_s(bytes, sizeof(bytes), &head, sizeof(head));
  bytes[sizeof(head)] = '\n';
  g_files.offset = offset;
  const bool isWritten = WriteCurrent({bytes, sizeof(bytes)}, 0) != WriteResult::kFailed;
  if (!isWritten) PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
  return isWritten;
}

}  // namespace runlog

using runlog::g_files;

const LogFileNames& GetLogFileNames() {
  return g_files.names;
}

uint32_t CreatRunLogFile() {
  runlog::CloseLogFile(g_files.file);
  FILE* file = runlog::OpenLogFile(g_files.names.current, O_CREAT);
  if (file == nullptr) {
    runlog::PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
    return kFailure;
  }
  const uint32_t result = ChangeFileProperty(g_files.names.current);
  if (result != kSuccess) runlog::PrintFileError(result, LogBaseName(__FILE__), __LINE__);  // still a log
  runlog::ReserveSpace(file);
  g_files.file = file;
  return kSuccess;
}

void WriteArm9LogTofile(const runlog::Record& record) {
  if (g_files.file.load(std::memory_order_relaxed) == nullptr) {
    runlog::OpenForNextRecord();
    return;  // kept: this one record is lost
  }
  static char line[runlog::kLineSize];
  const uint32_t length = runlog::BuildLine(record, line);
  if (length == 0) {
    runlog::PrintRecordError(record);
    return;
  }
  const uint32_t maxSize = g_files.maxSize;
  runlog::CountBytes(length, maxSize);
  if (uint64_t{g_files.offset} + length + runlog::kEndMarker.size() > maxSize) runlog::TurnOver();
  runlog::WriteLine(record, {line, length});
}

void BackupFileToSpecificPath(const char* path) {
  const TOLA_FILE_BACKUP_S* table = runlog::g_backups;
  const uint32_t count = runlog::g_backupCount;
  for (uint32_t i = 0; i < count; ++i) {
    if (table[i].filePath == nullptr || std::string_view(table[i].filePath) != path) continue;
    if (table[i].backupPath == nullptr) continue;
    const uint32_t result = TolaBackupFile(path, table[i].backupPath);
    if (result != kSuccess) printf("backup file fail %#x\n", result);
    return;
  }
}

void CheckRunLogFileExist(uint32_t now) {
  if (now - runlog::g_lastExistCheck < runlog::kExistCheckSeconds) return;
  runlog::g_lastExistCheck = now;
  const base::UniqueFd fd(open(g_files.names.current, runlog::kOpenFlags));
  if (fd) return;
  printf("%s is not exist!", g_files.names.current);
  runlog::CloseLogFile(g_files.file);
}

void RestartExistCheck(uint32_t now) {
  runlog::g_lastExistCheck = now;
}

uint32_t TolaRegFileBackupPath(const TOLA_FILE_BACKUP_S* table, uint32_t count) {
  if (table == nullptr || count == 0) return kFailure;
  const runlog::LogLock lock;
  if (!lock.MayChange()) return kFailure;
  runlog::g_backups = table;
  runlog::g_backupCount = count;
  return kSuccess;
}

void SetRunLogReport(uint16_t moduleId, LogReport func) {
  runlog::g_reportModule = moduleId;
  runlog::g_report = func;
}

void RegLogFileOprateFunc(LogFileOperate func) {
  runlog::g_operate = func;
}

void TOLA_RunLogRecordTypeEnable() {
  g_files.overwrite = true;
  puts("run log record type overwrite");
}

FILE* GetFileLog() {
  return g_files.file;
}
void SetFileLog(FILE* file) {
  g_files.file = file;
}
FILE* GetFileLogRecord() {
  return g_files.fullRecord;
}
void SetFileLogRecord() {
  g_files.fullRecord = nullptr;
}
uint32_t GetLogFileMaxSize() {
  return g_files.maxSize;
}
uint32_t GetLogFileAddSize() {
  return g_files.addSize;
}
void SetLogFileAddSize(uint32_t size) {
  g_files.addSize = size;
}
uint32_t GetLogFileAddNum() {
  return g_files.addNum;
}
