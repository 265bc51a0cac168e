/// A device in a directory: stored revocation lists under stored/, an update under update/, a root that the
/// verification trusts, and the verification's log.
#pragma once

#include <ctype.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "frame/public_file_cfg.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_pki.h"
#include "verify/crl_manage.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace verifytest {

using testing::Contains;
namespace fs = std::filesystem;

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class VerifyTest : public ::testing::Test {
 protected:
  VerifyTest() {
    Directory() = dir_.File("stored");
    SetCfgCallBackFunc(Mapped, nullptr);
    TOLA_EnableSignatureVerificationLite(0x00020001);
    testpki::ClearRoots();
    testpki::InstallRoot(pki_.root);
    for (const char* name : {"stored", "update"}) TOLA_CHECK(mkdir(dir_.File(name).c_str(), 0700) == 0);
    log_.Clear();
  }
  ~VerifyTest() override {
    SetCfgCallBackFunc(nullptr, nullptr);
    TolaSignatureVerifierRegister(nullptr, nullptr);
  }

  std::string UpdateFile(const std::string& name) const { return dir_.File("update/" + name); }
  std::string StoredFile(const std::string& name) const { return dir_.File("stored/" + name); }

  static std::string Text(const testpki::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

  /// SHA-256 as a list wants it; made with libcrypto, not with the code under test.
  static std::string DigestOf(const std::string& bytes) {
    unsigned char digest[32];
    TOLA_CHECK(EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha256(), nullptr) == 1);
    char text[65];
    TOLA_CHECK(OPENSSL_buf2hexstr_ex(text, sizeof(text), nullptr, digest, sizeof(digest), '\0') == 1);
    for (char& c : text) c = static_cast<char>(tolower(c));
    return text;
  }

  static std::string Entry(const std::string& name, const std::string& content) {
    return "FileName=" + name + "\nSHA256-Digest=" + DigestOf(content) + "\n";
  }

  support::TempDir dir_;
  support::LogCapture log_;
  testpki::SmallPki pki_;

 private:
  static std::string& Directory() {
    static std::string directory;
    return directory;
  }
  static const char* Mapped(const char* path) {
    static std::string mapped;
    mapped = Directory() + std::string(path).substr(std::string(path).rfind('/'));
    return mapped.c_str();
  }
};

}  // namespace verifytest
