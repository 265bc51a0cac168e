/// The component stage of start-up: verification is switched on, then the components are brought to life.
#pragma once

#include <stdint.h>

/// The stage "CompMgr". No request can arrive before its last step enables the components' instances.
/// @retval 1 no memory, a registration that failed, or package verification that could not be switched on
/// @retval other the component frame's own result
[[nodiscard]] uint32_t TolaOsCompManagerInit();
