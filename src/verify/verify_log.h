/// The module id under which package verification logs: the script executor's, for which it works.
#pragma once

#include <stdint.h>

inline constexpr uint16_t kVerifyLogModule = 4181;
