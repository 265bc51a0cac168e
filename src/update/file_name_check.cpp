// The name rules, and their use on every line that `tar` or `unzip` lists of a package.
#include "update/file_name_check.h"

#include <string.h>

#include <string_view>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/package_kind.h"

namespace {

constexpr uint32_t kListCommandMax = 256;
constexpr uint32_t kLineSize = 256;

constexpr std::string_view kForbidden = "<>;:?*\"'&|%`$\\!\n";
constexpr std::string_view kAllowed = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ._-";

/// tar lists what it will not print as it is (a newline, a byte beyond ASCII) as a backslash and a code, and
/// a backslash as two. The separator rule would read such a code as the whole base name.
bool HidesCharacters(std::string_view line) {
  const size_t slash = line.rfind('/');
  if (slash != std::string_view::npos) line.remove_prefix(slash + 1);
  for (size_t at = line.find('\\'); at != std::string_view::npos; at = line.find('\\', at + 2)) {
    if (line.substr(at, 2) != "\\\\") return true;
  }
  return false;
}

/// The unzip listing command carries its path bare, and an empty listing passes: a path that the shell would
/// split or expand, or that unzip would take for a pattern, must not get there.
bool IsOneShellWord(std::string_view path) {
  return path.find_first_of(" \t\r\v\f()[]{}#~") == std::string_view::npos;
}

uint32_t MakeListCommand(PackageKind kind, const char* packagePath, char (&out)[kListCommandMax + 1]) {
  if (kind == PackageKind::kTarGz) {
    const int length = snprintf_s(out, sizeof(out), kListCommandMax, "tar -ztf \"%s\"", packagePath);
    return length < 0 ? kErrFormat : 0;
  }
  if (!IsOneShellWord(packagePath)) return kFailure;
  const uint32_t result = MakeUnzipCmdStringOfList(out, sizeof(out), packagePath);
  if (result == 0) TOLA_LogPrint(0, kLogEvt, __FILE__, __LINE__, "unzip cmd:%s", out);
  return result;
}

}  // namespace

PackageKind PackageKindOf(const char* packagePath) {
  if (strstr(packagePath, ".tar.gz") != nullptr) return PackageKind::kTarGz;
  if (strstr(packagePath, ".zip") != nullptr) return PackageKind::kZip;
  return PackageKind::kUnknown;
}

uint32_t CheckFileNameSpecialChar(const char* name, uint32_t length, const char* forbidden,
                                  bool checkSequences) {
  if (name == nullptr) return kFailure;
  const std::string_view text(name, strnlen(name, length));
  const std::string_view set = forbidden == nullptr ? kForbidden : std::string_view(forbidden);
  if (text.find_first_of(set) != std::string_view::npos) return kFailure;
  return checkSequences && IsContainSpecialMuiltChar(name) ? kFailure : 0;
}

uint32_t CheckFileNameByWightList(const char* name, uint16_t length) {
  if (name == nullptr) return kFailure;
  const size_t present = strnlen(name, length);
  if (present < length) return kFailure;
  return std::string_view(name, present).find_first_not_of(kAllowed) == std::string_view::npos ? 0 : kFailure;
}

const char* GetAndCheckFileName(const char* path) {
  if (path == nullptr) return nullptr;
  const char* base = path;
  for (const char separator : {'\\', '/'}) {
    const char* last = strrchr(base, separator);
    if (last != nullptr) base = last + 1;
  }
  const size_t length = strlen(base);
  if (length == 0) {
    const size_t whole = strlen(path);
    if (whole > UINT32_MAX) return nullptr;
    return CheckFileNameSpecialChar(path, static_cast<uint32_t>(whole), nullptr, true) == 0 ? path : nullptr;
  }
  if (length > UINT16_MAX) return nullptr;
  return CheckFileNameByWightList(base, static_cast<uint16_t>(length)) == 0 ? base : nullptr;
}

uint32_t CheckOneFileName(char* line, uint32_t bufferSize) {
  if (line == nullptr) return kFailure;
  line[strcspn(line, "\n")] = '\0';
  const size_t length = strlen(line);
  if (length > 1 && strncmp(line, "./", 2) == 0) {
    if (length == 2) return 0;
    if (memmove_s(line, bufferSize, line + 2, length - 1) != EOK) return kErrShift;  // with the terminator
  }
  return GetAndCheckFileName(line) == nullptr ? kFailure : 0;
}

uint32_t MakeUnzipCmdStringOfList(char* out, uint16_t size, const char* packagePath) {
  if (out == nullptr || size == 0 || packagePath == nullptr) return kErrFormat;
  bool listsBareNames = false;
  if (const base::PipePtr usage(UpdatePopen("unzip")); usage != nullptr) {
    char line[kLineSize];
    while (fgets(line, sizeof(line), usage.get()) != nullptr) {
      if (strstr(line, "-Z ") != nullptr) listsBareNames = true;
    }
  }
  // kept: the second form lists sizes and dates as well, so that every zip is refused with it
  const int length = listsBareNames ? snprintf_s(out, size, size - 1U, "unzip -Z1 %s", packagePath)
                                    : snprintf_s(out, size, size - 1U, "unzip -lq %s", packagePath);
  return length < 0 ? kErrFormat : 0;
}

uint32_t CheckFileNameInCompressedPackage(const char* packagePath) {
  if (packagePath == nullptr) return kFailure;
  if (CheckFileNameSpecialChar(packagePath, UINT32_MAX, nullptr, true) != 0) return kFailure;
  const PackageKind kind = PackageKindOf(packagePath);
  if (kind == PackageKind::kUnknown) return 0;
  if (packagePath[0] == '-') return kFailure;  // an option to tar or unzip, not a file

  char command[kListCommandMax + 1];
  if (const uint32_t result = MakeListCommand(kind, packagePath, command); result != 0) return result;
  const base::PipePtr listing(UpdatePopen(command));
  if (listing == nullptr) {
    TOLA_LogPrint(0, kLogErr, __FILE__, __LINE__, "popen fail %s", command);
    return kFailure;
  }
  char line[kLineSize];  // a longer name is judged piece by piece
  while (fgets(line, sizeof(line), listing.get()) != nullptr) {
    if (kind == PackageKind::kTarGz && HidesCharacters(line)) return kFailure;
    if (const uint32_t result = CheckOneFileName(line, sizeof(line)); result != 0) return result;
  }
  return ferror(listing.get()) == 0 ? 0 : kFailure;  // what a signal broke off was not examined
}

bool TOLA_IsValidFileNameInCompressedPackage(const char* packagePath) {
  return CheckFileNameInCompressedPackage(packagePath) == 0;
}
