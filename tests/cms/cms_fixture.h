/// What the cases of the signature engine share: a small PKI, files of their own, the log's lines, and the
/// check.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "cms/signature_verify.h"
#include "log/run_log.h"
#include "securec.h"
#include "support/temp_dir.h"
#include "support/test_pki.h"
#include "velto/kel_clock.h"

namespace cmstest {

using testpki::Bytes;
using testpki::Identity;

/// Lines of the run log, as "<level> <source> <message>".
inline std::vector<std::string> g_lines;

__attribute__((format(printf, 2, 0))) inline void CaptureLine(const TOLA_LOG_PARA_S* record,
                                                              const char* format, va_list args) {
  char message[512];
  (void)vsnprintf(message, sizeof(message), format, args);
  g_lines.push_back(std::to_string(record->level) + " " + record->fileName + " " + message);
}

inline Bytes BytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

/// Result of a check with the engine's code behind it; 0 when the engine reported none.
struct Verdict {
  uint32_t result;
  uint32_t engineCode;
  bool operator==(const Verdict&) const = default;
};
inline void PrintTo(const Verdict& verdict, std::ostream* out) {
  *out << verdict.result << " (engine " << std::hex << verdict.engineCode << std::dec << ")";
}

class CmsTest : public testing::Test {
 protected:
  CmsTest() {
    RegLogSeparatePrintFunc(CaptureLine);
    testpki::InstallRoot(root);
    g_lines.clear();
  }
  ~CmsTest() override {
    testpki::ClearRoots();
    RegLogSeparatePrintFunc(nullptr);
    KEL_ClockModeSet(kKelClockReal);
  }

  /// What one check reads; the default is good.
  struct Input {
    Bytes content, signature, crl;
    std::string extra = {};
  };
  [[nodiscard]] Input Good() const { return {BytesOf(text), testpki::Sign(text, signer), crl}; }
  [[nodiscard]] Input Signed(const testpki::SignSpec& spec) const {
    return {BytesOf(text), testpki::Sign(text, spec), crl};
  }
  [[nodiscard]] Input SignedBy(const Identity& by) const {
    return {BytesOf(text), testpki::Sign(text, by), crl};
  }

  SIGNATURE_VERIFY_BLOCK_S Request(const Input& input) {
    SIGNATURE_VERIFY_BLOCK_S request = {};
    Write("list", input.content);
    Write("sig", input.signature);
    Write("crl", input.crl);
    SetText(request.contentPath, dir.File("list"));
    SetText(request.signaturePath, dir.File("sig"));
    SetText(request.crlPath, dir.File("crl"));
    SetText(request.extraCert, input.extra);
    return request;
  }
  uint32_t Verify(const Input& input) { return Check(input).result; }

  template <size_t kSize>
  static void SetText(char (&field)[kSize], const std::string& value) {
    ASSERT_EQ(strcpy_s(field, kSize, value.c_str()), EOK) << value;
  }

  Verdict Check(const Input& input) { return Check(Request(input)); }
  static Verdict Check(const SIGNATURE_VERIFY_BLOCK_S& request) {
    g_lines.clear();
    const uint32_t result = SignatureVerify(request);
    constexpr std::string_view kMarker = "verify signature error ";
    uint32_t code = 0;
    const std::string lines = Log();
    if (const size_t at = lines.rfind(kMarker); at != lines.npos)
      code = static_cast<uint32_t>(strtoul(&lines[at + kMarker.size()], nullptr, 16));
    return {result, code};
  }
  [[nodiscard]] static std::string Log() {
    std::string all;
    for (const std::string& line : g_lines) all += line + "\n";
    return all;
  }

  /// Writes `name` unless it holds these bytes already: the loops over damaged files change one at a time.
  void Write(const std::string& name, const Bytes& bytes) {
    const auto known = written_.find(name);
    if (known != written_.end() && known->second == bytes) return;
    testpki::WriteFile(dir.File(name), bytes);
    written_[name] = bytes;
  }

  support::TempDir dir;
  const std::string text = "FileNum=1\nFileName=app.bin\nSHA256-Digest=00ff\n";
  Identity root = testpki::MakeRoot({.name = "root"});
  Identity signer = testpki::MakeSigner(root);
  Bytes crl = testpki::MakeCrl(root, {.number = 1});

 private:
  std::map<std::string, Bytes> written_;
};

#define EXPECT_REFUSED(input, engineCode) \
  EXPECT_EQ(Check(input), (Verdict{kSigErrSignature, engineCode})) << Log()
#define EXPECT_ACCEPTED(input) EXPECT_EQ(Check(input), (Verdict{0, 0})) << Log()

}  // namespace cmstest
