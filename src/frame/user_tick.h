/// The runtime's user tick: how many user ticks have passed since it asked last.
#pragma once

#include <stdint.h>

/// Installed into g_pfnUsrAdjustHook; the runtime's timer thread alone calls it.
///
/// The first call sets the tick base and returns 1. A jump of more than 10000 ticks is printed and returns
/// 1000. A failing 64-bit operation ends the call with its result.
uint32_t TolaOsUserTickAdjust();
