#include "cms/signature_verify.h"

#include <string.h>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/cms_log.h"
#include "cms/root_ca.h"
#include "log/run_log.h"

namespace {

using CtxPtr = base::UniqueC<SigvfyCtx, SigvfyVrfCtxFree>;

/// The text of a field, or null when it has no end.
template <size_t kSize>
const char* TextOf(const char (&field)[kSize]) {
  return memchr(field, '\0', kSize) == nullptr ? nullptr : field;
}

const uint8_t* BytesOf(const char* text) {
  return reinterpret_cast<const uint8_t*>(text);
}

}  // namespace

uint32_t AddRootCert(const SIGNATURE_VERIFY_BLOCK_S& request, SigvfyCtx* ctx) {
  for (const TOLA_ROOT_CA_S& root : g_rootCAList) {
    if (root.length == 0 || root.isEnable == 0) continue;
    if (SigvfyVerifyAddCert(ctx, root.certificate, root.length) != kSuccess) return kSigErrRootCert;
  }
  const char* extra = TextOf(request.extraCert);
  if (extra == nullptr) return kSigErrRootCert;
  if (extra[0] == '\0') return kSuccess;
  return SigvfyVerifyAddCert(ctx, BytesOf(extra), strlen(extra) + 1) == kSuccess ? kSuccess : kSigErrRootCert;
}

uint32_t CMSSignatureVerifyFilePreprocess(const SIGNATURE_VERIFY_BLOCK_S& request, SigvfyCtx* ctx) {
  const uint32_t result = AddRootCert(request, ctx);
  if (result != kSuccess) return result;
  return SigvfyVerifyAddCrlFile(ctx, TextOf(request.crlPath)) == kSuccess ? kSuccess : kSigErrCrl;
}

uint32_t SignatureVerify(const SIGNATURE_VERIFY_BLOCK_S& request) {
  uint32_t result = kSigErrContext;
  uint32_t flag = 1;  // cleared by the quick verification once its arguments are good
  const SIGVFY_CTX_PARAM_S param = {.size = sizeof(param), .reserved = {}};
  SigvfyCtx* made = nullptr;
  if (SigvfyVerifyCreateCtx(&made, &param) != kSuccess) return result;
  const CtxPtr ctx(made);

  result = CMSSignatureVerifyFilePreprocess(request, ctx.get());
  if (result != kSuccess) return result;

  const uint32_t code = SigvfyVerifyDetachSignatureQuick(ctx.get(), TextOf(request.contentPath),
                                                         TextOf(request.signaturePath), &flag);
  if (code != kSuccess) {
    result = kSigErrEngine;
    LOG_ERR(cms::kLogModule, "verify signature error %08x %08x", code, flag);
  }
  return flag == 1 ? result : kSigErrSignature;
}
