#include "report.h"

#include "ask_product.h"
#include "base/owners.h"
#include "verify/secureboot_verify.h"
#include "verify/signature.h"
#include "verify/signature_verify_public.h"

namespace {

struct Reason {
  uint32_t code;
  const char* text;
};
constexpr Reason kReasons[] = {
    {0, ""},
    {17673, "a path of the list is too long"},
    {kVerifyErrFileOpen, "a listed file cannot be opened"},
    {kVerifyErrFileRead, "a listed file cannot be read"},
    {kSigErrContext, "the verification could not be set up"},
    {kSigErrRootCert, "no usable root certificate"},
    {kSigErrCrl, "the revocation list is missing or unusable"},
    {kSigErrEngine, "the signature cannot be checked"},
    {kSigErrSignature, "the signature does not prove the list"},
    {kVerifyErrFileNum, "the list has no FileNum="},
    {kVerifyErrFileName, "an entry of the list has no name"},
    {kVerifyErrListDigest, "an entry of the list has no digest"},
    {kVerifyErrHashDiffers, "a listed file has changed"},
    {kVerifyErrMoreEntries, "the list goes on after its count"},
    {kSecureBootErrNotListed, "the file is not listed"},
    {kSecureBootErrList, "the list is missing or cannot be opened"},
};

const char* StateOf(const SECUREBOOT_ENTRY_S& entry) {
  switch (VerifyFileHash(entry)) {
    case 0:
      return "matches";
    case kVerifyErrHashDiffers:
      return entry.forced ? "differs" : "differs, not forced";
    default:
      return "unreadable";
  }
}

/// The files of the list, as far as it can be read.
void LookAtFiles(const std::string& oneFile, CheckedList& out) {
  const base::FilePtr list(OpenFileList(out.list.c_str()));
  uint32_t count = 0;
  if (!list || GetFileNumFromList(list.get(), count) != 0) return;
  for (uint32_t i = 0; i < count; ++i) {
    SECUREBOOT_ENTRY_S entry;
    if (GetOneFileInfoFromFileList(list.get(), entry, out.list.c_str(), 0) != 0) return;
    const std::string file = std::string(entry.path) + entry.name;
    if (oneFile.empty() || file == oneFile) out.files.push_back({file, StateOf(entry)});
  }
}

}  // namespace

bool CheckList(const std::string& directory, const std::string& app, uint32_t mode,
               const std::string& oneFile, CheckedList& out) {
  SIGNATURE_VERIFY_BLOCK_S block;
  if (MakeSecureBootFullFilePathByMode(block, directory.c_str(), app.c_str(), mode) != 0) return false;
  out.mode = mode;
  out.list = block.contentPath;
  {
    const LogListener listener(out.said);
    out.code =
        oneFile.empty() ? SecureBootVerify(block, 0) : SecureBootVerifyOneFile(block, oneFile.c_str(), 0);
  }
  LookAtFiles(oneFile, out);
  return true;
}

const char* ReasonOf(uint32_t code) {
  for (const Reason& reason : kReasons) {
    if (reason.code == code) return reason.text;
  }
  return "see what was logged";
}
