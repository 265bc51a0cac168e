#include "verify/signature_normal.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <new>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/openssl_owners.h"
#include "cms/signature_verify.h"
#include "log/run_log.h"
#include "securec.h"
#include "verify/crl_manage.h"
#include "verify/signature_verify_public.h"
#include "verify/verify_log.h"

namespace {

constexpr size_t kPathMax = 256;
constexpr uint8_t kPartVerifyStrict = 2;

using ListName = char[kListNameMax + 1];

/// Here and not when verification is enabled: the tables cost a waiting process 1 MB. Costs nothing the
/// second time; a failure makes the engine refuse.
void ReadyCryptoTables() {
  if (!cms::InitCrypto()) return;
  (void)OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS | OPENSSL_INIT_ADD_ALL_CIPHERS, nullptr);
}

template <size_t kSize>
bool CopyField(char (&field)[kSize], const char* text) {
  return text != nullptr && strcpy_s(field, kSize, text) == EOK;
}

uint32_t ReadEntry(FILE* fileList, char* name, size_t nameSize, char* digest, size_t digestSize) {
  if (GetKeyValueFromFile(fileList, "FileName=", name, nameSize) != kKeyFound) return kVerifyErrFileName;
  if (GetKeyValueFromFile(fileList, "SHA256-Digest=", digest, digestSize) != kKeyFound)
    return kVerifyErrListDigest;
  return kSuccess;
}

bool IsFileOrDirectory(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR || entry.d_type == DT_REG;
  struct stat info;  // a file system that keeps no types in its directories
  return fstatat(directory, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode));
}

bool IsNamed(const SIGNATURE_VERIFY_REQ_S& request, const ListName* names, uint32_t count,
             const char* entry) {
  for (uint32_t i = 0; i < count; ++i) {
    if (strcmp(names[i], entry) == 0) return true;
  }
  for (const char* own : {request.contentPath, request.signaturePath, request.crlPath}) {
    if (CheckFileNameSame(own, entry, request.caMask)) return true;
  }
  return false;
}

uint32_t CheckDirectoryEntries(const SIGNATURE_VERIFY_REQ_S& request, const char* directory,
                               const ListName* names, uint32_t count) {
  const base::DirPtr dir(directory == nullptr ? nullptr : opendir(directory));
  if (!dir) {
    LOG_ERR(kVerifyLogModule, "open dir err:%s", directory == nullptr ? "" : directory);
    return kVerifyErrDirOpen;
  }
  while (true) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) return errno == 0 ? kSuccess : kVerifyErrDirOpen;
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (!IsFileOrDirectory(dirfd(dir.get()), *entry)) {
      LOG_ERR(kVerifyLogModule, "unexcept file type:%d %s", entry->d_type, entry->d_name);
      return kVerifyErrFileType;
    }
    if (!IsNamed(request, names, count, entry->d_name)) {
      LOG_ERR(kVerifyLogModule, "unexcept file err:%s", entry->d_name);
      return kVerifyErrStrayFile;
    }
  }
}

}  // namespace

DigestText::~DigestText() {
  OPENSSL_cleanse(text, sizeof(text));
}

uint32_t CMSSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request) {
  ReadyCryptoTables();
  const uint32_t result = ProcessCrlInfo(request);
  if (result != kSuccess) return result;
  char stored[kStoredCrlPathMax + 1];
  const char* crlPath = request.crlPath;
  if (!IsCrlSupplied(request)) {
    if (GetSignatureCrlFileName(request.caType, stored, sizeof(stored), kStoredCrlPathMax) != kSuccess) {
      return kVerifyErrNoCrl;
    }
    crlPath = stored;
  }

  SIGNATURE_VERIFY_BLOCK_S block = {};
  const bool fits = CopyField(block.contentPath, request.contentPath) &&
                    CopyField(block.signaturePath, request.signaturePath) &&
                    CopyField(block.crlPath, crlPath) &&
                    (request.extraCert == nullptr || CopyField(block.extraCert, request.extraCert));
  if (!fits) return kErrFieldCopy;
  block.hasCaType = request.caType != 0;
  return SignatureVerify(block);
}

uint32_t UpgradePackSignatureVerify(const SIGNATURE_VERIFY_REQ_S& request, const char* directory) {
  const uint32_t result = CheckCMSAndUpdatePacketValid(request, directory);
  if (result != kSuccess) return result;
  const base::FilePtr fileList(OpenFileList(request.contentPath));
  return fileList ? CheckFileListHash(fileList.get(), directory) : kVerifyErrListOpen;
}

uint32_t CheckCMSAndUpdatePacketValid(const SIGNATURE_VERIFY_REQ_S& request, const char* directory) {
  const uint32_t result = CMSSignatureVerify(request);
  if (result != kSuccess) return result;
  LOG_EVT(kVerifyLogModule, "verify cms signature success");
  return CheckAllUpdateFileNeedVerify(request, directory);
}

uint32_t CheckAllUpdateFileNeedVerify(const SIGNATURE_VERIFY_REQ_S& request, const char* directory) {
  const base::FilePtr fileList(OpenFileList(request.contentPath));
  if (!fileList) return kVerifyErrListOpen;
  uint32_t count = 0;
  uint32_t result = GetFileNumFromList(fileList.get(), count);
  if (result != kSuccess) return result;
  if (count == 0) return kSuccess;

  const std::unique_ptr<ListName[]> names(new (std::nothrow) ListName[count]);
  if (!names) return kVerifyErrMemory;
  for (uint32_t i = 0; i < count; ++i) {
    char digest[kDigestText];
    result = ReadEntry(fileList.get(), names[i], sizeof(ListName), digest, sizeof(digest));
    if (result != kSuccess) return result;
  }
  return CheckDirectoryEntries(request, directory, names.get(), count);
}

uint32_t CheckFileListHash(FILE* fileList, const char* directory) {
  if (directory == nullptr) return kVerifyErrDirOpen;
  uint32_t count = 0;
  uint32_t result = GetFileNumFromList(fileList, count);
  FILE_LIST_ENTRY_S entry;
  for (uint32_t i = 0; result == kSuccess && i < count; ++i)
    result = ParseFileName(entry, fileList, directory);
  if (result != kSuccess) return result;
  const bool more = GetKeyValueFromFile(fileList, "FileName=", entry.name, sizeof(entry.name)) != kKeyMissing;
  return more ? kVerifyErrMoreEntries : kSuccess;
}

uint32_t ParseFileName(FILE_LIST_ENTRY_S& entry, FILE* fileList, const char* directory) {
  const uint32_t read =
      ReadEntry(fileList, entry.name, sizeof(entry.name), entry.digest, sizeof(entry.digest));
  if (read != kSuccess) return read;

  char path[kPathMax + 1];
  const int length = snprintf_s(path, sizeof(path), kPathMax, "%s/%s", directory, entry.name);
  if (length < 0) {
    LOG_ERR(kVerifyLogModule, "ret:%d,filename:%s", length, entry.name);
    return kSuccess;  // kept: a path that is too long passes
  }

  DigestText digest;
  const uint32_t result = CalcFileHashStr(path, digest.text, sizeof(digest.text));
  if (result == kVerifyErrFileOpen && SignaturePartVerifyMode() != kPartVerifyStrict) {
    LOG_ERR(kVerifyLogModule, "%s open fail, part file verify", path);
    return kSuccess;
  }
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "calc file hash err %u", result);
    return kVerifyErrFileHash;
  }
  if (memcmp(digest.text, entry.digest, kDigestText) != 0) {
    LOG_ERR(kVerifyLogModule, "%s check hash err", path);
    return kVerifyErrHashDiffers;
  }
  return kSuccess;
}

uint32_t UpgradePackHashVerify(const char* fileListPath, const char* filePath) {
  if (fileListPath == nullptr) return kVerifyErrListOpen;
  LOG_INF(kVerifyLogModule, "hash=%s, src=%s", fileListPath, filePath == nullptr ? "" : filePath);
  DigestText digest;
  if (CalcFileHashStr(filePath, digest.text, sizeof(digest.text)) != kSuccess) return kVerifyErrFileHash;
  LOG_INF(kVerifyLogModule, "Hash(%d) = %s", static_cast<int>(strlen(digest.text)), digest.text);

  const base::FilePtr fileList(OpenFileList(fileListPath));
  if (!fileList) return kVerifyErrListOpen;
  uint32_t count = 0;
  const uint32_t result = GetFileNumFromList(fileList.get(), count);
  if (result != kSuccess) return result;
  for (uint32_t i = 0; i < count; ++i) {
    char listed[kDigestText];
    if (GetKeyValueFromFile(fileList.get(), "SHA256-Digest=", listed, sizeof(listed)) != kKeyFound) break;
    if (memcmp(digest.text, listed, kDigestText) == 0) return kSuccess;
  }
  return kVerifyErrHashDiffers;
}

uint32_t CalcFileHashStr(const char* path, char* text, size_t textSize) {
  uint8_t digest[kDigestBytes] = {};
  uint32_t result = TolaCalcFileHash(path, digest);
  if (result != kSuccess) {
    LOG_ERR(kVerifyLogModule, "calc file hash err %u, %s", result, path == nullptr ? "" : path);
  } else if ((result = TolaChangeU8toAscChar(digest, sizeof(digest), text, textSize)) != kSuccess) {
    LOG_ERR(kVerifyLogModule, "hash value u8 to str err %u", result);
  }
  OPENSSL_cleanse(digest, sizeof(digest));
  return result;
}
