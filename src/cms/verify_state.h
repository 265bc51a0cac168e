/// The inside of a verification context. Its size is part of the engine's contract, so what it holds stands
/// behind pointers.
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include "cms/chain.h"
#include "cms/signer.h"

namespace cms {

/// A verification between Begin and Final.
struct Verification {
  std::vector<Signer> signers;
  uint64_t contentLength = 0;
  uint8_t head[6] = {};  ///< first bytes of the content

  void Note(const uint8_t* data, size_t length);
  /// True when the content is itself the encoding of signed attributes: then a signature over attributes,
  /// taken out of another message, would pass for one over this content.
  [[nodiscard]] bool ContentLooksLikeAttributes() const;
};

}  // namespace cms

struct SigvfyCtx {
  static constexpr uint32_t kSize = 240;

  uint32_t size;   ///< kSize
  uint32_t ready;  ///< 1
  std::unique_ptr<cms::PkiStore> store;
  std::unique_ptr<cms::Verification> running;
  uint8_t reserved[kSize - 2 * sizeof(uint32_t) - 2 * sizeof(void*)];
};
static_assert(sizeof(SigvfyCtx) == SigvfyCtx::kSize);

namespace cms {

/// @retval 0 @retval kSigvfyErrArgument null @retval kSigvfyErrSize no context
[[nodiscard]] uint32_t CheckCtx(const SigvfyCtx* ctx, const char* function = __builtin_FUNCTION());

}  // namespace cms
