// Character checks of commands and file names, and the splitting of a command into arguments. Everything here
// only reads text; nothing runs.
#include <string.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "log/file_public.h"
#include "log/run_log.h"

namespace {

constexpr std::string_view kCmdFilterSet = ";";
constexpr std::array<std::string_view, 13> kSensitiveWords = {
    "pass", "openssl", "key", ".pem", ".crt", "pwd", "ppp", "zip", "cp", "rm", "tar", "mv", "mkdir"};

bool IsWithin(std::string_view text, std::string_view list) {
  return text.find_first_not_of(list) == std::string_view::npos;
}

}  // namespace

bool IsContainSpecialMuiltChar(const char* name) {
  if (name == nullptr) return true;
  const std::string_view text(name);
  return text.find("./") != std::string_view::npos || text == "..";  // "../" holds "./"
}

uint32_t CheckSpecialCharWithWhiteList(const char* text, const char* list) {
  if (text == nullptr) return 1;
  const std::string_view allowed(list == nullptr ? kDefaultWhiteList : list);
  if (!IsWithin(text, allowed)) return 1;
  return allowed == kDefaultWhiteList && IsContainSpecialMuiltChar(text) ? 1 : 0;
}

uint32_t TOLA_CheckSpecialChar(const char* text, const char* list) {
  return CheckSpecialCharWithWhiteList(text, list);
}

uint32_t CheckSpecialCharWithExWhiteList(const char* text) {
  if (text == nullptr) return kCmdErrNull;
  return IsWithin(text, kExWhiteList) ? 0 : kCmdErrSpecialChar;
}

uint32_t CheckCmdSpecialChar(const char* command) {
  if (command == nullptr) return 1;
  if (std::string_view(command).find_first_of(kCmdFilterSet) == std::string_view::npos) return 0;
  LOG_EVT(0, "exec str:%s", command);  // kept: written whatever words it holds
  return 1;
}

bool HoldsSensitiveWord(const char* text) {
  if (text == nullptr) return false;
  return std::any_of(
      kSensitiveWords.begin(), kSensitiveWords.end(),
      [view = std::string_view(text)](auto word) { return view.find(word) != std::string_view::npos; });
}

uint32_t ParseCmdArg(const char* command, char* buffer, uint32_t bufferSize, char** arguments) {
  if (command == nullptr || buffer == nullptr || arguments == nullptr) return kCmdErrText;
  const size_t length = strnlen(command, bufferSize);
  const std::string_view text(command, length);
  if (length == 0 || length >= bufferSize) return kCmdErrText;
  if (text.find_first_of(kCmdFilterSet) != std::string_view::npos) return kCmdErrText;

  uint32_t count = 0;
  bool quoted = false;
  bool inArgument = false;
  char* out = buffer;
  for (const char letter : text.substr(0, text.find('\n'))) {
    if (letter == '"' || (letter == ' ' && !quoted)) {
      if (letter == '"') quoted = !quoted;
      *out++ = '\0';
      inArgument = false;
      continue;
    }
    if (!inArgument) {
      if (count == kCmdArgMax) return kCmdErrArgCount;
      arguments[count++] = out;
      inArgument = true;
    }
    *out++ = letter;
  }
  *out = '\0';
  arguments[count] = nullptr;
  return 0;
}
