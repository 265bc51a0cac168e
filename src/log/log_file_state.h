/// State that the files of the run log share among themselves.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <string_view>

#include "log/log_file.h"

namespace runlog {

inline constexpr std::string_view kEndMarker = "/**Log file is full!**/";
static_assert(kEndMarker.size() == 23);

/// Stands at offset 0 of the current file in overwrite mode, in the machine's byte order, and is followed by
/// one line end.
struct FileHead {
  uint32_t reserved;
  uint32_t offset;  ///< where the next record goes
  uint32_t magic;
};
static_assert(sizeof(FileHead) == 12);
inline constexpr uint32_t kHeadMagic = 0xABAB;
inline constexpr uint32_t kFirstOffset = sizeof(FileHead) + 1;

/// Changed under the semaphore; what an accessor reads from any thread is atomic.
struct FileState {
  LogFileNames names;
  std::atomic<FILE*> file;
  std::atomic<FILE*> fullRecord;
  uint32_t offset;  ///< in overwrite mode where the next record goes, else the size of the current file
  std::atomic<uint32_t> maxSize;
  std::atomic<uint32_t> addSize;
  std::atomic<uint32_t> addNum;
  std::atomic<bool> overwrite;
};
extern FileState g_files;

/// "err:..." on standard output, with the place in the log's own source.
void PrintFileError(uint32_t code, const char* file, uint32_t line);

/// Opens `path` for reading and writing, close-on-exec, and tells the flow-control hook. `flags` are added to
/// open(2)'s. Null with errno set on failure. The directory is the service account's: a link is not followed,
/// and a file that has a second name is not ours to write or to give away.
[[nodiscard]] FILE* OpenLogFile(const char* path, int flags);

/// Closes a file of the log and clears its handle.
void CloseLogFile(std::atomic<FILE*>& file);

enum class WriteResult : uint8_t { kDone, kSkipped, kFailed };

/// Writes all of `bytes` at `offset` of the current file, through the flow-control and the report hook.
[[nodiscard]] WriteResult WriteCurrent(std::string_view bytes, uint32_t offset);

/// Writes a head with `offset` and the line end behind it, and takes that offset; false with a line on
/// standard output when it cannot be written.
bool WriteFreshHead(uint32_t offset);

}  // namespace runlog
