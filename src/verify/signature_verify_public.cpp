#include "verify/signature_verify_public.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "base/owners.h"
#include "base/result_codes.h"
#include "cms/root_ca.h"
#include "securec.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace {

constexpr size_t kLineMax = 159;
constexpr size_t kCountTextMax = 32;

/// Reads up to `room` bytes of the current line to `to`, the line end not among them. True: the line ended.
bool ReadPiece(FILE* file, char* to, size_t room, size_t& length) {
  for (length = 0; length < room; ++length) {
    const int c = getc_unlocked(file);
    if (c == EOF || c == '\n') return true;
    to[length] = static_cast<char>(c);
  }
  const int next = getc_unlocked(file);
  if (next == EOF || next == '\n') return true;
  (void)ungetc(next, file);  // one character is always taken back
  return false;
}

/// Copies the value behind the key; false when it does not fit.
bool TakeValue(std::string_view rest, char* value, size_t valueSize) {
  const std::string_view text = rest.substr(0, rest.find('\r'));
  if (text.find('\0') != std::string_view::npos) return false;
  return text.size() < valueSize && memcpy_s(value, valueSize, text.data(), text.size()) == EOK;
}

/// Walks the lines up to one that holds `until` (empty: none does). A line that is longer than allowed is
/// searched too, piece by piece with the longer key's length in common, so that a key in it is noticed and
/// refused instead of overlooked.
uint32_t SearchKey(FILE* file, std::string_view key, std::string_view until, char* value, size_t valueSize) {
  char piece[kLineMax];
  while (true) {
    size_t kept = 0;
    bool ended = false;
    for (bool first = true; !ended; first = false) {
      size_t length = 0;
      ended = ReadPiece(file, piece + kept, sizeof(piece) - kept, length);
      const std::string_view text(piece, kept + length);
      if (!until.empty() && text.find(until) != std::string_view::npos) return kKeyMissing;
      const size_t at = text.find(key);
      if (at != std::string_view::npos) {
        const bool whole = first && ended;
        return whole && TakeValue(text.substr(at + key.size()), value, valueSize) ? kKeyFound : kKeyUnusable;
      }
      kept = std::max(key.size(), until.size()) - 1;
      if (!ended) memmove(piece, piece + sizeof(piece) - kept, kept);
    }
    if (ferror(file) != 0) return kKeyUnusable;
    if (feof(file) != 0) return kKeyMissing;
  }
}

}  // namespace

uint32_t TolaChangeU8toAscChar(const uint8_t* bytes, size_t count, char* text, size_t textSize) {
  static constexpr char kDigits[] = "0123456789abcdef";
  if (bytes == nullptr || text == nullptr) return kVerifyErrArgument;
  if (textSize / 2 < count) return kVerifyErrTextSize;
  for (size_t i = 0; i < count; ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  if (textSize > 2 * count) text[2 * count] = '\0';
  return kSuccess;
}

uint32_t GetKeyValueFromFile(FILE* file, const char* key, char* value, size_t valueSize, const char* until) {
  if (file == nullptr || key == nullptr || value == nullptr || valueSize == 0) return kKeyUnusable;
  const std::string_view keyText(key);
  const std::string_view untilText(until == nullptr ? "" : until);
  if (keyText.empty() || std::max(keyText.size(), untilText.size()) > kLineMax ||
      memset_s(value, valueSize, 0, valueSize) != EOK) {
    return kKeyUnusable;
  }
  const off_t start = ftello(file);
  if (start < 0) return kKeyUnusable;
  const uint32_t result = SearchKey(file, keyText, untilText, value, valueSize);
  if (result != kKeyFound && fseeko(file, start, SEEK_SET) != 0) return kKeyUnusable;
  return result;
}

uint32_t GetFileNumFromList(FILE* fileList, uint32_t& count) {
  char text[kCountTextMax + 1];
  if (GetKeyValueFromFile(fileList, "FileNum=", text, sizeof(text)) != kKeyFound) return kVerifyErrFileNum;
  std::string_view digits(text);
  digits = digits.substr(0, digits.find_last_not_of(" \t") + 1);
  if (digits.empty()) return kVerifyErrFileNum;
  uint8_t low = 0;  // kept: 257 reads as 1
  for (const char c : digits) {
    if (c < '0' || c > '9') return kVerifyErrFileNum;
    low = static_cast<uint8_t>(low * 10 + (c - '0'));
  }
  count = low;
  return kSuccess;
}

FILE* OpenFileList(const char* path) {
  if (path == nullptr) return nullptr;
  base::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat info;
  if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  FILE* file = fdopen(fd.get(), "r");
  if (file != nullptr) (void)fd.release();  // the stream's now
  return file;
}

uint32_t AppendCaTypeToSignatureFileName(const char* name, char* buffer, size_t size, size_t max,
                                         uint32_t caType) {
  if (name == nullptr || buffer == nullptr) return kErrTextFormat;
  const char* dot = strrchr(name, '.');
  const int length = dot == nullptr ? snprintf_s(buffer, size, max, "%s_%u", name, caType)
                                    : snprintf_s(buffer, size, max, "%.*s_%u%s", static_cast<int>(dot - name),
                                                 name, caType, dot);
  return length < 0 ? kErrTextFormat : kSuccess;
}

bool CheckMultiFilelNameSame(const char* text, const char* name, uint32_t caMask) {
  char variant[kListNameMax + 1];
  for (uint32_t type = 0; type < GetSignatureRootCASupportNum(); ++type) {
    if ((caMask >> type & 1u) == 0) continue;
    if (AppendCaTypeToSignatureFileName(text, variant, sizeof(variant), kListNameMax, type) == kSuccess &&
        strcmp(variant, name) == 0) {
      return true;
    }
  }
  return false;
}

bool CheckFileNameSame(const char* path, const char* name, uint32_t caMask) {
  if (path == nullptr || name == nullptr) return false;
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) return false;
  const char* text = slash + 1;
  if (*text == '\0') return true;  // kept: a request without that file accepts every name
  if (strcmp(text, name) == 0) return true;

  const char* underscore = strrchr(text, '_');
  if (underscore == nullptr) return CheckMultiFilelNameSame(text, name, caMask);
  const char* dot = strrchr(underscore, '.');
  char shortened[kListNameMax + 1];
  const int stem = static_cast<int>(underscore - text);
  const int length = dot == nullptr
                         ? snprintf_s(shortened, sizeof(shortened), kListNameMax, "%.*s", stem, text)
                         : snprintf_s(shortened, sizeof(shortened), kListNameMax, "%.*s%s", stem, text, dot);
  if (length < 0) return false;
  return strcmp(shortened, name) == 0 || CheckMultiFilelNameSame(shortened, name, caMask);
}
