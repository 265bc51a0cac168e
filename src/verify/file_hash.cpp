// SHA-256 of a file at the speed of the digest itself: one static buffer that is large enough to make the
// reads cheap and small enough to stay in the cache, and the engine's one fetched algorithm.
#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/openssl_owners.h"
#include "verify/signature_normal.h"

namespace {

constexpr size_t kReadSize = 256 * 1024;

std::mutex g_hashLock;  // guards the buffer
alignas(64) uint8_t g_hashBuffer[kReadSize];

/// Opens without waiting for a pipe's writer or a device, and takes nothing but a regular file.
uint32_t OpenForHash(const char* path, base::UniqueFd& fd) {
  fd.reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) return errno == ENXIO ? kVerifyErrFileRead : kVerifyErrFileOpen;  // ENXIO: there, but a socket
  struct stat info;
  if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return kVerifyErrFileRead;
  (void)posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);  // advice alone
  return kSuccess;
}

uint32_t HashDescriptor(int fd, uint8_t* digest) {
  const EVP_MD* sha256 = cms::FetchedDigest(cms::kDigestSha256);  // readies libcrypto too
  const cms::DigestCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || sha256 == nullptr || EVP_DigestInit_ex2(ctx.get(), sha256, nullptr) != 1)
    return kVerifyErrDigest;

  size_t used = 0;  // of the buffer, for the cleansing
  uint32_t result = kSuccess;
  while (result == kSuccess) {
    const ssize_t got = read(fd, g_hashBuffer, sizeof(g_hashBuffer));
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) break;
    if (got < 0) {
      result = kVerifyErrFileRead;
    } else {
      used = std::max(used, static_cast<size_t>(got));
      if (EVP_DigestUpdate(ctx.get(), g_hashBuffer, static_cast<size_t>(got)) != 1) result = kVerifyErrDigest;
    }
  }
  OPENSSL_cleanse(g_hashBuffer, used);
  if (result == kSuccess && EVP_DigestFinal_ex(ctx.get(), digest, nullptr) != 1) result = kVerifyErrDigest;
  return result;
}

}  // namespace

uint32_t TolaCalcFileHash(const char* path, uint8_t* digest) {
  if (path == nullptr || digest == nullptr) return kVerifyErrArgument;
  base::UniqueFd fd;
  const uint32_t opened = OpenForHash(path, fd);
  if (opened != kSuccess) return opened;
  const std::lock_guard lock(g_hashLock);
  return HashDescriptor(fd.get(), digest);
}
