/// The stages of start-up that bring the platform's services up, in the order of the stage table. Their
/// results are the services' own.
#pragma once

#include <stdint.h>

/// Messages between modules.
[[nodiscard]] uint32_t TolaOsMsgInit();
/// Messages between processes. The process is told to the main process under its name and module.
[[nodiscard]] uint32_t TolaOsFeatureIpcIpcMgrInitInit();
/// Supervision of up to 16 tasks.
[[nodiscard]] uint32_t TolaOsTaskHeartBeatManagerInit();
/// The fault agent. @retval 1 there is none
[[nodiscard]] uint32_t TolaOsFaultManagerInit();
/// Start-up of the main control loop has ended. @retval 0 always
[[nodiscard]] uint32_t TolaOsNotifyMclInitEnd();
