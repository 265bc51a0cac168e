/// The stage table of the initialisation task.
#pragma once

#include <stdint.h>

/// Runs the stages in the table's order and stops at the first that fails; nothing already started is undone.
/// Each stage's name and result go to the run log. @return the failing stage's result, else 0
[[nodiscard]] uint32_t TolaOsFeatureSystemInit();

/// Sets the run log up: names, 100 KiB before rotation, repeat control, every module to the console and the
/// file.
[[nodiscard]] uint32_t TolaOsLogInit();
