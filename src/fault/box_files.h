/// The exception box's files: their names, and what the start does with those of the last run.
#pragma once

#include <stdint.h>

#include "base/owners.h"

inline constexpr uint32_t kBoxErrOpen = 10753;  ///< 0x2A01: the crash file or its map cannot be made

inline constexpr uint32_t kBoxNameSize = 256;
inline constexpr uint32_t kBoxKeptBytes = 0x100000;  ///< a larger crash file of the last run is not kept

/// Texts with their terminators. An empty backup name: the run before last is not kept.
struct TOLA_SIGNAL_BOX_S {
  char exceptionFile[kBoxNameSize];
  char backupFile[kBoxNameSize];
  char mapFile[kBoxNameSize];  ///< kept, not read: the map's name follows from the exception file's
};
static_assert(sizeof(TOLA_SIGNAL_BOX_S) == 768);

struct BoxNames {
  char exception[kBoxNameSize];
  char backup[kBoxNameSize];
  char crash[kBoxNameSize];  ///< of this run: the exception file's with ".tmp"
  char map[kBoxNameSize];    ///< the exception file's with ".map.tmp"
};

/// @retval kErrFormat a name is no full path, too long, or not fit for a command line
[[nodiscard]] uint32_t BoxFormNames(const TOLA_SIGNAL_BOX_S& files, BoxNames& names);

/// Moves the crash file of the last run, if it holds anything, to the exception file's name with the memory
/// map behind it, and the exception file to the backup's. What cannot be moved is logged and left out.
void BoxKeepLastRun(const BoxNames& names);

/// Removes what stands at `path` and makes an empty file there, which nobody else may read. No link is
/// followed. An invalid owner: it cannot be made.
[[nodiscard]] base::UniqueFd BoxNewFile(const char* path);
