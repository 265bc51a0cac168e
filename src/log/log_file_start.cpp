/// How the log's files are found at a start: their names, what stands in the current file, the byte count.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/log_file_state.h"
#include "log/log_lock.h"
#include "securec.h"
#include "velto/kel_clock.h"

namespace runlog {
namespace {

constexpr uint32_t kFullRecordSize = 36;
constexpr uint32_t kCountOffset = 32;

std::atomic<LogPathLookup> g_lookup{nullptr};

void MapName(char (&name)[kLogFileNameMax + 1]) {
  const LogPathLookup lookup = g_lookup;
  const char* mapped = lookup == nullptr ? nullptr : lookup(name);
  if (mapped == nullptr || strnlen(mapped, sizeof(name)) == sizeof(name)) return;
  char copy[sizeof(name)];  // the look-up may hand back the name itself
  (void)strcpy_s(copy, sizeof(copy), mapped);
  (void)strcpy_s(name, sizeof(name), copy);
}

bool BuildName(char (&name)[kLogFileNameMax + 1], const char* base, const char* ending) {
  return snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s%s", base, ending) > 0;
}

/// Size of an open file, or -1.
int64_t FileSize(FILE* file) {
  struct stat info = {};
  return fstat(fileno(file), &info) == 0 ? int64_t{info.st_size} : -1;
}

bool ReadHead(FileHead& head) {
  const ssize_t count = pread(fileno(g_files.file), &head, sizeof(head), 0);
  return count == static_cast<ssize_t>(sizeof(head)) && head.magic == kHeadMagic;
}

uint32_t MakeCurrentAnew() {
  (void)unlink(g_files.names.current);  // one that stays is written from its start
  g_files.offset = 0;
  return CreatRunLogFile();
}

uint32_t StartAppending() {
  const int64_t size = FileSize(g_files.file);
  if (size < 0 || size > int64_t{g_files.maxSize}) return MakeCurrentAnew();
  g_files.offset = static_cast<uint32_t>(size);
  FileHead head = {};
  if (!ReadHead(head)) return kSuccess;
  const char blank[sizeof(FileHead)] = {};
  if (WriteCurrent({blank, sizeof(blank)}, 0) == WriteResult::kFailed)
    PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
  return kSuccess;
}

uint32_t StartOverwriting() {
  (void)unlink(g_files.names.backup);
  const int64_t size = FileSize(g_files.file);
  if (size < 0 || size > int64_t{g_files.maxSize}) {
    if (MakeCurrentAnew() != kSuccess) return kFailure;
    return WriteFreshHead(kFirstOffset) ? kSuccess : kFailure;
  }
  if (size == 0) return WriteFreshHead(kFirstOffset) ? kSuccess : kFailure;
  FileHead head = {};
  if (ReadHead(head)) {
    g_files.offset = std::min(static_cast<uint32_t>(size), head.offset);
    return kSuccess;
  }
  // Kept: a file without a head gets one over its first bytes, and one byte stays free behind its end.
  return WriteFreshHead(static_cast<uint32_t>(size) + 1) ? kSuccess : kFailure;
}

uint32_t MakeFullRecordFile() {
  const char* path = g_files.names.fullRecord;
  CloseLogFile(g_files.fullRecord);
  (void)unlink(path);  // absent is as good; one that stays is truncated
  base::FilePtr file(OpenLogFile(path, O_CREAT | O_TRUNC));
  if (!file) return kLogErrFullOpen;
  const char zeros[kCountOffset] = {};
  const uint32_t count = 0;
  if (pwrite(fileno(file.get()), zeros, sizeof(zeros), 0) != sizeof(zeros)) return kLogErrFullZeros;
  if (pwrite(fileno(file.get()), &count, sizeof(count), kCountOffset) != sizeof(count))
    return kLogErrFullCount;
  file.reset();
  (void)ChangeFileProperty(path);  // without the platform's account the owner stays
  g_files.fullRecord = OpenLogFile(path, 0);
  return g_files.fullRecord == nullptr ? kLogErrFullReopen : kSuccess;
}

}  // namespace
}  // namespace runlog

using runlog::g_files;

void LogSetPathLookup(LogPathLookup lookup) {
  runlog::g_lookup = lookup;
}

uint32_t TOLA_SetRunLogFileName(const char* base) {
  if (base == nullptr) return kFailure;
  LogFileNames names = {};
  if (!runlog::BuildName(names.current, base, ".log") ||
      !runlog::BuildName(names.backup, base, "_back.log") ||
      !runlog::BuildName(names.fullRecord, base, "_full_record.tola")) {
    return kFailure;
  }
  const runlog::LogLock lock;
  if (!lock.MayChange()) return kFailure;
  g_files.names = names;
  return kSuccess;
}

void MapLogFileNames() {
  runlog::MapName(g_files.names.current);
  runlog::MapName(g_files.names.backup);
  runlog::MapName(g_files.names.fullRecord);
}

uint32_t StartRunLogFile(uint32_t maxSize) {
  g_files.maxSize = maxSize == 0 ? kLogDefaultMaxSize : maxSize;
  g_files.addNum = 0;
  if (CreatRunLogFile() != kSuccess) return kFailure;
  RestartExistCheck(runlog::WallSecond(KEL_ClockWallNs()));
  return g_files.overwrite ? runlog::StartOverwriting() : runlog::StartAppending();
}

uint32_t ResumeRunLogFile() {
  if (CreatRunLogFile() != kSuccess) return kFailure;
  RestartExistCheck(runlog::WallSecond(KEL_ClockWallNs()));
  return fseeko(g_files.file, static_cast<off_t>(g_files.offset), SEEK_SET) == 0 ? kSuccess : kFailure;
}

uint32_t OpenFullRecordFile() {
  runlog::CloseLogFile(g_files.fullRecord);
  FILE* file = runlog::OpenLogFile(g_files.names.fullRecord, 0);
  g_files.fullRecord = file;
  if (file != nullptr) (void)fchmod(fileno(file), S_IRUSR | S_IWUSR);  // another owner's file serves as well
  if (file == nullptr || runlog::FileSize(file) != runlog::kFullRecordSize) {
    const uint32_t result = runlog::MakeFullRecordFile();
    if (result != kSuccess) return result;
  }
  uint32_t count = 0;
  const ssize_t got = pread(fileno(g_files.fullRecord), &count, sizeof(count), runlog::kCountOffset);
  g_files.addSize = got == static_cast<ssize_t>(sizeof(count)) ? std::min(count, g_files.maxSize.load()) : 0;
  return kSuccess;
}

void SaveFullRecord() {
  FILE* file = g_files.fullRecord;
  if (file == nullptr) return;
  const uint32_t count = g_files.addSize;
  if (pwrite(fileno(file), &count, sizeof(count), runlog::kCountOffset) != sizeof(count)) {
    runlog::PrintFileError(errno, LogBaseName(__FILE__), __LINE__);
  }
}
