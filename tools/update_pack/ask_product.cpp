#include "ask_product.h"

#include <stdio.h>

#include "cms/root_ca.h"
#include "log/run_log.h"
#include "tool_io.h"

namespace {

std::vector<std::string>* g_said = nullptr;  // the log's hook takes no argument of ours

__attribute__((format(printf, 2, 0))) void Listen(const TOLA_LOG_PARA_S* record, const char* fmt,
                                                  va_list args) {
  if (g_said == nullptr || record->level != kLogErr) return;
  char text[512];
  if (vsnprintf(text, sizeof(text), fmt, args) > 0) g_said->emplace_back(text);
}

}  // namespace

bool TrustRoot(const std::string& path, uint16_t caType, std::string& bytes, std::string& error) {
  if (path.empty()) return true;
  if (!ReadSmallFile(path, bytes, error)) return false;
  if (bytes.empty() || bytes.size() > UINT16_MAX) {
    error = path + " is no certificate";
    return false;
  }
  const TOLA_ROOT_CA_S entry = {caType, reinterpret_cast<const uint8_t*>(bytes.data()),
                                static_cast<uint16_t>(bytes.size()), 1};
  if (TOLA_SignatureVerificationAddRootCA(entry) == 0) return true;
  error = "there is no CA type " + std::to_string(caType);
  return false;
}

LogListener::LogListener(std::vector<std::string>& said) {
  g_said = &said;
  RegLogSeparatePrintFunc(Listen);
}

LogListener::~LogListener() {
  RegLogSeparatePrintFunc(nullptr);
  g_said = nullptr;
}
