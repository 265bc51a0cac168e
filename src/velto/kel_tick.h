/// What the timer thread reports to the user tick counter. For the runtime's own sources only.
#pragma once

#include <stdint.h>

namespace velto {

void UserTicksAdd(uint32_t ticks);

}  // namespace velto
