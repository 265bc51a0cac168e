/// The certificates that cmake/EmbeddedRoots.cmake puts into the program.
#pragma once

#include <stdint.h>

namespace cms {

extern const uint8_t kRoot_rsa2048[1934];  ///< PEM without a last line end
extern const uint8_t kRoot_rsa3072[1145];  ///< DER
extern const uint8_t kRoot_rsa4096[1606];  ///< DER
extern const bool kRootsAreDevelopment;

}  // namespace cms
