#include "cms/root_ca.h"

#include "base/result_codes.h"
#include "cms/cms_log.h"
#include "cms/embedded_roots.h"
#include "log/run_log.h"

TOLA_ROOT_CA_S g_rootCAList[kRootCaCount];

namespace {

void (*g_multiSignatureInstall)() = nullptr;

template <uint16_t kLength>
TOLA_ROOT_CA_S BuiltInRoot(uint16_t caType, const uint8_t (&certificate)[kLength]) {
  return {.caType = caType, .certificate = certificate, .length = kLength, .isEnable = 1};
}

}  // namespace

uint32_t TOLA_SignatureVerificationAddRootCA(const TOLA_ROOT_CA_S& entry) {
  if (entry.caType >= kRootCaCount) return kRootCaErrType;
  LOG_EVT(cms::kLogModule, "AddRootCA isEnable= %u,caType= %u,length= %u", entry.isEnable, entry.caType,
          entry.length);
  g_rootCAList[entry.caType] = entry;
  if (g_multiSignatureInstall != nullptr) g_multiSignatureInstall();
  return kSuccess;
}

uint32_t TOLA_SignatureVerificationSetRootCAEnable(uint16_t caType, uint8_t enable) {
  if (caType >= kRootCaCount) return kRootCaErrType;
  LOG_EVT(cms::kLogModule, "set rootCA enable value,  caType = %u, isEnable=%u", caType, enable);
  g_rootCAList[caType].isEnable = enable;
  return kSuccess;
}

TOLA_ROOT_CA_S GetRootCa(uint32_t caType) {
  return caType < kRootCaCount ? g_rootCAList[caType] : TOLA_ROOT_CA_S{};
}

uint32_t GetSignatureRootCASupportNum() {
  return kRootCaCount;
}

TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA2048() {
  return BuiltInRoot(0, cms::kRoot_rsa2048);
}
TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA3072() {
  return BuiltInRoot(1, cms::kRoot_rsa3072);
}
TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA4096() {
  return BuiltInRoot(2, cms::kRoot_rsa4096);
}

bool UsesDevelopmentRoots() {
  return cms::kRootsAreDevelopment;
}

void SetMultiSignatureInstallHook(void (*install)()) {
  g_multiSignatureInstall = install;
}
