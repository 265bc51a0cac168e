#include "verify/signature.h"

#include "base/result_codes.h"
#include "cms/root_ca.h"
#include "log/run_log.h"
#include "verify/crl_manage.h"
#include "verify/signature_normal.h"
#include "verify/verify_log.h"

namespace {

constexpr uint32_t kForcedOff = 2;

SingleFileVerifier g_singleFileVerifier = nullptr;
MultipleFileVerifier g_multipleFileVerifier = nullptr;
uint32_t g_enableInfo = 0;

uint32_t ForcedMode() {
  return g_enableInfo & 0xFFFFu;
}

}  // namespace

void TolaSignatureVerifierRegister(SingleFileVerifier single, MultipleFileVerifier multiple) {
  g_singleFileVerifier = single;
  g_multipleFileVerifier = multiple;
}

bool TolaSignatureVerifierRegistered() {
  return g_singleFileVerifier != nullptr && g_multipleFileVerifier != nullptr;
}

void TOLA_EnableSignatureVerificationLite(uint32_t enableInfo) {
  TolaSignatureVerifierRegister(CMSSignatureVerify, UpgradePackSignatureVerify);
  g_enableInfo = enableInfo;
  LOG_EVT(kVerifyLogModule, "Signature, forced %u, part verify %u", ForcedMode(), SignaturePartVerifyMode());
}

uint32_t TolaEnableSignatureVerification(uint32_t enableInfo) {
  TOLA_EnableSignatureVerificationLite(enableInfo);
  uint32_t result = TOLA_SignatureVerificationAddRootCA(TOLA_SignatureVerifGetRootCARSA2048());
  if (result == kSuccess) result = TOLA_SignatureVerificationAddRootCA(TOLA_SignatureVerifGetRootCARSA3072());
  RestoreStoredCrlAtStart();
  return result;
}

uint32_t TolaSingleFileSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request, uint16_t caType) {
  if (g_singleFileVerifier == nullptr) {
    LOG_ERR(kVerifyLogModule, "disable single file signature");
    return kSuccess;  // kept: start-up makes sure that this never serves a request
  }
  SIGNATURE_VERIFY_REQ_S typed = request;
  typed.caType = caType;
  return g_singleFileVerifier(typed);
}

uint32_t TolaSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request, const char* directory) {
  if (g_multipleFileVerifier == nullptr) {
    LOG_ERR(kVerifyLogModule, "disable multiple file signature");
    return kSuccess;  // kept, as above
  }
  return g_multipleFileVerifier(request, directory);
}

void TolaGetSignatureVerificationEnableInfo(uint32_t& enabled, uint32_t& mode) {
  const bool on = g_multipleFileVerifier != nullptr && ForcedMode() != kForcedOff;
  enabled = on ? 1 : 0;
  mode = on ? ForcedMode() : 0;
}

uint8_t SignaturePartVerifyMode() {
  return static_cast<uint8_t>(g_enableInfo >> 16);
}
