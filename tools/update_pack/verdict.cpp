#include "verdict.h"

#include <stdlib.h>
#include <unistd.h>

#include "ask_product.h"
#include "frame/public_file_cfg.h"
#include "tool_io.h"
#include "update/file_name_check.h"
#include "verify/crl_manage.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace {

constexpr uint32_t kEnableInfo = 0x00020001;  // as the process enables it

// The hooks take no argument of ours; this program asks once and from one thread.
std::string g_storedDirectory;

/// Every file that the verification would look up on the device lies in the scratch directory instead.
const char* StoredInScratch(const char* path) {
  static std::string mapped;
  mapped = g_storedDirectory + "/" + BaseName(path);
  return mapped.c_str();
}

/// Copies `from` into the scratch directory under its own name; "" stays "".
bool Bring(const ScratchDir& scratch, const std::string& from, std::string& to, std::string& error) {
  if (from.empty()) return true;
  to = scratch.File(BaseName(from));
  return CopyToNewFile(from, to, error);
}

/// A link to the package under its own name: where it lies on this machine is not for the device to judge.
bool Point(const ScratchDir& scratch, const std::string& package, std::string& link, std::string& error) {
  link = scratch.File(BaseName(package));
  if (symlink(package.c_str(), link.c_str()) == 0) return true;
  error = "cannot make " + link;
  return false;
}

/// The road of an update up to its unpacking; stops at the first refusal.
void Walk(const SIGNATURE_VERIFY_REQ_S& request, uint16_t caType, const std::string& package,
          Verdict& verdict) {
  verdict.step = "signature and revocation list";
  verdict.code = TolaSingleFileSignatureVerify(request, caType);
  if (verdict.code != 0) return;
  verdict.step = "digest of the package";
  verdict.code = UpgradePackHashVerify(request.contentPath, package.c_str());
  if (verdict.code != 0) return;
  verdict.step = "names in the package";
  verdict.code = CheckFileNameInCompressedPackage(package.c_str());
  verdict.accepted = verdict.code == 0;
}

}  // namespace

bool AskProduct(const VerdictQuestion& question, Verdict& verdict, std::string& error) {
  const char* base = getenv("TMPDIR");
  const std::string place = base != nullptr && *base != '\0' ? base : "/tmp";
  ScratchDir files;
  ScratchDir stored;
  std::string list, signature, crl, package;
  if (!files.Make(place + "/update_pack.", error) || !stored.Make(place + "/update_pack.", error) ||
      !Bring(files, question.listPath, list, error) ||
      !Bring(files, question.signaturePath, signature, error) ||
      !Bring(files, question.crlPath, crl, error) || !Point(files, question.packagePath, package, error)) {
    return false;
  }
  g_storedDirectory = stored.path();
  SetCfgCallBackFunc(StoredInScratch, nullptr);  // before the verification looks for a stored list
  char storedName[kStoredCrlPathMax + 1];
  if (GetSignatureCrlFileName(question.caType, storedName, sizeof(storedName), kStoredCrlPathMax) != 0) {
    error = "the scratch directory's name is too long: " + stored.path();
    return false;
  }
  if (!question.storedCrl.empty() && !CopyToNewFile(question.storedCrl, storedName, error)) return false;

  const LogListener listener(verdict.said);
  std::string root;  // the table points at it until the verification is done
  bool ready = TolaEnableSignatureVerification(kEnableInfo) == 0 && TolaSignatureVerifierRegistered();
  if (!ready) error = "the verification could not be enabled";
  ready = ready && TrustRoot(question.rootCert, question.caType, root, error);
  if (ready) {
    SIGNATURE_VERIFY_REQ_S request;
    request.signaturePath = signature.c_str();
    request.contentPath = list.c_str();
    request.crlPath = crl.c_str();
    Walk(request, question.caType, package, verdict);
  }
  SetCfgCallBackFunc(nullptr, nullptr);
  return ready;
}
