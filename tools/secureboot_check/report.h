/// What the product's secure-boot check says about an application, file by file.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct CheckedFile {
  std::string file;   ///< as the device names it
  std::string state;  ///< "matches", "differs", "differs, not forced", "unreadable"
};

/// One signed list of the application.
struct CheckedList {
  uint32_t mode = 0;
  std::string list;
  uint32_t code = 0;               ///< the product's answer; 0 is genuine
  std::vector<CheckedFile> files;  ///< as far as the list can be read
  std::vector<std::string> said;   ///< what the product logged as errors
};

/// Checks the list of `mode` (1 or 2), or only `oneFile` of it when that is not "". False when the names are
/// too long.
[[nodiscard]] bool CheckList(const std::string& directory, const std::string& app, uint32_t mode,
                             const std::string& oneFile, CheckedList& out);

/// Why, in a few words; "" for 0.
[[nodiscard]] const char* ReasonOf(uint32_t code);
