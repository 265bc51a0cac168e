/// The requesting component 4150 of the platform's main process.
#pragma once

#include <stdint.h>

namespace board_main {

inline constexpr uint32_t kRequesterCompId = 4150;

/// Makes this process component process 100, tells it where the script executor lives, and starts the
/// component. Its own task takes the executor's messages and hands them to the proxy. @retval 0, else the
/// component layer's
[[nodiscard]] uint32_t StartRequesterComp();

}  // namespace board_main
