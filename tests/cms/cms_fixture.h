/// What the cases of the signature engine share: a small PKI, files of their own, the log's lines, and the
/// check.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "cms/signature_verify.h"
#include "log/run_log.h"
#include "securec.h"
#include "support/temp_dir.h"
#include "support/test_pki.h"
#include "velto/kel_clock.h"

namespace cmstest {

using namespace testpki;  // the words in which these cases are written

/// Lines of the run log, as "<level> <source> <message>". Kept in memory: some cases check a thousand times.
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
constexpr Verdict Refused(uint32_t engineCode) {
  return {kSigErrSignature, engineCode};
}
constexpr Verdict kAccepted = {0, 0}, kMismatch = Refused(0), kUnusableCrl = {kSigErrCrl, 0},
                  kUnusableRoot = {kSigErrRootCert, 0}, kNoChain = Refused(kSigvfyErrChain),
                  kRevoked = Refused(kSigvfyErrRevoked), kUncovered = Refused(kSigvfyErrUncovered),
                  kForgedCrl = Refused(kSigvfyErrCrlSignature), kOutOfTime = Refused(kSigvfyErrTime),
                  kWrongUse = Refused(kSigvfyErrUsage), kBadAlgorithm = Refused(kSigvfyErrAlgorithm),
                  kBadAttributes = Refused(kSigvfyErrAttributes), kForged = Refused(kSigvfyErrSignature),
                  kUndecodable = Refused(kSigvfyErrDecode), kBadContent = Refused(kSigvfyErrContent),
                  kNoSigner = Refused(kSigvfyErrNoSigner);

class CmsTest : public testing::Test {
 protected:
  CmsTest() {
    RegLogSeparatePrintFunc(CaptureLine);
    InstallRoot(root);
    g_lines.clear();
  }
  ~CmsTest() override {
    ClearRoots();
    RegLogSeparatePrintFunc(nullptr);
    KEL_ClockModeSet(kKelClockReal);
  }

  /// What one check reads.
  struct Input {
    Bytes content, signature, crl;
    std::string extra = {};
  };
  [[nodiscard]] Input With(const Bytes& signature) const { return {BytesOf(text), signature, crl}; }
  [[nodiscard]] Input Signed(const SignSpec& spec) const { return With(Sign(text, spec)); }
  [[nodiscard]] Input SignedBy(const Identity& by, const std::vector<const Identity*>& chain = {}) const {
    return With(Sign(text, by, chain));
  }
  [[nodiscard]] Input Good() const { return SignedBy(signer); }
  [[nodiscard]] Input WithCrl(const Bytes& list) const { return {BytesOf(text), Sign(text, signer), list}; }

  SIGNATURE_VERIFY_BLOCK_S Request(const Input& input) const {
    SIGNATURE_VERIFY_BLOCK_S request = {};
    WriteFile(dir.File("list"), input.content);
    WriteFile(dir.File("sig"), input.signature);
    WriteFile(dir.File("crl"), input.crl);
    SetText(request.contentPath, dir.File("list"));
    SetText(request.signaturePath, dir.File("sig"));
    SetText(request.crlPath, dir.File("crl"));
    SetText(request.extraCert, input.extra);
    return request;
  }
  template <size_t kSize>
  static void SetText(char (&field)[kSize], const std::string& value) {
    ASSERT_EQ(strcpy_s(field, kSize, value.c_str()), EOK) << value;
  }

  Verdict Check(const Input& input) const { return Check(Request(input)); }
  static Verdict Check(const SIGNATURE_VERIFY_BLOCK_S& request) {
    g_lines.clear();
    Verdict verdict = {SignatureVerify(request), 0};
    constexpr std::string_view kMarker = "verify signature error ";
    for (const std::string& line : g_lines) {
      const size_t at = line.find(kMarker);
      if (at == line.npos) continue;
      verdict.engineCode = static_cast<uint32_t>(strtoul(&line[at + kMarker.size()], nullptr, 16));
    }
    return verdict;
  }
  struct Case {
    const char* what;
    Input input;
    Verdict expected;
  };
  void CheckEach(const std::vector<Case>& cases) const {
    for (const Case& c : cases) EXPECT_EQ(Check(c.input), c.expected) << c.what;
  }

  support::TempDir dir;
  const std::string text = "FileNum=1\nFileName=app.bin\nSHA256-Digest=00ff\n";
  Identity root = MakeRoot({.name = "root"});
  Identity signer = MakeSigner(root);
  Bytes crl = MakeCrl(root, {.number = 1});
};

}  // namespace cmstest
