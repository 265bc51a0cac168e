#include "frame/product_init_stages.h"

#include "msg/mcl_manager.h"

uint32_t TOLA_RegProductInitStage(uint32_t /*stage*/) {
  return 0;
}

uint32_t TolaOsProductBeforePlatformInit() {
  return TOLA_RegProductInitStage(0);
}
uint32_t TolaOsProductProcVersion() {
  return TOLA_RegProductInitStage(1);
}
uint32_t TolaOsProductProcAfterCfgMgr() {
  return TOLA_RegProductInitStage(2);
}
uint32_t TolaOsProductProcAfterMcl() {
  return TOLA_RegProductInitStage(3);
}
uint32_t TolaOsProductProcAfterBpl() {
  return TOLA_RegProductInitStage(4);
}
uint32_t TolaOsProductProcBeforeEquipMgr() {
  return TOLA_RegProductInitStage(5);
}
uint32_t TolaOsProductProcAfterEquipMgr() {
  return TOLA_RegProductInitStage(6);
}
uint32_t TolaOsProductProcAfterExport() {
  return TOLA_RegProductInitStage(7);
}
uint32_t TolaOsProductProcBeforBinInit() {
  return TOLA_RegProductInitStage(8);
}
uint32_t TolaOsProductProcBeforeComp() {
  return TOLA_RegProductInitStage(9);
}
uint32_t TolaOsProductProcAfterComp() {
  return TOLA_RegProductInitStage(10);
}
uint32_t TolaOsProductProcBeforeSysMaintain() {
  return TOLA_RegProductInitStage(11);
}
uint32_t TolaOsProductProcAfterSysMaintain() {
  return TOLA_RegProductInitStage(12);
}

uint32_t TolaOsMclManagerInit() {
  (void)TOLA_MclTaskInit(nullptr);  // kept: a loop that is not there is no failure of the start
  return 0;
}
