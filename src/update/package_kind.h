/// What a package is, judged by its path alone. Shared by the name check and the space check.
#pragma once

#include <stdint.h>

/// The values are the kinds that the space check takes.
enum class PackageKind : uint16_t {
  kTarGz = 0,    ///< holds ".tar.gz"
  kZip = 1,      ///< else holds ".zip"
  kUnknown = 2,  ///< else
};

[[nodiscard]] PackageKind PackageKindOf(const char* packagePath);
