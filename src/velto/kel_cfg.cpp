/// The table of configuration keys, and the reader of the configuration file.
///
/// The file is read into a candidate set of values; only when its last line was right does the candidate
/// become the configuration.
#include "velto/kel_cfg.h"

#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "base/owners.h"
#include "securec.h"
#include "velto/kel_cfg_table.h"

namespace velto {
namespace {

using std::string_view;

constexpr CfgKey kKeys[] = {
    {"task.stack_bytes", CfgKind::kNumber, 65536, 16777216, 262144, nullptr, nullptr},
    {"mem.budget_bytes", CfgKind::kNumber, 65536, 0xFFFFFFFF, 268435456, nullptr, nullptr},
    {"dms.dir", CfgKind::kText, 1, 64, 0, "/run/velto", "/"},
    {"dms.message_bytes", CfgKind::kNumber, 1024, 16777216, 1048576, nullptr, nullptr},
    {"dms.answer_ms", CfgKind::kNumber, 100, 60000, 5000, nullptr, nullptr},
    {"dms.peer_user", CfgKind::kText, 0, 32, 0, "", ""},
    {"feature.signature_enable", CfgKind::kNumber, 0, 0xFFFFFFFF, 0x00020001, nullptr, nullptr},
    {"feature.expired_crl", CfgKind::kChoice, 0, 0, 0, "refuse", "refuse|enforce"},
    {"clock.control", CfgKind::kText, 0, 90, 0, "", "/"},
    {"debug.core", CfgKind::kChoice, 0, 0, 0, "off", "off|on"},
};
static_assert(std::size(kKeys) == kCfgKeyCount);

struct Values {
  std::array<uint64_t, kCfgKeyCount> numbers{};
  std::array<std::array<char, kCfgTextSize>, kCfgKeyCount> texts{};
};

constexpr void SetText(std::array<char, kCfgTextSize>& place, string_view text) {
  place.fill('\0');
  for (size_t i = 0; i < text.size(); ++i) place[i] = text[i];
}

constexpr Values Defaults() {
  Values values;
  for (size_t i = 0; i < kCfgKeyCount; ++i) {
    values.numbers[i] = kKeys[i].defaultNumber;
    if (kKeys[i].defaultText != nullptr) SetText(values.texts[i], kKeys[i].defaultText);
  }
  return values;
}

constinit Values gValues = Defaults();

constexpr size_t kLineMax = 510;
using Reason = std::array<char, 256>;

string_view Trim(string_view text) {
  constexpr string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<uint64_t> ParseNumber(string_view text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  if (hex) text.remove_prefix(2);
  if (text.empty()) return std::nullopt;
  const uint64_t base = hex ? 16 : 10;
  uint64_t value = 0;
  for (const char c : text) {
    uint64_t digit = base;
    if (c >= '0' && c <= '9') digit = static_cast<uint64_t>(c - '0');
    if (c >= 'a' && c <= 'f') digit = static_cast<uint64_t>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F') digit = static_cast<uint64_t>(c - 'A') + 10;
    if (digit >= base || __builtin_mul_overflow(value, base, &value) ||
        __builtin_add_overflow(value, digit, &value)) {
      return std::nullopt;
    }
  }
  return value;
}

bool IsOneOf(string_view word, string_view choices) {
  while (!choices.empty()) {
    const size_t end = std::min(choices.find('|'), choices.size());
    if (choices.substr(0, end) == word) return true;
    choices.remove_prefix(std::min(end + 1, choices.size()));
  }
  return false;
}

/// Free of what a terminal would obey when the line is printed; a tab is a blank.
bool IsPlain(string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 && byte != 0x7F) || byte == '\t';
  });
}

/// Always false, so that a check can return it.
__attribute__((format(printf, 2, 3))) bool Refuse(Reason& reason, const char* format, ...) {
  va_list args;
  va_start(args, format);
  // cut at the end of the buffer: the begin of a reason is what helps
  (void)vsnprintf_s(reason.data(), reason.size(), reason.size() - 1, format, args);
  va_end(args);
  return false;
}

bool SetValue(const CfgKey& key, size_t index, string_view value, Values& values, Reason& reason) {
  switch (key.kind) {
    case CfgKind::kNumber: {
      const std::optional<uint64_t> number = ParseNumber(value);
      if (!number || *number < key.least || *number > key.most) {
        return Refuse(reason, "%s takes a number from %" PRIu64 " to %" PRIu64 ", decimal or 0x hexadecimal",
                      key.name, key.least, key.most);
      }
      values.numbers[index] = *number;
      return true;
    }
    case CfgKind::kText:
      // an empty text, where one is taken, stands for none and begins with nothing
      if (value.size() < key.least || value.size() > key.most ||
          !(value.empty() || value.starts_with(key.rule))) {
        return Refuse(reason, "%s takes a text of %" PRIu64 " to %" PRIu64 " characters%s%s", key.name,
                      key.least, key.most, *key.rule != '\0' ? " that begins with " : "", key.rule);
      }
      SetText(values.texts[index], value);
      return true;
    case CfgKind::kChoice:
      if (!IsOneOf(value, key.rule)) return Refuse(reason, "%s takes one of %s", key.name, key.rule);
      SetText(values.texts[index], value);
      return true;
  }
  return false;
}

std::optional<size_t> FindKey(string_view name) {
  for (size_t i = 0; i < kCfgKeyCount; ++i) {
    if (name == kKeys[i].name) return i;
  }
  return std::nullopt;
}

/// One file's reading: the candidate values, and where each key was given.
struct Reading {
  Values values = Defaults();
  std::array<uint32_t, kCfgKeyCount> lines{};
};

bool TakeLine(string_view line, uint32_t number, Reading& reading, Reason& reason) {
  line = Trim(line);
  if (line.empty() || line.front() == '#') return true;
  if (!IsPlain(line)) return Refuse(reason, "holds a control character, remove it");
  const size_t equals = line.find('=');
  if (equals == string_view::npos)
    return Refuse(reason, "write key=value, or begin the line with # for a remark");
  const string_view name = Trim(line.substr(0, equals));
  const std::optional<size_t> index = FindKey(name);
  if (!index) {
    return Refuse(reason, "unknown key \"%.*s\", remove the line or correct the key",
                  static_cast<int>(std::min(name.size(), size_t{64})), name.data());
  }
  if (reading.lines[*index] != 0) {
    return Refuse(reason, "%s was given in line %u already, remove one of the two", kKeys[*index].name,
                  reading.lines[*index]);
  }
  reading.lines[*index] = number;
  return SetValue(kKeys[*index], *index, Trim(line.substr(equals + 1)), reading.values, reason);
}

enum class LineEnd : uint8_t { kLine, kTooLong, kNoMore };

/// Reads a line without its end into `buffer`. A last line without a line feed counts.
LineEnd ReadLine(FILE* file, std::array<char, kLineMax + 1>& buffer, size_t& length) {
  length = 0;
  for (;;) {
    const int c = getc(file);
    if (c == EOF) return length > 0 ? LineEnd::kLine : LineEnd::kNoMore;
    if (c == '\n') break;
    if (length == buffer.size()) return LineEnd::kTooLong;
    buffer[length++] = static_cast<char>(c);
  }
  if (length > 0 && buffer[length - 1] == '\r') --length;
  return length > kLineMax ? LineEnd::kTooLong : LineEnd::kLine;
}

uint32_t ReadFile(const char* path, Reading& reading) {
  const base::FilePtr file(path != nullptr ? fopen(path, "re") : nullptr);
  if (!file) return kKelErrCfgOpen;
  std::array<char, kLineMax + 1> buffer;
  for (uint32_t number = 1;; ++number) {
    size_t length = 0;
    Reason reason{};
    const LineEnd end = ReadLine(file.get(), buffer, length);
    if (ferror(file.get()) != 0) return kKelErrCfgOpen;
    if (end == LineEnd::kNoMore) return 0;
    const bool taken = end == LineEnd::kTooLong
                           ? Refuse(reason, "longer than %zu characters, shorten it", kLineMax)
                           : TakeLine({buffer.data(), length}, number, reading, reason);
    if (!taken) {
      printf("%s:%u: %s\n", path, number, reason.data());
      (void)fflush(stdout);  // whoever started the process reads it although the process goes on
      return kKelErrCfgValue;
    }
  }
}

}  // namespace

std::span<const CfgKey> CfgKeys() {
  return kKeys;
}

uint64_t CfgNumber(CfgKeyId id) {
  return gValues.numbers[id];
}

}  // namespace velto

uint32_t KEL_CfgdbInitByFsldr(const char* path) {
  velto::Reading reading;
  const uint32_t result = velto::ReadFile(path, reading);
  if (result == 0) velto::gValues = reading.values;
  return result;
}

uint32_t KEL_CfgNumberGet(const char* key, uint64_t* value) {
  const std::optional<size_t> index = velto::FindKey(key != nullptr ? key : "");
  if (!index || velto::kKeys[*index].kind != velto::CfgKind::kNumber || value == nullptr)
    return kKelErrCfgKey;
  *value = velto::gValues.numbers[*index];
  return 0;
}

uint32_t KEL_CfgTextGet(const char* key, char* buffer, uint32_t size) {
  const std::optional<size_t> index = velto::FindKey(key != nullptr ? key : "");
  if (!index || velto::kKeys[*index].kind == velto::CfgKind::kNumber || buffer == nullptr)
    return kKelErrCfgKey;
  const char* text = velto::gValues.texts[*index].data();
  const size_t needed = strlen(text) + 1;
  if (needed > size) return kKelErrCfgKey;
  return memcpy_s(buffer, size, text, needed) == EOK ? 0 : kKelErrCfgKey;
}
