/// The start-up stage of the exception box.
#pragma once

#include <stdint.h>

/// Sets the exception box up with the process's own files, before anything else, so that a crash in a later
/// stage is recorded. Core files are switched off unless the configuration (debug.core) wants them: a core
/// holds more of the process than the box does. @retval 0 always
[[nodiscard]] uint32_t TolaOsFetureBoxInit();  // kept: spelt so
