/// The points of start-up that the platform tells its product about.
#pragma once

#include <stdint.h>

/// Tells the product that start-up has reached a point. This product does nothing there and returns 0.
[[nodiscard]] uint32_t TOLA_RegProductInitStage(uint32_t stage);

/// The platform's thirteen points, stages 0 to 12. Four of them are in the stage table of this process.
[[nodiscard]] uint32_t TolaOsProductBeforePlatformInit();
[[nodiscard]] uint32_t TolaOsProductProcVersion();
[[nodiscard]] uint32_t TolaOsProductProcAfterCfgMgr();
[[nodiscard]] uint32_t TolaOsProductProcAfterMcl();
[[nodiscard]] uint32_t TolaOsProductProcAfterBpl();
[[nodiscard]] uint32_t TolaOsProductProcBeforeEquipMgr();
[[nodiscard]] uint32_t TolaOsProductProcAfterEquipMgr();
[[nodiscard]] uint32_t TolaOsProductProcAfterExport();
[[nodiscard]] uint32_t TolaOsProductProcBeforBinInit();  // spelled so on purpose
[[nodiscard]] uint32_t TolaOsProductProcBeforeComp();
[[nodiscard]] uint32_t TolaOsProductProcAfterComp();
[[nodiscard]] uint32_t TolaOsProductProcBeforeSysMaintain();
[[nodiscard]] uint32_t TolaOsProductProcAfterSysMaintain();

/// Makes the main control loop's task, for a product whose components do not make it by registering with it.
/// 0 always: what went wrong is logged.
[[nodiscard]] uint32_t TolaOsMclManagerInit();
