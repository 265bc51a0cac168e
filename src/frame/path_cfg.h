/// The lists of the path configuration and the steps that build them; callers outside use public_file_cfg.h.
///
/// Both lists grow at the head, so the last line for a key wins. Nodes live as long as the process. The steps
/// run on the starting thread alone.
#pragma once

#include <stdint.h>
#include <stdio.h>

/// One directory (defaultPath null) or one file that stands for its default.
struct PathNode {
  char key[64];
  char path[256];
  const char* defaultPath;
  PathNode* next;
};

const PathNode* GetPathList();     ///< head of the directory list
const PathNode* GetPathCfgList();  ///< head of the file list

/// Reads every line of `file`; a line of more than 510 characters is read as several.
void ParsePathCfgFile(FILE* file);

/// Whether the line is looked at: no comment, not empty, not the version line.
[[nodiscard]] bool CheckLineValidPath(const char* line);

/// Takes one entry line apart (it is cut up in place) and extends both lists.
/// @retval kPathCfgErrLine no entry @retval 1 empty key @retval kErrCopy the key has more than 63 characters
[[nodiscard]] uint32_t CreateKeyAndVal(char* line, uint16_t size);

/// Makes the directory when it can be named safely and does not exist; the outcome is printed, never
/// returned.
void CreateDirWhenNotExist(char* dir);

/// Extends the directory list. @retval kErrTextFormat the value is empty or does not fit @retval
/// kPathCfgErrMemory
[[nodiscard]] uint32_t InsertRunPathToList(const char* key, const char* value);

/// Extends the file list by every default file of the key; a row that fails is printed and skipped.
void TravelInsertFilePathToList(const char* key, const char* value);

/// Both lists for one entry; a failing directory is printed and does not keep the files from being listed.
void GetDefaultPathAndCreateList(const char* key, const char* value);
