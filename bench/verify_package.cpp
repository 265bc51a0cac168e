/// verify_package DIR: checks signature, revocation list and every digest of a package directory with the
/// product's own code, as the daemon does before it unpacks. The stored list is DIR/stored.crl.
/// verify_package DIR ROUNDS: checks the signed list against its revocation list that many times and prints
/// the milliseconds of one check.

#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "cms/signature_verify.h"
#include "frame/public_file_cfg.h"
#include "securec.h"
#include "velto/kel_clock.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace {

std::string g_storedCrl;

int Fail(const char* what, uint32_t result) {
  (void)fprintf(stderr, "verify_package: %s: %u\n", what, result);
  return 1;
}

int VerifyPackage(const std::string& dir) {
  const std::string list = dir + "/filelist.txt";
  const std::string signature = dir + "/filelist.cms";
  const std::string crl = dir + "/filelist.crl";
  SIGNATURE_VERIFY_REQ_S request;
  request.signaturePath = signature.c_str();
  request.contentPath = list.c_str();
  request.crlPath = crl.c_str();
  uint32_t result = TolaSingleFileSignatureVerify(request, 0);
  if (result != 0) return Fail("signature", result);
  result = UpgradePackHashVerify(list.c_str(), (dir + "/update.tar.gz").c_str());
  return result == 0 ? 0 : Fail("digest", result);
}

int TimeListCheck(const std::string& dir, int rounds) {
  SIGNATURE_VERIFY_BLOCK_S check = {};
  (void)strcpy_s(check.contentPath, sizeof(check.contentPath), (dir + "/filelist.txt").c_str());
  (void)strcpy_s(check.signaturePath, sizeof(check.signaturePath), (dir + "/filelist.cms").c_str());
  (void)strcpy_s(check.crlPath, sizeof(check.crlPath), (dir + "/filelist.crl").c_str());
  const uint64_t start = KEL_ClockMonotonicNs();
  for (int i = 0; i < rounds; ++i) {
    const uint32_t result = SignatureVerify(check);
    if (result != 0) return Fail("signature", result);
  }
  (void)printf("%.4f\n", static_cast<double>(KEL_ClockMonotonicNs() - start) / 1e6 / rounds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string dir = argv[1];
  g_storedCrl = dir + "/stored.crl";
  SetCfgCallBackFunc([](const char*) { return g_storedCrl.c_str(); }, nullptr);
  const uint32_t result = TolaEnableSignatureVerification(0x00020001);
  if (result != 0) return Fail("enable", result);
  return argc > 2 ? TimeListCheck(dir, atoi(argv[2])) : VerifyPackage(dir);
}
