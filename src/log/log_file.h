/// The log's files: the current file, the backup that it becomes when full, and the full-record file, which
/// keeps a byte count over restarts.
///
/// Records go out with one positioned write each, past the FILE's buffer, and the space of the current file
/// is reserved when it is opened. Everything here runs under the log's semaphore, or before it exists.
#pragma once

#include <stdint.h>

#include "log/log_record.h"

inline constexpr uint32_t kLogFileNameMax = 99;
/// Set-up of the full-record file failed: opening it, its two writes, opening it again.
inline constexpr uint32_t kLogErrFullOpen = 0x2A1B;
inline constexpr uint32_t kLogErrFullZeros = 0x2A1C;
inline constexpr uint32_t kLogErrFullCount = 0x2A1D;
inline constexpr uint32_t kLogErrFullReopen = 0x2A1E;

struct LogFileNames {
  char current[kLogFileNameMax + 1];
  char backup[kLogFileNameMax + 1];
  char fullRecord[kLogFileNameMax + 1];
};
const LogFileNames& GetLogFileNames();

/// Passes each name through the look-up; a name that does not fit stays as it is.
void MapLogFileNames();

/// Opens the current file, made with mode 0600 and the platform's owner when it is not there, in place of the
/// one that is open. @retval 1 it can be neither made nor opened; no file is open then
[[nodiscard]] uint32_t CreatRunLogFile();

/// Opens the current file and sets the write position by what stands in it and by the mode.
/// @retval 1 see CreatRunLogFile
[[nodiscard]] uint32_t StartRunLogFile(uint32_t maxSize);
/// Opens the current file at the position that was kept. @retval 1 see CreatRunLogFile
[[nodiscard]] uint32_t ResumeRunLogFile();

/// Writes the line of `record`, turning the file over first when it would become too full. A record that
/// finds no open file makes one and is lost.
void WriteArm9LogTofile(const runlog::Record& record);

/// Copies `path` to the place registered for it, if there is one.
void BackupFileToSpecificPath(const char* path);

/// Once an hour: forgets a current file that was deleted. `now` is in seconds since 1970; a clock that goes
/// back makes it look at once.
void CheckRunLogFileExist(uint32_t now);
/// The hour begins now.
void RestartExistCheck(uint32_t now);

/// Opens the full-record file, made anew when its size is wrong, and reads the byte count from it.
/// @retval kLogErrFull...
[[nodiscard]] uint32_t OpenFullRecordFile();
/// Saves the byte count; nothing happens when the file is not open.
void SaveFullRecord();
