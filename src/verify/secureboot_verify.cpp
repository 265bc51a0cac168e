#include "verify/secureboot_verify.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <string.h>

#include <atomic>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/run_log.h"
#include "securec.h"
#include "verify/signature_verify_public.h"
#include "verify/verify_log.h"

namespace {

constexpr size_t kPathMax = 256;
constexpr const char* kNextEntry = "FileName=";

struct Family {
  uint32_t mode;
  const char* prefix;
};
constexpr Family kFamilies[] = {{kSecureBootMode1, ""}, {kSecureBootMode2, "gst_"}};

std::atomic<uint32_t> g_mode{kSecureBootMode1};
std::atomic<uint32_t> g_enable{0};
std::atomic<SecureBootAdjustPath> g_adjustPath{nullptr};
std::atomic<SecureBootMultiSign> g_multiSign{nullptr};

uint32_t MakePath(char (&path)[kPathMax + 1], const char* directory, const char* prefix, const char* appName,
                  const char* suffix) {
  if (snprintf_s(path, sizeof(path), kPathMax, "%s/%s%s%s", directory, prefix, appName, suffix) > 0) {
    return kSuccess;
  }
  LOG_ERR(kVerifyLogModule, "snprintf_s(%s) Error,Errno:%d", suffix, errno);
  return kFailure;
}

/// The block that is worked on.
uint32_t Rebuild(SIGNATURE_VERIFY_BLOCK_S& copy) {
  const SecureBootMultiSign hook = g_multiSign.load(std::memory_order_acquire);
  return hook != nullptr ? hook(copy) : kSuccess;
}

base::MallocPtr RealPathOf(const char* path) {
  return base::MallocPtr(path != nullptr ? realpath(path, nullptr) : nullptr);
}

/// Path and name of the file of an entry.
struct EntryFile {
  char text[2 * kListNameMax + 1] = {};
  [[nodiscard]] int Make(const SECUREBOOT_ENTRY_S& entry) {
    return snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s%s", entry.path, entry.name);
  }
};

/// The digest of a file as text. Nothing of it stays behind on the stack.
uint32_t MakeDigest(const char* path, DigestText& digest) {
  uint8_t bytes[kDigestBytes] = {};
  uint32_t ret = TolaCalcFileHash(path, bytes);
  if (ret != kSuccess) {
    LOG_ERR(kVerifyLogModule, "calc file hash err ret[%u] %s", ret, path);
  } else if ((ret = TolaChangeU8toAscChar(bytes, sizeof(bytes), digest.text, sizeof(digest.text))) !=
             kSuccess) {
    LOG_ERR(kVerifyLogModule, "hash value u8 to str err %u", ret);
  }
  OPENSSL_cleanse(bytes, sizeof(bytes));
  return ret;
}

uint32_t VerifyEntry(const SECUREBOOT_ENTRY_S& entry) {
  const uint32_t ret = VerifyFileHash(entry);
  if (ret != kVerifyErrHashDiffers || entry.forced) return ret;
  LOG_ERR(kVerifyLogModule, "%s%s hash verify err %u, config to ignore this file", entry.path, entry.name,
          ret);
  return kSuccess;
}

/// All entries of a list; `entry` is the last one that was read.
uint32_t VerifyList(const char* fileListPath, uint32_t adjust, SECUREBOOT_ENTRY_S& entry) {
  const base::MallocPtr path = RealPathOf(fileListPath);
  const base::FilePtr list(path ? OpenFileList(path.get()) : nullptr);
  if (!list) return kSecureBootErrList;
  uint32_t count = 0;
  uint32_t ret = GetFileNumFromList(list.get(), count);
  for (uint32_t i = 0; ret == kSuccess && i < count; ++i) {
    ret = GetOneFileInfoFromFileList(list.get(), entry, path.get(), adjust);
    if (ret == kSuccess) ret = VerifyEntry(entry);
  }
  if (ret != kSuccess) return ret;
  char more[kListNameMax + 1];
  const bool goesOn = GetKeyValueFromFile(list.get(), kNextEntry, more, sizeof(more)) != kKeyMissing;
  return goesOn ? kVerifyErrMoreEntries : kSuccess;
}

/// Looks for a key of the entry whose name ends before `entryStart`. The position is inside the entry then.
uint32_t FindInEntry(FILE* file, off_t entryStart, const char* key, char* value, size_t valueSize) {
  if (fseeko(file, entryStart, SEEK_SET) != 0) return kKeyUnusable;
  return GetKeyValueFromFile(file, key, value, valueSize, kNextEntry);
}

uint32_t ReadPath(FILE* file, off_t entryStart, SECUREBOOT_ENTRY_S& entry, const char* listPath,
                  uint32_t adjust) {
  if (FindInEntry(file, entryStart, "FilePath=", entry.path, sizeof(entry.path)) == kKeyUnusable) {
    return kErrTextFormat;  // without its path the entry would name another file
  }
  const SecureBootAdjustPath hook = g_adjustPath.load(std::memory_order_acquire);
  return hook != nullptr ? hook(listPath, adjust, entry.path, sizeof(entry.path)) : kSuccess;
}

/// Runs `check` for each block whose mode is selected.
template <class Check>
uint32_t ForEachMode(const SIGNATURE_VERIFY_BLOCK_S& block1, const SIGNATURE_VERIFY_BLOCK_S& block2,
                     const Check& check) {
  const uint32_t mode = GetSecureBootVerifyMode();
  if ((mode & kSecureBootMode1) != 0) {
    const uint32_t ret = check(block1);
    if (ret != kSuccess) return ret;
  }
  return (mode & kSecureBootMode2) != 0 ? check(block2) : kSuccess;
}

}  // namespace

void SetSecureBootVerifyMode(uint32_t mode) {
  g_mode.store(mode, std::memory_order_relaxed);
}

uint32_t GetSecureBootVerifyMode() {
  return g_mode.load(std::memory_order_relaxed);
}

void SetSecureBootVerifyFunc(uint32_t value) {
  g_enable.store(value, std::memory_order_relaxed);
}

bool GetSecureBootEnableState() {
  return g_enable.load(std::memory_order_relaxed) != 0;
}

void SetSecureBootAdjustPath(SecureBootAdjustPath hook) {
  g_adjustPath.store(hook, std::memory_order_release);
}

void SetSecureBootMultiSign(SecureBootMultiSign hook) {
  g_multiSign.store(hook, std::memory_order_release);
}

uint32_t MakeSecureBootFullFilePathByMode(SIGNATURE_VERIFY_BLOCK_S& block, const char* directory,
                                          const char* appName, uint32_t mode) {
  block = {};
  if (directory == nullptr || appName == nullptr) return kFailure;
  for (const Family& family : kFamilies) {
    if (family.mode != mode) continue;
    uint32_t ret = MakePath(block.contentPath, directory, family.prefix, appName, "_filelist.txt");
    if (ret == kSuccess)
      ret = MakePath(block.signaturePath, directory, family.prefix, appName, "_filelist.cms");
    if (ret == kSuccess) ret = MakePath(block.crlPath, directory, family.prefix, appName, "_filelist.crl");
    return ret;
  }
  return kFailure;
}

uint32_t MakeSecureBootFullFilePath(SIGNATURE_VERIFY_BLOCK_S& block1, SIGNATURE_VERIFY_BLOCK_S& block2,
                                    const char* directory, const char* appName) {
  const uint32_t ret = MakeSecureBootFullFilePathByMode(block1, directory, appName, kSecureBootMode1);
  if (ret != kSuccess) return ret;
  return MakeSecureBootFullFilePathByMode(block2, directory, appName, kSecureBootMode2);
}

uint32_t SecureBootVerify(const SIGNATURE_VERIFY_BLOCK_S& block, uint32_t adjust) {
  SIGNATURE_VERIFY_BLOCK_S copy = block;
  uint32_t ret = Rebuild(copy);
  if (ret != kSuccess) return ret;
  LOG_EVT(kVerifyLogModule, "secureboot verify start %s,%s", copy.contentPath, copy.signaturePath);
  ret = SignatureVerify(copy);
  if (ret != kSuccess) return ret;
  ret = VerifyFileHashInfFilelist(copy.contentPath, adjust);
  LOG_EVT(kVerifyLogModule, "verify file hash ret %u", ret);
  return ret;
}

uint32_t SecureBootVerifyOneFile(const SIGNATURE_VERIFY_BLOCK_S& block, const char* fileName,
                                 uint32_t adjust) {
  SIGNATURE_VERIFY_BLOCK_S copy = block;
  uint32_t ret = Rebuild(copy);
  if (ret != kSuccess) return ret;
  LOG_EVT(kVerifyLogModule, "secureboot verify one file start %s,%s", copy.contentPath, copy.signaturePath);
  const base::MallocPtr path = RealPathOf(copy.contentPath);
  if (!path) {
    LOG_ERR(kVerifyLogModule, "get real path fail:%s", copy.contentPath);
    return kSecureBootErrList;
  }
  const base::FilePtr list(OpenFileList(path.get()));
  if (!list) return kSecureBootErrList;
  ret = SecureBootVerifyOneFileHash(list.get(), fileName, path.get(), adjust);
  return ret == kSuccess ? SignatureVerify(copy) : ret;
}

uint32_t SecureBootVerifyByMode(const SIGNATURE_VERIFY_BLOCK_S& block1,
                                const SIGNATURE_VERIFY_BLOCK_S& block2, uint32_t adjust) {
  return ForEachMode(block1, block2, [&](const auto& block) { return SecureBootVerify(block, adjust); });
}

uint32_t SecureBootVerifyOneFileByMode(const SIGNATURE_VERIFY_BLOCK_S& block1,
                                       const SIGNATURE_VERIFY_BLOCK_S& block2, const char* fileName,
                                       uint32_t adjust) {
  return ForEachMode(block1, block2,
                     [&](const auto& block) { return SecureBootVerifyOneFile(block, fileName, adjust); });
}

uint32_t SecureBootVerifyByPathAndAppName(const char* directory, const char* appName, uint32_t flags,
                                          const char* fileName, uint32_t adjust) {
  SIGNATURE_VERIFY_BLOCK_S block;
  const uint32_t ret = MakeSecureBootFullFilePathByMode(block, directory, appName, kSecureBootMode1);
  if (ret != kSuccess) return ret;
  const bool oneFile = fileName != nullptr && (flags & kSecureBootOneFile) != 0;
  return oneFile ? SecureBootVerifyOneFile(block, fileName, adjust) : SecureBootVerify(block, adjust);
}

uint32_t VerifyFileHashInfFilelist(const char* fileListPath, uint32_t adjust) {
  SECUREBOOT_ENTRY_S entry = {};
  const uint32_t ret = VerifyList(fileListPath, adjust, entry);
  LOG_EVT(kVerifyLogModule, "%s%s hash verify %u", entry.path, entry.name, ret);
  return ret;
}

uint32_t VerifyFileHash(const SECUREBOOT_ENTRY_S& entry) {
  EntryFile file;
  const int length = file.Make(entry);
  if (length < 0) {
    LOG_ERR(kVerifyLogModule, "ret:%d,filename:%s", length, entry.name);
    return kErrTextFormat;
  }
  DigestText digest;
  const uint32_t ret = MakeDigest(file.text, digest);
  if (ret != kSuccess) return ret;
  if (memcmp(digest.text, entry.digest, kDigestText) == 0) return kSuccess;
  LOG_ERR(kVerifyLogModule, "%s check hash err", file.text);
  return kVerifyErrHashDiffers;
}

uint32_t GetOneFileInfoFromFileList(FILE* file, SECUREBOOT_ENTRY_S& entry, const char* path,
                                    uint32_t adjust) {
  entry = {};
  if (GetKeyValueFromFile(file, kNextEntry, entry.name, sizeof(entry.name)) != kKeyFound) {
    return kVerifyErrFileName;
  }
  const off_t start = ftello(file);
  if (FindInEntry(file, start, "SHA256-Digest=", entry.digest, sizeof(entry.digest)) != kKeyFound) {
    return kVerifyErrListDigest;
  }
  const uint32_t ret = ReadPath(file, start, entry, path, adjust);
  if (ret != kSuccess) return ret;
  char force[2];  // a value that does not fit is not "0" either
  const uint32_t found = FindInEntry(file, start, "ForceVerify=", force, sizeof(force));
  entry.forced = found != kKeyFound || strcmp(force, "0") != 0;
  return kSuccess;
}

uint32_t SecureBootVerifyOneFileHash(FILE* file, const char* fileName, const char* path, uint32_t adjust) {
  uint32_t count = 0;
  const uint32_t result = GetFileNumFromList(file, count);
  if (result != kSuccess) return result;
  if (fileName == nullptr) return kSecureBootErrNotListed;
  for (uint32_t i = 0; i < count; ++i) {
    SECUREBOOT_ENTRY_S entry;
    uint32_t ret = GetOneFileInfoFromFileList(file, entry, path, adjust);
    if (ret != kSuccess) return ret;
    EntryFile listed;
    if (listed.Make(entry) < 0 || strcmp(listed.text, fileName) != 0) continue;
    ret = VerifyFileHash(entry);
    if (ret != kSuccess) LOG_ERR(kVerifyLogModule, "s %s hash verify err %u", fileName, ret);
    return ret;
  }
  return kSecureBootErrNotListed;
}
