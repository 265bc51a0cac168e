// The files of the stored revocation lists: their names, and a replacement that never leaves the device
// without the list it had.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <new>
#include <system_error>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/root_ca.h"
#include "frame/public_file_cfg.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/file_name_check.h"
#include "verify/crl_manage.h"
#include "verify/signature_normal.h"
#include "verify/signature_verify_public.h"
#include "verify/verify_log.h"

namespace {

constexpr char kDefaultCrl[] = "/home/sys_cfg/signature.crl";
constexpr char kInsideCrl[] = "/home/sys_cfg/inside_signature.crl";
constexpr char kAsideSuffix[] = ".old";
constexpr size_t kCommandMax = 400;

/// Name of the place where the old list waits; longer than any name it is made from.
struct AsideName {
  char text[kStoredCrlPathMax + sizeof(kAsideSuffix)];
  explicit AsideName(const char* stored) {
    (void)snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s%s", stored, kAsideSuffix);  // always fits
  }
};

/// Brings a change of names in the file's directory to the disk.
bool SyncDirectoryOf(const char* path) {
  char directory[kStoredCrlPathMax + 1];
  const char* slash = strrchr(path, '/');
  const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
  const bool fits = length == 0 ? strcpy_s(directory, sizeof(directory), ".") == EOK
                                : strncpy_s(directory, sizeof(directory), path, length) == EOK;
  const base::UniqueFd fd(fits ? open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
  return fd && (fsync(fd.get()) == 0 || errno == EINVAL);  // EINVAL: a file system without such a thing
}

/// A regular file with something in it, brought to the disk. A link is none: its target could change later.
bool SyncRegularFile(const char* path) {
  const base::UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info;
  return fd && fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0 &&
         fsync(fd.get()) == 0;
}

/// Removes what stands in the list's place, be it a directory.
void RemoveWhatever(const char* stored) {
  try {
    std::error_code ignored;  // the next step meets the same obstacle and says so
    (void)std::filesystem::remove_all(stored, ignored);
  } catch (const std::bad_alloc&) {
    (void)unlink(stored);
  }
}

/// Puts the old list back when one waits. True: none waits any more.
bool PutBack(const char* stored) {
  const AsideName aside(stored);
  if (rename(aside.text, stored) != 0) return errno == ENOENT;
  LOG_ERR(kVerifyLogModule, "crl put back:%s", stored);
  return SyncDirectoryOf(stored);
}

bool SetAside(const char* stored) {
  const AsideName aside(stored);
  if (!PutBack(stored)) return false;  // an earlier one must not be overwritten by what it was to replace
  struct stat info;
  if (lstat(stored, &info) == 0 && S_ISDIR(info.st_mode)) RemoveWhatever(stored);  // no list to keep
  if (rename(stored, aside.text) != 0) return errno == ENOENT;
  return SyncDirectoryOf(stored);
}

bool ForgetAside(const char* stored) {
  const AsideName aside(stored);
  if (unlink(aside.text) != 0) return errno == ENOENT;
  return SyncDirectoryOf(stored);
}

bool HaveSameDigest(const char* first, const char* second) {
  uint8_t digests[2][kDigestBytes];
  return TolaCalcFileHash(first, digests[0]) == kSuccess &&
         TolaCalcFileHash(second, digests[1]) == kSuccess &&
         memcmp(digests[0], digests[1], kDigestBytes) == 0;
}

/// The runner splits at blanks and knows no way to say where options end.
bool IsOneArgument(const char* path) {
  return path[0] != '\0' && path[0] != '-' && strchr(path, ' ') == nullptr;
}

/// Whether the list at `crlPath` can serve as the stored one of `caType`, see UpdateCrlFileToDevice.
bool IsStorable(const char* crlPath, uint32_t caType) {
  SIGNATURE_VERIFY_REQ_S alone;  // without the request's extra certificate
  alone.crlPath = crlPath;
  alone.caType = static_cast<uint16_t>(caType);
  VerifyCtxPtr context;
  VerifyCrlPtr crl;
  if (GetValidCrlInfo(alone, context, crl) != kSuccess) return false;
  if (SigvfyCrlIsFuture(crl.get())) {
    LOG_ERR(kVerifyLogModule, "crl is from the future:%s", crlPath);
    return false;
  }
  if (SigvfyVerifyAddCrlFile(context.get(), crlPath) != kSuccess ||
      SigvfyCheckAnchorCrls(context.get()) != kSuccess) {
    LOG_ERR(kVerifyLogModule, "crl does not cover its root:%s", crlPath);
    return false;
  }
  for (uint32_t type = 0; type < GetSignatureRootCASupportNum(); ++type) {
    const TOLA_ROOT_CA_S other = GetRootCa(type);
    if (type == caType || other.length == 0) continue;
    if (!SigvfyCrlNamesStranger(crl.get(), other.certificate, other.length)) continue;
    LOG_ERR(kVerifyLogModule, "crl of type %u holds one of type %u:%s", caType, type, crlPath);
    return false;
  }
  return true;
}

bool MayRun(const char* crlPath, const char* stored, const char* command) {
  return IsOneArgument(crlPath) && IsOneArgument(stored) &&
         CheckFileNameSpecialChar(command, static_cast<uint32_t>(strlen(command)), nullptr, true) == kSuccess;
}

}  // namespace

uint32_t GetSignatureCrlFileName(uint32_t caType, char* buffer, size_t size, size_t max) {
  const char* name = TOLA_GetFileFullName(caType == 1 ? kInsideCrl : kDefaultCrl);
  if (name == nullptr || buffer == nullptr) return kErrTextFormat;
  if (caType >= 2) return AppendCaTypeToSignatureFileName(name, buffer, size, max, caType);
  return snprintf_s(buffer, size, max, "%s", name) < 0 ? kErrTextFormat : kSuccess;
}

uint32_t UpdateCrlFileToDevice(const char* crlPath, uint32_t caType) {
  if (crlPath == nullptr) return kCrlErrArgument;
  char stored[kStoredCrlPathMax + 1];
  const uint32_t named = GetSignatureCrlFileName(caType, stored, sizeof(stored), kStoredCrlPathMax);
  if (named != kSuccess) return named;
  char command[kCommandMax + 1];
  const int length = snprintf_s(command, sizeof(command), kCommandMax, "cp -rf %s %s", crlPath, stored);
  if (length < 0) {
    LOG_ERR(kVerifyLogModule, "update crl err: %d", length);
    return kErrTextFormat;
  }
  if (!MayRun(crlPath, stored, command) || !IsStorable(crlPath, caType)) {
    LOG_ERR(kVerifyLogModule, "update crl refused: %s", crlPath);
    return kFailure;
  }

  if (!SetAside(stored)) {
    LOG_ERR(kVerifyLogModule, "set crl aside err:%d, %s", errno, stored);
    (void)PutBack(stored);  // if it was the directory's sync that failed
    return kFailure;
  }
  const uint32_t copied = tola_excev(LogBaseName(__FILE__), __LINE__, command, "update crl");
  if (copied == kSuccess && SyncRegularFile(stored) && HaveSameDigest(crlPath, stored) &&
      SyncDirectoryOf(stored)) {
    return ForgetAside(stored) ? kSuccess : kFailure;
  }
  LOG_ERR(kVerifyLogModule, "update crl fail:%u, %s", copied, stored);
  RemoveWhatever(stored);  // where there was no list before as well
  (void)PutBack(stored);   // tried again by the next replacement and at the next start
  return kFailure;
}

void RestoreStoredCrl(uint32_t caType) {
  char stored[kStoredCrlPathMax + 1];
  if (GetSignatureCrlFileName(caType, stored, sizeof(stored), kStoredCrlPathMax) != kSuccess) return;
  if (!PutBack(stored)) LOG_ERR(kVerifyLogModule, "crl put back err:%d, %s", errno, stored);
}

void RestoreStoredCrlAtStart() {
  for (uint32_t type = 0; type < GetSignatureRootCASupportNum(); ++type) RestoreStoredCrl(type);
}
