/// What `update_pack make` is asked to make, and the checks that it can be made and would be taken by a
/// device.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "file_names.h"

inline constexpr size_t kListNameLimit = 128;  ///< characters of a name in a file list
inline constexpr size_t kListEntryLimit = 255;

struct PackagePlan {
  std::string script;
  std::vector<std::string> payloads;
  std::vector<std::string> more;  ///< further files: listed, and put beside the package
  std::string key;
  std::string cert;
  std::string chain;
  std::string crl;
  std::string out;
  std::string name;
  std::string list;
  std::string digest;
  long caType = 0;

  [[nodiscard]] std::string PackageName() const { return name + ".tar.gz"; }
};

/// Fills in the defaults, then checks all but the keys and certificates. False with a sentence in `error`
/// that says what is wrong and what to do.
[[nodiscard]] bool CheckPlan(PackagePlan& plan, std::string& error);
