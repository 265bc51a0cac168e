#include "verify/crl_manage.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/root_ca.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "verify/verify_log.h"

namespace {

/// Adds the root of the CA type, then the extra certificate.
uint32_t AddAnchors(const SIGNATURE_VERIFY_REQ_S& request, SigvfyCtx* context) {
  const TOLA_ROOT_CA_S root = GetRootCa(request.caType);
  if (root.certificate == nullptr || root.length == 0) return kCrlErrRoot;
  uint32_t result = SigvfyVerifyAddCert(context, root.certificate, root.length);
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "Add root cert check err: %d, %s", static_cast<int>(result), request.crlPath);
    return result;
  }
  if (request.extraCert == nullptr || request.extraCert[0] == '\0') return kSuccess;
  const auto* text = reinterpret_cast<const uint8_t*>(request.extraCert);
  result = SigvfyVerifyAddCert(context, text, strlen(request.extraCert) + 1);
  if (result != kSuccess)
    LOG_ERR(kVerifyLogModule, "Add root ca check err: %d, %s", static_cast<int>(result), request.crlPath);
  return result;
}

/// Whether `code` tells only that the stored list could not be looked at just now. It may be a good one, and
/// displaced by an older one it would be forgotten with what it revokes.
bool WasOutOfReach(uint32_t code, const char* stored) {
  if (code == kSigvfyErrMemory || code == kSigvfyErrCrypto) return true;
  if (code != kSigvfyErrOpen) return false;
  const base::UniqueFd fd(open(stored, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return fd || errno == EMFILE || errno == ENFILE || errno == ENOMEM;
}

/// The order of the checks for a list that an update supplies, when one is stored.
uint32_t StoreIfBetter(const SIGNATURE_VERIFY_REQ_S& request, const char* stored) {
  uint32_t newer = 0;
  CRL_COMPARE_STATE_S state;
  const uint32_t compared = CompareCrlDate(request, stored, &newer, &state);
  if (compared != kSuccess) {
    LOG_ERR(kVerifyLogModule, "compare err:%hu,%hu,%hu", static_cast<uint16_t>(compared),
            static_cast<uint16_t>(state.updateValid), static_cast<uint16_t>(state.storedValid));
    if (!state.updateValid || state.storedValid || WasOutOfReach(compared, stored)) return compared;
  } else if (newer == 0) {
    return kSuccess;
  }
  return UpdateCrlFileToDevice(request.crlPath, request.caType);
}

}  // namespace

bool IsCrlSupplied(const SIGNATURE_VERIFY_REQ_S& request) {
  const size_t length = request.crlPath == nullptr ? 0 : strlen(request.crlPath);
  return length != 0 && request.crlPath[length - 1] != '/';
}

uint32_t GetValidCrlInfo(const SIGNATURE_VERIFY_REQ_S& request, VerifyCtxPtr& context, VerifyCrlPtr& crl) {
  context.reset();
  crl.reset();
  if (request.crlPath == nullptr) return kCrlErrArgument;
  SIGVFY_CTX_PARAM_S param = {};
  param.size = sizeof(param);
  SigvfyCtx* made = nullptr;
  uint32_t result = SigvfyVerifyCreateCtx(&made, &param);
  VerifyCtxPtr owner(made);
  if (result != kSuccess) return result;
  result = AddAnchors(request, owner.get());
  if (result != kSuccess) return result;

  SigvfyCrl* decoded = nullptr;
  result = SigvfyDecodeCrlFile(owner.get(), request.crlPath, &decoded);
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "check crl for update err: %d, %s", static_cast<int>(result), request.crlPath);
    return result;
  }
  crl.reset(decoded);
  context = std::move(owner);
  return kSuccess;
}

uint32_t CompareCrlDate(const SIGNATURE_VERIFY_REQ_S& request, const char* storedPath, uint32_t* newer,
                        CRL_COMPARE_STATE_S* state) {
  if (newer == nullptr || state == nullptr) return kCrlErrArgument;
  *newer = 0;
  *state = {};
  VerifyCtxPtr updateContext;
  VerifyCrlPtr update;
  uint32_t result = GetValidCrlInfo(request, updateContext, update);
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "file err:%u", result);
    return result;
  }
  state->updateValid = true;

  SIGNATURE_VERIFY_REQ_S storedRequest;
  storedRequest.crlPath = storedPath;
  storedRequest.caType = request.caType;
  VerifyCtxPtr storedContext;
  VerifyCrlPtr stored;
  result = GetValidCrlInfo(storedRequest, storedContext, stored);
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "device err:%u", result);
    return result;
  }
  state->storedValid = true;
  result = SigvfyCompareCrl(update.get(), stored.get(), newer);
  LOG_EVT(kVerifyLogModule, "compare crl res: %08x, %d", result, static_cast<int>(*newer));
  return result;
}

uint32_t CompareAndUpdateCrlFile(const SIGNATURE_VERIFY_REQ_S& request) {
  char stored[kStoredCrlPathMax + 1];
  if (GetSignatureCrlFileName(request.caType, stored, sizeof(stored), kStoredCrlPathMax) != kSuccess) {
    return kCrlErrRoot;
  }
  // A replacement that fails leaves the older list; going on with it would overlook what the newer one
  // revokes.
  const uint32_t result = StoreIfBetter(request, stored);
  if (result != kSuccess) return result;
  return TOLA_CopyFile(kVerifyLogModule, stored, request.crlPath);
}

bool CheckCrlFileValid(const SIGNATURE_VERIFY_REQ_S& request) {
  uint32_t newer = 0;
  CRL_COMPARE_STATE_S state;
  return CompareCrlDate(request, request.crlPath, &newer, &state) == kSuccess;
}

uint32_t CheckUpdateCrlValidAndUpdate(const SIGNATURE_VERIFY_REQ_S& request, bool storedExists) {
  if (storedExists) return CompareAndUpdateCrlFile(request) == kSuccess ? kSuccess : kVerifyErrCrl;
  const bool stored =
      CheckCrlFileValid(request) && UpdateCrlFileToDevice(request.crlPath, request.caType) == kSuccess;
  return stored ? kSuccess : kVerifyErrCrl;
}

uint32_t ProcessCrlInfo(const SIGNATURE_VERIFY_REQ_S& request) {
  const bool supplied = IsCrlSupplied(request);
  char stored[kStoredCrlPathMax + 1];
  if (GetSignatureCrlFileName(request.caType, stored, sizeof(stored), kStoredCrlPathMax) != kSuccess) {
    return kVerifyErrNoCrl;
  }
  RestoreStoredCrl(request.caType);  // else an old list could be taken for the first one
  const bool storedExists = CheckFileExist(stored) == kSuccess;
  if (!storedExists && !supplied) {
    LOG_EVT(kVerifyLogModule, "no check crl");
    return kVerifyErrNoCrl;
  }
  if (supplied) {
    const uint32_t result = CheckUpdateCrlValidAndUpdate(request, storedExists);
    if (result != kSuccess) return result;
  }
  (void)ChangeFileProperty(stored);  // a list that keeps another mode is as genuine as before
  return kSuccess;
}
