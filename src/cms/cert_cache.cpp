#include "cms/cert_cache.h"

#include <openssl/x509v3.h>

#include <algorithm>

#include "base/result_codes.h"

namespace cms {

namespace {

void AppendShared(const std::vector<CertPtr>& from, std::vector<CertPtr>& to) {
  to.reserve(to.size() + from.size());
  for (const CertPtr& cert : from) {
    if (X509_up_ref(cert.get()) == 1) to.emplace_back(cert.get());
  }
}

/// Whether libcrypto read all of the certificate. It remembers a lack of memory of that moment in the object.
bool IsWhole(const CertPtr& cert) {
  return X509_check_purpose(cert.get(), -1, 0) == 1 && X509_get0_pubkey(cert.get()) != nullptr;
}

}  // namespace

CertCache& CertCache::Get() {
  static CertCache* const cache = new CertCache;  // never freed: libcrypto may be gone when statics go
  return *cache;
}

uint32_t CertCache::Decode(ByteSpan bytes, std::vector<CertPtr>& certs) {
  if (bytes.size() > kMaxBuffer) return DecodeCertificates(bytes, certs);
  const std::lock_guard guard(lock_);
  for (const Entry& entry : entries_) {
    if (!std::equal(bytes.begin(), bytes.end(), entry.bytes.begin(), entry.bytes.end())) continue;
    AppendShared(entry.certs, certs);
    return kSuccess;
  }
  Entry fresh;
  const uint32_t code = DecodeCertificates(bytes, fresh.certs);
  if (code != kSuccess) return code;
  fresh.bytes.assign(bytes.begin(), bytes.end());
  AppendShared(fresh.certs, certs);
  if (!std::all_of(fresh.certs.begin(), fresh.certs.end(), IsWhole)) return kSuccess;
  entries_[next_] = std::move(fresh);
  next_ = (next_ + 1) % kEntries;
  return kSuccess;
}

}  // namespace cms
