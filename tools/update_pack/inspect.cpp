// Showing what is in a package and whether this build would accept it.
#include <inttypes.h>
#include <stdio.h>

#include <filesystem>
#include <system_error>

#include "cms/root_ca.h"
#include "commands.h"
#include "describe.h"
#include "options.h"
#include "text_out.h"
#include "update/update_result.h"
#include "verdict.h"

namespace {

constexpr char kUsage[] =
    R"(Usage: update_pack inspect DIR [OPTION]...

Shows what is in the package directory DIR and whether this build would accept it, by the product's own
verification on copies of the signature's files. Exit status: 0 accepted, 1 refused, 2 wrong usage.

  --ca-type N        family of the root: 0, 1 or 2 (default: 0)
  --root FILE        trust this root certificate in place of the built-in one of the CA type
  --stored-crl FILE  the revocation list that the device stores (default: none)
  --list NAME        the file list, where DIR holds several
  --verdict-only     do not describe the package, only judge it: one pass over its bytes
  --json             print one JSON object
)";

void PrintDescription(const PackageDescription& what) {
  printf("package %s/%s\n", what.directory.c_str(), Clean(what.package).c_str());
  for (const std::string& entry : what.entries) printf("  %s\n", Clean(entry).c_str());
  printf("file list %s, %zu listed\n", Clean(what.names.list).c_str(), what.files.size());
  for (const ListedFile& file : what.files) {
    printf("  %s  %s  %s\n", Clean(file.digest).c_str(), file.state.c_str(), Clean(file.name).c_str());
  }
  for (const SignerDescription& signer : what.signers) {
    printf("signer %s (%s)%s\n",
           signer.certFound ? Clean(signer.cert.subject).c_str() : "without certificate",
           signer.digest.c_str(), signer.revoked ? ", revoked by the list beside it" : "");
    if (!signer.certFound) continue;
    printf("  serial %s, issued by %s\n  valid %s to %s\n", signer.cert.serial.c_str(),
           Clean(signer.cert.issuer).c_str(), signer.cert.notBefore.c_str(), signer.cert.notAfter.c_str());
  }
  for (const CertDescription& cert : what.chain) {
    printf("chain %s, issued by %s\n  valid %s to %s\n", Clean(cert.subject).c_str(),
           Clean(cert.issuer).c_str(), cert.notBefore.c_str(), cert.notAfter.c_str());
  }
  for (const CrlDescription& crl : what.crls) {
    printf("revocation list of %s\n  number %s, of %s to %s, %d revoked\n", Clean(crl.issuer).c_str(),
           crl.number.empty() ? "none" : crl.number.c_str(), crl.thisUpdate.c_str(), crl.nextUpdate.c_str(),
           crl.revokedCount);
  }
  if (what.crls.empty() && !what.hasCrl) printf("no revocation list beside it\n");
  for (const std::string& trouble : what.troubles) printf("trouble: %s\n", Clean(trouble).c_str());
}

void PrintVerdict(const Verdict& verdict) {
  if (UsesDevelopmentRoots()) printf("this build trusts development roots\n");
  if (verdict.accepted) {
    printf("ACCEPTED\n");
    return;
  }
  printf("REFUSED with %" PRIu32 " at %s: %s\n", verdict.code, verdict.step.c_str(),
         UpdateResultText(static_cast<uint16_t>(verdict.code)));
  for (const std::string& line : verdict.said) printf("  %s\n", Clean(line).c_str());
}

std::string CertJson(const CertDescription& cert) {
  return "\"subject\":" + Quoted(cert.subject) + ",\"issuer\":" + Quoted(cert.issuer) +
         ",\"serial\":" + Quoted(cert.serial) + ",\"notBefore\":" + Quoted(cert.notBefore) +
         ",\"notAfter\":" + Quoted(cert.notAfter);
}

void PrintJson(const PackageDescription& what, const Verdict& verdict) {
  const auto file = [](const ListedFile& f) {
    return "{\"name\":" + Quoted(f.name) + ",\"digest\":" + Quoted(f.digest) +
           ",\"state\":" + Quoted(f.state) + "}";
  };
  const auto signer = [](const SignerDescription& s) {
    return "{" + CertJson(s.cert) + ",\"digest\":" + Quoted(s.digest) +
           ",\"revoked\":" + (s.revoked ? "true" : "false") + "}";
  };
  const auto crl = [](const CrlDescription& c) {
    return "{\"issuer\":" + Quoted(c.issuer) + ",\"number\":" + Quoted(c.number) +
           ",\"thisUpdate\":" + Quoted(c.thisUpdate) + ",\"nextUpdate\":" + Quoted(c.nextUpdate) +
           ",\"revoked\":" + std::to_string(c.revokedCount) + "}";
  };
  const auto cert = [](const CertDescription& c) { return "{" + CertJson(c) + "}"; };
  const char* reason = verdict.accepted ? "" : UpdateResultText(static_cast<uint16_t>(verdict.code));
  const std::string text =
      "{\"package\":" + Quoted(what.package) + ",\"entries\":" + Joined(what.entries, Quoted) +
      ",\"list\":" + Quoted(what.names.list) + ",\"files\":" + Joined(what.files, file) +
      ",\"signers\":" + Joined(what.signers, signer) + ",\"chain\":" + Joined(what.chain, cert) +
      ",\"crls\":" + Joined(what.crls, crl) + ",\"troubles\":" + Joined(what.troubles, Quoted) +
      ",\"developmentRoots\":" + (UsesDevelopmentRoots() ? "true" : "false") +
      ",\"accepted\":" + (verdict.accepted ? "true" : "false") + ",\"code\":" + std::to_string(verdict.code) +
      ",\"step\":" + Quoted(verdict.step) + ",\"reason\":" + Quoted(reason) +
      ",\"log\":" + Joined(verdict.said, Quoted) + "}";
  printf("%s\n", text.c_str());
}

}  // namespace

int RunInspect(std::span<char* const> arguments) {
  VerdictQuestion question;
  std::string caType, list, error;
  bool json = false, verdictOnly = false, help = false;
  const Option options[] = {
      {"ca-type", &caType}, {"root", &question.rootCert},   {"stored-crl", &question.storedCrl},
      {"list", &list},      {"verdict-only", &verdictOnly}, {"json", &json},
      {"help", &help}};
  std::vector<std::string> words;
  long type = 0;
  if (!ParseOptions(arguments, options, words, error) ||
      !ParseNumber(caType, "--ca-type", 0, 2, type, error)) {
    return RefuseUsage(error, kUsage);
  }
  if (help) {
    fputs(kUsage, stdout);
    return kExitDone;
  }
  if (words.size() != 1) return RefuseUsage("name one package directory", kUsage);
  std::error_code fault;
  const std::string directory = std::filesystem::canonical(words[0], fault).string();
  if (fault) error = "there is no directory " + words[0];

  PackageDescription what;
  if (!error.empty() || !Describe(directory, list, !verdictOnly, what, error)) {
    (void)Refuse(error);
    return kExitUsage;  // 1 is a package's refusal, and there is no package
  }
  question.caType = static_cast<uint16_t>(type);
  question.listPath = directory + "/" + what.names.list;
  question.signaturePath = directory + "/" + what.names.signature;
  if (what.hasCrl) question.crlPath = directory + "/" + what.names.crl;
  question.packagePath = directory + "/" + what.package;
  Verdict verdict;
  if (!AskProduct(question, verdict, error)) return Refuse(error);
  if (json) {
    PrintJson(what, verdict);
  } else {
    if (!verdictOnly) PrintDescription(what);
    PrintVerdict(verdict);
  }
  return verdict.accepted ? kExitDone : kExitRefused;
}
