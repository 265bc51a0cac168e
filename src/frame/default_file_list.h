/// Which files belong to which key of the path configuration.
#pragma once

#include <span>

struct DefaultFileRow {
  const char* key;
  const char*
      path;  ///< a base name that ends in '_' is a prefix; a "%d" in it is text of a pattern, never a format
};

/// In the order in which the rows are tried for a line of the path configuration.
extern const std::span<const DefaultFileRow> g_defaultFileList;
