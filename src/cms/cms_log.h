/// The module id under which the signature engine logs: the script executor's, for which it works.
#pragma once

#include <stdint.h>

namespace cms {
inline constexpr uint16_t kLogModule = 4181;
}
