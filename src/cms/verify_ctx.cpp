#include "cms/verify_ctx.h"

#include <openssl/err.h>

#include <algorithm>
#include <new>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/cert_cache.h"
#include "cms/cms_log.h"
#include "cms/decode.h"
#include "cms/input_file.h"
#include "cms/report.h"
#include "cms/verify_state.h"
#include "log/run_log.h"

namespace {

constexpr size_t kContentPiece = 4096;

/// Leaves nothing of ours in the thread's error queue of libcrypto.
struct ErrorQueueGuard {
  ErrorQueueGuard() = default;
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
  ~ErrorQueueGuard() { ERR_clear_error(); }
};

uint32_t SigvfyCheckBufLen(const uint8_t* bytes, size_t length) {
  if (bytes == nullptr || length == 0) return cms::Report(kSigvfyErrArgument);
  return length > kSigvfyMaxBuffer ? cms::Report(kSigvfyErrTooLong) : kSuccess;
}

uint32_t InternalCheckParamVerifyDetachSignatureQuick(const char* contentPath, const char* signaturePath,
                                                      const uint32_t* result) {
  const bool missing = contentPath == nullptr || signaturePath == nullptr || result == nullptr;
  return missing ? cms::Report(kSigvfyErrArgument) : kSuccess;
}

/// Decodes the signature and leaves a verification of it running.
uint32_t SigvfyVerifyCms(SigvfyCtx* ctx, cms::ByteSpan bytes) {
  cms::CmsPtr signature;
  uint32_t code = cms::DecodeSignature(bytes, signature);
  if (code != kSuccess) return code;
  // Signers are looked up among the signature's own certificates alone.
  if (CMS_set1_signers_certs(signature.get(), nullptr, 0) < 0) return cms::Report(kSigvfyErrNoSigner);
  const cms::CertStackPtr certs(CMS_get1_certs(signature.get()));

  auto verification = std::make_unique<cms::Verification>();
  const cms::ChainChecker chain(*ctx->store, certs.get(), cms::CurrentVerifyTime());
  STACK_OF(CMS_SignerInfo)* infos = CMS_get0_SignerInfos(signature.get());
  for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) {
    CMS_SignerInfo* info = sk_CMS_SignerInfo_value(infos, i);
    X509* cert = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, &cert, nullptr, nullptr);
    if (cert == nullptr)
      return cms::Report(kSigvfyErrNoSigner, "the signer's certificate is not in the signature");
    code = chain.Check(cert);
    if (code != kSuccess) return code;
    code = verification->signers.emplace_back().Begin(signature.get(), info);
    if (code != kSuccess) return code;
  }
  ctx->running = std::move(verification);
  return kSuccess;
}

uint32_t SigvfyVerifyContentFile(SigvfyCtx* ctx, const char* path) {
  base::UniqueFd fd;
  uint64_t size = 0;
  uint32_t code = cms::OpenInput(path, fd, size);
  const auto piece = std::make_unique<uint8_t[]>(kContentPiece);
  size_t length = 1;
  while (code == kSuccess && length != 0) {
    code = cms::ReadPiece(fd.get(), piece.get(), kContentPiece, length);
    if (code == kSuccess && length != 0) code = SigvfyVerifyDetachSignatureUpdate(ctx, piece.get(), length);
  }
  return code;
}

uint32_t VerifyFiles(SigvfyCtx* ctx, const char* contentPath, const char* signaturePath, uint32_t* result) {
  std::vector<uint8_t> signature;
  uint32_t code = cms::ReadInput(signaturePath, signature);
  if (code == kSuccess) code = SigvfyVerifyDetachSignatureBegin(ctx, signature.data(), signature.size());
  if (code == kSuccess) code = SigvfyVerifyContentFile(ctx, contentPath);
  if (code == kSuccess) code = SigvfyVerifyDetachSignatureFinal(ctx, result);
  return code;
}

uint32_t FinishSigners(cms::Verification& verification, uint32_t* result) {
  for (cms::Signer& signer : verification.signers) {
    bool matches = false;
    const uint32_t code = signer.Final(matches);
    if (code != kSuccess) {
      if (code != kSigvfyErrNoVerifier) *result = 0;
      return cms::Report(code, "Verify Signature Content failed.", "SigvfyVerifyDetachSignatureFinal");
    }
    if (!matches || (!signer.HasSignedAttributes() && verification.ContentLooksLikeAttributes())) {
      *result = 0;
      return kSuccess;
    }
  }
  return kSuccess;
}

}  // namespace

uint32_t cms::CheckCtx(const SigvfyCtx* ctx, const char* function) {
  if (ctx == nullptr) return Report(kSigvfyErrArgument, "", function);
  const bool good = ctx->size == SigvfyCtx::kSize && ctx->ready == 1 && ctx->store;
  return good ? kSuccess : Report(kSigvfyErrSize, "", function);
}

void cms::Verification::Note(const uint8_t* data, size_t length) {
  if (contentLength < sizeof(head)) {
    const size_t at = static_cast<size_t>(contentLength);
    std::copy_n(data, std::min(length, sizeof(head) - at), head + at);
  }
  contentLength += length;
}

bool cms::Verification::ContentLooksLikeAttributes() const {
  if (contentLength < 2 || head[0] != (V_ASN1_SET | V_ASN1_CONSTRUCTED)) return false;
  uint64_t length = head[1];
  size_t headerSize = 2;
  if (head[1] >= 0x80) {
    const size_t lengthBytes = head[1] & 0x7fu;
    if (lengthBytes > sizeof(head) - 2) return false;  // longer than any content that is read here
    length = 0;
    for (size_t i = 0; i < lengthBytes; ++i) length = length << 8 | head[2 + i];
    headerSize += lengthBytes;
  }
  return headerSize + length == contentLength;
}

uint32_t SigvfyVerifyCreateCtx(SigvfyCtx** ctx, const SIGVFY_CTX_PARAM_S* param) {
  if (ctx == nullptr || param == nullptr) return cms::Report(kSigvfyErrArgument);
  *ctx = nullptr;
  if (param->size != sizeof(*param)) return cms::Report(kSigvfyErrSize);
  if (!cms::InitCrypto()) return cms::Report(kSigvfyErrCrypto);
  return cms::Contained([&] {
    auto made = std::make_unique<SigvfyCtx>();
    made->size = SigvfyCtx::kSize;
    made->ready = 1;
    made->store = std::make_unique<cms::PkiStore>();
    *ctx = made.release();
    return kSuccess;
  });
}

void SigvfyVrfCtxFree(SigvfyCtx* ctx) {
  if (ctx != nullptr) ctx->ready = 0;
  delete ctx;
}

uint32_t SigvfyVerifyAddCert(SigvfyCtx* ctx, const uint8_t* bytes, size_t length) {
  uint32_t code = cms::CheckCtx(ctx);
  if (code == kSuccess) code = SigvfyCheckBufLen(bytes, length);
  if (code != kSuccess) return code;
  const ErrorQueueGuard guard;
  return cms::Contained([&] { return cms::CertCache::Get().Decode({bytes, length}, ctx->store->certs); });
}

uint32_t SigvfyVerifyAddCrlFile(SigvfyCtx* ctx, const char* path) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  if (path == nullptr) return cms::Report(kSigvfyErrArgument);
  const ErrorQueueGuard guard;
  return cms::Contained([&] {
    std::vector<uint8_t> bytes;
    const uint32_t read = cms::ReadInput(path, bytes);
    return read == kSuccess ? cms::DecodeCrls(bytes, ctx->store->crls) : read;
  });
}

uint32_t SigvfyCheckAnchorCrls(SigvfyCtx* ctx) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  const ErrorQueueGuard guard;
  return cms::Contained(
      [&] { return cms::ChainChecker(*ctx->store, nullptr, cms::CurrentVerifyTime()).CheckAnchors(); });
}

uint32_t SigvfyResetCert(SigvfyCtx* ctx, uint32_t reserved) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  if (reserved != 0) return cms::Report(kSigvfyErrArgument);
  ctx->store->certs.clear();
  return kSuccess;
}

uint32_t SigvfyResetCrl(SigvfyCtx* ctx) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code == kSuccess) ctx->store->crls.clear();
  return code;
}

uint32_t SigvfyVerifyDetachSignatureQuick(SigvfyCtx* ctx, const char* contentPath, const char* signaturePath,
                                          uint32_t* result) {
  uint32_t code = cms::CheckCtx(ctx);
  if (code == kSuccess)
    code = InternalCheckParamVerifyDetachSignatureQuick(contentPath, signaturePath, result);
  if (code != kSuccess) return code;

  *result = 0;
  code = cms::Contained([&] { return VerifyFiles(ctx, contentPath, signaturePath, result); });
  ctx->running.reset();
  if (SigvfyResetCert(ctx, 0) != kSuccess) return cms::Report(kSigvfyErrReset, "reset cert failed!");
  if (SigvfyResetCrl(ctx) != kSuccess) return cms::Report(kSigvfyErrReset, "reset crl failed!");
  return code;
}

uint32_t SigvfyVerifyDetachSignatureBegin(SigvfyCtx* ctx, const uint8_t* signature, size_t length) {
  uint32_t code = cms::CheckCtx(ctx);
  if (code == kSuccess) code = SigvfyCheckBufLen(signature, length);
  if (code != kSuccess) return code;
  const ErrorQueueGuard guard;
  ctx->running.reset();
  return cms::Contained([&] { return SigvfyVerifyCms(ctx, {signature, length}); });
}

uint32_t SigvfyVerifyDetachSignatureUpdate(SigvfyCtx* ctx, const uint8_t* data, size_t length) {
  uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  if (data == nullptr || length == 0) return cms::Report(kSigvfyErrArgument);
  if (!ctx->running) return cms::Report(kSigvfyErrState);
  const ErrorQueueGuard guard;
  ctx->running->Note(data, length);
  for (cms::Signer& signer : ctx->running->signers) {
    code = signer.Update(data, length);
    if (code != kSuccess) break;
  }
  if (code != kSuccess) ctx->running.reset();  // what missed a piece must not come to a result
  return code;
}

uint32_t SigvfyVerifyDetachSignatureFinal(SigvfyCtx* ctx, uint32_t* result) {
  const uint32_t code = cms::CheckCtx(ctx);
  if (code != kSuccess) return code;
  const std::unique_ptr<cms::Verification> ending = std::move(ctx->running);
  if (result == nullptr) return cms::Report(kSigvfyErrArgument);
  if (!ending || ending->signers.empty()) {
    *result = 0;
    return cms::Report(kSigvfyErrState);
  }
  const ErrorQueueGuard guard;
  *result = 1;
  return FinishSigners(*ending, result);
}

void SigvfyLogCallback(const char* logName, uint32_t line, const char* function, uint32_t code,
                       const char* text) {
  TOLA_LogPrint(cms::kLogModule, kLogErr, logName, line, "%s %08x %s", function, code, text);
}
