// libcrypto is set up at the first verification and never at start: an idle process does not pay for it.
#include <openssl/crypto.h>

#include <iterator>

#include "cms/openssl_owners.h"

namespace cms {

namespace {

struct DigestRow {
  DigestId id;
  const char* name;
};
constexpr DigestRow kDigests[] = {
    {kDigestSha256, "SHA256"}, {kDigestSha384, "SHA384"}, {kDigestSha512, "SHA512"}, {kDigestSm3, "SM3"}};

/// Kept until the process ends: libcrypto's own clean-up may run before ours.
struct Digests {
  EVP_MD* algorithms[std::size(kDigests)] = {};
  Digests() {
    if (!InitCrypto()) return;
    for (size_t i = 0; i < std::size(kDigests); ++i) {
      algorithms[i] = EVP_MD_fetch(nullptr, kDigests[i].name, nullptr);
    }
  }
};

}  // namespace

bool InitCrypto() {
  static const bool ready = OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
  return ready;
}

const EVP_MD* FetchedDigest(uint32_t id) {
  static const Digests digests;
  for (size_t i = 0; i < std::size(kDigests); ++i) {
    if (kDigests[i].id == id) return digests.algorithms[i];
  }
  return nullptr;
}

}  // namespace cms
