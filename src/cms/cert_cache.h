/// Decoded certificates of the buffers that come again at every verification: the roots, and a requester's
/// extra certificate. libcrypto spends more time on decoding a public key than on the check of a signature.
///
/// The key is the whole buffer, byte by byte, so that what is found is what decoding would give again.
/// Thread-safe.
#pragma once

#include <stdint.h>

#include <mutex>
#include <vector>

#include "cms/decode.h"

namespace cms {

class CertCache {
 public:
  /// The one of the process; it lives until the process ends.
  static CertCache& Get();

  /// DecodeCertificates, from memory when the same buffer was decoded lately. May throw std::bad_alloc.
  [[nodiscard]] uint32_t Decode(ByteSpan bytes, std::vector<CertPtr>& certs);

 private:
  static constexpr size_t kEntries = 6;
  static constexpr size_t kMaxBuffer = 4096;  ///< longer buffers are decoded each time

  struct Entry {
    std::vector<uint8_t> bytes;
    std::vector<CertPtr> certs;
  };

  std::mutex lock_;  ///< guards what follows
  Entry entries_[kEntries];
  size_t next_ = 0;  ///< the entry that goes next
};

}  // namespace cms
